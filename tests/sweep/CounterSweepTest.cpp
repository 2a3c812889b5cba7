// The shot counter against power cuts: 4097 automatic increases from an
// empty area, through the wrap that erases it, with the power cut once at
// every program and erase in turn. After each cut the sensor is plugged back
// and the counter read: it never falls below the value it had before the
// interrupted increase, so at most the interrupted shot is lost.
#include <gtest/gtest.h>

#include "sim/FlashContent.h"
#include "support/PluginHarness.h"

using testing_support::PluginHarness;

namespace {

constexpr uint32_t kAreaSize = 16384;
constexpr int kSlots = 4096;

class CounterSweep : public ::testing::Test {
protected:
    void SetUp() override
    {
        vbridge::SensorConfig config;
        config.defaultFlash = false;
        host.bridge().addSensor(config);
        host.bridge().setTraceEnabled(false);
        ASSERT_TRUE(host.initialize());
        unit = host.unit();
        ASSERT_TRUE(unit->openPorts());
        ASSERT_TRUE(unit->initPortC(false));
    }

    // Back on after a cut: the old handles are dead, the ports open anew.
    void plugBack()
    {
        if (!host.bridge().isPlugged(0))
            host.bridge().plug(0);
        unit->closePorts();
        ASSERT_TRUE(unit->openPorts());
        ASSERT_TRUE(unit->initPortC(false));
    }

    uint32_t counter()
    {
        unsigned int value = 0;
        int index = -1;
        EXPECT_TRUE(unit->getShootCounter(&value, &index));
        return value;
    }

    std::vector<uint8_t> area() const
    {
        return host.bridge().flashContents(0, vbridge::kCounterAddress, kAreaSize);
    }
    void restore(const std::vector<uint8_t>& bytes)
    {
        host.bridge().setFlashContents(0, vbridge::kCounterAddress, bytes);
    }

    PluginHarness host;
    QVeltraXRayKORUXPlugInUnit* unit = nullptr;
};

} // namespace

TEST_F(CounterSweep, PowerCutAtEveryProgramAndEraseNeverTakesTheCountBack)
{
    for (int increase = 0; increase <= kSlots; ++increase) {
        const uint32_t before = static_cast<uint32_t>(increase);
        // An increase programs one slot; the one after the last slot first
        // erases the four sectors of the area.
        const int operations = increase == kSlots ? 5 : 1;
        const std::vector<uint8_t> saved = area();
        for (int operation = 1; operation <= operations; ++operation) {
            host.bridge().cutPowerAt(0, operation);
            EXPECT_FALSE(unit->setShootCounter(0xFFFFFFFF)) << increase << "/" << operation;
            ASSERT_FALSE(host.bridge().isPlugged(0)) << increase << "/" << operation;
            plugBack();
            const uint32_t after = counter();
            ASSERT_GE(after, before) << "increase " << increase << ", cut at operation " << operation;
            restore(saved);
        }
        host.bridge().cutPowerAt(0, 0);
        ASSERT_TRUE(unit->setShootCounter(0xFFFFFFFF)) << increase;
        ASSERT_EQ(counter(), before + 1) << increase;
    }
    // Every cut hit an operation in progress: 4096 programs, then the four
    // erases and the program of the wrap.
    EXPECT_EQ(host.bridge().flashStats(0).interrupted, static_cast<uint64_t>(kSlots + 5));
    EXPECT_EQ(counter(), static_cast<uint32_t>(kSlots + 1));
}

// Power lost after the wrap's last erase and before its program: the area is
// empty, and the count starts again from 0. The counter's layout cannot keep
// the old value through this one moment.
TEST_F(CounterSweep, CutBetweenTheWrapsLastEraseAndItsProgramRestartsTheCountFromZero)
{
    std::vector<uint32_t> full(kSlots);
    for (int i = 0; i < kSlots; ++i)
        full[static_cast<size_t>(i)] = 10000 + static_cast<uint32_t>(i);
    restore(vbridge::counterAreaImage(full));
    const std::vector<uint8_t> saved = area();

    // Find the bridge call of the program in a clean run.
    host.bridge().setTraceEnabled(true);
    host.bridge().clearTrace();
    const uint64_t start = host.bridge().callCount();
    ASSERT_TRUE(unit->setShootCounter(0xFFFFFFFF));
    uint64_t program = 0;
    for (const auto& entry : host.bridge().trace("FT4222_SPIMaster_MultiReadWrite"))
        if (!entry.written.empty() && entry.written[0] == 0x32)
            program = entry.seq - start;
    ASSERT_GT(program, 0u);
    EXPECT_EQ(counter(), 14096u);

    restore(saved);
    host.bridge().unplugAtCall(0, program);
    EXPECT_FALSE(unit->setShootCounter(0xFFFFFFFF));
    plugBack();
    unsigned int value = 1;
    int index = 0;
    ASSERT_TRUE(unit->getShootCounter(&value, &index));
    EXPECT_EQ(value, 0u);
    EXPECT_EQ(index, -1);
}
