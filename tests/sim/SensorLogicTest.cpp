// Port A's sensor logic: the status word and the Inside block, byte for byte,
// as pure encodings and through the bridge.
#include "SimSupport.h"

#include <chrono>
#include <thread>

#include "sim/FlashContent.h"
#include "sim/SensorLogic.h"

using namespace simtest;

namespace {

const std::vector<uint8_t> kStatusRequest = bytes({ 0xA1, 0x80, 0xCA, 0xFE });
const std::vector<uint8_t> kInsideRequest = bytes({ 0xA1, 0x81, 0xCA, 0xFE });

vbridge::StatusWord word(int flags, int diode, int version, int sizeCode)
{
    vbridge::StatusWord w;
    w.flags = static_cast<uint8_t>(flags);
    w.diode = static_cast<uint16_t>(diode);
    w.version = static_cast<uint8_t>(version);
    w.sizeCode = static_cast<uint8_t>(sizeCode);
    return w;
}

template <size_t N> std::string hex(const std::array<uint8_t, N>& bytes)
{
    return simtest::hex(bytes.data(), N);
}

// Bytes 0 to 14 and 16 of an Inside block (byte 15 is free).
std::string checkedBytes(const std::vector<uint8_t>& block)
{
    return simtest::hex(block.data(), 15) + " | " + simtest::hex(block.data() + 16, 1);
}

const std::vector<uint8_t> kFirstBlock = bytes({ 0xA0, 0x80, 0xCA, 0xFE });

class VbSensorLogic : public VbTest {
protected:
    // Arm frame: A1 00 CA FE on one line, then mode 4 with threshold 0x1B8
    // and an ACE value on four lines; nothing is read.
    static void sendArm(FT_HANDLE handle, int modeAndThresholdHigh = 0x41, int thresholdLow = 0xB8)
    {
        std::vector<uint8_t> frame
            = bytes({ 0xA1, 0x00, 0xCA, 0xFE, modeAndThresholdHigh, thresholdLow, 0x00, 0x61, 0xA8 });
        uint32_t read = 0;
        ASSERT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, nullptr, frame.data(), 4, 5, 0, &read), FT4222_OK);
    }

    static uint8_t flags(FT_HANDLE handle) { return command(handle, kStatusRequest, 3)[0]; }

    // Arms for a 1 ms exposure that starts at once; the image-ready value
    // comes imageLeadMs before the data, the read-out takes readoutMs.
    static void armForShortExposure(FT_HANDLE handle, uint32_t imageLeadMs, uint32_t readoutMs)
    {
        vbridge::Exposure shot;
        shot.delayMs = 0;
        shot.durationMs = 1;
        bridge().setAutoExposure(0, true, shot);
        bridge().setSensorDelays(0, 0, 0, imageLeadMs, readoutMs);
        sendArm(handle);
    }

    // A short exposure right after arming, no read-out delay: the image is
    // there as soon as the status says so.
    static void armAndExpose(FT_HANDLE handle)
    {
        armForShortExposure(handle, 0, 0);
        for (int i = 0; i < 200 && flags(handle) != 0x48; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ASSERT_EQ(flags(handle), 0x48);
    }
};

} // namespace

TEST(VbStatusWordEncoding, PacksFlagsDiodeVersionAndSize)
{
    EXPECT_EQ(hex(vbridge::encodeStatusWord(word(0x44, 75, 2, 1))), "44 12 c9");
}

TEST(VbStatusWordEncoding, KeepsTenDiodeBits)
{
    EXPECT_EQ(hex(vbridge::encodeStatusWord(word(0x48, 0x3FF, 15, 3))), "48 ff ff");
}

TEST(VbInsideBlockEncoding, DefaultSettingsGiveMarkerFieldsAndChecksum)
{
    const auto block = vbridge::encodeInsideBlock(vbridge::GeneratorSettings());
    // 70 kV, 7 mA, 125, 124, -, 310, cone 2, 1520, cut 1, mode 0; sum 0x275.
    EXPECT_EQ(simtest::hex(block.data(), 15), "73 46 07 00 7d 00 7c 00 01 36 02 05 f0 01 00");
    EXPECT_EQ(simtest::hex(block.data() + 16, 1), "75");
}

