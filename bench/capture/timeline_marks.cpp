#include "bench/capture/timeline_inner.h"

#include <algorithm>

namespace bench::timeline
{

namespace
{

using Kind = Message::Kind;

constexpr LookRow kLooks[] = {
    {"other", "other", 0.55, 2, "small mid onbad"},  {"accepted", "accepted", 0.8, 2, "small mid"},
    {"noise", "noise", 1, 3, "small mid onbad"},     {"unknown", "unknown", 1, 3, "small mid plate"},
    {"refused", "refused", 1, 3, "small mid plate"}, {"silence", "without answer", 1, 4, "small mid"},
};
static_assert(std::size(kLooks) == kLookCount);

constexpr const char *kMarkIds[] = {"setting", "open",    "close",   "again",   "finding",
                                    "noise",   "unknown", "refused", "silence", "failed"};

// Whether two neighbours become one shape: they begin on the same pixel, or both are as slim as can be and alike.
bool Meet(const Shape &a, const Shape &b)
{
    constexpr double kWidest = 8;
    const bool slim = a.slim && b.slim && a.right - a.left < kWidest;
    return b.left < a.left + 1 || (a.look == b.look && slim && b.left < a.right);
}

} // namespace

const LookRow &RowOf(Look look)
{
    return kLooks[static_cast<std::size_t>(look)];
}

Look LookOf(const Step &step)
{
    if (step.message.kind == Kind::kNoise || step.message.kind == Kind::kPiece)
        return Look::kNoise;
    switch (step.fate) {
    case Fate::kNone:
    case Fate::kAnswered:
        return Look::kOther;
    case Fate::kAccepted:
        return Look::kAccepted;
    case Fate::kUnknown:
        return Look::kUnknown;
    case Fate::kRefused:
        return Look::kRefused;
    case Fate::kSilence:
        return Look::kSilence;
    }
    return Look::kOther;
}

std::vector<std::string> LabelsOf(const Message &message)
{
    const std::string name = message.name.substr(0, message.name.find(" with "));
    if (message.kind != Kind::kBlock || !message.block)
        return {name};
    const std::string number = std::to_string(*message.block);
    return {name, ImagePrefix(message.type.value_or(0)) + number, number};
}

std::vector<Shape> Merged(std::vector<Shape> shapes)
{
    std::vector<Shape> merged;
    for (Shape &shape : shapes) {
        shape.counts[static_cast<std::size_t>(shape.look)] = 1;
        if (merged.empty() || !Meet(merged.back(), shape)) {
            merged.push_back(std::move(shape));
            continue;
        }
        Shape &last = merged.back();
        last.right = std::max(last.right, shape.right);
        last.span.end = std::max(last.span.end, shape.span.end);
        last.look = std::max(last.look, shape.look);
        ++last.counts[static_cast<std::size_t>(shape.look)];
        ++last.count;
        last.labels.clear();
    }
    return merged;
}

const char *IdOf(Mark mark)
{
    return kMarkIds[static_cast<std::size_t>(mark)];
}

void Add(std::vector<Sign> &signs, Sign sign)
{
    constexpr double kApart = 14;
    constexpr std::size_t kLines = 6;
    if (signs.empty() || sign.x - signs.back().x >= kApart) {
        signs.push_back(std::move(sign));
        return;
    }
    Sign &last = signs.back();
    last.mark = std::max(last.mark, sign.mark);
    if (++last.count <= kLines)
        last.title += "\n" + sign.title;
    else if (last.count == kLines + 1)
        last.title += "\nand more";
}

std::optional<Mark> CallMarkOf(const std::string &note)
{
    if (note.starts_with("!"))
        return Mark::kFinding;
    if (note.starts_with("write ") || note.find(" refused ") != std::string::npos)
        return Mark::kFailed;
    if (note.starts_with("open"))
        return Mark::kOpen;
    if (note.starts_with("close"))
        return Mark::kClose;
    if (note.starts_with("config") || note.starts_with("rx"))
        return Mark::kSetting;
    return std::nullopt;
}

std::optional<Mark> MessageMarkOf(const Step &step)
{
    const bool toDevice = step.message.event.way == Way::kToDevice;
    switch (LookOf(step)) {
    case Look::kNoise:
        return Mark::kNoise;
    case Look::kUnknown:
        return toDevice ? std::optional(Mark::kUnknown) : std::nullopt;
    case Look::kRefused:
        return toDevice ? std::optional(Mark::kRefused) : std::nullopt;
    case Look::kSilence:
        return Mark::kSilence;
    case Look::kOther:
    case Look::kAccepted:
        break;
    }
    return step.message.finding.empty() ? std::nullopt : std::optional(Mark::kFinding);
}

std::optional<Mark> AgainMarkOf(const Step &step)
{
    return step.again ? std::optional(Mark::kAgain) : std::nullopt;
}

} // namespace bench::timeline
