// The command haldencap: makes captures from the field, and shows them.
#include "bench/capture/capturefile.h"
#include "bench/capture/images.h"
#include "bench/options.h"

#include <cstdlib>
#include <iostream>

namespace
{

using namespace bench;

constexpr int kGood = 0;
constexpr int kBad = 1;
constexpr int kUsage = 2;

constexpr char kHelp[] = "Usage: haldencap COMMAND ...\n"
                         "Makes captures from the field, and shows them.\n"
                         "  images CAPTURE DIR        rebuild the images and version files of a run in DIR\n"
                         "  help                      print this\n"
                         "Exit status:\n"
                         "  0  the work is done\n"
                         "  1  it could not be done, and the message says why\n"
                         "  2  wrong usage\n";

using Words = std::vector<std::string>;

// One command: its name, how many words it takes behind it, and what it does.
struct Command {
    const char *name;
    std::size_t words;
    int (*run)(const Words &words);
};

int Help(const Words &)
{
    std::cout << kHelp;
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

constexpr Command kCommands[] = {
    {"images", 2, Images},
    {"help", 0, Help},
};

int Work(const Words &words)
{
    const std::string name = words.empty() ? "" : words.front() == "--help" ? "help" : words.front();
    for (const Command &command : kCommands) {
        if (name != command.name)
            continue;
        if (words.size() != command.words + 1)
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
