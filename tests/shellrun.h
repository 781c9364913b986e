// A folder with sample images and a microcontroller, and shell scripts that the bench runs there.
#pragma once

#include "bench/rig/images.h"
#include "bench/rig/run.h"
#include "bench/standin/folders.h"

#include <gtest/gtest.h>

struct ShellRun : testing::Test {
    ShellRun()
    {
        options.directory = std::filesystem::current_path();
        bench::WriteSamples(options.directory, {});
    }
    bench::RunResult Shell(const std::string &script)
    {
        options.executable = "/bin/sh";
        options.arguments = {"sh", "-c", script};
        return bench::Run(options);
    }

    const ConfigFolders folders;
    bench::Micro micro{0x20};
    bench::Line microLine{micro};
    bench::RunOptions options;
};
