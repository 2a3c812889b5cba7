#include "support/PluginHarness.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cstring>

#include "sim/FlashContent.h"

using namespace testing_support;

namespace {

constexpr uint64_t kUniqueId = 0x0123456789ABCDEFull;
const QString kBoardSerial = "0123456789ABCDEF";

std::vector<uint8_t> pattern(size_t size, uint32_t seed = 1)
{
    std::vector<uint8_t> data(size);
    uint32_t x = seed;
    for (uint8_t& byte : data) {
        x = x * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(x >> 24);
    }
    return data;
}

class FlashTest : public ::testing::Test {
protected:
    PluginHarness host;
    QVeltraXRayKORUXPlugInUnit* unit = nullptr;

    void SetUp() override
    {
        vbridge::SensorConfig config;
        config.defaultFlash = false;
        config.uniqueId = kUniqueId;
        host.bridge().addSensor(config);
        host.initialize();
        ASSERT_EQ(host.unitCount(), 1);
        unit = host.unit();
        ASSERT_TRUE(unit->openPorts());
        ASSERT_TRUE(unit->initPortC(false));
        host.bridge().clearTrace();
        host.seen().clear();
    }

    std::vector<vbridge::TraceEntry> portCWrites(const std::string& function)
    {
        std::vector<vbridge::TraceEntry> result;
        for (const auto& entry : host.calls(function))
            if (entry.port == 'C')
                result.push_back(entry);
        return result;
    }

    // Sector-erase commands seen on the wire since the last clear.
    std::vector<std::string> eraseCommands()
    {
        std::vector<std::string> frames;
        for (const auto& entry : portCWrites("FT4222_SPIMaster_SingleReadWrite"))
            if (!entry.written.empty() && entry.written[0] == 0x20)
                frames.push_back(hex(entry.written));
        return frames;
    }

    void putFile(uint32_t address, const std::vector<uint8_t>& content)
    {
        host.bridge().setFlashContents(0, address, vbridge::flashFileImage(content));
    }

    void giveBoardSerial()
    {
        QString serial;
        ASSERT_TRUE(unit->readSerialNumber(serial));
        host.bridge().clearTrace();
        host.seen().clear();
    }

    // A copy already in the family directory, as a previous run left it.
    QString writeLocalFile(const QString& name, const QByteArray& bytes)
    {
        const QString path = QDir(host.directory()).filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return path;
    }

    QByteArray fileBytes(const QString& name)
    {
        QFile file(QDir(host.directory()).filePath(name));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return file.readAll();
    }

    void putCounter(const std::vector<uint32_t>& values)
    {
        host.bridge().setFlashContents(0, vbridge::kCounterAddress, vbridge::counterAreaImage(values));
    }

    unsigned int counter()
    {
        unsigned int value = 0;
        int index = 0;
        EXPECT_TRUE(unit->getShootCounter(&value, &index));
        return value;
    }
};

}  // namespace

TEST_F(FlashTest, SerialNumberIsTheFlashUniqueIdentifier)
{
    QString serial;
    ASSERT_TRUE(unit->readSerialNumber(serial));
    EXPECT_EQ(serial, kBoardSerial);
    EXPECT_EQ(unit->boardSerial(), kBoardSerial);
    const auto exchanges = portCWrites("FT4222_SPIMaster_SingleReadWrite");
    bool sent = false;
    for (const auto& entry : exchanges)
        if (hex(entry.written) == hex(bytes({0x4B, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0})))
            sent = true;
    EXPECT_TRUE(sent);
    ASSERT_EQ(host.seen().data.size(), 1);
    EXPECT_EQ(reportValues(host.seen().data[0]).value("serialNumber").toString(), kBoardSerial);
    EXPECT_TRUE(host.seen().data[0].contains("\"KORUX-KORUX2 Series\""));
    EXPECT_TRUE(host.seen().hasAdvanced("[green]" + host.seen().data[0]));
}

