// Opening and closing interfaces, and what calls on dead handles give.
#include "SimSupport.h"

using namespace simtest;

namespace {

class VbOpen : public VbTest { };

FT_STATUS openByLocation(uint32_t location, FT_HANDLE* handle)
{
    return FT_OpenEx(reinterpret_cast<void*>(static_cast<uintptr_t>(location)), FT_OPEN_BY_LOCATION, handle);
}

} // namespace

TEST_F(VbOpen, OpensByLocation)
{
    addSensor();
    FT_HANDLE handle = nullptr;
    ASSERT_EQ(openByLocation(bridge().interfaceLocation(0, kPortC), &handle), static_cast<FT_STATUS>(FT_OK));
    EXPECT_NE(handle, nullptr);
    EXPECT_TRUE(bridge().portSettings(0, kPortC).open);
}

TEST_F(VbOpen, OpensBySerial)
{
    addSensor("KX0007");
    FT_HANDLE handle = nullptr;
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("KX0007D"), FT_OPEN_BY_SERIAL_NUMBER, &handle),
        static_cast<FT_STATUS>(FT_OK));
    EXPECT_TRUE(bridge().portSettings(0, kPortD).open);
}

TEST_F(VbOpen, OpensByDescription)
{
    addSensor();
    FT_HANDLE handle = nullptr;
    ASSERT_EQ(FT_OpenEx(const_cast<char*>("KORUX/KORUX\xB2 B"), FT_OPEN_BY_DESCRIPTION, &handle),
        static_cast<FT_STATUS>(FT_OK));
    EXPECT_TRUE(bridge().portSettings(0, kPortB).open);
}

TEST_F(VbOpen, UnknownLocationIsNotFound)
{
    addSensor();
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(openByLocation(0x7777, &handle), static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
    EXPECT_EQ(handle, nullptr);
}

TEST_F(VbOpen, UnknownSerialIsNotFound)
{
    addSensor();
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("KX0001E"), FT_OPEN_BY_SERIAL_NUMBER, &handle),
        static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
}

TEST_F(VbOpen, UnpluggedSensorCannotBeOpened)
{
    addSensor();
    bridge().unplug(0);
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(openByLocation(bridge().interfaceLocation(0, kPortA), &handle),
        static_cast<FT_STATUS>(FT_DEVICE_NOT_FOUND));
}

TEST_F(VbOpen, SecondOpenOfAnOpenInterfaceFails)
{
    addSensor();
    open("KX0001A");
    FT_HANDLE second = nullptr;
    EXPECT_EQ(FT_OpenEx(const_cast<char*>("KX0001A"), FT_OPEN_BY_SERIAL_NUMBER, &second),
        static_cast<FT_STATUS>(FT_DEVICE_NOT_OPENED));
    EXPECT_EQ(bridge().openHandleCount(), 1);
}

TEST_F(VbOpen, InvalidOpenFlagIsInvalidParameter)
{
    addSensor();
    FT_HANDLE handle = nullptr;
    EXPECT_EQ(
        FT_OpenEx(const_cast<char*>("KX0001A"), 8, &handle), static_cast<FT_STATUS>(FT_INVALID_PARAMETER));
}

TEST_F(VbOpen, HandlesAreNeverGivenOutTwice)
{
    addSensor();
    FT_HANDLE first = open("KX0001A");
    ASSERT_EQ(FT_Close(first), static_cast<FT_STATUS>(FT_OK));
    FT_HANDLE second = open("KX0001A");
    bridge().reset();
    addSensor();
    FT_HANDLE third = open("KX0001A");
    EXPECT_NE(first, second);
    EXPECT_NE(first, third);
    EXPECT_NE(second, third);
}

TEST_F(VbOpen, OpenHandleCountFollowsOpensAndCloses)
{
    addSensor();
    FT_HANDLE a = open("KX0001A");
    open("KX0001B");
    EXPECT_EQ(bridge().openHandleCount(), 2);
    FT_Close(a);
    EXPECT_EQ(bridge().openHandleCount(), 1);
}

TEST_F(VbOpen, CallOnClosedHandleIsInvalidHandle)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    ASSERT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT_SetTimeouts(handle, 900, 900), static_cast<FT_STATUS>(FT_INVALID_HANDLE));
    EXPECT_EQ(FT4222_SPI_Reset(handle), FT4222_INVALID_HANDLE);
}

TEST_F(VbOpen, CloseOfClosedHandleIsInvalidHandle)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    ASSERT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_INVALID_HANDLE));
}

TEST_F(VbOpen, CallOnUnknownHandleIsInvalidHandle)
{
    addSensor();
    int somewhere = 0;
    EXPECT_EQ(FT_Purge(&somewhere, FT_PURGE_RX), static_cast<FT_STATUS>(FT_INVALID_HANDLE));
    EXPECT_EQ(FT4222_SetClock(&somewhere, SYS_CLK_80), FT4222_INVALID_HANDLE);
}

