// Versions as text: the parser, and the result of a query for given version files and a given reply of the camera.
// Lines of the input: the camera image's version file, the system image's, the reply behind its first byte. A missing
// part of the reply says the same as the files.
#include "fuzz/board.h"

#include "devlib/haldenflash/farsightupdate.h"
#include "devlib/haldenflash/haldenflash.h"
#include "devlib/haldenflash/hextext.h"

#include <iterator>
#include <sstream>

namespace
{

// The first eight characters of a file count.
Int32 VersionOfFile(const std::string &content)
{
    return Version(content.substr(0, 8).c_str());
}

Int32 VersionOfReply(const std::string &reply, std::size_t position)
{
    return static_cast<Int16>(Version(reply.substr(position, 4).c_str()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const char *data, std::size_t size)
{
    std::istringstream input(std::string(data, size));
    std::string cam, sys;
    std::getline(input, cam);
    std::getline(input, sys);
    const std::string given(std::istreambuf_iterator<char>(input), {});
    for (const std::string &text : {cam, sys, given})
        CHECK(axxtoi(text.c_str()) == Version(text.c_str()));
    SetUpPorts();
    const std::string same = "...." + (sys + "....").substr(0, 4) + (cam + "....").substr(0, 4);
    std::string reply = given.substr(0, 12) + same.substr(std::min<std::size_t>(given.size(), 12));
    std::replace_if(reply.begin(), reply.end(), Board::IsEvent, '.');
    gbQueryOnly = 1;
    gbUpdateRequired = 0;
    const std::string script = "\xA0" + reply;
    Board board({{"farsightcamver", cam}, {"farsightsysver", sys}}, script);
    CHECK(flash_farsight(0, nullptr) == 0);
    CHECK((gbUpdateRequired != 0) ==
          (VersionOfFile(cam) != VersionOfReply(reply, 8) || VersionOfFile(sys) != VersionOfReply(reply, 4)));
    return 0;
}
