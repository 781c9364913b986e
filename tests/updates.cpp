// What the calls of both updates promise to callers that the program does not have, and the small pieces they share.
#include "bench/standin/folders.h"
#include "devlib/haldenflash/delay.h"
#include "devlib/haldenflash/farsightupdate.h"
#include "devlib/haldenflash/hextext.h"
#include "devlib/haldenflash/imagefile.h"
#include "devlib/haldenflash/microupdate.h"
#include "devlib/haldenflash/updateport.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

namespace
{

// What a call prints, which gives that result.
std::string Printed(int result, const std::function<int()> &call)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(result, call());
    return testing::internal::GetCapturedStdout();
}

// Opens, and cannot be read.
FILE *Folder()
{
    return OpenImage("/");
}

TEST(Updates, CountTheBlocksOfTheImagesThatTheyAreAskedFor)
{
    const ConfigFolders folders;
    folders.Put("work/farsightcam.bin", std::string(600000, 'c'));
    Int32 camera = 7, system = 7;
    const auto count = [&](int type) {
        return [&, type] {
            return GetFarSightCameraImageBlockNumber(static_cast<CameraFirmwareTypeT>(type), &camera, &system);
        };
    };
    EXPECT_EQ(Printed(kNoError, count(CAMERA_FW_TYPE_CAMERA)),
              "GetFarSightCameraImageBlockNumber()...\n[farsightcam.bin] image size: 600000 ...\n");
    EXPECT_EQ(camera, 10);
    EXPECT_EQ(system, 0);
    EXPECT_EQ(Printed(kNoError, count(CAMERA_FW_TYPE_SYSTEM)), "GetFarSightCameraImageBlockNumber()...\n");
    EXPECT_EQ(camera, 0);
    EXPECT_EQ(Printed(kBadParameter, count(CAMERA_FW_TYPE_UNKNOWN)),
              "GetFarSightCameraImageBlockNumber()...\nInvalid FarSight Camera Image[255] ...\n");
}

TEST(Updates, CloseAnImageThatCannotBeRead)
{
    FarSightUpdateInfoS camera = {Folder(), 0, 1, 3, Folder(), 0, 1, 3};
    for (const std::string image : {"camera", "system"})
        EXPECT_EQ(Printed(kFuncReturnedError, [&] { return SendNextFarSightDataBlock(&camera); }),
                  "bytes read: -1 ...\n\nReading 64512 bytes from file: farsight" + image.substr(0, 3) +
                      ".bin failed, err: -1, ABORT FarSight " + image + " image programming....\n");
    EXPECT_EQ(camera.farsight_cam_file, nullptr);
    HaldenMicroUpdateInfoS micro = {Folder(), 0, 12, 3};
    EXPECT_EQ(Printed(kFuncReturnedError, [&] { return SendNextMicroDataBlock(&micro); }),
              "bytes read: -1 ...\n\nReading 512 bytes from Micro program file: haldenmicro.bin failed, err: -1, "
              "ABORT Micro programming....\n");
    EXPECT_EQ(micro.micro_file, nullptr);
}

