// The command line, in this process, with other update procedures. The input is a byte that says how the updates end,
// three bytes that say how large the images are, the name of the board, and the arguments, each on a line.
#include "fuzz/support.h"

#include "Common/OS/linux/oslinux.h"
#include "devlib/haldenflash/haldenflash.h"
#include "softupdate/progressctrl/progressctrl.h"

#include <climits>
#include <cstring>
#include <sstream>
#include <sys/stat.h>
#include <vector>

namespace
{

constexpr Int64 kSizes[] = {0, 6144, 129024, INT32_MAX, Int64{1} << 32, -1}; // -1: there is no such file

struct Run {
    int results[2];      // of the two updates
    Boolean required[2]; // what they find out
    Int64 imageSize[3];  // microcontroller, camera, system
    std::string calls = {};
};
Run gRun;

int Update(char name, int index)
{
    CHECK(gRun.calls.starts_with("i"));
    gRun.calls += name;
    updateProgress(1000);
    gbUpdateRequired |= gRun.required[index];
    return gRun.results[index];
}

} // namespace

// ---- Linked in place of the updates, the ports and two system calls

int FlashMicro(int argc, char *const argv[]) __asm__("__wrap__Z11flash_microiPKPc");
int FlashMicro(int /*argc*/, char *const /*argv*/[])
{
    return Update('m', 0);
}

int FlashFarSight(int argc, char *const argv[]) __asm__("__wrap__Z14flash_farsightiPKPc");
int FlashFarSight(int /*argc*/, char *const /*argv*/[])
{
    return Update('f', 1);
}

UInt32 InitPorts() __asm__("__wrap__Z17DevMgrSerial_Initv");
UInt32 InitPorts()
{
    gRun.calls += 'i';
    return 0;
}

int RealStat(const char *path, struct stat *status) __asm__("__real_stat64");
int Stat(const char *path, struct stat *status) __asm__("__wrap_stat64");
int Stat(const char *path, struct stat *status)
{
    constexpr std::string_view kImages[] = {"haldenmicro.bin", "farsightcam.bin", "farsightsys.bin"};
    const auto image = std::find(std::begin(kImages), std::end(kImages), path) - std::begin(kImages);
    if (image == std::ssize(kImages)) // the fuzzer's own
        return RealStat(path, status);
    status->st_size = gRun.imageSize[image];
    return status->st_size < 0 ? -1 : 0;
}

// The progress pipe can be any file.
int Open(const char *path, int flags, ...) __asm__("__wrap_open");
int Open(const char *path, int /*flags*/, ...)
{
    CHECK(gProgressCtrl.bDoUpdate != 0 && std::string(gProgressCtrl.pszCommPipe).substr(0, 255) == path);
    return -1;
}

