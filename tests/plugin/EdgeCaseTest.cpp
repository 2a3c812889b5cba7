// Edge cases of the polling, the oscilloscope, the acquisition result, the
// reports and the sensor information, and log texts whose values hold
// placeholders of their own.
#include "support/PluginHarness.h"

#include <QJsonObject>
#include <QRegularExpression>

#include <chrono>
#include <thread>

using namespace testing_support;

namespace {

class EdgeCaseTest : public ::testing::Test {
protected:
    PluginHarness host;
    QVeltraXRayKORUXPlugInUnit* unit = nullptr;

    void start(int sensors = 1, const vbridge::SensorConfig& config = vbridge::SensorConfig())
    {
        for (int i = 0; i < sensors; ++i)
            host.bridge().addSensor(config);
        host.initialize();
        ASSERT_EQ(host.unitCount(), sensors);
        unit = host.unit();
        bool solo = true;
        ASSERT_TRUE(unit->openPorts());
        ASSERT_TRUE(unit->initPortA(false));
        ASSERT_TRUE(unit->initPortC(false));
        ASSERT_TRUE(unit->initPortD(&solo));
        host.seen().clear();
        host.bridge().clearTrace();
    }

    // One tick of a polling slot, called as its timer calls it.
    void tick(const char* slot)
    {
        ASSERT_TRUE(QMetaObject::invokeMethod(unit, slot, Qt::DirectConnection)) << slot;
    }

    // The polling's own lines on the user channel (colour-tagged).
    QStringList pollingLines()
    {
        return host.seen().log.filter(QRegularExpression(QStringLiteral("^\\[(cyan|orange|red)")));
    }

    QStringList tickTraces(const QString& slot)
    {
        return host.seen().advanced.filter(QRegularExpression(QStringLiteral("^\\[green\\]") + slot + " "));
    }

    // The data reports that carry parameters (a parameter report also sends
    // the serial number and the counter).
    QStringList reportsWith(const QString& key)
    {
        return host.seen().data.filter(QStringLiteral("\"%1\"").arg(key));
    }
};

QString sectionName(const QString& json)
{
    const QJsonArray sections = QJsonDocument::fromJson(json.toUtf8()).array();
    return sections.isEmpty() ? QString() : sections[0].toObject().keys().value(0);
}

} // namespace

// ------------------------------------------------------------------ polling

TEST_F(EdgeCaseTest, ExposureFlagsWhileReadyReachIntegratingInTheSameTick)
{
    start();
    unit->setStatus(statusReady);
    host.bridge().setStatusWord(0, { 0x45, 700, 2, 1 });
    host.seen().clear();
    tick("waitForImage");
    EXPECT_EQ(unit->status(), statusIntegrating);
    EXPECT_EQ(pollingLines(), (QStringList { "[cyan]Ready", "[cyan]Integrating" }));
    EXPECT_EQ(host.seen().unitStatuses, (std::vector<int> { statusIntegrating }));
}

TEST_F(EdgeCaseTest, SensorOffWhileStoppingIsStoppedNotAnError)
{
    start();
    unit->setStatus(statusArmed);
    host.bridge().switchOff(0);
    host.seen().clear();
    tick("waitForStopping");
    EXPECT_EQ(unit->status(), statusStopped);
    EXPECT_EQ(pollingLines(), (QStringList { "[red]Sensor is already off" }));
    EXPECT_EQ(host.seen().unitStatuses, (std::vector<int> { statusStopped }));
    EXPECT_EQ(std::count(host.seen().statuses.begin(), host.seen().statuses.end(), int(statusError)), 0);
}

TEST_F(EdgeCaseTest, StatusOutsideTheTableKeepsPollingWithTheTraceLineOnly)
{
    start();
    unit->setStatus(statusArming);
    host.bridge().setStatusWord(0, { 0x44, 428, 2, 1 });
    host.seen().clear();
    tick("waitForImage");
    EXPECT_EQ(unit->status(), statusArming);
    EXPECT_TRUE(pollingLines().isEmpty()) << pollingLines().join('\n').toStdString();
    ASSERT_EQ(tickTraces("waitForImage").size(), 1);
    EXPECT_EQ(tickTraces("waitForImage")[0], "[green]waitForImage statusArming - 1000100 1 428");
    // The next tick comes by itself, 250 ms later, and does the same.
    EXPECT_TRUE(host.runUntil([&] { return tickTraces("waitForImage").size() >= 2; }, 5000));
    EXPECT_EQ(unit->status(), statusArming);
    EXPECT_TRUE(pollingLines().isEmpty());
}

// ------------------------------------------------------------- oscilloscope

