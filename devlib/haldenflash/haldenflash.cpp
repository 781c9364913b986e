#include "devlib/haldenflash/haldenflash.h"

#include "Common/OS/linux/oslinux.h"
#include "Common/OS/linux/psosapi/pthreadapi.h"
#include "devlib/devmgr_serial.h"
#include "devlib/haldenflash/farsightupdate.h"
#include "devlib/haldenflash/imagetable.h"
#include "devlib/haldenflash/microupdate.h"
#include "softupdate/progressctrl/progressctrl.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>
#include <sys/stat.h>

Boolean gbDoMicro;
Boolean gbDoFarsight;
Boolean gbQueryOnly;
Boolean gbUpdateRequired;

namespace
{

constexpr char sK4Model[] = "k4";
constexpr char sQuillmarkModel[] = "quillmark";
constexpr char sBriskoModel[] = "brisko";
constexpr char sVaneModel[] = "VANE";
constexpr char sStrathmorModel[] = "STRATHMOR";
constexpr char sKoraModel[] = "KORA";

struct ModelRow {
    const char *name;
    hwTypeT hwType;
};
constexpr ModelRow kModels[] = {
    {sK4Model, kK4},     {sQuillmarkModel, kQuillmark}, {sBriskoModel, kQuillmark}, // one type, two boards
    {sVaneModel, kVane}, {sStrathmorModel, kStrathmor}, {sKoraModel, kKora},
};

struct TargetRow {
    const char *word;
    Boolean micro, farsight;
};
constexpr TargetRow kTargets[] = {
    {"all", 1, 1},
    {"micro", 1, 0},
    {"farsight", 0, 1},
};

constexpr int kPipeWords = 3;    // behind "-p": path, lower bound, upper bound
constexpr int kMinPipeWords = 2; // without the upper bound

// Records the hardware type of the board that the environment names. A name that is not known leaves the type as it is.
void SetBoard()
{
    const char *board = std::getenv("TALVORA_BOARDID");
    if (board == nullptr)
        board = sK4Model;
    for (const ModelRow &row : kModels)
        if (strcasecmp(board, row.name) == 0)
            SetSystemHardwareType(row.hwType);
    std::printf("######### Running on: %s ....\n\r", board);
    std::printf("######### hwType:%d ....\n\r", static_cast<Int32>(GetSystemHardwareType()));
}

// A bound of the progress range. A bound that is missing or no number is 0. A number out of range saturates at 32 bits
// on every machine.
Int32 Bound(const char *text)
{
    if (text == nullptr)
        return 0;
    return static_cast<Int32>(std::clamp<long long>(std::strtoll(text, nullptr, 10), INT32_MIN, INT32_MAX));
}

void SetProgress(char *const words[])
{
    gProgressCtrl.bDoUpdate = 1;
    gProgressCtrl.pszCommPipe = words[0];
    gProgressCtrl.nRangeLowerLimit = Bound(words[1]);
    gProgressCtrl.nRangeUpperLimit = Bound(words[2]);
    progressCtrlInit(gProgressCtrl.pszCommPipe, gProgressCtrl.nRangeLowerLimit, gProgressCtrl.nRangeUpperLimit);
}

bool SetTarget(const char *word)
{
    for (const TargetRow &row : kTargets) {
        if (std::strcmp(word, row.word) != 0)
            continue;
        gbDoMicro |= row.micro;
        gbDoFarsight |= row.farsight;
        return true;
    }
    return false;
}

// Deliberate: the program's own name is tested like any other argument. Its usual name is no word. With only two words
// behind "-p" the upper bound is the null entry that ends the arguments.
void ParseArguments(int argc, char *const argv[])
{
    for (int i = 0; i < argc; i++) {
        if (SetTarget(argv[i]))
            continue;
        if (argv[i][0] == 'q') {
            gbQueryOnly = 1;
        } else if (std::strcmp(argv[i], "-p") == 0 && i + kMinPipeWords < argc) {
            SetProgress(argv + i + 1);
            i += kPipeWords;
        }
    }
}

// Adds the size of an image to the work. Returns false when there is no such file.
bool AddToWork(const ImageRow &image)
{
    struct stat status;
    if (stat(image.file, &status) != 0)
        return false;
    gProgressCtrl.*image.fileSize = static_cast<Int32>(status.st_size);
    gProgressCtrl.nTotBytesToDo =
        static_cast<Int32>(Int64{gProgressCtrl.nTotBytesToDo} + gProgressCtrl.*image.fileSize);
    return true;
}

// Adds up the work for progress reporting. If an image is missing, reporting is off, and the update goes on.
void SizeWork()
{
    const char *missing = nullptr;
    for (const ImageRow &image : kImages)
        if (*image.device.wanted != 0 && !AddToWork(image))
            missing = image.file;
    if (missing == nullptr)
        return;
    std::printf("Can't stat %s. Cancelling progress control updates.\n", missing);
    gProgressCtrl.bDoUpdate = 0;
}

// An argument for printing. A missing argument prints as the C library prints a null string.
const char *Argument(int argc, char *const argv[], int index)
{
    return index < argc ? argv[index] : "(null)";
}

int PrintResult(int argc, char *const argv[], int result)
{
    std::printf("#######[%s] HALDEN FLASH UPDATE [%s] ....\n", result == 0 ? "SUCCESSFULLY" : "FAILED",
                Argument(argc, argv, 1));
    return result;
}

int PrintQueryResult()
{
    std::puts(gbUpdateRequired != 0 ? "########## Halden Image(s) Update Required ...."
                                    : "########## NO Halden Image(s) Update Required ....");
    return gbUpdateRequired != 0 ? 1 : 0;
}

// Runs the updates that were asked for, the microcontroller's first. The first failure ends them, with -1. Else 0.
int RunUpdates(int argc, char *const argv[])
{
    int result = 0;
    if (gbDoMicro != 0) {
        std::puts("########### calling flash_micro() ...");
        result = flash_micro(argc, argv);
    }
    if (result == 0 && gbDoFarsight != 0) {
        std::puts("########### calling flash_farsight() ...");
        result = flash_farsight(argc, argv);
    }
    std::printf("############# argv[2] = %s ....\n", Argument(argc, argv, 2));
    return result;
}

} // namespace

// Deliberate: the usage line runs together with the line behind it.
void print_usage()
{
    std::printf("Usage: haldenflash  [micro | farsight] [q] [-p <comm pipe> <range low> <range high>]");
    std::puts("* Default value.");
}

void PrintArguments(int argc, char *const argv[])
{
    for (int i = 0; i < argc; i++)
        std::printf("#### argv[%d]=%s ...\n", i, argv[i]);
}

int RunHaldenflash(int argc, char *const argv[])
{
    TreeStub();
    std::printf("Program to flash Halden fw: argc:%d...\n\r", argc);
    SetBoard(); // before the serial start-up, which asks for the hardware type
    PrintArguments(argc, argv);
    gProgressCtrl = {};
    ParseArguments(argc, argv);
    DevMgrSerial_Init();
    if (gbDoMicro == 0 && gbDoFarsight == 0) {
        print_usage();
        return -1;
    }
    if (gProgressCtrl.bDoUpdate != 0)
        SizeWork();
    const int result = RunUpdates(argc, argv);
    if (result == 0 && gbQueryOnly != 0)
        return PrintQueryResult();
    return PrintResult(argc, argv, result);
}
