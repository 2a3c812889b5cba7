// Port D's GPIO lines: the vendor library's checks, the stand-alone strap on
// GPIO 3, and the outputs the board sees.
#include "SimSupport.h"

using namespace simtest;

namespace {

class VbGpio : public VbTest {
protected:
    static BOOL readLine(FT_HANDLE handle, GPIO_Port line)
    {
        BOOL value = 7;
        EXPECT_EQ(FT4222_GPIO_Read(handle, line, &value), FT4222_OK);
        return value;
    }
};

GPIO_Dir kUsualDirections[4] = { GPIO_OUTPUT, GPIO_OUTPUT, GPIO_OUTPUT, GPIO_INPUT };

} // namespace

TEST_F(VbGpio, StandAloneSensorReadsGpio3High)
{
    addSensor("KX0001", false);
    EXPECT_EQ(readLine(openPortD(), GPIO_PORT3), 1u);
}

TEST_F(VbGpio, InsideSensorReadsGpio3Low)
{
    addSensor("KX0001", true);
    EXPECT_EQ(readLine(openPortD(), GPIO_PORT3), 0u);
}

TEST_F(VbGpio, SetInsideChangesTheStrapLevel)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    bridge().setInside(0, true);
    EXPECT_EQ(readLine(handle, GPIO_PORT3), 0u);
    bridge().setInside(0, false);
    EXPECT_EQ(readLine(handle, GPIO_PORT3), 1u);
}

TEST_F(VbGpio, ReadWithoutGpioInitFails)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortD);
    FT4222_SetSuspendOut(handle, 0);
    FT4222_SetWakeUpInterrupt(handle, 0);
    BOOL value = 0;
    EXPECT_EQ(FT4222_GPIO_Read(handle, GPIO_PORT3, &value), FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE);
    EXPECT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT0, 1), FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE);
}

TEST_F(VbGpio, Gpio3IsNoGpioWhileTheWakeUpInterruptIsOn)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortD);
    ASSERT_EQ(FT4222_SetSuspendOut(handle, 0), FT4222_OK);
    ASSERT_EQ(FT4222_GPIO_Init(handle, kUsualDirections), FT4222_OK);
    BOOL value = 0;
    EXPECT_EQ(FT4222_GPIO_Read(handle, GPIO_PORT3, &value), FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE);
    ASSERT_EQ(FT4222_SetWakeUpInterrupt(handle, 0), FT4222_OK);
    EXPECT_EQ(FT4222_GPIO_Read(handle, GPIO_PORT3, &value), FT4222_OK);
}

TEST_F(VbGpio, Gpio2IsNoGpioWhileTheSuspendOutputIsOn)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortD);
    ASSERT_EQ(FT4222_SetWakeUpInterrupt(handle, 0), FT4222_OK);
    ASSERT_EQ(FT4222_GPIO_Init(handle, kUsualDirections), FT4222_OK);
    EXPECT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT2, 1), FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE);
    ASSERT_EQ(FT4222_SetSuspendOut(handle, 0), FT4222_OK);
    EXPECT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT2, 1), FT4222_OK);
}

TEST_F(VbGpio, SuspendAndWakeUpSettingsBelongToTheWholeChip)
{
    addSensor();
    FT_HANDLE c = openPort(0, kPortC);
    ASSERT_EQ(FT4222_SetSuspendOut(c, 0), FT4222_OK);
    ASSERT_EQ(FT4222_SetWakeUpInterrupt(c, 0), FT4222_OK);
    FT_HANDLE d = openPort(0, kPortD);
    ASSERT_EQ(FT4222_GPIO_Init(d, kUsualDirections), FT4222_OK);
    EXPECT_EQ(readLine(d, GPIO_PORT3), 1u);
}

TEST_F(VbGpio, Gpio0And1WorkWithoutFreeingTheSpecialLines)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortD);
    ASSERT_EQ(FT4222_GPIO_Init(handle, kUsualDirections), FT4222_OK);
    EXPECT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT0, 1), FT4222_OK);
    EXPECT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT1, 1), FT4222_OK);
}

