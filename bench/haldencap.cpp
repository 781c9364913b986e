// The command haldencap: makes captures from the field, and shows them.
#include "bench/capture/images.h"
#include "bench/capture/show.h"
#include "bench/capture/stracetext.h"
#include "bench/capture/timeline.h"
#include "bench/options.h"
#include "bench/rig/descriptor.h"
#include "bench/rig/watch.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

namespace
{

using namespace bench;

constexpr int kGood = 0;
constexpr int kBad = 1;
constexpr int kUsage = 2;

constexpr char kHelp[] =
    "Usage: haldencap COMMAND ...\n"
    "Makes captures from the field, and shows them.\n"
    "  from-strace [--port DEVICE=FILE]... TEXT CAPTURE\n"
    "                            make a capture of the output of strace; \"-\" is standard input or output.\n"
    "                            DEVICE is micro or camera. FILE is the name by which the program opened it, if that\n"
    "                            was another than /dev/fpgaserial1 or /dev/fpgaserial0. On the appliance:\n"
    "      strace -f -ttt -T -y -xx -s 262144 -o TEXT -e trace=file,desc,process haldenflash all\n"
    "  show CAPTURE              print the run as text\n"
    "  timeline CAPTURE SVG      draw the run as a picture\n"
    "  images CAPTURE DIR        rebuild the images and version files of a run in DIR\n"
    "  watch PIPE [LOW HIGH] [-- COMMAND ...]\n"
    "                            show the progress that an update writes to the FIFO PIPE\n"
    "  help                      print this\n"
    "Exit status:\n"
    "  0  the work is done\n"
    "  1  it could not be done, and the message says why\n"
    "  2  wrong usage\n"
    "watch ends with the status of COMMAND, or with 128 + N if signal N ended it.\n";

using Words = std::vector<std::string>;

constexpr std::size_t kOwnWords = ~std::size_t{0};

// One command: its name, how many words it takes behind it, and what it does. With kOwnWords it counts them itself.
struct Command {
    const char *name;
    std::size_t words;
    int (*run)(const Words &words);
    bool more = false; // it takes more words than that, too
};

int Help(const Words &)
{
    std::cout << kHelp;
    return kGood;
}

// ---- from-strace

void AddPort(const std::string &value, StraceText::PortPaths &ports)
{
    const auto [device, path] = DeviceOption("port", value, '=', "FILE");
    ports[path] = device == "micro" ? kMicroPort : kCameraPort;
}

// Copies a stream to a file without a name.
std::fstream Spool(std::istream &source)
{
    std::string path = std::filesystem::temp_directory_path() / "haldencap.XXXXXX";
    const Descriptor made(Checked(mkstemp(path.data()), path.c_str()));
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    std::filesystem::remove(path);
    if (source.peek() != std::char_traits<char>::eof())
        file << source.rdbuf();
    if (!file.flush())
        throw std::runtime_error("cannot write " + path);
    return file;
}

// A stream that can be read twice. What is no file is copied to one.
std::fstream OpenText(const std::string &path)
{
    if (path == "-")
        return Spool(std::cin);
    std::fstream file(path, std::ios::in | std::ios::binary);
    if (!file || std::filesystem::is_directory(path))
        throw std::runtime_error("cannot read " + path);
    return std::filesystem::is_regular_file(path) ? std::move(file) : Spool(file);
}

void Convert(std::istream &stream, const StraceText::PortPaths &ports, const std::string &path)
{
    StraceText text(stream, ports);
    std::ofstream file;
    if (path != "-")
        file.open(path, std::ios::binary);
    std::ostream &output = path == "-" ? std::cout : file;
    if (!output)
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    CaptureWriter writer(output, text.info());
    bool hasLine = false;
    text.HandOut([&](const Event &event) {
        hasLine = hasLine || event.port != kNoPort;
        writer.Write(event);
    });
    writer.Finish();
    if (!output.flush())
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    if (!hasLine)
        throw StraceError("the program opens no serial line there; --port tells by which file it opens one");
}

int FromStrace(const Words &words)
{
    StraceText::PortPaths ports;
    std::size_t first = 0;
    for (; first + 1 < words.size() && words[first] == "--port"; first += 2)
        AddPort(words[first + 1], ports);
    if (words.size() != first + 2)
        throw UsageError("from-strace takes 2 words behind its options; see haldencap help");
    const std::string &path = words[first];
    std::fstream stream = OpenText(path);
    try {
        Convert(stream, ports, words[first + 1]);
    } catch (const StraceError &error) {
        throw std::runtime_error((path == "-" ? "standard input" : path) + ": " + error.what());
    }
    return kGood;
}

// ---- The other commands

int ShowCapture(const Words &words)
{
    Show(DigestOf(ReadCapture(words[0])), std::cout);
    std::cout.flush();
    return std::cout ? kGood : throw std::runtime_error("cannot write the output");
}

int DrawTimeline(const Words &words)
{
    std::ostringstream picture;
    Timeline(DigestOf(ReadCapture(words[0])), picture);
    const std::string text = picture.str();
    WriteFile(words[1], Bytes(text.begin(), text.end()));
    return kGood;
}

int Images(const Words &words)
{
    const RebuiltFiles files = RebuildFiles(ReadCapture(words[0]));
    WriteFiles(files, words[1]);
    for (const std::string &remark : files.remarks)
        std::cerr << "haldencap: " << remark << "\n";
    return kGood;
}

// ---- watch

int Bound(const std::string &word, std::int64_t above)
{
    int bound = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), bound);
    if (error != std::errc() || end != word.data() + word.size() || bound <= above)
        throw UsageError("watch: \"" + word + "\" is no bound; HIGH is above LOW and above 0");
    return bound;
}

int WatchPipe(const Words &words)
{
    const auto dashes = std::find(words.begin(), words.end(), "--");
    const auto count = dashes - words.begin();
    if ((count != 1 && count != 3) || dashes + 1 == words.end())
        throw UsageError("watch takes PIPE [LOW HIGH] [-- COMMAND ...]; see haldencap help");
    WatchOptions options = {.fifo = words[0]};
    if (count == 3) {
        options.low = Bound(words[1], INT64_MIN);
        options.high = Bound(words[2], std::max(options.low, 0));
    }
    if (dashes != words.end())
        options.command.assign(dashes + 1, words.end());
    return Watch(options);
}

constexpr Command kCommands[] = {
    {"from-strace", kOwnWords, FromStrace}, {"show", 1, ShowCapture},
    {"timeline", 2, DrawTimeline},          {"images", 2, Images},
    {"watch", kOwnWords, WatchPipe},        {"help", 0, Help},
};

int Work(const Words &words)
{
    const std::string name = words.empty() ? "" : words.front() == "--help" ? "help" : words.front();
    for (const Command &command : kCommands) {
        if (name != command.name)
            continue;
        if (command.words != kOwnWords && words.size() != command.words + 1)
            throw UsageError(name + " takes " + std::to_string(command.words) + " words; see haldencap help");
        return command.run({words.begin() + 1, words.end()});
    }
    throw UsageError("there is no command \"" + name + "\"; see haldencap help");
}

} // namespace

int main(int argc, char *argv[])
{
    try {
        return Work({argv + 1, argv + argc});
    } catch (const UsageError &error) {
        std::cerr << "haldencap: " << error.what() << "\n";
        return kUsage;
    } catch (const std::exception &error) {
        std::cerr << "haldencap: " << error.what() << "\n";
        return kBad;
    }
}
