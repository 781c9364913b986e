#include "bench/capture/timeline.h"

#include "bench/capture/timeline_inner.h"

#include <algorithm>
#include <functional>

namespace bench
{

namespace
{

using namespace timeline;

// ---- What the page looks like

constexpr double kLeft = 136; // of all axes
constexpr double kRight = 1296;
constexpr double kTextSize = 14;
constexpr double kMarkRow = 15; // beside a lane, for the marks on its messages

// ---- Drawing

bool IsGoodEnd(const std::string &ending)
{
    return ending == "exit 0";
}

class Painter
{
public:
    explicit Painter(const Digest &digest) : digest_(digest) {}
    std::string Draw();

private:
    using Filter = std::function<bool(const Step &)>;
    using MarkFunction = std::optional<Mark> (*)(const Step &);

    void DrawHeading();
    void DrawEnd();
    void DrawOverview();
    void DrawOverviewLine(const TimeAxis &axis, int port);
    void DrawProgram(const TimeAxis &axis);
    void DrawPart(int port);
    void DrawPartHeading(int port, Span shown);
    void DrawCalls(const TimeAxis &axis, int port, Span shown);
    void DrawWay(const TimeAxis &axis, int port, Way way);
    void DrawSilences(const TimeAxis &axis, int port, double height);
    void DrawAccepted(const TimeAxis &axis, int port);
    void DrawAxis(const TimeAxis &axis, double top);
    void DrawFolds(const TimeAxis &axis, double top);

    void DrawLane(const std::string &name, double height);
    void DrawShapes(const std::vector<Shape> &shapes, double height, bool labels);
    void DrawShape(const Shape &shape, double height, bool labels);
    void DrawMarks(const TimeAxis &axis, const Filter &filter, MarkFunction markOf, double y);
    void DrawSigns(const std::vector<Sign> &signs, double y);
    void DrawWait(const TimeAxis &axis, const Step &step, double height);

    std::vector<Shape> ShapesOf(const TimeAxis &axis, const Filter &filter) const;
    Span SpanOf(int port) const;
    std::string Since(WallTime time) const { return TimeText(time - digest_.begin); }
    std::string TitleOf(const Step &step) const;
    std::string TitleOf(const Shape &shape) const;

