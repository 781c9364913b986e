// Update of the FarSight camera on serial port 0: the camera image "farsightcam.bin" and the system image
// "farsightsys.bin", with their versions in "farsightcamver" and "farsightsysver".
// Everything runs on the caller's thread; port and images are released on every way out.
// A null record, block, count or list of arguments is a programming error and stops the program.
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

// Brings the camera to its images where versions differ. argc and argv are printed. Returns 0 (done, not needed, or
// query only) or -1.
int flash_farsight(int argc, char *const argv[]);

// The exchange with the camera on the open port.
// kNoError            done, not needed, or query only.
// kFileOpenError      an image did not open, or a version file could not be opened or read. No block was sent.
// kFuncReturnedError  anything else, a refused block included. The camera may hold a part of its images.
eErrorT HaldenSerialProgFarSight(CONTROLLER_FLASH_TYPE flashType);

// Counts the blocks of the images; one that does not open counts 0. Returns kNoError, kBadParameter for an unknown
// type, or kFuncReturnedError when an image cannot be read.
eErrorT GetFarSightCameraImageBlockNumber(CameraFirmwareTypeT imageType, Int32 *camNumBlock, Int32 *sysNumBlock);

// Moves to the next block or counts a retry, as the verdict says, camera image first. The verdict on the last camera
// block also moves the system image to its first. Returns kNoError.
eErrorT SetupNextFarSightDataBlock(FarSightUpdateInfoS *updateInfo, UInt8 AckNack);

// Sends the current block and closes an image whose last block is done. Returns kNoError, or the failure with the image
// closed.
eErrorT SendNextFarSightDataBlock(FarSightUpdateInfoS *updateInfo);

// Sends one block: two bytes of number, high byte first, and the data. flashType 1: camera image, 2: system image.
// Returns kNoError, kBadParameter (no data, or another flash type) or kFuncReturnedError.
eErrorT sendFarSightFlashDataBlock(const UInt8 *msgPtr, Int32 msgSize, CONTROLLER_FLASH_TYPE flashType);
