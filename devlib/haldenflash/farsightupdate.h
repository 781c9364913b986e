// Update of the FarSight camera on serial port 0. It has two images: the camera image "farsightcam.bin" and the system
// image "farsightsys.bin". Their versions are in "farsightcamver" and "farsightsysver".
// Owner:   the port and the images are released on every way out.
// Locking: the update has no lock. It runs on the caller's thread, one at a time.
// Errors:  a null record, block, count or list of arguments is a programming error and stops the program.
#pragma once

#include "Common/types.h"
#include "devlib/haldenflash/imagetable.h"

#include <cstdio>

struct FarSightUpdateInfoS {
    FILE *farsight_cam_file; // the open image; null: not sent, or done
    Int32 currentCamBlock;
    Int32 totalCamBlock;
    Int32 camBlockRetries; // 3 for a fresh block, one less after each refusal
    FILE *farsight_sys_file;
    Int32 currentSysBlock;
    Int32 totalSysBlock;
    Int32 sysBlockRetries;
};

extern FarSightUpdateInfoS gFarsightUpdateInfo;

enum CameraFirmwareTypeT : Int32 {
    CAMERA_FW_TYPE_CAMERA = 0,
    CAMERA_FW_TYPE_SYSTEM = 1,
    CAMERA_FW_TYPE_ALL = 2,
    CAMERA_FW_TYPE_UNKNOWN = 255,
};

// Brings the camera to those of its images whose versions differ. argc and argv are printed.
// 0   the update is done or was not needed, or only a query was asked for.
// -1  the update failed. The camera may hold a part of its images.
int flash_farsight(int argc, char *const argv[]);

// The exchange with the camera on the open port.
// kNoError            the update is done or was not needed, or only a query was asked for.
// kFileOpenError      an image did not open, or a version file could not be opened or read. No block was sent.
// kFuncReturnedError  any other failure, such as a refused block. The camera may hold a part of its images.
eErrorT HaldenSerialProgFarSight(CONTROLLER_FLASH_TYPE flashType);

// Counts the blocks of one image or of both. The count of the other image is 0.
// kNoError            counted. An image that does not open has 0 blocks.
// kBadParameter       the type is unknown. Both counts are 0.
// kFuncReturnedError  an image cannot be read. Its count is 0, and so is the count of an image behind it.
eErrorT GetFarSightCameraImageBlockNumber(CameraFirmwareTypeT imageType, Int32 *camNumBlock, Int32 *sysNumBlock);

// Moves to the next block or counts a retry, as the verdict says. The camera image comes first. The verdict on its last
// block also moves the system image to its first block. Always returns kNoError.
eErrorT SetupNextFarSightDataBlock(FarSightUpdateInfoS *updateInfo, UInt8 AckNack);

// Sends the current block, and closes an image whose last block is done.
// kNoError            sent. Or there is nothing to send: the retries are used up, or no image is open.
// kFuncReturnedError  the block was not read or not sent. Its image is closed.
eErrorT SendNextFarSightDataBlock(FarSightUpdateInfoS *updateInfo);

// Sends one block: two bytes of number, high byte first, and the data. flashType is 1 for the camera image and 2 for
// the system image.
// kNoError            sent.
// kBadParameter       there is no data, or the flash type is another one. Nothing was sent.
// kFuncReturnedError  the write was short or failed. The camera may have got a part of the frame.
eErrorT sendFarSightFlashDataBlock(const UInt8 *msgPtr, Int32 msgSize, CONTROLLER_FLASH_TYPE flashType);
