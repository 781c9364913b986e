#include "bench/rig/runcapture.h"

#include "bench/rig/images.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>

namespace bench
{

namespace
{

constexpr std::size_t kVersionText = 64; // more of a version file is not kept; the updater looks at eight characters

Descriptor OpenCapture(const std::string &path)
{
    std::cout.flush();
    Descriptor file(path == "-" ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                                : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    if (file.get() < 0)
        throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    if (path == "-")
        dup2(STDERR_FILENO, STDOUT_FILENO);
    return file;
}

std::string DescribeFile(const std::string &directory, const std::string &name, bool asText)
{
    std::optional<Bytes> contents = ReadFile(directory + "/" + name);
    if (!contents)
        return name + " missing";
    if (!asText)
        return name + Format(" %zu bytes", contents->size()) +
               (contents->empty() ? "" : Format(" first %02X", contents->front()));
    contents->resize(std::min(contents->size(), kVersionText));
    return name + " text " + Printable(*contents);
}

} // namespace

RunInfo DescribeRun(const std::vector<std::string> &words, const std::string &executable, const std::string &directory)
{
    RunInfo info = {.command = Quoted(words), .source = kSource};
    info.program =
        std::filesystem::path(executable).filename().string() + ", " + Describe(ReadFile(executable).value_or(Bytes()));
    for (const char *name : {kMicroImage, kCameraImage, kSystemImage})
        info.files.push_back(DescribeFile(directory, name, false));
    for (const char *name : {kCameraVersion, kSystemVersion})
        info.files.push_back(DescribeFile(directory, name, true));
    return info;
}

RunCapture::RunCapture(const std::string &path, const RunInfo &info)
    : recorder([this](const std::vector<Event> &portion) { Store(portion); }), path_(path), file_(OpenCapture(path)),
      writer_(buffer_, info)
{
    std::signal(SIGPIPE, SIG_IGN); // a reader that goes away does not end the run
    Flush();
    if (!error_.empty())
        throw std::runtime_error(error_);
}

void RunCapture::Finish()
{
    writer_.Finish();
    Flush();
    if (!error_.empty())
        throw std::runtime_error(error_);
}

void RunCapture::Store(const std::vector<Event> &portion)
{
    for (const Event &event : portion)
        writer_.Write(event);
    Flush();
    if (keeps)
        events.insert(events.end(), portion.begin(), portion.end());
}

void RunCapture::Flush()
{
    const std::string text = buffer_.str();
    buffer_.str("");
    for (std::size_t done = 0; done < text.size() && error_.empty();) {
        const ssize_t count = write(file_.get(), text.data() + done, text.size() - done);
        if (count >= 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            error_ = "cannot write " + path_ + ": " + std::strerror(errno);
    }
}

} // namespace bench
