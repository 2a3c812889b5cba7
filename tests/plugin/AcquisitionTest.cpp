#include "support/PluginHarness.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>

using namespace testing_support;

namespace {

class AcquisitionTest : public ::testing::Test {
protected:
    PluginHarness host;

    void start(const vbridge::SensorConfig& config = vbridge::SensorConfig(), int sensors = 1)
    {
        for (int i = 0; i < sensors; ++i)
            host.bridge().addSensor(config);
        host.initialize();
        ASSERT_EQ(host.unitCount(), sensors);
        // The FPGA check leads to a status that accepts arming, and sets up
        // ports A and D on the way (arming reads the status before it resets
        // the sensor channel).
        host.family().gotoStatus(statusFpgaUpdating);
        ASSERT_EQ(host.family().status(), statusFpgaUpdated);
        host.seen().clear();
        host.bridge().clearTrace();
    }

    bool acquire(int timeoutMs = 8000)
    {
        host.family().gotoStatus(statusArming);
        return host.runUntil([this] { return host.family().status() == statusAcquired; }, timeoutMs);
    }

    // The unit's own status changes, for polling that ends on the unit.
    bool waitForLog(const QString& line, int timeoutMs = 5000)
    {
        return host.runUntil([&] { return host.seen().hasLog(line); }, timeoutMs);
    }
};

}  // namespace

// X-rays that come and go between two polling ticks: the unit goes from
// armed straight to the read-out without seeing an integration. They come
// right after the tick that saw the sensor armed; the next is 250 ms later.
TEST_F(AcquisitionTest, ShortExposureGoesFromArmedToDeliveredImage)
{
    vbridge::SensorConfig config;
    config.autoExposure = false;
    config.readoutMs = 0;
    start(config);
    vbridge::Exposure shot;
    shot.durationMs = 5;
    bool fired = false;
    QObject::connect(host.unit(), &QVeltraHardwareUnit::logText, [&](const QString& text) {
        if (text == "[cyan]Armed" && !fired) {
            fired = true;
            host.bridge().triggerExposure(0, shot);
        }
    });
    const uint32_t before = host.storedCounter();
    ASSERT_TRUE(acquire());
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusArming, statusArmed, statusAcquiring, statusAcquired}));
    ASSERT_EQ(host.seen().images.size(), 1u);
    const SignalLog::Image& delivered = host.seen().images[0];
    EXPECT_FALSE(delivered.withBlack);
    EXPECT_EQ(delivered.image.size(), QSize(1000, 1506));
    EXPECT_EQ(delivered.image.format(), QImage::Format_Grayscale16);
    EXPECT_TRUE(delivered.description.contains("\r\ndirectUnarmed=true\r\n"));
    EXPECT_EQ(host.storedCounter(), before + 1);
    EXPECT_TRUE(host.seen().hasLog("[green]sensor armed"));
    EXPECT_TRUE(host.seen().hasLog("[cyan]Acquired"));
}

TEST_F(AcquisitionTest, DeliveredPixelsAreTheSensorsInHostOrder)
{
    start();
    ASSERT_TRUE(acquire());
    ASSERT_EQ(host.seen().images.size(), 1u);
    const QImage& image = host.seen().images[0].image;
    const std::vector<uint16_t> expected = host.bridge().lastImage(0);
    ASSERT_EQ(expected.size(), static_cast<size_t>(image.width() * image.height()));
    size_t mismatches = 0;
    for (int y = 0; y < image.height(); ++y) {
        const auto* row = reinterpret_cast<const uint16_t*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x)
            mismatches += row[x] != expected[static_cast<size_t>(y) * image.width() + x];
    }
    EXPECT_EQ(mismatches, 0u);
    // The size code rides in the top bits of the first pixel.
    EXPECT_EQ(reinterpret_cast<const uint16_t*>(image.constScanLine(0))[0] >> 14, 1);
}

