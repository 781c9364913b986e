#include "bench/capture/show.h"

namespace bench
{

namespace
{

std::string Seconds(WallTime time)
{
    const long long us = time.count();
    return Format("%s%lld.%06lld", us < 0 ? "-" : "", std::abs(us) / 1000000, std::abs(us) % 1000000);
}

std::string Seconds(const std::optional<WallTime> &time)
{
    return time ? Seconds(*time) : "-";
}

void ShowHeading(const Digest &digest, std::ostream &stream)
{
    const RunInfo &info = digest.info;
    stream << "command   " << Printable(info.command) << "\n"
           << "program   " << Printable(info.program) << "\n"
           << "source    " << Printable(info.source) << "\n";
    for (const std::string &file : info.files)
        stream << "file      " << Printable(file) << "\n";
    stream << "date      " << (digest.steps.empty() ? "date unknown" : DateText(digest.begin)) << "\n"
           << "duration  " << Seconds(digest.duration()) << " s\n";
}

const char *Sign(Way way)
{
    return way == Way::kToDevice ? ">" : way == Way::kToHost ? "<" : "-";
}

// What is wrong with the message.
std::string Remark(const Step &step)
{
    std::string text;
    if (!step.message.finding.empty())
        text += " ! " + step.message.finding;
    if (step.message.event.way == Way::kToDevice && step.fate == Fate::kSilence)
        text += " ! no answer";
    return text;
}

void ShowStep(const Digest &digest, const Step &step, std::ostream &stream)
{
    const Event &event = step.message.event;
    const bool answer = event.way == Way::kToHost;
    stream << Format("%13s  %-7s %s  %7s  %12s  %12s  ", Seconds(event.begin - digest.begin).c_str(),
                     (event.port == kNoPort ? "-" : PortName(event.port)).c_str(), Sign(event.way),
                     event.bytes.empty() ? "-" : std::to_string(event.bytes.size()).c_str(), Seconds(step.gap).c_str(),
                     answer ? Seconds(step.answerTime).c_str() : "-")
           << Printable(step.message.name + Remark(step)) << "\n";
}

void ShowTotals(const Digest &digest, std::ostream &stream)
{
    stream << "\nline     messages  blocks  accepted  refused  unknown  silent  retries  noise  to device   to host   "
              "use %\n";
    for (const auto &[port, line] : digest.lines)
        stream << Format("%-7s  %8zu  %6zu  %8zu  %7zu  %7zu  %6zu  %7zu  %5zu  %9zu  %8zu  %6.1f\n",
                         PortName(port).c_str(), line.messages, line.blocks, line.accepted, line.refused, line.unknown,
                         line.silent, line.retries, line.noise, line.toDevice, line.toHost,
                         line.Use(digest.duration()));
    stream << "\nend      " << (digest.ending.empty() ? "not in the capture" : Printable(digest.ending)) << "\n";
}

} // namespace

void Show(const Digest &digest, std::ostream &stream)
{
    ShowHeading(digest, stream);
    stream << "\n       time s  line  way    bytes         gap s      answer s  message\n";
    for (const Step &step : digest.steps)
        ShowStep(digest, step, stream);
    ShowTotals(digest, stream);
}

} // namespace bench
