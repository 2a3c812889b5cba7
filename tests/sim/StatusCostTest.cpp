// A status read is one transaction at every phase of an acquisition: the
// picture is rendered away from the bridge's lock, so neither the read that
// sees the image complete nor a call on another thread waits for it.
#include "SimSupport.h"

#include <atomic>
#include <chrono>
#include <thread>

#include "sim/Phantom.h"

using namespace simtest;

namespace {

using Clock = std::chrono::steady_clock;

class VbStatusCost : public VbTest { };

Clock::duration renderTime()
{
    const auto start = Clock::now();
    vbridge::renderSensorImage(vbridge::ImageSource(), 1000, 1506, 32640, 7, 1);
    return Clock::now() - start;
}

} // namespace

TEST_F(VbStatusCost, NoCallWaitsForThePictureToBeRendered)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    // Arm (threshold 500, mode 4); the default exposure follows by itself.
    std::vector<uint8_t> out = bytes({ 0xA1, 0x00, 0xCA, 0xFE, 0x41, 0xF4, 0x00, 0x00, 0x00 });
    uint32_t read = 0;
    ASSERT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, nullptr, out.data(), 4, 5, 0, &read), FT4222_OK);

    std::atomic<bool> running { true };
    std::atomic<long long> longestList { 0 };
    std::thread lister([&] {
        while (running) {
            const auto start = Clock::now();
            DWORD count = 0;
            FT_CreateDeviceInfoList(&count);
            const long long us
                = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
            longestList = std::max<long long>(longestList, us);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });

    Clock::duration longestStatus {};
    bool complete = false;
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (!complete && Clock::now() < deadline) {
        const auto start = Clock::now();
        const uint8_t flags = command(handle, bytes({ 0xA1, 0x80, 0xCA, 0xFE }), 3)[0];
        longestStatus = std::max(longestStatus, Clock::now() - start);
        // The image is complete once its first block carries the size code.
        complete = flags == 0x48 && (command(handle, bytes({ 0xA0, 0x80, 0xCA, 0xFE }), 2)[0] >> 6) == 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    running = false;
    lister.join();
    ASSERT_TRUE(complete);
    EXPECT_EQ(bridge().exposureCount(0), 1);
    // Rendering takes a few hundred milliseconds; no call comes near it.
    const auto render = renderTime();
    EXPECT_LT(longestStatus, render / 2);
    EXPECT_LT(std::chrono::microseconds(longestList.load()), render / 2);
}