TEST(VbInsideBlockEncoding, BrokenChecksumIsOffByOne)
{
    vbridge::GeneratorSettings settings;
    settings.checksumOk = false;
    EXPECT_EQ(simtest::hex(vbridge::encodeInsideBlock(settings).data() + 16, 1), "76");
}

TEST_F(VbSensorLogic, IdleSensorIsReadyWithDarkDiode)
{
    addSensor();
    // Flags 0x40, diode 428, version 2, size 1.
    EXPECT_EQ(hex(command(openPortA(), kStatusRequest, 3)), "40 6b 09");
}

TEST_F(VbSensorLogic, StatusWordAnswersAsSet)
{
    addSensor();
    bridge().setStatusWord(0, word(0x44, 75, 2, 1));
    EXPECT_EQ(hex(command(openPortA(), kStatusRequest, 3)), "44 12 c9");
}

TEST_F(VbSensorLogic, StatusWordStaysUntilCleared)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setStatusWord(0, word(0x48, 0, 1, 2));
    EXPECT_EQ(hex(command(handle, kStatusRequest, 3)), "48 00 06");
    EXPECT_EQ(hex(command(handle, kStatusRequest, 3)), "48 00 06");
    bridge().clearStatusWord(0);
    EXPECT_EQ(hex(command(handle, kStatusRequest, 3)), "40 6b 09");
}

TEST_F(VbSensorLogic, QueuedStatusWordsAnswerFirstOneRequestEach)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setStatusWord(0, word(0x44, 75, 2, 1));
    bridge().queueStatusWords(0, { word(0x45, 700, 2, 1), word(0x46, 428, 2, 1) });
    EXPECT_EQ(hex(command(handle, kStatusRequest, 3)), "45 af 09");
    EXPECT_EQ(hex(command(handle, kStatusRequest, 3)), "46 6b 09");
    EXPECT_EQ(hex(command(handle, kStatusRequest, 3)), "44 12 c9");
}

TEST_F(VbSensorLogic, StatusVersionAndSizeComeFromTheSensor)
{
    vbridge::SensorConfig config;
    config.sizeCode = 2;
    config.version = 5;
    config.defaultFlash = false;
    bridge().addSensor(config);
    EXPECT_EQ(hex(command(openPortA(), kStatusRequest, 3)), "40 6b 16");
}

TEST_F(VbSensorLogic, InsideSensorAnswersItsGeneratorBlock)
{
    addSensor("KX0001", true);
    vbridge::GeneratorSettings settings;
    settings.kV = 60;
    settings.mA = 4;
    settings.timeSet = 0x0102;
    settings.timeDone = 0x0304;
    settings.dap = 0x0506;
    settings.cone = 7;
    settings.airDose = 0x0809;
    settings.cutMethod = 10;
    settings.mode = 11;
    bridge().setGenerator(0, settings);
    // Sum of bytes 1 to 14: 60 + 4 + 1 + 2 + ... + 11 = 130.
    EXPECT_EQ(checkedBytes(command(openPortA(), kInsideRequest, 17)),
        "73 3c 04 01 02 03 04 00 05 06 07 08 09 0a 0b | 82");
}

TEST_F(VbSensorLogic, BrokenMarkerReadsCapitalS)
{
    addSensor("KX0001", true);
    vbridge::GeneratorSettings settings;
    settings.markerOk = false;
    bridge().setGenerator(0, settings);
    EXPECT_EQ(hex(std::vector<uint8_t> { command(openPortA(), kInsideRequest, 17)[0] }), "53");
}