TEST_F(AcquisitionTest, ArmFrameCarriesThresholdAndAceOnFourLines)
{
    start();
    host.family().gotoStatus(statusArming);
    std::vector<vbridge::TraceEntry> arms;
    for (const auto& entry : host.calls("FT4222_SPIMaster_MultiReadWrite"))
        if (entry.written.size() == 9)
            arms.push_back(entry);
    ASSERT_EQ(arms.size(), 1u);
    // Firmware version 2 scales its own energy: coefficient 1, so ACE = 25000.
    EXPECT_EQ(hex(arms[0].written), hex(bytes({0xA1, 0x00, 0xCA, 0xFE, 0x41, 0xB8, 0x00, 0x61, 0xA8})));
    EXPECT_EQ(arms[0].args, (std::vector<int64_t>{4, 5, 0}));
    EXPECT_EQ(host.bridge().lastArm(0).threshold, 440);
    EXPECT_EQ(host.bridge().lastArm(0).ace, 25000u);
    EXPECT_TRUE(host.seen().hasLog("arm ACE coeff=1 - value=25000"));
    EXPECT_TRUE(host.runUntil([&] { return host.family().status() == statusAcquired; }));
}

TEST_F(AcquisitionTest, LongExposureIsFollowedThroughIntegration)
{
    vbridge::SensorConfig config;
    config.exposure.delayMs = 50;
    config.exposure.durationMs = 700;
    start(config);
    ASSERT_TRUE(acquire());
    const std::vector<int>& statuses = host.seen().statuses;
    EXPECT_NE(std::find(statuses.begin(), statuses.end(), statusIntegrating), statuses.end());
    EXPECT_NE(std::find(statuses.begin(), statuses.end(), statusIntegrated), statuses.end());
    EXPECT_EQ(statuses.back(), statusAcquired);
    ASSERT_EQ(host.seen().images.size(), 1u);
    EXPECT_TRUE(host.seen().images[0].description.contains("\r\ndirectUnarmed=false\r\n"));
    EXPECT_TRUE(host.seen().hasLog("[cyan]Integrating"));
    EXPECT_TRUE(host.seen().hasLog("[cyan]Integrated"));
}

TEST_F(AcquisitionTest, LargeSensorDeliversTheLargeImage)
{
    vbridge::SensorConfig config;
    config.sizeCode = 2;
    start(config);
    ASSERT_TRUE(acquire());
    ASSERT_EQ(host.seen().images.size(), 1u);
    EXPECT_EQ(host.seen().images[0].image.size(), QSize(1300, 1706));
    EXPECT_TRUE(host.seen().images[0].description.contains("\r\nSize=2\r\n"));
    // 67 full blocks and the rounded last read, each once and in order. An
    // integration seen to end is followed by a read of block 0 to check that
    // the image is there; nothing else comes before the read-out.
    std::vector<int> blocks;
    for (const auto& entry : host.calls("FT4222_SPIMaster_MultiReadWrite"))
        if (entry.written.size() == 4 && entry.written[0] == 0xA0 && entry.written[1] >= 0x80 && entry.written[1] != 0xE4)
            blocks.push_back(entry.written[1] - 0x80);
    ASSERT_GE(blocks.size(), 68u);
    const std::vector<int> checks(blocks.begin(), blocks.end() - 68);
    EXPECT_LE(checks.size(), 1u);
    EXPECT_TRUE(std::all_of(checks.begin(), checks.end(), [](int block) { return block == 0; }));
    for (int i = 0; i < 68; ++i)
        EXPECT_EQ(blocks[blocks.size() - 68 + i], i);
}

