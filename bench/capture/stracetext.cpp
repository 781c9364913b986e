#include "bench/capture/stracetext_inner.h"

#include <utility>

namespace bench
{

namespace
{

constexpr std::size_t kLongestLine = 16 << 20, kUsualLine = 1 << 16;

// The lines of a text, from its start. The caller keeps the stream.
class Lines
{
public:
    explicit Lines(std::istream &stream) : stream_(stream), buffer_(kUsualLine)
    {
        stream_.clear();
        stream_.seekg(0);
    }

    // Number of the line that was read last. A line that was put together has the number of its first part.
    std::size_t number() const { return number_; }

    // Reads the next line. Without -o strace prints "Process 12 attached" into the middle of a call, which goes on in
    // the next line. Such a call is put together.
    bool Next(std::string_view &line)
    {
        std::size_t size = 0;
        if (!Append(size))
            return false;
        number_ = read_;
        for (std::size_t cut = CutOf({buffer_.data(), size}); cut > 0; cut = CutOf({buffer_.data(), size})) {
            size = cut;
            if (!Append(size))
                break;
        }
        line = {buffer_.data(), size};
        return true;
    }

private:
    // Reads one line behind the size bytes that are there.
    bool Append(std::size_t &size)
    {
        std::size_t count = 0;
        for (++read_;; buffer_.resize(buffer_.size() * 2)) {
            stream_.getline(buffer_.data() + size, static_cast<std::streamsize>(buffer_.size() - size));
            count = static_cast<std::size_t>(stream_.gcount());
            if (!stream_.fail() || stream_.eof())
                break;
            if (buffer_.size() >= kLongestLine)
                throw StraceError(Format("line %zu: it is longer than %zu bytes", read_, kLongestLine));
            size += count; // the buffer is full
            stream_.clear();
        }
        const bool found = count > 0 || !stream_.eof();
        size += count - (stream_.eof() ? 0 : 1); // the end of the line counts
        return found;
    }

    // Where strace's text begins that stands at the end of a piece of a call. 0: there is no such text.
    static std::size_t CutOf(std::string_view line)
    {
        constexpr std::string_view kBegin = "strace: Process ", kEnd = " attached";
        const std::size_t at = line.ends_with(kEnd) ? line.rfind(kBegin) : std::string_view::npos;
        return at == std::string_view::npos || line.substr(0, at).find('(') == std::string_view::npos ? 0 : at;
    }

    std::istream &stream_;
    std::vector<char> buffer_;
    std::size_t number_ = 0, read_ = 0;
};

} // namespace

StraceText::StraceText(std::istream &text, PortPaths ports)
    : text_(text), ports_(std::move(ports)), findings_(std::make_unique<strace::Findings>())
{
    *findings_ = Follow({});
}

StraceText::~StraceText() = default;

const RunInfo &StraceText::info() const
{
    return findings_->info;
}

void StraceText::HandOut(const Sink &sink)
{
    Follow(sink);
}

strace::Findings StraceText::Follow(const Sink &sink)
{
    strace::Follower follower(ports_, *findings_, sink);
    Lines lines(text_);
    for (std::string_view line; lines.Next(line);)
        follower.Take(line, lines.number());
    return follower.Finish();
}

} // namespace bench
