// The calls of both updates that main makes in one way only.
#include "devlib/haldenflash/farsightupdate.h"
#include "devlib/haldenflash/haldenflash.h"
#include "devlib/haldenflash/image.h"
#include "devlib/haldenflash/microupdate.h"
#include "devlib/haldenflash/updateport.h"
#include "tests/folders.h"

#include <fcntl.h>

Boolean gbQueryOnly, gbUpdateRequired; // which main has otherwise
void PrintArguments(int, char *const[]) {}

namespace
{

TEST(Updates, AnswerCallersOtherThanMain)
{
    const ConfigFolders folders;
    folders.Put("work/farsightcam.bin", std::string(600000, 'c'));
    Int32 number = 0, none = 0;
    const UInt8 block[2] = {1, 2};
    const int folder = open("/", O_RDONLY); // opens, and cannot be read
    HaldenMicroUpdateInfoS micro = {folder, 0, 12, 3}, done = {kNoImage, 12, 12, 3};
    FarSightUpdateInfoS camera = {dup(folder), 0, 1, 3, kNoImage, 0, 0, 3};
    const auto count = [&](CameraFirmwareTypeT type) {
        return GetFarSightCameraImageBlockNumber(type, &number, &none);
    };
    UInt8 filled[3] = {9, 9, 9};
    EXPECT_EQ(FillBlock(filled, 0x102, 1, folder, "", ""), -1);
    EXPECT_EQ(filled[0] * 100 + filled[1] * 10 + filled[2], 120);
    testing::internal::CaptureStdout();
    EXPECT_EQ(count(CAMERA_FW_TYPE_CAMERA), kNoError);
    EXPECT_EQ(number, 10);
    EXPECT_EQ(count(CAMERA_FW_TYPE_SYSTEM), kNoError);
    EXPECT_EQ(number + none, 0);
    EXPECT_EQ(count(CAMERA_FW_TYPE_UNKNOWN), kBadParameter);
    EXPECT_EQ(sendFarSightFlashDataBlock(block, 2, CONTROLLER_FLASH_TYPE_HALDENMICRO), kBadParameter);
    EXPECT_EQ(SendNextFarSightDataBlock(&camera), kFuncReturnedError);
    EXPECT_EQ(SendNextMicroDataBlock(&micro), kFuncReturnedError);
    EXPECT_EQ(camera.farsight_cam_file + micro.micro_file, 2 * kNoImage);
    EXPECT_EQ(HaldenSerialProgMicro(CONTROLLER_FLASH_TYPE_HALDENMICRO), kFileOpenError);
    EXPECT_EQ(SetupNextMicroDataBlock(&done, kBlockAck) + done.currentBlock, 12);         // there is no image
    EXPECT_EQ(SendNextMicroDataBlock(&done) + SendNextMicroDataBlock(&done), kEndOfFile); // and nothing more
    EXPECT_EQ(ReleaseUpdatePort(1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "GetFarSightCameraImageBlockNumber()...\n[farsightcam.bin] image size: 600000 ...\n"
              "GetFarSightCameraImageBlockNumber()...\n"
              "GetFarSightCameraImageBlockNumber()...\nInvalid FarSight Camera Image[255] ...\n"
              "sending dataBlockNumber: 258 -- msgSize:2 ...\n"
              "Error, sendFarSightFlashDataBlock() -- Wrong flashType:0 ...\nbytes read: -1 ...\n\n"
              "Reading 64512 bytes from file: farsightcam.bin failed, err: -1, ABORT FarSight camera image "
              "programming....\nbytes read: -1 ...\n\nReading 512 bytes from Micro program file: haldenmicro.bin "
              "failed, err: -1, ABORT Micro programming....\n\n"
              "Could not open Halden Microcontroller BIN file: haldenmicro.bin, Exit programming...\n"
              "SERIALAPI: In CLOSE, Port: 1 Mutex lock failed, err: 9\n"
              "ERROR: flash_micro() -- Failed close port: 1, err: -23\n");
}

} // namespace
