// The plug-in against transfers that come back short or hang until the
// port's time-out, as a loose cable or a busy USB hub makes them.
#include <QElapsedTimer>

#include "support/PluginHarness.h"

using namespace testing_support;

namespace {

class TransferFaultTest : public ::testing::Test {
protected:
    PluginHarness host;
    QVeltraXRayKORUXPlugInUnit* unit = nullptr;

    void SetUp() override
    {
        host.bridge().addSensor(vbridge::SensorConfig());
        host.initialize();
        ASSERT_EQ(host.unitCount(), 1);
        host.family().gotoStatus(statusFpgaUpdating);
        ASSERT_EQ(host.family().status(), statusFpgaUpdated);
        unit = host.unit();
        ASSERT_TRUE(unit->readInformation(true));
        host.seen().clear();
    }
};

} // namespace

// A block read that comes back short without an error is not noticed: the
// read-out succeeds and the image carries what the buffer held where the
// missing bytes should be. Here the second block (32704 pixels) brings only
// its first 100 bytes (50 pixels).
TEST_F(TransferFaultTest, ShortImageBlockGoesUnnoticed)
{
    host.bridge().holdDarkImage(0);
    host.bridge().shortTransfer("FT4222_SPIMaster_MultiReadWrite", 2, 100);
    ASSERT_TRUE(unit->readImage(false));
    const QImage& image = unit->binaryImage();
    ASSERT_FALSE(image.isNull());
    const std::vector<uint16_t> sent = host.bridge().lastImage(0);
    ASSERT_EQ(sent.size(), static_cast<size_t>(image.width()) * image.height());
    int differ = 0;
    for (int y = 0; y < image.height(); ++y) {
        const auto* row = reinterpret_cast<const uint16_t*>(image.constScanLine(y));
        for (int x = 0; x < image.width(); ++x)
            differ += row[x] != sent[static_cast<size_t>(y) * image.width() + x];
    }
    EXPECT_EQ(differ, 32704 - 50);
}

// A transfer that hangs holds the caller for the port's 900 ms time-out, then
// fails as any other.
TEST_F(TransferFaultTest, StuckStatusReadFailsAfterThePortTimeOut)
{
    host.bridge().stickTransfer("FT4222_SPIMaster_MultiReadWrite", 1);
    QElapsedTimer timer;
    timer.start();
    uint8 status = 0, size = 0, version = 0;
    uint16 diode = 0;
    EXPECT_FALSE(unit->getStatus(&status, &size, &version, &diode));
    EXPECT_GE(timer.elapsed(), 900);
    EXPECT_TRUE(host.seen().hasLog("[red]Unable to retrieve status."));
}
