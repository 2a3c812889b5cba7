// The plug-in on the Linux driver: it registers the series' USB ids before
// every device list, opens an interface that was listed while open by its
// serial, and accepts descriptions whose superscript two came as '?'.
#include "support/PluginHarness.h"

#include "plugin/Enumeration.h"

using namespace testing_support;

namespace {


const QString kNoSensor = QString::fromUtf8("[red]No KORUX/KORUX² Series found!");
const QString kNotPort = QString::fromUtf8("[red]Not a KORUX/KORUX² Series port!");
const QString kUnknownLetter = QStringLiteral("Unknow interface for description @1.");

class LinuxDriverTest : public ::testing::Test {
protected:
    PluginHarness host;

    void SetUp() override
    {
        host.bridge().setDriverProfile(vbridge::DriverProfile::Linux);
        // A process whose driver has been told nothing yet.
        host.bridge().setRegisteredIds(0);
    }

    static std::vector<std::string> functions()
    {
        std::vector<std::string> names;
        for (const vbridge::TraceEntry& entry : PluginHarness::bridge().trace())
            names.push_back(entry.function);
        return names;
    }
};

}  // namespace

TEST_F(LinuxDriverTest, SeriesIdsAreRegisteredBeforeTheDeviceList)
{
    host.addSensors(1);
    host.initialize();
    const auto names = functions();
    ASSERT_GE(names.size(), 2u);
    EXPECT_EQ(names[0], "FT_SetVIDPID");
    EXPECT_EQ(names[1], "FT_CreateDeviceInfoList");
    const auto registration = host.calls("FT_SetVIDPID");
    ASSERT_EQ(registration.size(), 1u);
    EXPECT_EQ(registration[0].args, (std::vector<int64_t>{0x1CE6, 0x0003}));
    EXPECT_EQ(host.unitCount(), 1);
    EXPECT_EQ(host.family().status(), statusSensorFound);
}

TEST_F(LinuxDriverTest, EveryEnumerationRegistersAgain)
{
    host.addSensors(1);
    host.initialize();
    host.family().gotoStatus(statusEnumerating);
    EXPECT_EQ(host.calls("FT_SetVIDPID").size(), 2u);
    EXPECT_EQ(host.unitCount(), 1);
}

TEST_F(LinuxDriverTest, RegistrationAddsNoLogLine)
{
    host.addSensors(1);
    host.initialize();
    const int at = host.seen().all.indexOf("enumKORUXPlugIn with ");
    ASSERT_GE(at, 0);
    EXPECT_EQ(host.seen().all.value(at + 1), "GetDeviceInfoDetail of device 0.");
}

TEST_F(LinuxDriverTest, FailedRegistrationIsIgnoredAndTheListJudged)
{
    host.addSensors(1);
    host.bridge().failCall("FT_SetVIDPID", 1, FT_OTHER_ERROR);
    host.initialize();
    // The driver then lists nothing of the series.
    EXPECT_TRUE(host.seen().hasLog(kNoSensor));
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusEnumerating, statusNoSensor}));
    EXPECT_EQ(host.calls("FT_CreateDeviceInfoList").size(), 1u);
}

TEST_F(LinuxDriverTest, InterfaceListedWhileOpenIsOpenedAgainBySerial)
{
    host.addSensors(1);
    host.initialize();
    ASSERT_TRUE(host.unit()->openPorts());
    // A second enumeration lists the open interfaces without a location.
    host.family().gotoStatus(statusEnumerating);
    ASSERT_EQ(host.unitCount(), 1);
    QVeltraXRayKORUXPlugInUnit* second = host.unit();
    for (int port = 0; port < 4; ++port)
        EXPECT_EQ(second->portRecord(port).LocId, 0u) << port;

    host.bridge().clearTrace();
    host.seen().clear();
    ASSERT_TRUE(second->closePorts());
    ASSERT_TRUE(second->openPorts());
    const auto opens = host.calls("FT_OpenEx");
    ASSERT_EQ(opens.size(), 8u);
    EXPECT_EQ(opens[0].args, (std::vector<int64_t>{0, FT_OPEN_BY_LOCATION}));
    EXPECT_EQ(opens[0].status, static_cast<uint32_t>(FT_DEVICE_NOT_FOUND));
    EXPECT_EQ(opens[1].text, "KX0001A");
    EXPECT_EQ(opens[1].status, static_cast<uint32_t>(FT_OK));
    EXPECT_TRUE(host.seen().hasAdvanced("[yellow]Port A cannot be opened by location 0 [2]"));
    EXPECT_TRUE(host.seen().hasAdvanced("[green]Port D is open by serial"));
    EXPECT_EQ(second->status(), statusReady);
}

