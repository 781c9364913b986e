// The two devices and their three images, one row each. A device's row has what all its images share. The two devices
// differ only where they want it so, and the comment at the field has the reason. transfer.h sends an image by its row.
// Each device tells its versions in its own way, so the versions are in microupdate and farsightupdate.
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

// When the trace names the file that is being sent. Programs that search traces know each device's way.
enum class WorkingLine {
    kEachVerdict, // before the verdict is looked at
    kEachBlock,   // when a block was accepted, with the number of the next one
};

// The lines of a row are functions. So each line is whole in the sources, and the compiler checks its conversions.
struct DeviceRow {
    const Boolean *wanted; // whether the command line asks for it
    int port;
    Int32 blockSize;   // bytes; what the device programs at once
    Int32 fixedBlocks; // deliberate: number of blocks, whatever the size of the image; 0: as many as the image has
    Int32 verdictTime; // microseconds; the camera programs a block before it answers
    AfterRefusal refused;
    eErrorT silence; // the result if no verdict comes; supervisors know the microcontroller's silence as a success
    eErrorT allSent; // the result behind the last block; kNoError goes on, because the camera has a second image
    WorkingLine working;
    void (*printVerdict)(const UInt8 *reply, Int32 count); // the camera's bytes too; programs search traces for them
    // The camera's line names the status request. Programs that search traces know it so.
    void (*printShortWrite)(Int32 block, Int32 sent, Int32 size);
};

struct ImageRow {
    const DeviceRow &device;
    const char *file;
    Int32 progressCtrlT::*fileSize; // its part of the work
    KORA_HALDEN_MESAGE_TYPE messageType;
    void (*printBlock)(Int32 block, Int32 iteration);
    void (*printWorking)(const char *file, Int32 nextBlock);
    void (*printUnknownVerdict)(UInt8 verdict); // names the camera, whatever the device
    void (*printReadError)(const ImageRow &row, Int32 err);
};

extern const DeviceRow kMicroDevice;
extern const DeviceRow kCameraDevice;
extern const ImageRow kImages[3];

// Prints that a status request was written short.
void PrintShortStatusRequest(Int32 sent, Int32 size);
