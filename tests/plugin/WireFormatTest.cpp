// Wire formats and stored layouts, byte for byte, without any bridge.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstring>

#include "acquisition/AcquisitionProtocol.h"
#include "flash/FlashProtocol.h"
#include "flash/InformationText.h"
#include "fpga/Bitstream.h"
#include "support/PluginHarness.h"

using namespace korux;
using testing_support::bytes;
using testing_support::hex;

namespace {

template <size_t N>
std::vector<uint8_t> vec(const std::array<uint8_t, N>& a)
{
    return std::vector<uint8_t>(a.begin(), a.end());
}

}  // namespace

TEST(FlashFrames, QuadReadSendsOnlyTheLow24AddressBits)
{
    EXPECT_EQ(hex(vec(quadReadFrame(0x1234567))), hex(bytes({0xEB, 0x23, 0x45, 0x67, 0xF0, 0x00, 0x00})));
}

TEST(FlashFrames, SectorEraseSendsThePageNumberWithALowZero)
{
    EXPECT_EQ(hex(vec(sectorEraseFrame(0xFA1F00))), hex(bytes({0x20, 0xFA, 0x1F, 0x00})));
    EXPECT_EQ(hex(vec(sectorEraseFrame(0x001000))), hex(bytes({0x20, 0x00, 0x10, 0x00})));
}

TEST(FlashFrames, PageProgramIsOpcodeAddressAnd256Bytes)
{
    std::vector<uint8_t> data(256);
    for (int i = 0; i < 256; ++i)
        data[i] = static_cast<uint8_t>(i);
    const std::vector<uint8_t> frame = pageProgramFrame(0x010100, data.data());
    ASSERT_EQ(frame.size(), 260u);
    EXPECT_EQ(hex({frame.begin(), frame.begin() + 6}), hex(bytes({0x32, 0x01, 0x01, 0x00, 0x00, 0x01})));
    EXPECT_EQ(frame.back(), 0xFF);
}

TEST(FlashFrames, CounterSlotFrameIsBigEndian)
{
    EXPECT_EQ(hex(vec(shootCounterProgramFrame(3, 0x01020304))),
              hex(bytes({0x32, 0xFA, 0x00, 0x0C, 0x01, 0x02, 0x03, 0x04})));
    EXPECT_EQ(shootCounterSlotAddress(4095), 0xFA3FFCu);
}

