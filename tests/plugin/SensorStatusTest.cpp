#include "support/PluginHarness.h"

#include "transport/SensorProtocol.h"
#include "transport/StatusTexts.h"

#include <cstdint>

using namespace testing_support;

namespace {

class SensorStatusTest : public ::testing::Test {
protected:
    PluginHarness host;
    QVeltraXRayKORUXPlugInUnit* unit = nullptr;

    void SetUp() override
    {
        host.addSensors(1);
        host.initialize();
        ASSERT_EQ(host.unitCount(), 1);
        unit = host.unit();
        bool solo = true;
        ASSERT_TRUE(unit->openPorts());
        ASSERT_TRUE(unit->initPortA(false));
        ASSERT_TRUE(unit->initPortD(&solo));
        host.bridge().clearTrace();
        host.seen().clear();
    }

    void makeInside()
    {
        host.bridge().setInside(0, true);
        bool solo = true;
        ASSERT_TRUE(unit->initPortD(&solo));
        host.bridge().clearTrace();
        host.seen().clear();
    }
};

struct Status {
    uint8_t flags = 0, size = 0, version = 0;
    uint16_t diode = 0;
};

}  // namespace

TEST(StatusWordDecoding, BytesDecodeIntoFlagsDiodeVersionAndSize)
{
    const uint8_t bytes[3] = {0x44, 0x12, 0xC9};
    const korux::StatusWord word = korux::decodeStatusWord(bytes);
    EXPECT_EQ(word.flags, 0x44);
    EXPECT_EQ(word.diode, 75);
    EXPECT_EQ(word.version, 2);
    EXPECT_EQ(word.size, 1);
}

TEST(InsideBlockDecoding, ByteFifteenIsOutsideTheChecksum)
{
    uint8_t block[17] = {0x73, 70, 7, 0, 125, 0, 124, 0, 0x01, 0x36, 2, 0x05, 0xF0, 1, 0, 0, 0};
    block[16] = korux::insideChecksum(block);
    EXPECT_EQ(korux::checkInsideBlock(block), korux::InsideCheck::Ok);
    block[15] = 0xAA;
    EXPECT_EQ(korux::checkInsideBlock(block), korux::InsideCheck::Ok);
    block[14] = 1;
    EXPECT_EQ(korux::checkInsideBlock(block), korux::InsideCheck::ChecksumError);
    block[0] = 0x53;
    EXPECT_EQ(korux::checkInsideBlock(block), korux::InsideCheck::NotFound);
}

TEST(InsideBlockDecoding, MultiByteFieldsAreBigEndian)
{
    const uint8_t block[17] = {0x73, 70, 7, 0x01, 0x02, 0x03, 0x04, 0, 0x05, 0x06, 9, 0x07, 0x08, 3, 4, 0, 0};
    const korux::InsideBlock inside = korux::decodeInsideBlock(block);
    EXPECT_EQ(inside.kV, 70);
    EXPECT_EQ(inside.mA, 7);
    EXPECT_EQ(inside.timeSet, 0x0102);
    EXPECT_EQ(inside.timeDone, 0x0304);
    EXPECT_EQ(inside.dap, 0x0506);
    EXPECT_EQ(inside.cone, 9);
    EXPECT_EQ(inside.airDose, 0x0708);
    EXPECT_EQ(inside.cutMethod, 3);
    EXPECT_EQ(inside.mode, 4);
}

TEST(StatusTexts, Ft4222TextsCoverBothTablesAndNumberTheRest)
{
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(FT4222_DEVICE_LIST_NOT_READY), "DEVICE_LIST_NOT_READY");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(static_cast<FT4222_STATUS>(20)), "FT4222_STATUS 20");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(FT4222_VENDER_CMD_NOT_SUPPORTED), "VENDER_CMD_NOT_SUPPORTED");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(FT4222_INVAILD_FUNCTION), "INVAILD_FUNCTION");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(FT4222_FUN_NOT_SUPPORT), "FUN_NOT_SUPPORT");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(static_cast<FT4222_STATUS>(1023)), "FT4222_STATUS 1023");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(static_cast<FT4222_STATUS>(999)), "FT4222_STATUS 999");
    EXPECT_EQ(ft4222StatusText(-1), "FT4222_STATUS -1");
}

// A library answers its status as a C int: -1 is a value of the type.
FT4222_STATUS libraryStatus(int32_t code)
{
    return static_cast<FT4222_STATUS>(code);
}