TEST_F(EdgeCaseTest, EnergyOfSum100WithDivisor7Is14)
{
    vbridge::SensorConfig config;
    // One sample per exposure: the ramp's first step, (1028 - 428) / 6 = 100
    // above the dark level, give or take the photodiode's noise of 2.
    vbridge::Exposure xrays;
    xrays.durationMs = 1;
    xrays.doseRate = 1028;
    config.autoExposure = false;
    start(1, config);
    // Ready from the start, armed a millisecond after the frame, and no
    // read-out time: the sensor is ready again (and takes the next arm frame)
    // as soon as the exposure ends.
    host.bridge().setSensorDelays(0, 0, 1, 0, 0);
    unit->setFirmware("0");
    host.family().setParameter("ACECoeff", 7);
    host.family().setParameter("ACECoeffCSI", 7);
    ASSERT_EQ(KoruxUnitAccess::ACECoefficient(*unit), 7);
    bool found = false;
    for (int shot = 0; shot < 100 && !found; ++shot) {
        ASSERT_TRUE(unit->arm(false));
        // X-rays for a millisecond once the armed flag is up.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        host.bridge().triggerExposure(0, xrays);
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        ASSERT_TRUE(KoruxUnitAccess::readOscilloscope(*unit));
        found = host.bridge().lastOscilloscope(0) == std::vector<uint16_t> { 428 + 100 };
    }
    ASSERT_TRUE(found) << "no exposure gave the one sample 528";
    EXPECT_EQ(unit->oscilloscope(), "0210");
    EXPECT_EQ(KoruxUnitAccess::samplesAboveThreshold(*unit), 1);
    EXPECT_EQ(KoruxUnitAccess::aceValue(*unit), 14);
}

// ------------------------------------------------------- acquisition result

TEST_F(EdgeCaseTest, SizeIsOneOnlyForSizeValueTwo)
{
    start();
    const struct {
        hardwareSize size;
        const char* text;
    } cases[] = { { sizeUnknown, "Size=2" }, { size0, "Size=2" }, { size1, "Size=1" }, { size1_5, "Size=2" },
        { size2, "Size=2" } };
    for (const auto& c : cases) {
        unit->setSize(c.size);
        host.seen().clear();
        ASSERT_TRUE(KoruxUnitAccess::saveAcquisition(*unit));
        ASSERT_EQ(host.seen().images.size(), 1u);
        EXPECT_TRUE(host.seen().images[0].description.contains(QStringLiteral("\r\n%1\r\n").arg(c.text)))
            << int(c.size) << host.seen().images[0].description.toStdString();
    }
}

TEST_F(EdgeCaseTest, BlackImageDecidesWhichOneSignalCarriesTheResult)
{
    start();
    QImage image(4, 4, QImage::Format_Grayscale16);
    image.fill(0x1234);
    unit->setBinaryImage(image);

    unit->resetBlackImage();
    ASSERT_TRUE(KoruxUnitAccess::saveAcquisition(*unit));
    ASSERT_EQ(host.seen().images.size(), 1u);
    EXPECT_FALSE(host.seen().images[0].withBlack);
    EXPECT_EQ(host.seen().images[0].image, image);

    QImage black(4, 4, QImage::Format_Grayscale16);
    black.fill(7);
    unit->setBlackImage(black);
    host.seen().clear();
    ASSERT_TRUE(KoruxUnitAccess::saveAcquisition(*unit));
    ASSERT_EQ(host.seen().images.size(), 1u);
    EXPECT_TRUE(host.seen().images[0].withBlack);
    EXPECT_EQ(host.seen().images[0].image, image);
    EXPECT_EQ(host.seen().images[0].black, black);
}

TEST_F(EdgeCaseTest, FailingCounterUpdateStillDeliversTheImage)
{
    start();
    QImage image(4, 4, QImage::Format_Grayscale16);
    image.fill(0x0101);
    unit->setBinaryImage(image);
    const uint32_t counter = host.storedCounter();
    // The counter area cannot be read: nothing is written.
    host.bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 1, FT4222_IO_ERROR);
    host.bridge().failCall("FT4222_SPIMaster_SingleReadWrite", 1, FT4222_IO_ERROR);
    EXPECT_TRUE(KoruxUnitAccess::saveAcquisition(*unit));
    EXPECT_TRUE(
        host.seen().hasLog("[red]Unable to increase shoot counter. Continue acquisition nevertheless."));
    ASSERT_EQ(host.seen().images.size(), 1u);
    EXPECT_EQ(host.seen().images[0].image, image);
    EXPECT_EQ(host.storedCounter(), counter);
}

// ------------------------------------------------------------------ reports

