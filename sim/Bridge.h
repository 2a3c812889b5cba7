// The USB side of the virtual machine: the sensors and foreign devices on the
// bus, the device list as the driver last built it, the open handles, the
// injected faults and the trace. One recursive mutex guards all of it: the C
// functions and the control API lock it, and the control API calls itself.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/VirtualBridge.h"
#include "sim/VirtualSensor.h"

namespace vbridge {

// The C functions the bridge exports, by name.
const std::vector<std::string>& exportedFunctions();

struct ForeignInterface {
    ForeignDevice device;
    uintptr_t handle = 0; // 0 while closed
};

// One entry of the device list as FT_CreateDeviceInfoList made it: the driver
// answers the details from this snapshot.
struct ListedInterface {
    ListEntry entry;
    uintptr_t handle = 0; // open in this process then
    bool heldElsewhere = false; // open in another process then
};

// What a handle given out by FT_OpenEx refers to.
struct HandleRecord {
    int sensor = -1; // -1: a foreign device
    int port = 0; // port of the sensor, or index of the foreign device
    uint64_t generation = 0;
};

struct CallFault {
    std::string function;
    int remaining = 0; // calls of that function to come, this one included
    uint32_t status = 0;
};

// A transfer that moves fewer bytes than asked, or hangs until its time-out.
struct TransferFault {
    std::string function;
    int remaining = 0;
    bool stuck = false;
    uint16_t bytes = 0; // bytes moved by a short transfer
};

class Bridge {
public:
    static Bridge& instance();
    ~Bridge();

    std::recursive_mutex mutex;

    // Sets the machine up on first use, unless something configured it
    // already: from the scenario named by KORUX_SCENARIO, else the default
    // machine.
    void ensureConfigured();
    bool configured = false;

    VirtualSensor& sensor(int index); // throws std::out_of_range
    int sensorIndexOf(const VirtualSensor& sensor) const;
    // The interfaces the driver shows now, in list order.
    std::vector<ListEntry> listed() const;
    // The driver lists and opens an interface with these USB ids.
    bool driverSees(uint32_t id) const;
    // A text as the driver hands it.
    std::string driverText(const std::string& text) const;
    void unplug(int sensor);
    void plug(int sensor);
    // A handle value never given out before in this process.
    uintptr_t newHandle();

    // The fault planned for this call, or 0.
    uint32_t takeFault(uint64_t callNumber, const std::string& function);
    void record(TraceEntry&& entry);

    bool saveFlashImage(VirtualSensor& sensor, std::string* error);
    void saveFlashImages();

    std::vector<std::unique_ptr<VirtualSensor>> sensors;
    std::vector<ForeignInterface> foreign;
    std::vector<ListEntry> order;
    std::vector<ListedInterface> snapshot; // the list as the last FT_CreateDeviceInfoList made it
    std::map<uintptr_t, HandleRecord> handles;

    std::vector<TraceEntry> trace;
    bool traceEnabled = true;
    size_t traceDataLimit = static_cast<size_t>(-1);
    uint64_t calls = 0;

    std::vector<CallFault> callFaults;
    std::vector<TransferFault> transferFaults;
    // The transfer fault planned for this call of function, if any.
    bool takeTransferFault(const std::string& function, TransferFault* fault);
    std::map<uint64_t, uint32_t> callNumberFaults; // absolute call number -> status
    std::map<uint64_t, int> unplugAtCall; // absolute call number -> sensor
    std::vector<int> failedDetails;
    bool linkTiming = false;
    Timing timing = Timing::Instant;
    // Gives a sensor the figures of the machine's timing.
    void applyTiming(VirtualSensor& sensor) const;

    DriverProfile driver = kHostDriverProfile;
    uint32_t registeredIds = 0; // FT_SetVIDPID's pair, 0 when none
    bool nonAsciiAsQuestionMark = false;

private:
    Bridge() = default;

    uintptr_t nextHandle_ = 0x5000;
};

} // namespace vbridge
