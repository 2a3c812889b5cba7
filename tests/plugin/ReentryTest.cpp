// A host that gives commands while the plug-in lets its event loop run: from
// inside a flash-file copy, an arming and a counter wrap, a new enumeration
// gives the units up. They must live until the operation running on them has
// returned, act no further once given up, and the family's loops must stop
// with the units that are left.
#include "support/PluginHarness.h"

#include <QDir>
#include <QPointer>
#include <QTimer>

#include "sim/FlashContent.h"

using namespace testing_support;

namespace {

using Unit = QVeltraXRayKORUXPlugInUnit;

class ReentryTest : public ::testing::Test {
protected:
    PluginHarness host;

    void start(int sensors)
    {
        host.startWith(sensors);
        ASSERT_EQ(host.unitCount(), sensors);
        ASSERT_EQ(host.family().status(), statusSensorFound);
    }

    // A host event, run at the next turn of the event loop the plug-in gives.
    void atNextTurn(const std::function<void()>& event) { QTimer::singleShot(0, event); }

    // Lets the host's loop run until the units given up are gone.
    bool gone(const std::vector<QPointer<Unit>>& units)
    {
        // Outside any event loop (as in this test program) deferred deletions
        // wait for an explicit turn.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return host.runUntil(
            [&] {
                return std::all_of(
                    units.begin(), units.end(), [](const QPointer<Unit>& u) { return u.isNull(); });
            },
            2000);
    }

    static bool isInVector(QVeltraXRayKORUXPlugIn& family, const Unit* unit)
    {
        return family.hardwareUnitVector().contains(const_cast<Unit*>(unit));
    }
};

} // namespace

TEST_F(ReentryTest, EnumerationInsideAFlashFileCopyOfTwoUnitsWithOneUnplugged)
{
    start(2);
    const QPointer<Unit> first = host.unit(0);
    const QPointer<Unit> second = host.unit(1);
    QString firstSerial;
    QString secondSerial;
    ASSERT_TRUE(first->readSerialNumber(firstSerial));
    ASSERT_TRUE(second->readSerialNumber(secondSerial));
    int unitsAfter = -1;
    atNextTurn([&] {
        host.bridge().unplug(1);
        host.family().gotoStatus(statusEnumerating);
        unitsAfter = host.unitCount();
    });

    host.family().gotoStatus(commandReadFlashFiles);

    // The enumeration ran inside the first unit's first copy and left one unit.
    EXPECT_EQ(unitsAfter, 1);
    EXPECT_EQ(host.unitCount(), 1);
    // The given-up first unit finished the copy it was in and read no further
    // file (guard: readFlashFiles checks its unit before each file).
    const QDir directory(host.directory());
    EXPECT_TRUE(directory.exists(firstSerial + ".BTS"));
    for (const char* extension : { ".FFC", ".BLK", ".DPL" })
        EXPECT_FALSE(directory.exists(firstSerial + extension)) << extension;
    // The loop stopped with the units that are left: nothing of the second.
    for (const char* extension : { ".BTS", ".FFC", ".BLK", ".DPL" })
        EXPECT_FALSE(directory.exists(secondSerial + extension)) << extension;
    // Both old units lived through the command and go at the host's next turn.
    ASSERT_FALSE(first.isNull());
    ASSERT_FALSE(second.isNull());
    EXPECT_FALSE(isInVector(host.family(), first));
    EXPECT_TRUE(gone({ first, second }));
    EXPECT_EQ(host.unitCount(), 1);
    EXPECT_EQ(host.family().status(), statusSensorFound);
}

TEST_F(ReentryTest, EnumerationInsideAnArmingKeepsTheArmingUnitUntilItReturns)
{
    host.bridge().addSensor(PluginHarness::twoTickSensor());
    host.initialize();
    ASSERT_EQ(host.unitCount(), 1);
    host.seen().clear();
    const QPointer<Unit> armed = host.unit();
    // Ports A and D set up as the FPGA check leaves them.
    bool solo = true;
    ASSERT_TRUE(armed->openPorts() && armed->initPortA(false) && armed->initPortD(&solo));
    // Not ready at the first status read: the arming waits and lets the host run.
    host.bridge().queueStatusWords(0, { { 0x00, 428, 2, 1 } });
    bool ran = false;
    atNextTurn([&] {
        ran = true;
        host.family().gotoStatus(statusEnumerating);
    });

    EXPECT_TRUE(armed->armSensor(true, false));

    EXPECT_TRUE(ran);
    ASSERT_FALSE(armed.isNull());
    EXPECT_FALSE(isInVector(host.family(), armed));
    EXPECT_TRUE(host.seen().hasLog("[green]sensor armed"));
    EXPECT_TRUE(gone({ armed }));
    // The polling that the given-up unit scheduled went with it.
    host.runUntil([] { return false; }, 400);
    EXPECT_TRUE(host.seen().images.empty());
    EXPECT_EQ(host.unitCount(), 1);
}

TEST_F(ReentryTest, EnumerationInsideACounterWrapKeepsTheUnitUntilTheCommandReturns)
{
    start(1);
    // Every slot used: the next write erases the area and starts again at 0.
    std::vector<uint32_t> values(4096);
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = 1000 + static_cast<uint32_t>(i);
    host.bridge().setFlashContents(0, vbridge::kCounterAddress, vbridge::counterAreaImage(values));
    const QPointer<Unit> unit = host.unit();
    QString serial;
    ASSERT_TRUE(unit->readSerialNumber(serial));
    // The host keeps its window alive from its log slot; the command it was
    // given meanwhile runs there.
    bool posted = false;
    QObject::connect(unit, &QVeltraHardwareUnit::logAdvancedText, [&](const QString& line) {
        if (!posted && line.startsWith("[yellow]The sector has been fully used")) {
            posted = true;
            atNextTurn([&] { host.family().gotoStatus(statusEnumerating); });
        }
        QCoreApplication::processEvents();
    });

    host.family().gotoUnitStatus(serial, commandIncreaseShootCounter);

    EXPECT_TRUE(posted);
    ASSERT_FALSE(unit.isNull());
    EXPECT_FALSE(isInVector(host.family(), unit));
    EXPECT_EQ(host.storedCounter(), 1000u + 4095u + 1u);
    const std::vector<uint8_t> first = host.bridge().flashContents(0, vbridge::kCounterAddress, 8);
    EXPECT_EQ(hex(first), "00 00 13 e8 ff ff ff ff");
    EXPECT_TRUE(gone({ unit }));
    EXPECT_EQ(host.unitCount(), 1);
}

TEST_F(ReentryTest, UnitGivenUpOutsideAnyOperationGoesAtTheNextTurn)
{
    start(1);
    const QPointer<Unit> old = host.unit();
    host.family().gotoStatus(statusEnumerating);
    EXPECT_FALSE(old.isNull());
    EXPECT_TRUE(gone({ old }));
}