    const Digest &digest_;
    Svg back_, svg_; // lanes and grids; all that lies on them
    double y_ = 0;   // top of what is drawn next
};

std::vector<int> PortsByTime(const Digest &digest)
{
    std::vector<int> ports;
    for (const Step &step : digest.steps)
        if (step.message.event.port != kNoPort && std::ranges::find(ports, step.message.event.port) == ports.end())
            ports.push_back(step.message.event.port);
    return ports;
}

std::string Painter::Draw()
{
    DrawHeading();
    DrawOverview();
    for (const int port : PortsByTime(digest_))
        DrawPart(port);
    y_ += DrawLegend(svg_, y_);
    const std::string size = Number(kPageWidth) + " " + Number(y_);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " + size + "\" role=\"img\" aria-label=\"" +
           Escaped("Timeline of " + digest_.info.command) + "\">\n" + kStyle +
           "<rect class=\"page\" width=\"100%\" height=\"100%\"/>\n" + back_.text() + svg_.text() + "</svg>\n";
}

// ---- Heading

void Painter::DrawHeading()
{
    const RunInfo &info = digest_.info;
    constexpr double kEndWidth = 180;
    const std::string command = info.command.empty() ? "A run whose command is not known" : info.command;
    svg_.Text(kMargin, 44, "head", Fitted(command, kPageWidth - 2 * kMargin - kEndWidth, 26), command);
    std::string line = digest_.steps.empty() ? "no event" : DateText(digest_.begin) + ", " + Since(digest_.end);
    for (const std::string &fact : {info.program, info.source})
        line += fact.empty() ? "" : "  ·  " + fact;
    svg_.Text(kMargin, 68, "dim", Fitted(line, kPageWidth - 2 * kMargin, kTextSize), line);
    DrawEnd();
    y_ = 88;
}

void Painter::DrawEnd()
{
    const std::string &ending = digest_.ending;
    const char *look = ending.empty() ? "none" : IsGoodEnd(ending) ? "good" : "bad";
    const std::string text = ending.empty() ? "end not recorded" : ending;
    const double width = TextWidth(text, kTextSize) + 28;
    svg_.Rect({kPageWidth - kMargin - width, 24, width, 28}, look, "the end of the program: " + text);
    svg_.Text(kPageWidth - kMargin - width / 2, 43, IsGoodEnd(ending) || ending.empty() ? "mid bold" : "mid bold onbad",
              text);
}

// ---- The whole run

void Painter::DrawOverview()
{
    const TimeAxis axis({digest_.begin, digest_.end}, {}, kLeft, kRight - kLeft, false);
    const double top = y_;
    svg_.Text(kMargin, y_ + 14, "part", "Whole run");
    y_ += 26;
    const double lanes = y_;
    for (const int port : PortsByTime(digest_))
        DrawOverviewLine(axis, port);
    DrawProgram(axis);
    if (!digest_.ending.empty()) {
        svg_.Line(kRight, lanes, kRight, y_, IsGoodEnd(digest_.ending) ? "rule" : "rule heavy");
        svg_.Text(kRight + 8, y_ - 10, "small bold", Fitted(digest_.ending, kPageWidth - kRight - 10, 13));
    }
    DrawAxis(axis, lanes);
    if (digest_.steps.empty())
        svg_.Text((kLeft + kRight) / 2, top + 14, "mid dim", "Nothing was recorded.");
    y_ += 12;
}

void Painter::DrawOverviewLine(const TimeAxis &axis, int port)
{
    constexpr double kHeight = 16;
    DrawLane(PortName(port), kHeight);
    const Span span = SpanOf(port);
    const double width = std::max(axis.At(span.end) - axis.At(span.begin), 3.0);
    svg_.Rect({std::min(axis.At(span.begin), axis.right() - width), y_, width, kHeight}, "open",
              PortName(port) + ": from " + Since(span.begin) + " to " + Since(span.end));
    DrawShapes(ShapesOf(axis,
                        [&](const Step &step) {
                            return step.message.event.port == port && !step.message.event.bytes.empty();
                        }),
               kHeight, false);
    y_ += kHeight + 4;
}

void Painter::DrawProgram(const TimeAxis &axis)
{
    constexpr double kHeight = 20;
    DrawLane("program", kHeight);
    std::vector<Sign> signs;
    for (const Step &step : digest_.steps) {
        const Event &event = step.message.event;
        if (event.port != kNoPort)
            continue;
        if (event.note.starts_with("wait "))
            DrawWait(axis, step, kHeight);
        else if (const std::optional<Mark> mark = CallMarkOf(event.note))
            Add(signs, {axis.At(event.begin), *mark, event.note + ", at " + Since(event.begin)});
    }
    DrawSigns(signs, y_ + kHeight / 2);
    y_ += kHeight + 4;
}

void Painter::DrawWait(const TimeAxis &axis, const Step &step, double height)
{
    const WallTime begin = step.message.event.begin;
    const double left = axis.At(begin), width = axis.At(step.until) - left;
    const std::string label = "wait " + TimeText(step.until - begin);
    svg_.Rect({left, y_ + 1, std::max(width, 1.0), height - 2}, "wait",
              "the program waits " + TimeText(step.until - begin) + ", from " + Since(begin));
    if (TextWidth(label) + 8 < width)
        svg_.Text(left + width / 2, y_ + height / 2 + 4, "small mid plate", label);
}

// ---- The part of one line

// From the first event of a line to its last one, and to the end of its last silence.
Span Painter::SpanOf(int port) const
{
    std::optional<Span> span;
    for (const Step &step : digest_.steps) {
        const Event &event = step.message.event;
        if (event.port != port)
            continue;
        span = span.value_or(Span{event.begin, event.end});
        span->end = std::max({span->end, event.end, step.until});
    }
    return span.value_or(Span{digest_.begin, digest_.begin});
}

void Painter::DrawPart(int port)
{
    const Span shown = SpanOf(port);
    std::vector<Span> busy;
    for (const Step &step : digest_.steps)
        if (step.message.event.port == port)
            busy.push_back({step.message.event.begin, step.message.event.end});
    const TimeAxis axis(shown, std::move(busy), kLeft, kRight - kLeft, true);
    DrawPartHeading(port, shown);
    const double lanes = y_;
    DrawCalls(axis, port, shown);
    const LineTotals &line = digest_.lines.at(port);
    if (line.messages != 0) {
        DrawWay(axis, port, Way::kToDevice);
        DrawWay(axis, port, Way::kToHost);
    }
    if (line.blocks != 0)
        DrawAccepted(axis, port);
    DrawFolds(axis, lanes);
    DrawAxis(axis, lanes);
    y_ += 12;
}

void Painter::DrawPartHeading(int port, Span shown)
{
    const LineTotals &line = digest_.lines.at(port);
    svg_.Line(kMargin, y_, kPageWidth - kMargin, y_, "grid");
    y_ += 24;
    const std::string name = PortName(port);
    svg_.Text(kMargin, y_, "part", name, "serial port " + std::to_string(port));
    std::string counts = "no block";
    if (line.blocks != 0)
        counts = Format("%zu blocks: %zu accepted, %zu refused, %zu unknown, %zu without answer  ·  sent again: %zu",
                        line.blocks, line.accepted, line.refused, line.unknown, line.silent, line.retries);
    counts += Format("  ·  noise: %zu  ·  %zu bytes to device, %zu to host", line.noise, line.toDevice, line.toHost);
    svg_.Text(kLeft, y_, "", counts, name + ": from " + Since(shown.begin) + " to " + Since(shown.end));
    const double use = line.Use(digest_.duration());
    svg_.Text(kRight, y_, "end bold", "line use " + (use < 100 ? Number(use) : Format("%.0f", use)) + " %",
              "the time that a line of 115200 bit/s needs for all bytes, as a share of the whole run");
    y_ += 12;
}

void Painter::DrawCalls(const TimeAxis &axis, int port, Span shown)
{
    constexpr double kHeight = 20;
    DrawLane("calls, waits", kHeight);
    std::vector<Sign> signs;
    for (const Step &step : digest_.steps) {
        const Event &event = step.message.event;
        if (event.note.starts_with("wait ") && event.begin < shown.end && step.until > shown.begin)
            DrawWait(axis, step, kHeight);
        else if (const std::optional<Mark> mark = CallMarkOf(event.note); mark && event.port == port)
            Add(signs, {axis.At(event.begin), *mark, event.note + ", at " + Since(event.begin)});
    }
    DrawSigns(signs, y_ + kHeight / 2);
    y_ += kHeight + 2;
}

void Painter::DrawMarks(const TimeAxis &axis, const Filter &filter, MarkFunction markOf, double y)
{
    std::vector<Sign> signs;
    for (const Step &step : digest_.steps)
        if (const std::optional<Mark> mark = filter(step) ? markOf(step) : std::nullopt) {
            const Event &event = step.message.event;
            Add(signs, {(axis.At(event.begin) + axis.At(event.end)) / 2, *mark, TitleOf(step)});
        }
    DrawSigns(signs, y);
}

// Marks of a message to the device stand above it, and below it if it is sent again. Those of the other way stand
// below.
void Painter::DrawWay(const TimeAxis &axis, int port, Way way)
{
    const bool toDevice = way == Way::kToDevice;
    const double height = toDevice ? 34 : 24;
    const auto belongs = [&](const Step &step) {
        return step.message.event.port == port && step.message.event.way == way;
    };
    if (toDevice) {
        y_ += kMarkRow;
        DrawMarks(axis, belongs, MessageMarkOf, y_ - kMarkRow / 2);
    } else {
        DrawSilences(axis, port, height);
    }
    DrawLane(toDevice ? "to device" : "to host", height);
    DrawShapes(ShapesOf(axis, belongs), height, true);
    y_ += height + kMarkRow;
    DrawMarks(axis, belongs, toDevice ? AgainMarkOf : MessageMarkOf, y_ - kMarkRow / 2);
}

void Painter::DrawSilences(const TimeAxis &axis, int port, double height)
{
    constexpr double kLeast = 4;
    for (const Step &step : digest_.steps) {
        if (step.message.event.port != port || step.message.event.way != Way::kToDevice || step.fate != Fate::kSilence)
            continue;
        const WallTime begin = step.message.event.end;
        const double left = std::min(axis.At(begin), axis.right() - kLeast);
        const double width = std::max(axis.At(step.until) - left, kLeast);
        svg_.Rect({left, y_ + 2, width, height - 4}, "gap",
                  step.message.name + ": no answer in " + TimeText(step.until - begin));
    }
}

void Painter::DrawAccepted(const TimeAxis &axis, int port)
{
    constexpr double kHeight = 42;
    const LineTotals &line = digest_.lines.at(port);
    DrawLane("accepted", kHeight);
    const double bottom = y_ + kHeight;
    std::string path = "M" + Number(axis.left()) + " " + Number(bottom);
    std::size_t accepted = 0;
    double drawn = axis.left();
    const auto height = [&] {
        return Number(
            bottom - (line.image == 0 ? 0 : kHeight * static_cast<double>(accepted) / static_cast<double>(line.image)));
    };
    for (const Step &step : digest_.steps) {
        const Message &message = step.message;
        if (message.event.port != port || message.kind != Message::Kind::kBlock || step.fate != Fate::kAccepted)
            continue;
        const double x = axis.At(message.event.end + step.answerTime.value_or(WallTime(0)));
        if (x >= drawn + 0.5) { // else the steps on one pixel are one step
            path += "V" + height() + "H" + Number(x);
            drawn = x;
        }
        accepted += message.data.size() - kNumberSize;
    }
    path += "V" + height() + "H" + Number(axis.right());
    const std::string title =
        Format("%zu of the %zu bytes that the blocks carry are accepted", line.acceptedImage, line.image);
    svg_.Path(path + "V" + Number(bottom) + "Z", "area", title);
    svg_.Path(path, "curve", title);
    svg_.Text(axis.right() + 8, bottom - kHeight * line.Accepted() / 100 + 5, "bold", Number(line.Accepted()) + " %",
              title);
    y_ = bottom + 4;
}

// ---- Parts of a lane

void Painter::DrawLane(const std::string &name, double height)
{
    back_.Rect({kLeft, y_, kRight - kLeft, height}, "lane");
    svg_.Text(kLeft - 14, y_ + height / 2 + 4.5, "end", name);
}

std::string Painter::TitleOf(const Step &step) const
{
    const Event &event = step.message.event;
    std::string title = step.message.name;
    if (!step.message.finding.empty())
        title += " ! " + step.message.finding;
    title += Format("\n%zu bytes on the line, at ", event.bytes.size()) + Since(event.begin);
    if (event.end > event.begin)
        title += ", for " + TimeText(event.end - event.begin);
    if (step.again)
        title += "\nsent again";
    if (step.fate == Fate::kNone)
        return title;
    if (event.way == Way::kToHost)
        return title + (step.answerTime ? "\n" + TimeText(*step.answerTime) + " after its request" : "");
    return title + "\n" + (step.fate == Fate::kAnswered ? "answered" : RowOf(LookOf(step)).words) +
           (step.answerTime ? " after " + TimeText(*step.answerTime) : "");
}

std::string Painter::TitleOf(const Shape &shape) const
{
    if (shape.count == 1)
        return shape.title;
    std::string counts;
    for (std::size_t i = 0; i < kLookCount; ++i)
        if (shape.counts[i] != 0)
            counts += (counts.empty() ? "" : ", ") + std::to_string(shape.counts[i]) + " " +
                      RowOf(static_cast<Look>(i)).words;
    return std::to_string(shape.count) + " messages, from " + Since(shape.span.begin) + " to " + Since(shape.span.end) +
           "\n" + counts;
}

std::vector<Shape> Painter::ShapesOf(const TimeAxis &axis, const Filter &filter) const
{
    std::vector<Shape> shapes;
    for (const Step &step : digest_.steps) {
        if (!filter(step))
            continue;
        const Message &message = step.message;
        const Look look = LookOf(step);
        const double least = RowOf(look).leastWidth;
        const double left = std::min(axis.At(message.event.begin), axis.right() - least);
        const double width = axis.At(message.event.end) - left;
        shapes.push_back({.left = left,
                          .right = left + std::max(width, least),
                          .look = look,
                          .slim = width <= least,
                          .labels = LabelsOf(message),
                          .title = TitleOf(step),
                          .span = {message.event.begin, message.event.end}});
    }
    return Merged(std::move(shapes));
}

// The worse ones are drawn over the others.
void Painter::DrawShapes(const std::vector<Shape> &shapes, double height, bool labels)
{
    for (const bool bad : {false, true})
        for (const Shape &shape : shapes)
            if ((shape.look > Look::kAccepted) == bad)
                DrawShape(shape, height, labels);
}

void Painter::DrawShape(const Shape &shape, double height, bool labels)
{
    const LookRow &row = RowOf(shape.look);
    const double width = shape.right - shape.left;
    const double seam = width > 4 ? 0.5 : 0; // neighbours without a pause stay apart
    const double tall = height * row.height;
    svg_.Rect({shape.left + seam, y_ + (height - tall) / 2, width - 2 * seam, tall}, row.name, TitleOf(shape));
    for (const std::string &label : shape.labels) {
        if (!labels || TextWidth(label) + 6 > width)
            continue;
        svg_.Text((shape.left + shape.right) / 2, y_ + height / 2 + 4.5, row.labelLook, label);
        return;
    }
}

void Painter::DrawSigns(const std::vector<Sign> &signs, double y)
{
    for (const Sign &sign : signs)
        svg_.Use(IdOf(sign.mark), sign.x, y, sign.title);
}

// ---- Axes

void Painter::DrawAxis(const TimeAxis &axis, double top)
{
    svg_.Line(axis.left(), y_, axis.right(), y_, "axis");
    for (const TimeAxis::Tick &tick : axis.Ticks(digest_.begin)) {
        back_.Line(tick.x, top, tick.x, y_, "grid");
        svg_.Line(tick.x, y_, tick.x, y_ + 5, "axis");
        if (!tick.label.empty())
            svg_.Text(tick.x, y_ + 18, "small mid dim", tick.label);
    }
    y_ += 24;
}

void Painter::DrawFolds(const TimeAxis &axis, double top)
{
    for (const TimeAxis::Fold &fold : axis.folds()) {
        const std::string length = TimeText(fold.span.length());
        back_.Rect({fold.left, top, fold.right - fold.left, y_ - top}, "fold", length + " in which nothing happens");
        for (const double x : {fold.left, fold.right}) {
            if (x < axis.left() + 1 || x > axis.right() - 1)
                continue;
            std::string tear = "M" + Number(x) + " " + Number(top);
            for (double y = top, side = 3; y + 6 <= y_; y += 6, side = -side)
                tear += "l" + Number(side) + " 3l" + Number(-side) + " 3";
            back_.Path(tear, "tear");
        }
        svg_.Text((fold.left + fold.right) / 2, y_ + 18, "small mid", "+" + length);
    }
}

} // namespace

void Timeline(const Digest &digest, std::ostream &stream)
{
    stream << Painter(digest).Draw();
}

} // namespace bench
