// What the virtual bridge's tests share: a fresh, empty machine per test, hex
// dumps for byte expectations, and the bridge calls a port needs to get going.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sim/VirtualBridge.h"
#include "transport/BridgeApi.h"

namespace simtest {

enum Port { kPortA = 0, kPortB = 1, kPortC = 2, kPortD = 3 };

// Bytes as "a1 80 ca fe", so that a failed expectation shows them.
inline std::string hex(const uint8_t* bytes, size_t count)
{
    std::string text;
    char buffer[4];
    for (size_t i = 0; i < count; ++i) {
        std::snprintf(buffer, sizeof(buffer), i ? " %02x" : "%02x", bytes[i]);
        text += buffer;
    }
    return text;
}

inline std::string hex(const std::vector<uint8_t>& bytes)
{
    return hex(bytes.data(), bytes.size());
}

inline std::string hex(const std::string& bytes)
{
    return hex(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

inline std::vector<uint8_t> bytes(std::initializer_list<int> values)
{
    std::vector<uint8_t> result;
    for (int value : values)
        result.push_back(static_cast<uint8_t>(value));
    return result;
}

// One entry of the device list as FT_GetDeviceInfoDetail gives it.
struct Detail {
    FT_STATUS status = 0;
    DWORD flags = 0;
    DWORD type = 0;
    DWORD id = 0;
    DWORD location = 0;
    char serial[16] = {};
    char description[64] = {};
    FT_HANDLE handle = nullptr;
};

// The texts start filled with 'x', so that a missing terminator shows.
inline Detail detail(DWORD index)
{
    Detail d;
    std::memset(d.serial, 'x', sizeof(d.serial));
    std::memset(d.description, 'x', sizeof(d.description));
    d.status = FT_GetDeviceInfoDetail(
        index, &d.flags, &d.type, &d.id, &d.location, d.serial, d.description, &d.handle);
    return d;
}

// A C caller may pass any int where the header has an enumeration, and the
// vendor library checks the value. C++ cannot form such an enumeration value,
// so these calls reach the same functions as the C ABI does: with ints.
template <typename Function> Function fromC(void (*function)())
{
    return reinterpret_cast<Function>(function);
}

inline FT4222_STATUS setClockFromC(FT_HANDLE handle, int clock)
{
    using Call = FT4222_STATUS (*)(FT_HANDLE, int);
    return fromC<Call>(reinterpret_cast<void (*)()>(&FT4222_SetClock))(handle, clock);
}

inline FT4222_STATUS spiMasterInitFromC(
    FT_HANDLE handle, int ioLine, int clock, int cpol, int cpha, int ssoMap)
{
    using Call = FT4222_STATUS (*)(FT_HANDLE, int, int, int, int, uint8);
    return fromC<Call>(reinterpret_cast<void (*)()>(&FT4222_SPIMaster_Init))(
        handle, ioLine, clock, cpol, cpha, static_cast<uint8>(ssoMap));
}

inline FT4222_STATUS setDrivingStrengthFromC(FT_HANDLE handle, int clock, int io, int sso)
{
    using Call = FT4222_STATUS (*)(FT_HANDLE, int, int, int);
    return fromC<Call>(reinterpret_cast<void (*)()>(&FT4222_SPI_SetDrivingStrength))(handle, clock, io, sso);
}

inline FT4222_STATUS gpioReadFromC(FT_HANDLE handle, int line, BOOL* value)
{
    using Call = FT4222_STATUS (*)(FT_HANDLE, int, BOOL*);
    return fromC<Call>(reinterpret_cast<void (*)()>(&FT4222_GPIO_Read))(handle, line, value);
}

// A direction table as a C caller fills it, with any int.
struct RawDirections {
    explicit RawDirections(std::initializer_list<int> values)
    {
        int raw[4] = {};
        std::copy(values.begin(), values.end(), raw);
        std::memcpy(table, raw, sizeof table);
    }
    GPIO_Dir table[4];
};

// USB vendor and product id of the sensor series' bridge.
constexpr uint32_t kSeriesIds = 0x1CE60003;

class VbTest : public ::testing::Test {
protected:
    // Each test starts with the series' ids registered with the driver, as a
    // host does before it lists the devices.
    void SetUp() override
    {
        bridge().reset();
        bridge().setRegisteredIds(kSeriesIds);
    }
    void TearDown() override { bridge().reset(); }

    static vbridge::VirtualBridge& bridge() { return vbridge::VirtualBridge::instance(); }

    static int addSensor(const std::string& serial = std::string(), bool inside = false)
    {
        vbridge::SensorConfig config;
        config.serial = serial;
        config.inside = inside;
        config.defaultFlash = false; // keeps the tests fast
        return bridge().addSensor(config);
    }

    // Opens one interface by its serial ("KX0001A"); fails the test if it
    // cannot.
    static FT_HANDLE open(const std::string& serial)
    {
        FT_HANDLE handle = nullptr;
        const FT_STATUS status
            = FT_OpenEx(const_cast<char*>(serial.c_str()), FT_OPEN_BY_SERIAL_NUMBER, &handle);
        EXPECT_EQ(status, static_cast<FT_STATUS>(FT_OK)) << "opening " << serial;
        return handle;
    }

    static FT_HANDLE openPort(int sensor, int port) { return open(bridge().interfaceSerial(sensor, port)); }

    // Port A set up as for normal operation: 80 MHz, quad lines, 40 MHz SPI.
    static FT_HANDLE openPortA(int sensor = 0)
    {
        FT_HANDLE handle = openPort(sensor, kPortA);
        EXPECT_EQ(FT4222_SetClock(handle, SYS_CLK_80), FT4222_OK);
        EXPECT_EQ(
            FT4222_SPIMaster_Init(handle, SPI_IO_QUAD, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, 1), FT4222_OK);
        return handle;
    }

    // Port D set up for GPIO: suspend and wake-up off, GPIO 0-2 out, 3 in.
    static FT_HANDLE openPortD(int sensor = 0)
    {
        FT_HANDLE handle = openPort(sensor, kPortD);
        EXPECT_EQ(FT4222_SetSuspendOut(handle, 0), FT4222_OK);
        EXPECT_EQ(FT4222_SetWakeUpInterrupt(handle, 0), FT4222_OK);
        GPIO_Dir directions[4] = { GPIO_OUTPUT, GPIO_OUTPUT, GPIO_OUTPUT, GPIO_INPUT };
        EXPECT_EQ(FT4222_GPIO_Init(handle, directions), FT4222_OK);
        return handle;
    }

    // A sensor command (4 bytes on one line) and its answer read on the
    // port's multi lines, as one transaction.
    static std::vector<uint8_t> command(FT_HANDLE handle, std::vector<uint8_t> frame, uint16_t answerSize)
    {
        std::vector<uint8_t> answer(answerSize, 0xEE);
        uint32_t read = 0;
        const FT4222_STATUS status = FT4222_SPIMaster_MultiReadWrite(
            handle, answer.data(), frame.data(), static_cast<uint8>(frame.size()), 0, answerSize, &read);
        EXPECT_EQ(status, FT4222_OK);
        EXPECT_EQ(read, answerSize);
        return answer;
    }

    static DWORD listCount()
    {
        DWORD count = 0;
        EXPECT_EQ(FT_CreateDeviceInfoList(&count), static_cast<FT_STATUS>(FT_OK));
        return count;
    }
};

} // namespace simtest