TEST_F(LinuxDriverTest, InterfaceOpenElsewhereCannotBeOpened)
{
    host.addSensors(1);
    host.initialize();
    FT_HANDLE other = nullptr;
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("KX0001C"), FT_OPEN_BY_SERIAL_NUMBER, &other),
              static_cast<FT_STATUS>(FT_OK));
    EXPECT_FALSE(host.unit()->openPorts());
    EXPECT_TRUE(host.seen().hasAdvanced("[yellow]Port C cannot be opened by location 4115 [3]"));
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Port C cannot be opened by serial KX0001C [3]"));
    EXPECT_EQ(host.unit()->status(), statusError);
    FT_Close(other);
}

TEST_F(LinuxDriverTest, QuestionMarkForTheSuperscriptTwoIsAccepted)
{
    host.bridge().setNonAsciiAsQuestionMark(true);
    host.addSensors(1);
    host.initialize();
    EXPECT_TRUE(host.seen().hasLog("Description of device: KORUX/KORUX? A."));
    EXPECT_EQ(host.unitCount(), 1);
    EXPECT_EQ(host.family().status(), statusSensorFound);
}

TEST_F(LinuxDriverTest, QuestionMarkWithAnUnknownLetterIsRefusedAsBefore)
{
    host.bridge().setNonAsciiAsQuestionMark(true);
    host.addLookalikePorts({"KORUX/KORUX\xb2 A", "KORUX/KORUX\xb2 B", "KORUX/KORUX\xb2 C", "KORUX/KORUX\xb2 X"});
    host.initialize();
    EXPECT_TRUE(host.seen().hasLog(kUnknownLetter));
    EXPECT_EQ(host.seen().count(kNotPort), 1);
    EXPECT_EQ(host.family().status(), statusError);
    EXPECT_EQ(host.unitCount(), 0);
}

TEST_F(LinuxDriverTest, QuestionMarkCountsOnlyWhereTheSuperscriptStands)
{
    host.bridge().setNonAsciiAsQuestionMark(true);
    // The driver hands these as "KORUX?KORUX? A" and "KORUX/KORUY? A".
    host.addLookalikePorts({"KORUX?KORUX\xb2 A", "KORUX/KORUY\xb2 B", "KORUX/KORUX\xb2 C", "KORUX/KORUX\xb2 D"});
    host.initialize();
    EXPECT_TRUE(host.seen().hasLog("Description of device: KORUX?KORUX? A."));
    EXPECT_EQ(host.seen().count(kNotPort), 2);
    EXPECT_FALSE(host.seen().hasLog(kUnknownLetter));
    EXPECT_EQ(host.family().status(), statusError);
}

TEST_F(LinuxDriverTest, QuestionMarkThereIsAcceptedWhateverTheDriverGives)
{
    // The plug-in cannot tell a driver's '?' from a description's own.
    host.addLookalikePorts({"KORUX/KORUX? A", "KORUX/KORUX\xb2 B", "KORUX/KORUX\xb2 C", "KORUX/KORUX\xb2 D"});
    host.initialize();
    EXPECT_EQ(host.unitCount(), 1);
}

TEST(SeriesDescriptionOnLinux, QuestionMarkStandsForTheSuperscriptTwoOnly)
{
    EXPECT_TRUE(korux::hasSeriesPrefix("KORUX/KORUX? A"));
    EXPECT_FALSE(korux::hasSeriesPrefix("KORUX?KORUX\xef\xbf\xbd A"));
    EXPECT_FALSE(korux::hasSeriesPrefix("KORUX/KORUY? A"));
    EXPECT_FALSE(korux::hasSeriesPrefix("KORUX/KORUX?? A"));
    EXPECT_FALSE(korux::hasSeriesPrefix("KORUX/KORUX?"));
}