TEST_F(FlashTest, ReadAboveTwentyFourBitsSendsOnlyTheLowAddressBytes)
{
    unsigned char page[256];
    ASSERT_TRUE(KoruxUnitAccess::readFlash(*unit, page, 256, 0x1234567));
    const auto reads = portCWrites("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(hex(reads[0].written), hex(bytes({0xEB, 0x23, 0x45, 0x67, 0xF0, 0x00, 0x00})));
    EXPECT_EQ(reads[0].args, (std::vector<int64_t>{1, 6, 256}));
    EXPECT_TRUE(host.seen().hasLog("readFlash @0x01234567"));
}

TEST_F(FlashTest, QuadReadReturnsTheFlashBytes)
{
    const std::vector<uint8_t> data = pattern(4096);
    host.bridge().setFlashContents(0, 0x200000, data);
    std::vector<unsigned char> buffer(4096);
    ASSERT_TRUE(KoruxUnitAccess::readFlash(*unit, buffer.data(), 4096, 0x200000));
    EXPECT_EQ(std::vector<uint8_t>(buffer.begin(), buffer.end()), data);
}

TEST_F(FlashTest, EraseOfNothingSendsNothing)
{
    ASSERT_TRUE(KoruxUnitAccess::eraseFlash(*unit, 0x100000, 0));
    EXPECT_TRUE(eraseCommands().empty());
    EXPECT_TRUE(host.seen().hasLog("[green]Flash erased"));
    EXPECT_TRUE(host.seen().hasAdvanced("eraseFlash @0x00100000 0 bytes"));
}

TEST_F(FlashTest, EraseOfOneSectorSendsSixteenCommandsForIt)
{
    host.bridge().setFlashContents(0, 0x123000, pattern(4096));
    ASSERT_TRUE(KoruxUnitAccess::eraseFlash(*unit, 0x123000, 4096));
    std::vector<std::string> expected;
    for (int k = 0; k < 16; ++k)
        expected.push_back(hex(bytes({0x20, 0x12, 0x30 + k, 0x00})));
    EXPECT_EQ(eraseCommands(), expected);
    EXPECT_EQ(host.bridge().flashContents(0, 0x123000, 4096), std::vector<uint8_t>(4096, 0xFF));
    // Write enable goes out once, before the loop, and each erase clears it:
    // the chip carries out the first command and ignores the fifteen others.
    EXPECT_EQ(host.bridge().flashStats(0).sectorErases[0x123], 1u);
    EXPECT_EQ(host.bridge().flashStats(0).ignoredWithoutWriteEnable, 15u);
}

// writeFlash sends 0x32 (quad page program) with its data on one line. The
// chip takes 0x32's data on four lines: each byte's eight clocks give it four
// bytes whose nibbles are 1110 or 1111 (IO0 carries the bit, IO1 to IO3 float
// high), and of a page's 1024 such bytes the last 256 stay in its buffer. So
// each page holds the expansion of its last 64 data bytes, not the data.
std::vector<uint8_t> quadProgramOfSingleLineData(const std::vector<uint8_t>& data)
{
    std::vector<uint8_t> pages;
    for (size_t page = 0; page < data.size(); page += 256)
        for (size_t i = page + 192; i < page + 256; ++i)
            for (int pair = 0; pair < 4; ++pair) {
                const int high = (data[i] >> (7 - 2 * pair)) & 1;
                const int low = (data[i] >> (6 - 2 * pair)) & 1;
                pages.push_back(static_cast<uint8_t>(((0xE | high) << 4) | (0xE | low)));
            }
    return pages;
}

TEST_F(FlashTest, WriteOfTenBytesErasesOnceAndProgramsAWholeSector)
{
    std::vector<uint8_t> data = pattern(4096, 7);
    host.bridge().setFlashContents(0, 0x300000, pattern(4096, 9));
    ASSERT_TRUE(KoruxUnitAccess::writeFlash(*unit, data.data(), 10, 0x300000, true, false));
    EXPECT_EQ(eraseCommands(), (std::vector<std::string>{hex(bytes({0x20, 0x30, 0x00, 0x00}))}));
    EXPECT_EQ(host.bridge().flashContents(0, 0x300000, 4096), quadProgramOfSingleLineData(data));
    EXPECT_EQ(host.bridge().flashStats(0).pagePrograms, 16u);
    EXPECT_EQ(host.bridge().flashStats(0).zeroToOneAttempts, 0u);
    EXPECT_TRUE(host.seen().hasAdvanced(" Clock speed is %d."));
}

TEST_F(FlashTest, FormatWithWorkingWriteEnableSendsNoChipErase)
{
    host.bridge().setFlashContents(0, 0, pattern(16));
    EXPECT_FALSE(unit->formatFlash());
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Unable to formatFlash"));
    EXPECT_TRUE(portCWrites("FT4222_SPIMaster_SingleWrite").empty());
    EXPECT_EQ(host.bridge().flashStats(0).chipErases, 0u);
}

TEST_F(FlashTest, FormatSendsTheChipEraseWhenWriteEnableReportsFailure)
{
    host.bridge().setFlashContents(0, 0, pattern(16));
    // The write-enable transfer itself reaches the chip; its status read back fails.
    host.bridge().failCall("FT4222_SPIMaster_SingleReadWrite", 3, FT4222_IO_ERROR);
    EXPECT_TRUE(unit->formatFlash());
    const auto writes = portCWrites("FT4222_SPIMaster_SingleWrite");
    ASSERT_EQ(writes.size(), 1u);
    EXPECT_EQ(hex(writes[0].written), "60");
    EXPECT_TRUE(host.seen().hasLog("[green]Flash formatted"));
    EXPECT_EQ(host.bridge().flashContents(0, 0, 16), std::vector<uint8_t>(16, 0xFF));
}

TEST_F(FlashTest, ResetSendsResetEnableThenReset)
{
    ASSERT_TRUE(KoruxUnitAccess::resetFlash(*unit));
    std::vector<std::string> frames;
    for (const auto& entry : portCWrites("FT4222_SPIMaster_SingleReadWrite"))
        frames.push_back(hex(entry.written));
    EXPECT_EQ(frames, (std::vector<std::string>{"66", "99"}));
    EXPECT_TRUE(host.seen().hasAdvanced("resetFlash success."));
}

TEST_F(FlashTest, BusyFlagFollowsTheChip)
{
    bool busy = true;
    ASSERT_TRUE(KoruxUnitAccess::isFlashBusy(*unit, &busy));
    EXPECT_FALSE(busy);
}

TEST_F(FlashTest, FiveByteFileIsCopiedFromOffsetSixteen)
{
    giveBoardSerial();
    putFile(0x010000, {1, 2, 3, 4, 5});
    ASSERT_TRUE(unit->readFFCFile(false));
    EXPECT_EQ(fileBytes(kBoardSerial + ".FFC"), QByteArray("\x01\x02\x03\x04\x05", 5));
    EXPECT_TRUE(host.seen().hasAdvanced("file created successfully " + QDir(host.directory()).filePath(kBoardSerial + ".FFC")));
    EXPECT_EQ(host.bridge().openHandleCount(), 0);
}

TEST_F(FlashTest, FileOfExactly4080BytesNeedsNoSecondRead)
{
    giveBoardSerial();
    const std::vector<uint8_t> content = pattern(4080);
    putFile(0x500000, content);
    ASSERT_TRUE(unit->readBLKFile(false));
    EXPECT_EQ(portCWrites("FT4222_SPIMaster_MultiReadWrite").size(), 1u);
    EXPECT_EQ(fileBytes(kBoardSerial + ".BLK"), QByteArray(reinterpret_cast<const char*>(content.data()), 4080));
}

TEST_F(FlashTest, FileOf4081BytesReadsOneMoreChunkForOneByte)
{
    giveBoardSerial();
    const std::vector<uint8_t> content = pattern(4081);
    putFile(0x500000, content);
    ASSERT_TRUE(unit->readBLKFile(false));
    const auto reads = portCWrites("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(reads.size(), 2u);
    EXPECT_EQ(reads[1].args, (std::vector<int64_t>{1, 6, 61440}));
    EXPECT_EQ(hex(reads[1].written), hex(bytes({0xEB, 0x50, 0x10, 0x00, 0xF0, 0x00, 0x00})));
    EXPECT_EQ(fileBytes(kBoardSerial + ".BLK").size(), 4081);
}

TEST_F(FlashTest, LargestFileIsCopiedByteExactIn70Reads)
{
    giveBoardSerial();
    const std::vector<uint8_t> content = pattern(0x3FFFFF, 3);
    putFile(0xA00000, content);
    ASSERT_TRUE(unit->readDPLFile(false));
    EXPECT_EQ(portCWrites("FT4222_SPIMaster_MultiReadWrite").size(), 70u);
    const QByteArray copy = fileBytes(kBoardSerial + ".DPL");
    ASSERT_EQ(copy.size(), 0x3FFFFF);
    EXPECT_EQ(std::memcmp(copy.constData(), content.data(), content.size()), 0);
}

TEST_F(FlashTest, FourMebibyteSizeIsInvalid)
{
    giveBoardSerial();
    host.bridge().setFlashContents(0, 0x010000, {0x00, 0x40, 0x00, 0x00, '<'});
    EXPECT_FALSE(unit->readFFCFile(false));
    EXPECT_TRUE(host.seen().hasLog("Invalid file size at @0x00010000 (4194304 Bytes)!"));
}

TEST_F(FlashTest, ErasedAreaHasNoData)
{
    giveBoardSerial();
    EXPECT_FALSE(unit->readASSFile(false));
    EXPECT_TRUE(host.seen().hasLog("no data to be read!"));
    EXPECT_FALSE(QFileInfo::exists(QDir(host.directory()).filePath(kBoardSerial + ".ASS")));
}

TEST_F(FlashTest, FourZeroBytesAreNoDataToo)
{
    giveBoardSerial();
    host.bridge().setFlashContents(0, 0x001000, {0, 0, 0, 0});
    EXPECT_FALSE(unit->readASSFile(false));
    EXPECT_TRUE(host.seen().hasLog("no data to be read!"));
    EXPECT_FALSE(host.seen().hasLog("No file present at @0x00001000!"));
}

TEST_F(FlashTest, ExistingFileOfTheSameSizeIsKeptWithoutOverwrite)
{
    giveBoardSerial();
    putFile(0x010000, {1, 2, 3});
    const QString path = writeLocalFile(kBoardSerial + ".FFC", "abc");
    ASSERT_TRUE(unit->readFFCFile(false));
    EXPECT_EQ(fileBytes(kBoardSerial + ".FFC"), QByteArray("abc"));
    EXPECT_TRUE(host.seen().hasAdvanced("the file already exists " + path));
}

TEST_F(FlashTest, ExistingFileOfTheSameSizeIsReplacedWithOverwrite)
{
    giveBoardSerial();
    putFile(0x010000, {1, 2, 3});
    const QString path = writeLocalFile(kBoardSerial + ".FFC", "abc");
    ASSERT_TRUE(unit->readFFCFile(true));
    EXPECT_EQ(fileBytes(kBoardSerial + ".FFC"), QByteArray("\x01\x02\x03", 3));
    EXPECT_TRUE(host.seen().hasAdvanced("the file will be overwrited " + path));
}

TEST_F(FlashTest, ExistingFileOfAnotherSizeIsReplacedSilently)
{
    giveBoardSerial();
    putFile(0x010000, {1, 2, 3});
    const QString path = writeLocalFile(kBoardSerial + ".FFC", "abcdef");
    ASSERT_TRUE(unit->readFFCFile(false));
    EXPECT_EQ(fileBytes(kBoardSerial + ".FFC"), QByteArray("\x01\x02\x03", 3));
    for (const QString& line : host.seen().advanced)
        EXPECT_FALSE(line.startsWith("the file"));
}

TEST_F(FlashTest, CheckOnlyLooksAtTheHeaderMarks)
{
    giveBoardSerial();
    putFile(0x010000, {1, 2, 3});
    EXPECT_TRUE(unit->readFlashFile("unused", 0x010000, true, false));
    host.bridge().setFlashContents(0, 0x010000, {0, 0, 0, 3, 'x'});
    EXPECT_FALSE(unit->readFlashFile("unused", 0x010000, true, false));
    EXPECT_FALSE(QFileInfo::exists("unused"));
}

TEST_F(FlashTest, FailedReadInTheMiddleLeavesATruncatedFile)
{
    giveBoardSerial();
    const std::vector<uint8_t> content = pattern(200000);
    putFile(0x500000, content);
    // The first chunk and one more succeed; the third read fails.
    host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 3, FT4222_IO_ERROR);
    EXPECT_FALSE(unit->readBLKFile(false));
    EXPECT_TRUE(host.seen().hasLog("readFlash error @0x00510000!"));
    // What was read before the failure is on disk, and nothing else.
    EXPECT_EQ(fileBytes(kBoardSerial + ".BLK"),
        QByteArray(reinterpret_cast<const char*>(content.data()), 4080 + 61440));
}

TEST_F(FlashTest, FlashPageReportCarriesThePageInHex)
{
    giveBoardSerial();
    std::vector<uint8_t> page = pattern(256);
    host.bridge().setFlashContents(0, 0x001100, page);
    ASSERT_TRUE(unit->technicReadFlashPage(0x001100));
    ASSERT_EQ(host.seen().data.size(), 1);
    const QJsonObject values = reportValues(host.seen().data[0]);
    EXPECT_EQ(values.value("serialNumber").toString(), kBoardSerial);
    EXPECT_EQ(values.value("address").toInt(), 0x1100);
    std::string expected = hex(page);
    expected.erase(std::remove(expected.begin(), expected.end(), ' '), expected.end());
    EXPECT_EQ(values.value("flashPage").toString().toStdString(), expected);
    EXPECT_TRUE(host.seen().hasAdvanced("technicReadFlashPage @0x00001100"));
}

TEST_F(FlashTest, ErasedCounterIsZeroAndTheFirstIncreaseWritesSlotZero)
{
    EXPECT_EQ(counter(), 0u);
    const QJsonObject first = reportValues(host.seen().data.last());
    EXPECT_EQ(first.value("index").toInt(), -1);
    ASSERT_TRUE(unit->setShootCounter(0xFFFFFFFF));
    EXPECT_EQ(host.bridge().flashContents(0, 0xFA0000, 4), bytes({0, 0, 0, 1}));
    EXPECT_TRUE(host.seen().hasAdvanced("Set shoot counter to 4294967295."));
    EXPECT_TRUE(host.seen().hasAdvanced("[yellow]Auto counter: last value plus one: 1."));
}

TEST_F(FlashTest, CounterWriteIsOneQuadProgramOfTheNextSlot)
{
    putCounter({5, 9, 10});
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->setShootCounter(11));
    std::vector<vbridge::TraceEntry> programs;
    for (const auto& entry : portCWrites("FT4222_SPIMaster_MultiReadWrite"))
        if (!entry.written.empty() && entry.written[0] == 0x32)
            programs.push_back(entry);
    ASSERT_EQ(programs.size(), 1u);
    EXPECT_EQ(hex(programs[0].written), hex(bytes({0x32, 0xFA, 0x00, 0x0C, 0, 0, 0, 11})));
    EXPECT_EQ(programs[0].args, (std::vector<int64_t>{4, 4, 0}));
    EXPECT_EQ(counter(), 11u);
}