TEST_F(VbSensorLogic, BrokenChecksumIsOneMoreThanTheSum)
{
    addSensor("KX0001", true);
    vbridge::GeneratorSettings settings;
    settings.checksumOk = false;
    bridge().setGenerator(0, settings);
    EXPECT_EQ(hex(std::vector<uint8_t> { command(openPortA(), kInsideRequest, 17)[16] }), "76");
}

TEST_F(VbSensorLogic, StandAloneSensorStillAnswersTheInsideRequest)
{
    addSensor("KX0001", false);
    EXPECT_EQ(checkedBytes(command(openPortA(), kInsideRequest, 17)),
        "73 46 07 00 7d 00 7c 00 01 36 02 05 f0 01 00 | 75");
}

TEST_F(VbSensorLogic, UnknownCommandReadsZeros)
{
    addSensor();
    EXPECT_EQ(hex(command(openPortA(), bytes({ 0xA1, 0x55, 0xCA, 0xFE }), 4)), "00 00 00 00");
}

TEST_F(VbSensorLogic, FrameWithoutCafeTailReadsZeros)
{
    addSensor();
    EXPECT_EQ(hex(command(openPortA(), bytes({ 0xA1, 0x80, 0xCA, 0xFF }), 3)), "00 00 00");
}

TEST_F(VbSensorLogic, CommandSentOnFourLinesIsNotUnderstood)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    std::vector<uint8_t> frame = kStatusRequest;
    uint8_t answer[3] = { 0xEE, 0xEE, 0xEE };
    uint32_t read = 0;
    ASSERT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, frame.data(), 0, 4, 3, &read), FT4222_OK);
    EXPECT_EQ(simtest::hex(answer, 3), "00 00 00");
}

TEST_F(VbSensorLogic, ReadBeyondTheAnswerGivesZeros)
{
    addSensor();
    EXPECT_EQ(hex(command(openPortA(), kStatusRequest, 5)), "40 6b 09 00 00");
}

TEST_F(VbSensorLogic, SensorsAnswerEachForItself)
{
    addSensor();
    addSensor();
    bridge().setStatusWord(1, word(0x44, 75, 2, 1));
    EXPECT_EQ(hex(command(openPortA(0), kStatusRequest, 3)), "40 6b 09");
    EXPECT_EQ(hex(command(openPortA(1), kStatusRequest, 3)), "44 12 c9");
}

TEST_F(VbSensorLogic, ImageBlockIsReadWholeInOneTransfer)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    armAndExpose(handle);
    const std::vector<uint8_t> block = command(handle, bytes({ 0xA0, 0x80, 0xCA, 0xFE }), 65408);
    ASSERT_EQ(block.size(), 65408u);
    // The image is never flat: a block of one value would be an idle bus.
    EXPECT_NE(std::count(block.begin(), block.end(), block[0]), 65408);
}

TEST_F(VbSensorLogic, ImageSizeCodeChangesTheImageAlreadyHeld)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    armAndExpose(handle);
    const std::vector<uint8_t> firstBlock = bytes({ 0xA0, 0x80, 0xCA, 0xFE });
    ASSERT_EQ(command(handle, firstBlock, 2)[0] >> 6, 1);
    bridge().setImageSizeCode(0, 3);
    EXPECT_EQ(command(handle, firstBlock, 2)[0] >> 6, 3);
}

TEST_F(VbSensorLogic, UnfinishedBitstreamBurstReadsZeros)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortA);
    ASSERT_EQ(
        FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_4, CLK_IDLE_LOW, CLK_LEADING, 1), FT4222_OK);
    uint16_t size = 0;
    std::vector<uint8_t> enable = bytes({ 0xC6, 0, 0, 0 });
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, enable.data(), 4, &size, 1), FT4222_OK);
    std::vector<uint8_t> burst = bytes({ 0x7A, 0, 0, 0 });
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, burst.data(), 4, &size, 0), FT4222_OK);
    // Only the start of a 70000-byte bitstream goes out; the chip select stays low.
    std::vector<uint8_t> bitstream = vbridge::makeBitstream(vbridge::BitstreamHeader(), 70000, 3);
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, bitstream.data(), 4464, &size, 0), FT4222_OK);
    std::vector<uint8_t> readStatus = bytes({ 0x3C, 0, 0, 0 });
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, readStatus.data(), 4, &size, 0), FT4222_OK);
    uint8_t status[4] = { 0xEE, 0xEE, 0xEE, 0xEE };
    ASSERT_EQ(FT4222_SPIMaster_SingleRead(handle, status, 4, &size, 1), FT4222_OK);
    EXPECT_EQ(hex(status, 4), "00 00 00 00");
    EXPECT_FALSE(bridge().fpgaConfigured(0));
}

