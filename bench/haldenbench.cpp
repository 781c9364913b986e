// The command haldenbench: rehearses an update with the binary that ships and two peripherals in software.
#include "bench/options.h"
#include "bench/rig/images.h"
#include "bench/rig/run.h"
#include "bench/rig/runcapture.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace
{

namespace fs = std::filesystem;
using namespace bench;

constexpr int kGood = 0;
constexpr int kBad = 1;
constexpr int kUsage = 2;
constexpr unsigned kFastDivisor = 100;

constexpr char kHelp[] =
    "Usage: haldenbench [options] -- haldenflash all ...\n"
    "Runs the command against a microcontroller and a camera in software, and says what they hold afterwards.\n"
    "A command without a slash is looked for beside haldenbench.\n"
    "  --dir DIR             folder with the images, and the command's working directory (default: this one)\n"
    "  --micro-version XX    version that the microcontroller runs (default: one less than its image)\n"
    "  --camera-version XXXX version of the camera's camera image  (default: one less than the version file)\n"
    "  --system-version XXXX version of the camera's system image  (default: one less than the version file)\n"
    "  --config DIR          folder with dat, choice and choice.gen, as /opt/talvora on the appliance\n"
    "  --launcher RESULT     answer every relayed command with RESULT, and print the commands after the run\n"
    "  --fast                shorten the command's pauses to a hundredth\n"
    "  --baud N              carry bytes at most at N bit/s (default: as fast as they come)\n"
    "  --faults DEVICE:TEXT  faults that DEVICE plays; DEVICE is micro or camera\n"
    "  --bar                 show a progress bar, and only the last line of the command's output\n"
    "  --trace FILE          write the command's output to FILE\n"
    "  --transcript FILE     write the messages between the command and the devices to FILE\n"
    "  --capture FILE        write what passes on the lines to FILE as pcapng, while it passes; -: standard output\n"
    "  --make-images DIR     write sample images to DIR and stop\n"
    "  --help                print this and stop\n"
    "Exit status:\n"
    "  0  the command succeeded, and the devices hold what they should\n"
    "  1  the command failed, a device holds something else, or the bench could not do its work\n"
    "  2  wrong usage\n";

struct Settings {
    std::string directory = ".";
    std::optional<unsigned> microVersion, cameraVersion, systemVersion;
    std::string configuration;
    std::optional<std::string> launcherResult;
    bool fast = false;
    unsigned baud = 0;
    Faults microFaults, cameraFaults;
    bool bar = false;
    std::string trace, transcript, capture, makeImages;
    std::vector<std::string> command;
};

void SetFaults(Settings &settings, const std::string &text)
{
    const std::size_t colon = text.find(':');
    const std::string device = text.substr(0, colon);
    if (colon == std::string::npos || (device != "micro" && device != "camera"))
        throw UsageError("--faults: the value has to be micro:TEXT or camera:TEXT");
    (device == "micro" ? settings.microFaults : settings.cameraFaults) = ParseFaults(text.substr(colon + 1));
}

constexpr OptionRow<Settings> kOptions[] = {
    {"dir", true, [](Settings &s, const char *, const std::string &value) { s.directory = value; }},
    {"micro-version", true,
     [](Settings &s, const char *n, const std::string &value) {
         s.microVersion = OptionNumber(n, value, 16, 0, 0xFF);
     }},
    {"camera-version", true,
     [](Settings &s, const char *n, const std::string &value) {
         s.cameraVersion = OptionNumber(n, value, 16, 0, 0xFFFF);
     }},
    {"system-version", true,
     [](Settings &s, const char *n, const std::string &value) {
         s.systemVersion = OptionNumber(n, value, 16, 0, 0xFFFF);
     }},
    {"config", true, [](Settings &s, const char *, const std::string &value) { s.configuration = value; }},
    {"launcher", true, [](Settings &s, const char *, const std::string &value) { s.launcherResult = value; }},
    {"fast", false, [](Settings &s, const char *, const std::string &) { s.fast = true; }},
    {"baud", true,
     [](Settings &s, const char *n, const std::string &value) { s.baud = OptionNumber(n, value, 10, 0, 10000000); }},
    {"faults", true, [](Settings &s, const char *, const std::string &value) { SetFaults(s, value); }},
    {"bar", false, [](Settings &s, const char *, const std::string &) { s.bar = true; }},
    {"trace", true, [](Settings &s, const char *, const std::string &value) { s.trace = value; }},
    {"transcript", true, [](Settings &s, const char *, const std::string &value) { s.transcript = value; }},
    {"capture", true, [](Settings &s, const char *, const std::string &value) { s.capture = value; }},
    {"make-images", true, [](Settings &s, const char *, const std::string &value) { s.makeImages = value; }},
    {"help", false,
     [](Settings &, const char *, const std::string &) {
         std::cout << kHelp << kFaultsHelp;
         std::exit(kGood);
     }},
};

Settings ParseArguments(int argc, char *argv[])
{
    Settings settings;
    ReadOptions<Settings>(kOptions, argc, argv, settings);
    settings.command.assign(argv + optind, argv + argc);
    if (settings.command.empty() && settings.makeImages.empty())
        throw UsageError("there is no command; see --help");
    if (!fs::is_directory(settings.directory))
        throw UsageError("--dir: there is no directory " + settings.directory);
    if (!settings.configuration.empty() && !fs::is_directory(settings.configuration))
        throw UsageError("--config: there is no directory " + settings.configuration);
    return settings;
}

fs::path Beside(const std::string &name)
{
    return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

std::string Executable(const std::string &word)
{
    const fs::path path = word.find('/') == std::string::npos ? Beside(word) : fs::path(word);
    if (!fs::exists(path))
        throw UsageError("there is no file " + path.string());
    return path;
}

Micro MakeMicro(const Settings &settings)
{
    const std::optional<Bytes> image = ReadFile(settings.directory + "/" + kMicroImage);
    const unsigned older = image && !image->empty() ? image->front() - 1U : 0;
    return Micro(static_cast<std::uint8_t>(settings.microVersion.value_or(older)));
}

Camera::Image MakeImage(const std::string &versionFile, std::optional<unsigned> version)
{
    const std::string newVersion = ReadVersion(versionFile).value_or("0001");
    const unsigned older = ParseNumber(newVersion, 16, 0xFFFF).value_or(1) - 1;
    return {Format("%04X", version.value_or(older) & 0xFFFF), newVersion};
}

std::map<std::string, std::string> OwnEnvironment()
{
    std::map<std::string, std::string> environment;
    for (char **word = environ; *word != nullptr; ++word) {
        const std::string text = *word;
        const std::size_t equals = text.find('=');
        environment[text.substr(0, equals)] = equals == std::string::npos ? "" : text.substr(equals + 1);
    }
    environment.emplace("TALVORA_BOARDID", "KORA"); // the board that has these ports
    return environment;
}

void DrawBar(const std::string &position)
{
    constexpr int kWidth = 50;
    const int filled = std::min(std::atoi(position.c_str()) * kWidth / 100, kWidth);
    std::fprintf(stderr, "\r[%s%s] %s %%", std::string(static_cast<std::size_t>(filled), '#').c_str(),
                 std::string(static_cast<std::size_t>(kWidth - filled), ' ').c_str(), position.c_str());
}

// Adds the bar: a progress FIFO for this run, and the words that lead the command to it.
void AddBar(RunOptions &options)
{
    options.fifo = fs::temp_directory_path() / ("haldenbench." + std::to_string(getpid()));
    options.progress.seen = DrawBar;
    options.arguments.insert(options.arguments.end(), {"-p", options.fifo, "0", "100"});
}

RunOptions MakeOptions(const Settings &settings, Line &camera, Line &micro)
{
    RunOptions options;
    options.executable = Executable(settings.command.front());
    options.arguments = settings.command;
    options.directory = settings.directory;
    options.environment = OwnEnvironment();
    options.preload = Beside("haldenbench-preload.so");
    options.ports[kCameraPort].line = &camera;
    options.ports[kMicroPort].line = &micro;
    options.configuration = settings.configuration;
    options.waitDivisor = settings.fast ? kFastDivisor : 1;
    options.output = settings.bar || !settings.trace.empty() ? Output::kCapture : Output::kInherit;
    options.limit = std::chrono::hours(1); // a big image on a slow line takes its time
    if (settings.bar)
        AddBar(options);
    return options;
}

// Shows or stores the captured output of the command, and says how the command ended.
void ShowOutput(const Settings &settings, const RunResult &result)
{
    std::cerr << (settings.bar ? "\n" : "") << result.errors;
    if (!settings.trace.empty())
        WriteFile(settings.trace, Bytes(result.output.begin(), result.output.end()));
    if (settings.bar)
        std::cout << LastLine(result.output) << "\n";
    if (result.killed)
        std::cout << "the command had to be stopped\n";
    else if (result.signal != 0)
        std::cout << "the command was ended by signal " << result.signal << "\n";
    else
        std::cout << "the command ended with status " << result.status << "\n";
}

void WriteTranscript(const std::string &path, const Micro &micro, const Camera &camera)
{
    std::string text;
    const std::pair<const char *, const Device *> devices[] = {{"micro\n", &micro}, {"camera\n", &camera}};
    for (const auto &[name, device] : devices) {
        text += name;
        for (const std::string &line : device->transcript())
            text += line + "\n";
    }
    WriteFile(path, Bytes(text.begin(), text.end()));
}

// Prints a line for each image and one for each finding.
bool Report(const std::string &directory, const Micro &micro, const Camera &camera)
{
    bool good = true;
    for (const Verdict &verdict :
         {Judge(micro, directory), JudgeCamera(camera, directory), JudgeSystem(camera, directory)}) {
        std::cout << verdict.text << "\n";
        good = good && verdict.good;
    }
    for (const Device *device : {static_cast<const Device *>(&micro), static_cast<const Device *>(&camera)}) {
        for (const std::string &finding : device->findings())
            std::cout << "! " << finding << "\n";
    }
    return good;
}

// Begins the capture of a run.
void AddCapture(const Settings &settings, RunOptions &options, std::optional<RunCapture> &capture)
{
    capture.emplace(settings.capture, DescribeRun(settings.command, options.executable, options.directory));
    for (const auto &[number, port] : options.ports)
        if (port.line != nullptr)
            capture->recorder.Watch(number, *port.line);
    options.recorder = &capture->recorder;
}

int Rehearse(const Settings &settings)
{
    for (const std::string &path : {settings.trace, settings.transcript})
        if (!path.empty())
            WriteFile(path, {}); // a bad path is refused before the run, not after it
    Micro micro = MakeMicro(settings);
    Camera camera(MakeImage(settings.directory + "/" + kCameraVersion, settings.cameraVersion),
                  MakeImage(settings.directory + "/" + kSystemVersion, settings.systemVersion));
    micro.faults = settings.microFaults;
    camera.faults = settings.cameraFaults;
    Line microLine(micro, settings.baud), cameraLine(camera, settings.baud);
    RunOptions options = MakeOptions(settings, cameraLine, microLine);
    std::optional<Launcher> launcher;
    if (settings.launcherResult)
        options.launcher = &launcher.emplace(*settings.launcherResult + "\n");
    std::optional<RunCapture> capture;
    if (!settings.capture.empty())
        AddCapture(settings, options, capture);
    const RunResult result = Run(options);
    ShowOutput(settings, result);
    for (const std::string &command : launcher ? launcher->commands() : std::vector<std::string>())
        std::cout << "relayed: " << command;
    if (!settings.transcript.empty())
        WriteTranscript(settings.transcript, micro, camera);
    const bool good = Report(settings.directory, micro, camera) && result.status == 0;
    if (capture)
        capture->Finish();
    return good ? kGood : kBad;
}

int Work(int argc, char *argv[])
{
    const Settings settings = ParseArguments(argc, argv);
    if (settings.makeImages.empty())
        return Rehearse(settings);
    fs::create_directories(settings.makeImages);
    WriteSamples(settings.makeImages, {});
    return kGood;
}

} // namespace

int main(int argc, char *argv[])
{
    try {
        return Work(argc, argv);
    } catch (const UsageError &error) {
        std::cerr << "haldenbench: " << error.what() << "\n";
        return kUsage;
    } catch (const std::exception &error) {
        std::cerr << "haldenbench: " << error.what() << "\n";
        return kBad;
    }
}