namespace
{

// Like strtoll, at 32 bits.
Int32 Number(const std::string &text)
{
    std::size_t at = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
    const bool negative = text[at] == '-';
    at += negative || text[at] == '+' ? 1 : 0;
    Int64 value = 0;
    for (; text[at] >= '0' && text[at] <= '9'; at++)
        value = std::min<Int64>(value * 10 + text[at] - '0', Int64{1} << 40);
    return static_cast<Int32>(std::clamp<Int64>(negative ? -value : value, INT32_MIN, INT32_MAX));
}

struct Choice {
    bool micro = false, farsight = false, query = false, progress = false;
    std::string pipe;
    Int32 low = 0, high = 0;
};

Choice Chosen(const std::vector<std::string> &words)
{
    Choice choice;
    for (std::size_t i = 0; i < words.size(); i++) {
        const std::string &word = words[i];
        choice.micro |= word == "all" || word == "micro";
        choice.farsight |= word == "all" || word == "farsight";
        choice.query |= word.starts_with("q");
        if (word == "-p" && i + 2 < words.size()) {
            choice.progress = true;
            choice.pipe = words[i + 1];
            choice.low = Number(words[i + 2]);
            choice.high = i + 3 < words.size() ? Number(words[i + 3]) : 0;
            i += 3;
        }
    }
    return choice;
}

// Sizes wrap at 32 bits. A missing image switches progress off.
void CheckProgress(const Choice &choice)
{
    UInt32 total = 0;
    bool complete = true;
    for (const std::size_t image : {0u, 1u, 2u}) {
        if (image == 0 ? !choice.micro : !choice.farsight)
            continue;
        complete &= gRun.imageSize[image] >= 0;
        total += gRun.imageSize[image] >= 0 ? static_cast<UInt32>(gRun.imageSize[image]) : 0;
    }
    CHECK((gProgressCtrl.bDoUpdate != 0) == (choice.progress && complete));
    CHECK(gProgressCtrl.nTotBytesToDo == static_cast<Int32>(choice.progress ? total : 0));
    CHECK(gProgressCtrl.nRangeLowerLimit == choice.low && gProgressCtrl.nRangeUpperLimit == choice.high);
    CHECK(!choice.progress || choice.pipe == gProgressCtrl.pszCommPipe);
}

void CheckEnd(const Choice &choice, int status)
{
    std::string calls = "i";
    int result = choice.micro || choice.farsight ? 0 : -1;
    Boolean required = 0;
    for (const std::size_t update : {0u, 1u}) {
        if (result != 0 || !(update == 0 ? choice.micro : choice.farsight))
            continue;
        calls += "mf"[update];
        result = gRun.results[update];
        required |= gRun.required[update];
    }
    CHECK(gRun.calls == calls && gbQueryOnly == (choice.query ? 1 : 0));
    CHECK(status == (result == 0 && choice.query ? static_cast<int>(required) : result));
}

// The hardware type on a board of that name.
hwTypeT TypeOf(std::string board, hwTypeT unknown)
{
    std::transform(board.begin(), board.end(), board.begin(), [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
    if (board == "quillmark" || board == "brisko")
        return kQuillmark;
    return board == "k4"          ? kK4
           : board == "vane"      ? kVane
           : board == "strathmor" ? kStrathmor
           : board == "kora"      ? kKora
                                  : unknown;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const UInt8 *data, std::size_t size)
{
    if (size < 4)
        return 0;
    const auto sizeOf = [](UInt8 choice) { return kSizes[choice % std::size(kSizes)]; };
    gRun = {{-(data[0] & 1), -(data[0] >> 1 & 1)},
            {static_cast<Boolean>(data[0] >> 2 & 1), static_cast<Boolean>(data[0] >> 3 & 1)},
            {sizeOf(data[1]), sizeOf(data[2]), sizeOf(data[3])}};
    std::istringstream input(std::string(data + 4, data + size));
    std::string line;
    std::getline(input, line);
    static char variable[4096]; // stays the environment's
    std::snprintf(variable, sizeof variable, "TALVORA_BOARDID=%s", line.c_str());
    const bool isSet = (data[0] & 16) == 0;
    CHECK(isSet ? putenv(variable) == 0 : unsetenv("TALVORA_BOARDID") == 0);
    const std::string board = isSet ? line.c_str() : "k4";
    std::vector<std::string> words;
    while (std::getline(input, line))
        words.emplace_back(line.c_str());
    std::vector<char *> argv(words.size() + 1);
    std::transform(words.begin(), words.end(), argv.begin(), [](std::string &word) { return word.data(); });

    const Choice choice = Chosen(words);
    gbDoMicro = gbDoFarsight = gbQueryOnly = gbUpdateRequired = 0;
    SetSystemHardwareType(kUninitialized);
    const int status = RunHaldenflash(static_cast<int>(words.size()), argv.data());
    CheckEnd(choice, status);
    if (choice.micro || choice.farsight)
        CheckProgress(choice);
    CHECK(GetSystemHardwareType() == TypeOf(board, kUninitialized));
    return 0;
}