TEST_F(VbSensorLogic, BlockZeroAnswersSizeCodeZeroUntilAnImageExists)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    EXPECT_EQ(hex(command(handle, kFirstBlock, 4)), "00 00 00 00");
}

TEST_F(VbSensorLogic, StatusReadOnOneLineIsNotTheAnswer)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    ASSERT_EQ(FT4222_SPIMaster_SetLines(handle, SPI_IO_SINGLE), FT4222_OK);
    std::vector<uint8_t> out = bytes({ 0xA1, 0x80, 0xCA, 0xFE, 0, 0, 0 });
    uint8_t in[7] = {};
    uint16_t size = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleReadWrite(handle, in, out.data(), 7, &size, 1), FT4222_OK);
    EXPECT_NE(hex(in + 4, 3), "40 6b 09");
}

TEST_F(VbSensorLogic, ArmedFlagComesItsDelayAfterTheArmFrame)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setAutoExposure(0, false);
    bridge().setSensorDelays(0, 0, 30, 0, 300);
    sendArm(handle);
    EXPECT_EQ(flags(handle), 0x40);
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    EXPECT_EQ(flags(handle), 0x44);
    EXPECT_EQ(bridge().lastArm(0).count, 1);
}

TEST_F(VbSensorLogic, ArmFrameWithAnotherModeNibbleIsIgnored)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setAutoExposure(0, false);
    sendArm(handle, 0x61);
    EXPECT_EQ(flags(handle), 0x40);
    EXPECT_EQ(bridge().lastArm(0).count, 0);
}

TEST_F(VbSensorLogic, ArmFrameBeforeTheSensorIsReadyIsIgnored)
{
    vbridge::SensorConfig config;
    config.defaultFlash = false;
    config.readyDelayMs = 60000;
    bridge().addSensor(config);
    FT_HANDLE handle = openPortA();
    EXPECT_EQ(flags(handle), 0x00);
    sendArm(handle);
    EXPECT_EQ(flags(handle), 0x00);
    EXPECT_EQ(bridge().lastArm(0).count, 0);
}

TEST_F(VbSensorLogic, ReadyFlagIsClearDuringTheReadOut)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    armForShortExposure(handle, 0, 60000);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(flags(handle), 0x06);
}

TEST_F(VbSensorLogic, ImageReadyMayComeBeforeTheImageData)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    armForShortExposure(handle, 60000, 60000);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(flags(handle), 0x48);
    EXPECT_EQ(command(handle, kFirstBlock, 1)[0] >> 6, 0);
}

TEST_F(VbSensorLogic, RealisticTimingKeepsTheReadyFlagClearAfterPowerOn)
{
    bridge().setTiming(vbridge::Timing::Realistic);
    addSensor();
    FT_HANDLE handle = openPortA();
    EXPECT_EQ(flags(handle) & 0x40, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(vbridge::kRealisticReadyDelayMs + 20));
    EXPECT_EQ(flags(handle) & 0x40, 0x40);
}

// A stop arms once more with threshold 400, under the dark level: taken
// whenever the ready flag is up, the image-ready value 0x48 included.
TEST_F(VbSensorLogic, StopArmFrameIsTakenWhileAnImageIsHeld)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    armAndExpose(handle);
    ASSERT_EQ(bridge().lastArm(0).count, 1);
    sendArm(handle, 0x41, 0x90);
    EXPECT_EQ(bridge().lastArm(0).count, 2);
    EXPECT_EQ(bridge().lastArm(0).threshold, 400);
    EXPECT_EQ(flags(handle), 0x45);
}

