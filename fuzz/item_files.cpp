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

void CheckLines(std::string_view text, std::size_t size)
{
    std::vector<char> line(size);
    ConfigFileT file;
    CHECK(ConfigStoreReadOpen("item", 0, &file) == kNoError);
    while (ConfigStoreReadGetLine(&file, line.data(), static_cast<UInt32>(size)) == kNoError) {
        const std::string_view piece = text.substr(0, std::min(text.find('\n'), size - 2) + 1);
        CHECK(!piece.empty() && line.data() == FirstLine(piece, size));
        text.remove_prefix(piece.size());
    }
    CHECK(text.empty() && line[0] == '\0');
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
