#include "support/PluginHarness.h"

#include <QCoreApplication>
#include <QFile>

#include <functional>
#include <string>

#include "sim/FlashContent.h"

using namespace testing_support;

namespace {

class FpgaTest : public ::testing::Test {
protected:
    PluginHarness host;
    QVeltraXRayKORUXPlugInUnit* unit = nullptr;
    QString applicationFile;

    void SetUp() override
    {
        host.addSensors(1);
        host.bridge().setFpgaConfigured(0, false);
        host.initialize();
        ASSERT_EQ(host.unitCount(), 1);
        unit = host.unit();
        // Port A's serial is KX0001A: the application file is KORUX_01.bit.
        applicationFile = QCoreApplication::applicationDirPath() + "/KORUX_01.bit";
        QFile::remove(applicationFile);
        host.seen().clear();
        host.bridge().clearTrace();
    }

    void TearDown() override { QFile::remove(applicationFile); }

    static std::vector<uint8_t> builtFor(uint32_t deviceId)
    {
        vbridge::BitstreamHeader header;
        header.deviceId = deviceId;
        return vbridge::makeBitstream(header, 30000, 15);
    }

    void putFlashBitstream(const std::vector<uint8_t>& bitstream)
    {
        host.bridge().setFlashContents(0, vbridge::kBtsAddress, vbridge::flashFileImage(bitstream, "BTS KORUX3"));
    }

    void putApplicationBitstream(const std::vector<uint8_t>& bitstream)
    {
        QFile file(applicationFile);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(reinterpret_cast<const char*>(bitstream.data()), static_cast<qint64>(bitstream.size()));
    }

    static vbridge::BitstreamHeader dated(const std::string& date)
    {
        vbridge::BitstreamHeader header;
        header.date = "Date: " + date;
        return header;
    }

    // A cut bitstream never sets the done bit: every update runs twice.
    void putCutBitstream()
    {
        putFlashBitstream(vbridge::makeBitstream(vbridge::BitstreamHeader(), 70000, 3));
    }

    // The calls of one function that one run of such an update makes, once
    // the flash copy is on disk (both runs are then the same), and where in a
    // run (1 = first call) the nth call that matches comes.
    struct CallsOfARun {
        size_t perRun = 0;
        size_t position = 0;
    };
    CallsOfARun callsOfARun(const std::string& function,
        const std::function<bool(const vbridge::TraceEntry&)>& match, int nth = 1)
    {
        unit->flashFPGA(QString());
        host.bridge().clearTrace();
        EXPECT_FALSE(unit->flashFPGA(QString()));
        const auto calls = host.calls(function);
        CallsOfARun result;
        result.perRun = calls.size() / 2;
        EXPECT_EQ(calls.size() % 2, 0u) << function;
        for (size_t i = 0; i < result.perRun && result.position == 0; ++i)
            if (match(calls[i]) && --nth == 0)
                result.position = i + 1;
        EXPECT_NE(result.position, 0u) << function;
        host.seen().clear();
        host.bridge().clearTrace();
        return result;
    }

    // The nth call that matches, in the retry of the next update, fails.
    void failInTheRetry(const std::string& function,
        const std::function<bool(const vbridge::TraceEntry&)>& match, int nth = 1)
    {
        const CallsOfARun calls = callsOfARun(function, match, nth);
        host.bridge().failCall(function, static_cast<int>(calls.perRun + calls.position), FT4222_IO_ERROR);
    }

    // One run of an update, then its retry: two "flashKorux3FPGA with" lines.
    int runs() { return host.seen().count("flashKorux3FPGA with "); }

    // A retry that ended early took nothing from the next update: it runs
    // twice again and ends on the missing done bit.
    void expectTheNextUpdateToRetry()
    {
        host.bridge().clearFaults();
        host.seen().clear();
        EXPECT_FALSE(unit->flashFPGA(QString()));
        EXPECT_EQ(runs(), 2);
        EXPECT_EQ(host.seen().count("flashKorux3FPGA LatticeConfigSend OK."), 2);
        EXPECT_TRUE(host.seen().hasLog("[red]Unexpected status 0!"));
    }