TEST_F(EdgeCaseTest, TwoUnitsGiveTwoParameterReportsEachUnderItsOwnKey)
{
    vbridge::SensorConfig config;
    start(2, config);
    host.bridge().setAdcRaw(1, { 700, 350, 800, 600 });
    host.family().gotoStatus(commandGetParameters);
    const QStringList parameters = reportsWith("Manufacturer");
    ASSERT_EQ(parameters.size(), 2);
    QStringList keys;
    for (int i = 0; i < 2; ++i)
        keys << QStringLiteral("KORUX-KORUX2 Series %1").arg(host.unit(i)->boardSerial());
    EXPECT_NE(keys[0], keys[1]);
    EXPECT_EQ(sectionName(parameters[0]), keys[0]);
    EXPECT_EQ(sectionName(parameters[1]), keys[1]);

    host.seen().clear();
    host.family().gotoStatus(commandGetVoltages);
    const QStringList voltages = reportsWith("FPGA High");
    ASSERT_EQ(voltages.size(), 2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(sectionName(voltages[i]), keys[i]);
        const QJsonObject measured = reportValues(voltages[i]);
        const QJsonObject reported = reportValues(parameters[i]);
        for (const char* key : { "FPGA High", "FPGA Low", "USB", "Sensor" })
            EXPECT_EQ(reported.value(key), measured.value(key)) << i << " " << key;
    }
    EXPECT_NE(reportValues(voltages[0]).value("FPGA High"), reportValues(voltages[1]).value("FPGA High"));
}

TEST_F(EdgeCaseTest, FlashPageOfARemovedAddressParameterIsPageZero)
{
    start();
    QString serial;
    ASSERT_TRUE(unit->readSerialNumber(serial));
    const auto readsPageZero = [&](const char* what) {
        host.seen().clear();
        host.bridge().clearTrace();
        host.family().gotoStatus(commandReadFlashPage);
        ASSERT_EQ(host.seen().data.size(), 1) << what;
        EXPECT_EQ(reportValues(host.seen().data[0]).value("address").toInt(-1), 0) << what;
        EXPECT_TRUE(host.seen().hasLog("readFlash @0x00000000")) << what;
    };
    host.family().setParameter("FlashAddress", 4096);
    KoruxFamilyAccess::removeParameter(host.family(), "FlashAddress");
    ASSERT_FALSE(host.family().getParameter("FlashAddress").isValid());
    readsPageZero("removed");
    for (const QVariant& address :
        { QVariant(), QVariant(QStringLiteral("0x100")), QVariant(QStringLiteral("page")) }) {
        host.family().setParameter("FlashAddress", address);
        readsPageZero(qPrintable(address.toString()));
    }
}

// ------------------------------------------------------- sensor information

namespace {

std::vector<unsigned long long> pauses;

void recordPause(unsigned long long us, void*)
{
    pauses.push_back(us);
}

} // namespace

TEST_F(EdgeCaseTest, NeverReadySensorGivesTenPausesOf50ms)
{
    start();
    host.bridge().setStatusWord(0, { 0x00, 428, 2, 1 });
    pauses.clear();
    setSleepObserver(recordPause, nullptr);
    const bool read = unit->readInformation(false);
    setSleepObserver(nullptr, nullptr);
    EXPECT_FALSE(read);
    EXPECT_EQ(pauses, std::vector<unsigned long long>(10, 50000));
    EXPECT_TRUE(host.seen().hasLog("Sensor is not ready"));
}

// ------------------------------------------------ values holding placeholders

TEST_F(EdgeCaseTest, SerialHoldingAPlaceholderIsLoggedAsGivenByGotoUnitStatus)
{
    start();
    host.family().gotoUnitStatus(QStringLiteral("AB%2CD%1"), commandGetParameters);
    EXPECT_TRUE(host.seen().hasAdvanced("gotoUnitStatus for AB%2CD%1 status 1000"))
        << host.seen().advanced.filter("gotoUnitStatus").join('\n').toStdString();
}

TEST_F(EdgeCaseTest, SerialHoldingPlaceholdersIsLoggedAsGivenWhenItsPortDoesNotOpen)
{
    vbridge::SensorConfig config;
    config.serial = "KX%2%3";
    host.bridge().addSensor(config);
    host.initialize();
    ASSERT_EQ(host.unitCount(), 1);
    unit = host.unit();
    host.seen().clear();
    // Port A opens neither by location nor by serial number.
    host.bridge().failCall("FT_OpenEx", 1, FT_DEVICE_NOT_FOUND);
    host.bridge().failCall("FT_OpenEx", 2, FT_DEVICE_NOT_FOUND);
    EXPECT_FALSE(unit->openPorts());
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Port A cannot be opened by serial KX%2%3A [2]"))
        << host.seen().advanced.filter("Port A").join('\n').toStdString();
    const QString location = QString::number(host.bridge().interfaceLocation(0, 0));
    EXPECT_TRUE(host.seen().hasAdvanced(
        QStringLiteral("[yellow]Port A cannot be opened by location %1 [2]").arg(location)));
}
