#include "support/PluginHarness.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <set>

using namespace testing_support;

namespace {

const std::set<int> kStatuses = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 16, 17, 18, 19, 20, 21, 23, 24, 25, 26, 27};

// The cycle commands and the statuses each is accepted from.
const std::map<int, std::set<int>> kAcceptedFrom = {
    {1, {0, 2, 3, 4, 5, 7, 8, 9, 17, 19, 27}},
    {15, {0, 2, 3, 4, 5, 7, 8, 9, 17, 19, 27}},
    {6, {21}},
    {18, {21}},
    {11, {4, 9, 27}},
    {20, {9, 12, 14, 21}},
    {22, {9, 12, 14, 21}},
};

// What the family reports after an accepted command, with no unit at all.
std::vector<int> expectedStatuses(int command, int from)
{
    switch (command) {
    case 1:
    case 15:
        return from == 27 ? std::vector<int>{9} : std::vector<int>{1, 3};
    case 6:
        return {18, 6};
    case 18:
        return {18, 19};
    case 11:
        return {11, 12};
    case 20:
    case 22:
        return {20, 21};
    default:
        return {};
    }
}

struct Row {
    int from;
    int command;
};

std::vector<Row> allRows()
{
    std::vector<Row> rows;
    for (int from : kStatuses)
        for (const auto& command : kAcceptedFrom)
            rows.push_back({from, command.first});
    return rows;
}

class StatusCycle : public ::testing::TestWithParam<Row> {
protected:
    PluginHarness host;
};

class DispatchTest : public ::testing::Test {
protected:
    PluginHarness host;

    void start(int sensors)
    {
        host.startWith(sensors);
        ASSERT_EQ(host.unitCount(), sensors);
    }

};

}  // namespace

TEST_P(StatusCycle, CommandIsAcceptedOnlyFromItsStatuses)
{
    const Row row = GetParam();
    KoruxFamilyAccess::setStatus(host.family(), static_cast<hardwareStatus>(row.from));
    host.family().gotoStatus(static_cast<hardwareStatus>(row.command));
    const bool accepted = kAcceptedFrom.at(row.command).count(row.from) > 0;
    if (accepted) {
        EXPECT_EQ(host.seen().rejected, 0);
        EXPECT_EQ(host.seen().statuses, expectedStatuses(row.command, row.from));
    } else {
        EXPECT_EQ(host.seen().rejected, 1);
        EXPECT_TRUE(host.seen().statuses.empty());
        EXPECT_EQ(host.family().status(), row.from);
        EXPECT_EQ(host.bridge().callCount(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(EveryStatusAndCommand, StatusCycle, ::testing::ValuesIn(allRows()),
                         [](const ::testing::TestParamInfo<Row>& info) {
                             return "From" + std::to_string(info.param.from) + "Command"
                                    + std::to_string(info.param.command);
                         });

TEST_F(DispatchTest, NoOpIsNeverRefused)
{
    for (int from : kStatuses) {
        host.seen().clear();
        KoruxFamilyAccess::setStatus(host.family(), static_cast<hardwareStatus>(from));
        host.family().gotoStatus(statusNoOpBegin);
        EXPECT_EQ(host.seen().statuses, (std::vector<int>{13, 14})) << from;
        EXPECT_EQ(host.seen().rejected, 0);
    }
}

TEST_F(DispatchTest, UnknownCommandsAreIgnoredSilently)
{
    KoruxFamilyAccess::setStatus(host.family(), statusReady);
    for (int command : {2, 5, 1008, 1009, 4242}) {
        host.family().gotoStatus(static_cast<hardwareStatus>(command));
        EXPECT_EQ(host.seen().rejected, 0);
        EXPECT_TRUE(host.seen().statuses.empty());
    }
    EXPECT_EQ(host.family().status(), statusReady);
}

TEST_F(DispatchTest, ArmingRightAfterEnumerationIsRefused)
{
    start(1);
    host.family().gotoStatus(statusArming);
    EXPECT_EQ(host.seen().rejected, 1);
    EXPECT_EQ(host.family().status(), statusSensorFound);
}

TEST_F(DispatchTest, FailingUnitStopsTheArmingOfTheOthers)
{
    start(4);
    host.family().gotoStatus(statusFpgaUpdating);
    ASSERT_EQ(host.family().status(), statusFpgaUpdated);
    host.seen().clear();
    // The second sensor never gets ready. No X-rays come: the first unit
    // stays armed while the second is waited for.
    for (int sensor = 0; sensor < 4; ++sensor)
        host.bridge().setAutoExposure(sensor, false);
    host.bridge().setStatusWord(1, {0x00, 428, 2, 1});
    host.family().gotoStatus(statusArming);
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusArming, statusError}));
    EXPECT_EQ(host.bridge().lastArm(0).count, 1);
    EXPECT_EQ(host.bridge().lastArm(1).count, 0);
    EXPECT_EQ(host.bridge().lastArm(2).count, 0);
    EXPECT_EQ(host.bridge().lastArm(3).count, 0);
}

TEST_F(DispatchTest, FailingFpgaUpdateEndsTheLoopButReachesUpdated)
{
    start(2);
    host.bridge().unplug(0);
    host.family().gotoStatus(statusFpgaUpdating);
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{statusFpgaUpdating, statusFpgaUpdated}));
    // The second unit was never reached.
    for (const auto& entry : host.bridge().trace())
        EXPECT_NE(entry.device.rfind("KX0002", 0), 0u) << entry.toString();
}

