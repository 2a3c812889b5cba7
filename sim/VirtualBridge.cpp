// The control side of the virtual bridge: building the machine, reading its
// devices' state, faults and the trace.
#include "sim/VirtualBridge.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "sim/BridgeState.h"
#include "sim/FlashContent.h"

namespace vbridge {

namespace {

constexpr char kLetters[] = "ABCD";
constexpr uint32_t kFirstLocation = 0x1011;

uint64_t fnv1a(const std::string& text)
{
    uint64_t hash = 0xcbf29ce484222325ull;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 0x100000001b3ull;
    }
    return hash;
}

}  // namespace

Machine& machine()
{
    static Machine instance;
    return instance;
}

Machine::~Machine()
{
    for (auto& sensor : sensors)
        if (sensor->flash.dirty && !sensor->flashImage.empty())
            saveFlashImage(*sensor, nullptr);
}

std::string interfaceSerialOf(const Sensor& sensor, int port)
{
    return sensor.serial + kLetters[port];
}

std::string interfaceDescriptionOf(int port)
{
    // Latin-1, as the driver gives it: superscript two is the byte 0xB2.
    return std::string("KORUX/KORUX\xB2 ") + kLetters[port];
}

std::vector<ListEntry> listedInterfaces(const Machine& m)
{
    std::vector<ListEntry> listed;
    for (const ListEntry& entry : m.order) {
        if (entry.sensor >= 0 && !m.sensors[entry.sensor]->plugged)
            continue;
        listed.push_back(entry);
    }
    return listed;
}

void unplugSensor(Machine& m, int sensor)
{
    Sensor& s = *m.sensors.at(sensor);
    if (!s.plugged)
        return;
    if (s.flash.dirty && !s.flashImage.empty())
        saveFlashImage(s, nullptr);
    s.plugged = false;
    ++s.generation;
    for (PortState& port : s.ports)
        port = PortState();
}

bool saveFlashImage(Sensor& sensor, std::string* error)
{
    std::ofstream file(sensor.flashImage, std::ios::binary | std::ios::trunc);
    const auto& memory = sensor.flash.memory();
    file.write(reinterpret_cast<const char*>(memory.data()), static_cast<std::streamsize>(memory.size()));
    if (!file) {
        if (error)
            *error = "cannot write the flash image " + sensor.flashImage;
        return false;
    }
    sensor.flash.dirty = false;
    return true;
}

void ensureInitialised(Machine& m)
{
    if (m.initialised)
        return;
    m.initialised = true;
    VirtualBridge& bridge = VirtualBridge::instance();
    bridge.resetToDefault();
    const char* scenario = std::getenv("KORUX_SCENARIO");
    if (scenario && *scenario) {
        std::string error;
        if (!bridge.loadScenario(scenario, &error))
            std::fprintf(stderr, "virtual bridge: %s\n", error.c_str());
    }
}

std::string TraceEntry::toString() const
{
    std::ostringstream line;
    line << seq << ' ' << function;
    if (!device.empty())
        line << ' ' << device;
    for (int64_t arg : args)
        line << ' ' << arg;
    if (!text.empty())
        line << " \"" << text << '"';
    auto bytes = [&line](const std::vector<uint8_t>& data) {
        char hex[4];
        line << " [";
        for (size_t i = 0; i < data.size(); ++i) {
            std::snprintf(hex, sizeof(hex), i ? " %02x" : "%02x", data[i]);
            line << hex;
        }
        line << ']';
    };
    if (!written.empty())
        bytes(written);
    if (!read.empty()) {
        line << " ->";
        bytes(read);
    }
    line << " = " << status;
    return line.str();
}

VirtualBridge& VirtualBridge::instance()
{
    static VirtualBridge bridge;
    return bridge;
}

