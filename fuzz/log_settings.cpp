// The log's settings, from the files of their items. Lines of the input: a log line, the format, ten show filters, ten
// cull filters.
#include "fuzz/support.h"

#include <sstream>
#include <vector>

namespace
{

// Loads an item whose instances have the next lines in their files. Returns the values that are not empty.
std::vector<std::string> Load(std::istream &input, const char *name, Int32 instances, Int32 (*load)())
{
    std::vector<std::string> values;
    for (Int32 instance = 0; instance < instances; instance++) {
        std::string line;
        if (std::getline(input, line) && !line.empty())
            PutFile(name, instance, line);
        values.push_back(FirstLine(line, kConfigValueSize - 1));
    }
    load();
    for (Int32 instance = 0; instance < instances; instance++)
        ConfigDelete(name, instance);
    std::erase(values, "");
    return values;
}

Int32 BitsOf(const std::vector<std::string> &format)
{
    const std::string words = format.empty() ? "" : " " + format[0] + " ";
    const auto bit = [&](const char *word, Int32 mask) { return words.find(word) != words.npos ? mask : 0; };
    return bit(" date ", kLogFormatDate) | bit(" time ", kLogFormatTime) | bit(" level ", kLogFormatLevel) |
           bit(" proc ", kLogFormatProc);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char *data, std::size_t size)
{
    std::istringstream input(std::string(data, size));
    std::string first;
    std::getline(input, first);
    const std::string line = first.substr(0, first.find('\0'));
    const Int32 bits = BitsOf(Load(input, "logformat", 1, logmsg_format_load));
    CHECK(logmsg_get_format() == bits);
    logmsg_showfilter_delete("*");
    logmsg_cullfilter_delete("*");
    const auto show = Load(input, "showfilter", 10, logmsg_showfilter_load);
    const auto cull = Load(input, "cullfilter", 10, logmsg_cullfilter_load);
    const auto matches = [&](const std::string &filter) { return line.find(filter) != line.npos; };
    const bool shown = show.empty() || std::any_of(show.begin(), show.end(), matches);
    const bool passes = !line.empty() && shown && std::none_of(cull.begin(), cull.end(), matches);
    CHECK(logmsg_print(line.c_str(), 5) == (passes ? 5 : 0));
    loginfo(line.c_str(), "%s\n", line.c_str());
    loginfo(nullptr, "\n"); // what was cut in front of its line feed left the line open
    return 0;
}
