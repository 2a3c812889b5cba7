// Planned failures: a call that fails in place of doing its work, unplugs at
// a given call, and clearing them.
#include "SimSupport.h"

#include <chrono>

using namespace simtest;

namespace {

class VbFaults : public VbTest { };

} // namespace

TEST_F(VbFaults, NthCallOfTheFunctionFailsWithTheStatusGiven)
{
    addSensor();
    bridge().failCall("FT_CreateDeviceInfoList", 2, FT_DEVICE_LIST_NOT_READY);
    DWORD count = 0;
    EXPECT_EQ(FT_CreateDeviceInfoList(&count), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT_CreateDeviceInfoList(&count), static_cast<FT_STATUS>(FT_DEVICE_LIST_NOT_READY));
    EXPECT_EQ(FT_CreateDeviceInfoList(&count), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbFaults, CallsBeforeTheFaultIsSetDoNotCount)
{
    addSensor();
    listCount();
    listCount();
    bridge().failCall("FT_CreateDeviceInfoList", 1, FT_IO_ERROR);
    DWORD count = 0;
    EXPECT_EQ(FT_CreateDeviceInfoList(&count), static_cast<FT_STATUS>(FT_IO_ERROR));
}

TEST_F(VbFaults, OtherFunctionsDoNotCount)
{
    addSensor();
    bridge().failCall("FT_Purge", 1, FT_IO_ERROR);
    FT_HANDLE handle = open("KX0001A");
    EXPECT_EQ(FT_SetTimeouts(handle, 900, 900), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT_Purge(handle, 3), static_cast<FT_STATUS>(FT_IO_ERROR));
}

TEST_F(VbFaults, FailedOpenOpensNothing)
{
    addSensor();
    bridge().failCall("FT_OpenEx", 1, FT_DEVICE_NOT_FOUND);
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("KX0001A"), FT_OPEN_BY_SERIAL_NUMBER, &handle),
        static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(bridge().openHandleCount(), 0);
    EXPECT_FALSE(bridge().portSettings(0, kPortA).open);
}

TEST_F(VbFaults, FailedTransferMovesNoData)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().failCall("FT4222_SPIMaster_MultiReadWrite", 1, FT4222_IO_ERROR);
    std::vector<uint8_t> frame = bytes({ 0xA1, 0x80, 0xCA, 0xFE });
    uint8_t answer[3] = { 0xEE, 0xEE, 0xEE };
    uint32_t read = 77;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, frame.data(), 4, 0, 3, &read), FT4222_IO_ERROR);
    EXPECT_EQ(hex(answer, 3), "ee ee ee");
    EXPECT_EQ(read, 77u);
}

TEST_F(VbFaults, FailedSetUpChangesNoSetting)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortA);
    bridge().failCall("FT4222_SPIMaster_Init", 1, FT4222_CLK_NOT_SUPPORTED);
    EXPECT_EQ(FT4222_SPIMaster_Init(handle, SPI_IO_QUAD, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 1),
        FT4222_CLK_NOT_SUPPORTED);
    EXPECT_FALSE(bridge().portSettings(0, kPortA).spiMaster);
}

TEST_F(VbFaults, FailedCallIsTracedWithItsStatusAndDevice)
{
    addSensor();
    FT_HANDLE handle = open("KX0001B");
    bridge().clearTrace();
    bridge().failCall("FT_SetTimeouts", 1, FT_IO_ERROR);
    FT_SetTimeouts(handle, 900, 900);
    const auto entries = bridge().trace("FT_SetTimeouts");
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].status, static_cast<uint32_t>(FT_IO_ERROR));
    EXPECT_EQ(entries[0].device, "KX0001B");
    EXPECT_EQ(entries[0].args, (std::vector<int64_t> { 900, 900 }));
}

TEST_F(VbFaults, FaultTakesPrecedenceOverADeadHandle)
{
    addSensor();
    bridge().failCall("FT_Close", 1, FT_OTHER_ERROR);
    int unknown = 0;
    EXPECT_EQ(FT_Close(&unknown), static_cast<FT_STATUS>(FT_OTHER_ERROR));
}