TEST_F(AcquisitionTest, DescriptionOfAStandAloneSensorHasTwoSections)
{
    start();
    // The serials come from the information file, once it is copied. The
    // copy closes the ports; a voltage read sets ports A and D up again.
    host.family().gotoStatus(commandReadAllFlashFiles);
    host.family().gotoStatus(commandGetVoltages);
    ASSERT_TRUE(acquire());
    const QString text = host.seen().images[0].description;
    EXPECT_TRUE(text.startsWith("\r\n[ACQUISITION]\r\n"));
    const int sensor = text.indexOf("[SENSOR]\r\n");
    ASSERT_GT(sensor, 0);
    EXPECT_EQ(text.count('['), 2);
    EXPECT_TRUE(text.contains("Type=KORUX-KORUX2 Series\r\n"));
    EXPECT_TRUE(text.contains("Inside=no\r\n"));
    EXPECT_TRUE(text.contains("Resolution=High\r\n"));
    EXPECT_TRUE(text.contains("PixelWidth=20\r\n"));
    EXPECT_TRUE(text.contains("Technology=CsI\r\n"));
    EXPECT_TRUE(text.contains("Serial=1904001\r\n"));
    EXPECT_TRUE(text.contains("SensorSerial=C2019-0417\r\n"));
    EXPECT_TRUE(text.contains(QString("HardwareSerial=%1\r\n").arg(host.unit()->boardSerial())));
    EXPECT_TRUE(text.endsWith("Type=KORUX-KORUX2 Series\r\n"));
}

TEST_F(AcquisitionTest, InsideSensorReportsTheGeneratorInFourSections)
{
    vbridge::SensorConfig config;
    config.inside = true;
    config.generator.kV = 65;
    start(config);
    ASSERT_TRUE(acquire());
    const QString text = host.seen().images[0].description;
    const int acquisition = text.indexOf("[ACQUISITION]");
    const int measured = text.indexOf("[INSIDE_MEASURED]");
    const int settings = text.indexOf("[INSIDE_SETTINGS]");
    const int sensor = text.indexOf("[SENSOR]");
    EXPECT_TRUE(acquisition >= 0 && acquisition < measured && measured < settings && settings < sensor);
    EXPECT_TRUE(text.contains("kV=65\r\nmA=7\r\n[SENSOR]"));
    EXPECT_TRUE(text.contains("ThresholD=10000\r\n"));
    EXPECT_TRUE(text.contains("Inside=yes\r\n"));
    EXPECT_EQ(text.count("Energy="), 2);
    // An "Inside" sensor arms with its own ACE value.
    EXPECT_EQ(host.bridge().lastArm(0).ace, 10000u);
}

TEST_F(AcquisitionTest, OscilloscopeModeCollectsTheSamples)
{
    vbridge::SensorConfig config;
    config.exposure.delayMs = 50;
    config.exposure.durationMs = 400;
    start(config);
    host.family().setParameter("Oscilloscope", true);
    ASSERT_TRUE(acquire());
    EXPECT_TRUE(host.bridge().lastArm(0).oscilloscope);
    const std::vector<uint16_t> samples = host.bridge().lastOscilloscope(0);
    ASSERT_FALSE(samples.empty());
    QString expected;
    for (uint16_t sample : samples)
        expected += QString("%1").arg(sample, 4, 16, QChar('0'));
    EXPECT_TRUE(host.seen().images[0].description.contains("Oscillo=" + expected + "\r\n"));
    // The oscilloscope slot polls, with its own trace text.
    EXPECT_FALSE(host.seen().advanced.filter(QRegExp("^\\[green\\]waitForOscilloscope status")).isEmpty());
    EXPECT_TRUE(host.seen().advanced.filter(QRegExp("^\\[green\\]waitForImage ")).isEmpty());
}

TEST_F(AcquisitionTest, NormalReadComputesEnergyAndExposition)
{
    start();
    ASSERT_TRUE(acquire());
    const std::vector<uint16_t> samples = host.bridge().lastOscilloscope(0);
    int64_t sum = 0;
    int above = 0;
    for (uint16_t sample : samples)
        if (sample > 428) {
            sum += sample - 428;
            ++above;
        }
    const QString text = host.seen().images[0].description;
    EXPECT_TRUE(text.contains(QString("Exposition=%1\r\n").arg(above))) << text.toStdString();
    EXPECT_TRUE(text.contains(QString("Energy=%1\r\n").arg(sum / 1)));
    EXPECT_GT(above, 0);
}

