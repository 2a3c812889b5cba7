// A host written from the contract alone: it lets its events run in every
// slot it connects, re-enumerates there, forces the framework's deferred
// deletions through, and may delete the family. Each test names the guard of
// the plug-in it pins: with that guard taken out, the test fails (each was
// checked so, by removing its guard once).
#include "support/PluginHarness.h"

#include <QDir>
#include <QPointer>

#include "plugin/OperationScope.h"

using namespace testing_support;

namespace {

using Unit = QVeltraXRayKORUXPlugInUnit;

// Carries out every deferred deletion that is due, whatever the loop level:
// the harshest host the framework's deleteLater allows.
void forceDeferredDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

class HostContractTest : public ::testing::Test {
protected:
    PluginHarness host;

    void start(int sensors, const vbridge::SensorConfig& config = vbridge::SensorConfig())
    {
        for (int i = 0; i < sensors; ++i)
            host.bridge().addSensor(config);
        host.initialize();
        ASSERT_EQ(host.unitCount(), sensors);
        host.seen().clear();
        host.bridge().clearTrace();
    }

    // A new enumeration given by the host from inside one of its slots, with
    // the first sensor unplugged; the trace length and the count of log lines
    // and reports when it ended.
    void reenumerate(bool unplugFirst = true)
    {
        if (unplugFirst)
            host.bridge().unplug(0);
        host.family().gotoStatus(statusEnumerating);
        host.connectUnits();
        forceDeferredDeletes();
        callsAfterEnumeration = host.bridge().trace().size();
        linesAfterEnumeration = host.seen().all.size();
        reportsAfterEnumeration = host.seen().data.size();
    }

    // Bridge calls, log lines and reports since the host's enumeration.
    size_t callsSince() const { return host.bridge().trace().size() - callsAfterEnumeration; }
    int linesSince() { return host.seen().all.size() - linesAfterEnumeration; }
    int reportsSince() { return host.seen().data.size() - reportsAfterEnumeration; }

    // Arms the family with a sensor that waits for an exposure that never
    // comes: the unit polls until stopped.
    void armWaiting(bool oscilloscope = false)
    {
        vbridge::SensorConfig config;
        config.autoExposure = false;
        start(1, config);
        host.family().gotoStatus(statusFpgaUpdating);
        ASSERT_EQ(host.family().status(), statusFpgaUpdated);
        host.family().setParameter("Oscilloscope", oscilloscope);
        host.family().gotoStatus(statusArming);
        ASSERT_EQ(host.family().status(), statusArmed);
    }

