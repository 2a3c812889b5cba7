// The control side of the virtual bridge: building the machine, setting and
// reading its devices' state, faults and the trace.
#include "sim/VirtualBridge.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include <strings.h>

#include "sim/Bridge.h"
#include "sim/FlashContent.h"
#include "sim/Phantom.h"
#include "sim/Replay.h"

namespace vbridge {

namespace {

// Location id of the first sensor's port A when the configuration leaves it
// to us; each further sensor sits on the next hub port.
constexpr uint32_t kFirstLocation = 0x1011;
constexpr uint32_t kLocationStep = 0x10;
// The lock file beside a flash image that holds its interfaces' claims.
constexpr char kClaimSuffix[] = ".claim";
// Board serial written into the default flash of the first sensor.
constexpr int kFirstBoardSerial = 1904001;

// The bridge, locked for one control call. configure: set the machine up
// first if nothing did (not for the calls that build the machine).
class Locked {
public:
    explicit Locked(bool configure = true)
        : bridge(Bridge::instance())
        , lock_(bridge.mutex)
    {
        if (configure)
            bridge.ensureConfigured();
    }

    Bridge& bridge;

private:
    std::lock_guard<std::recursive_mutex> lock_;
};

} // namespace

VirtualBridge& VirtualBridge::instance()
{
    static VirtualBridge bridge;
    return bridge;
}

void VirtualBridge::reset()
{
    Locked locked(false);
    Bridge& b = locked.bridge;
    stopReplay();
    b.saveFlashImages();
    b.configured = true;
    b.sensors.clear();
    b.foreign.clear();
    b.order.clear();
    b.snapshot.clear();
    // Handles from before stay dead: their values are never given out again.
    b.handles.clear();
    b.trace.clear();
    b.traceEnabled = true;
    b.traceDataLimit = static_cast<size_t>(-1);
    b.calls = 0;
    b.callFaults.clear();
    b.transferFaults.clear();
    b.callNumberFaults.clear();
    b.unplugAtCall.clear();
    b.failedDetails.clear();
    b.linkTiming = false;
    // The registered USB ids belong to the driver in this process, not to
    // the machine: they stay.
    b.driver = kHostDriverProfile;
    b.nonAsciiAsQuestionMark = false;
    b.timing = Timing::Instant;
}

void VirtualBridge::resetToDefault()
{
    Locked locked(false);
    reset();
    addSensor(SensorConfig());
}

bool VirtualBridge::resetFromEnvironment(std::string* error)
{
    Locked locked(false);
    const char* path = std::getenv("KORUX_SCENARIO");
    std::string reason;
    if (path && *path && loadScenario(path, &reason))
        return true;
    // No scenario, or one that cannot be loaded: the default machine. A host
    // meets the sensor as it is, delays and busy times included; tests that
    // want it fast say so.
    resetToDefault();
    const char* timing = std::getenv("KORUX_TIMING");
    setTiming(timing && std::string(timing) == "instant" ? Timing::Instant : Timing::Realistic);
    if (reason.empty())
        return true;
    if (error)
        *error = reason;
    return false;
}

int VirtualBridge::addSensor(const SensorConfig& config)
{
    Locked locked(false);
    Bridge& b = locked.bridge;
    b.configured = true;
    const int index = static_cast<int>(b.sensors.size());
    SensorConfig chosen = config;
    if (chosen.serial.empty()) {
        char serial[16];
        std::snprintf(serial, sizeof(serial), "KX%04d", index + 1);
        chosen.serial = serial;
    }
    if (chosen.location == 0)
        chosen.location = kFirstLocation + kLocationStep * static_cast<uint32_t>(index);
    auto sensor = std::make_unique<VirtualSensor>(chosen);
    if (b.timing == Timing::Realistic) {
        // The configuration's own delays win over the machine's figures.
        b.applyTiming(*sensor);
        if (chosen.readyDelayMs)
            sensor->logic.readyDelayMs = chosen.readyDelayMs;
        if (chosen.armDelayMs)
            sensor->logic.armDelayMs = chosen.armDelayMs;
    }
    if (chosen.defaultFlash) {
        DefaultFlash content;
        content.serial = std::to_string(kFirstBoardSerial + index);
        writeDefaultFlash(sensor->flash.memory(), content);
    }
    b.sensors.push_back(std::move(sensor));
    for (int port = 0; port < kPortCount; ++port)
        b.order.push_back(ListEntry { index, port });
    return index;
}

int VirtualBridge::addForeignDevice(const ForeignDevice& device)
{
    Locked locked(false);
    Bridge& b = locked.bridge;
    b.configured = true;
    b.foreign.push_back(ForeignInterface { device, 0 });
    const int index = static_cast<int>(b.foreign.size()) - 1;
    b.order.push_back(ListEntry { -1, index });
    return index;
}

void VirtualBridge::setListOrder(const std::vector<ListEntry>& order)
{
    Locked locked;
    locked.bridge.order = order;
}

std::vector<ListEntry> VirtualBridge::listOrder() const
{
    Locked locked;
    return locked.bridge.order;
}

int VirtualBridge::sensorCount() const
{
    Locked locked;
    return static_cast<int>(locked.bridge.sensors.size());
}

SensorConfig VirtualBridge::sensorConfig(int sensor) const
{
    Locked locked;
    const VirtualSensor& s = locked.bridge.sensor(sensor);
    SensorConfig config = s.config;
    config.inside = s.gpio.inside();
    config.generator = s.logic.generator;
    config.adcRaw = s.converter.raw;
    config.uniqueId = s.flash.uniqueId;
    config.autoExposure = s.logic.autoExposure;
    config.exposure = s.logic.exposure;
    config.fpgaConfigured = s.logic.configured;
    config.fpgaDeviceId = s.logic.fpgaDeviceId;
    return config;
}

std::string VirtualBridge::interfaceSerial(int sensor, int port) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).interfaceSerial(port);
}