TEST_F(AcquisitionTest, StopWhileArmedEndsInStoppedWithThreshold400)
{
    vbridge::SensorConfig config;
    config.autoExposure = false;
    start(config);
    host.family().gotoStatus(statusArming);
    ASSERT_EQ(host.family().status(), statusArmed);
    host.family().gotoStatus(statusStopping);
    EXPECT_EQ(host.family().status(), statusStopped);
    EXPECT_EQ(host.bridge().lastArm(0).threshold, 400);
    EXPECT_EQ(host.bridge().lastArm(0).count, 2);
    EXPECT_EQ(host.family().getParameter("PhdTreshold"), QVariant(440));
    ASSERT_TRUE(waitForLog("[orange]Stopping"));
    EXPECT_TRUE(host.seen().hasLog("[orange]acquisition stopped"));
    EXPECT_TRUE(host.seen().hasLog("[cyan]Integrating before stopping"));
    EXPECT_TRUE(host.seen().images.empty());
    EXPECT_EQ(host.unit()->status(), statusStopping);
}

TEST_F(AcquisitionTest, AbortEndsInAborted)
{
    vbridge::SensorConfig config;
    config.autoExposure = false;
    start(config);
    host.family().gotoStatus(statusArming);
    host.family().gotoStatus(statusAborted);
    EXPECT_EQ(host.seen().statuses.back(), statusAborted);
    EXPECT_TRUE(waitForLog("[orange]Stopping"));
}

TEST_F(AcquisitionTest, SensorSwitchingOffIsAnErrorOfTheUnit)
{
    vbridge::SensorConfig config;
    config.autoExposure = false;
    start(config);
    host.family().gotoStatus(statusArming);
    host.bridge().switchOff(0);
    ASSERT_TRUE(waitForLog("[red]Sensor is off"));
    EXPECT_EQ(host.unit()->status(), statusError);
}

TEST_F(AcquisitionTest, LostLinkIsAnErrorOfTheUnit)
{
    vbridge::SensorConfig config;
    config.autoExposure = false;
    start(config);
    host.family().gotoStatus(statusArming);
    host.bridge().loseLink(0);
    ASSERT_TRUE(waitForLog("[red]communication lost"));
    EXPECT_EQ(host.unit()->status(), statusError);
}

TEST_F(AcquisitionTest, UnplugWhileArmedPutsTheFamilyInError)
{
    vbridge::SensorConfig config;
    config.autoExposure = false;
    start(config);
    host.family().gotoStatus(statusArming);
    host.bridge().unplug(0);
    ASSERT_TRUE(waitForLog("[red]communication lost"));
    EXPECT_EQ(host.family().status(), statusError);
    EXPECT_EQ(host.seen().statuses.back(), statusError);
}

TEST_F(AcquisitionTest, FailedBlockInTheMiddleDeliversNoStaleImage)
{
    start();
    ASSERT_TRUE(acquire());
    ASSERT_FALSE(host.seen().images[0].image.isNull());
    const uint32_t counter = host.storedCounter();
    // When the next read-out starts, its third transfer (block 1) fails.
    QObject::connect(host.unit(), &QVeltraHardwareUnit::statusChanged, [&](hardwareStatus status) {
        if (status == statusAcquiring)
            host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 3, FT4222_IO_ERROR);
    });
    host.family().gotoStatus(statusEnumerating);  // 27 -> 9
    ASSERT_EQ(host.family().status(), statusReady);
    ASSERT_TRUE(acquire());
    ASSERT_EQ(host.seen().images.size(), 2u);
    EXPECT_TRUE(host.seen().images[1].image.isNull());
    EXPECT_TRUE(host.seen().hasLog("Unable to read binary image block #1"));
    // The host still gets its acquisition, and the shot is counted.
    EXPECT_EQ(host.storedCounter(), counter + 1);
}