    // Port A single-line writes in order, as hex.
    std::vector<std::string> configFrames()
    {
        std::vector<std::string> frames;
        for (const auto& entry : host.calls("FT4222_SPIMaster_SingleWrite"))
            if (entry.port == 'A' && entry.written.size() == 4)
                frames.push_back(hex(entry.written) + (entry.args.back() ? " end" : " held"));
        return frames;
    }
};

}  // namespace

TEST_F(FpgaTest, ConfiguredFpgaIsLeftAlone)
{
    host.bridge().setFpgaConfigured(0, true);
    EXPECT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("The FPGA is already flashed"));
    EXPECT_TRUE(host.calls("FT4222_GPIO_Write").empty());
    EXPECT_TRUE(configFrames().empty());
}

TEST_F(FpgaTest, UnconfiguredFpgaIsProgrammedFromTheFlashCopy)
{
    EXPECT_TRUE(unit->flashFPGA("ignored.bit"));
    EXPECT_TRUE(host.bridge().fpgaConfigured(0));
    EXPECT_TRUE(host.seen().hasAdvanced("flashKorux3FPGA with ignored.bit"));
    EXPECT_TRUE(host.seen().hasAdvanced("flashKorux3FPGA status is 34 2 8 136"));
    EXPECT_TRUE(host.seen().hasLog("FPGA ID 412b4043 - 4300E"));
    EXPECT_TRUE(host.seen().hasLog("[green,bold]BitStream file sent correctly."));
    EXPECT_TRUE(host.seen().hasLog("[green]KORUX3 is now flashed!"));
    EXPECT_EQ(host.bridge().loadedBitstream(0), vbridge::makeBitstream(vbridge::BitstreamHeader(), 30000, 15));
    EXPECT_EQ(configFrames(), (std::vector<std::string>{"e0 00 00 00 held", "c6 00 00 00 end", "7a 00 00 00 held",
                                                        "3c 00 00 00 held", "26 00 00 00 end"}));
    // The configuration reset pulse on GPIO 2.
    const auto writes = host.calls("FT4222_GPIO_Write");
    ASSERT_EQ(writes.size(), 2u);
    EXPECT_EQ(writes[0].args, (std::vector<int64_t>{2, 0}));
    EXPECT_EQ(writes[1].args, (std::vector<int64_t>{2, 1}));
    EXPECT_EQ(host.bridge().openHandleCount(), 0);
}

TEST_F(FpgaTest, ClassAAnswerIsLoggedInBothByteOrders)
{
    ASSERT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasAdvanced("LatticeSysConfigSendClassA result 412b4043 [43402b41]"));
    EXPECT_TRUE(host.seen().hasAdvanced("LatticeSysConfigSend with e0 0"));
}

TEST_F(FpgaTest, TheOtherKnownDeviceIsNamed)
{
    host.bridge().setFpgaDeviceId(0, 0x412B3043);
    putFlashBitstream(builtFor(0x412B3043));
    ASSERT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("FPGA ID 412b3043 - 2100E"));
}

TEST_F(FpgaTest, UnknownDeviceIsReportedAndProgrammingGoesOn)
{
    host.bridge().setFpgaDeviceId(0, 0x12345678);
    putFlashBitstream(builtFor(0x12345678));
    EXPECT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("[red]Unknown FPGA ID 12345678!"));
    EXPECT_TRUE(host.bridge().fpgaConfigured(0));
}

// The FPGA refuses a bitstream built for another device: DONE stays clear,
// the status register shows Fail (0x2000) with error code 1 (ID) in bits
// 25-23, beside the enabled bit 0x200; the procedure retries once and gives up.
TEST_F(FpgaTest, BitstreamForAnotherDeviceIsRefused)
{
    host.bridge().setFpgaDeviceId(0, 0x412B3043);
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("[red]Unexpected status 802200!"));
    EXPECT_FALSE(host.bridge().fpgaConfigured(0));
}

TEST_F(FpgaTest, CorruptedBitstreamIsRefusedWithACrcError)
{
    std::vector<uint8_t> bitstream = builtFor(0x412B4043);
    bitstream[bitstream.size() / 2] ^= 0x5A;
    putFlashBitstream(bitstream);
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("[red]Unexpected status 1802200!"));
}

TEST_F(FpgaTest, MissingApplicationFileKeepsTheFlashCopy)
{
    ASSERT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("NIVO bitstream doesn't exist : " + applicationFile));
    EXPECT_TRUE(host.seen().hasLog(QString("Use bitstream %1").arg(unit->BTSFileName())));
}