TEST_F(DispatchTest, UnitStatusesReachTheFamilyOnlyFromIntegratingOn)
{
    start(1);
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    for (hardwareStatus status : {statusReady, statusOpeningPorts, statusError, statusArmed, statusStopping,
                                  statusStopped, statusIntegrating, statusIntegrated, statusAcquiring, statusAcquired})
        unit->setStatus(status);
    EXPECT_EQ(host.seen().statuses, (std::vector<int>{24, 25, 26, 27}));
}

TEST_F(DispatchTest, UnitCommandFindsTheUnitByItsSerial)
{
    start(2);
    const uint32_t first = PluginHarness::storedCounter(0);
    const uint32_t second = PluginHarness::storedCounter(1);
    QString serial;
    ASSERT_TRUE(KoruxFamilyAccess::readSerialNumber(host.family(), 1, serial));
    host.family().gotoUnitStatus(serial, commandIncreaseShootCounter);
    EXPECT_EQ(PluginHarness::storedCounter(0), first);
    EXPECT_EQ(PluginHarness::storedCounter(1), second + 1);
    EXPECT_TRUE(host.seen().hasAdvanced(QString("gotoUnitStatus for %1 status 1009").arg(serial)));
}

TEST_F(DispatchTest, UnitCommandWithTheSerialInOtherCaseFindsNothing)
{
    start(1);
    QString serial;
    ASSERT_TRUE(KoruxFamilyAccess::readSerialNumber(host.family(), 0, serial));
    const uint32_t before = PluginHarness::storedCounter(0);
    host.seen().clear();
    host.family().gotoUnitStatus(serial.toLower(), commandIncreaseShootCounter);
    EXPECT_EQ(PluginHarness::storedCounter(0), before);
    EXPECT_EQ(host.seen().rejected, 0);
}

TEST_F(DispatchTest, UnitCommandIgnoresTheCycleCommands)
{
    start(1);
    QString serial;
    ASSERT_TRUE(KoruxFamilyAccess::readSerialNumber(host.family(), 0, serial));
    host.seen().clear();
    for (int command : {1, 6, 11, 13, 18, 20, 1002, 1008, 1010})
        host.family().gotoUnitStatus(serial, static_cast<hardwareStatus>(command));
    EXPECT_TRUE(host.seen().statuses.empty());
    EXPECT_EQ(host.seen().rejected, 0);
}

TEST_F(DispatchTest, FlashPageAddressIsReadAsANumber)
{
    start(1);
    QString serial;
    ASSERT_TRUE(KoruxFamilyAccess::readSerialNumber(host.family(), 0, serial));
    host.family().setParameter("FlashAddress", QString("4096"));
    host.seen().clear();
    host.family().gotoStatus(commandReadFlashPage);
    ASSERT_EQ(host.seen().data.size(), 1);
    EXPECT_EQ(reportValues(host.seen().data[0]).value("address").toInt(), 4096);
    host.family().setParameter("FlashAddress", QString("page"));
    host.family().gotoStatus(commandReadFlashPage);
    ASSERT_EQ(host.seen().data.size(), 2);
    EXPECT_EQ(reportValues(host.seen().data[1]).value("address").toInt(), 0);
}

TEST_F(DispatchTest, FirstUnitsMissingBitstreamDoesNotStopTheSecondUnit)
{
    start(2);
    host.bridge().setFlashContents(0, 0xF00000, std::vector<uint8_t>(16, 0xFF));
    host.family().gotoStatus(commandReadFlashFiles);
    QString second;
    ASSERT_TRUE(KoruxFamilyAccess::readSerialNumber(host.family(), 1, second));
    QDir dir(host.directory());
    EXPECT_TRUE(dir.exists(second + ".BTS"));
    EXPECT_TRUE(dir.exists(second + ".FFC"));
    EXPECT_TRUE(dir.exists(second + ".BLK"));
    EXPECT_TRUE(dir.exists(second + ".DPL"));
    EXPECT_FALSE(dir.exists(second + ".PRD"));
    QString first;
    ASSERT_TRUE(KoruxFamilyAccess::readSerialNumber(host.family(), 0, first));
    EXPECT_FALSE(dir.exists(first + ".FFC"));
}

