// Texts of the bench's reports. Nothing in them depends on time, place or the host's byte order, so that two runs can
// be compared as files.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bench
{

using Bytes = std::vector<std::uint8_t>;

// printf into a string.
[[gnu::format(printf, 1, 2)]] std::string Format(const char *format, ...);

// "3 bytes: 82 06 77" up to sixteen bytes, "527 bytes, CRC-32 1A2B3C4D" above.
std::string Describe(const Bytes &bytes);

// The bytes as text on one line. Other bytes than printable characters, and backslashes, are as in "\x0A".
std::string Printable(const Bytes &bytes);

// Reads the whole text as a number. Returns nothing if it is no number, or if the number is above the limit.
std::optional<unsigned> ParseNumber(const std::string &text, int base, unsigned limit);

// The words of a command line as a shell would need them: with quotes where something in them means more to a shell.
std::string Quoted(const std::vector<std::string> &words);
// The words of such a text. A quotation mark that is not closed ends with the text.
std::vector<std::string> Unquoted(const std::string &text);

// The last line that is not empty.
std::string LastLine(std::string text);

// The whole file, or nothing when it cannot be read.
std::optional<Bytes> ReadFile(const std::string &path);

// Replaces the file. Throws std::runtime_error when it cannot be written.
void WriteFile(const std::string &path, const Bytes &bytes);

} // namespace bench
