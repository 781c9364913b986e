// The common part of the fuzz targets. Each target is one unit with this header. Before the first input:
// - The target has configuration folders of its own, beside its working folder.
// - Its thread is a task.
// - The log has read its settings.
// - Standard output leads nowhere.
#pragma once

#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "Common/OS/logmsg.h"
#include "Common/OS/osassert.h"
#include "Common/framework/config.h"
#include "bench/standin/folders.h"

#include <algorithm>
#include <string>
#include <string_view>

#define CHECK(condition) os_assert(condition, #condition)

// Writes an item's dat file.
inline void PutFile(const char *name, Int32 instance, const std::string &text)
{
    char path[kConfigPathSize];
    CHECK((std::ofstream(ConfigGetDatFileName(name, instance, path), std::ios::binary) << text).flush().good());
}

// The part of the first line that fits in a buffer of size characters.
inline std::string FirstLine(std::string_view text, std::size_t size)
{
    return std::string(text.substr(0, std::min(text.find_first_of(std::string_view("\0\r\n", 3)), size - 1)));
}

extern "C" [[gnu::used]] inline int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    static const ConfigFolders folders;
    CHECK(std::freopen("/dev/null", "w", stdout) != nullptr);
    CHECK(t_attach("fuzz", 10) == 0);
    logmsg_print("reads the settings", 1);
    return 0;
}
