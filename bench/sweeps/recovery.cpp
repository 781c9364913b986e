#include "bench/sweeps/recovery.h"

#include "bench/text.h"

#include <cstring>

namespace bench
{

namespace
{

constexpr int kBySignal = 128; // any status above it
constexpr unsigned kWhole = kBefore | kImage;
constexpr unsigned kAny = kBefore | kPart | kImage;

constexpr char kSuccess[] = "#######[SUCCESSFULLY] HALDEN FLASH UPDATE";
constexpr char kRequired[] = "########## Halden Image(s) Update Required";
constexpr char kFailed[] = "#######[FAILED] HALDEN FLASH UPDATE";
constexpr char kUnknownVerdict[] = "UNKNOWN RESPONSE FROM FARSIGHT DURING";
constexpr char kNoVerdict[] = "GOT A [NACK] FROM HALDEN MICRO CONTROLLER";

// clang-format off

// The first row that fits counts. So a special row is above a general one.
constexpr RecoveryRow kRows[] = {
    {0, kSuccess, "Could not open Halden Microcontroller BIN file", kBefore, kWhole, kWhole,
     "There was no image for the microcontroller, or it could not be opened.",
     "If the microcontroller was to be updated: provide `haldenmicro.bin` and run again."},
    {0, kSuccess, "Failed reading the version of Halden Microcontroller BIN file", kBefore, kWhole, kWhole,
     "The microcontroller's image is empty, begins with the version 0, or could not be read.",
     "If the microcontroller was to be updated: provide another `haldenmicro.bin` and run again."},
    {0, kSuccess, "", kWhole, kWhole, kWhole,
     "Each device took its image, or answered that it runs the image's version.", "Nothing."},
    {0, "########## NO Halden Image(s) Update Required", "Could not open Halden Microcontroller BIN file", kBefore,
     kBefore, kBefore,
     "Query. There is no image for the microcontroller, so the query tells nothing about it.",
     "Provide `haldenmicro.bin` and ask again."},
    {0, "########## NO Halden Image(s) Update Required", "", kBefore, kBefore, kBefore,
     "Query. The devices are up to date.", "Nothing."},
    {1, kRequired, "", kBefore, kBefore, kBefore,
     "Query. An image differs from what a device runs.", "Run the update."},

    {127, "", "", kBefore, kBefore, kBefore,
     "The program could not be loaded.", "Install the program again, with the libraries that it needs. Run again."},
    {134, "", "", kBefore, kBefore, kBefore,
     "An assertion stopped the program before anything was sent. Standard error names it. On a board other than KORA "
     "it is the missing configuration folder.", "Mend what the assertion names. Run again."},
    {kBySignal, "", "", kAny, kAny, kAny,
     "A signal ended the program. Nothing is sent after that.", "Run again. The run sends each incomplete image anew."},

    {255, "Usage: haldenflash", "", kBefore, kBefore, kBefore,
     "No target was named.", "Name `all`, `micro` or `farsight`."},
    {255, kFailed, "Failed open port: 1,", kBefore, kBefore, kBefore,
     "The microcontroller's port did not open, or could not be configured.",
     "Find out who else uses the port. Run again."},
    {255, kFailed, "Failed to enable serial port[1]", kBefore, kBefore, kBefore,
     "The microcontroller's port could not be switched on.", "Run again. If that fails, look at the driver."},
    {255, kFailed, "Failed open port: 0,", kWhole, kBefore, kBefore,
     "The camera's port did not open, or could not be configured.", "Find out who else uses the port. Run again."},
    {255, kFailed, "Failed to enable serial port[0]", kWhole, kBefore, kBefore,
     "The camera's port could not be switched on.", "Run again. If that fails, look at the driver."},
    {255, kFailed, "ERROR reading: farsight", kWhole, kAny, kAny,
     "An image of the camera could not be read.", "Look at the file. Run again."},
    {255, kFailed, "camNumBlocks:0 ", kWhole, kAny, kAny,
     "The camera image was empty, or did not open when its blocks were counted.",
     "If that image was to be sent: provide `farsightcam.bin` and run again. If not: see the rows below."},
    {255, kFailed, "sysNUmBlocks:0 ", kWhole, kAny, kAny,
     "The system image was empty, or did not open when its blocks were counted.",
     "If that image was to be sent: provide `farsightsys.bin` and run again. If not: see the rows below."},
    {255, kFailed, "#### Failed sending the farsight data block", kWhole, kAny, kAny,
     "The camera refused a block, or a block could not be read or sent.",
     "Run again. The run sends each incomplete image anew. If the camera always refuses an image, that image is not "
     "for it."},
    {255, kFailed, "GOT A [NACK] FARSIGHT", kWhole, kAny, kAny,
     "The camera gave no verdict on a block in 4 s, or an unknown one.",
     "Look at the camera's power and cable. Run again. The run sends each incomplete image anew."},
    {255, kFailed, "FarSight FW update with, camNumBlocks", kWhole, kAny, kAny,
     "The blocks were sent. The camera's port could not be switched off.", "Run again."},
    {255, kFailed, "Failed to disable serial port[0]", kWhole, kBefore, kBefore,
     "The camera needed no update, or the run was a query. Its port could not be switched off.", "Run again."},
    {255, kFailed, "########### calling flash_farsight()", kWhole, kBefore, kBefore,
     "The camera did not answer, or one of its files could not be read. No block was sent to it.",
     "The lines before the last one tell which. Provide the files, or look at the camera's power and cable. Run "
     "again."},
    {255, kFailed, "ABORT Micro programming", kAny, kBefore, kBefore,
     "The microcontroller's image could not be read.", "Look at the file. Run again."},
    {255, kFailed, "Flashing Halden Micro Controller Image block", kAny, kBefore, kBefore,
     "A block could not be sent, or the microcontroller's port could not be switched off.",
     "Run again. The run sends the image anew, unless the microcontroller already runs it."},
    {255, kFailed, "Failed to disable serial port[1]", kBefore, kBefore, kBefore,
     "The microcontroller needed no update, or the run was a query. Its port could not be switched off.", "Run again."},
    {255, kFailed, "Could not open Halden Microcontroller BIN file", kBefore, kBefore, kBefore,
     "The microcontroller's image could not be opened a second time. Nothing was sent.", "Run again."},
    {255, kFailed, "", kBefore, kBefore, kBefore,
     "The microcontroller could not be asked, or did not answer completely. No block was sent to it.",
     "Look at its power and cable. Run again."},
};

// Ends without a result line, because standard output was lost. The status still counts.
constexpr RecoveryRow kMuteRows[] = {
    {0, "", "", kWhole, kWhole, kWhole,
     "The host saw no failure. Nothing tells whether the microcontroller gave its verdicts.",
     "Ask with `haldenflash micro q`."},
    {1, "", "", kBefore, kBefore, kBefore,
     "Query. An image differs from what a device runs.", "Run the update."},
    {255, "", "", kAny, kAny, kAny,
     "An update or a query failed.", "Run again, and keep the output."},
};

// The sections of the page, each for one exit status.
constexpr struct {
    int status;
    const char *title;
    const char *last; // the last line where the row does not name it; "": each row names its own
} kSections[] = {
    {0, "Exit status 0: no failure", kSuccess},
    {1, "Exit status 1: an update is required", ""},
    {127, "Exit status 127: not started", ""},
    {134, "Exit status 134: stopped by an assertion", ""},
    {kBySignal, "Any other exit status above 128, except 255: ended by a signal", ""},
    {255, "Exit status 255: a failure", kFailed},
};

// clang-format on

bool Fits(const RecoveryRow &row, int status, const std::string &last, const std::string &output)
{
    if (status != row.status && !(row.status == kBySignal && status > kBySignal && status < 255))
        return false;
    return last.find(row.last) != std::string::npos && output.find(row.reason) != std::string::npos;
}

std::string NamesOf(unsigned held)
{
    if (held == kAny)
        return "anything";
    std::string names;
    const char *between = "";
    for (const auto &[bit, name] : {std::pair{kBefore, "what it held"}, {kPart, "a part"}, {kImage, "the image"}}) {
        if ((held & bit) == 0)
            continue;
        names += between;
        names += name;
        between = " or ";
    }
    return names;
}

std::string Quoted(const char *line)
{
    return std::string("`") + line + "`";
}

// The lines that the trace has to have for a row. usualLast is the last line that the section names.
std::string TraceOf(const RecoveryRow &row, const char *usualLast)
{
    const bool hasReason = row.reason[0] != '\0';
    const bool namesLast = row.last[0] != '\0' && !(hasReason && std::strcmp(row.last, usualLast) == 0);
    if (!hasReason && !namesLast)
        return "anything";
    return (namesLast ? "last line " + Quoted(row.last) : "") + (hasReason && namesLast ? ", and " : "") +
           (hasReason ? Quoted(row.reason) : "");
}

std::string HoldingsOf(const RecoveryRow &row)
{
    const std::string micro = NamesOf(row.micro), camera = NamesOf(row.camera), system = NamesOf(row.system);
    if (micro == camera && camera == system)
        return "each device: " + micro;
    if (camera == system)
        return "microcontroller: " + micro + "; camera: " + camera;
    return "microcontroller: " + micro + "; camera image: " + camera + "; system image: " + system;
}

std::string Line(const RecoveryRow &row, const std::string &trace)
{
    return "| " + trace + " | " + row.meaning + " | " + HoldingsOf(row) + " | " + row.next + " |\n";
}

constexpr char kHead[] = R"(# After a run

This page tells what the devices may hold after each end of `haldenflash`, and what to do next.

1. Go to the section of the exit status.
2. Go down its table. The first row whose line is in the trace applies. The rows below it do not count.
3. Read the exceptions at the end of the page.

A row speaks of the devices that the command line asked for. Any other device holds what it held. Where a row tells of
a failure with the camera, the microcontroller's update had ended without a failure.

- "what it held": what the device held before the run, whole.
- "the image": the image that was to be sent, whole.
- "anything": one of these two, or a part of an image.
)";

constexpr char kTail[] =
    R"(
## Exceptions

The exit status does not show what the microcontroller answers to its blocks. These lines count more than the row above:

| In the trace | Meaning | What the device holds | What to do |
|---|---|---|---|
)" // one row takes several lines here
    "| `GOT A [NACK] FROM HALDEN MICRO CONTROLLER` | The microcontroller did not answer a block in time, or "
    "refused it three times. | microcontroller: anything | Run `haldenflash micro`. It sends the image again if the "
    "version differs. |\n"
    "| a second `Iteration` of a block, or `UNKNOWN RESPONSE FROM FARSIGHT DURING HALDEN MICRO` | The microcontroller "
    "refused a block, or gave an unknown verdict. Bytes of the image are missing, even if the version is the new "
    "one. | microcontroller: anything | Send an image of another version first. |\n"
    R"(
