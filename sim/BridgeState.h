// Internal state of the virtual bridge: the machine's sensors and foreign
// devices, the open handles, the trace and the faults. One mutex guards it.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/NorFlash.h"
#include "sim/SensorLogic.h"
#include "sim/VirtualBridge.h"
#include "sim/VoltageConverter.h"
#include "transport/BridgeApi.h"

namespace vbridge {

// LibFT4222 state of one interface.
struct PortState {
    bool open = false;
    uintptr_t handle = 0;
    bool spiMaster = false;
    FT4222_SPIMode lines = SPI_IO_NONE;
    FT4222_SPIClock divider = CLK_NONE;
    FT4222_SPICPOL cpol = CLK_IDLE_LOW;
    FT4222_SPICPHA cpha = CLK_LEADING;
    uint8_t ssoMap = 0;
    bool gpio = false;
    std::array<GPIO_Dir, 4> directions{{GPIO_INPUT, GPIO_INPUT, GPIO_INPUT, GPIO_INPUT}};
    bool inTransaction = false;
    ULONG readTimeout = 0;
    ULONG writeTimeout = 0;
};

struct Sensor {
    SensorConfig config;
    std::string serial;
    uint32_t location = 0;
    bool plugged = true;
    uint64_t generation = 0;  // grows on every unplug: older handles are dead
    std::array<PortState, 4> ports;
    // Chip-wide settings of the bridge.
    FT4222_ClockRate clock = SYS_CLK_60;
    bool suspendOut = true;
    bool wakeUpInterrupt = true;
    std::array<bool, 3> gpioOut{{false, false, true}};
    std::unique_ptr<SensorLogic> logic;
    VoltageConverter converter;
    NorFlash flash;
    std::string flashImage;
};

struct Foreign {
    ForeignDevice device;
    bool open = false;
    uintptr_t handle = 0;
};

struct HandleRecord {
    int sensor = -1;   // or -1 for a foreign device
    int port = 0;      // port of the sensor, or index of the foreign device
    uint64_t generation = 0;
    bool closed = false;
};

struct CallFault {
    std::string function;
    int remaining = 0;  // calls of that function still to pass before the failure
    uint32_t status = 0;
};

struct Machine {
    std::recursive_mutex mutex;
    bool initialised = false;
    std::vector<std::unique_ptr<Sensor>> sensors;
    std::vector<Foreign> foreign;
    std::vector<ListEntry> order;
    std::vector<ListEntry> snapshot;  // the list as the last FT_CreateDeviceInfoList made it
    std::map<uintptr_t, HandleRecord> handles;
    uintptr_t nextHandle = 0x5000;

    std::vector<TraceEntry> trace;
    bool traceEnabled = true;
    size_t traceDataLimit = static_cast<size_t>(-1);
    uint64_t calls = 0;

    std::vector<CallFault> callFaults;
    std::map<uint64_t, uint32_t> callNumberFaults;     // absolute call number -> status
    std::map<uint64_t, int> unplugAtCall;              // absolute call number -> sensor
    std::vector<int> failedDetails;
    bool linkTiming = false;

    ~Machine();
};

Machine& machine();

}  // namespace vbridge

namespace vbridge {

// Sets the machine up on first use: from the scenario named by KORUX_SCENARIO,
// or the default machine.
void ensureInitialised(Machine& m);
// The interfaces the device list shows now (plugged sensors, foreign devices).
std::vector<ListEntry> listedInterfaces(const Machine& m);
void unplugSensor(Machine& m, int sensor);
bool saveFlashImage(Sensor& sensor, std::string* error);
std::string interfaceSerialOf(const Sensor& sensor, int port);
std::string interfaceDescriptionOf(int port);

}  // namespace vbridge
