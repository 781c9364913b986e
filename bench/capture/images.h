// The files of an update, rebuilt from what was sent. A replay of the capture needs no other file then.
// - An image has the bytes of its blocks, in the order in which they were sent. The updater always goes on with the
//   next bytes of its file.
// - What was not sent is zero, up to the size that the capture tells.
// - An image that was not sent gets such a first byte, or its version file such a text, that it is not sent again.
#pragma once

#include "bench/capture/capturefile.h"

#include <map>

namespace bench
{

struct RebuiltFiles {
    std::map<std::string, Bytes> contents; // by name; a file without an entry has to be missing
    std::vector<std::string> remarks;      // what cannot be told, one sentence each
};

RebuiltFiles RebuildFiles(const Capture &capture);

// Writes the files into a directory, which is made. Files that have to be missing are not looked at. Throws
// std::runtime_error.
void WriteFiles(const RebuiltFiles &files, const std::string &directory);

} // namespace bench