    size_t callsAfterEnumeration = 0;
    int linesAfterEnumeration = 0;
    int reportsAfterEnumeration = 0;
};

// ------------------------------------------------------------ named unit

struct NamedCommand {
    hardwareStatus command;
    const char* name;
};

class NamedUnitOrNone : public HostContractTest, public ::testing::WithParamInterface<NamedCommand> { };

// Three sensors; the host names the second. While the second answers its
// serial read (its report), the host unplugs the first and enumerates anew:
// the second is now a new unit object at index 0, the third at index 1. The
// command must act on the unit object that answered, which has left the
// vector: on nothing. (Guard: gotoUnitStatus checks the unit it found is
// still the family's before it dispatches.)
TEST_P(NamedUnitOrNone, CommandForAUnitGivenUpDuringItsSerialReportActsOnNothing)
{
    start(3);
    QString second;
    QString third;
    ASSERT_TRUE(host.unit(1)->readSerialNumber(second));
    ASSERT_TRUE(host.unit(2)->readSerialNumber(third));
    const uint32_t thirdCounter = PluginHarness::storedCounter(2);
    bool enumerated = false;
    QObject::connect(host.unit(1), &QVeltraHardwareUnit::dataRead, [&](const QString& json) {
        if (enumerated || !json.contains(second))
            return;
        enumerated = true;
        reenumerate();
    });

    host.family().gotoUnitStatus(second, GetParam().command);

    ASSERT_TRUE(enumerated);
    EXPECT_EQ(host.unitCount(), 2);
    EXPECT_EQ(callsSince(), 0u);
    EXPECT_EQ(reportsSince(), 0);
    EXPECT_EQ(PluginHarness::storedCounter(2), thirdCounter);
    const QDir directory(host.directory());
    for (const char* extension : { ".BTS", ".FFC", ".BLK", ".DPL", ".PRD", ".ASS" })
        EXPECT_FALSE(directory.exists(third + extension)) << extension;
}

// The same host without the enumeration: the named unit gets the command,
// which reaches its sensor after the serial read that found it.
TEST_P(NamedUnitOrNone, CommandForAUnitStillThereActsOnIt)
{
    start(3);
    QString second;
    ASSERT_TRUE(host.unit(1)->readSerialNumber(second));
    size_t callsAtSerialReport = 0;
    QObject::connect(host.unit(1), &QVeltraHardwareUnit::dataRead, [&](const QString& json) {
        if (callsAtSerialReport == 0 && json.contains(second))
            callsAtSerialReport = host.bridge().trace().size();
    });

    host.family().gotoUnitStatus(second, GetParam().command);

    ASSERT_GT(callsAtSerialReport, 0u);
    EXPECT_GT(host.bridge().trace().size(), callsAtSerialReport);
}

INSTANTIATE_TEST_SUITE_P(EveryUnitCommand, NamedUnitOrNone,
    ::testing::Values(NamedCommand { commandGetParameters, "GetParameters" },
        NamedCommand { commandGetVoltages, "GetVoltages" },
        NamedCommand { commandReadFlashFiles, "ReadFlashFiles" },
        NamedCommand { commandReadAllFlashFiles, "ReadAllFlashFiles" },
        NamedCommand { commandRewriteFlashFiles, "RewriteFlashFiles" },
        NamedCommand { commandRewriteAllFlashFiles, "RewriteAllFlashFiles" },
        NamedCommand { commandGetShootCounter, "GetShootCounter" },
        NamedCommand { commandIncreaseShootCounter, "IncreaseShootCounter" },
        NamedCommand { commandFormatFlash, "FormatFlash" },
        NamedCommand { commandReadFlashPage, "ReadFlashPage" }),
    [](const ::testing::TestParamInfo<NamedCommand>& info) { return std::string(info.param.name); });

} // namespace

// ------------------------------------------------------ family-wide loops

// A family-wide command goes on with the units still there, each once: after
// an enumeration in the first unit's report none of the old units is, and
// the new ones were not part of the command. (Guard: the family's loop skips
// units that left the vector.)
TEST_F(HostContractTest, FamilyLoopStopsWithTheUnitsGivenUpInsideIt)
{
    start(3);
    bool enumerated = false;
    QObject::connect(host.unit(0), &QVeltraHardwareUnit::dataRead, [&](const QString&) {
        if (enumerated)
            return;
        enumerated = true;
        reenumerate();
    });

    host.family().gotoStatus(commandReadSerialNumber);

    ASSERT_TRUE(enumerated);
    EXPECT_EQ(host.seen().data.size(), 1);
    EXPECT_EQ(callsSince(), 0u);
    EXPECT_EQ(host.unitCount(), 2);
}

// --------------------------------------------------------- polling ticks

namespace {

struct PollingSlot {
    const char* name;
    // The tick's trace line starts so.
    const char* traceLine;
    bool oscilloscope;
    bool stopFirst;
};

class PollingTick : public HostContractTest, public ::testing::WithParamInterface<PollingSlot> {
protected:
    void armForSlot()
    {
        armWaiting(GetParam().oscilloscope);
        if (GetParam().stopFirst) {
            host.family().gotoStatus(statusStopping);
            ASSERT_EQ(host.family().status(), statusStopped);
        }
        host.seen().clear();
    }

