// The command haldencap: makes captures from the field, and shows them.
#include "bench/capture/capturefile.h"
#include "bench/options.h"
#include "bench/rig/watch.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
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
                         "  help                      print this\n"
                         "  watch PIPE [LOW HIGH] [-- COMMAND ...]\n"
                         "                            show the progress that an update writes to the FIFO PIPE\n"
                         "Exit status:\n"
                         "  0  the work is done\n"
                         "  1  it could not be done, and the message says why\n"
                         "  2  wrong usage\n"
                         "watch ends with the status of COMMAND, or with 128 + N if signal N ended it.\n";

using Words = std::vector<std::string>;

// One command: its name, how many words it takes behind it, and what it does.
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
    {"help", 0, Help},
    {"watch", 1, WatchPipe, true},
};

int Work(const Words &words)
{
    const std::string name = words.empty() ? "" : words.front() == "--help" ? "help" : words.front();
    for (const Command &command : kCommands) {
        if (name != command.name)
            continue;
        if (words.size() <= command.words || (words.size() > command.words + 1 && !command.more))
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