TEST_F(FpgaTest, NewerApplicationFileIsSent)
{
    putFlashBitstream(vbridge::makeBitstream(dated("Mon, 02 Mar 2020 10:00:00 +0000"), 20000, 1));
    const std::vector<uint8_t> newer = vbridge::makeBitstream(dated("Tue, 03 Mar 2020 10:00:00 +0000"), 24000, 2);
    putApplicationBitstream(newer);
    ASSERT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("We have an NIVO bitstream"));
    EXPECT_TRUE(host.seen().hasLog("The two bitstreams start with: Lattice Semiconductor Corporation Bitstream"));
    EXPECT_TRUE(host.seen().hasLog("The flash bitstream version is: Version: Diamond (64-bit) 3.12"));
    EXPECT_TRUE(host.seen().hasLog("The NIVO bitstream parts is: Part: LCMXO2-4000HC-4TG144"));
    EXPECT_EQ(host.seen().count("The flash bitstream design is: Design name: korux_top.ngd"), 1);
    EXPECT_EQ(host.seen().count("The flash bitstream design is: Architecture: machxo2"), 1);
    EXPECT_TRUE(host.seen().hasLog("The NIVO bitstream is more recent than flash bitstream!"));
    EXPECT_TRUE(host.seen().hasLog("Use bitstream " + applicationFile));
    EXPECT_EQ(host.bridge().loadedBitstream(0), newer);
}

TEST_F(FpgaTest, EqualDatesKeepTheFlashCopy)
{
    const std::vector<uint8_t> flash = vbridge::makeBitstream(dated("Mon, 02 Mar 2020 10:00:00 +0000"), 20000, 1);
    putFlashBitstream(flash);
    putApplicationBitstream(vbridge::makeBitstream(dated("Mon, 02 Mar 2020 10:00:00 +0000"), 24000, 2));
    ASSERT_TRUE(unit->flashFPGA(QString()));
    EXPECT_FALSE(host.seen().hasLog("The NIVO bitstream is more recent than flash bitstream!"));
    EXPECT_EQ(host.bridge().loadedBitstream(0), flash);
}

TEST_F(FpgaTest, DifferentFirstTextsKeepTheFlashCopy)
{
    vbridge::BitstreamHeader other = dated("Tue, 03 Mar 2020 10:00:00 +0000");
    other.lattice = "Another Vendor Bitstream";
    putApplicationBitstream(vbridge::makeBitstream(other, 24000, 2));
    ASSERT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog(
        "Lattice strings are different : Lattice Semiconductor Corporation Bitstream vs Another Vendor Bitstream"));
    EXPECT_TRUE(host.seen().hasLog(QString("Use bitstream %1").arg(unit->BTSFileName())));
}

TEST_F(FpgaTest, FirstTextsAreComparedIgnoringCase)
{
    vbridge::BitstreamHeader other = dated("Tue, 03 Mar 2020 10:00:00 +0000");
    other.lattice = "LATTICE SEMICONDUCTOR CORPORATION BITSTREAM";
    putApplicationBitstream(vbridge::makeBitstream(other, 24000, 2));
    ASSERT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("The NIVO bitstream is more recent than flash bitstream!"));
}

TEST_F(FpgaTest, ApplicationFileNotStartingWithFFKeepsTheFlashCopy)
{
    std::vector<uint8_t> odd = vbridge::makeBitstream(dated("Tue, 03 Mar 2020 10:00:00 +0000"), 24000, 2);
    odd[0] = 0xFE;
    putApplicationBitstream(odd);
    ASSERT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog(QString("The NIVO bitstream doesn't start with xFF (%1)!").arg(-2, 16)));
    EXPECT_TRUE(host.seen().hasLog(QString("The flash bitstream doesn't start with xFF (%1)!").arg(-1, 16)));
    EXPECT_TRUE(host.bridge().fpgaConfigured(0));
}

