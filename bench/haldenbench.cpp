// The command haldenbench: rehearses an update with the binary that ships and two peripherals in software.
#include "bench/haldenbench.h"
#include "bench/options.h"
#include "bench/rig/images.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace
{

namespace fs = std::filesystem;
using namespace bench;

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
    "  --line DEVICE=TTY     use a real DEVICE, behind the terminal TTY; DEVICE is micro or camera\n"
    "  --serve DEVICE=TTY    run no command; be DEVICE for a real board behind the terminal TTY, until a signal\n"
    "                        or a hang-up. --baud is then the speed of the terminal (default: 115200)\n"
    "  --faults DEVICE:TEXT  faults that DEVICE plays; DEVICE is micro or camera\n"
    "  --bar                 show a progress bar, and only the last line of the command's output\n"
    "  --trace FILE          write the command's output to FILE\n"
    "  --transcript FILE     write the messages between the command and the devices to FILE\n"
    "  --capture FILE        write what passes on the lines to FILE as pcapng, while it passes; -: standard output\n"
    "  --replay FILE         answer as the devices in the capture FILE did, and compare what the command sends\n"
    "  --strict              with --replay: compare the order of all messages, driver requests and waits too\n"
    "  --make-images DIR     write sample images to DIR and stop\n"
    "  --help                print this and stop\n"
    "Without a command a replay runs that of the capture. Without --dir it runs in a folder with the images that were\n"
    "sent then.\n"
    "Exit status:\n"
    "  0  the command succeeded, and the devices hold what they should; or a replay agrees with its capture\n"
    "  1  the command failed, a device holds something else, a replay differs, or the bench could not do its work\n"
    "  2  wrong usage\n";

void SetFaults(Settings &settings, const char *name, const std::string &value)
{
    const auto [device, text] = DeviceOption(name, value, ':', "TEXT");
    settings.faults[device] = ParseFaults(text);
}

void SetDirectory(Settings &settings, const std::string &directory)
{
    settings.directory = directory;
    settings.hasDirectory = true;
}

void SetTerminal(std::map<std::string, std::string> &terminals, const char *name, const std::string &value)
{
    const auto [device, path] = DeviceOption(name, value, '=', "TTY");
    terminals[device] = path;
}

constexpr OptionRow<Settings> kOptions[] = {
    {"dir", true, [](Settings &s, const char *, const std::string &value) { SetDirectory(s, value); }},
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
    {"line", true, [](Settings &s, const char *n, const std::string &value) { SetTerminal(s.lines, n, value); }},
    {"serve", true, [](Settings &s, const char *n, const std::string &value) { SetTerminal(s.served, n, value); }},
    {"faults", true, [](Settings &s, const char *n, const std::string &value) { SetFaults(s, n, value); }},
    {"bar", false, [](Settings &s, const char *, const std::string &) { s.bar = true; }},
    {"trace", true, [](Settings &s, const char *, const std::string &value) { s.trace = value; }},
    {"transcript", true, [](Settings &s, const char *, const std::string &value) { s.transcript = value; }},
    {"capture", true, [](Settings &s, const char *, const std::string &value) { s.capture = value; }},
    {"replay", true, [](Settings &s, const char *, const std::string &value) { s.replay = value; }},
    {"strict", false, [](Settings &s, const char *, const std::string &) { s.strict = true; }},
    {"make-images", true, [](Settings &s, const char *, const std::string &value) { s.makeImages = value; }},
    {"help", false,
     [](Settings &, const char *, const std::string &) {
         std::cout << kHelp << kFaultsHelp;
         std::exit(kGood);
     }},
};

// A replay has no devices that could be told anything.
void CheckReplay(const Settings &settings)
{
    if (settings.strict && settings.replay.empty())
        throw UsageError("--strict needs --replay");
    const bool tells = settings.microVersion || settings.cameraVersion || settings.systemVersion ||
                       !settings.transcript.empty() || !settings.faults.empty() || !settings.lines.empty();
    if (tells && !settings.replay.empty())
        throw UsageError("--replay: its devices are not real, take no versions and no faults, and keep no transcript");
    std::error_code missing;
    if (!settings.replay.empty() && fs::equivalent(settings.replay, settings.capture, missing))
        throw UsageError("--capture would write over the capture that --replay reads");
}

void CheckServe(const Settings &settings)
{
    if (settings.served.empty())
        return;
    if (!settings.command.empty() || !settings.lines.empty() || !settings.replay.empty())
        throw UsageError("--serve: there can be no command, no --line and no --replay with it");
}

// A device that is real, or that nobody serves, can be told nothing.
void CheckDevices(const Settings &settings)
{
    const std::pair<const char *, bool> versions[] = {{"micro", settings.microVersion.has_value()},
                                                      {"camera", settings.cameraVersion || settings.systemVersion}};
    for (const auto &[device, hasVersion] : versions)
        if ((hasVersion || settings.faults.contains(device)) && !settings.InSoftware(device))
            throw UsageError(std::string("the device ") + device +
                             " is not one in software: it takes no version and no faults");
}

Settings ParseArguments(int argc, char *argv[])
{
    Settings settings;
    ReadOptions<Settings>(kOptions, argc, argv, settings);
    settings.command.assign(argv + optind, argv + argc);
    if (settings.command.empty() && settings.makeImages.empty() && settings.replay.empty() && settings.served.empty())
        throw UsageError("there is no command; see --help");
    CheckReplay(settings);
    CheckServe(settings);
    CheckDevices(settings);
    if (!fs::is_directory(settings.directory))
        throw UsageError("--dir: there is no directory " + settings.directory);
    if (!settings.configuration.empty() && !fs::is_directory(settings.configuration))
        throw UsageError("--config: there is no directory " + settings.configuration);
    return settings;
}

int Work(int argc, char *argv[])
{
    const Settings settings = ParseArguments(argc, argv);
    if (!settings.replay.empty())
        return PlayAgain(settings);
    if (settings.makeImages.empty())
        return settings.served.empty() ? Rehearse(settings) : Serve(settings);
    fs::create_directories(settings.makeImages);
    WriteSamples(settings.makeImages, {});
    return kGood;
}

// A line must not get the number of a standard descriptor that is closed: what is printed would go to its device.
void OccupyStandardDescriptors()
{
    int last = 0;
    while ((last = open("/dev/null", O_RDWR)) >= 0 && last <= STDERR_FILENO)
        ;
    close(last);
}

} // namespace

int main(int argc, char *argv[])
{
    OccupyStandardDescriptors();
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