TEST_F(VbFaults, FailedCloseKeepsTheHandleOpen)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    bridge().failCall("FT_Close", 1, FT_IO_ERROR);
    EXPECT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_IO_ERROR));
    EXPECT_EQ(bridge().openHandleCount(), 1);
    EXPECT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbFaults, NthBridgeCallOfAnyFunctionFails)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    bridge().failCallNumber(2, FT_IO_ERROR);
    EXPECT_EQ(FT_SetTimeouts(handle, 900, 900), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT_Purge(handle, 3), static_cast<FT_STATUS>(FT_IO_ERROR));
    EXPECT_EQ(FT_ResetDevice(handle), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbFaults, SensorIsUnpluggedJustBeforeTheNthCall)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    bridge().unplugAtCall(0, 2);
    EXPECT_EQ(FT_SetTimeouts(handle, 900, 900), static_cast<FT_STATUS>(FT_OK));
    EXPECT_TRUE(bridge().isPlugged(0));
    EXPECT_EQ(FT_Purge(handle, 3), static_cast<FT_STATUS>(FT_IO_ERROR));
    EXPECT_FALSE(bridge().isPlugged(0));
}

TEST_F(VbFaults, ClearFaultsCancelsPlannedFailures)
{
    addSensor();
    bridge().failCall("FT_CreateDeviceInfoList", 1, FT_IO_ERROR);
    bridge().failCallNumber(1, FT_IO_ERROR);
    bridge().unplugAtCall(0, 1);
    bridge().clearFaults();
    EXPECT_EQ(listCount(), 4u);
}

TEST_F(VbFaults, PowerCutDuringAFlashProgramUnplugsTheSensor)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortC);
    ASSERT_EQ(
        FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 2), FT4222_OK);
    bridge().cutPowerAt(0, 1);
    uint8_t in[8];
    uint16_t size = 0;
    std::vector<uint8_t> writeEnable = bytes({ 0x06 });
    ASSERT_EQ(FT4222_SPIMaster_SingleReadWrite(handle, in, writeEnable.data(), 1, &size, 1), FT4222_OK);
    std::vector<uint8_t> program = bytes({ 0x02, 0x00, 0x10, 0x00, 0x12, 0x34 });
    EXPECT_EQ(
        FT4222_SPIMaster_SingleReadWrite(handle, in, program.data(), 6, &size, 1), FT4222_DEVICE_NOT_FOUND);
    EXPECT_FALSE(bridge().isPlugged(0));
}

TEST_F(VbFaults, ShortTransferMovesFewerBytesAndSaysSo)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().shortTransfer("FT4222_SPIMaster_MultiReadWrite", 1, 2);
    std::vector<uint8_t> frame = bytes({ 0xA1, 0x80, 0xCA, 0xFE });
    uint8_t answer[3] = { 0xEE, 0xEE, 0xEE };
    uint32_t read = 0;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, frame.data(), 4, 0, 3, &read), FT4222_OK);
    EXPECT_EQ(read, 2u);
    EXPECT_EQ(hex(answer, 3), "40 6b ee");
    // The next one is whole again.
    EXPECT_EQ(hex(command(handle, frame, 3)), "40 6b 09");
}

TEST_F(VbFaults, StuckTransferWaitsForThePortTimeOutThenFails)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    ASSERT_EQ(FT_SetTimeouts(handle, 120, 120), static_cast<FT_STATUS>(FT_OK));
    bridge().stickTransfer("FT4222_SPIMaster_MultiReadWrite", 1);
    std::vector<uint8_t> frame = bytes({ 0xA1, 0x80, 0xCA, 0xFE });
    uint8_t answer[3] = {};
    uint32_t read = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, frame.data(), 4, 0, 3, &read),
        FT4222_FAILED_TO_READ_DEVICE);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(120));
}

TEST_F(VbFaults, ScenarioPlansShortAndStuckTransfers)
{
    std::string error;
    EXPECT_TRUE(bridge().loadScenarioText(R"({"sensors": [{}], "faults": [
        {"call": "FT4222_SPIMaster_SingleRead", "short": 1},
        {"call": "FT4222_SPIMaster_MultiReadWrite", "nth": 2, "stuck": true}]})",
        "transfers.json", &error))
        << error;
    EXPECT_FALSE(bridge().loadScenarioText(
        R"({"sensors": [{}], "faults": [{"call": "FT_Purge", "stuck": true}]})", "purge.json", &error));
    EXPECT_NE(error.find("SPI transfer function only"), std::string::npos) << error;
    EXPECT_FALSE(bridge().loadScenarioText(
        R"({"sensors": [{}], "faults": [{"call": "FT4222_SPIMaster_SingleRead", "stuck": false}]})", "f.json",
        &error));
    EXPECT_NE(error.find("stuck can only be true"), std::string::npos) << error;
}