TEST_F(FpgaTest, BitstreamOf70000BytesIsCutAndFailsTwice)
{
    putFlashBitstream(vbridge::makeBitstream(vbridge::BitstreamHeader(), 70000, 3));
    EXPECT_FALSE(unit->flashFPGA(QString()));
    std::vector<int64_t> lengths;
    for (const auto& entry : host.calls("FT4222_SPIMaster_SingleWrite"))
        if (entry.port == 'A' && entry.written.size() > 4)
            lengths.push_back(entry.args[0]);
    EXPECT_EQ(lengths, (std::vector<int64_t>{4464, 4464}));
    EXPECT_EQ(host.seen().count("flashKorux3FPGA LatticeConfigSend OK."), 2);
    EXPECT_TRUE(host.seen().hasLog("[red]Unexpected status 0!"));
    EXPECT_FALSE(host.bridge().fpgaConfigured(0));
}

TEST_F(FpgaTest, RetryFlagIsClearedSoTheNextUpdateRetriesAgain)
{
    putFlashBitstream(vbridge::makeBitstream(vbridge::BitstreamHeader(), 70000, 3));
    EXPECT_FALSE(unit->flashFPGA(QString()));
    host.seen().clear();
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_EQ(host.seen().count("flashKorux3FPGA LatticeConfigSend OK."), 2);
}

TEST_F(FpgaTest, MissingBitstreamFileFails)
{
    host.bridge().setFlashContents(0, vbridge::kBtsAddress, std::vector<uint8_t>(16, 0xFF));
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to open bitStream file!"));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to program the FPGA!"));
    EXPECT_EQ(unit->status(), statusError);
}

TEST_F(FpgaTest, FailingConfigurationEntryFails)
{
    // The second single-line write on port A is the configuration entry.
    host.bridge().failCall("FT4222_SPIMaster_SingleWrite", 2, FT4222_IO_ERROR);
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to send config!"));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to enter programmation mode!"));
    EXPECT_EQ(unit->status(), statusError);
}

TEST_F(FpgaTest, FailingBitstreamTransferFails)
{
    host.bridge().failCall("FT4222_SPIMaster_SingleWrite", 4, FT4222_IO_ERROR);
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("[red]Error while sending bitstream data: IO_ERROR!"));
    EXPECT_EQ(unit->status(), statusError);
}

TEST_F(FpgaTest, FailingIdentifierReadGoesOnWithIdZero)
{
    host.bridge().failCall("FT4222_SPIMaster_SingleRead", 1, FT4222_IO_ERROR);
    EXPECT_TRUE(unit->flashFPGA(QString()));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to Single Read port A IO_ERROR"));
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to send config class A!"));
    EXPECT_TRUE(host.seen().hasLog("[red]Unknown FPGA ID 0!"));
}

TEST_F(FpgaTest, FailingStatusReadFails)
{
    host.bridge().failCall("FT4222_SPIMaster_SingleRead", 2, FT4222_IO_ERROR);
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_EQ(unit->status(), statusError);
}

TEST_F(FpgaTest, UpdateCommandThenAcquisitionWorks)
{
    host.family().gotoStatus(statusFpgaUpdating);
    EXPECT_EQ(host.family().status(), statusFpgaUpdated);
    EXPECT_TRUE(host.bridge().fpgaConfigured(0));
    host.family().gotoStatus(commandGetVoltages);  // sets ports A and D up after the update closed them
    host.family().gotoStatus(statusArming);
    EXPECT_TRUE(host.runUntil([&] { return host.family().status() == statusAcquired; }));
    EXPECT_EQ(host.seen().images.size(), 1u);
}

TEST_F(FpgaTest, StatusDifferingFromTheSignatureInOneFieldIsAlreadyFlashed)
{
    // The unconfigured signature is 0x22, size 2, version 8, diode 0x88; a
    // configured FPGA answers these words as the sensor logic.
    host.bridge().setFpgaConfigured(0, true);
    const vbridge::StatusWord oneOff[]
        = { { 0x22, 0x89, 8, 2 }, { 0x23, 0x88, 8, 2 }, { 0x22, 0x88, 9, 2 }, { 0x22, 0x88, 8, 1 } };
    for (const vbridge::StatusWord& word : oneOff) {
        host.bridge().setStatusWord(0, word);
        host.seen().clear();
        host.bridge().clearTrace();
        EXPECT_TRUE(unit->flashFPGA(QString()));
        EXPECT_TRUE(host.seen().hasLog("The FPGA is already flashed"));
        EXPECT_TRUE(host.calls("FT4222_GPIO_Write").empty());
        EXPECT_TRUE(configFrames().empty());
        EXPECT_TRUE(host.bridge().loadedBitstream(0).empty());
    }
    host.bridge().setStatusWord(0, { 0x22, 0x89, 8, 2 });
    host.seen().clear();
    unit->flashFPGA(QString());
    EXPECT_TRUE(host.seen().hasAdvanced("flashKorux3FPGA status is 34 2 8 137"));
}

