// The elements of a picture, as text. Each takes a title, which appears where the pointer rests. An empty title is left
// out. Numbers have at most one decimal.
#pragma once

#include <string>

namespace bench
{

struct Box {
    double x, y, width, height;
};

// Escapes the text for XML, and replaces what XML cannot have.
std::string Escaped(const std::string &text);

// A number with one decimal, or with none.
std::string Number(double value);

class Svg
{
public:
    void Raw(const std::string &text) { text_ += text; }
    void Rect(const Box &box, const char *look, const std::string &title = {});
    void Line(double x1, double y1, double x2, double y2, const char *look);
    void Path(const std::string &path, const char *look, const std::string &title = {});
    // A shape that the definitions have.
    void Use(const char *id, double x, double y, const std::string &title = {});
    // look is a list of classes.
    void Text(double x, double y, const char *look, const std::string &text, const std::string &title = {});
    const std::string &text() const { return text_; }

private:
    void Element(const std::string &start, const char *name, const std::string &title);

    std::string text_;
};

// About the width of a text, so that labels do not overlap.
double TextWidth(const std::string &text, double size = 13);

// The text, shortened at its end with "..." to fit.
std::string Fitted(const std::string &text, double width, double size);

} // namespace bench