void VirtualBridge::reset()
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    for (auto& sensor : m.sensors)
        if (sensor->flash.dirty && !sensor->flashImage.empty())
            saveFlashImage(*sensor, nullptr);
    m.initialised = true;
    m.sensors.clear();
    m.foreign.clear();
    m.order.clear();
    m.snapshot.clear();
    // Handles from before stay dead: they are remembered as closed.
    for (auto& handle : m.handles)
        handle.second.closed = true;
    m.trace.clear();
    m.traceEnabled = true;
    m.traceDataLimit = static_cast<size_t>(-1);
    m.calls = 0;
    m.callFaults.clear();
    m.callNumberFaults.clear();
    m.unplugAtCall.clear();
    m.failedDetails.clear();
    m.linkTiming = false;
}

void VirtualBridge::resetToDefault()
{
    reset();
    addSensor(SensorConfig());
}

int VirtualBridge::addSensor(const SensorConfig& config)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    m.initialised = true;
    const int index = static_cast<int>(m.sensors.size());
    auto sensor = std::make_unique<Sensor>();
    sensor->config = config;
    char serial[16];
    std::snprintf(serial, sizeof(serial), "KX%04d", index + 1);
    sensor->serial = config.serial.empty() ? serial : config.serial;
    sensor->config.serial = sensor->serial;
    sensor->location = config.location ? config.location : kFirstLocation + 0x10 * static_cast<uint32_t>(index);
    sensor->config.location = sensor->location;
    sensor->logic = std::make_unique<SensorLogic>(static_cast<uint32_t>(fnv1a(sensor->serial)));
    SensorLogic& logic = *sensor->logic;
    logic.version = config.version;
    logic.sizeCode = config.sizeCode;
    logic.generator = config.generator;
    logic.autoExposure = config.autoExposure;
    logic.exposure = config.exposure;
    logic.configured = config.fpgaConfigured;
    logic.fpgaDeviceId = config.fpgaDeviceId;
    sensor->converter.raw = config.adcRaw;
    sensor->flash.uniqueId = config.uniqueId ? config.uniqueId : fnv1a(sensor->serial);
    sensor->config.uniqueId = sensor->flash.uniqueId;
    if (config.defaultFlash) {
        DefaultFlash content;
        content.serial = std::to_string(1904001 + index);
        writeDefaultFlash(sensor->flash.memory(), content);
    }
    // Power lost in the middle of a program or erase: the sensor drops off
    // the bus until it is plugged back.
    sensor->flash.onPowerCut = [&m, index] { unplugSensor(m, index); };
    m.sensors.push_back(std::move(sensor));
    for (int port = 0; port < 4; ++port)
        m.order.push_back(ListEntry{index, port});
    return index;
}

int VirtualBridge::addForeignDevice(const ForeignDevice& device)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    m.initialised = true;
    m.foreign.push_back(Foreign{device, false, 0});
    const int index = static_cast<int>(m.foreign.size()) - 1;
    m.order.push_back(ListEntry{-1, index});
    return index;
}

void VirtualBridge::setListOrder(const std::vector<ListEntry>& order)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    m.order = order;
}

std::vector<ListEntry> VirtualBridge::listOrder() const
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    return m.order;
}

int VirtualBridge::sensorCount() const
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    ensureInitialised(m);
    return static_cast<int>(m.sensors.size());
}

#define WITH_SENSOR(index)                                   \
    Machine& m = machine();                                  \
    std::lock_guard<std::recursive_mutex> lock(m.mutex);     \
    ensureInitialised(m);                                    \
    Sensor& s = *m.sensors.at(static_cast<size_t>(index))

SensorConfig VirtualBridge::sensorConfig(int sensor) const
{
    WITH_SENSOR(sensor);
    SensorConfig config = s.config;
    config.inside = s.config.inside;
    return config;
}

std::string VirtualBridge::interfaceSerial(int sensor, int port) const
{
    WITH_SENSOR(sensor);
    return interfaceSerialOf(s, port);
}

uint32_t VirtualBridge::interfaceLocation(int sensor, int port) const
{
    WITH_SENSOR(sensor);
    return s.location + static_cast<uint32_t>(port);
}

void VirtualBridge::setStatusWord(int sensor, const StatusWord& status)
{
    WITH_SENSOR(sensor);
    s.logic->forcedStatus = true;
    s.logic->forced = status;
}

void VirtualBridge::clearStatusWord(int sensor)
{
    WITH_SENSOR(sensor);
    s.logic->forcedStatus = false;
}

