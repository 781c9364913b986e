#include "bench/capture/images.h"

#include "bench/rig/images.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace bench
{

namespace
{

// An image: what carries it, and which blocks it has.
struct ImageRow {
    const char *file;
    int port;
    std::uint8_t type; // of the frames of its blocks
    std::size_t blockSize;
    std::size_t announcedAt; // position of the number of blocks in the flash mode message; 0: it is always kBlocks
};
constexpr ImageRow kImages[] = {
    {kMicroImage, kMicroPort, kMicroBlockType, Micro::kBlockSize, 0},
    {kCameraImage, kCameraPort, kCameraBlockType, Camera::kBlockSize, 4},
    {kSystemImage, kCameraPort, kSystemBlockType, Camera::kBlockSize, 6},
};

// A version file: the image that it is about, and where the camera reports that version.
struct VersionRow {
    const char *file;
    const ImageRow &image;
    std::size_t reportedAt;
};
constexpr VersionRow kVersions[] = {
    {kCameraVersion, kImages[1], 9},
    {kSystemVersion, kImages[2], 5},
};
constexpr std::size_t kReportedSize = 4;
constexpr std::size_t kMicroVersionAt = 4;

// What the head of a capture tells about a file.
struct Told {
    bool missing = false;
    std::optional<std::size_t> size = {};
    std::optional<std::uint8_t> first = {}; // its first byte
    std::optional<Bytes> text = {};
};

// The bytes of a text that has some of them as "\x0A".
Bytes Unescaped(const std::string &text)
{
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = text.substr(i, 2) == "\\x" ? ParseNumber(text.substr(i + 2, 2), 16, 0xFF) : std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(byte.value_or(static_cast<std::uint8_t>(text[i]))));
        i += byte ? 3 : 0;
    }
    return bytes;
}

// "NAME missing", "NAME text TEXT", "NAME 6144 bytes" or "NAME 6144 bytes first 21".
std::map<std::string, Told> ToldFiles(const RunInfo &info)
{
    std::map<std::string, Told> files;
    for (const std::string &line : info.files) {
        std::istringstream words(line);
        std::string name, kind, unit, word, first;
        words >> name >> kind >> unit >> word >> first;
        Told &told = files[name];
        told.missing = kind == "missing";
        if (kind == "text")
            told.text = Unescaped(line.substr(std::min(line.find(" text ") + 6, line.size())));
        else if (unit == "bytes")
            told.size = ParseNumber(kind, 10, 1U << 30);
        if (word == "first")
            if (const auto byte = ParseNumber(first, 16, 0xFF))
                told.first = static_cast<std::uint8_t>(*byte);
    }
    return files;
}

class Rebuilder
{
public:
    explicit Rebuilder(const Capture &capture)
        : messages_(MessagesOf(capture.events)), told_(ToldFiles(capture.info)), needed_(NeedsUpdate(capture))
    {
    }
    RebuiltFiles Rebuild();

private:
    struct Sent {
        Bytes bytes;
        std::size_t blocks = 0;
        bool ended = false; // a block was short, so the file ends there
    };

    static bool NeedsUpdate(const Capture &capture);
    const Message *Find(int port, Message::Kind kind) const;
    bool HasPart(int port) const;
    void Remark(const char *file, const std::string &text) { files_.remarks.push_back(file + (": " + text)); }
    Sent SentOf(const ImageRow &row) const;
    std::size_t Announced(const ImageRow &row, const Sent &sent) const;
    void RebuildImage(const ImageRow &row);
    void RebuildUnsent(const ImageRow &row, const Told &told);
    void RebuildVersion(const VersionRow &row);
    void InventVersion(const VersionRow &row);

    const std::vector<Message> messages_;
    std::map<std::string, Told> told_;
    const bool needed_;
    RebuiltFiles files_;
};

// Whether the program only asked, and its end says that something has to be updated.
bool Rebuilder::NeedsUpdate(const Capture &capture)
{
    const std::vector<std::string> words = Unquoted(capture.info.command);
    return std::find(words.begin(), words.end(), "q") != words.end() &&
           std::any_of(capture.events.begin(), capture.events.end(),
                       [](const Event &event) { return event.note == "exit 1"; });
}

RebuiltFiles Rebuilder::Rebuild()
{
    for (const ImageRow &row : kImages)
        RebuildImage(row);
    for (const VersionRow &row : kVersions)
        RebuildVersion(row);
    return std::move(files_);
}

const Message *Rebuilder::Find(int port, Message::Kind kind) const
{
    const auto found = std::find_if(messages_.begin(), messages_.end(), [&](const Message &message) {
        return message.event.port == port && message.kind == kind;
    });
    return found == messages_.end() ? nullptr : &*found;
}

bool Rebuilder::HasPart(int port) const
{
    return std::any_of(messages_.begin(), messages_.end(),
                       [port](const Message &message) { return message.event.port == port; });
}

