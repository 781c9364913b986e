#include "bench/capture/svg.h"

#include "bench/capture/digest.h"

#include <algorithm>
#include <cmath>

namespace bench
{

std::string Escaped(const std::string &text)
{
    std::string escaped;
    std::size_t begin = 0;
    for (std::size_t end = 0; begin <= text.size(); begin = end + 1) { // a title has lines
        end = std::min(text.find('\n', begin), text.size());
        escaped += begin == 0 ? "" : "\n";
        for (const char c : Printable(text.substr(begin, end - begin))) {
            switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '>':
                escaped += "&gt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += c;
            }
        }
    }
    return escaped;
}

std::string Number(double value)
{
    const long long tenths = std::llround(value * 10);
    if (tenths % 10 == 0)
        return std::to_string(tenths / 10);
    return Format("%s%lld.%lld", tenths < 0 ? "-" : "", std::abs(tenths) / 10, std::abs(tenths) % 10);
}

void Svg::Element(const std::string &start, const char *name, const std::string &title)
{
    text_ += "<" + std::string(name) + start;
    text_ += title.empty() ? "/>\n" : "><title>" + Escaped(title) + "</title></" + name + ">\n";
}

void Svg::Rect(const Box &box, const char *look, const std::string &title)
{
    Element(" x=\"" + Number(box.x) + "\" y=\"" + Number(box.y) + "\" width=\"" + Number(box.width) + "\" height=\"" +
                Number(box.height) + "\" class=\"" + look + "\"",
            "rect", title);
}

void Svg::Line(double x1, double y1, double x2, double y2, const char *look)
{
    Path("M" + Number(x1) + " " + Number(y1) + "L" + Number(x2) + " " + Number(y2), look);
}

void Svg::Path(const std::string &path, const char *look, const std::string &title)
{
    Element(" d=\"" + path + "\" class=\"" + look + "\"", "path", title);
}

void Svg::Use(const char *id, double x, double y, const std::string &title)
{
    Element(" href=\"#" + std::string(id) + "\" x=\"" + Number(x) + "\" y=\"" + Number(y) + "\"", "use", title);
}

void Svg::Text(double x, double y, const char *look, const std::string &text, const std::string &title)
{
    text_ += "<text x=\"" + Number(x) + "\" y=\"" + Number(y) + "\" class=\"" + look + "\">" + Escaped(text);
    text_ += title.empty() ? "</text>\n" : "<title>" + Escaped(title) + "</title></text>\n";
}

double TextWidth(const std::string &text, double size)
{
    const auto characters = std::ranges::count_if(text, [](char c) { return (c & 0xC0) != 0x80; });
    return static_cast<double>(characters) * size * 0.56;
}

std::string Fitted(const std::string &text, double width, double size)
{
    if (TextWidth(text, size) <= width)
        return text;
    std::string cut = text;
    while (!cut.empty() && TextWidth(cut + "...", size) > width) {
        while (!cut.empty() && (cut.back() & 0xC0) == 0x80)
            cut.pop_back();
        cut.erase(cut.size() - std::min<std::size_t>(cut.size(), 1));
    }
    return cut + "...";
}

} // namespace bench
