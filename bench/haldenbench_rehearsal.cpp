// haldenbench without --replay: devices in software, beside real ones or for a real board.
#include "bench/haldenbench.h"
#include "bench/rig/images.h"
#include "bench/rig/realline.h"

#include <iostream>

namespace bench
{

namespace
{

constexpr unsigned kServedBaud = 115200;

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

int PortOf(const std::string &device)
{
    return device == "micro" ? kMicroPort : kCameraPort;
}

// The devices in software. A run may leave out some of them.
struct Devices {
    explicit Devices(const Settings &settings)
        : micro(MakeMicro(settings)),
          camera(MakeImage(settings.directory + "/" + kCameraVersion, settings.cameraVersion),
                 MakeImage(settings.directory + "/" + kSystemVersion, settings.systemVersion))
    {
        for (const auto &[device, faults] : settings.faults)
            (device == "micro" ? static_cast<Device &>(micro) : camera).faults = faults;
    }
    Micro micro;
    Camera camera;
};

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

// Prints a line for each image in a device in software, and one for each finding.
bool Report(const Settings &settings, const Devices &devices)
{
    std::vector<Verdict> verdicts;
    if (settings.InSoftware("micro"))
        verdicts.push_back(Judge(devices.micro, settings.directory));
    if (settings.InSoftware("camera")) {
        verdicts.push_back(JudgeCamera(devices.camera, settings.directory));
        verdicts.push_back(JudgeSystem(devices.camera, settings.directory));
    }
    bool good = true;
    for (const Verdict &verdict : verdicts) {
        std::cout << verdict.text << "\n";
        good = good && verdict.good;
    }
    for (const Device *device :
         {static_cast<const Device *>(&devices.micro), static_cast<const Device *>(&devices.camera)}) {
        for (const std::string &finding : device->findings())
            std::cout << "! " << finding << "\n";
    }
    return good;
}

// Says which devices are real, and what went wrong with their lines. Returns whether nothing did.
bool ReportLines(const Settings &settings, const std::list<RealLine> &lines)
{
    for (const auto &[device, path] : settings.lines)
        std::cout << device << ": a real device on " << path << "; the bench cannot look into it\n";
    bool good = true;
    for (const RealLine &line : lines) {
        if (const std::string complaint = line.Complaint(); !complaint.empty()) {
            std::cerr << "haldenbench: " << complaint << "\n";
            good = false;
        }
    }
    return good;
}

// A bad path is refused before the run, not after it.
void TryOutputs(const Settings &settings)
{
    for (const std::string &path : {settings.trace, settings.transcript})
        if (!path.empty())
            WriteFile(path, {});
}

} // namespace

int Rehearse(const Settings &settings)
{
    TryOutputs(settings);
    Devices devices(settings);
    Line microLine(devices.micro, settings.baud), cameraLine(devices.camera, settings.baud);
    RunOptions options = MakeOptions(settings);
    options.ports[kCameraPort].line = &cameraLine;
    options.ports[kMicroPort].line = &microLine;
    std::list<RealLine> realLines;
    for (const auto &[device, path] : settings.lines)
        realLines.emplace_back(path, options.ports[PortOf(device)]);
    std::optional<Launcher> launcher;
    if (settings.launcherResult)
        options.launcher = &launcher.emplace(*settings.launcherResult + "\n");
    std::optional<RunCapture> capture;
    if (!settings.capture.empty())
        AddCapture(settings, settings.capture, options, capture);
    const RunResult result = Run(options);
    ShowOutput(settings, result);
    for (const std::string &command : launcher ? launcher->commands() : std::vector<std::string>())
        std::cout << "relayed: " << command;
    if (!settings.transcript.empty())
        WriteTranscript(settings.transcript, devices.micro, devices.camera);
    const bool good = Report(settings, devices) && result.status == 0;
    const bool linesGood = ReportLines(settings, realLines);
    if (capture)
        capture->Finish();
    return good && linesGood ? kGood : kBad;
}

int Serve(const Settings &settings)
{
    TryOutputs(settings);
    Devices devices(settings);
    std::optional<RunCapture> capture;
    if (!settings.capture.empty())
        capture.emplace(settings.capture, RunInfo{.source = kSource});
    const EndSignals signals;
    ServedLines lines;
    for (const auto &[device, path] : settings.served) {
        Peer *const peer = device == "micro" ? static_cast<Peer *>(&devices.micro) : &devices.camera;
        ServedLine &served = lines.emplace_back(*peer, path, settings.baud == 0 ? kServedBaud : settings.baud);
        if (capture)
            capture->recorder.Watch(PortOf(device), served.line);
        std::cout << "serving " << device << " on " << path << std::endl;
    }
    if (capture)
        capture->recorder.Start(nullptr);
    for (ServedLine &served : lines)
        served.line.Start();
    signals.Await(lines);
    for (ServedLine &served : lines) {
        served.line.Stop();
        if (served.line.gone())
            std::cout << served.line.path() << " hung up\n";
    }
    if (!settings.transcript.empty())
        WriteTranscript(settings.transcript, devices.micro, devices.camera);
    const bool good = Report(settings, devices);
    if (capture) {
        capture->recorder.Finish();
        capture->Finish();
    }
    return good ? kGood : kBad;
}

} // namespace bench