TEST(StatusTexts, NegativeCodeThroughTheMemberIsNumberedAsSigned)
{
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(libraryStatus(-1)), "FT4222_STATUS -1");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(libraryStatus(-1000)), "FT4222_STATUS -1000");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ft4222StatusToString(libraryStatus(INT32_MIN)),
        "FT4222_STATUS -2147483648");
}

TEST_F(SensorStatusTest, NegativeBridgeStatusIsLoggedAsSignedNumber)
{
    host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 1, 0xFFFFFFFFu);
    Status s;
    EXPECT_FALSE(unit->getStatus(&s.flags, &s.size, &s.version, &s.diode));
    EXPECT_TRUE(host.seen().hasAdvanced("[red]FT4222_STATUS not OK FT4222_STATUS -1"))
        << host.seen().advanced.join("\n").toStdString();
    EXPECT_FALSE(host.seen().all.join("\n").contains("4294967295"));
}

TEST(StatusTexts, FtTextsStopAtNineteen)
{
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ftStatusToString(0), "OK");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ftStatusToString(4), "IO_ERROR");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ftStatusToString(19), "DEVICE_LIST_NOT_READY");
    EXPECT_EQ(QVeltraXRayKORUXPlugInUnit::ftStatusToString(1000), "FT_STATUS 1000");
}

TEST_F(SensorStatusTest, StatusRequestIsA180CAFEReadingThreeBytesOnFourLines)
{
    host.bridge().setStatusWord(0, {0x44, 75, 2, 1});
    Status s;
    ASSERT_TRUE(unit->getStatus(&s.flags, &s.size, &s.version, &s.diode));
    const auto transfers = host.calls("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(transfers.size(), 1u);
    EXPECT_EQ(hex(transfers[0].written), hex(bytes({0xA1, 0x80, 0xCA, 0xFE})));
    EXPECT_EQ(transfers[0].args, (std::vector<int64_t>{4, 0, 3}));
    EXPECT_EQ(hex(transfers[0].read), hex(bytes({0x44, 0x12, 0xC9})));
    const auto lines = host.calls("FT4222_SPIMaster_SetLines");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].args, (std::vector<int64_t>{SPI_IO_QUAD}));
    EXPECT_TRUE(host.seen().hasAdvanced("FT4222_SPI_MRW [a1, 80, ca, fe]"));
    EXPECT_EQ(s.flags, 0x44);
    EXPECT_EQ(s.diode, 75);
    EXPECT_EQ(s.version, 2);
    EXPECT_EQ(s.size, 1);
    EXPECT_TRUE(host.seen().hasLog("getStatus Status=44 Size=1 Version=2 Diode=75"));
}

TEST_F(SensorStatusTest, StatusCallTimeIsLoggedFirst)
{
    Status s;
    ASSERT_TRUE(unit->getStatus(&s.flags, &s.size, &s.version, &s.diode));
    const QString first = host.seen().advanced.value(0);
    EXPECT_TRUE(QRegExp("status call time: \\[\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d\\]\\.").exactMatch(first))
        << first.toStdString();
    for (const QString& line : host.seen().all)
        EXPECT_FALSE(line.startsWith("[red,bold]status delay to long"));
}

TEST_F(SensorStatusTest, FailedStatusReadLeavesTheOutputsAlone)
{
    host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 1, FT4222_IO_ERROR);
    Status s{7, 7, 7, 7};
    EXPECT_FALSE(unit->getStatus(&s.flags, &s.size, &s.version, &s.diode));
    EXPECT_EQ(s.flags, 7);
    EXPECT_EQ(s.diode, 7);
    EXPECT_TRUE(host.seen().hasAdvanced("[red]FT4222_STATUS not OK IO_ERROR"));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to retrieve status."));
    EXPECT_EQ(unit->status(), statusReady);
}

TEST_F(SensorStatusTest, LineSwitchFailureIsLoggedAndTheTransferStillTried)
{
    host.bridge().failCall("FT4222_SPIMaster_SetLines", 1, FT4222_IS_NOT_SPI_MODE);
    Status s;
    EXPECT_TRUE(unit->getStatus(&s.flags, &s.size, &s.version, &s.diode));
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Unable to set Lines in QUAD!"));
    EXPECT_EQ(host.calls("FT4222_SPIMaster_MultiReadWrite").size(), 1u);
}

