// The contents of an item's file: as a value, as a number, line by line.
#include "fuzz/support.h"

#include <vector>

namespace
{

void CheckNumbers(const char *value)
{
    Int32 wide = 77;
    Int16 narrow = 77;
    const bool isWide = ConfigReadInt32("item", 0, &wide) == kNoError;
    const bool isNarrow = ConfigReadInt16("item", 0, &narrow) == kNoError;
    char *end = nullptr;
    const long long number = std::strtoll(value, &end, 10);
    CHECK(isWide ? wide == number && *end == '\0' : wide == 77);
    CHECK(isNarrow == (isWide && wide == static_cast<Int16>(wide)));
    CHECK(narrow == (isNarrow ? wide : 77));
}

// The pieces that a text is read in.
std::vector<std::string> Pieces(std::string_view text, std::size_t size)
{
    std::vector<std::string> pieces;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        std::string_view rest = line.substr(0, line.find('\r'));
        do {
            pieces.push_back(FirstLine(rest, size));
            rest.remove_prefix(std::min(rest.size(), size - 1));
        } while (!rest.empty());
        text.remove_prefix(std::min(text.size(), line.size() + 1));
    }
    return pieces;
}

void CheckLines(std::string_view text, std::size_t size)
{
    std::vector<char> line(size);
    ConfigFileT file;
    CHECK(ConfigStoreReadOpen("item", 0, &file) == kNoError);
    for (const std::string &piece : Pieces(text, size)) {
        CHECK(ConfigStoreReadGetLine(&file, line.data(), static_cast<UInt32>(size)) == kNoError);
        CHECK(line.data() == piece);
    }
    CHECK(ConfigStoreReadGetLine(&file, line.data(), static_cast<UInt32>(size)) == kEndOfFile);
    CHECK(line[0] == '\0');
    ConfigStoreReadClose(&file);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char *data, std::size_t size)
{
    const std::string text(data, size);
    PutFile("item", 0, text);
    DeleteItemFromCache("item", 0);
    std::vector<char> value(kConfigValueSize);
    for (const char *source : {"the file", "the cache"}) {
        CHECK(ConfigRead("item", 0, value.data()) == kNoError);
        os_assert(value.data() == FirstLine(text, kConfigValueSize - 1), source);
    }
    CheckNumbers(value.data());
    CheckLines(text, 17);
    CheckLines(text, kConfigValueSize);
    return 0;
}