// The data of a frame that broke off, as far as it came. A frame of another type has none.
Bytes BrokenData(const Message &message, std::uint8_t type)
{
    FrameDecoder decoder;
    for (const std::uint8_t byte : message.event.bytes)
        decoder.Feed(byte);
    if (message.kind != Message::Kind::kPiece || !decoder.InFrame() || decoder.frame().type != type)
        return {};
    Bytes data = decoder.frame().data;
    data.resize(std::min(data.size(), decoder.dataSize()));
    return data;
}

Rebuilder::Sent Rebuilder::SentOf(const ImageRow &row) const
{
    Sent sent;
    for (const Message &message : messages_) {
        if (message.event.port != row.port || message.event.way != Way::kToDevice)
            continue;
        const bool whole = message.kind == Message::Kind::kBlock && message.type == row.type;
        const Bytes data = whole ? message.data : BrokenData(message, row.type);
        if (data.size() < kNumberSize)
            continue;
        sent.bytes.insert(sent.bytes.end(), data.begin() + kNumberSize, data.end());
        ++sent.blocks;
        sent.ended = sent.ended || (whole && data.size() < kNumberSize + row.blockSize);
    }
    return sent;
}

// The number of blocks that the device was told to expect.
std::size_t Rebuilder::Announced(const ImageRow &row, const Sent &sent) const
{
    if (row.announcedAt == 0)
        return sent.blocks > 0 ? Micro::kBlocks : 0;
    const Message *mode = Find(row.port, Message::Kind::kFlashMode);
    return mode == nullptr ? 0 : Word(mode->event.bytes, row.announcedAt);
}

void Rebuilder::RebuildImage(const ImageRow &row)
{
    const Told &told = told_[row.file];
    Sent sent = SentOf(row);
    const std::size_t announced = Announced(row, sent);
    if (told.missing)
        return;
    if (announced == 0)
        return RebuildUnsent(row, told);
    const std::size_t known = sent.bytes.size();
    const std::size_t size = std::max(known, told.size.value_or(sent.ended ? known : announced * row.blockSize));
    if (size > known)
        Remark(row.file, Format("%zu of %zu bytes were sent; the others are not known, and are zero here%s", known,
                                size, told.size ? "" : "; its size is not known either"));
    sent.bytes.resize(size);
    files_.contents[row.file] = std::move(sent.bytes);
}

// The updater looks only at the first byte of the microcontroller's image, and only at the size of the others.
void Rebuilder::RebuildUnsent(const ImageRow &row, const Told &told)
{
    const Message *version = row.port == kMicroPort ? Find(row.port, Message::Kind::kVersion) : nullptr;
    std::optional<std::uint8_t> first = told.first;
    if (!first && version != nullptr)
        first = version->event.bytes[kMicroVersionAt];
    if (!told.first && first && needed_)
        first = *first == 0xFF ? 1 : *first + 1; // 0 would be no version
    if (!told.size && !first) {
        if (HasPart(row.port))
            Remark(row.file, "was not sent, and its size is not known; there is no such file here");
        return;
    }
    Bytes bytes(told.size.value_or(1));
    if (first && !bytes.empty())
        bytes.front() = *first;
    if (HasPart(row.port) && !bytes.empty())
        Remark(row.file, std::string("was not sent; its contents are not known, and are zero here") +
                             (first ? " behind the first byte" : ""));
    files_.contents[row.file] = std::move(bytes);
}

void Rebuilder::RebuildVersion(const VersionRow &row)
{
    const Told &told = told_[row.file];
    if (told.text)
        files_.contents[row.file] = *told.text;
    else if (!told.missing && HasPart(kCameraPort))
        InventVersion(row);
}

// An image is sent if its version is another than the one that the camera reports.
void Rebuilder::InventVersion(const VersionRow &row)
{
    const Message *reply = Find(kCameraPort, Message::Kind::kVersion);
    if (reply == nullptr && Find(kCameraPort, Message::Kind::kVersionQuery) == nullptr)
        return Remark(row.file, "its text is not known; there is no such file here");
    std::string text = "0000";
    if (reply != nullptr)
        text.assign(reply->event.bytes.begin() + static_cast<std::ptrdiff_t>(row.reportedAt),
                    reply->event.bytes.begin() + static_cast<std::ptrdiff_t>(row.reportedAt + kReportedSize));
    if (reply != nullptr && (Announced(row.image, {}) > 0 || needed_))
        text = Format("%04lX", (std::strtoul(text.c_str(), nullptr, 16) ^ 1) & 0xFFFF);
    Remark(row.file, Format("its text is not known; %s has the same effect", text.c_str()));
    files_.contents[row.file] = Bytes(text.begin(), text.end());
}

} // namespace

RebuiltFiles RebuildFiles(const Capture &capture)
{
    return Rebuilder(capture).Rebuild();
}

void WriteFiles(const RebuiltFiles &files, const std::string &directory)
{
    std::filesystem::create_directories(directory);
    for (const auto &[name, contents] : files.contents)
        WriteFile(std::filesystem::path(directory) / name, contents);
}

} // namespace bench