// The twenty waits for readiness are over in less than two seconds only when
// the host's sleeps return early: a host whose sleep functions do not wait.
TEST_F(AcquisitionTest, NotReadySensorIsRetriedOnceThenFails)
{
    start();
    host.bridge().setStatusWord(0, {0x00, 428, 2, 1});
    {
        const ScopedSleepScale quickSleeps(0.0);
        host.family().gotoStatus(statusArming);
    }
    EXPECT_EQ(host.seen().count("[yellow]Retry arming"), 1);
    EXPECT_TRUE(host.seen().hasAdvanced("[red]The sensor is not OK"));
    EXPECT_EQ(host.family().status(), statusError);
    EXPECT_EQ(host.unit()->status(), statusError);
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusArming, statusError}));
}

TEST_F(AcquisitionTest, SlowNotReadySensorIsNotRetried)
{
    start();
    host.bridge().setStatusWord(0, {0x00, 428, 2, 1});
    // Twenty waits of 250 ms stretched to over two seconds in all.
    {
        const ScopedSleepScale slowerSleeps(0.45);
        host.family().gotoStatus(statusArming);
    }
    EXPECT_EQ(host.seen().count("[yellow]Retry arming"), 0);
    EXPECT_EQ(host.family().status(), statusError);
}

TEST_F(AcquisitionTest, ThresholdOf400KeepsTheLastExposureFigures)
{
    start();
    ASSERT_TRUE(acquire());
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    const int32_t energy = KoruxUnitAccess::aceValue(*unit);
    ASSERT_GT(energy, 0);
    host.family().setParameter("PhdTreshold", 400);
    ASSERT_TRUE(unit->arm(false));
    EXPECT_EQ(KoruxUnitAccess::aceValue(*unit), energy);
    host.family().setParameter("PhdTreshold", 440);
    ASSERT_TRUE(unit->arm(false));
    EXPECT_EQ(KoruxUnitAccess::aceValue(*unit), 0);
    EXPECT_EQ(KoruxUnitAccess::samplesAboveThreshold(*unit), 0);
}

TEST_F(AcquisitionTest, TwoSensorsAreArmedAndDeliverEach)
{
    start(vbridge::SensorConfig(), 2);
    host.family().gotoStatus(statusArming);
    ASSERT_TRUE(host.runUntil([&] { return host.seen().images.size() == 2; }));
    EXPECT_EQ(host.bridge().lastArm(0).count, 1);
    EXPECT_EQ(host.bridge().lastArm(1).count, 1);
}

TEST_F(AcquisitionTest, ImageOfTheOtherSizeSwitchesTheUnit)
{
    start();
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    ASSERT_TRUE(unit->readInformation(true));
    ASSERT_EQ(unit->size(), size1);
    // The image the sensor holds carries the other size code.
    host.bridge().setImageSizeCode(0, 2);
    ASSERT_TRUE(unit->readImage(false));
    EXPECT_TRUE(host.seen().hasLog("[yellow,bold]Update sensor size to 2!"));
    EXPECT_EQ(unit->size(), size2);
    EXPECT_EQ(unit->binaryImage().size(), QSize(1300, 1706));
}

TEST_F(AcquisitionTest, BlackImageDropsFourRowsAboveAndSixBelow)
{
    start();
    host.bridge().holdDarkImage(0);
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    ASSERT_TRUE(unit->readInformation(true));
    ASSERT_TRUE(unit->readImage(true));
    const QImage black = unit->blackImage();
    EXPECT_EQ(black.size(), QSize(1000, 1496));
    EXPECT_EQ(black.size(), unit->imageSize());
    const std::vector<uint16_t> source = host.bridge().lastImage(0);
    EXPECT_EQ(reinterpret_cast<const uint16_t*>(black.constScanLine(0))[5], source[4 * 1000 + 5]);
    EXPECT_EQ(reinterpret_cast<const uint16_t*>(black.constScanLine(1495))[7], source[1499 * 1000 + 7]);
    EXPECT_TRUE(unit->binaryImage().isNull());
}

