#include "support/PluginHarness.h"

#include "plugin/Enumeration.h"

using namespace testing_support;

namespace {

constexpr uint32_t kSeriesId = 0x1CE60003;

class EnumerationTest : public ::testing::Test {
protected:
    PluginHarness host;
};

const QString kNoSensor = QString::fromUtf8("[red]No KORUX/KORUX² Series found!");
const QString kNotSeries = QString::fromUtf8("[red]Not a KORUX/KORUX² Series: @1 <> @2!");
const QString kNotPort = QString::fromUtf8("[red]Not a KORUX/KORUX² Series port!");

}  // namespace

TEST_F(EnumerationTest, OneSensorMakesOneUnitWithItsFourPortRecords)
{
    host.addSensors(1);
    host.initialize();
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusEnumerating, statusSensorFound}));
    ASSERT_EQ(host.unitCount(), 1);
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    EXPECT_EQ(unit->parent(), &host.family());
    for (int port = 0; port < 4; ++port) {
        const FT_DEVICE_LIST_INFO_NODE& record = unit->portRecord(port);
        EXPECT_EQ(record.ID, kSeriesId);
        EXPECT_EQ(std::string(record.SerialNumber), std::string("KX0001") + char('A' + port));
        EXPECT_EQ(record.ftHandle, nullptr);
    }
    EXPECT_TRUE(host.seen().hasAdvanced("[green]enumKORUXPlugIn OK."));
    EXPECT_TRUE(host.seen().hasLog(QString::fromUtf8("Find KORUX/KORUX² Series port D #1.")));
    EXPECT_EQ(host.bridge().openHandleCount(), 0);
}

TEST_F(EnumerationTest, NewUnitIsInitialisedBeforeItGetsItsRecords)
{
    host.addSensors(1);
    host.initialize();
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    EXPECT_EQ(unit->model(), "KORUX-KORUX2 Series");
    EXPECT_EQ(unit->serial(), "UNKNOWN");
    EXPECT_EQ(unit->sensorSerial(), "UNKNOWN");
    EXPECT_EQ(unit->protocol(), protocolUSB);
    EXPECT_EQ(unit->size(), sizeUnknown);
    EXPECT_EQ(unit->technology(), technologyUnknown);
    EXPECT_EQ(unit->status(), statusUnknown);
    EXPECT_EQ(unit->family(), &host.family());
    EXPECT_NE(unit->generator(), nullptr);
}

TEST_F(EnumerationTest, EachInterfaceIsLoggedWithItsDetails)
{
    host.addSensors(1);
    host.initialize();
    const FT_DEVICE_LIST_INFO_NODE& a = host.unit()->portRecord(0);
    EXPECT_TRUE(host.seen().hasLog("GetDeviceInfoDetail of device 0."));
    EXPECT_TRUE(host.seen().hasLog("GetDeviceInfoDetail of device 3."));
    EXPECT_TRUE(host.seen().hasLog(QString("Description of device: %1.").arg(QString::fromUtf8(a.Description))));
    // The description's bytes in hexadecimal: "KORUX/KORUX" 0xB2 " A".
    EXPECT_TRUE(host.seen().hasAdvanced("4b4f5255582f4b4f525558b22041"));
    EXPECT_TRUE(host.seen().hasAdvanced(
        QString("Flags: %1 - Type: %2 - ID: 1ce60003 - LocId: %3").arg(a.Flags, 0, 16).arg(a.Type, 0, 16).arg(a.LocId, 0, 16)));
    EXPECT_TRUE(host.seen().hasAdvanced("SerialNumber: KX0001A"));
}

TEST_F(EnumerationTest, FourInterfacesOfAnotherProductGiveNoSensorAfterFourNotALines)
{
    for (int i = 0; i < 4; ++i) {
        vbridge::ForeignDevice device;
        device.serial = "FT00000" + std::to_string(i);
        device.location = 0x9000 + i;
        host.bridge().addForeignDevice(device);
    }
    host.initialize();
    EXPECT_EQ(host.seen().count(kNotSeries), 4);
    EXPECT_TRUE(host.seen().hasAdvanced("[green]enumKORUXPlugIn OK."));
    EXPECT_EQ(host.unitCount(), 0);
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusEnumerating, statusNoSensor}));
}

TEST_F(EnumerationTest, FifthSensorIsDroppedSilently)
{
    host.addSensors(5);
    host.initialize();
    EXPECT_EQ(host.unitCount(), 4);
    EXPECT_EQ(host.family().status(), statusSensorFound);
    EXPECT_FALSE(host.seen().hasLog(QString::fromUtf8("Find KORUX/KORUX² Series port A #5.")));
    EXPECT_EQ(std::string(host.unit(3)->portRecord(0).SerialNumber), "KX0004A");
}

