#include "bench/rig/calllog.h"

#include "bench/standin/preload.h"
#include "bench/text.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <sstream>
#include <sys/mman.h>

namespace bench
{

namespace
{

CallLog::Entry EntryOf(const std::string &line)
{
    char *rest = nullptr;
    const std::chrono::microseconds time(std::strtoll(line.c_str(), &rest, 10));
    const std::string text = *rest == ' ' ? rest + 1 : rest;
    const std::size_t tab = std::min(text.find('\t'), text.size());
    return {time, text.substr(0, tab), text.substr(std::min(tab + 1, text.size()))};
}

} // namespace

CallLog::CallLog() : fd_(Checked(memfd_create("haldenbench", MFD_CLOEXEC), "memfd"))
{
    Checked(ftruncate(fd_.get(), sizeof(EventLog)), "memfd");
}

std::string CallLog::Path() const
{
    return Format("/proc/%d/fd/%d", static_cast<int>(getpid()), fd_.get());
}

std::size_t CallLog::Room()
{
    return sizeof(EventLog::text);
}

std::size_t CallLog::Used() const
{
    std::uint32_t used = 0;
    Checked(static_cast<int>(pread(fd_.get(), &used, sizeof used, offsetof(EventLog, used))), "memfd");
    return used;
}

std::vector<CallLog::Entry> CallLog::Read(std::size_t &position, bool ended) const
{
    std::string text(std::min(Used(), Room()) - position, '\0');
    const auto from = static_cast<off_t>(offsetof(EventLog, text) + position);
    Checked(static_cast<int>(pread(fd_.get(), text.data(), text.size(), from)), "memfd");
    if (!ended) {
        text.resize(std::min(text.find('\0'), text.size())); // room that is not written yet is zero
        text.resize(text.rfind('\n') + 1);
    }
    position += text.size();
    std::erase(text, '\0');
    std::vector<Entry> entries;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        entries.push_back(EntryOf(line));
    return entries;
}

} // namespace bench