    // The host's enumeration from a status that accepts it, as after an
    // error of another sensor: an armed family refuses one.
    void reenumerateWhilePolling()
    {
        KoruxFamilyAccess::setStatus(host.family(), statusError);
        reenumerate(false);
        ASSERT_EQ(host.family().status(), statusSensorFound);
    }
};

// The host enumerates anew from its slot of the tick's trace line and lets
// every deferred deletion through. The unit must outlive its tick (guard:
// the slot is an operation of the plug-in), and after the trace line it must
// make no bridge call and log no line (guard: the tick checks its unit after
// the trace line).
TEST_P(PollingTick, UnitGivenUpInsideItsTickLivesThroughItAndStopsAtOnce)
{
    armForSlot();
    const QPointer<Unit> unit = host.unit();
    bool enumerated = false;
    bool deletedInsideTick = false;
    QObject::connect(unit, &QVeltraHardwareUnit::logAdvancedText, [&](const QString& line) {
        if (enumerated || !line.startsWith(QLatin1String(GetParam().traceLine)))
            return;
        enumerated = true;
        reenumerateWhilePolling();
        deletedInsideTick = unit.isNull();
    });

    ASSERT_TRUE(host.runUntil([&] { return enumerated; }, 5000));

    EXPECT_FALSE(deletedInsideTick);
    EXPECT_EQ(callsSince(), 0u);
    EXPECT_EQ(linesSince(), 0) << host.seen().all.mid(linesAfterEnumeration).join('\n').toStdString();
    forceDeferredDeletes();
    EXPECT_TRUE(unit.isNull());
    // No tick of the given-up unit comes later either.
    host.runUntil([] { return false; }, 400);
    EXPECT_EQ(linesSince(), 0);
}

// A tick that fires while an operation of the plug-in still holds the given-
// up unit: it makes no bridge call and logs nothing (guard: each tick checks
// its unit before its first step).
TEST_P(PollingTick, TickOfAGivenUpUnitHeldByAnOperationDoesNothing)
{
    armForSlot();
    const QPointer<Unit> unit = host.unit();
    {
        const korux::OperationScope outerOperation;
        reenumerateWhilePolling();
        ASSERT_FALSE(unit.isNull());
        QMetaObject::invokeMethod(unit, GetParam().name, Qt::DirectConnection);
        EXPECT_EQ(callsSince(), 0u);
        EXPECT_EQ(linesSince(), 0) << host.seen().all.mid(linesAfterEnumeration).join('\n').toStdString();
    }
    forceDeferredDeletes();
    EXPECT_TRUE(unit.isNull());
}

INSTANTIATE_TEST_SUITE_P(EveryPollingSlot, PollingTick,
    ::testing::Values(PollingSlot { "waitForImage", "[green]waitForImage", false, false },
        PollingSlot { "waitForOscilloscope", "[green]waitForOscilloscope", true, false },
        // The stop's ticks trace under the image slot's name.
        PollingSlot { "waitForStopping", "[green]waitForImage", false, true }),
    [](const ::testing::TestParamInfo<PollingSlot>& info) { return std::string(info.param.name); });

// The host enumerates anew from its slot of a unit's status change, as the
// unit enters integration. The given-up unit's status, which the framework
// hands to the family after that slot, is not the family's: the family is
// the new enumeration's (guard: the family takes a unit's status only from
// a unit it holds).
TEST_F(HostContractTest, StatusOfAUnitGivenUpInItsStatusSlotIsNotTheFamilys)
{
    start(1, PluginHarness::twoTickSensor());
    host.family().gotoStatus(statusFpgaUpdating);
    host.family().gotoStatus(statusArming);
    ASSERT_EQ(host.family().status(), statusArmed);
    bool enumerated = false;
    QObject::connect(host.unit(), &QVeltraHardwareUnit::statusChanged, [&](hardwareStatus status) {
        if (enumerated || status != statusIntegrating)
            return;
        enumerated = true;
        // An armed family refuses an enumeration; after another sensor's
        // error it takes one.
        KoruxFamilyAccess::setStatus(host.family(), statusError);
        reenumerate(false);
    });
    ASSERT_TRUE(host.runUntil([&] { return enumerated; }, 5000));
    EXPECT_EQ(host.family().status(), statusSensorFound);
    ASSERT_FALSE(host.seen().statuses.empty());
    EXPECT_EQ(host.seen().statuses.back(), statusSensorFound);
}

// After a stop the image slot's late tick only logs that the acquisition
// stopped; a given-up unit does not even log that (guard: the image and
// oscilloscope ticks check their unit before the stop test).
TEST_F(HostContractTest, StoppedTickOfAGivenUpUnitLogsNothing)
{
    armWaiting();
    host.family().gotoStatus(statusStopping);
    ASSERT_EQ(host.family().status(), statusStopped);
    const QPointer<Unit> unit = host.unit();
    {
        const korux::OperationScope outerOperation;
        reenumerate(false);
        QMetaObject::invokeMethod(unit, "waitForImage", Qt::DirectConnection);
        EXPECT_EQ(linesSince(), 0) << host.seen().all.mid(linesAfterEnumeration).join('\n').toStdString();
    }
    forceDeferredDeletes();
}

// ------------------------------------------------ unit members called directly

struct DirectCall {
    const char* name;
    std::function<bool(Unit&)> call;
};

class DirectMember : public HostContractTest, public ::testing::WithParamInterface<DirectCall> { };

// A host (korux's counter setting does this) calls a public member of the
// unit directly and lets its events run in every slot: at the member's first
// signal it enumerates anew, and at every signal it forces the deferred
// deletions through. The
// unit must live until the member returns, and go after. (Guard: each public
// member that reaches the bridge is an operation of the plug-in.)
TEST_P(DirectMember, UnitLivesUntilTheMemberReturns)
{
    start(1);
    const QPointer<Unit> unit = host.unit();
    QString serial;
    ASSERT_TRUE(unit->readSerialNumber(serial));
    bool enumerated = false;
    bool deletedInside = false;
    const auto hostEvents = [&] {
        if (!enumerated) {
            enumerated = true;
            reenumerate(false);
        }
        forceDeferredDeletes();
        deletedInside = deletedInside || unit.isNull();
    };
    QObject::connect(unit, &QVeltraHardwareUnit::logText, hostEvents);
    QObject::connect(unit, &QVeltraHardwareUnit::logAdvancedText, hostEvents);
    QObject::connect(unit, &QVeltraHardwareUnit::dataRead, hostEvents);

    GetParam().call(*unit);

    ASSERT_TRUE(enumerated);
    EXPECT_FALSE(deletedInside);
    EXPECT_FALSE(unit.isNull());
    forceDeferredDeletes();
    EXPECT_TRUE(unit.isNull());
}

INSTANTIATE_TEST_SUITE_P(PublicMembers, DirectMember,
    ::testing::Values(DirectCall { "setShootCounter", [](Unit& u) { return u.setShootCounter(77); } },
        DirectCall { "increaseShootCounter", [](Unit& u) { return u.setShootCounter(0xFFFFFFFF); } },
        DirectCall { "getShootCounter",
            [](Unit& u) {
                unsigned int value = 0;
                return u.getShootCounter(&value);
            } },
        DirectCall { "readSerialNumber",
            [](Unit& u) {
                QString serial;
                return u.readSerialNumber(serial);
            } },
        DirectCall { "readInformation", [](Unit& u) { return u.readInformation(true); } },
        DirectCall { "getParameters", [](Unit& u) { return u.getParameters(); } },
        DirectCall {
            "getVoltages", [](Unit& u) { return u.getVoltages(nullptr, nullptr, nullptr, nullptr); } },
        DirectCall { "formatFlash", [](Unit& u) { return u.formatFlash(); } },
        DirectCall { "technicReadFlashPage", [](Unit& u) { return u.technicReadFlashPage(0); } },
        DirectCall { "readBTSFile", [](Unit& u) { return u.readBTSFile(true); } },
        DirectCall { "openPorts", [](Unit& u) { return u.closePorts() && u.openPorts(); } }),
    [](const ::testing::TestParamInfo<DirectCall>& info) { return std::string(info.param.name); });

} // namespace

