// The road end to end: the program that ships, on the virtual bench. The record of a case is its standard output, its
// driver requests and waits, and the messages on both lines. It must equal the one in tests/expected/records.txt byte
// for byte. The build folder keeps the whole record in records/. The exit status, the progress, and what every run must
// hold to are asserted besides.
#include "bench/rig/images.h"
#include "bench/rig/launcher.h"
#include "bench/rig/run.h"
#include "bench/standin/folders.h"
#include "bench/sweeps/recovery.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <sstream>

namespace
{

namespace fs = std::filesystem;
using bench::Camera;
using bench::Format;
using bench::Micro;

constexpr std::size_t kCameraBlock = Camera::kBlockSize;
constexpr unsigned kFast = 20; // divisor of the pauses that devices need

using Prepare = std::function<void()>;

struct Case {
    std::string name;
    std::vector<std::string> words = {};
    int status = 0;
    std::string micro = "", camera = "";                // faults
    std::string versions = "20 0203 0306";              // that micro, camera and system run before
    Prepare prepare = {};                               // changes the images, in their folder
    bench::Port microPort = {}, cameraPort = {};        // refusals; the lines are filled in
    bool findings = false;                              // the device is right to complain
    bool flashed = false;                               // devices hold their images afterwards
    std::string board = "KORA";                         // "-": not set
    bool progress = false;                              // a FIFO named "progress"
    std::function<void(const std::string &)> seen = {}; // called with each progress number
    bench::Output output = bench::Output::kCapture;
    unsigned waitDivisor = kFast;
    std::string program = "haldenflash"; // how it is called
    const char *launcher = nullptr;      // what it answers, if there is one
    std::string configuration = "";      // the appliance's own folders; without them those beside the run's
    std::string errors = "";             // the assertion that stops the program
    double listened = 0;                 // seconds of silence that it waits through
};

void PrintTo(const Case &test, std::ostream *out)
{
    *out << test.name;
}

void Put(const char *name, const std::string &text)
{
    std::ofstream(name, std::ios::binary) << text;
}

// Changes to the images of a case.
Prepare With(const char *file, const std::string &text)
{
    return [=] { Put(file, text); };
}

Prepare Without(const char *file)
{
    return [=] { fs::remove(file); };
}

Prepare Directory(const char *file)
{
    return [=] { fs::remove(file) && fs::create_directory(file); };
}

// Holds "1" and claims to hold a page.
constexpr char kClaimsMore[] = "/sys/kernel/fscaps";

void Linked(const char *file, const char *target)
{
    fs::remove(file);
    fs::create_symlink(target, file);
}

// clang-format off

std::vector<Case> Versions()
{
    return {
        {.name = "all_older", .words = {"all"}, .flashed = true},
        {.name = "all_up_to_date", .words = {"all"}, .versions = "21 0204 0307"},
        {.name = "micro_only", .words = {"micro"}, .flashed = true},
        {.name = "farsight_only", .words = {"farsight"}, .flashed = true},
        {.name = "camera_image_only", .words = {"farsight"}, .versions = "20 0203 0307", .flashed = true},
        {.name = "version_above_7fff", .words = {"farsight"}, .versions = "20 0204 8001",
         .prepare = [] { Put("farsightsysver", "8001\n"); fs::resize_file("farsightsys.bin", kCameraBlock + 7); },
         .flashed = true},
        {.name = "query_micro_older_camera_same", .words = {"all", "query"}, .status = 1, .versions = "20 0204 0307"},
        {.name = "query_micro_fails", .words = {"all", "q"}, .status = 255, .micro = "version=none"},
        {.name = "query_progress", .words = {"all", "quit", "-p", "progress", "0", "50"}, .versions = "21 0204 0307",
         .progress = true},
        {.name = "progress_range", .words = {"-p", "progress", "200", "300", "all"}, .flashed = true, .progress = true},
        {.name = "micro_short_image", .words = {"micro"},
         .prepare = [] { fs::resize_file("haldenmicro.bin", 5500); }, .flashed = true},
        {.name = "micro_in_full_time", .words = {"micro"}, .micro = "noise=12FF13FFFFFF0F",
         .versions = "22 0 0", .flashed = true, .waitDivisor = 1},
        {.name = "farsight_in_full_time", .words = {"farsight"}, .camera = "noise=1122FF",
         .versions = "20 0205 0308", .flashed = true, .waitDivisor = 1},
    };
}

std::vector<Case> Replies()
{
    return {
        {.name = "micro_version_silence", .words = {"all"}, .status = 255, .micro = "version=none", .listened = 0.05},
        {.name = "micro_version_one_byte", .words = {"micro"}, .status = 255, .micro = "version=first:1"},
        {.name = "micro_version_two_bytes", .words = {"micro"}, .status = 255, .micro = "version=first:2"},
        {.name = "micro_version_four_bytes", .words = {"micro"}, .micro = "version=first:4", .flashed = true},
        {.name = "micro_refused_twice", .words = {"micro"}, .micro = "block5=nack,block6=nack"},
        {.name = "micro_refused_three_times", .words = {"micro"}, .micro = "block5=nack,block6=nack,block7=nack"},
        {.name = "micro_unknown_verdict", .words = {"micro"}, .micro = "block11=verdict:42"},
        {.name = "micro_verdict_late", .words = {"micro"}, .micro = "block4=late:400", .listened = 0.05},
        {.name = "micro_verdict_one_byte", .words = {"micro"}, .micro = "block4=first:1"},
        {.name = "micro_power_cut", .words = {"micro"}, .micro = "cut=7:middle"},
        {.name = "camera_version_late", .words = {"farsight"}, .status = 255, .camera = "version=late:600"},
        {.name = "camera_version_truncated", .words = {"farsight"}, .status = 255, .camera = "version=first:12"},
        {.name = "camera_mode_truncated", .words = {"farsight"}, .status = 255, .camera = "mode=first:3"},
        {.name = "camera_refused_system", .words = {"farsight"}, .status = 255, .camera = "block3=nack"},
        {.name = "camera_unknown_verdict", .words = {"farsight"}, .status = 255,
         .camera = "block1=verdict:55,block2=nack", .findings = true},
        {.name = "system_unknown_verdict", .words = {"farsight"}, .status = 255,
         .camera = "block3=verdict:00,block4=nack", .findings = true},
        {.name = "camera_verdict_one_byte", .words = {"farsight"}, .status = 255, .camera = "block1=first:1"},
        {.name = "camera_verdict_late", .words = {"farsight"}, .camera = "block0=late:1500", .flashed = true},
        {.name = "camera_verdict_too_late", .words = {"farsight"}, .status = 255, .camera = "block0=late:5000"},
        {.name = "camera_power_cut", .words = {"all"}, .status = 255, .camera = "cut=3"},
    };
}

std::vector<Case> Files()
{
    return {
        {.name = "micro_image_version_0", .words = {"micro"},
         .prepare = With("haldenmicro.bin", std::string(100, '\0'))},
        {.name = "micro_image_directory", .words = {"micro"}, .prepare = Directory("haldenmicro.bin")},
        {.name = "micro_image_claims_more", .words = {"micro"}, .status = 255,
         .prepare = [] { Linked("haldenmicro.bin", kClaimsMore); }},
        {.name = "all_images_missing", .words = {"-p", "progress", "200", "300", "all"}, .status = 255,
         .prepare = [] { for (const char *file : {"haldenmicro.bin", "farsightcam.bin", "farsightsys.bin"}) fs::remove(file); },
         .progress = true},
        {.name = "system_image_missing", .words = {"farsight"}, .status = 255, .prepare = Without("farsightsys.bin")},
        {.name = "camera_image_directory", .words = {"farsight"}, .status = 255,
         .prepare = Directory("farsightcam.bin")},
        {.name = "system_image_directory", .words = {"farsight"}, .status = 255,
         .prepare = Directory("farsightsys.bin"), .findings = true},
        {.name = "camera_image_missing_progress", .words = {"farsight", "q", "-p", "progress", "0", "100"}, .status = 1,
         .versions = "20 0203 0307", .prepare = Without("farsightcam.bin"), .progress = true},
        {.name = "camera_image_empty", .words = {"farsight", "-p", "progress", "0", "100"}, .status = 255,
         .versions = "20 0203 0307", .prepare = With("farsightcam.bin", ""), .progress = true},
        {.name = "camera_image_empty_system_not", .words = {"farsight"}, .status = 255,
         .prepare = With("farsightcam.bin", ""), .findings = true},
        {.name = "system_image_empty", .words = {"farsight"}, .status = 255, .prepare = With("farsightsys.bin", ""),
         .findings = true},
        {.name = "camera_version_missing", .words = {"farsight"}, .status = 255, .prepare = Without("farsightcamver")},
        {.name = "system_version_unreadable", .words = {"all"}, .status = 255, .prepare = Directory("farsightsysver")},
        {.name = "version_files_claim_more", .words = {"farsight"}, .versions = "20 0001 0001",
         .prepare = [] { Linked("farsightcamver", kClaimsMore); Linked("farsightsysver", kClaimsMore); }},
        {.name = "version_files_odd", .words = {"farsight", "q"}, .status = 1,
         .prepare = [] { Put("farsightcamver", "1234567890"); Put("farsightsysver", std::string("\0\xFF\x80", 3)); }},
        {.name = "camera_image_grows", .words = {"-p", "progress", "200", "300", "farsight"},
         .camera = "block0=late:700", .progress = true,
         .seen = [](const std::string &) { fs::resize_file("farsightcam.bin", 9 * kCameraBlock); }},
    };
}

std::vector<Case> Words()
{
    return {
        {.name = "no_words", .status = 255, .board = "kora", .launcher = "0\n"},
        {.name = "unknown_words", .words = {"Micro", "ALL", "-P", "--help", ""}, .status = 255},
        {.name = "called_quiet", .words = {"micro"}, .status = 1, .program = "quiet"},
        {.name = "board_not_set", .status = 255, .board = "-"},
        {.name = "board_empty", .status = 255, .board = ""},
        {.name = "board_quillmark", .words = {"all"}, .flashed = true, .board = "quillmark", .launcher = "0\n"},
        {.name = "board_brisko", .status = 255, .board = "BRISKO", .launcher = "1\n"},
        {.name = "board_vane", .status = 255, .prepare = With("../dat/showfilter2.dat", "relay\r\n"), .board = "vane",
         .launcher = "0\n", .configuration = ".."},
        {.name = "board_strathmor", .status = 255, .board = "Strathmor", .launcher = "-1\n"},
        {.name = "board_k4_without_folder", .words = {"all"}, .status = -1, .prepare = Without("../choice"),
         .board = "K4", .launcher = "0\n", .errors = "Assertion failed: ConfigIsFolderExist(CONFIG_CHOICE_FOLDER)"},
        {.name = "progress_one_word", .words = {"micro", "-p", "progress"}, .prepare = Without("haldenmicro.bin")},
        {.name = "progress_two_words", .words = {"micro", "-p", "bar.txt", "50"}, .flashed = true},
        {.name = "progress_path_is_a_word", .words = {"micro", "-p", "farsight", "50", "q"}, .flashed = true},
        {.name = "progress_bounds_huge", .words = {"micro", "-p", "farsight", "-99999999999", "99999999999"},
         .flashed = true},
        {.name = "output_broken", .words = {"all"}, .flashed = true, .output = bench::Output::kBroken},
        {.name = "output_closed", .words = {"all"}, .flashed = true, .output = bench::Output::kClosed},
    };
}

std::vector<Case> Ports()
{
    return {
        {.name = "retry_opens", .words = {"farsight"}, .cameraPort = {.refusedOpens = 1}, .flashed = true},
        {.name = "micro_config_refused", .words = {"micro"}, .status = 255, .microPort = {.refusedRequest = 1}},
        {.name = "micro_enable_refused", .words = {"all"}, .status = 255, .microPort = {.refusedRequest = 2}},
        {.name = "micro_disable_refused", .words = {"micro"}, .status = 255, .microPort = {.refusedRequest = 3},
         .flashed = true},
        {.name = "camera_config_refused", .words = {"farsight"}, .status = 255, .cameraPort = {.refusedRequest = 1}},
        {.name = "camera_enable_refused_after_micro", .words = {"all"}, .status = 255,
         .cameraPort = {.refusedRequest = 2}, .flashed = true},
        {.name = "camera_disable_refused", .words = {"farsight"}, .status = 255, .cameraPort = {.refusedRequest = 3},
         .flashed = true},
        {.name = "micro_query_short", .words = {"micro"}, .status = 255, .microPort = {.cutWrite = 1, .cutTo = 5},
         .findings = true},
        {.name = "micro_block_short", .words = {"micro"}, .status = 255, .microPort = {.cutWrite = 4, .cutTo = 100},
         .findings = true},
        {.name = "camera_query_fails", .words = {"farsight"}, .status = 255, .cameraPort = {.cutWrite = 1}},
        {.name = "camera_mode_short", .words = {"farsight"}, .status = 255, .cameraPort = {.cutWrite = 2, .cutTo = 7},
         .findings = true},
        {.name = "camera_block_short", .words = {"farsight"}, .status = 255, .cameraPort = {.cutWrite = 4,
         .cutTo = 50000}, .findings = true},
        {.name = "system_block_fails", .words = {"farsight"}, .status = 255, .cameraPort = {.cutWrite = 6}},
    };
}

// clang-format on

class EndToEnd : public testing::TestWithParam<Case>
{
protected:
    EndToEnd()
    {
        bench::WriteSamples(".", {.cameraSize = 2 * kCameraBlock + 1, .systemSize = kCameraBlock});
        if (GetParam().prepare)
            GetParam().prepare();
    }

