// Configuration folders for one test, and a working directory beside them.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

class ConfigFolders
{
public:
    ConfigFolders()
    {
        EXPECT_FALSE(std::filesystem::exists("/opt/talvora")) << "the appliance's own folders would be used";
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
