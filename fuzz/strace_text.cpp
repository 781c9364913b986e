// The text of strace. A byte of the input from 80 on stands for a phrase of such a text, so that inputs soon come to
// calls that matter. Whatever is in the text: the events are those of an order that a capture can have, and the capture
// brings back all of their bytes.
#include "fuzz/support.h"

#include "bench/capture/capturefile.h"
#include "bench/capture/stracetext.h"

#include <iterator>
#include <sstream>

namespace
{

using bench::Event;

constexpr const char *kPhrases[] = {
    "\n",
    "7 ",
    "8 ",
    "[pid 8] ",
    "1795326240.442042 ",
    "     0.000033 ",
    "23:59:59 ",
    "00:00:01.5 ",
    "strace: Process 8 attached\n",
    " <unfinished ...>\n",
    "<... write resumed>",
    "<... read resumed>",
    "<... clone resumed>",
    "<... close resumed>",
    ") = 0\n",
    ") = 2 <0.000123>\n",
    ") = 3\n",
    ") = 8\n",
    ") = 3</dev/fpgaserial0<char 240:0>>\n",
    ") = -1 EIO (Input/output error)\n",
    ") = ? ERESTARTSYS (To be restarted)\n",
    ") = ?\n",
    "+++ exited with 3 +++\n",
    "+++ killed by SIGKILL (core dumped) +++\n",
    "+++ superseded by execve in pid 8 +++\n",
    "--- SIGINT {si_signo=SIGINT} ---\n",
    "openat(AT_FDCWD, \"/dev/fpgaserial1\", O_RDWR|O_CLOEXEC",
    "open(\"/\\x74mp/plaunch\", 02",
    "open(\"haldenmicro.bin\", O_RDONLY",
    "open(\"farsightcamver\", O_RDONLY",
    "open(\"link\", O_RDWR",
    "write(3, ",
    "write(3</dev/fpgaserial1>, ",
    "read(3, ",
    "pread64(3, ",
    "writev(3, [{iov_base=",
    ", iov_len=2}, {\"c\", 1}], 2",
    "\"\\xff\\x44\\000\\4\"",
    "\"\\25\\6\"",
    "\"ab\"...",
    "ioctl(3, ",
    "_IOC(_IOC_WRITE, 0, 0x1, 0x26), 0x7ff0",
    "0x80260002, 1",
    "dup(3",
    "dup2(3, 4",
    "fcntl64(3, F_DUPFD_CLOEXEC, 4",
    "fcntl(3, F_SETFD, FD_CLOEXEC",
    "close(3",
    "close_range(3, ~0U, 0",
    "fork(",
    "clone(child_stack=NULL, flags=CLONE_VM|CLONE_FILES|CLONE_THREAD",
    "clone3({flags=0x3d0f00} => {parent_tid=[8]}, 88",
    "vfork(",
    "execve(\"/x/haldenflash\", [\"haldenflash\", \"it's\"], 0x7f",
    "exit_group(0",
    "pselect6(0, NULL, NULL, NULL, {tv_sec=3, tv_nsec=0}, NULL",
    "_newselect(0, NULL, NULL, NULL, {3, 5}",
    "_llseek(3, 0, [6144], SEEK_END",
    "lseek(3, 0, SEEK_SET",
    "fstat64(3, {st_mode=S_IFREG|0644, st_size=6144, ...}",
    "stat(\"farsightsys.bin\", 0x7f",
    "pipe2([3, 4], O_CLOEXEC",
    "unshare(CLONE_FILES",
    ", 2",
    ", 1000000",
};

// Fails if an event is one that no capture has.
void CheckEvent(const Event &event, bench::WallTime last)
{
    CHECK(event.begin >= last && event.end >= event.begin);
    CHECK(event.port >= bench::kNoPort && event.port <= 9);
    CHECK((event.way == bench::Way::kNone) == event.bytes.empty());
    CHECK(event.bytes.empty() == !event.note.empty());
}

std::size_t SizeOf(const Event &event)
{
    return event.bytes.size();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const UInt8 *data, std::size_t size)
{
    std::string input;
    for (std::size_t i = 0; i < size; ++i)
        input += data[i] < 0x80 ? std::string(1, static_cast<char>(data[i]))
                                : kPhrases[(data[i] - 0x80U) % std::size(kPhrases)];
    std::istringstream stream(input);
    std::stringstream file;
    std::size_t bytes = 0;
    try {
        bench::StraceText text(stream, {{"link", 0}});
        bench::CaptureWriter writer(file, text.info());
        bench::WallTime last{0};
        text.HandOut([&](const Event &event) {
            CheckEvent(event, last);
            last = event.begin;
            bytes += SizeOf(event);
            writer.Write(event);
        });
        writer.Finish();
    } catch (const bench::StraceError &) {
        CHECK(file.str().empty()); // errors are found before anything is handed out
        return 0;
    }
    for (const Event &event : bench::ReadCapture(file).events)
        bytes -= SizeOf(event);
    CHECK(bytes == 0);
    return 0;
}
