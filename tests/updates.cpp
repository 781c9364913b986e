// The calls of both updates that main makes in one way only.
#include "devlib/haldenflash/farsightupdate.h"
#include "devlib/haldenflash/haldenflash.h"
#include "devlib/haldenflash/image.h"
#include "devlib/haldenflash/microupdate.h"
#include "devlib/haldenflash/updateport.h"
#include "tests/folders.h"

#include <cstring>

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
    const auto folder = [] { return OpenImage("/"); }; // opens, and cannot be read
    HaldenMicroUpdateInfoS micro = {folder(), 0, 12, 3}, done = {nullptr, 12, 12, 3};
    FarSightUpdateInfoS camera = {folder(), 0, 1, 3, nullptr, 0, 0, 3};
    const auto count = [&](CameraFirmwareTypeT type) {
        return GetFarSightCameraImageBlockNumber(type, &number, &none);
    };
    UInt8 filled[3] = {9, 9, 9};
    EXPECT_EQ(FillBlock(filled, 0x102, 1, micro.micro_file, "", ""), -1);
    EXPECT_EQ(filled[0], 1);
    EXPECT_EQ(filled[1], 2);
    EXPECT_EQ(filled[2], 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(count(CAMERA_FW_TYPE_CAMERA), kNoError);
    EXPECT_EQ(number, 10);
    EXPECT_EQ(count(CAMERA_FW_TYPE_SYSTEM), kNoError);
    EXPECT_EQ(number, 0);
    EXPECT_EQ(none, 0);
    EXPECT_EQ(count(CAMERA_FW_TYPE_UNKNOWN), kBadParameter);
    EXPECT_EQ(sendFarSightFlashDataBlock(block, 2, CONTROLLER_FLASH_TYPE_HALDENMICRO), kBadParameter);
    EXPECT_EQ(SendNextFarSightDataBlock(&camera), kFuncReturnedError);
    EXPECT_EQ(SendNextMicroDataBlock(&micro), kFuncReturnedError);
    EXPECT_EQ(camera.farsight_cam_file, nullptr);
    EXPECT_EQ(micro.micro_file, nullptr);
    EXPECT_EQ(HaldenSerialProgMicro(CONTROLLER_FLASH_TYPE_HALDENMICRO), kFileOpenError);
    EXPECT_EQ(SetupNextMicroDataBlock(&done, kBlockAck), kNoError); // there is no image
    EXPECT_EQ(done.currentBlock, 12);
    EXPECT_EQ(SendNextMicroDataBlock(&done), kEndOfFile);
    EXPECT_EQ(SendNextMicroDataBlock(&done), kNoError); // nothing more
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

TEST(Updates, TakeAZeroedRecordForNoImage)
{
    HaldenMicroUpdateInfoS micro = {};
    FarSightUpdateInfoS camera;
    std::memset(&camera, 0, sizeof camera);
    micro.totalBlock = camera.totalCamBlock = camera.totalSysBlock = 1;
    micro.BlockRetries = camera.camBlockRetries = camera.sysBlockRetries = 3;
    gMicroUpdateInfo.BlockRetries = 3;
    gMicroUpdateInfo.totalBlock = 1;
    testing::internal::CaptureStdout();
    for (HaldenMicroUpdateInfoS *info : {&micro, &gMicroUpdateInfo}) {
        EXPECT_EQ(SetupNextMicroDataBlock(info, kBlockAck), kNoError);
        EXPECT_EQ(SendNextMicroDataBlock(info), kNoError);
    }
    EXPECT_EQ(SetupNextFarSightDataBlock(&camera, kBlockAck), kNoError);
    EXPECT_EQ(SendNextFarSightDataBlock(&camera), kNoError);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(Updates, StopOnANullArgument)
{
    Int32 number = 0;
    UInt8 byte = 0;
    FILE *none = nullptr;
    EXPECT_DEATH(flash_micro(1, nullptr), "failed: argv,");
    EXPECT_DEATH(flash_farsight(1, nullptr), "failed: argv,");
    EXPECT_DEATH(SetupNextMicroDataBlock(nullptr, kBlockAck), "failed: updateInfo,");
    EXPECT_DEATH(SendNextMicroDataBlock(nullptr), "failed: updateInfo,");
    EXPECT_DEATH(sendMicroFlashDataBlock(nullptr, 2), "failed: msgPtr,");
    EXPECT_DEATH(SetupNextFarSightDataBlock(nullptr, kBlockAck), "failed: updateInfo,");
    EXPECT_DEATH(SendNextFarSightDataBlock(nullptr), "failed: updateInfo,");
    EXPECT_DEATH(sendFarSightFlashDataBlock(nullptr, 2, CONTROLLER_FLASH_TYPE_FARSIGT_CAMERA_FW), "failed: msgPtr,");
    EXPECT_DEATH(GetFarSightCameraImageBlockNumber(CAMERA_FW_TYPE_ALL, nullptr, &number), "failed: camNumBlock,");
    EXPECT_DEATH(GetFarSightCameraImageBlockNumber(CAMERA_FW_TYPE_ALL, &number, nullptr), "failed: sysNumBlock,");
    EXPECT_DEATH(OpenImage(nullptr), "failed: name,");
    EXPECT_DEATH(ReadBytes(nullptr, &byte, 1), "failed: file,");
    EXPECT_DEATH(ReadImage(stdin, nullptr, 1), "failed: buffer,");
    EXPECT_DEATH(FillBlock(nullptr, 0, 1, stdin, "", ""), "failed: block,");
    EXPECT_DEATH(CloseImage(nullptr), "failed: image,");
    EXPECT_EQ(CloseImage(&none), 1u);
}

} // namespace
