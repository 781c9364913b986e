#include "devlib/haldenflash/framing.h"

#include "bench/devices/frame.h"
#include "devlib/haldenflash/messages.h"

#include <fstream>
#include <gtest/gtest.h>
#include <random>

namespace
{

using bench::Bytes;

// The frame that the updater builds over old contents, within the room that it asks for. The bench decodes it.
Bytes Framed(UInt8 type, const Bytes &data)
{
    const std::size_t room = 2 * (data.size() + 6) + 1;
    Bytes buffer(room + 8, 0x5A);
    buffer[room - 1] = 0;
    Int32 size = 0;
    buildKoraToHaldenMsg(static_cast<KORA_HALDEN_MESAGE_TYPE>(type), static_cast<Int32>(data.size()), data.data(),
                         &size, buffer.data());
    EXPECT_EQ(Bytes(8, 0x5A), Bytes(buffer.end() - 8, buffer.end()));
    buffer.resize(static_cast<std::size_t>(size));
    bench::FrameDecoder decoder;
    for (const UInt8 byte : buffer)
        decoder.Feed(byte);
    EXPECT_EQ("", decoder.deviation());
    EXPECT_TRUE(decoder.BetweenFrames());
    EXPECT_EQ(type, decoder.frame().type);
    EXPECT_EQ(data, decoder.frame().data);
    return buffer;
}

// "FE 00*3" is FE 00 00 00; "-" is nothing.
Bytes Parsed(const std::string &text)
{
    std::istringstream words(text);
    Bytes bytes;
    for (std::string word; words >> word && word != "-";)
        bytes.insert(bytes.end(), word.size() > 2 ? std::stoul(word.substr(3)) : 1,
                     static_cast<UInt8>(std::stoul(word, nullptr, 16)));
    return bytes;
}

TEST(Frames, AreAsTheProtocolShowsThem)
{
    std::ifstream document(TESTS_DIR "/../docs/protocol.md");
    std::string line;
    while (std::getline(document, line) && line != "```vectors")
        continue;
    int count = 0;
    for (; std::getline(document, line) && line != "```"; count++) {
        const std::size_t equals = line.find(" = ");
        ASSERT_TRUE(line.starts_with("frame ") && equals != std::string::npos) << line;
        EXPECT_EQ(Framed(Parsed(line.substr(6, 2))[0], Parsed(line.substr(9, equals - 9))),
                  Parsed(line.substr(equals + 3)));
    }
    EXPECT_GE(count, 10);
}

TEST(Frames, OfAnySizeAndMixRoundTrip)
{
    std::mt19937 random(1);
    for (const unsigned escapedIn : {1u, 2u, 9u, 1000000u}) {
        for (std::size_t size = 0; size <= 71; size++) {
            Bytes data(size <= 70 ? size : 64514);
            for (UInt8 &byte : data)
                byte = static_cast<UInt8>(random() % escapedIn == 0 ? 0xFE + random() % 2 : random());
            Framed(0x88, data);
        }
    }
}

TEST(Frames, LeaveNothingOfALongerOneBehindThem)
{
    for (const auto &[old, expected] : {std::pair<Bytes, Bytes>{Bytes(20, 7), Bytes(13, 0)}, // up to the old zero
                                        {{7, 0, 7, 7, 7, 7, 7, 7, 7, 7}, {7, 7, 7}}}) {      // the frame has passed it
        Bytes buffer = old;
        buffer.push_back(0);
        Int32 size = 0;
        buildKoraToHaldenMsg(KORA_HALDEN_MESSAGE_TYPE_A, 0, nullptr, &size, buffer.data());
        EXPECT_EQ(Bytes(buffer.begin() + 7, buffer.end() - 1), expected);
    }
}

TEST(Frames, AreStuffedByteByByte)
{
    const auto stuffed = [](UInt8 byte) {
        Bytes buffer = {0, byte, 9, 9};
        Int32 index = 1;
        encryptOneByte(buffer.data(), &index);
        return std::pair(buffer, index);
    };
    EXPECT_EQ(stuffed(0xFF), std::pair(Bytes({0, 0xFE, 1, 9}), 3));
    EXPECT_EQ(stuffed(0xFE), std::pair(Bytes({0, 0xFE, 0, 9}), 3));
    EXPECT_EQ(stuffed(0xFD), std::pair(Bytes({0, 0xFD, 9, 9}), 2));
}

TEST(Frames, OfOtherTypesAreRefused)
{
    for (int type = 0; type < 256; type++) {
        const bool valid =
            (type >= 0x41 && type <= 0x44) || type == 0x48 || type == 0x81 || type == 0x88 || type == 0x89;
        UInt8 frame[32] = {1};
        Int32 size = 99;
        testing::internal::CaptureStdout();
        EXPECT_EQ(valid ? kNoError : kBadParameter,
                  buildKoraToHaldenMsg(static_cast<KORA_HALDEN_MESAGE_TYPE>(type), 0, frame, &size, frame));
        EXPECT_EQ(valid ? "" : "packetizeKoraToHaldenMsg() -- Invalid message.\n",
                  testing::internal::GetCapturedStdout());
        EXPECT_EQ(valid ? 7 : 0, size) << type;
        EXPECT_EQ(valid ? 1u : 0u, validateKoraHaldenMessageType(static_cast<UInt8>(type)));
    }
}

TEST(Framing, StopsOnAnArgumentThatCannotBe)
{
    UInt8 frame[32] = {};
    Int32 size = 0;
    const auto build = [&](Int32 *pSize, const UInt8 *data, UInt8 *out) {
        return buildKoraToHaldenMsg(KORA_HALDEN_MESSAGE_TYPE_A, 1, data, pSize, out);
    };
    EXPECT_DEATH(build(nullptr, frame, frame), "failed: ptrNewMsgSize,");
    EXPECT_DEATH(build(&size, nullptr, frame), "failed: orgMsgPtr,");
    EXPECT_DEATH(build(&size, frame, nullptr), "failed: ptrNewMsg,");
    EXPECT_DEATH(encryptOneByte(nullptr, &size), "failed: startOfMessage,");
    EXPECT_DEATH(encryptOneByte(frame, nullptr), "failed: index,");
}

} // namespace
