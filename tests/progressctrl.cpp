#include "softupdate/progressctrl/progressctrl.h"

#include "bench/rig/progress.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

namespace
{

struct Progress : testing::Test {
    ~Progress() override { std::filesystem::remove_all(folder_); }

    // Reports percentages with the result given, and returns what that printed.
    static std::string Output(const std::vector<Int32> &percentages, int result = 0)
    {
        testing::internal::CaptureStdout();
        for (const Int32 percentage : percentages)
            EXPECT_EQ(result, progressCtrlSetPos(percentage));
        return testing::internal::GetCapturedStdout();
    }

    const std::string folder_ = mkdtemp(std::string("/tmp/progressctrl.XXXXXX").data()), pipe_ = folder_ + "/pipe";
};

TEST_F(Progress, MovesThroughTheRangeAndNeverBack)
{
    const std::tuple<Int32, Int32, std::vector<Int32>, std::vector<std::string>> cases[] = {
        {40, 60, {0, 0, 4, 5, 50, 49, 50, 100}, {"40", "41", "50", "60"}},
        {0, 100, {0, 1, 1, 100}, {"1", "100"}}, // 0 is not above 0
        {60, 40, {0, 50, 100}, {"60"}},
        {-10, 10, {0, 50, 54, 55, 100}, {"1", "10"}},
        {0, INT32_MAX, {50, 100}, {"1073741823", "2147483647"}},
    };
    for (const auto &[low, high, percentages, positions] : cases) {
        bench::ProgressReader reader(pipe_, {}); // takes one number for each time the pipe is opened
        progressCtrlInit(pipe_.c_str(), low, high);
        Output(percentages);
        EXPECT_EQ(positions, reader.Finish());
    }
}

TEST_F(Progress, CutsALongPathAndGoesOnWithoutAPipe)
{
    const std::string path = pipe_ + std::string(255 - pipe_.size(), 'x');
    progressCtrlInit((path + std::string(45, 'y')).c_str(), 0, 100);
    std::ofstream(path) << "100"; // of the last run
    EXPECT_EQ("percentdone: [5]\n", Output({5}));
    EXPECT_EQ(1u, std::filesystem::file_size(path));
    progressCtrlInit(folder_.c_str(), 0, 100);
    EXPECT_EQ("progressCtrlSetPos: could not open " + folder_ + "\npercentdone: [5]\n", Output({5}, 1));
    EXPECT_EQ("", Output({5})); // not tried again
    EXPECT_DEATH(progressCtrlInit(nullptr, 0, 100), "failed: pszCommPipe,");
}

TEST_F(Progress, CountsBytesAsPartsOfTheTotal)
{
    progressCtrlInit(pipe_.c_str(), 0, 100);
    testing::internal::CaptureStdout();
    gProgressCtrl.nTotBytesToDo = 2000000000;
    updateProgress(1999999999); // reporting is off
    gProgressCtrl.bDoUpdate = 1;
    updateProgress(1999999999);
    updateProgress(1);
    gProgressCtrl.nTotBytesToDo = 0;
    updateProgress(1);
    EXPECT_EQ("percentdone: [99]\npercentdone: [100]\n", testing::internal::GetCapturedStdout());
}

} // namespace