TEST_F(EnumerationTest, UnreadableDetailMakesPortCountsUnequal)
{
    host.addSensors(2);
    host.bridge().failDetail(5);
    host.initialize();
    EXPECT_TRUE(host.seen().hasAdvanced("[red]inconsitent number of ports!"));
    EXPECT_TRUE(host.seen().hasLog(kNoSensor));
    EXPECT_EQ(host.unitCount(), 0);
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusEnumerating, statusError}));
    // The skipped interface logs nothing after its "GetDeviceInfoDetail" line.
    const int at = host.seen().log.indexOf("GetDeviceInfoDetail of device 5.");
    ASSERT_GE(at, 0);
    EXPECT_EQ(host.seen().log.value(at + 1), "GetDeviceInfoDetail of device 6.");
}

TEST_F(EnumerationTest, LowerCaseDescriptionIsAccepted)
{
    host.addLookalikePorts({"korux/korux\xb2 a", "korux/korux\xb2 b", "korux/korux\xb2 c", "korux/korux\xb2 d"});
    host.initialize();
    EXPECT_EQ(host.unitCount(), 1);
    EXPECT_EQ(host.family().status(), statusSensorFound);
}

TEST_F(EnumerationTest, DescriptionWithTheUtf8SuperscriptIsNotASeriesPort)
{
    // A driver that gave the description as UTF-8 would not match the Latin-1 prefix.
    host.addLookalikePorts({"KORUX/KORUX\xc2\xb2 A", "KORUX/KORUX\xb2 B", "KORUX/KORUX\xb2 C", "KORUX/KORUX\xb2 D"});
    host.initialize();
    EXPECT_EQ(host.seen().count(kNotPort), 1);
    EXPECT_EQ(host.family().status(), statusError);
}

TEST_F(EnumerationTest, UnknownPortLetterIsLoggedLiterally)
{
    host.addLookalikePorts({"KORUX/KORUX\xb2 A", "KORUX/KORUX\xb2 B", "KORUX/KORUX\xb2 C", "KORUX/KORUX\xb2 E"});
    host.initialize();
    EXPECT_TRUE(host.seen().hasLog("Unknow interface for description @1."));
    EXPECT_EQ(host.seen().count(kNotPort), 1);
    EXPECT_EQ(host.family().status(), statusError);
}

TEST_F(EnumerationTest, DeviceCountNotAMultipleOfFourIsAnError)
{
    host.addSensors(1);
    host.bridge().addForeignDevice(vbridge::ForeignDevice());
    host.initialize();
    EXPECT_TRUE(host.seen().hasLog(QString::fromUtf8("[red]Bad number of KORUX/KORUX² Series found: 5!")));
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusEnumerating, statusError}));
    EXPECT_EQ(host.unitCount(), 0);
    EXPECT_TRUE(host.calls("FT_GetDeviceInfoDetail").empty());
}

TEST_F(EnumerationTest, FailedDeviceListIsNoSensor)
{
    host.addSensors(1);
    host.bridge().failCall("FT_CreateDeviceInfoList", 1, FT_DEVICE_LIST_NOT_READY);
    host.initialize();
    EXPECT_TRUE(host.seen().hasLog("[red]Fail to Create Device Info List!"));
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusEnumerating, statusNoSensor}));
}

TEST_F(EnumerationTest, InterfacesArePairedByListOrderNotBySerial)
{
    host.addSensors(2);
    // Sensor 1's interfaces listed first, then sensor 0's, port D of both last.
    host.bridge().setListOrder({{1, 0}, {1, 1}, {1, 2}, {0, 0}, {0, 1}, {0, 2}, {0, 3}, {1, 3}});
    host.initialize();
    ASSERT_EQ(host.unitCount(), 2);
    EXPECT_EQ(std::string(host.unit(0)->portRecord(0).SerialNumber), "KX0002A");
    EXPECT_EQ(std::string(host.unit(0)->portRecord(3).SerialNumber), "KX0001D");
    EXPECT_EQ(std::string(host.unit(1)->portRecord(0).SerialNumber), "KX0001A");
    EXPECT_EQ(std::string(host.unit(1)->portRecord(3).SerialNumber), "KX0002D");
}

TEST_F(EnumerationTest, ReenumerationReplacesTheUnits)
{
    host.addSensors(2);
    host.initialize();
    QPointer<QVeltraXRayKORUXPlugInUnit> first = host.unit(0);
    host.bridge().unplug(1);
    host.family().gotoStatus(statusEnumerating);
    EXPECT_EQ(host.unitCount(), 1);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_TRUE(first.isNull());
}

TEST(SeriesDescription, PrefixIsThirteenCharactersAfterUtf8Decoding)
{
    EXPECT_TRUE(korux::hasSeriesPrefix(QString::fromUtf8("KORUX/KORUX\xb2 A")));
    EXPECT_FALSE(korux::hasSeriesPrefix(QString::fromUtf8("KORUX/KORUX\xb2" "A")));
    EXPECT_FALSE(korux::hasSeriesPrefix(QString::fromUtf8("KORUX/KORUX2 A")));
    EXPECT_EQ(korux::portOfDescription("X C"), 2);
    EXPECT_EQ(korux::portOfDescription("X a"), -1);
    EXPECT_EQ(korux::portOfDescription(""), -1);
}
