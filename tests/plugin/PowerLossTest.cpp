// Power lost in the middle of a shot-counter update: the flash keeps what
// the interrupted program or erase left, the sensor drops off the bus, and
// the counter read after plugging it back in must not have gone backwards.
#include "support/PluginHarness.h"

#include "sim/FlashContent.h"

using namespace testing_support;

namespace {

struct Outcome {
    bool updateFailed = false;
    bool unplugged = false;
    uint32_t value = 0;
    int index = -1;
};

// Cuts the power during the nth program or erase of one automatic increase
// of a counter area holding values, then plugs the sensor back and reads.
Outcome cutDuringIncrease(const std::vector<uint32_t>& values, int nth)
{
    PluginHarness host;
    vbridge::SensorConfig config;
    config.defaultFlash = false;
    host.bridge().addSensor(config);
    host.bridge().setFlashContents(0, vbridge::kCounterAddress, vbridge::counterAreaImage(values));
    host.initialize();
    QVeltraXRayKORUXPlugInUnit* unit = host.unit();
    EXPECT_TRUE(unit->openPorts());
    EXPECT_TRUE(unit->initPortC(false));

    Outcome outcome;
    host.bridge().cutPowerAt(0, nth);
    outcome.updateFailed = !unit->setShootCounter(0xFFFFFFFF);
    outcome.unplugged = !host.bridge().isPlugged(0);

    host.bridge().plug(0);
    host.family().gotoStatus(statusEnumerating);
    EXPECT_EQ(host.unitCount(), 1);
    QVeltraXRayKORUXPlugInUnit* again = host.unit();
    EXPECT_TRUE(again->openPorts());
    EXPECT_TRUE(again->initPortC(false));
    EXPECT_TRUE(again->getShootCounter(&outcome.value, &outcome.index));
    return outcome;
}

}  // namespace

TEST(PowerLoss, CutDuringTheSlotProgramNeverTakesTheCounterBack)
{
    const Outcome outcome = cutDuringIncrease({1230, 1231, 1232, 1233, 1234}, 1);
    EXPECT_TRUE(outcome.updateFailed);
    EXPECT_TRUE(outcome.unplugged);
    // A half-programmed slot keeps some of its ones: it reads at least the
    // new value, so the count never falls below the old one.
    EXPECT_GE(outcome.value, 1235u);
}

TEST(PowerLoss, CutDuringAWrapEraseNeverTakesTheCounterBack)
{
    std::vector<uint32_t> full(4096);
    for (int i = 0; i < 4096; ++i)
        full[i] = 10000 + static_cast<uint32_t>(i);
    // The wrap erases the four sectors, then programs slot 0. A cut during
    // an erase leaves the sector partly erased: some of its bits already set,
    // so a slot there may read as a larger value than any written. The count
    // never falls below the old value; it may jump up.
    for (int nth = 1; nth <= 4; ++nth) {
        const Outcome outcome = cutDuringIncrease(full, nth);
        EXPECT_TRUE(outcome.updateFailed) << nth;
        EXPECT_TRUE(outcome.unplugged) << nth;
        EXPECT_GE(outcome.value, 14095u) << nth;
    }
    // Cut during the first erase, the last sector is whole: its slot 4095
    // still holds 14095, and the scrambled first sector holds more.
    const Outcome first = cutDuringIncrease(full, 1);
    EXPECT_GT(first.value, 14095u);
    EXPECT_LT(first.index, 1024);
}

TEST(PowerLoss, CutDuringTheProgramAfterAWrapLeavesOnlyThePartialSlot)
{
    std::vector<uint32_t> full(4096);
    for (int i = 0; i < 4096; ++i)
        full[i] = 10000 + static_cast<uint32_t>(i);
    const Outcome outcome = cutDuringIncrease(full, 5);
    EXPECT_TRUE(outcome.updateFailed);
    EXPECT_EQ(outcome.index, 0);
    // The area was erased whole before the program: what is left is the one
    // partly programmed slot, which reads at least the new value 14096. Had
    // the power gone between the last erase and the program, the area would
    // be empty and the count would restart from 0: the wrap cannot keep its
    // promise there.
    EXPECT_GE(outcome.value, 14096u);
}
