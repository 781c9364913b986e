// The three images, one row each, with all that tells their devices apart. Where two rows differ, the device wants it
// so: the comment at the cell has the reason. transfer.h sends an image by its row. The versions of an image, which
// each device tells in its own way, are the affair of microupdate and farsightupdate.
#pragma once

#include "devlib/haldenflash/messages.h"
#include "softupdate/progressctrl/progressctrl.h"

// What to flash. The first three are positions in kImages.
enum CONTROLLER_FLASH_TYPE : Int32 {
    CONTROLLER_FLASH_TYPE_HALDENMICRO = 0,
    CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_FW = 1,
    CONTROLLER_FLASH_TYPE_FARSIGT_SYSTEM_FW = 2,
    CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_SYSTEM_FW = 3,
    CONTROLLER_FLASH_TYPE_UNKNOWN = 255,
};

// What follows the refusal of a block. Its data is never sent again.
enum class AfterRefusal {
    kEmptyFrame, // the device gives its next verdict on an empty frame
    kEnd,        // there is no empty frame for this device, so the update fails
};

// When the trace names the file that is being sent.
enum class WorkingLine {
    kEachVerdict, // before the verdict is looked at
    kEachBlock,   // when a block was accepted, with the number of the next one
};

// Printing is part of a row as words, or as a function where the conversions differ.
struct ImageRow {
    const char *file;
    const Boolean *wanted;          // whether the command line asks for it
    Int32 progressCtrlT::*fileSize; // its part of the work
    int port;
    KORA_HALDEN_MESAGE_TYPE messageType;
    Int32 blockSize;   // bytes; what the device programs at once
    Int32 fixedBlocks; // how many are sent, whatever the size of the image; 0: as many as it has
    Int32 verdictTime; // microseconds; the camera programs a block before it answers
    AfterRefusal refused;
    eErrorT silence; // the result if no verdict comes; for the microcontroller supervisors know it as a success
    eErrorT allSent; // the result behind the last block; behind the camera image comes the system image
    WorkingLine working;
    bool listsVerdict; // each byte of a verdict is printed
    // The words of this row, with the place in a line that they have.
    const char *name;     // "Still working on ... file"
    const char *title;    // "Flashing ... Image block"
    const char *capitals; // "DURING ... IMAGE FLASHING"; that line names the camera, whatever the device
    const char *answers;  // "GOT A [ACK] ... -- byteRead"
    const char *readFrom; // "bytes from ...file"
    const char *aborted;  // "ABORT ... programming"
    // A short write. The camera's line names the status request; who searches traces knows it so.
    void (*printShortWrite)(Int32 block, Int32 sent, Int32 size);
};

extern const ImageRow kImages[3];

// Prints that a status request was written short.
void PrintShortStatusRequest(Int32 sent, Int32 size);