// ---------------------------------------------------- the family deleted

// A host deletes the family from its slot of the first unit's report, in the
// middle of a family-wide command. The units live until the command has
// returned (guard: the family's destructor keeps its units past it inside an
// operation), the command goes to no further unit (guard: the loop stops
// when the family is gone), and then both units go.
TEST_F(HostContractTest, FamilyDeletedInsideACommandIsSafe)
{
    host.addSensors(2);
    QVeltraHardwareFamily* family = getVeltraHardware();
    family->setDirectory(QDir(host.directory()));
    ASSERT_TRUE(family->initializeVeltraHardwareFamily());
    ASSERT_EQ(family->hardwareUnitVector().size(), 2);
    const QPointer<QVeltraHardwareUnit> first = family->hardwareUnitVector()[0];
    const QPointer<QVeltraHardwareUnit> second = family->hardwareUnitVector()[1];
    int reports = 0;
    bool unitsAliveAfterDelete = false;
    QObject::connect(first, &QVeltraHardwareUnit::dataRead, [&](const QString&) {
        ++reports;
        if (!family)
            return;
        delete family;
        family = nullptr;
        unitsAliveAfterDelete = !first.isNull() && !second.isNull();
    });
    int secondReports = 0;
    QObject::connect(second, &QVeltraHardwareUnit::dataRead, [&](const QString&) { ++secondReports; });

    family->gotoStatus(commandGetParameters);

    EXPECT_EQ(family, nullptr);
    EXPECT_TRUE(unitsAliveAfterDelete);
    // The first unit finished the report it was making; the second made none.
    EXPECT_GE(reports, 1);
    EXPECT_EQ(secondReports, 0);
    forceDeferredDeletes();
    EXPECT_TRUE(first.isNull());
    EXPECT_TRUE(second.isNull());
}