A disturbed line may double a reply. The trace need not show that. The host takes the second copy for the verdict on the
next block, and all later verdicts are one block late. The host then never reads a refusal of the last block, and the
status is 0. `haldenflash all q` tells which versions the devices run.

Devices like those of the bench answer the next run, whatever part of an image they hold. That run sends them the whole
image again.

`./do faults` compares the end of each run of its sweeps with these tables. `haldenfaults --recovery` prints this page.
)";

} // namespace

const RecoveryRow *FindRecovery(int status, const std::string &output, bool mute)
{
    const std::string last = LastLine(output);
    for (const RecoveryRow &row : kRows)
        if (Fits(row, status, last, output))
            return &row;
    for (const RecoveryRow &row : kMuteRows)
        if (mute && Fits(row, status, last, output))
            return &row;
    return nullptr;
}

bool NoVerdict(const std::string &output)
{
    return output.find(kNoVerdict) != std::string::npos;
}

bool Endless(const std::string &output)
{
    constexpr int kMany = 20;
    int count = 0;
    for (std::size_t at = 0; (at = output.find(kUnknownVerdict, at)) != std::string::npos; at++)
        count++;
    return count >= kMany;
}

const char *NameOf(Held held)
{
    switch (held) {
    case kBefore:
        return "before";
    case kPart:
        return "part";
    case kImage:
        return "image";
    case kNotAsked:
        break;
    }
    return "-";
}

std::string RecoveryPage()
{
    std::string page = kHead;
    for (const auto &section : kSections) {
        page += std::string("\n## ") + section.title + "\n\n";
        if (section.last[0] != '\0')
            page += "The last line is " + Quoted(section.last) + " where the row names none.\n\n";
        page += "| In the trace | Meaning | What the devices hold | What to do |\n|---|---|---|---|\n";
        for (const RecoveryRow &row : kRows)
            if (row.status == section.status)
                page += Line(row, TraceOf(row, section.last));
        for (const RecoveryRow &row : kMuteRows)
            if (row.status == section.status)
                page += Line(row, "no result line: standard output was lost");
    }
    return page + kTail;
}

} // namespace bench
