// Configuration folders of their own for a test or a fuzz target, and a working directory beside them. They stand in
// for those of the appliance, and go with the object.
#pragma once

#include "Common/OS/osassert.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

class ConfigFolders
{
public:
    ConfigFolders()
    {
        os_assert(!std::filesystem::exists("/opt/talvora"), "the appliance's own folders would be used");
        std::string root = std::filesystem::temp_directory_path() / "haldenflash.XXXXXX";
        root_ = mkdtemp(root.data());
        for (const char *folder : {"dat", "choice", "choice.gen", "work"})
            std::filesystem::create_directory(root_ / folder);
        std::filesystem::current_path(root_ / "work");
    }
    ~ConfigFolders() { std::filesystem::remove_all(root_); }
    ConfigFolders(const ConfigFolders &) = delete;
    ConfigFolders &operator=(const ConfigFolders &) = delete;

    // The name of a file begins at the root: "dat/name.dat".
    void Put(const std::string &file, const std::string &text) const
    {
        std::ofstream(root_ / file, std::ios::binary) << text;
    }
    std::string Get(const std::string &file) const // "missing" if there is no such file
    {
        std::ifstream stream(root_ / file, std::ios::binary);
        return stream ? std::string(std::istreambuf_iterator<char>(stream), {}) : "missing";
    }
    const std::filesystem::path &root() const { return root_; }

private:
    std::filesystem::path root_;
};
