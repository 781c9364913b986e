// The bench and programs of the desk's shell. The emulated board's shell is a static file: it takes no preload library.
#include "tests/shellrun.h"

namespace
{

using namespace bench;
using std::string;

struct DeskBench : ShellRun {
    DeskBench() { options.environment = {{"TALVORA_BOARDID", "of mine"}}; }
};

TEST_F(DeskBench, OpensArePlayedWithTheirError)
{
    options.preload = HALDENBENCH_PRELOAD;
    options.ports[kMicroPort] = {.line = &microLine, .refusedOpens = 1, .openError = ENXIO};
    const string errors = Shell(": </dev/fpgaserial1").errors;
    EXPECT_NE(errors.find("No such device or address"), string::npos) << errors;
}

// Each row has the words, and a part of what is printed. Behind it stands the status.
TEST_F(DeskBench, CommandTakesItsWords)
{
    const std::pair<string, string> rows[] = {
        {"--strict -- sh", "--strict needs --replay\n2\n"},
        {"--replay haldenmicro.bin --capture haldenmicro.bin", "would write over the capture that --replay reads\n2\n"},
        {"--serve micro=a --line micro=b", "there can be no command, no --line and no --replay with it\n2\n"},
        {"--faults engine:cut=1 -- sh", "the value has to be micro:TEXT or camera:TEXT\n2\n"},
        {"--config nowhere -- sh", "--config: there is no directory nowhere\n2\n"},
        {"--transcript no/where -- /bin/touch ran", "cannot write no/where\n1\n"},
        {"-- ran", "/ran\n2\n"},
        {"-- /bin/sh -c 'echo $TALVORA_BOARDID'", "of mine\n"},
        {"-- /bin/sh -c 'read a || echo none' <farsightcamver", "none\n"},
        {"-- /bin/sh -c 'echo >/dev/fpgaserial1' 2>/dev/null", "\n! byte 0A outside a frame\n1\n"},
        {"--config . -- /bin/sh -c 'read a </opt/talvora/farsightcamver && echo $a'", "0204\n"},
        {"--capture - -- /bin/sleep 0.2 | head -c 1 >/dev/null", "haldenbench: cannot write -: Broken pipe\n0\n"},
        {"-- /bin/sh -c 'kill $$'", "the command was ended by signal 15\n"},
        {"-- /bin/false", "system image: version 0306, 0 blocks, 0 bytes, 0 findings: had no part in the run\n1\n"},
        {"--line micro=nowhere -- /bin/true", "haldenbench: nowhere: there is no such device\n1\n"},
        {"--launcher 5 -- /bin/sh -c 'echo >/tmp/plaunch; read a </tmp/plaunch && echo $a'", "5\n"},
    };
    for (const auto &[words, text] : rows) {
        const RunResult result = Shell("exec 2>&1; " HALDENBENCH_BINARY " " + words + "; echo $?; [ ! -e ran ]");
        EXPECT_NE(result.output.find(text), string::npos) << result.output;
        EXPECT_EQ(result.status, 0) << words;
    }
}

} // namespace
