// Scenario files: a JSON description of a whole virtual machine (its sensors
// with their state and flash contents, foreign devices, the device-list order
// and planned faults). The format is described in docs/scenario.md.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/VirtualBridge.h"

namespace vbridge {

struct ScenarioFile {
    uint32_t address = 0;
    std::vector<uint8_t> bytes; // as they go into the flash
};

struct ScenarioSensor {
    SensorConfig config;
    bool plugged = true;
    bool hasStatus = false;
    StatusWord status;
    std::vector<StatusWord> statusQueue;
    bool eraseFlash = false;
    std::vector<ScenarioFile> files;
    std::string flashImage; // resolved path
    // Figures the file names; the others stay those of the machine's timing.
    std::optional<uint32_t> busyPolls, programUs, eraseUs, chipEraseUs, resetUs, writeStatusUs;
    bool hasQuadEnable = false;
    bool quadEnable = true;
    std::optional<uint32_t> readyMs, armMs, imageLeadMs, readoutMs;
    std::optional<uint32_t> fpgaSettleUs, programLowUs;
};

struct ScenarioFault {
    enum class Kind { Call, CallNumber, Detail, Unplug, Short, Stuck } kind = Kind::Call;
    std::string function;
    int64_t nth = 1;
    uint32_t status = 4;
    int index = 0; // list index (Detail) or sensor (Unplug)
    uint16_t bytes = 0; // Short: bytes moved
};

struct Scenario {
    std::vector<ScenarioSensor> sensors;
    std::vector<ForeignDevice> foreign;
    bool hasOrder = false;
    std::vector<ListEntry> order;
    std::vector<ScenarioFault> faults;
    bool linkTiming = false;
    DriverProfile driver = kHostDriverProfile;
    bool nonAsciiAsQuestionMark = false;
    bool hasTiming = false;
    Timing timing = Timing::Instant;
};

// Reads a scenario from JSON text. Relative file names in it are taken from
// baseDirectory (empty: the working directory). On error returns false with
// the reason in *error (without the file's name); nothing else is touched.
bool parseScenario(
    const std::string& text, const std::string& baseDirectory, Scenario* scenario, std::string* error);

} // namespace vbridge