uint32_t VirtualBridge::interfaceLocation(int sensor, int port) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).location(port);
}

void VirtualBridge::setStatusWord(int sensor, const StatusWord& status)
{
    Locked locked;
    SensorLogic& logic = locked.bridge.sensor(sensor).logic;
    logic.forcedStatus = true;
    logic.forced = status;
}

void VirtualBridge::clearStatusWord(int sensor)
{
    Locked locked;
    locked.bridge.sensor(sensor).logic.forcedStatus = false;
}

void VirtualBridge::queueStatusWords(int sensor, const std::vector<StatusWord>& words)
{
    Locked locked;
    auto& queued = locked.bridge.sensor(sensor).logic.queued;
    queued.insert(queued.end(), words.begin(), words.end());
}

void VirtualBridge::setGenerator(int sensor, const GeneratorSettings& generator)
{
    Locked locked;
    locked.bridge.sensor(sensor).logic.generator = generator;
}

void VirtualBridge::setInside(int sensor, bool inside)
{
    Locked locked;
    locked.bridge.sensor(sensor).gpio.setInside(inside);
}

void VirtualBridge::setAutoExposure(int sensor, bool automatic, const Exposure& exposure)
{
    Locked locked;
    SensorLogic& logic = locked.bridge.sensor(sensor).logic;
    logic.autoExposure = automatic;
    logic.exposure = exposure;
}

void VirtualBridge::setImageSource(int sensor, const ImageSource& source)
{
    Locked locked;
    VirtualSensor& s = locked.bridge.sensor(sensor);
    s.config.image = source;
    s.logic.imageSource = source;
}

void VirtualBridge::triggerExposure(int sensor, const Exposure& exposure)
{
    Locked locked;
    locked.bridge.sensor(sensor).logic.trigger(exposure, SensorLogic::Clock::now());
}

void VirtualBridge::switchOff(int sensor, bool off)
{
    Locked locked;
    locked.bridge.sensor(sensor).logic.off = off;
}

void VirtualBridge::loseLink(int sensor, bool lost)
{
    Locked locked;
    locked.bridge.sensor(sensor).logic.linkLost = lost;
}

void VirtualBridge::holdDarkImage(int sensor)
{
    Locked locked;
    locked.bridge.sensor(sensor).logic.holdDarkImage();
}

void VirtualBridge::setImageSizeCode(int sensor, int code)
{
    Locked locked;
    locked.bridge.sensor(sensor).logic.setImageSizeCode(code);
}

ArmRecord VirtualBridge::lastArm(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).logic.arm;
}

