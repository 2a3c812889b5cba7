// The timing figures a scenario names replace the machine's, and only those:
// the ones it leaves out stay as the machine's timing has them. Seen from
// outside, through the exported bridge calls.
#include "SimSupport.h"

#include <chrono>
#include <cstdlib>
#include <thread>

using namespace simtest;

namespace {

using Clock = std::chrono::steady_clock;

// These take the realistic machine's waits: run with the CTest label
// "realistic" (KORUX_TIMING=realistic), skipped otherwise.
class VbTimingFigures : public VbTest {
protected:
    void SetUp() override
    {
        const char* timing = std::getenv("KORUX_TIMING");
        if (!timing || std::string(timing) != "realistic")
            GTEST_SKIP() << "realistic timing only (ctest -L realistic)";
        VbTest::SetUp();
    }

    void load(const std::string& text)
    {
        std::string error;
        ASSERT_TRUE(bridge().loadScenarioText(text, "figures.json", &error)) << error;
    }

    static uint8_t statusFlags(FT_HANDLE handle)
    {
        return command(handle, bytes({ 0xA1, 0x80, 0xCA, 0xFE }), 3)[0];
    }

    // Arm frame: command on one line, its five parameters on four.
    static void arm(FT_HANDLE handle)
    {
        std::vector<uint8_t> out = bytes({ 0xA1, 0x00, 0xCA, 0xFE, 0x41, 0xF4, 0x00, 0x00, 0x00 });
        uint32_t read = 0;
        ASSERT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, nullptr, out.data(), 4, 5, 0, &read), FT4222_OK);
    }

    // The flash's status register 1, on one line through port C.
    static uint8_t flashStatus(FT_HANDLE handle)
    {
        uint8_t out[2] = { 0x05, 0x00 };
        uint8_t in[2] = {};
        uint16_t done = 0;
        EXPECT_EQ(FT4222_SPIMaster_SingleReadWrite(handle, in, out, 2, &done, 1), FT4222_OK);
        return in[1];
    }

    static void flashFrame(FT_HANDLE handle, std::vector<uint8_t> frame)
    {
        uint16_t done = 0;
        ASSERT_EQ(
            FT4222_SPIMaster_SingleWrite(handle, frame.data(), static_cast<uint16>(frame.size()), &done, 1),
            FT4222_OK);
    }
};

// The machine a host gets when KORUX_SCENARIO names a file that cannot be
// loaded; the environment is put back afterwards.
class VbStartUpFallback : public VbTest {
protected:
    void SetUp() override
    {
        VbTest::SetUp();
        if (const char* timing = std::getenv("KORUX_TIMING"))
            savedTiming_ = timing;
    }
    void TearDown() override
    {
        unsetenv("KORUX_SCENARIO");
        if (savedTiming_.empty())
            unsetenv("KORUX_TIMING");
        else
            setenv("KORUX_TIMING", savedTiming_.c_str(), 1);
        VbTest::TearDown();
    }

private:
    std::string savedTiming_;
};

} // namespace

TEST_F(VbTimingFigures, DelaysNamingOneFigureKeepTheOthers)
{
    load(R"({"timing": "realistic", "sensors": [{"delays": {"imageLeadMs": 20, "readyMs": 0}}]})");
    FT_HANDLE handle = openPortA();
    ASSERT_EQ(statusFlags(handle) & 0x40, 0x40);
    const auto armed = Clock::now();
    arm(handle);
    // The armed flag comes after the realistic 50 ms, not at once.
    bool seen = false;
    while (!(seen = statusFlags(handle) & 0x04) && Clock::now() - armed < std::chrono::seconds(2))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(seen);
    EXPECT_GE(Clock::now() - armed, std::chrono::milliseconds(vbridge::kRealisticArmDelayMs));
}

TEST_F(VbTimingFigures, TheDocumentsExampleKeepsTheReadyDelay)
{
    load(R"({"timing": "realistic", "sensors": [{"delays": {"armMs": 80, "imageLeadMs": 20}}]})");
    FT_HANDLE handle = openPortA();
    // Just powered: the realistic 300 ms before the ready flag, then ready.
    EXPECT_EQ(statusFlags(handle) & 0x40, 0x00);
    std::this_thread::sleep_for(std::chrono::milliseconds(vbridge::kRealisticReadyDelayMs + 20));
    EXPECT_EQ(statusFlags(handle) & 0x40, 0x40);
}

