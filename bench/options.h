// The long options of a command, as a table.
#pragma once

#include "bench/text.h"

#include <cstddef>
#include <getopt.h>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace bench
{

using UsageError = std::invalid_argument;

// One option: its name, whether it takes a value, and what it does.
template <typename Settings> struct OptionRow {
    const char *name;
    bool takesValue;
    void (*apply)(Settings &settings, const char *name, const std::string &value);
};

// Applies the options of a command line in their order, up to the first word that is no option. optind is then the
// index of that word. Throws UsageError. getopt has then printed its own message.
template <typename Settings>
void ReadOptions(std::span<const OptionRow<Settings>> rows, int argc, char *argv[], Settings &settings)
{
    std::vector<option> options;
    for (const OptionRow<Settings> &row : rows)
        options.push_back({row.name, row.takesValue ? required_argument : no_argument, nullptr, 0});
    options.push_back({});
    int index = 0;
    for (int result = 0; (result = getopt_long(argc, argv, "+", options.data(), &index)) != -1;) {
        if (result != 0)
            throw UsageError("see --help");
        const OptionRow<Settings> &row = rows[static_cast<std::size_t>(index)];
        row.apply(settings, row.name, optarg == nullptr ? "" : optarg);
    }
}

// Reads the value of an option as a number from first to last. Throws UsageError if it is none.
inline unsigned OptionNumber(const char *name, const std::string &text, int base, unsigned first, unsigned last)
{
    const auto number = ParseNumber(text, base, last);
    if (!number || *number < first)
        throw UsageError(std::string("--") + name + ": \"" + text + "\" is no number that this option takes");
    return *number;
}

// Reads the value of an option that is for one device: "micro", the separator, and the text that is left. Returns both
// texts. Throws UsageError if it has another form. meaning names the text for the message.
inline std::pair<std::string, std::string> DeviceOption(const char *name, const std::string &value, char separator,
                                                        const std::string &meaning)
{
    const std::size_t end = value.find(separator);
    const std::string device = value.substr(0, end);
    if (end == std::string::npos || end + 1 == value.size() || (device != "micro" && device != "camera"))
        throw UsageError(std::string("--") + name + ": the value has to be micro" + separator + meaning + " or camera" +
                         separator + meaning);
    return {device, value.substr(end + 1)};
}

} // namespace bench
