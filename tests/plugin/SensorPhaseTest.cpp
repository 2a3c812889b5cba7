// The plug-in against the sensor's own phases: the armed flag that comes a
// while after the arm frame, and an image-ready value that comes before the
// image data are complete. What a host meets on hardware, pinned here.
#include "support/PluginHarness.h"

using namespace testing_support;

namespace {

class SensorPhaseTest : public ::testing::Test {
protected:
    PluginHarness host;

    void start(const vbridge::SensorConfig& config)
    {
        host.bridge().addSensor(config);
        host.initialize();
        ASSERT_EQ(host.unitCount(), 1);
        host.family().gotoStatus(statusFpgaUpdating);
        ASSERT_EQ(host.family().status(), statusFpgaUpdated);
        host.seen().clear();
    }
};

} // namespace

// Arming reads the status right after the arm frame, then after each wait of
// 250 ms. The armed flag comes a little after the frame; an exposure that has
// started and ended before the first wait is over leaves no armed flag to see,
// and the arming fails although the sensor holds the image. (Waits scaled to
// a tenth here: 25 ms, with the flag 20 ms after the frame and X-rays for
// 21 ms from the moment the frame is sent: the sensor integrates their last
// millisecond.)
TEST_F(SensorPhaseTest, ExposureOverBeforeTheFirstArmedCheckFailsTheArming)
{
    vbridge::SensorConfig config;
    config.armDelayMs = 20;
    config.autoExposure = false;
    config.readoutMs = 0;
    start(config);
    vbridge::Exposure shot;
    shot.durationMs = 21;
    QObject::connect(host.unit(), &QVeltraHardwareUnit::logText, [&](const QString& text) {
        if (text == "Sensor is arming")
            host.bridge().triggerExposure(0, shot);
    });
    {
        const ScopedSleepScale tenth(0.1);
        host.family().gotoStatus(statusArming);
    }
    EXPECT_EQ(host.family().status(), statusError);
    EXPECT_TRUE(host.seen().hasAdvanced("[red]Unable to arm sensor"));
    EXPECT_EQ(host.bridge().exposureCount(0), 1);
    EXPECT_FALSE(host.bridge().lastImage(0).empty());
}

// The same sensor with its armed flag slower than the exposure is not a
// problem once the exposure comes after the first wait.
TEST_F(SensorPhaseTest, ArmedFlagAfterTheFrameIsSeenAtTheNextWait)
{
    vbridge::SensorConfig config;
    config.armDelayMs = 10;
    config.exposure.delayMs = 100;
    config.exposure.durationMs = 50;
    config.readoutMs = 0;
    start(config);
    {
        const ScopedSleepScale tenth(0.1);
        host.family().gotoStatus(statusArming);
    }
    EXPECT_EQ(host.family().status(), statusArmed);
    EXPECT_TRUE(host.runUntil([&] { return host.family().status() == statusAcquired; }, 5000));
}

// The sensor may announce its image (0x48) before the last image data are
// in. A unit still armed (or integrating) when it sees 0x48 (the exposure
// fell between two polling ticks) reads the image at once, without the check
// it makes after an integration it saw end: the blocks carry no size code
// yet, the read fails,
// and the acquisition still ends in statusAcquired with a null image and the
// shot counted.
TEST_F(SensorPhaseTest, ImageAnnouncedBeforeItsDataIsReadTooEarlyFromTheArmedState)
{
    vbridge::SensorConfig config;
    config.exposure.delayMs = 150;
    config.exposure.durationMs = 100;
    config.readoutMs = 200;
    config.imageLeadMs = 200;
    start(config);
    const uint32_t before = PluginHarness::storedCounter();
    host.family().gotoStatus(statusArming);
    ASSERT_EQ(host.family().status(), statusArmed);
    ASSERT_TRUE(host.runUntil([&] { return host.family().status() == statusAcquired; }, 5000));
    EXPECT_FALSE(host.seen().hasLog("[cyan]Integrated"));
    EXPECT_TRUE(host.seen().hasLog("Unable to read sensor size"));
    ASSERT_EQ(host.seen().images.size(), 1u);
    EXPECT_TRUE(host.seen().images[0].image.isNull());
    EXPECT_EQ(PluginHarness::storedCounter(), before + 1);
}