std::vector<uint16_t> VirtualBridge::lastImage(int sensor) const
{
    Locked locked;
    SensorLogic& logic = locked.bridge.sensor(sensor).logic;
    logic.settleImage();
    return logic.image();
}

int VirtualBridge::imageWidth(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).logic.width();
}

int VirtualBridge::imageHeight(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).logic.height();
}

std::vector<uint16_t> VirtualBridge::lastOscilloscope(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).logic.lastOscilloscope;
}

int VirtualBridge::exposureCount(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).logic.exposures;
}

void VirtualBridge::setAdcRaw(int sensor, const std::array<uint16_t, 4>& raw)
{
    Locked locked;
    locked.bridge.sensor(sensor).converter.raw = raw;
}

void VirtualBridge::setFlashContents(int sensor, uint32_t address, const std::vector<uint8_t>& bytes)
{
    Locked locked;
    NorFlash& flash = locked.bridge.sensor(sensor).flash;
    auto& memory = flash.memory();
    for (size_t i = 0; i < bytes.size(); ++i)
        memory[(address + i) % memory.size()] = bytes[i];
    flash.dirty = true;
}

std::vector<uint8_t> VirtualBridge::flashContents(int sensor, uint32_t address, uint32_t length) const
{
    Locked locked;
    const auto& memory = locked.bridge.sensor(sensor).flash.memory();
    std::vector<uint8_t> bytes(length);
    for (uint32_t i = 0; i < length; ++i)
        bytes[i] = memory[(address + i) % memory.size()];
    return bytes;
}

void VirtualBridge::eraseFlashContents(int sensor)
{
    Locked locked;
    NorFlash& flash = locked.bridge.sensor(sensor).flash;
    std::fill(flash.memory().begin(), flash.memory().end(), 0xFF);
    flash.dirty = true;
}

void VirtualBridge::setUniqueId(int sensor, uint64_t id)
{
    Locked locked;
    VirtualSensor& s = locked.bridge.sensor(sensor);
    s.flash.uniqueId = id;
    s.config.uniqueId = id;
}

uint64_t VirtualBridge::uniqueId(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).flash.uniqueId;
}

void VirtualBridge::setFlashTiming(int sensor, const FlashTiming& timing)
{
    Locked locked;
    locked.bridge.sensor(sensor).flash.timing = timing;
}

void VirtualBridge::setFlashQuadEnable(int sensor, bool enabled)
{
    Locked locked;
    locked.bridge.sensor(sensor).flash.quadEnable = enabled;
}

uint8_t VirtualBridge::flashStatus(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).flash.statusRegister1();
}

FlashStats VirtualBridge::flashStats(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).flash.stats;
}

void VirtualBridge::clearFlashStats(int sensor)
{
    Locked locked;
    locked.bridge.sensor(sensor).flash.resetStats();
}

void VirtualBridge::cutPowerAt(int sensor, int nthProgramOrErase)
{
    Locked locked;
    locked.bridge.sensor(sensor).flash.powerCutCountdown = nthProgramOrErase;
}

bool VirtualBridge::setFlashImage(int sensor, const std::string& path, std::string* error)
{
    Locked locked;
    Bridge& bridge = locked.bridge;
    VirtualSensor& s = bridge.sensor(sensor);
    for (const auto& other : bridge.sensors) {
        if (other.get() != &s && !path.empty() && other->flashImage == path) {
            if (error)
                *error = "the flash image " + path + " is the flash of sensor "
                    + std::to_string(bridge.sensorIndexOf(*other)) + " already";
            return false;
        }
    }
    if (!s.attachFlashImage(path, error))
        return false;
    s.claims.setPath(path + kClaimSuffix);
    return true;
}

void VirtualBridge::saveFlashImages()
{
    Locked locked;
    locked.bridge.saveFlashImages();
}

std::string VirtualBridge::flashImageFailure() const
{
    Locked locked;
    for (const auto& sensor : locked.bridge.sensors)
        if (!sensor->flashImageFailure().empty())
            return sensor->flashImageFailure();
    return std::string();
}

bool VirtualBridge::fpgaConfigured(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).logic.configured;
}

