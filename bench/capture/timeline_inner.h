// The parts of the picture of a run. Other modules do not include this file.
//   timeline.cpp        the page: its parts, their lanes, and what lies on them
//   timeline_marks.cpp  the shapes of messages, and the marks of calls and of what is worth a look
//   timeline_style.cpp  colours, patterns and the legend
#pragma once

#include "bench/capture/digest.h"
#include "bench/capture/svg.h"
#include "bench/capture/timeaxis.h"

#include <array>

namespace bench::timeline
{

inline constexpr double kPageWidth = 1400;
inline constexpr double kMargin = 28;

// ---- Style

// The style sheet, and the definitions of patterns and marks.
extern const char kStyle[];

// Draws the legend, and returns its height.
double DrawLegend(Svg &svg, double y);

// ---- Shapes: messages in a lane

// How a message is drawn. Of several on one pixel the last one counts.
enum class Look { kOther, kAccepted, kNoise, kUnknown, kRefused, kSilence };
inline constexpr std::size_t kLookCount = 6;

struct LookRow {
    const char *name; // also the class
    const char *words;
    double height; // share of the lane
    double leastWidth;
    const char *labelLook;
};

const LookRow &RowOf(Look look);
Look LookOf(const Step &step);

// What may be written on a message. The longest label comes first.
std::vector<std::string> LabelsOf(const Message &message);

struct Shape {
    double left, right;
    Look look;
    bool slim = false;                    // has the least width
    std::vector<std::string> labels = {}; // of LabelsOf
    std::string title = {};
    Span span = {};
    std::array<std::size_t, kLookCount> counts = {}; // of the messages in it
    std::size_t count = 1;
};

// Joins neighbours that are too narrow to be told apart.
std::vector<Shape> Merged(std::vector<Shape> shapes);

// ---- Marks: calls, and what is worth a look

// Of several marks in one place the last one counts.
enum class Mark { kSetting, kOpen, kClose, kAgain, kFinding, kNoise, kUnknown, kRefused, kSilence, kFailed };

// The name of the mark in the definitions.
const char *IdOf(Mark mark);

struct Sign {
    double x;
    Mark mark;
    std::string title;
    std::size_t count = 1;
};

// Adds a mark behind all others. It joins the last one if they would overlap.
void Add(std::vector<Sign> &signs, Sign sign);

// The mark of a call. Waits and the end of the program have none.
std::optional<Mark> CallMarkOf(const std::string &note);

// What is worth a look at a message; nothing: it is good.
std::optional<Mark> MessageMarkOf(const Step &step);

// The mark of a message that is sent again.
std::optional<Mark> AgainMarkOf(const Step &step);

} // namespace bench::timeline