TEST(FlashFrames, UniqueIdIsTheEightBytesAfterTheDummiesInUpperCase)
{
    const uint8_t answer[13] = {0xFF, 0, 0, 0, 0, 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
    EXPECT_EQ(uniqueIdText(answer), "0123456789ABCDEF");
}

TEST(FlashFileHeaders, FourEqualBytesAreNoData)
{
    const uint8_t erased[16] = {0xFF, 0xFF, 0xFF, 0xFF};
    const uint8_t zeros[16] = {0, 0, 0, 0};
    const uint8_t ones[16] = {1, 1, 1, 1};
    EXPECT_EQ(parseFlashFileHeader(erased).state, FlashFileState::NoData);
    EXPECT_EQ(parseFlashFileHeader(zeros).state, FlashFileState::NoData);
    EXPECT_EQ(parseFlashFileHeader(ones).state, FlashFileState::NoData);
}

TEST(FlashFileHeaders, SizeIsBigEndianAndLimitedBelowFourMebibytes)
{
    const uint8_t small[16] = {0, 0, 0, 5, '<', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, '>'};
    FlashFileHeader header = parseFlashFileHeader(small);
    EXPECT_EQ(header.state, FlashFileState::Present);
    EXPECT_EQ(header.size, 5u);
    EXPECT_TRUE(header.framed);
    const uint8_t largest[16] = {0x00, 0x3F, 0xFF, 0xFF};
    EXPECT_EQ(parseFlashFileHeader(largest).state, FlashFileState::Present);
    EXPECT_FALSE(parseFlashFileHeader(largest).framed);
    const uint8_t tooLarge[16] = {0x00, 0x40, 0x00, 0x00};
    EXPECT_EQ(parseFlashFileHeader(tooLarge).state, FlashFileState::InvalidSize);
}

TEST(ShootCounterScan, ErasedAreaIsZeroAtIndexMinusOne)
{
    std::vector<uint8_t> area(kShootCounterAreaSize, 0xFF);
    const ShootCounterScan scan = scanShootCounter(area.data());
    EXPECT_EQ(scan.value, 0u);
    EXPECT_EQ(scan.index, -1);
}

TEST(ShootCounterScan, LargestValueAtItsFirstSlot)
{
    std::vector<uint8_t> area(kShootCounterAreaSize, 0xFF);
    const uint8_t values[] = {0, 0, 0, 5, 0, 0, 0, 9, 0, 0, 0, 9};
    std::copy(values, values + sizeof(values), area.begin());
    const ShootCounterScan scan = scanShootCounter(area.data());
    EXPECT_EQ(scan.value, 9u);
    EXPECT_EQ(scan.index, 1);
}

TEST(ShootCounterScan, AllZeroValuesGiveIndexMinusOne)
{
    std::vector<uint8_t> area(kShootCounterAreaSize, 0x00);
    EXPECT_EQ(scanShootCounter(area.data()).index, -1);
}

TEST(InformationTextParser, KeyLinesBeforeTheFirstHeaderJoinTheFirstSection)
{
    QString text = "SN=1\r\n[KORUX3]\r\nTechnology=gadox\r\n";
    const ReportMap map = parseInformationText(text);
    ASSERT_EQ(map.keys(), QStringList{"KORUX3"});
    EXPECT_EQ(map["KORUX3"]["SN"], QVariant("1"));
    EXPECT_EQ(map["KORUX3"]["Technology"], QVariant("gadox"));
}

TEST(InformationTextParser, ValueKeepsFurtherEqualsSigns)
{
    QString text = "[KORUX3]\nSN=A=B\n";
    EXPECT_EQ(parseInformationText(text)["KORUX3"]["SN"], QVariant("A=B"));
}

TEST(InformationTextParser, NothingIsTrimmed)
{
    QString text = "[KORUX3]\n SN=7\n";
    const ReportMap map = parseInformationText(text);
    EXPECT_FALSE(map["KORUX3"].contains("SN"));
    EXPECT_EQ(map["KORUX3"][" SN"], QVariant("7"));
}

TEST(InformationTextParser, HeaderWithoutKeysLeavesNoSection)
{
    QString text = "[EMPTY]\r[KORUX3]\rSN=2";
    EXPECT_EQ(parseInformationText(text).keys(), QStringList{"KORUX3"});
}

TEST(InformationTextParser, EmptyNameLetsKeysFlowIntoTheNextSection)
{
    QString text = "[]\nA=1\n[NEXT]\nB=2\n";
    const ReportMap map = parseInformationText(text);
    ASSERT_EQ(map.keys(), QStringList{"NEXT"});
    EXPECT_EQ(map["NEXT"].keys(), (QStringList{"A", "B"}));
}

TEST(InformationTextParser, LastCharacterOfAHeaderIsDroppedWhateverItIs)
{
    QString text = "[KORUX3)\nSN=1\n[X]\nY=2\n[X]\nZ=3\n";
    const ReportMap map = parseInformationText(text);
    EXPECT_TRUE(map.contains("KORUX3"));
    EXPECT_EQ(map["X"].keys(), QStringList{"Z"});
}

TEST(InformationTextParser, LineWithoutEqualsIsAKeyWithAnEmptyValue)
{
    QString text = "[S]\nflag\n";
    EXPECT_EQ(parseInformationText(text)["S"]["flag"], QVariant(QString("")));
}

TEST(InformationTextParser, CorruptTextsNeverCrash)
{
    QString binary;
    for (int i = 0; i < 4096; ++i)
        binary += QChar(static_cast<ushort>((i * 7919) % 256));
    parseInformationText(binary);
    QString oneLine(1 << 20, QChar('x'));
    EXPECT_TRUE(parseInformationText(oneLine).isEmpty());
    QString noSection = "A=1\nB=2";
    EXPECT_TRUE(parseInformationText(noSection).isEmpty());
    QString bracket = "[";
    EXPECT_TRUE(parseInformationText(bracket).isEmpty());
}

TEST(ArmFrame, ThresholdHighBitsShareTheModeByte)
{
    EXPECT_EQ(hex(vec(armFrame(true, 0x0ABC, 100000))),
              hex(bytes({0xA1, 0x00, 0xCA, 0xFE, 0x5A, 0xBC, 0x01, 0x86, 0xA0})));
    EXPECT_EQ(hex(vec(armFrame(false, 440, 25000 * 4))),
              hex(bytes({0xA1, 0x00, 0xCA, 0xFE, 0x41, 0xB8, 0x01, 0x86, 0xA0})));
}

TEST(ArmFrame, OnlyTheLow24BitsOfAceAreSent)
{
    const ArmFrame frame = armFrame(false, 400, 0x12345678);
    EXPECT_EQ(hex({frame.begin() + 6, frame.end()}), hex(bytes({0x34, 0x56, 0x78})));
}

TEST(ImageBlocks, SmallSensorIs46FullBlocksAndA3328ByteRead)
{
    const ImageBlocks blocks = imageBlocks(QSize(1000, 1506));
    EXPECT_EQ(blocks.totalBytes, 3012000u);
    EXPECT_EQ(blocks.fullBlocks, 46u);
    EXPECT_EQ(blocks.remainder, 3232u);
    EXPECT_EQ(blocks.lastReadLength, 3328u);
}

TEST(ImageBlocks, LargeSensorIs67FullBlocksAndA53376ByteRead)
{
    const ImageBlocks blocks = imageBlocks(QSize(1300, 1706));
    EXPECT_EQ(blocks.totalBytes, 4435600u);
    EXPECT_EQ(blocks.fullBlocks, 67u);
    EXPECT_EQ(blocks.remainder, 53264u);
    EXPECT_EQ(blocks.lastReadLength, 53376u);
}

TEST(ImageBlocks, SizeCodeIsTheTopTwoBits)
{
    EXPECT_EQ(imageSizeCode(0x80), 2);
    EXPECT_EQ(imageSizeCode(0x7F), 1);
    EXPECT_EQ(imageSizeCode(0x3F), 0);
    EXPECT_EQ(imageSizeCode(0xC0), 3);
}

TEST(Oscilloscope, FirstByteZeroGivesNothing)
{
    const uint8_t data[] = {0x00, 0x01, 0x02, 0x00};
    const OscilloscopeScan scan = scanOscilloscope(data, sizeof(data));
    EXPECT_TRUE(scan.text.isEmpty());
    EXPECT_EQ(scan.energySum, 0);
    EXPECT_EQ(scan.samplesAbove, 0);
}

TEST(Oscilloscope, ThresholdSampleIsKeptButNotCounted)
{
    const uint8_t data[] = {0x01, 0xAC, 0x01, 0xAD, 0x04, 0x00, 0x02, 0x00};
    const OscilloscopeScan scan = scanOscilloscope(data, sizeof(data));
    EXPECT_EQ(scan.text, "01ac01ad");
    EXPECT_EQ(scan.energySum, 1);
    EXPECT_EQ(scan.samplesAbove, 1);
}

TEST(Oscilloscope, ScanStopsAtTheBytesRead)
{
    const uint8_t data[] = {0x02, 0x00, 0x02, 0x00};
    EXPECT_EQ(scanOscilloscope(data, 2).text, "0200");
}

TEST(Oscilloscope, FullReadSkipsZerosAndStopsAtFF)
{
    const uint8_t data[] = {0x01, 0x10, 0x00, 0x00, 0x04, 0x00, 0xFF, 0x00, 0x01, 0x11};
    int samples = 0;
    EXPECT_EQ(scanFullOscilloscope(data, sizeof(data), &samples), "01100400");
    EXPECT_EQ(samples, 2);
}

TEST(Voltages, ChannelFramesAndScaling)
{
    EXPECT_EQ(hex(vec(adcFrame(0))), hex(bytes({0x01, 0x80, 0x00})));
    EXPECT_EQ(hex(vec(adcFrame(3))), hex(bytes({0x01, 0xB0, 0x00})));
    const uint8_t full[3] = {0x00, 0xFF, 0xFF};
    EXPECT_EQ(adcRaw(full), 1023);
    EXPECT_EQ(adcMillivolts(0, 1023), 3296);
    EXPECT_EQ(adcMillivolts(2, 1023), 6592);
    EXPECT_EQ(adcMillivolts(3, 0), 0);
}

TEST(DescriptionText, SectionsAndKeysSortedWithCrLf)
{
    ReportMap map;
    map["SENSOR"]["Type"] = "T";
    map["ACQUISITION"]["directUnarmed"] = false;
    map["ACQUISITION"]["Energy"] = 12;
    map["ACQUISITION"]["Neg"] = QVariant::fromValue<long>(-3);
    EXPECT_EQ(descriptionText(map).toStdString(),
              "\r\n[ACQUISITION]\r\nEnergy=12\r\nNeg=-3\r\ndirectUnarmed=false\r\n[SENSOR]\r\nType=T\r\n");
}

TEST(BitstreamHeader, TextsFollowEachOtherFromOffsetTwo)
{
    QByteArray header(2049, '\0');
    const char texts[] = "LATTICE\0v1\0ok\0design\0design2\0LCMXO2\0Date: Mon, 02 Mar 2020 10:00:00 +0000";
    header[0] = char(0xFF);
    std::memcpy(header.data() + 2, texts, sizeof(texts));
    const QStringList list = bitstreamTexts(header);
    ASSERT_EQ(list.size(), 7);
    EXPECT_EQ(list[0], "LATTICE");
    EXPECT_EQ(list[5], "LCMXO2");
    EXPECT_EQ(bitstreamDate(list[6]), QDateTime(QDate(2020, 3, 2), QTime(10, 0), Qt::UTC));
}

TEST(BitstreamHeader, ApplicationFileNameTakesTheTwoCharactersBeforeTheLast)
{
    EXPECT_EQ(applicationBitstreamName("FT12A"), "KORUX_12.bit");
    EXPECT_EQ(applicationBitstreamName("KX0001A"), "KORUX_01.bit");
}

TEST(BitstreamHeader, ApplicationDirectoryIsTheApplicationsOwnWithoutBundle)
{
    EXPECT_EQ(applicationBitstreamDirectory("/opt/app/bin"), "/opt/app/bin");
    EXPECT_EQ(applicationBitstreamDirectory("/"), "/");
}

TEST(BitstreamHeader, MissingFileReadsAsZeros)
{
    const QByteArray header = readBitstreamHeader("/nonexistent/file.bit");
    EXPECT_EQ(header.size(), 2049);
    EXPECT_EQ(header.count('\0'), 2049);
}

TEST(LatticeAnswer, ByteOrders)
{
    const uint8_t answer[4] = {0x41, 0x2B, 0x40, 0x43};
    EXPECT_EQ(bigEndian32(answer), 0x412B4043u);
    EXPECT_EQ(littleEndian32(answer), 0x43402B41u);
}
