#include "bench/text.h"

#include <array>
#include <cctype>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace bench
{

namespace
{

constexpr std::size_t kShortMessage = 16;

constexpr std::array<std::uint32_t, 256> MakeCrcTable()
{
    std::array<std::uint32_t, 256> table = {};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320U : 0U);
        table[byte] = crc;
    }
    return table;
}

// What each byte does to a CRC-32. A program of some megabytes is described ahead of its run; its bits would take long.
constexpr std::array<std::uint32_t, 256> kCrcOfByte = MakeCrcTable();

// The CRC-32 of Ethernet and zip files.
std::uint32_t Crc32(const Bytes &bytes)
{
    std::uint32_t crc = ~std::uint32_t{0};
    for (const std::uint8_t byte : bytes)
        crc = (crc >> 8) ^ kCrcOfByte[(crc ^ byte) & 0xFF];
    return ~crc;
}

} // namespace

std::string Format(const char *format, ...)
{
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

std::string Describe(const Bytes &bytes)
{
    std::string text = Format("%zu byte%s", bytes.size(), bytes.size() == 1 ? "" : "s");
    if (bytes.size() > kShortMessage)
        return text + Format(", CRC-32 %08X", Crc32(bytes));
    for (std::size_t i = 0; i < bytes.size(); ++i)
        text += Format("%s%02X", i == 0 ? ": " : " ", bytes[i]);
    return text;
}

std::string Printable(const Bytes &bytes)
{
    std::string text;
    for (const std::uint8_t byte : bytes)
        text +=
            std::isprint(byte) != 0 && byte != '\\' ? std::string(1, static_cast<char>(byte)) : Format("\\x%02X", byte);
    return text;
}

std::optional<unsigned> ParseNumber(const std::string &text, int base, unsigned limit)
{
    const char *end = text.data() + text.size();
    unsigned number = 0;
    const auto parsed = std::from_chars(text.data(), end, number, base);
    if (parsed.ec != std::errc() || parsed.ptr != end || number > limit)
        return std::nullopt;
    return number;
}

std::string Quoted(const std::vector<std::string> &words)
{
    constexpr char kPlain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_./,:=+@%-";
    std::string text;
    for (const std::string &word : words) {
        text += text.empty() ? "" : " ";
        const bool plain = !word.empty() && word.find_first_not_of(kPlain) == std::string::npos;
        text += plain ? "" : "'";
        for (const char c : word)
            c == '\'' ? text += "'\\''" : text += c;
        text += plain ? "" : "'";
    }
    return text;
}

std::vector<std::string> Unquoted(const std::string &text)
{
    std::vector<std::string> words;
    bool inWord = false;
    char quote = 0; // the open quotation mark
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (quote == 0 && (c == ' ' || c == '\t' || c == '\n')) {
            inWord = false;
            continue;
        }
        if (!inWord)
            words.emplace_back();
        inWord = true;
        if (c == quote)
            quote = 0;
        else if (quote == 0 && (c == '\'' || c == '"'))
            quote = c;
        else if (quote != '\'' && c == '\\' && i + 1 < text.size())
            words.back() += text[++i];
        else
            words.back() += c;
    }
    return words;
}

std::string LastLine(std::string text)
{
    text.erase(text.find_last_not_of("\r\n") + 1);
    return text.substr(text.find_last_of("\r\n") + 1);
}

std::optional<Bytes> ReadFile(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file || std::filesystem::is_directory(path))
        return std::nullopt;
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

void WriteFile(const std::string &path, const Bytes &bytes)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!file.flush())
        throw std::runtime_error("cannot write " + path);
}

} // namespace bench