TEST_F(DispatchTest, AllFlashFilesIncludeTheProductionFiles)
{
    start(1);
    host.family().gotoStatus(commandReadAllFlashFiles);
    QString serial;
    ASSERT_TRUE(KoruxFamilyAccess::readSerialNumber(host.family(), 0, serial));
    QDir dir(host.directory());
    for (const char* extension : {".BTS", ".FFC", ".BLK", ".DPL", ".PRD", ".ASS"})
        EXPECT_TRUE(dir.exists(serial + extension)) << extension;
}

TEST_F(DispatchTest, CounterReadRightAfterEnumerationFindsTheFlashClosed)
{
    start(1);
    host.family().gotoStatus(commandGetShootCounter);
    EXPECT_TRUE(host.seen().data.isEmpty());
    EXPECT_TRUE(host.seen().hasLog("[red]Port C handle is invalid") || host.seen().hasLog("SPI_SetModeQuad error INVALID_HANDLE"));
}

TEST_F(DispatchTest, CounterCommandsReport)
{
    start(1);
    // Reading the serial number opens the ports and sets up the flash's.
    host.family().gotoStatus(commandReadSerialNumber);
    host.seen().clear();
    host.family().gotoStatus(commandGetShootCounter);
    ASSERT_EQ(host.seen().data.size(), 1);
    EXPECT_EQ(reportValues(host.seen().data[0]).value("ShootCounter").toInt(), 1234);
    EXPECT_EQ(reportValues(host.seen().data[0]).value("index").toInt(), 0);
    unsigned int value = 0;
    ASSERT_TRUE(KoruxFamilyAccess::increaseShootCounter(host.family(), 0));
    ASSERT_TRUE(KoruxFamilyAccess::getShootCounter(host.family(), 0, &value));
    EXPECT_EQ(value, 1235u);
}

TEST_F(DispatchTest, SerialNumberCommandReportsEachUnit)
{
    start(2);
    host.family().gotoStatus(commandReadSerialNumber);
    ASSERT_EQ(host.seen().data.size(), 2);
    EXPECT_NE(reportValues(host.seen().data[0]).value("serialNumber").toString(),
              reportValues(host.seen().data[1]).value("serialNumber").toString());
}

TEST_F(DispatchTest, OscilloscopeParameterReachesEveryArming)
{
    start(2);
    host.family().gotoStatus(statusFpgaUpdating);
    host.family().setParameter("Oscilloscope", true);
    host.family().gotoStatus(statusArming);
    EXPECT_TRUE(host.bridge().lastArm(0).oscilloscope);
    EXPECT_TRUE(host.bridge().lastArm(1).oscilloscope);
}

TEST_F(DispatchTest, ArmingWithoutOscilloscopeParameterArmsWithout)
{
    start(1);
    host.family().gotoStatus(statusFpgaUpdating);
    host.family().gotoStatus(statusArming);
    EXPECT_FALSE(host.bridge().lastArm(0).oscilloscope);
    EXPECT_EQ(host.family().status(), statusArmed);
}

TEST_F(DispatchTest, ArmingAgainWhileArmedIsAccepted)
{
    start(1);
    host.family().gotoStatus(statusFpgaUpdating);
    host.bridge().setAutoExposure(0, false);
    host.family().gotoStatus(statusArming);
    host.family().gotoStatus(statusArming);
    EXPECT_EQ(host.bridge().lastArm(0).count, 2);
    EXPECT_EQ(host.family().status(), statusArmed);
}

TEST_F(DispatchTest, FailingStopEndsTheLoopButReachesStopped)
{
    start(2);
    host.bridge().setAutoExposure(0, false);
    host.bridge().setAutoExposure(1, false);
    host.family().gotoStatus(statusFpgaUpdating);
    host.family().gotoStatus(statusArming);
    ASSERT_EQ(host.family().status(), statusArmed);
    ASSERT_EQ(host.bridge().lastArm(1).count, 1);
    host.seen().clear();
    // The first unit's sensor no longer reports itself ready: its stop fails
    // and the second unit is not stopped, yet the family reaches its final
    // status. (Its polling meanwhile sees nothing wrong; an unplugged sensor
    // would put the family in error from the first tick that comes during
    // the stop's waits.)
    host.bridge().setStatusWord(0, {0x00, 428, 2, 1});
    host.family().gotoStatus(statusStopping);
    ASSERT_GE(host.seen().statuses.size(), 2u);
    EXPECT_EQ(std::vector<int>(host.seen().statuses.begin(), host.seen().statuses.begin() + 2),
        (std::vector<int>{statusStopping, statusStopped}));
    EXPECT_EQ(host.bridge().lastArm(1).count, 1);
    EXPECT_EQ(host.bridge().lastArm(1).threshold, 440);
}