TEST_F(AcquisitionTest, LastReadOfTheSmallImageAsksFor3328Bytes)
{
    start();
    host.bridge().holdDarkImage(0);
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    ASSERT_TRUE(unit->readInformation(true));
    host.bridge().clearTrace();
    ASSERT_TRUE(unit->readImage(false));
    const auto transfers = host.calls("FT4222_SPIMaster_MultiReadWrite");
    ASSERT_EQ(transfers.size(), 47u);
    EXPECT_EQ(hex(transfers.back().written), hex(bytes({0xA0, 0x80 + 46, 0xCA, 0xFE})));
    EXPECT_EQ(transfers.back().args, (std::vector<int64_t>{4, 0, 3328}));
    EXPECT_EQ(transfers[1].args, (std::vector<int64_t>{4, 0, 65408}));
}

TEST_F(AcquisitionTest, FailedFirstBlockClearsTheImage)
{
    start();
    host.bridge().holdDarkImage(0);
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    ASSERT_TRUE(unit->readInformation(true));
    ASSERT_TRUE(unit->readImage(false));
    host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 1, FT4222_IO_ERROR);
    EXPECT_FALSE(unit->readImage(false));
    EXPECT_TRUE(unit->binaryImage().isNull());
    EXPECT_TRUE(host.seen().hasLog("Unable to read binary image"));
}

TEST_F(AcquisitionTest, SizeCodeZeroMeansNoImage)
{
    start();
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    ASSERT_TRUE(unit->readInformation(true));
    host.bridge().setImageSizeCode(0, 0);
    EXPECT_FALSE(unit->hasImage());
    EXPECT_FALSE(unit->readImage(false));
    EXPECT_TRUE(host.seen().hasLog("Unable to read sensor size"));
}

TEST_F(AcquisitionTest, HasImageWithAnotherSizeIsAFamilyError)
{
    start();
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    ASSERT_TRUE(unit->readInformation(true));
    host.bridge().setImageSizeCode(0, 2);
    host.seen().clear();
    EXPECT_FALSE(unit->hasImage());
    EXPECT_TRUE(host.seen().hasLog("[red]Image sensor size mismatch 2 <> Size 1"));
    EXPECT_EQ(host.family().status(), statusError);
    host.bridge().setImageSizeCode(0, 3);
    EXPECT_TRUE(unit->hasImage());
}

TEST_F(AcquisitionTest, VoltageReportScalesTheConverterValues)
{
    vbridge::SensorConfig config;
    config.adcRaw = {{1023, 0, 1023, 512}};
    start(config);
    long fpgaHigh = 0, fpgaLow = -1, usb = 0, sensor = 0;
    ASSERT_TRUE(host.unit()->getVoltages(&fpgaHigh, &fpgaLow, &usb, &sensor));
    EXPECT_EQ(fpgaHigh, 3296);
    EXPECT_EQ(fpgaLow, 0);
    EXPECT_EQ(usb, 6592);
    EXPECT_EQ(sensor, 3300);
    ASSERT_EQ(host.seen().data.size(), 1);
    const QJsonObject values = reportValues(host.seen().data[0]);
    EXPECT_EQ(values.value("FPGA High").toVariant().toLongLong(), 3296);
    EXPECT_EQ(values.value("USB").toVariant().toLongLong(), 6592);
    EXPECT_TRUE(host.seen().data[0].contains(QString("KORUX-KORUX2 Series %1").arg(host.unit()->boardSerial())));
    std::vector<std::string> frames;
    for (const auto& entry : host.calls("FT4222_SPIMaster_SingleReadWrite"))
        if (entry.port == 'B')
            frames.push_back(hex(entry.written));
    EXPECT_EQ(frames, (std::vector<std::string>{"01 80 00", "01 90 00", "01 a0 00", "01 b0 00"}));
}