void VirtualBridge::queueStatusWords(int sensor, const std::vector<StatusWord>& words)
{
    WITH_SENSOR(sensor);
    s.logic->queued.insert(s.logic->queued.end(), words.begin(), words.end());
}

void VirtualBridge::setGenerator(int sensor, const GeneratorSettings& generator)
{
    WITH_SENSOR(sensor);
    s.config.generator = generator;
    s.logic->generator = generator;
}

void VirtualBridge::setInside(int sensor, bool inside)
{
    WITH_SENSOR(sensor);
    s.config.inside = inside;
}

void VirtualBridge::setAutoExposure(int sensor, bool automatic, const Exposure& exposure)
{
    WITH_SENSOR(sensor);
    s.config.autoExposure = automatic;
    s.config.exposure = exposure;
    s.logic->autoExposure = automatic;
    s.logic->exposure = exposure;
}

void VirtualBridge::triggerExposure(int sensor, const Exposure& exposure)
{
    WITH_SENSOR(sensor);
    s.logic->trigger(exposure);
}

void VirtualBridge::switchOff(int sensor, bool off)
{
    WITH_SENSOR(sensor);
    s.logic->off = off;
}

void VirtualBridge::loseLink(int sensor, bool lost)
{
    WITH_SENSOR(sensor);
    s.logic->linkLost = lost;
}

void VirtualBridge::setImageSizeCode(int sensor, int code)
{
    WITH_SENSOR(sensor);
    s.logic->imageSizeCodeOverride = code;
}

ArmRecord VirtualBridge::lastArm(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.logic->arm;
}

std::vector<uint16_t> VirtualBridge::lastImage(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.logic->image();
}

int VirtualBridge::imageWidth(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.logic->width();
}

int VirtualBridge::imageHeight(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.logic->height();
}

std::vector<uint16_t> VirtualBridge::lastOscilloscope(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.logic->lastOscilloscope;
}

int VirtualBridge::exposureCount(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.logic->exposures;
}

void VirtualBridge::setAdcRaw(int sensor, const std::array<uint16_t, 4>& raw)
{
    WITH_SENSOR(sensor);
    s.config.adcRaw = raw;
    s.converter.raw = raw;
}

void VirtualBridge::setFlashContents(int sensor, uint32_t address, const std::vector<uint8_t>& bytes)
{
    WITH_SENSOR(sensor);
    auto& memory = s.flash.memory();
    for (size_t i = 0; i < bytes.size(); ++i)
        memory[(address + i) % memory.size()] = bytes[i];
    s.flash.dirty = true;
}

std::vector<uint8_t> VirtualBridge::flashContents(int sensor, uint32_t address, uint32_t length) const
{
    WITH_SENSOR(sensor);
    const auto& memory = s.flash.memory();
    std::vector<uint8_t> bytes(length);
    for (uint32_t i = 0; i < length; ++i)
        bytes[i] = memory[(address + i) % memory.size()];
    return bytes;
}

void VirtualBridge::eraseFlashContents(int sensor)
{
    WITH_SENSOR(sensor);
    std::fill(s.flash.memory().begin(), s.flash.memory().end(), 0xFF);
    s.flash.dirty = true;
}

void VirtualBridge::setUniqueId(int sensor, uint64_t id)
{
    WITH_SENSOR(sensor);
    s.flash.uniqueId = id;
    s.config.uniqueId = id;
}

uint64_t VirtualBridge::uniqueId(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.flash.uniqueId;
}

void VirtualBridge::setFlashTiming(int sensor, const FlashTiming& timing)
{
    WITH_SENSOR(sensor);
    s.flash.timing = timing;
}

FlashStats VirtualBridge::flashStats(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.flash.stats;
}

void VirtualBridge::clearFlashStats(int sensor)
{
    WITH_SENSOR(sensor);
    s.flash.resetStats();
}

void VirtualBridge::cutPowerAt(int sensor, int nthProgramOrErase)
{
    WITH_SENSOR(sensor);
    s.flash.powerCutCountdown = nthProgramOrErase;
}