// A host deletes the family from its slot of the family's own status signal:
// the command stops there (guard: the family checks itself after each status
// it sends), for the no-op pair and for an arming with a unit. The no-op
// pair's guard shows only under the sanitizers: without it the second status
// is written into the freed family.
TEST_F(HostContractTest, FamilyDeletedInItsStatusSlotStopsTheCommand)
{
    for (const hardwareStatus command : { statusNoOpBegin, statusArming }) {
        host.addSensors(1);
        QVeltraHardwareFamily* family = getVeltraHardware();
        family->setDirectory(QDir(host.directory()));
        ASSERT_TRUE(family->initializeVeltraHardwareFamily());
        KoruxFamilyAccess::setStatus(*static_cast<QVeltraXRayKORUXPlugIn*>(family), statusReady);
        const QPointer<QVeltraHardwareUnit> unit = family->hardwareUnitVector().value(0);
        std::vector<int> statuses;
        QObject::connect(family, &QVeltraHardwareFamily::statusChanged, [&](hardwareStatus status) {
            statuses.push_back(status);
            delete family;
        });
        host.bridge().clearTrace();

        family->gotoStatus(command);

        EXPECT_EQ(statuses, std::vector<int> { int(command) }) << command;
        // Nothing reached the sensor after the family went.
        EXPECT_TRUE(host.bridge().trace().empty()) << command;
        forceDeferredDeletes();
        EXPECT_TRUE(unit.isNull()) << command;
        host.bridge().reset();
    }
}

// A host deletes the family from its log slot in the middle of an
// enumeration, at the first device, at the last port and at the end: the
// enumeration stops there (guard: it checks the family after each signal it
// sends). Without the guard the enumeration goes on in the freed family,
// which the sanitizers report.
TEST_F(HostContractTest, FamilyDeletedInsideItsEnumerationStopsIt)
{
    for (const char* line : { "GetDeviceInfoDetail of device 0.", "Find KORUX/KORUX² Series port D #2.",
             "[green]enumKORUXPlugIn OK." }) {
        host.addSensors(2);
        QVeltraHardwareFamily* family = getVeltraHardware();
        family->setDirectory(QDir(host.directory()));
        bool deleted = false;
        const auto deleteAt = [&](const QString& text) {
            if (deleted || text != QString::fromUtf8(line))
                return;
            deleted = true;
            delete family;
        };
        QObject::connect(family, &QVeltraHardwareFamily::logText, deleteAt);
        QObject::connect(family, &QVeltraHardwareFamily::logAdvancedText, deleteAt);

        EXPECT_TRUE(family->initializeVeltraHardwareFamily()) << line;

        EXPECT_TRUE(deleted) << line;
        forceDeferredDeletes();
        host.bridge().reset();
    }
}