// The dark signal crosses a threshold under the dark level at once: an
// integration that lasts long enough for a stop's first poll to see it,
// then the read-out and a dark image held.
TEST_F(VbSensorLogic, ThresholdUnderTheDarkLevelRunsADummyIntegration)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setAutoExposure(0, false);
    bridge().setSensorDelays(0, 0, 0, 0, 0);
    sendArm(handle, 0x41, 0x90);
    EXPECT_EQ(flags(handle), 0x45);
    // A stop's first poll: up to 250 ms for the armed flag, then 100 ms.
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(flags(handle), 0x45);
    std::this_thread::sleep_for(std::chrono::milliseconds(vbridge::SensorLogic::kDummyIntegrationMs));
    EXPECT_EQ(flags(handle), 0x48);
}

// X-rays that came and went between two status reads: the next read finds
// the image, not an exposure that started with the read.
TEST_F(VbSensorLogic, TriggeredExposureStartsWhenTheXRaysCome)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setAutoExposure(0, false);
    bridge().setSensorDelays(0, 0, 0, 0, 0);
    sendArm(handle);
    ASSERT_EQ(flags(handle), 0x44);
    vbridge::Exposure shot;
    shot.durationMs = 5;
    bridge().triggerExposure(0, shot);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(flags(handle), 0x48);
    EXPECT_EQ(bridge().exposureCount(0), 1);
}

// X-rays while the sensor is still arming: what comes after the armed flag
// is integrated, what came before is lost.
TEST_F(VbSensorLogic, ExposureTriggeredBeforeTheArmedFlagIsIntegratedFromIt)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setAutoExposure(0, false);
    bridge().setSensorDelays(0, 0, 200, 0, 0);
    sendArm(handle);
    vbridge::Exposure shot;
    shot.durationMs = 300;
    bridge().triggerExposure(0, shot);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(flags(handle), 0x40);
    std::this_thread::sleep_for(std::chrono::milliseconds(220));
    EXPECT_EQ(flags(handle), 0x45);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(flags(handle), 0x48);
    EXPECT_EQ(bridge().exposureCount(0), 1);
}

TEST_F(VbSensorLogic, ExposureOverBeforeTheArmedFlagIsNotSeen)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setAutoExposure(0, false);
    bridge().setSensorDelays(0, 0, 100, 0, 0);
    sendArm(handle);
    vbridge::Exposure shot;
    shot.durationMs = 5;
    bridge().triggerExposure(0, shot);
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(flags(handle), 0x44);
    EXPECT_EQ(bridge().exposureCount(0), 0);
}

TEST_F(VbSensorLogic, SensorNotArmedSeesNoXRays)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().setAutoExposure(0, false);
    bridge().setSensorDelays(0, 0, 0, 0, 0);
    vbridge::Exposure shot;
    shot.durationMs = 500;
    bridge().triggerExposure(0, shot);
    sendArm(handle);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(flags(handle), 0x44);
    EXPECT_EQ(bridge().exposureCount(0), 0);
}

// A start-up delay set after power-on counts from the power-on: a sensor
// powered long ago is ready at once with a shorter one.
TEST_F(VbSensorLogic, ReadyDelaySetLaterCountsFromThePowerOn)
{
    bridge().setTiming(vbridge::Timing::Realistic);
    addSensor();
    FT_HANDLE handle = openPortA();
    ASSERT_EQ(flags(handle) & 0x40, 0);
    bridge().setSensorDelays(0, 0, 0, 0, 0);
    EXPECT_EQ(flags(handle) & 0x40, 0x40);
    bridge().setSensorDelays(0, 60000, 0, 0, 0);
    EXPECT_EQ(flags(handle) & 0x40, 0);
}
