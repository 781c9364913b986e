#include "bench/sweeps/recovery.h"

#include "bench/text.h"

namespace bench
{

namespace
{

constexpr int kBySignal = 128; // any status above it
constexpr unsigned kWhole = kBefore | kImage;
constexpr unsigned kAny = kBefore | kPart | kImage;

constexpr char kSuccess[] = "#######[SUCCESSFULLY] HALDEN FLASH UPDATE";
constexpr char kFailed[] = "#######[FAILED] HALDEN FLASH UPDATE";
constexpr char kUnknownVerdict[] = "UNKNOWN RESPONSE FROM FARSIGHT DURING";
constexpr char kNoVerdict[] = "GOT A [NACK] FROM HALDEN MICRO CONTROLLER";

// clang-format off

// The first row that fits counts, so that the special stands above the general.
constexpr RecoveryRow kRows[] = {
    {0, kSuccess, "Could not open Halden Microcontroller BIN file", kBefore, kWhole, kWhole,
     "There was no image for the microcontroller, or it could not be opened.",
     "If the microcontroller was to be updated, provide `haldenmicro.bin` and run again."},
    {0, kSuccess, "Failed reading the version of Halden Microcontroller BIN file", kBefore, kWhole, kWhole,
     "The microcontroller's image is empty, begins with the version 0, or could not be read.",
     "If the microcontroller was to be updated, provide another `haldenmicro.bin` and run again."},
    {0, kSuccess, "", kWhole, kWhole, kWhole,
     "The devices that were asked for hold their images, or gave the images' versions for theirs.", "Nothing."},
    {0, "########## NO Halden Image(s) Update Required", "Could not open Halden Microcontroller BIN file", kBefore,
     kBefore, kBefore, "Query: there is no image for the microcontroller, so that nothing is known of it.",
     "Provide `haldenmicro.bin` and ask again."},
    {0, "########## NO Halden Image(s) Update Required", "", kBefore, kBefore, kBefore,
     "Query: the devices are up to date.", "Nothing."},
    {1, "########## Halden Image(s) Update Required", "", kBefore, kBefore, kBefore,
     "Query: an image differs from what a device runs.", "Run the update."},
    {255, "Usage: haldenflash", "", kBefore, kBefore, kBefore,
     "No target was named.", "Name `all`, `micro` or `farsight`."},

    {255, kFailed, "Failed open port: 1,", kBefore, kBefore, kBefore,
     "The microcontroller's port did not open, or could not be configured.", "Look for who else uses the port; run again."},
    {255, kFailed, "Failed to enable serial port[1]", kBefore, kBefore, kBefore,
     "The microcontroller's port could not be switched on.", "Run again; then look at the driver."},
    {255, kFailed, "Failed open port: 0,", kWhole, kBefore, kBefore,
     "The camera's port did not open, or could not be configured.", "Look for who else uses the port; run again."},
    {255, kFailed, "Failed to enable serial port[0]", kWhole, kBefore, kBefore,
     "The camera's port could not be switched on.", "Run again; then look at the driver."},
    {255, kFailed, "ERROR reading: farsight", kWhole, kAny, kAny,
     "An image of the camera could not be read.", "Look at the file; run again."},
    {255, kFailed, "camNumBlocks:0 ", kWhole, kAny, kAny,
     "The camera image was empty, or could not be opened when its blocks were counted.",
     "Provide `farsightcam.bin`, if that image was to be sent, and run again; if not, see the rows below."},
    {255, kFailed, "sysNUmBlocks:0 ", kWhole, kAny, kAny,
     "The system image was empty, or could not be opened when its blocks were counted.",
     "Provide `farsightsys.bin`, if that image was to be sent, and run again; if not, see the rows below."},
    {255, kFailed, "#### Failed sending the farsight data block", kWhole, kAny, kAny,
     "The camera refused a block, or a block could not be read or sent.",
     "Run again: what is not whole is sent anew. An image that the camera always refuses is not for it."},
    {255, kFailed, "GOT A [NACK] FARSIGHT", kWhole, kAny, kAny,
     "The camera gave no verdict on a block in 4 s, or an unknown one.",
     "Look at the camera's power and cable; run again: what is not whole is sent anew."},
    {255, kFailed, "FarSight FW update with, camNumBlocks", kWhole, kAny, kAny,
     "The blocks were sent; the camera's port could not be switched off.", "Run again."},
    {255, kFailed, "Failed to disable serial port[0]", kWhole, kBefore, kBefore,
     "The camera needed no update, or was only asked; its port could not be switched off.", "Run again."},
    {255, kFailed, "########### calling flash_farsight()", kWhole, kBefore, kBefore,
     "The camera did not answer, or a file of it could not be read; it was sent no block.",
     "The lines before the last tell which: provide the files, or look at the camera's power and cable; run again."},
    {255, kFailed, "ABORT Micro programming", kAny, kBefore, kBefore,
     "The microcontroller's image could not be read.", "Look at the file; run again."},
    {255, kFailed, "Flashing Halden Micro Controller Image block", kAny, kBefore, kBefore,
     "A block could not be sent, or the microcontroller's port could not be switched off.",
     "Run again: the image is sent anew unless the microcontroller already runs it."},
    {255, kFailed, "Failed to disable serial port[1]", kBefore, kBefore, kBefore,
     "The microcontroller needed no update, or was only asked; its port could not be switched off.", "Run again."},
    {255, kFailed, "Could not open Halden Microcontroller BIN file", kBefore, kBefore, kBefore,
     "The microcontroller's image could not be opened a second time; nothing was sent.", "Run again."},
    {255, kFailed, "", kBefore, kBefore, kBefore,
     "The microcontroller could not be asked, or did not answer completely; it was sent no block.",
     "Look at its power and cable; run again."},

    {127, "", "", kBefore, kBefore, kBefore,
     "The program could not be loaded.", "Install it again, with the libraries that it needs; run again."},
    {134, "", "", kBefore, kBefore, kBefore,
     "An assertion stopped the program before anything was sent. It is on standard error; on a board other than KORA "
     "it is the missing configuration folder.", "Mend what it names; run again."},
    {kBySignal, "", "", kAny, kAny, kAny,
     "A signal ended the program, which sends nothing more.", "Run again: what is not whole is sent anew."},
};

// Ends whose result line got lost with standard output: the status holds.
constexpr RecoveryRow kMuteRows[] = {
    {0, "", "", kWhole, kWhole, kWhole,
     "Standard output was lost: the host saw no failure, but nothing tells whether the microcontroller gave its verdicts.",
     "Ask with `haldenflash micro q`."},
    {1, "", "", kBefore, kBefore, kBefore,
     "Standard output was lost; the status holds: an image differs.", "Run the update."},
    {255, "", "", kAny, kAny, kAny,
     "Standard output was lost; the status holds: an update failed.", "Run again, with its output kept."},
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

std::string Line(const RecoveryRow &row)
{
    std::string end = row.status == kBySignal ? "above 128" : std::to_string(row.status);
    if (row.last[0] != '\0')
        end += std::string(", `") + row.last + "`";
    const std::string reason = row.reason[0] == '\0' ? "" : std::string("`") + row.reason + "`";
    return "| " + end + " | " + reason + " | " + row.meaning + " | " + NamesOf(row.micro) + " | " +
           NamesOf(row.camera) + " | " + NamesOf(row.system) + " | " + row.next + " |\n";
}

constexpr char kHead[] =
    "# After a run\n"
    "\n"
    "What each end of `haldenflash` says, what each device may hold then if it was asked for, and what to do. The\n"
    "first row counts whose status, last line and line of the trace are there; the microcontroller is done where a "
    "row\n"
    "speaks of the camera. `./do faults` holds the end of each run of its sweeps against this table;\n"
    "`haldenfaults --recovery` prints this page.\n"
    "\n"
    "Whatever the row says: after the line `GOT A [NACK] FROM HALDEN MICRO CONTROLLER` the microcontroller may hold\n"
    "anything, because its silence, its third refusal, a block that it refused once and a verdict that is neither all\n"
    "leave the status as it is. `haldenflash micro` sends the image again if the version differs. If the trace has a\n"
    "second `Iteration` of a block, or `UNKNOWN RESPONSE FROM FARSIGHT DURING HALDEN MICRO`, bytes are missing even "
    "if\n"
    "the version is the new one: send an image of another version first.\n"
    "\n"
    "A verdict too many, as a reply that the line doubles, need not show in the trace: it is taken for the one on\n"
    "the next block, and so are all that follow. A refusal of the last block is then never read, and the status is\n"
    "0 all the same; `haldenflash all q` tells.\n"
    "\n"
    "Devices like those of the bench answer the next run whatever they hold of an image, and are sent all of it "
    "again.\n"
    "\n"
    "| Exit status, last line | In the trace | Meaning | Microcontroller | Camera image | System image | What to do |\n"
    "|---|---|---|---|---|---|---|\n";

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
    for (const RecoveryRow &row : kRows)
        page += Line(row);
    for (const RecoveryRow &row : kMuteRows)
        page += Line(row);
    return page;
}

} // namespace bench