    static bench::RunOptions Options(bench::Line &microLine, bench::Line &cameraLine)
    {
        const Case &test = GetParam();
        bench::RunOptions options = {.executable = HALDENFLASH_BINARY, .arguments = {test.program}};
        options.arguments.insert(options.arguments.end(), test.words.begin(), test.words.end());
        if (test.board != "-")
            options.environment["TALVORA_BOARDID"] = test.board;
        options.preload = HALDENBENCH_PRELOAD;
        options.ports = {{0, test.cameraPort}, {1, test.microPort}};
        options.ports[0].line = &cameraLine;
        options.ports[1].line = &microLine;
        options.waitDivisor = test.waitDivisor;
        options.output = test.output;
        options.configuration = test.configuration;
        options.fifo = test.progress ? "progress" : "";
        options.progress.seen = test.seen;
        return options;
    }

    const ConfigFolders folders_;
};

using Lines = std::vector<std::string>;

// What the trace says again and again is shorter in the record. Each short form stands for exactly one text.
std::string Shortened(std::string output, const Lines &words)
{
    std::string shown;
    for (std::size_t i = 0; i < words.size(); i++)
        shown += Format("#### argv[%zu]=%s ...\n", i, words[i].c_str());
    const auto word = [&](std::size_t i) { return i < words.size() ? words[i] : "(null)"; };
    std::vector<std::pair<std::string, std::string>> forms = {
        {shown, "{words}\n"},
        {Format("argc:%zu...", words.size()), "argc:{words}..."},
        {"UPDATE [" + word(1) + "]", "UPDATE [{word 1}]"},
        {"argv[2] = " + word(2) + " ....", "argv[2] = {word 2} ...."},
        {" ...\n~~~~~~ readBuff[", " ["}, // the next byte
        {" ...\n~~~~~~ ackNackBuff[", " ["},
    };
    for (unsigned block = 0; block < Micro::kBlocks; block++)
        forms.emplace_back(Format("Still working on micro file [haldenmicro.bin] ...\nbytes read: 512 ...\n"
                                  "Flashing Halden Micro Controller Image block[%u] Iteration[1] ...\n"
                                  "sending dataBlockNumber: %u -- msgSize:514 ...\n",
                                  block, block),
                           Format("{block %u}\n", block));
    for (const auto &[text, form] : forms)
        for (std::size_t at; (at = output.find(text)) != std::string::npos;)
            output.replace(at, text.size(), form);
    return output;
}

Lines Record(const bench::RunResult &result, const Lines &words, const Micro &micro, const Camera &camera)
{
    Lines record = {"---- standard output"};
    std::istringstream output(Shortened(result.output + "\n", words));
    for (std::string line; std::getline(output, line);)
        record.push_back(line);
    const auto add = [&](const char *title, const Lines &lines) {
        record.push_back(Format("---- %s", title));
        record.insert(record.end(), lines.begin(), lines.end());
    };
    add("driver requests and waits", result.events);
    add("microcontroller's line", micro.transcript());
    add("camera's line", camera.transcript());
    return record;
}

// The whole record that tests/expected/records.txt, whose head tells how, has for a case; empty if it has none.
Lines Expected(const std::string &name)
{
    std::map<std::string, Lines> records;
    std::ifstream file(TESTS_DIR "/expected/records.txt", std::ios::binary);
    std::string current, base, word;
    long at = 0;
    for (std::string line; std::getline(file, line);) {
        Lines &record = records[current];
        if (line.starts_with("case ")) {
            std::istringstream words(line);
            words >> word >> current >> word >> base;
            records[current] = words ? records[base] : Lines();
            at = 0;
        } else if (!current.empty()) {
            const long size = std::ssize(record);
            char *rest = nullptr;
            at = std::clamp(at + std::strtol(line.c_str(), &rest, 10), 0L, size);
            const long end = std::clamp(at - std::strtol(rest, nullptr, 10), at, size);
            record.erase(record.begin() + at, record.begin() + end);
            if (const std::size_t bar = line.find('|'); bar != std::string::npos)
                record.insert(record.begin() + at++, line.substr(bar + 1));
        }
    }
    return records[name];
}

// For whoever wants to compare: a file beside the program.
void Keep(const std::string &name, const Lines &record)
{
    const fs::path directory = fs::path(HALDENFLASH_BINARY).parent_path() / "records";
    fs::create_directories(directory);
    std::ofstream file(directory / (name + ".txt"), std::ios::binary);
    for (const std::string &line : record)
        file << line << "\n";
}

long Count(const std::vector<std::string> &events, const std::string &event)
{
    return std::count(events.begin(), events.end(), event);
}

// What the pauses take in full.
double PauseSeconds(const std::vector<std::string> &events)
{
    double seconds = 0;
    for (const std::string &event : events)
        if (event.starts_with("wait "))
            seconds += std::stod(event.substr(5)) / 1e6;
    return seconds;
}

// What every run holds to, whatever happens in it.
void ExpectDecentRun(const Case &test, const bench::RunResult &result)
{
    EXPECT_FALSE(result.killed);
    EXPECT_EQ(result.errors.substr(0, result.errors.find(", file ")), test.errors);
    EXPECT_EQ(result.status, test.status);
    EXPECT_NE(bench::FindRecovery(result.signal != 0 ? 128 + result.signal : result.status, result.output,
                                  test.output != bench::Output::kCapture),
              nullptr)
        << "this end is not in docs/recovery.md";
    for (const char *port : {"0", "1"})
        EXPECT_EQ(Count(result.events, Format("open %s", port)), Count(result.events, Format("close %s", port)))
            << "a port was left open";
    EXPECT_GE((result.seconds - test.listened) * test.waitDivisor, PauseSeconds(result.events));
    if (test.output != bench::Output::kCapture)
        return;
    EXPECT_EQ(result.output.find("[SUCCESSFULLY]") != std::string::npos ||
                  result.output.find("NO Halden Image(s)") != std::string::npos,
              test.status == 0);
    EXPECT_EQ(result.output.find("########## Halden Image(s) Update Required") != std::string::npos, test.status == 1);
    std::string numbers; // the pipe carries what the trace announces
    for (std::size_t at = 0; (at = result.output.find("percentdone: [", at)) != std::string::npos; at++)
        numbers += result.output.substr(at + 14, result.output.find(']', at) - at - 14) + " ";
    std::string piped;
    for (const std::string &number : result.progress)
        piped += number + " ";
    EXPECT_EQ(piped, test.progress ? numbers : "");
}

TEST_P(EndToEnd, RunsAsRecorded)
{
    const Case &test = GetParam();
    std::istringstream versions(test.versions);
    std::string microVersion, cameraVersion, systemVersion;
    versions >> microVersion >> cameraVersion >> systemVersion;
    Micro micro(static_cast<std::uint8_t>(std::stoul(microVersion, nullptr, 16)));
    Camera camera({cameraVersion, bench::ReadVersion("farsightcamver").value_or("0204")},
                  {systemVersion, bench::ReadVersion("farsightsysver").value_or("0307")});
    micro.faults = bench::ParseFaults(test.micro);
    camera.faults = bench::ParseFaults(test.camera);
    bench::Line microLine(micro), cameraLine(camera);

    bench::RunOptions options = Options(microLine, cameraLine);
    std::optional<bench::Launcher> launcher;
    if (test.launcher != nullptr)
        options.launcher = &launcher.emplace(test.launcher);
    bench::RunResult result = bench::Run(options);
    for (const std::string &command : launcher ? launcher->commands() : std::vector<std::string>{})
        result.events.push_back("relayed " + command.substr(0, command.find('\n')));

    ExpectDecentRun(test, result);
    EXPECT_EQ(!micro.findings().empty() || !camera.findings().empty(), test.findings);
    for (const bench::Verdict &verdict :
         {bench::Judge(micro, "."), bench::JudgeCamera(camera, "."), bench::JudgeSystem(camera, ".")}) {
        EXPECT_TRUE(verdict.good || !test.flashed) << verdict.text;
    }
    const Lines expected = Expected(test.name), record = Record(result, options.arguments, micro, camera);
    Keep(test.name, record);
    EXPECT_TRUE(record == expected) << "-: expected, +: seen. If that is right: ./do accept\n"
                                    << testing::internal::edit_distance::CreateUnifiedDiff(expected, record);
}

const auto kName = [](const auto &info) { return info.param.name; };
INSTANTIATE_TEST_SUITE_P(Versions, EndToEnd, testing::ValuesIn(Versions()), kName);
INSTANTIATE_TEST_SUITE_P(Replies, EndToEnd, testing::ValuesIn(Replies()), kName);
INSTANTIATE_TEST_SUITE_P(Files, EndToEnd, testing::ValuesIn(Files()), kName);
INSTANTIATE_TEST_SUITE_P(Words, EndToEnd, testing::ValuesIn(Words()), kName);
INSTANTIATE_TEST_SUITE_P(Ports, EndToEnd, testing::ValuesIn(Ports()), kName);

} // namespace