TEST_F(AcquisitionTest, VoltagesWithoutOutputsAreStillMeasuredAndReported)
{
    start();
    host.family().gotoStatus(commandGetVoltages);
    ASSERT_EQ(host.seen().data.size(), 1);
    EXPECT_EQ(reportValues(host.seen().data[0]).value("FPGA High").toVariant().toLongLong(), 620 * 3300 / 1024);
}

TEST_F(AcquisitionTest, ConverterFailureOnChannelTwoKeepsTheFirstTwo)
{
    start();
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    ASSERT_TRUE(unit->openPorts());
    // Port B's transfers are the only single-line exchanges after its set-up.
    host.bridge().failCall("FT4222_SPIMaster_SingleReadWrite", 3, FT4222_IO_ERROR);
    long values[4] = {0, 0, 0, 0};
    EXPECT_FALSE(unit->getVoltages(&values[0], &values[1], &values[2], &values[3]));
    EXPECT_EQ(values[0], 620 * 3300 / 1024);
    EXPECT_EQ(values[1], 310 * 3300 / 1024);
    EXPECT_EQ(values[2], 0);
    EXPECT_TRUE(host.seen().hasLog("SPI r/w error (port B) = 0xIO_ERROR (IO_ERROR)"));
    EXPECT_TRUE(host.seen().data.isEmpty());
}

TEST_F(AcquisitionTest, ParameterReportGathersEverything)
{
    start();
    host.family().gotoStatus(commandGetParameters);
    ASSERT_FALSE(host.seen().data.isEmpty());
    const QJsonObject values = reportValues(host.seen().data.last());
    for (const char* key : {"FPGA High", "FPGA Low", "USB", "Sensor", "SensorSerial", "HardwareSerial", "Firmware",
                            "Serial", "Model", "Protocol", "Technology", "Size", "ShootCounter", "CodeName",
                            "Manufacturer", "Generator"})
        EXPECT_TRUE(values.contains(key)) << key;
    EXPECT_EQ(values.value("ShootCounter").toInt(), 1234);
    EXPECT_EQ(values.value("Protocol").toString(), "USB");
    EXPECT_EQ(values.value("CodeName").toString(), "KORUX-KORUX2 Series");
    EXPECT_EQ(values.value("Manufacturer").toString(), "TAVEN");
    EXPECT_EQ(values.value("Generator").toObject().value("Inside").toBool(), false);
    EXPECT_EQ(values.value("HardwareSerial").toString(), host.unit()->boardSerial());
}

TEST_F(AcquisitionTest, UnpluggedSensorSendsNoParameterReport)
{
    start();
    host.bridge().unplug(0);
    host.family().gotoStatus(commandGetParameters);
    EXPECT_TRUE(host.seen().data.isEmpty());
}


TEST_F(AcquisitionTest, FailedStatusReadInTheArmedWaitKeepsTheFlagsOfTheLastRead)
{
    start();
    // Ready and armed ('D') from the first read on. The bridge calls of
    // port A's transfer: the readiness read, the information read, the arm
    // frame, then the first read of the armed wait, which fails.
    host.bridge().setStatusWord(0, {0x44, 428, 2, 1});
    host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 4, FT4222_IO_ERROR);
    EXPECT_TRUE(host.unit()->armSensor(true, false));
    int statusReads = 0;
    for (const auto& entry : host.calls("FT4222_SPIMaster_MultiReadWrite"))
        if (hex(entry.written) == hex(bytes({0xA1, 0x80, 0xCA, 0xFE})))
            ++statusReads;
    // The armed flag of the information read stands: no further read, no wait.
    EXPECT_EQ(statusReads, 3);
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to retrieve status."));
    EXPECT_TRUE(host.seen().hasLog("[green]sensor armed"));
    EXPECT_FALSE(host.seen().hasAdvanced("[red]Unable to arm sensor"));
}
