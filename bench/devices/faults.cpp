#include "bench/devices/faults.h"

#include "bench/devices/protocol.h"

#include <limits>
#include <sstream>
#include <stdexcept>

namespace bench
{

namespace
{

struct Item {
    std::string text, name, value; // text: the whole item, for messages
};

[[noreturn]] void Refuse(const Item &item, const char *why)
{
    throw std::invalid_argument("fault \"" + item.text + "\": " + why);
}

int Number(const Item &item, const std::string &text, int base = 10, int limit = std::numeric_limits<int>::max())
{
    const auto number = ParseNumber(text, base, static_cast<unsigned>(limit));
    if (!number)
        Refuse(item, base == 16 ? "hexadecimal bytes expected" : "number expected");
    return static_cast<int>(*number);
}

Bytes HexBytes(const Item &item, const std::string &text)
{
    if (text.empty() || text.size() % 2 != 0)
        Refuse(item, "hexadecimal bytes expected");
    Bytes bytes;
    for (std::size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(Number(item, text.substr(i, 2), 16)));
    return bytes;
}

// The part of text behind prefix. Nothing if text does not begin with prefix.
std::optional<std::string> Behind(const std::string &text, const std::string &prefix)
{
    if (text.compare(0, prefix.size(), prefix) != 0)
        return std::nullopt;
    return text.substr(prefix.size());
}

void SetReply(const Item &item, ReplyFault &reply)
{
    if (item.value == "none")
        reply.keep = 0;
    else if (const auto keep = Behind(item.value, "first:"))
        reply.keep = Number(item, *keep);
    else if (const auto late = Behind(item.value, "late:"))
        reply.lateMs = Number(item, *late);
    else
        Refuse(item, "unknown value");
}

void SetBlock(const Item &item, BlockFault &block)
{
    if (item.value == "ack")
        block.verdict = kAck;
    else if (item.value == "nack")
        block.verdict = kNack;
    else if (const auto verdict = Behind(item.value, "verdict:"))
        block.verdict = Number(item, *verdict, 16, 0xFF);
    else if (const auto noise = Behind(item.value, "noise:"))
        block.noise = HexBytes(item, *noise);
    else
        SetReply(item, block.reply);
}

void SetCut(const Item &item, Faults &faults)
{
    const std::size_t colon = item.value.find(':');
    faults.cutBlock = Number(item, item.value.substr(0, colon));
    faults.cutMiddle = colon != std::string::npos;
    if (faults.cutMiddle && item.value.substr(colon) != ":middle")
        Refuse(item, "unknown value");
}

void Set(const Item &item, Faults &faults)
{
    if (item.name == "noise")
        faults.noise = HexBytes(item, item.value);
    else if (item.name == "version")
        SetReply(item, faults.version);
    else if (item.name == "mode")
        SetReply(item, faults.flashMode);
    else if (item.name == "cut")
        SetCut(item, faults);
    else if (const auto block = Behind(item.name, "block"))
        SetBlock(item, faults.blocks[static_cast<unsigned>(Number(item, *block))]);
    else
        Refuse(item, "unknown name");
}

} // namespace

Faults ParseFaults(const std::string &text)
{
    Faults faults;
    std::istringstream items(text);
    for (std::string item; std::getline(items, item, ',');) {
        const std::size_t equals = item.find('=');
        if (equals == std::string::npos)
            Refuse({item, "", ""}, "name=value expected");
        Set({item, item.substr(0, equals), item.substr(equals + 1)}, faults);
    }
    return faults;
}

} // namespace bench
