// The framework's sleeps: never shorter than asked (their precision is a
// matter for the benchmarks), stretched by the development time scale.
#include <QElapsedTimer>

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/VeltraXRayHardware.h"

namespace {

class Sleep : public ::testing::Test {
protected:
    void SetUp() override { setSleepTimeScale(1.0); }
    void TearDown() override { setSleepTimeScale(1.0); }

    static qint64 microsecondsOf(const std::function<void()>& body)
    {
        QElapsedTimer timer;
        timer.start();
        body();
        return timer.nsecsElapsed() / 1000;
    }
};

TEST_F(Sleep, MicrosecondSleepsLastAtLeastTheRequestedTime)
{
    for (unsigned long us : { 1ul, 10ul, 50ul, 100ul, 250ul, 1000ul, 3000ul })
        EXPECT_GE(microsecondsOf([us] { Sleep_us(us); }), qint64(us)) << us << " us";
}

TEST_F(Sleep, MillisecondSleepsLastAtLeastTheRequestedTime)
{
    for (unsigned long ms : { 1ul, 5ul, 20ul })
        EXPECT_GE(microsecondsOf([ms] { Sleep_ms(ms); }), qint64(ms * 1000)) << ms << " ms";
}

TEST_F(Sleep, ZeroReturns)
{
    Sleep_us(0);
    Sleep_ms(0);
    SUCCEED();
}

TEST_F(Sleep, ScaleZeroReturnsAtOnce)
{
    setSleepTimeScale(0.0);
    EXPECT_EQ(sleepTimeScale(), 0.0);
    // Ten seconds asked for: anything near that means the scale was ignored.
    EXPECT_LT(microsecondsOf([] { Sleep_ms(10000); }), 1'000'000);
    EXPECT_LT(microsecondsOf([] { Sleep_us(10'000'000); }), 1'000'000);
}

TEST_F(Sleep, ScaleStretchesEverySleep)
{
    setSleepTimeScale(3.0);
    EXPECT_EQ(sleepTimeScale(), 3.0);
    EXPECT_GE(microsecondsOf([] { Sleep_ms(2); }), 6000);
    EXPECT_GE(microsecondsOf([] { Sleep_us(500); }), 1500);
}

TEST_F(Sleep, NegativeScaleCountsAsZero)
{
    setSleepTimeScale(-2.0);
    EXPECT_EQ(sleepTimeScale(), 0.0);
}

TEST_F(Sleep, DefaultScaleIsOne)
{
    EXPECT_EQ(sleepTimeScale(), 1.0);
}

TEST_F(Sleep, CounterRateIsKnownAndKeptUntilReset)
{
    const quint64 calibrated = resetSleepCounter(true);
    EXPECT_GT(calibrated, 0u);
    EXPECT_EQ(resetSleepCounter(false), calibrated);
    EXPECT_GT(resetSleepCounter(true), 0u);
}

TEST_F(Sleep, CalibrationIsQuick)
{
    // A re-calibration runs once per arming: it must not be felt.
    EXPECT_LT(microsecondsOf([] { resetSleepCounter(true); }), 100'000);
}

TEST_F(Sleep, ThreadsSleepingTogetherEachGetTheirTime)
{
    std::atomic<int> shortSleeps { 0 };
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&shortSleeps] {
            for (int round = 0; round < 20; ++round) {
                QElapsedTimer timer;
                timer.start();
                Sleep_us(200);
                if (timer.nsecsElapsed() < 200'000)
                    ++shortSleeps;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(shortSleeps.load(), 0);
}

} // namespace