TEST_F(VbTimingFigures, FlashTimingNamingTheEraseKeepsTheChipErase)
{
    load(
        R"({"timing": "realistic", "sensors": [{"flash": {"erased": true, "timing": {"eraseUs": 100000}}}]})");
    FT_HANDLE handle = openPort(0, kPortC);
    ASSERT_EQ(
        FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 2), FT4222_OK);
    flashFrame(handle, bytes({ 0x06 }));
    flashFrame(handle, bytes({ 0xC7 }));
    // A chip erase takes 25 s or more: still busy long after 11 ms.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(flashStatus(handle) & 0x01, 0x01);
}

TEST_F(VbTimingFigures, FlashEraseFigureIsTakenAsItIs)
{
    load(R"({"timing": "realistic", "sensors": [{"flash": {"erased": true, "timing": {"eraseUs": 1000}}}]})");
    FT_HANDLE handle = openPort(0, kPortC);
    ASSERT_EQ(
        FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 2), FT4222_OK);
    flashFrame(handle, bytes({ 0x06 }));
    flashFrame(handle, bytes({ 0x20, 0x00, 0x10, 0x00 }));
    EXPECT_EQ(flashStatus(handle) & 0x01, 0x01);
    // Not drawn up to the 400 ms maximum: 1 ms as given.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(flashStatus(handle), 0x00);
}

TEST_F(VbTimingFigures, FpgaProgramLowFigureKeepsTheSettleTime)
{
    load(R"({"timing": "realistic", "sensors": [{"fpga": {"programLowUs": 1}}]})");
    FT_HANDLE handle = openPort(0, kPortA);
    ASSERT_EQ(
        FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_4, CLK_IDLE_LOW, CLK_LEADING, 1), FT4222_OK);
    // Enter configuration and read the id in the same transfer, 32 clocks
    // apart: the port is still settling and drives nothing.
    std::vector<uint8_t> frames = bytes({ 0xC6, 0, 0, 0, 0xE0, 0, 0, 0 });
    uint16_t size = 0;
    ASSERT_EQ(FT4222_SPIMaster_SingleWrite(handle, frames.data(), 8, &size, 0), FT4222_OK);
    uint8_t answer[4] = {};
    ASSERT_EQ(FT4222_SPIMaster_SingleRead(handle, answer, 4, &size, 1), FT4222_OK);
    EXPECT_EQ(hex(answer, 4), "ff ff ff ff");
}

TEST_F(VbTimingFigures, FpgaSettleFigureKeepsTheProgramPulseMinimum)
{
    load(R"({"timing": "realistic", "sensors": [{"fpga": {"settleUs": 0}, "delays": {"readyMs": 0}}]})");
    FT_HANDLE portA = openPortA();
    FT_HANDLE portD = openPortD();
    ASSERT_EQ(FT4222_GPIO_Write(portD, GPIO_PORT2, 1), FT4222_OK);
    ASSERT_EQ(FT4222_GPIO_Write(portD, GPIO_PORT2, 0), FT4222_OK);
    // With a minimum pulse the configuration restarts when PROGRAMN rises,
    // not at its falling edge: the logic still answers.
    EXPECT_EQ(statusFlags(portA) & 0x40, 0x40);
    ASSERT_EQ(FT4222_GPIO_Write(portD, GPIO_PORT2, 1), FT4222_OK);
    EXPECT_FALSE(bridge().fpgaConfigured(0));
}

TEST_F(VbStartUpFallback, ScenarioThatFailsToLoadGivesTheRealisticDefault)
{
    const char* file = "/nonexistent/korux-scenario.json";
    setenv("KORUX_SCENARIO", file, 1);
    unsetenv("KORUX_TIMING");
    std::string error;
    const bool loaded = bridge().resetFromEnvironment(&error);
    EXPECT_FALSE(loaded);
    EXPECT_NE(error.find(file), std::string::npos) << error;
    ASSERT_EQ(bridge().sensorCount(), 1);
    EXPECT_EQ(bridge().timing(), vbridge::Timing::Realistic);
}

TEST_F(VbStartUpFallback, ScenarioThatFailsToLoadIsInstantWhenAskedFor)
{
    setenv("KORUX_SCENARIO", "/nonexistent/korux-scenario.json", 1);
    setenv("KORUX_TIMING", "instant", 1);
    const bool loaded = bridge().resetFromEnvironment();
    EXPECT_FALSE(loaded);
    EXPECT_EQ(bridge().timing(), vbridge::Timing::Instant);
}
