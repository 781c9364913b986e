// The master's answer to a read on another processor.
#include "fuzz/support.h"

#include <vector>

// Linked in place of GetProcessorNum.
UInt32 ThisProcessor() __asm__("__wrap__Z15GetProcessorNumv");
UInt32 ThisProcessor()
{
    return 1;
}

namespace
{

std::string gAnswer;
void *gContext; // of the last read

Int32 Answer(RemMsgPathT *pPath, const char *command, RemMsgRspT completion, void *context)
{
    CHECK(std::string("config item 7") == command);
    gContext = context;
    completion(pPath, gAnswer.c_str(), context);
    return 0;
}

RemMsgPathT gMaster = {kRemMsgPathOpen, Answer};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char *data, std::size_t size)
{
    gRemMsgPaths[kMasterProcessor] = &gMaster;
    gAnswer.assign(data, size);
    char word[512] = ""; // as much is kept of an answer
    std::sscanf(gAnswer.substr(0, sizeof word - 1).c_str(), "%*s %*s %*d %511s", word);
    const std::string expected = word;
    for (const UInt32 length : {1u, 2u, 371u, 600u}) {
        std::vector<char> text(length);
        CHECK(ConfigStoreRead("item", 7, text.data(), length) == kNoError);
        CHECK(text.data() == expected.substr(0, length - 1));
        remoteRspCallback(&gMaster, gAnswer.c_str(), gContext); // too late: nobody waits
    }
    return 0;
}