TEST_F(VbGpio, WritingAnInputIsNotSupported)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    EXPECT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT3, 0), FT4222_GPIO_WRITE_NOT_SUPPORTED);
    EXPECT_EQ(readLine(handle, GPIO_PORT3), 1u);
}

TEST_F(VbGpio, OutputReadsBackTheLevelItDrives)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    ASSERT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT1, 1), FT4222_OK);
    EXPECT_EQ(readLine(handle, GPIO_PORT1), 1u);
    ASSERT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT1, 0), FT4222_OK);
    EXPECT_EQ(readLine(handle, GPIO_PORT1), 0u);
}

TEST_F(VbGpio, UndrivenInputsReadHigh)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortD);
    FT4222_SetSuspendOut(handle, 0);
    FT4222_SetWakeUpInterrupt(handle, 0);
    GPIO_Dir inputs[4] = { GPIO_INPUT, GPIO_INPUT, GPIO_INPUT, GPIO_INPUT };
    ASSERT_EQ(FT4222_GPIO_Init(handle, inputs), FT4222_OK);
    EXPECT_EQ(readLine(handle, GPIO_PORT0), 1u);
}

TEST_F(VbGpio, OutputLevelsAreRecorded)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    ASSERT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT0, 1), FT4222_OK);
    ASSERT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT2, 0), FT4222_OK);
    EXPECT_EQ(bridge().gpioOutputs(0), (std::array<bool, 3> { { true, false, false } }));
}

TEST_F(VbGpio, LineNumberAboveThreeExceedsThePortCount)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    BOOL value = 0;
    EXPECT_EQ(gpioReadFromC(handle, 4, &value), FT4222_GPIO_EXCEEDED_MAX_PORTNUM);
}

TEST_F(VbGpio, ReadWithoutValuePointerIsInvalidPointer)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    EXPECT_EQ(FT4222_GPIO_Read(handle, GPIO_PORT3, nullptr), FT4222_INVALID_POINTER);
}

TEST_F(VbGpio, InitRejectsUnknownDirection)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortD);
    RawDirections directions { GPIO_OUTPUT, 2, GPIO_OUTPUT, GPIO_INPUT };
    EXPECT_EQ(FT4222_GPIO_Init(handle, directions.table), FT4222_INVALID_PARAMETER);
    EXPECT_FALSE(bridge().portSettings(0, kPortD).gpio);
}

TEST_F(VbGpio, InitRecordsTheDirections)
{
    addSensor();
    openPortD();
    EXPECT_EQ(bridge().portSettings(0, kPortD).gpioDirections, (std::array<int, 4> { { 0, 0, 0, 1 } }));
}

TEST_F(VbGpio, InterfacesWithoutGpioLinesRefuseGpioInit)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortA);
    EXPECT_EQ(FT4222_GPIO_Init(handle, kUsualDirections), FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE);
}

TEST_F(VbGpio, SpiMasterInterfaceRefusesGpioInit)
{
    addSensor();
    FT_HANDLE handle = openPort(0, kPortD);
    ASSERT_EQ(
        FT4222_SPIMaster_Init(handle, SPI_IO_SINGLE, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 1), FT4222_OK);
    EXPECT_EQ(FT4222_GPIO_Init(handle, kUsualDirections), FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE);
}

TEST_F(VbGpio, UnInitializeEndsGpioMode)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    ASSERT_EQ(FT4222_UnInitialize(handle), FT4222_OK);
    BOOL value = 0;
    EXPECT_EQ(FT4222_GPIO_Read(handle, GPIO_PORT3, &value), FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE);
}

TEST_F(VbGpio, FallingEdgeOnGpio2ClearsTheFpgaConfiguration)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    ASSERT_TRUE(bridge().fpgaConfigured(0));
    ASSERT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT2, 0), FT4222_OK);
    EXPECT_FALSE(bridge().fpgaConfigured(0));
}

TEST_F(VbGpio, Gpio2HeldHighLeavesTheFpgaConfigured)
{
    addSensor();
    FT_HANDLE handle = openPortD();
    ASSERT_EQ(FT4222_GPIO_Write(handle, GPIO_PORT2, 1), FT4222_OK);
    EXPECT_TRUE(bridge().fpgaConfigured(0));
}