TEST_F(SensorStatusTest, UnplugBetweenTwoStatusReadsFailsTheSecond)
{
    Status s;
    ASSERT_TRUE(unit->getStatus(&s.flags, &s.size, &s.version, &s.diode));
    host.bridge().unplug(0);
    host.seen().clear();
    EXPECT_FALSE(unit->getStatus(&s.flags, &s.size, &s.version, &s.diode));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to retrieve status."));
    const auto transfers = host.calls("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(transfers.size(), 2u);
    EXPECT_NE(transfers[1].status, FT4222_OK);
}

TEST_F(SensorStatusTest, SingleLineReadFailureReportsTheWriteText)
{
    host.bridge().failCall("FT4222_SPIMaster_SingleRead", 1, FT4222_IO_ERROR);
    uint8 answer[3] = {};
    korux::CommandFrame command = korux::sensorCommand(korux::kClassControl, korux::kCodeStatus);
    EXPECT_FALSE(unit->FT4222_SPI_SRW(answer, command.data(), 3, nullptr));
    EXPECT_TRUE(host.seen().hasAdvanced("FT4222_SPI_SRW [a1, 80, ca, fe]"));
    EXPECT_TRUE(host.seen().hasAdvanced("[red]FT4222_STATUS not OK when singleWrite IO_ERROR"));
}

TEST_F(SensorStatusTest, SingleLinePrimitiveWritesThenReadsOnOneLine)
{
    uint8 answer[3] = {};
    uint16 read = 0;
    korux::CommandFrame command = korux::sensorCommand(korux::kClassControl, korux::kCodeStatus);
    EXPECT_TRUE(unit->FT4222_SPI_SRW(answer, command.data(), 3, &read));
    EXPECT_EQ(read, 3);
    EXPECT_EQ(host.calls("FT4222_SPIMaster_SetLines")[0].args, (std::vector<int64_t>{SPI_IO_SINGLE}));
    const auto writes = host.calls("FT4222_SPIMaster_SingleWrite");
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(hex(writes[0].written), hex(bytes({0xA1, 0x80, 0xCA, 0xFE})));
}

TEST_F(SensorStatusTest, StandAloneSensorHasNoInsideBlock)
{
    EXPECT_FALSE(unit->getPyrelStatus());
    EXPECT_TRUE(host.seen().hasLog("[yellow]Sensor is standalone"));
    EXPECT_TRUE(host.bridge().trace().empty());
}

TEST_F(SensorStatusTest, InsideBlockFillsTheGeneratorAndEmitsEachField)
{
    makeInside();
    vbridge::GeneratorSettings settings;
    settings.kV = 65;
    settings.mA = 6;
    settings.timeSet = 300;
    settings.timeDone = 298;
    settings.dap = 0x1234;
    settings.cone = 3;
    settings.airDose = 0x0456;
    settings.cutMethod = 2;
    settings.mode = 5;
    host.bridge().setGenerator(0, settings);
    host.family().setParameter("ACEValueInside", 12345);

    QVeltraGenerator* generator = unit->generator();
    std::vector<std::string> emitted;
    QObject::connect(generator, &QVeltraGenerator::kVChanged, [&](long) { emitted.push_back("kV"); });
    QObject::connect(generator, &QVeltraGenerator::mAChanged, [&](long) { emitted.push_back("mA"); });
    QObject::connect(generator, &QVeltraGenerator::timeSetChanged, [&](long) { emitted.push_back("timeSet"); });
    QObject::connect(generator, &QVeltraGenerator::timeDoneChanged, [&](long) { emitted.push_back("timeDone"); });
    QObject::connect(generator, &QVeltraGenerator::DAPChanged, [&](long) { emitted.push_back("DAP"); });
    QObject::connect(generator, &QVeltraGenerator::coneChanged, [&](long) { emitted.push_back("cone"); });
    QObject::connect(generator, &QVeltraGenerator::airDoseChanged, [&](long) { emitted.push_back("airDose"); });
    QObject::connect(generator, &QVeltraGenerator::cutMethodChanged, [&](long) { emitted.push_back("cutMethod"); });
    QObject::connect(generator, &QVeltraGenerator::modeChanged, [&](long) { emitted.push_back("mode"); });
    QObject::connect(generator, &QVeltraGenerator::energyChanged, [&](long) { emitted.push_back("energy"); });
    QObject::connect(generator, &QVeltraGenerator::thresholdChanged, [&](long) { emitted.push_back("threshold"); });

    ASSERT_TRUE(unit->getPyrelStatus());
    const auto transfers = host.calls("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(transfers.size(), 1u);
    EXPECT_EQ(hex(transfers[0].written), hex(bytes({0xA1, 0x81, 0xCA, 0xFE})));
    EXPECT_EQ(transfers[0].args, (std::vector<int64_t>{4, 0, 17}));
    EXPECT_TRUE(host.seen().hasLog("[yellow]Sensor is inside"));
    EXPECT_EQ(generator->kV, 65);
    EXPECT_EQ(generator->mA, 6);
    EXPECT_EQ(generator->timeSet, 300);
    EXPECT_EQ(generator->timeDone, 298);
    EXPECT_EQ(generator->DAP, 0x1234);
    EXPECT_EQ(generator->cone, 3);
    EXPECT_EQ(generator->airDose, 0x0456);
    EXPECT_EQ(generator->cutMethod, 2);
    EXPECT_EQ(generator->mode, 5);
    EXPECT_EQ(generator->energy, 0);
    EXPECT_EQ(generator->threshold, 12345);
    EXPECT_EQ(emitted, (std::vector<std::string>{"kV", "mA", "timeSet", "timeDone", "DAP", "cone",
                                                 "airDose", "cutMethod", "mode", "energy", "threshold"}));
}

TEST_F(SensorStatusTest, InsideBlockWithWrongMarkerIsNotFound)
{
    makeInside();
    vbridge::GeneratorSettings settings;
    settings.markerOk = false;
    host.bridge().setGenerator(0, settings);
    EXPECT_FALSE(unit->getPyrelStatus());
    EXPECT_TRUE(host.seen().hasLog("[red]Inside information NOT FOUND."));
    EXPECT_EQ(unit->generator()->kV, 0);
}

TEST_F(SensorStatusTest, InsideBlockWithBadChecksumIsRefused)
{
    makeInside();
    vbridge::GeneratorSettings settings;
    settings.checksumOk = false;
    host.bridge().setGenerator(0, settings);
    EXPECT_FALSE(unit->getPyrelStatus());
    EXPECT_TRUE(host.seen().hasLog("[red]Inside information CHECKSUM ERROR."));
}

TEST_F(SensorStatusTest, InsideBlockReadFailureIsReported)
{
    makeInside();
    host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 1, FT4222_IO_ERROR);
    EXPECT_FALSE(unit->getPyrelStatus());
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to retrieve Inside information."));
}

TEST_F(SensorStatusTest, ResetReopensPortsAndSetsUpPortsAAndD)
{
    ASSERT_TRUE(unit->reset(false));
    std::vector<std::string> order;
    for (const auto& entry : host.bridge().trace())
        if (entry.function == "FT_Close" || entry.function == "FT_OpenEx"
            || entry.function == "FT4222_SPIMaster_Init" || entry.function == "FT4222_GPIO_Init")
            order.push_back(entry.function);
    EXPECT_EQ(order, (std::vector<std::string>{"FT_Close", "FT_Close", "FT_Close", "FT_Close",
                                               "FT_OpenEx", "FT_OpenEx", "FT_OpenEx", "FT_OpenEx",
                                               "FT4222_SPIMaster_Init", "FT4222_GPIO_Init"}));
    EXPECT_TRUE(host.seen().hasAdvanced("reset with 0"));
    EXPECT_EQ(unit->status(), statusReady);
}

TEST_F(SensorStatusTest, ResetFailureSetsTheErrorStatus)
{
    host.bridge().failCall("FT4222_SPIMaster_Init", 1, FT4222_IO_ERROR);
    EXPECT_FALSE(unit->reset(true));
    EXPECT_EQ(unit->status(), statusError);
    EXPECT_TRUE(host.calls("FT4222_GPIO_Init").empty());
}

TEST_F(SensorStatusTest, ImageGeometryFollowsTheSize)
{
    unit->setSize(size1);
    EXPECT_EQ(unit->BINImageSize(), QSize(1000, 1506));
    EXPECT_EQ(unit->imageSize(), QSize(1000, 1496));
    EXPECT_EQ(unit->RAWImageSize(), QSize(1000, 1496));
    unit->setSize(size2);
    EXPECT_EQ(unit->BINImageSize(), QSize(1300, 1706));
    EXPECT_EQ(unit->imageSize(), QSize(1300, 1696));
    unit->setSize(size1_5);
    EXPECT_FALSE(unit->BINImageSize().isValid());
    EXPECT_FALSE(unit->imageSize().isValid());
    EXPECT_EQ(unit->imageBitPerPixel(), 16);
    EXPECT_EQ(unit->RAWBitPerPixel(), 16);
    EXPECT_EQ(unit->imageResolution(), QSize(20, 20));
}