void VirtualBridge::setFpgaConfigured(int sensor, bool configured)
{
    Locked locked;
    SensorLogic& logic = locked.bridge.sensor(sensor).logic;
    if (configured)
        logic.configured = true;
    else
        logic.configurationReset();
}

void VirtualBridge::setFpgaDeviceId(int sensor, uint32_t id)
{
    Locked locked;
    locked.bridge.sensor(sensor).logic.fpgaDeviceId = id;
}

std::vector<uint8_t> VirtualBridge::loadedBitstream(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).logic.loadedBitstream;
}

std::array<bool, 3> VirtualBridge::gpioOutputs(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).gpio.outputs();
}

PortSettings VirtualBridge::portSettings(int sensor, int port) const
{
    Locked locked;
    const VirtualSensor& s = locked.bridge.sensor(sensor);
    const VirtualSensor::Interface& interface = s.interfaces.at(static_cast<size_t>(port));
    const Ft4222Port& p = interface.port;
    PortSettings settings;
    settings.open = interface.handle != 0;
    settings.readTimeoutMs = p.readTimeout();
    settings.writeTimeoutMs = p.writeTimeout();
    settings.spiMaster = p.spi().master;
    settings.lines = p.spi().lines;
    settings.clockDivider = p.spi().divider;
    settings.cpol = p.spi().cpol;
    settings.cpha = p.spi().cpha;
    settings.ssoMap = p.spi().ssoMap;
    for (size_t i = 0; i < 3; ++i)
        settings.drivingStrength[i] = p.spi().strength[i];
    settings.chipSelectAsserted = p.inTransaction();
    settings.engineLines = p.engine().lines;
    settings.engineClockDivider = p.engine().divider;
    settings.gpio = p.gpioMode();
    for (size_t i = 0; i < 4; ++i)
        settings.gpioDirections[i] = p.gpioDirections()[i];
    settings.systemClock = s.chip.clock;
    settings.suspendOut = s.chip.suspendOut;
    settings.wakeUpInterrupt = s.chip.wakeUpInterrupt;
    return settings;
}

void VirtualBridge::unplug(int sensor)
{
    Locked locked;
    locked.bridge.unplug(sensor);
}

// Plugged back, the sensor is powered anew: its FPGA has lost its
// configuration and its logic starts idle.
void VirtualBridge::plug(int sensor)
{
    Locked locked;
    locked.bridge.plug(sensor);
}

bool VirtualBridge::isPlugged(int sensor) const
{
    Locked locked;
    return locked.bridge.sensor(sensor).plugged;
}

void VirtualBridge::failCall(const std::string& function, int nth, uint32_t status)
{
    Locked locked;
    locked.bridge.callFaults.push_back(CallFault { function, nth, status });
}

void VirtualBridge::shortTransfer(const std::string& function, int nth, uint16_t bytes)
{
    Locked locked;
    locked.bridge.transferFaults.push_back(TransferFault { function, nth, false, bytes });
}

void VirtualBridge::stickTransfer(const std::string& function, int nth)
{
    Locked locked;
    locked.bridge.transferFaults.push_back(TransferFault { function, nth, true, 0 });
}

void VirtualBridge::failCallNumber(uint64_t nth, uint32_t status)
{
    Locked locked;
    locked.bridge.callNumberFaults[locked.bridge.calls + nth] = status;
}

void VirtualBridge::unplugAtCall(int sensor, uint64_t nth)
{
    Locked locked;
    locked.bridge.unplugAtCall[locked.bridge.calls + nth] = sensor;
}

void VirtualBridge::failDetail(int listIndex)
{
    Locked locked;
    locked.bridge.failedDetails.push_back(listIndex);
}

void VirtualBridge::clearFaults()
{
    Locked locked;
    Bridge& b = locked.bridge;
    b.callFaults.clear();
    b.transferFaults.clear();
    b.callNumberFaults.clear();
    b.unplugAtCall.clear();
    b.failedDetails.clear();
}

void VirtualBridge::setTiming(Timing timing)
{
    Locked locked;
    Bridge& b = locked.bridge;
    b.timing = timing;
    b.linkTiming = timing == Timing::Realistic;
    for (auto& sensor : b.sensors)
        b.applyTiming(*sensor);
}

Timing VirtualBridge::timing() const
{
    Locked locked;
    return locked.bridge.timing;
}