TEST_F(FlashTest, LowerValueLandsOnTheSameSlotAsTheAndOfBoth)
{
    putCounter({5, 9, 9});
    unsigned int value = 0;
    int index = 0;
    ASSERT_TRUE(unit->getShootCounter(&value, &index));
    EXPECT_EQ(value, 9u);
    EXPECT_EQ(index, 1);
    ASSERT_TRUE(unit->setShootCounter(6));
    EXPECT_EQ(host.bridge().flashContents(0, 0xFA0008, 4), bytes({0, 0, 0, 9 & 6}));
    // The chip cannot turn the zeros of 9 back into the ones of 6.
    EXPECT_EQ(host.bridge().flashStats(0).zeroToOneAttempts, 1u);
    EXPECT_EQ(counter(), 9u);
}

TEST_F(FlashTest, FullAreaWrapsToSlotZeroAfterErasingTheFourSectors)
{
    std::vector<uint32_t> values(4096);
    for (int i = 0; i < 4096; ++i)
        values[i] = 1000 + i;
    putCounter(values);
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->setShootCounter(0xFFFFFFFF));
    EXPECT_TRUE(host.seen().hasAdvanced("[yellow]The sector has been fully used. Erase it and restart at first index."));
    EXPECT_EQ(eraseCommands(), (std::vector<std::string>{hex(bytes({0x20, 0xFA, 0x00, 0})), hex(bytes({0x20, 0xFA, 0x10, 0})),
                                                         hex(bytes({0x20, 0xFA, 0x20, 0})), hex(bytes({0x20, 0xFA, 0x30, 0}))}));
    EXPECT_EQ(host.bridge().flashContents(0, 0xFA0000, 8), bytes({0, 0, 0x13, 0xE8, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(counter(), 5096u);
}

TEST_F(FlashTest, AllOnesSlotIsNeverAValue)
{
    putCounter({0xFFFFFFFE, 0xFFFFFFFF});
    unsigned int value = 0;
    int index = 0;
    ASSERT_TRUE(unit->getShootCounter(&value, &index));
    EXPECT_EQ(value, 0xFFFFFFFEu);
    EXPECT_EQ(index, 0);
}

TEST_F(FlashTest, FailedCounterReadWritesNothing)
{
    host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 1, FT4222_IO_ERROR);
    EXPECT_FALSE(unit->setShootCounter(0xFFFFFFFF));
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Unable to get current shoot counter."));
    EXPECT_EQ(host.bridge().flashStats(0).pagePrograms, 0u);
    EXPECT_TRUE(host.seen().data.isEmpty());
}

TEST_F(FlashTest, FiveThousandIncreasesWrapOnceAndEraseEachSectorOnce)
{
    putCounter({7});
    host.bridge().clearFlashStats(0);
    for (int i = 0; i < 5000; ++i)
        ASSERT_TRUE(unit->setShootCounter(0xFFFFFFFF)) << i;
    EXPECT_EQ(counter(), 5007u);
    const vbridge::FlashStats stats = host.bridge().flashStats(0);
    for (int sector = 0xFA0; sector < 0xFA4; ++sector)
        EXPECT_EQ(stats.sectorErases[sector], 1u) << sector;
    EXPECT_EQ(stats.zeroToOneAttempts, 0u);
    EXPECT_EQ(host.seen().count("[yellow]The sector has been fully used. Erase it and restart at first index."), 1);
}

TEST_F(FlashTest, InformationReadFillsTheIdentity)
{
    host.bridge().setStatusWord(0, {0x40, 428, 0x1A & 0x0F, 2});
    QFile prd(QDir(host.directory()).filePath(kBoardSerial + ".PRD"));
    ASSERT_TRUE(prd.open(QIODevice::WriteOnly));
    prd.write("SN=1\r\n[KORUX3]\r\nSNCapteur=C77\r\nTechnology=gadox\r\n");
    prd.close();
    ASSERT_TRUE(unit->readInformation(true));
    EXPECT_EQ(unit->boardSerial(), kBoardSerial);
    EXPECT_EQ(unit->serial(), "1");
    EXPECT_EQ(unit->sensorSerial(), "C77");
    EXPECT_EQ(unit->technology(), technologyGadox);
    EXPECT_EQ(unit->size(), size2);
    EXPECT_EQ(unit->firmware(), "a");
    EXPECT_TRUE(host.seen().hasLog("Sensor size is S2"));
    EXPECT_TRUE(host.seen().hasLog("[yellow]Sensor is standalone"));
}

TEST_F(FlashTest, MissingInformationFileStillSucceedsWithTechnologyThree)
{
    unit->setSerial("keep");
    ASSERT_TRUE(unit->readInformation(true));
    EXPECT_EQ(unit->technology(), technologyCsI);
    EXPECT_EQ(unit->serial(), "keep");
    EXPECT_EQ(unit->size(), size1);
    EXPECT_EQ(unit->firmware(), "2");
}

TEST_F(FlashTest, SensorNeverReadyGivesElevenStatusReads)
{
    host.bridge().setStatusWord(0, {0x00, 428, 2, 1});
    EXPECT_FALSE(unit->readInformation(true));
    int statusReads = 0;
    for (const auto& entry : host.calls("FT4222_SPIMaster_MultiReadWrite"))
        if (hex(entry.written) == hex(bytes({0xA1, 0x80, 0xCA, 0xFE})))
            ++statusReads;
    EXPECT_EQ(statusReads, 11);
    EXPECT_TRUE(host.seen().hasLog("Sensor is not ready"));
}

TEST_F(FlashTest, UnknownSizeCodeFailsTheInformationRead)
{
    host.bridge().setStatusWord(0, {0x40, 428, 2, 3});
    EXPECT_FALSE(unit->readInformation(true));
    EXPECT_TRUE(host.seen().hasLog("Sensor size not readable"));
    EXPECT_EQ(unit->size(), sizeUnknown);
    EXPECT_EQ(unit->firmware(), "2");
}

TEST_F(FlashTest, CalibrationFileNameReadsTheIdentityFirst)
{
    EXPECT_EQ(unit->boardSerial(), "");
    unit->setBoardSerial("unknown");
    const QString name = unit->FFCFileName();
    EXPECT_EQ(name, QDir(host.directory()).filePath(kBoardSerial + ".FFC"));
    EXPECT_TRUE(host.seen().hasLog("readInformation"));
}
