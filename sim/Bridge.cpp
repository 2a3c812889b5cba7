#include "sim/Bridge.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace vbridge {

namespace {

// Handles are spaced like heap pointers, and never handed out twice.
constexpr uintptr_t kHandleStep = 0x10;
// The driver knows the products of its own maker without being told.
constexpr uint32_t kDriverMakerVendorId = 0x0403;

} // namespace

const std::vector<std::string>& exportedFunctions()
{
    static const std::vector<std::string> names {
        "FT_CreateDeviceInfoList",
        "FT_GetDeviceInfoDetail",
        "FT_OpenEx",
        "FT_SetTimeouts",
        "FT_Purge",
        "FT_ResetDevice",
        "FT_Close",
        "FT_SetVIDPID",
        "FT_GetVIDPID",
        "FT4222_UnInitialize",
        "FT4222_SetClock",
        "FT4222_GetClock",
        "FT4222_SetSuspendOut",
        "FT4222_SetWakeUpInterrupt",
        "FT4222_SPIMaster_Init",
        "FT4222_SPIMaster_SetLines",
        "FT4222_SPIMaster_SingleRead",
        "FT4222_SPIMaster_SingleWrite",
        "FT4222_SPIMaster_SingleReadWrite",
        "FT4222_SPIMaster_MultiReadWrite",
        "FT4222_SPI_Reset",
        "FT4222_SPI_ResetTransaction",
        "FT4222_SPI_SetDrivingStrength",
        "FT4222_GPIO_Init",
        "FT4222_GPIO_Read",
        "FT4222_GPIO_Write",
    };
    return names;
}

Bridge& Bridge::instance()
{
    static Bridge bridge;
    return bridge;
}

Bridge::~Bridge()
{
    saveFlashImages();
}

void Bridge::ensureConfigured()
{
    if (configured)
        return;
    std::string error;
    if (!VirtualBridge::instance().resetFromEnvironment(&error))
        std::fprintf(stderr, "virtual bridge: %s; using the default machine\n", error.c_str());
}

VirtualSensor& Bridge::sensor(int index)
{
    if (index < 0 || static_cast<size_t>(index) >= sensors.size())
        throw std::out_of_range("virtual bridge: no sensor " + std::to_string(index) + " (there are "
            + std::to_string(sensors.size()) + ")");
    return *sensors[static_cast<size_t>(index)];
}

int Bridge::sensorIndexOf(const VirtualSensor& sensor) const
{
    for (size_t i = 0; i < sensors.size(); ++i)
        if (sensors[i].get() == &sensor)
            return static_cast<int>(i);
    return -1;
}

std::vector<ListEntry> Bridge::listed() const
{
    std::vector<ListEntry> entries;
    for (const ListEntry& entry : order) {
        if (entry.sensor >= 0) {
            if (static_cast<size_t>(entry.sensor) >= sensors.size() || entry.port < 0
                || entry.port >= kPortCount || !sensors[static_cast<size_t>(entry.sensor)]->plugged
                || !driverSees(kSeriesDeviceId))
                continue;
        } else if (entry.port < 0 || static_cast<size_t>(entry.port) >= foreign.size()
            || !driverSees(foreign[static_cast<size_t>(entry.port)].device.id)) {
            continue;
        }
        entries.push_back(entry);
    }
    return entries;
}

bool Bridge::driverSees(uint32_t id) const
{
    return driver == DriverProfile::Windows || id >> 16 == kDriverMakerVendorId
        || (registeredIds != 0 && id == registeredIds);
}

std::string Bridge::driverText(const std::string& text) const
{
    if (!nonAsciiAsQuestionMark)
        return text;
    std::string ascii = text;
    for (char& c : ascii)
        if (static_cast<unsigned char>(c) >= 0x80)
            c = '?';
    return ascii;
}

void Bridge::unplug(int index)
{
    VirtualSensor& s = sensor(index);
    if (!s.plugged)
        return;
    if (s.flash.dirty && !s.flashImage.empty())
        saveFlashImage(s, nullptr);
    s.powerDown();
}

void Bridge::plug(int index)
{
    VirtualSensor& s = sensor(index);
    if (!s.plugged)
        s.powerUp();
}

uintptr_t Bridge::newHandle()
{
    const uintptr_t handle = nextHandle_;
    nextHandle_ += kHandleStep;
    return handle;
}

uint32_t Bridge::takeFault(uint64_t callNumber, const std::string& function)
{
    uint32_t status = 0;
    const auto byNumber = callNumberFaults.find(callNumber);
    if (byNumber != callNumberFaults.end()) {
        status = byNumber->second;
        callNumberFaults.erase(byNumber);
    }
    // Every planned failure of this function counts the call, even when an
    // earlier one already fails it.
    for (auto it = callFaults.begin(); it != callFaults.end();) {
        if (it->function == function && --it->remaining <= 0) {
            if (status == 0)
                status = it->status;
            it = callFaults.erase(it);
            continue;
        }
        ++it;
    }
    return status;
}

void Bridge::applyTiming(VirtualSensor& sensor) const
{
    const bool realistic = timing == Timing::Realistic;
    sensor.flash.timing = realistic ? FlashTiming::realistic() : FlashTiming::instant();
    sensor.logic.readyDelayMs = realistic ? kRealisticReadyDelayMs : 0;
    sensor.logic.armDelayMs = realistic ? kRealisticArmDelayMs : 0;
    sensor.logic.exposureFloorMs = realistic ? kRealisticExposureFloorMs : 0;
    sensor.logic.configSettleUs = realistic ? kRealisticConfigSettleUs : 0;
    sensor.logic.programLowMinUs = realistic ? kRealisticProgramLowUs : 0;
}

bool Bridge::takeTransferFault(const std::string& function, TransferFault* fault)
{
    bool found = false;
    for (auto it = transferFaults.begin(); it != transferFaults.end();) {
        if (it->function == function && --it->remaining <= 0) {
            if (!found)
                *fault = *it;
            found = true;
            it = transferFaults.erase(it);
            continue;
        }
        ++it;
    }
    return found;
}

void Bridge::record(TraceEntry&& entry)
{
    if (traceEnabled)
        trace.push_back(std::move(entry));
}

bool Bridge::saveFlashImage(VirtualSensor& sensor, std::string* error)
{
    return sensor.saveFlashImage(error);
}

void Bridge::saveFlashImages()
{
    for (auto& sensor : sensors)
        if (sensor->flash.dirty && !sensor->flashImage.empty())
            saveFlashImage(*sensor, nullptr);
}

} // namespace vbridge