bool VirtualBridge::setFlashImage(int sensor, const std::string& path, std::string* error)
{
    WITH_SENSOR(sensor);
    std::ifstream file(path, std::ios::binary);
    if (file) {
        std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        if (bytes.size() != NorFlash::kSize) {
            if (error)
                *error = "the flash image " + path + " holds " + std::to_string(bytes.size()) + " bytes, not "
                         + std::to_string(NorFlash::kSize);
            return false;
        }
        s.flash.memory() = std::move(bytes);
        s.flashImage = path;
        s.flash.dirty = false;
        return true;
    }
    s.flashImage = path;
    return saveFlashImage(s, error);
}

void VirtualBridge::saveFlashImages()
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    for (auto& sensor : m.sensors)
        if (sensor->flash.dirty && !sensor->flashImage.empty())
            saveFlashImage(*sensor, nullptr);
}

bool VirtualBridge::fpgaConfigured(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.logic->configured;
}

void VirtualBridge::setFpgaConfigured(int sensor, bool configured)
{
    WITH_SENSOR(sensor);
    if (configured)
        s.logic->configured = true;
    else
        s.logic->configurationReset();
}

void VirtualBridge::setFpgaDeviceId(int sensor, uint32_t id)
{
    WITH_SENSOR(sensor);
    s.logic->fpgaDeviceId = id;
}

std::vector<uint8_t> VirtualBridge::loadedBitstream(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.logic->loadedBitstream;
}

std::array<bool, 3> VirtualBridge::gpioOutputs(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.gpioOut;
}

void VirtualBridge::unplug(int sensor)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    ensureInitialised(m);
    unplugSensor(m, sensor);
}

// Plugged back, the sensor is powered anew: its FPGA has lost its
// configuration and its logic starts idle.
void VirtualBridge::plug(int sensor)
{
    WITH_SENSOR(sensor);
    if (s.plugged)
        return;
    s.plugged = true;
    s.logic->configurationReset();
    s.gpioOut = {{false, false, true}};
    s.suspendOut = true;
    s.wakeUpInterrupt = true;
}

bool VirtualBridge::isPlugged(int sensor) const
{
    WITH_SENSOR(sensor);
    return s.plugged;
}

void VirtualBridge::failCall(const std::string& function, int nth, uint32_t status)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    ensureInitialised(m);
    m.callFaults.push_back(CallFault{function, nth, status});
}

void VirtualBridge::failCallNumber(uint64_t nth, uint32_t status)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    ensureInitialised(m);
    m.callNumberFaults[m.calls + nth] = status;
}

void VirtualBridge::unplugAtCall(int sensor, uint64_t nth)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    ensureInitialised(m);
    m.unplugAtCall[m.calls + nth] = sensor;
}

void VirtualBridge::failDetail(int listIndex)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    ensureInitialised(m);
    m.failedDetails.push_back(listIndex);
}

void VirtualBridge::clearFaults()
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    m.callFaults.clear();
    m.callNumberFaults.clear();
    m.unplugAtCall.clear();
    m.failedDetails.clear();
}

void VirtualBridge::setLinkTiming(bool on)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    m.linkTiming = on;
}

int VirtualBridge::openHandleCount() const
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    int count = 0;
    for (const auto& handle : m.handles)
        if (!handle.second.closed)
            ++count;
    return count;
}

std::vector<TraceEntry> VirtualBridge::trace() const
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    return m.trace;
}

std::vector<TraceEntry> VirtualBridge::trace(const std::string& function) const
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    std::vector<TraceEntry> entries;
    for (const TraceEntry& entry : m.trace)
        if (entry.function == function)
            entries.push_back(entry);
    return entries;
}

void VirtualBridge::clearTrace()
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    m.trace.clear();
}

void VirtualBridge::setTraceDataLimit(size_t bytes)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    m.traceDataLimit = bytes;
}

void VirtualBridge::setTraceEnabled(bool enabled)
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    m.traceEnabled = enabled;
}

uint64_t VirtualBridge::callCount() const
{
    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    return m.calls;
}

}  // namespace vbridge

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