TEST_F(FpgaTest, RetryThatCannotOpenThePortsLeavesTheRetryToTheNextUpdate)
{
    putCutBitstream();
    unit->flashFPGA(QString());
    host.bridge().clearTrace();
    const uint64_t before = host.bridge().callCount();
    EXPECT_FALSE(unit->flashFPGA(QString()));
    const uint64_t update = host.bridge().callCount() - before;
    ASSERT_EQ(update % 2, 0u);
    host.seen().clear();
    // Unplugged at the first call of the retry: its ports do not open.
    host.bridge().unplugAtCall(0, update / 2 + 1);
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_EQ(runs(), 2);
    EXPECT_FALSE(host.seen().hasLog("[red]Unexpected status 0!"));
    host.bridge().plug(0);
    expectTheNextUpdateToRetry();
}

TEST_F(FpgaTest, RetryThatFindsTheFpgaFlashedLeavesTheRetryToTheNextUpdate)
{
    putCutBitstream();
    unit->flashFPGA(QString());
    host.seen().clear();
    // The FPGA comes up configured between the first run and its retry.
    int started = 0;
    const QMetaObject::Connection watch
        = QObject::connect(unit, &QVeltraHardwareUnit::logAdvancedText, [&](const QString& line) {
              if (line == "flashKorux3FPGA with " && ++started == 2)
                  host.bridge().setFpgaConfigured(0, true);
          });
    EXPECT_TRUE(unit->flashFPGA(QString()));
    QObject::disconnect(watch);
    EXPECT_EQ(runs(), 2);
    EXPECT_TRUE(host.seen().hasLog("The FPGA is already flashed"));
    host.bridge().setFpgaConfigured(0, false);
    expectTheNextUpdateToRetry();
}

TEST_F(FpgaTest, RetryWhosePortSetUpFailsLeavesTheRetryToTheNextUpdate)
{
    putCutBitstream();
    // Port A set up for programming: one data line.
    failInTheRetry("FT4222_SPIMaster_Init", [](const vbridge::TraceEntry& e) {
        return e.port == 'A' && !e.args.empty() && e.args[0] == SPI_IO_SINGLE;
    });
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_EQ(runs(), 2);
    EXPECT_EQ(host.seen().count("[red]Unable to initialize Port A!"), 1);
    expectTheNextUpdateToRetry();
}

TEST_F(FpgaTest, RetryWhoseConfigurationEntryFailsLeavesTheRetryToTheNextUpdate)
{
    putCutBitstream();
    failInTheRetry("FT4222_SPIMaster_SingleWrite", [](const vbridge::TraceEntry& e) {
        return e.port == 'A' && !e.written.empty() && e.written[0] == 0xC6;
    });
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_EQ(runs(), 2);
    EXPECT_EQ(host.seen().count("[red]Unable to enter programmation mode!"), 1);
    expectTheNextUpdateToRetry();
}

TEST_F(FpgaTest, RetryWhoseBitstreamSendFailsLeavesTheRetryToTheNextUpdate)
{
    putCutBitstream();
    failInTheRetry("FT4222_SPIMaster_SingleWrite",
        [](const vbridge::TraceEntry& e) { return e.port == 'A' && e.written.size() > 4; });
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_EQ(runs(), 2);
    EXPECT_EQ(host.seen().count("[red]Unable to program the FPGA!"), 1);
    expectTheNextUpdateToRetry();
}

TEST_F(FpgaTest, RetryWhoseStatusReadFailsLeavesTheRetryToTheNextUpdate)
{
    putCutBitstream();
    // The second single-line read of a run is the configuration status.
    failInTheRetry(
        "FT4222_SPIMaster_SingleRead", [](const vbridge::TraceEntry& e) { return e.port == 'A'; }, 2);
    EXPECT_FALSE(unit->flashFPGA(QString()));
    EXPECT_EQ(runs(), 2);
    EXPECT_EQ(host.seen().count("[red]Unable to send config class A!"), 1);
    EXPECT_FALSE(host.seen().hasLog("[red]Unexpected status 0!"));
    expectTheNextUpdateToRetry();
}