TEST_F(VbOpen, CallOnNullHandleIsInvalidHandle)
{
    EXPECT_EQ(FT_ResetDevice(nullptr), static_cast<FT_STATUS>(FT_INVALID_HANDLE));
    EXPECT_EQ(FT4222_UnInitialize(nullptr), FT4222_INVALID_HANDLE);
}

TEST_F(VbOpen, TimeoutsAreKept)
{
    addSensor();
    FT_HANDLE handle = open("KX0001C");
    ASSERT_EQ(FT_SetTimeouts(handle, 900, 800), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(bridge().portSettings(0, kPortC).readTimeoutMs, 900u);
    EXPECT_EQ(bridge().portSettings(0, kPortC).writeTimeoutMs, 800u);
}

TEST_F(VbOpen, PurgeTakesReceiveAndTransmitBits)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    EXPECT_EQ(FT_Purge(handle, FT_PURGE_RX | FT_PURGE_TX), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT_Purge(handle, FT_PURGE_TX), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbOpen, PurgeRejectsOtherBits)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    EXPECT_EQ(FT_Purge(handle, 4), static_cast<FT_STATUS>(FT_INVALID_PARAMETER));
}

TEST_F(VbOpen, ResetDeviceOnOpenHandleSucceeds)
{
    addSensor();
    EXPECT_EQ(FT_ResetDevice(open("KX0001A")), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbOpen, DriverCallOnUnpluggedSensorIsIoError)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    bridge().unplug(0);
    EXPECT_EQ(FT_SetTimeouts(handle, 900, 900), static_cast<FT_STATUS>(FT_IO_ERROR));
    EXPECT_EQ(FT_Purge(handle, 3), static_cast<FT_STATUS>(FT_IO_ERROR));
}

TEST_F(VbOpen, LibraryCallOnUnpluggedSensorIsDeviceNotFound)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    bridge().unplug(0);
    std::vector<uint8_t> frame = bytes({ 0xA1, 0x80, 0xCA, 0xFE });
    uint8_t answer[3];
    uint32_t read = 0;
    EXPECT_EQ(FT4222_SPIMaster_MultiReadWrite(handle, answer, frame.data(), 4, 0, 3, &read),
        FT4222_DEVICE_NOT_FOUND);
    EXPECT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_DEVICE_NOT_FOUND);
}

TEST_F(VbOpen, CloseGivesBackHandleOfUnpluggedSensor)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    bridge().unplug(0);
    EXPECT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(bridge().openHandleCount(), 0);
}

TEST_F(VbOpen, HandlesFromBeforeAnUnplugStayDeadAfterPlug)
{
    addSensor();
    FT_HANDLE old = open("KX0001A");
    bridge().unplug(0);
    bridge().plug(0);
    EXPECT_EQ(FT4222_SetClock(old, SYS_CLK_80), FT4222_DEVICE_NOT_FOUND);
    FT_HANDLE fresh = open("KX0001A");
    EXPECT_NE(fresh, old);
    EXPECT_EQ(FT4222_SetClock(fresh, SYS_CLK_80), FT4222_OK);
}

TEST_F(VbOpen, ClosingADeadHandleLeavesTheReopenedInterfaceOpen)
{
    addSensor();
    FT_HANDLE old = open("KX0001A");
    bridge().unplug(0);
    bridge().plug(0);
    FT_HANDLE fresh = open("KX0001A");
    ASSERT_EQ(FT_Close(old), static_cast<FT_STATUS>(FT_OK));
    EXPECT_TRUE(bridge().portSettings(0, kPortA).open);
    EXPECT_EQ(FT_ResetDevice(fresh), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbOpen, ResetOfTheMachineKillsEveryHandle)
{
    addSensor();
    FT_HANDLE handle = open("KX0001A");
    bridge().reset();
    addSensor();
    EXPECT_EQ(FT_ResetDevice(handle), static_cast<FT_STATUS>(FT_INVALID_HANDLE));
    EXPECT_EQ(bridge().openHandleCount(), 0);
}

TEST_F(VbOpen, ForeignDeviceOpensButRefusesLibraryCalls)
{
    vbridge::ForeignDevice foreign;
    foreign.serial = "FT123456";
    bridge().addForeignDevice(foreign);
    FT_HANDLE handle = open("FT123456");
    EXPECT_EQ(FT_SetTimeouts(handle, 900, 900), static_cast<FT_STATUS>(FT_OK));
    EXPECT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_DEVICE_NOT_SUPPORTED);
    EXPECT_EQ(FT_Close(handle), static_cast<FT_STATUS>(FT_OK));
}

TEST_F(VbOpen, CloseDropsTheLibraryStateOfTheInterface)
{
    addSensor();
    FT_HANDLE handle = openPortA();
    ASSERT_TRUE(bridge().portSettings(0, kPortA).spiMaster);
    FT_Close(handle);
    handle = open("KX0001A");
    EXPECT_FALSE(bridge().portSettings(0, kPortA).spiMaster);
    uint8_t buffer[3];
    uint32_t read = 0;
    EXPECT_EQ(
        FT4222_SPIMaster_MultiReadWrite(handle, buffer, buffer, 0, 0, 3, &read), FT4222_IS_NOT_SPI_MODE);
}
