#include "bench/capture/stracetext_inner.h"

#include "bench/rig/images.h"

#include <cstdint>

namespace bench::strace
{

namespace
{

constexpr std::int64_t kAll = INT64_MAX;

struct Name {
    const char *name;
    bool isText;
    std::int64_t used; // bytes; what is behind them does not matter
};
constexpr Name kNames[] = {
    {kMicroImage, false, kMicroImageSize}, {kCameraImage, false, kAll},  {kSystemImage, false, kAll},
    {kCameraVersion, true, kAll},          {kSystemVersion, true, kAll},
};

} // namespace

Images::Images()
{
    for (const Name &row : kNames)
        files_[row.name];
}

Images::File *Images::Find(const std::string &path)
{
    const auto found = files_.find(path.substr(path.rfind('/') + 1));
    return found == files_.end() ? nullptr : &found->second;
}

void Images::Describe(RunInfo &info, std::vector<std::string> &remarks) const
{
    for (const Name &row : kNames) {
        const std::string name = row.name;
        const File &file = files_.at(name);
        const bool found = file.seen > 0 || file.size;
        if (!found && file.missing)
            info.files.push_back(name + " missing");
        if (found && row.isText)
            info.files.push_back(name + " text " + Printable(file.head));
        if (found && !row.isText)
            info.files.push_back(name + " " + std::to_string(file.size.value_or(file.seen)) + " bytes" +
                                 (file.head.empty() ? "" : Format(" first %02X", file.head.front())));
        if (found && !row.isText && !file.size && file.seen < row.used)
            remarks.push_back("! the text does not show the end of " + name + ", which may be longer");
    }
}

} // namespace bench::strace