TEST(Updates, TellTheNumberOfABlockThatIsNotSent)
{
    const UInt8 block[2] = {1, 2};
    EXPECT_EQ(
        Printed(kBadParameter, [&] { return sendFarSightFlashDataBlock(block, 2, CONTROLLER_FLASH_TYPE_HALDENMICRO); }),
        "sending dataBlockNumber: 258 -- msgSize:2 ...\n"
        "Error, sendFarSightFlashDataBlock() -- Wrong flashType:0 ...\n");
    EXPECT_EQ(Printed(kBadParameter,
                      [&] { return sendFarSightFlashDataBlock(block, 0, CONTROLLER_FLASH_TYPE_FARSIGT_SYSTEM_FW); }),
              "########### zero size data block ....\n");
    HaldenMicroUpdateInfoS micro = {OpenImage("/dev/null"), 0x102, 0x103, 3}; // nothing is left of the image
    EXPECT_NE(fcntl(fileno(micro.micro_file), F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(Printed(kFuncReturnedError, [&] { return SendNextMicroDataBlock(&micro); }),
              "bytes read: 0 ...\n\nLast block read_cnt: 0 of file: haldenmicro.bin \n"
              "Flashing Halden Micro Controller Image block[258] Iteration[1] ...\n"
              "sending dataBlockNumber: 258 -- msgSize:2 ...\n"
              "#### genericWriteRs232Port() with ERROR: Actual written [-25 bytes] -- Request written [11 bytes] ...\n"
              "sendMicroFlashDataBlock() -- failure sending flash data block[258] from Kora to Halden ...sentBytes = "
              "-25 -- NewMsgSize = 11\n");
}

TEST(Updates, AnnounceAnEmptyFrameWithTheNumberOfTheSameDevicesBlock)
{
    FarSightUpdateInfoS camera = {OpenImage("/dev/null"), 0x102, 0x103, 3, nullptr, 0, 0, 3};
    Printed(kFuncReturnedError, [&] { return SendNextFarSightDataBlock(&camera); });
    HaldenMicroUpdateInfoS micro = {OpenImage("/dev/null"), 0, 12, 2};
    const std::string retry = Printed(kFuncReturnedError, [&] { return SendNextMicroDataBlock(&micro); });
    EXPECT_NE(retry.find("\nsending dataBlockNumber: 0 -- msgSize:0 ...\n"), std::string::npos) << retry;
}

TEST(Updates, SayOnceThatTheMicrocontrollersImageIsDone)
{
    HaldenMicroUpdateInfoS done = {nullptr, 12, 12, 3};
    EXPECT_EQ(SetupNextMicroDataBlock(&done, kBlockAck), kNoError); // there is no image
    EXPECT_EQ(done.currentBlock, 12);
    EXPECT_EQ(SendNextMicroDataBlock(&done), kEndOfFile);
    EXPECT_EQ(SendNextMicroDataBlock(&done), kNoError);
}

TEST(Updates, FailWithoutAnImageOrAPort)
{
    const ConfigFolders empty;
    EXPECT_EQ(Printed(kFileOpenError, [] { return HaldenSerialProgMicro(CONTROLLER_FLASH_TYPE_HALDENMICRO); }),
              "\nCould not open Halden Microcontroller BIN file: haldenmicro.bin, Exit programming...\n");
    EXPECT_EQ(Printed(-1, [] { return ReleaseUpdatePort(1); }),
              "SERIALAPI: In CLOSE, Port: 1 Mutex lock failed, err: 9\n"
              "ERROR: flash_micro() -- Failed close port: 1, err: -23\n");
}

TEST(Updates, TakeAZeroedRecordForNoImage)
{
    HaldenMicroUpdateInfoS micro = {};
    FarSightUpdateInfoS camera = {};
    micro.totalBlock = camera.totalCamBlock = camera.totalSysBlock = 1;
    micro.BlockRetries = camera.camBlockRetries = camera.sysBlockRetries = 3;
    EXPECT_EQ(Printed(kNoError, [&] { return SetupNextMicroDataBlock(&micro, kBlockAck); }), "");
    EXPECT_EQ(Printed(kNoError, [&] { return SendNextMicroDataBlock(&micro); }), "");
    EXPECT_EQ(Printed(kNoError, [&] { return SetupNextFarSightDataBlock(&camera, kBlockAck); }), "");
    EXPECT_EQ(Printed(kNoError, [&] { return SendNextFarSightDataBlock(&camera); }), "");
}

TEST(Updates, StopOnAnArgumentThatCannotBe)
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
    EXPECT_DEATH(CloseImage(nullptr), "failed: image,");
    EXPECT_DEATH(axxtoi(nullptr), "failed: hexStg,");
    EXPECT_DEATH(Delay(-1), "failed: delay_usecs >= 0,");
    EXPECT_EQ(CloseImage(&none), 1u);
}

TEST(Images, AreReadOnAfterAnInterruption)
{
    static int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    struct sigaction action = {}; // a read that it interrupts does not start again by itself
    action.sa_handler = [](int) { EXPECT_EQ(write(pipeEnds[1], "late", 4), 4); };
    sigaction(SIGALRM, &action, nullptr);
    FILE *image = fdopen(pipeEnds[0], "r");
    char buffer[5] = {};
    ualarm(20000, 0);
    EXPECT_EQ(ReadBytes(image, buffer, 4), 4);
    EXPECT_STREQ(buffer, "late");
}

TEST(Delays, StartOverWhenInterrupted)
{
    std::signal(SIGALRM, [](int) {});
    const auto start = std::chrono::steady_clock::now();
    ualarm(20000, 0);
    Delay(200000);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(220));
}

TEST(HexadecimalText, HasUpToSixDigits)
{
    for (const char *text : {"ABCDEF", "abcdef", "ABCDEF7", ":;<=>?", "*+,-./"})
        EXPECT_EQ(0xABCDEF, axxtoi(text)) << text;
    for (const char *text : {"12", "12 4", "12\n", "12)4", "12@4", "12G4", "12`4", "12g4", "12\xE1"})
        EXPECT_EQ(0x12, axxtoi(text)) << text;
    EXPECT_EQ(0, axxtoi(""));
}

} // namespace