void VirtualBridge::setSensorDelays(
    int sensor, uint32_t readyDelayMs, uint32_t armDelayMs, uint32_t imageLeadMs, uint32_t readoutMs)
{
    Locked locked;
    SensorLogic& logic = locked.bridge.sensor(sensor).logic;
    logic.readyDelayMs = readyDelayMs;
    logic.armDelayMs = armDelayMs;
    logic.imageLeadMs = imageLeadMs;
    logic.readoutMs = readoutMs;
}

void VirtualBridge::setFpgaDelays(int sensor, uint32_t settleUs, uint32_t programLowMinUs)
{
    Locked locked;
    SensorLogic& logic = locked.bridge.sensor(sensor).logic;
    logic.configSettleUs = settleUs;
    logic.programLowMinUs = programLowMinUs;
}

void VirtualBridge::setLinkTiming(bool on)
{
    Locked locked;
    locked.bridge.linkTiming = on;
}

void VirtualBridge::setDriverProfile(DriverProfile profile)
{
    Locked locked;
    locked.bridge.driver = profile;
}

DriverProfile VirtualBridge::driverProfile() const
{
    Locked locked;
    return locked.bridge.driver;
}

uint32_t VirtualBridge::registeredIds() const
{
    Locked locked;
    return locked.bridge.registeredIds;
}

void VirtualBridge::setRegisteredIds(uint32_t ids)
{
    Locked locked;
    locked.bridge.registeredIds = ids;
}

void VirtualBridge::setNonAsciiAsQuestionMark(bool on)
{
    Locked locked;
    locked.bridge.nonAsciiAsQuestionMark = on;
}

int VirtualBridge::openHandleCount() const
{
    Locked locked;
    return static_cast<int>(locked.bridge.handles.size());
}

std::vector<TraceEntry> VirtualBridge::trace() const
{
    Locked locked;
    return locked.bridge.trace;
}

std::vector<TraceEntry> VirtualBridge::trace(const std::string& function) const
{
    Locked locked;
    std::vector<TraceEntry> entries;
    for (const TraceEntry& entry : locked.bridge.trace)
        if (entry.function == function)
            entries.push_back(entry);
    return entries;
}

void VirtualBridge::clearTrace()
{
    Locked locked;
    locked.bridge.trace.clear();
}

void VirtualBridge::setTraceDataLimit(size_t bytes)
{
    Locked locked;
    locked.bridge.traceDataLimit = bytes;
}

void VirtualBridge::setTraceEnabled(bool enabled)
{
    Locked locked;
    locked.bridge.traceEnabled = enabled;
}

uint64_t VirtualBridge::callCount() const
{
    Locked locked;
    return locked.bridge.calls;
}

} // namespace vbridge

extern "C" int vbridge_flash_image_failure(char* error, unsigned long errorSize)
{
    const std::string reason = vbridge::VirtualBridge::instance().flashImageFailure();
    if (reason.empty())
        return 0;
    if (error && errorSize) {
        std::strncpy(error, reason.c_str(), errorSize - 1);
        error[errorSize - 1] = '\0';
    }
    return 1;
}

extern "C" int vbridge_picture_anatomy(const char* boardSerial, char* text, unsigned long textSize)
{
    if (!boardSerial || !text || !textSize)
        return 0;
    vbridge::Locked locked;
    for (const auto& sensor : locked.bridge.sensors) {
        char serial[17] = {};
        std::snprintf(
            serial, sizeof serial, "%016llX", static_cast<unsigned long long>(sensor->flash.uniqueId));
        if (strcasecmp(serial, boardSerial) != 0
            || sensor->config.image.kind != vbridge::ImageSource::Kind::Phantom)
            continue;
        std::strncpy(text, vbridge::phantom::kAnatomy, textSize - 1);
        text[textSize - 1] = '\0';
        return 1;
    }
    return 0;
}

extern "C" int vbridge_load_scenario(const char* path, char* error, unsigned long errorSize)
{
    std::string reason;
    if (vbridge::VirtualBridge::instance().loadScenario(path ? path : "", &reason))
        return 0;
    if (error && errorSize) {
        std::strncpy(error, reason.c_str(), errorSize - 1);
        error[errorSize - 1] = '\0';
    }
    return 1;
}
