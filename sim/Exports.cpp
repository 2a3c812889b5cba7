// The D2XX and LibFT4222 C functions. Each one finds the interface behind its
// handle, lets a planned fault take its place, hands the work to the
// interface's Ft4222Port, and leaves one entry in the trace.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "sim/Bridge.h"
#include "sim/Replay.h"
#include "transport/BridgeApi.h"

using namespace vbridge;

namespace {

enum class Api { D2xx, LibFt4222 };

// What one call to the chip costs at realistic timing: its request and its
// answer in one USB 2.0 high-speed microframe of 125 us (our assumption of
// the driver's round trip; docs/scenario.md).
constexpr double kUsbTransactionUs = 125;

// Lets the time pass. A sleep overshoots by the kernel's timer slack (50 us
// by default), as much as a call costs: the last stretch is waited out.
void spend(std::chrono::microseconds time)
{
    const auto until = std::chrono::steady_clock::now() + time;
    constexpr auto kSlack = std::chrono::microseconds(150);
    if (time > kSlack)
        std::this_thread::sleep_for(time - kSlack);
    while (std::chrono::steady_clock::now() < until)
        std::this_thread::yield();
}

// One bridge call: holds the lock, numbers the call, and records the trace
// entry when it ends. At realistic timing every call costs a USB transaction,
// and a transfer its data's time too; both are spent after the lock is given
// back, so other threads are not held up by them.
class Call {
public:
    explicit Call(const char* function)
        : bridge_(Bridge::instance())
        , lock_(bridge_.mutex)
    {
        bridge_.ensureConfigured();
        entry_.function = function;
        entry_.seq = ++bridge_.calls;
        const auto unplug = bridge_.unplugAtCall.find(entry_.seq);
        if (unplug != bridge_.unplugAtCall.end()) {
            if (unplug->second >= 0 && static_cast<size_t>(unplug->second) < bridge_.sensors.size())
                bridge_.unplug(unplug->second);
            bridge_.unplugAtCall.erase(unplug);
        }
    }

    ~Call()
    {
        bridge_.record(std::move(entry_));
        const double costUs = wireUs_ + (bridge_.linkTiming ? kUsbTransactionUs : 0);
        lock_.unlock();
        if (costUs > 0)
            spend(std::chrono::microseconds(static_cast<long long>(costUs)));
    }

    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    Bridge& bridge() { return bridge_; }

    void args(std::initializer_list<int64_t> values) { entry_.args.assign(values); }
    void addArg(int64_t value) { entry_.args.push_back(value); }
    void text(const std::string& value) { entry_.text = value; }
    void device(const std::string& serial, char port)
    {
        entry_.device = serial;
        entry_.port = port;
    }
    void written(const uint8_t* bytes, size_t count) { keep(entry_.written, bytes, count); }
    void read(const uint8_t* bytes, size_t count) { keep(entry_.read, bytes, count); }

    // For calls without a handle: the planned fault, or 0.
    uint32_t check() { return bridge_.takeFault(entry_.seq, entry_.function); }

    // For calls on a handle: names the device in the trace, then gives the
    // planned fault, or the failure of a dead handle, or 0.
    uint32_t check(FT_HANDLE handle, Api api)
    {
        const uint32_t handleStatus = identify(handle, api);
        if (const uint32_t fault = check())
            return fault;
        return handleStatus;
    }

    // Finds the interface behind a handle and names it in the trace. Returns
    // 0 for a live handle, else the status a call on it fails with.
    uint32_t identify(FT_HANDLE handle, Api api)
    {
        const auto it = bridge_.handles.find(reinterpret_cast<uintptr_t>(handle));
        if (!handle || it == bridge_.handles.end())
            return api == Api::D2xx ? static_cast<uint32_t>(FT_INVALID_HANDLE)
                                    : static_cast<uint32_t>(FT4222_INVALID_HANDLE);
        record_ = &it->second;
        if (record_->sensor < 0) {
            entry_.device = bridge_.foreign[static_cast<size_t>(record_->port)].device.serial;
            // LibFT4222 talks to FT4222H chips only.
            return api == Api::D2xx ? static_cast<uint32_t>(FT_OK)
                                    : static_cast<uint32_t>(FT4222_DEVICE_NOT_SUPPORTED);
        }
        VirtualSensor& sensor = *bridge_.sensors[static_cast<size_t>(record_->sensor)];
        device(sensor.interfaceSerial(record_->port), kPortLetters[record_->port]);
        // The device has gone from the bus: the handle is dead.
        if (!sensor.plugged || record_->generation != sensor.generation)
            return api == Api::D2xx ? static_cast<uint32_t>(FT_IO_ERROR)
                                    : static_cast<uint32_t>(FT4222_DEVICE_NOT_FOUND);
        sensor_ = &sensor;
        return FT_OK;
    }

    FT_STATUS finish(uint32_t status)
    {
        entry_.status = status;
        return status;
    }
    FT4222_STATUS finish4222(uint32_t status) { return static_cast<FT4222_STATUS>(finish(status)); }

    // After a transfer: the power may have failed under it (the flash's
    // power-cut injection), which unplugs the sensor.
    uint32_t afterTransfer(uint32_t status)
    {
        // The bridge is rated for 30 MHz of SPI clock; faster works for the
        // devices that follow it, and the trace says so.
        if (sensor_)
            entry_.aboveRatedClock = port().spiClockMHz() > Ft4222Port::kRatedSpiClockMHz;
        if (sensor_ && sensor_->powerFailed) {
            bridge_.unplug(bridge_.sensorIndexOf(*sensor_));
            return FT4222_DEVICE_NOT_FOUND;
        }
        return status;
    }

    VirtualSensor* sensor() { return sensor_; }
    Ft4222Port& port() { return sensor_->interfaces[static_cast<size_t>(record_->port)].port; }
    HandleRecord* record() { return record_; }

    // A planned short or stuck transfer of this call. A stuck one holds the
    // caller (not the bridge) for the port's time-out; 0 means none was set,
    // which would be for ever: the bridge gives up after 10 s.
    bool transferFault(TransferFault* fault, bool reads)
    {
        if (!bridge_.takeTransferFault(entry_.function, fault))
            return false;
        if (fault->stuck) {
            const uint32_t timeoutMs = reads ? port().readTimeout() : port().writeTimeout();
            wireUs_ += 1000.0 * (timeoutMs ? timeoutMs : 10000);
        }
        return true;
    }

    // An image-block read whose picture is still rendering waits for it with
    // the bridge let go (as a bulk read waits for the device's data), then
    // finds its handle again: the sensor may have gone meanwhile.
    uint32_t awaitPicture(FT_HANDLE handle, const uint8_t* out, size_t count)
    {
        if (!sensor_ || record_->port != 0)
            return 0;
        const auto rendering = sensor_->logic.pictureToWaitFor(out, count);
        if (!rendering)
            return 0;
        lock_.unlock();
        rendering->wait();
        lock_.lock();
        sensor_ = nullptr;
        record_ = nullptr;
        return identify(handle, Api::LibFt4222);
    }

    void addWireTime(size_t singleBytes, size_t multiBytes)
    {
        if (bridge_.linkTiming && sensor_)
            wireUs_ += port().wireMicroseconds(singleBytes, multiBytes);
    }

private:
    void keep(std::vector<uint8_t>& target, const uint8_t* bytes, size_t count)
    {
        if (bytes && bridge_.traceEnabled)
            target.assign(bytes, bytes + std::min(count, bridge_.traceDataLimit));
    }

    Bridge& bridge_;
    std::unique_lock<std::recursive_mutex> lock_;
    TraceEntry entry_;
    HandleRecord* record_ = nullptr;
    VirtualSensor* sensor_ = nullptr;
    double wireUs_ = 0;
};

// The C ABI passes an enumeration as an int, and a C caller may pass any
// value; the bridge reads it as that int, never as the enumeration.
template <typename Enum> int asInt(const Enum& value)
{
    static_assert(sizeof(Enum) == sizeof(int), "C enumerations are int-sized");
    int raw = 0;
    std::memcpy(&raw, &value, sizeof raw);
    return raw;
}

void copyText(void* target, const std::string& text, size_t size)
{
    char* bytes = static_cast<char*>(target);
    std::memset(bytes, 0, size);
    std::memcpy(bytes, text.data(), std::min(text.size(), size - 1));
}

// The interface FT_OpenEx means, or {-2, 0} when there is none. The driver
// compares the texts it was given with its own, as it hands them out.
ListEntry findInterface(const Bridge& bridge, void* arg, DWORD flags)
{
    const uint32_t location = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
    const std::string key = flags != FT_OPEN_BY_LOCATION && arg ? static_cast<const char*>(arg) : "";
    for (const ListEntry& entry : bridge.listed()) {
        bool match = false;
        if (entry.sensor >= 0) {
            const VirtualSensor& sensor = *bridge.sensors[static_cast<size_t>(entry.sensor)];
            if (flags == FT_OPEN_BY_LOCATION)
                match = sensor.location(entry.port) == location;
            else if (flags == FT_OPEN_BY_SERIAL_NUMBER)
                match = bridge.driverText(sensor.interfaceSerial(entry.port)) == key;
            else
                match = bridge.driverText(interfaceDescription(entry.port)) == key;
        } else {
            const ForeignDevice& device = bridge.foreign[static_cast<size_t>(entry.port)].device;
            if (flags == FT_OPEN_BY_LOCATION)
                match = device.location == location;
            else if (flags == FT_OPEN_BY_SERIAL_NUMBER)
                match = bridge.driverText(device.serial) == key;
            else
                match = bridge.driverText(device.description) == key;
        }
        if (match)
            return entry;
    }
    return ListEntry { -2, 0 };
}

} // namespace

// The vendor's C functions are what the library is for: exported, while the
// rest of the library is hidden.
#pragma GCC visibility push(default)
extern "C" {

FT_STATUS WINAPI FT_CreateDeviceInfoList(DWORD* numDevs)
{
    if (Replay* replay = activeReplay())
        return replay->FT_CreateDeviceInfoList(numDevs);
    Call call("FT_CreateDeviceInfoList");
    if (const uint32_t fault = call.check())
        return call.finish(fault);
    if (!numDevs)
        return call.finish(FT_INVALID_PARAMETER);
    Bridge& bridge = call.bridge();
    // The list is a snapshot: whether an interface is open, here or in
    // another process, is what it was now.
    bridge.snapshot.clear();
    for (const ListEntry& entry : bridge.listed()) {
        ListedInterface listed { entry, 0, false };
        if (entry.sensor >= 0) {
            VirtualSensor& sensor = *bridge.sensors[static_cast<size_t>(entry.sensor)];
            listed.handle = sensor.interfaces[static_cast<size_t>(entry.port)].handle;
            listed.heldElsewhere = !listed.handle && sensor.claims.heldElsewhere(entry.port);
        } else {
            listed.handle = bridge.foreign[static_cast<size_t>(entry.port)].handle;
        }
        bridge.snapshot.push_back(listed);
    }
    *numDevs = static_cast<DWORD>(bridge.snapshot.size());
    call.args({ *numDevs });
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_GetDeviceInfoDetail(DWORD index, DWORD* flags, DWORD* type, DWORD* id, DWORD* locId,
    void* serialNumber, void* description, FT_HANDLE* handle)
{
    if (Replay* replay = activeReplay())
        return replay->FT_GetDeviceInfoDetail(
            index, flags, type, id, locId, serialNumber, description, handle);
    Call call("FT_GetDeviceInfoDetail");
    call.args({ index });
    Bridge& bridge = call.bridge();
    if (index < bridge.snapshot.size()) {
        const ListEntry entry = bridge.snapshot[index].entry;
        if (entry.sensor >= 0)
            call.device(bridge.sensors[static_cast<size_t>(entry.sensor)]->interfaceSerial(entry.port),
                kPortLetters[entry.port]);
        else
            call.device(bridge.foreign[static_cast<size_t>(entry.port)].device.serial, 0);
    }
    if (const uint32_t fault = call.check())
        return call.finish(fault);
    // The driver answers from the list the last FT_CreateDeviceInfoList made.
    const bool failed
        = std::find(bridge.failedDetails.begin(), bridge.failedDetails.end(), static_cast<int>(index))
        != bridge.failedDetails.end();
    if (index >= bridge.snapshot.size() || failed)
        return call.finish(FT_DEVICE_NOT_FOUND);
    if (!flags || !type || !id || !locId || !serialNumber || !description || !handle)
        return call.finish(FT_INVALID_PARAMETER);

    const ListedInterface& listed = bridge.snapshot[index];
    const ListEntry entry = listed.entry;
    const DWORD opened = listed.handle ? FT_FLAGS_OPENED : 0;
    // The Linux driver gives no location for an interface that was open.
    const bool hideLocation = listed.handle && bridge.driver == DriverProfile::Linux;
    *handle = reinterpret_cast<FT_HANDLE>(listed.handle);
    if (entry.sensor < 0) {
        const ForeignDevice& device = bridge.foreign[static_cast<size_t>(entry.port)].device;
        *flags = FT_FLAGS_HISPEED | opened;
        *type = device.type;
        *id = device.id;
        *locId = hideLocation ? 0 : device.location;
        copyText(serialNumber, bridge.driverText(device.serial), 16);
        copyText(description, bridge.driverText(device.description), 64);
        return call.finish(FT_OK);
    }
    const VirtualSensor& sensor = *bridge.sensors[static_cast<size_t>(entry.sensor)];
    // Unplugged since the list was made.
    if (!sensor.plugged)
        return call.finish(FT_DEVICE_NOT_FOUND);
    // Of an interface another process holds, the driver knows only that.
    if (listed.heldElsewhere) {
        *flags = FT_FLAGS_OPENED;
        *type = 0;
        *id = 0;
        *locId = 0;
        copyText(serialNumber, std::string(), 16);
        copyText(description, std::string(), 64);
        return call.finish(FT_OK);
    }
    *flags = FT_FLAGS_HISPEED | opened;
    // A bridge that shows four interfaces runs in chip mode 1 or 2.
    *type = FT_DEVICE_4222H_1_2;
    *id = kSeriesDeviceId;
    *locId = hideLocation ? 0 : sensor.location(entry.port);
    copyText(serialNumber, bridge.driverText(sensor.interfaceSerial(entry.port)), 16);
    copyText(description, bridge.driverText(interfaceDescription(entry.port)), 64);
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_OpenEx(void* arg, DWORD flags, FT_HANDLE* handle)
{
    if (Replay* replay = activeReplay())
        return replay->FT_OpenEx(arg, flags, handle);
    Call call("FT_OpenEx");
    if (flags == FT_OPEN_BY_LOCATION) {
        call.args({ static_cast<int64_t>(reinterpret_cast<uintptr_t>(arg)), flags });
    } else {
        if (arg)
            call.text(static_cast<const char*>(arg));
        call.args({ flags });
    }
    const bool validFlags = flags == FT_OPEN_BY_LOCATION || flags == FT_OPEN_BY_SERIAL_NUMBER
        || flags == FT_OPEN_BY_DESCRIPTION;
    Bridge& bridge = call.bridge();
    ListEntry target { -2, 0 };
    if (validFlags && (arg || flags == FT_OPEN_BY_LOCATION)) {
        target = findInterface(bridge, arg, flags);
        if (target.sensor >= 0)
            call.device(bridge.sensors[static_cast<size_t>(target.sensor)]->interfaceSerial(target.port),
                kPortLetters[target.port]);
        else if (target.sensor == -1)
            call.device(bridge.foreign[static_cast<size_t>(target.port)].device.serial, 0);
    }
    if (const uint32_t fault = call.check())
        return call.finish(fault);
    if (!handle || !validFlags || (!arg && flags != FT_OPEN_BY_LOCATION))
        return call.finish(FT_INVALID_PARAMETER);
    if (target.sensor == -2)
        return call.finish(FT_DEVICE_NOT_FOUND);

    // An interface is opened by one handle at a time, as the driver allows,
    // and by one process at a time, as the USB stack allows.
    if (target.sensor >= 0) {
        VirtualSensor& sensor = *bridge.sensors[static_cast<size_t>(target.sensor)];
        VirtualSensor::Interface& interface = sensor.interfaces[static_cast<size_t>(target.port)];
        if (interface.handle || !sensor.claims.claim(target.port))
            return call.finish(FT_DEVICE_NOT_OPENED);
        interface.handle = bridge.newHandle();
        interface.port.clear();
        bridge.handles[interface.handle]
            = HandleRecord { target.sensor, target.port, sensor.generation };
        *handle = reinterpret_cast<FT_HANDLE>(interface.handle);
    } else {
        ForeignInterface& device = bridge.foreign[static_cast<size_t>(target.port)];
        if (device.handle)
            return call.finish(FT_DEVICE_NOT_OPENED);
        device.handle = bridge.newHandle();
        bridge.handles[device.handle] = HandleRecord { -1, target.port, 0 };
        *handle = reinterpret_cast<FT_HANDLE>(device.handle);
    }
    return call.finish(FT_OK);
}

// Linux and macOS drivers only: one more vendor/product pair to list and
// open; it replaces the one registered before.
FT_STATUS WINAPI FT_SetVIDPID(DWORD vid, DWORD pid)
{
    if (Replay* replay = activeReplay())
        return replay->FT_SetVIDPID(vid, pid);
    Call call("FT_SetVIDPID");
    call.args({ vid, pid });
    if (const uint32_t fault = call.check())
        return call.finish(fault);
    Bridge& bridge = call.bridge();
    if (bridge.driver == DriverProfile::Windows)
        return call.finish(FT_NOT_SUPPORTED);
    bridge.registeredIds = (vid & 0xFFFF) << 16 | (pid & 0xFFFF);
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_GetVIDPID(DWORD* vid, DWORD* pid)
{
    if (Replay* replay = activeReplay())
        return replay->FT_GetVIDPID(vid, pid);
    Call call("FT_GetVIDPID");
    if (const uint32_t fault = call.check())
        return call.finish(fault);
    Bridge& bridge = call.bridge();
    if (bridge.driver == DriverProfile::Windows)
        return call.finish(FT_NOT_SUPPORTED);
    if (!vid || !pid)
        return call.finish(FT_INVALID_PARAMETER);
    *vid = bridge.registeredIds >> 16;
    *pid = bridge.registeredIds & 0xFFFF;
    call.args({ *vid, *pid });
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_SetTimeouts(FT_HANDLE handle, ULONG readTimeoutMs, ULONG writeTimeoutMs)
{
    if (Replay* replay = activeReplay())
        return replay->FT_SetTimeouts(handle, readTimeoutMs, writeTimeoutMs);
    Call call("FT_SetTimeouts");
    call.args({ readTimeoutMs, writeTimeoutMs });
    if (const uint32_t status = call.check(handle, Api::D2xx))
        return call.finish(status);
    if (call.sensor())
        call.port().setTimeouts(readTimeoutMs, writeTimeoutMs);
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_Purge(FT_HANDLE handle, ULONG mask)
{
    if (Replay* replay = activeReplay())
        return replay->FT_Purge(handle, mask);
    Call call("FT_Purge");
    call.args({ mask });
    if (const uint32_t status = call.check(handle, Api::D2xx))
        return call.finish(status);
    if (mask & ~ULONG(FT_PURGE_RX | FT_PURGE_TX))
        return call.finish(FT_INVALID_PARAMETER);
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_ResetDevice(FT_HANDLE handle)
{
    if (Replay* replay = activeReplay())
        return replay->FT_ResetDevice(handle);
    Call call("FT_ResetDevice");
    if (const uint32_t status = call.check(handle, Api::D2xx))
        return call.finish(status);
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_Close(FT_HANDLE handle)
{
    if (Replay* replay = activeReplay())
        return replay->FT_Close(handle);
    Call call("FT_Close");
    const uint32_t status = call.identify(handle, Api::D2xx);
    if (const uint32_t fault = call.check())
        return call.finish(fault);
    if (status == FT_INVALID_HANDLE)
        return call.finish(status);
    // A handle is given back even when its device has gone from the bus.
    // Handle values are never given out twice, so a closed one is simply
    // forgotten: every later call with it finds no record and fails.
    const HandleRecord record = *call.record();
    Bridge& bridge = call.bridge();
    bridge.handles.erase(reinterpret_cast<uintptr_t>(handle));
    if (record.sensor < 0) {
        bridge.foreign[static_cast<size_t>(record.port)].handle = 0;
    } else if (status == FT_OK) {
        VirtualSensor& sensor = *call.sensor();
        VirtualSensor::Interface& interface = sensor.interfaces[static_cast<size_t>(record.port)];
        interface.port.clear();
        interface.handle = 0;
        sensor.claims.release(record.port);
        // The flash image is brought up to date when port C lets go.
        if (&interface == &sensor.interfaces[2] && sensor.flash.dirty && !sensor.flashImage.empty())
            bridge.saveFlashImage(sensor, nullptr);
    }
    return call.finish(FT_OK);
}

FT4222_STATUS FT4222_UnInitialize(FT_HANDLE handle)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_UnInitialize(handle);
    Call call("FT4222_UnInitialize");
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().unInitialize());
}

FT4222_STATUS FT4222_SetClock(FT_HANDLE handle, FT4222_ClockRate clk)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SetClock(handle, clk);
    Call call("FT4222_SetClock");
    call.args({ asInt(clk) });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().setClock(asInt(clk)));
}

FT4222_STATUS FT4222_GetClock(FT_HANDLE handle, FT4222_ClockRate* clk)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_GetClock(handle, clk);
    Call call("FT4222_GetClock");
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    const FT4222_STATUS status = call.port().getClock(clk);
    if (status == FT4222_OK)
        call.args({ *clk });
    return call.finish4222(status);
}

FT4222_STATUS FT4222_SetSuspendOut(FT_HANDLE handle, BOOL enable)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SetSuspendOut(handle, enable);
    Call call("FT4222_SetSuspendOut");
    call.args({ enable });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().setSuspendOut(enable != 0));
}

FT4222_STATUS FT4222_SetWakeUpInterrupt(FT_HANDLE handle, BOOL enable)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SetWakeUpInterrupt(handle, enable);
    Call call("FT4222_SetWakeUpInterrupt");
    call.args({ enable });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().setWakeUpInterrupt(enable != 0));
}

FT4222_STATUS FT4222_SPIMaster_Init(FT_HANDLE handle, FT4222_SPIMode ioLine, FT4222_SPIClock clock,
    FT4222_SPICPOL cpol, FT4222_SPICPHA cpha, uint8 ssoMap)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPIMaster_Init(handle, ioLine, clock, cpol, cpha, ssoMap);
    Call call("FT4222_SPIMaster_Init");
    call.args({ asInt(ioLine), asInt(clock), asInt(cpol), asInt(cpha), ssoMap });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(
        call.port().spiMasterInit(asInt(ioLine), asInt(clock), asInt(cpol), asInt(cpha), ssoMap));
}

FT4222_STATUS FT4222_SPIMaster_SetLines(FT_HANDLE handle, FT4222_SPIMode spiMode)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPIMaster_SetLines(handle, spiMode);
    Call call("FT4222_SPIMaster_SetLines");
    call.args({ asInt(spiMode) });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().setLines(asInt(spiMode)));
}

FT4222_STATUS FT4222_SPIMaster_SingleRead(
    FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeOfRead, BOOL isEndTransaction)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPIMaster_SingleRead(handle, buffer, bufferSize, sizeOfRead, isEndTransaction);
    Call call("FT4222_SPIMaster_SingleRead");
    call.args({ bufferSize, isEndTransaction });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    if (const uint32_t status = call.awaitPicture(handle, nullptr, 0))
        return call.finish4222(status);
    TransferFault fault;
    if (call.transferFault(&fault, true)) {
        if (fault.stuck)
            return call.finish4222(FT4222_FAILED_TO_READ_DEVICE);
        bufferSize = std::min(bufferSize, fault.bytes);
    }
    uint32_t status = call.port().singleRead(buffer, bufferSize, sizeOfRead, isEndTransaction != 0);
    status = call.afterTransfer(status);
    if (status == FT4222_OK) {
        call.read(buffer, bufferSize);
        call.addWireTime(bufferSize, 0);
    }
    return call.finish4222(status);
}

FT4222_STATUS FT4222_SPIMaster_SingleWrite(
    FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPIMaster_SingleWrite(
            handle, buffer, bufferSize, sizeTransferred, isEndTransaction);
    Call call("FT4222_SPIMaster_SingleWrite");
    call.args({ bufferSize, isEndTransaction });
    call.written(buffer, bufferSize);
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    TransferFault fault;
    if (call.transferFault(&fault, false)) {
        if (fault.stuck)
            return call.finish4222(FT_FAILED_TO_WRITE_DEVICE);
        bufferSize = std::min(bufferSize, fault.bytes);
    }
    uint32_t status = call.port().singleWrite(buffer, bufferSize, sizeTransferred, isEndTransaction != 0);
    status = call.afterTransfer(status);
    if (status == FT4222_OK)
        call.addWireTime(bufferSize, 0);
    return call.finish4222(status);
}

FT4222_STATUS FT4222_SPIMaster_SingleReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
    uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPIMaster_SingleReadWrite(
            handle, readBuffer, writeBuffer, bufferSize, sizeTransferred, isEndTransaction);
    Call call("FT4222_SPIMaster_SingleReadWrite");
    call.args({ bufferSize, isEndTransaction });
    call.written(writeBuffer, bufferSize);
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    if (const uint32_t status = call.awaitPicture(handle, writeBuffer, bufferSize))
        return call.finish4222(status);
    TransferFault fault;
    if (call.transferFault(&fault, true)) {
        if (fault.stuck)
            return call.finish4222(FT4222_FAILED_TO_READ_DEVICE);
        bufferSize = std::min(bufferSize, fault.bytes);
    }
    uint32_t status = call.port().singleReadWrite(
        readBuffer, writeBuffer, bufferSize, sizeTransferred, isEndTransaction != 0);
    status = call.afterTransfer(status);
    if (status == FT4222_OK) {
        call.read(readBuffer, bufferSize);
        call.addWireTime(bufferSize, 0);
    }
    return call.finish4222(status);
}

FT4222_STATUS FT4222_SPIMaster_MultiReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
    uint8 singleWriteBytes, uint16 multiWriteBytes, uint16 multiReadBytes, uint32* sizeOfRead)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPIMaster_MultiReadWrite(
            handle, readBuffer, writeBuffer, singleWriteBytes, multiWriteBytes, multiReadBytes, sizeOfRead);
    Call call("FT4222_SPIMaster_MultiReadWrite");
    call.args({ singleWriteBytes, multiWriteBytes, multiReadBytes });
    call.written(writeBuffer, static_cast<size_t>(singleWriteBytes) + multiWriteBytes);
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    if (const uint32_t status = call.awaitPicture(handle, writeBuffer, singleWriteBytes))
        return call.finish4222(status);
    TransferFault fault;
    if (call.transferFault(&fault, multiReadBytes > 0)) {
        if (fault.stuck)
            return call.finish4222(multiReadBytes > 0 ? FT4222_FAILED_TO_READ_DEVICE
                                                      : static_cast<FT4222_STATUS>(FT_FAILED_TO_WRITE_DEVICE));
        // A short read: the device's answer stops early.
        multiReadBytes = std::min(multiReadBytes, fault.bytes);
    }
    uint32_t status = call.port().multiReadWrite(
        readBuffer, writeBuffer, singleWriteBytes, multiWriteBytes, multiReadBytes, sizeOfRead);
    status = call.afterTransfer(status);
    if (status == FT4222_OK) {
        call.read(readBuffer, multiReadBytes);
        call.addWireTime(singleWriteBytes, static_cast<size_t>(multiWriteBytes) + multiReadBytes);
    }
    return call.finish4222(status);
}

FT4222_STATUS FT4222_SPI_Reset(FT_HANDLE handle)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPI_Reset(handle);
    Call call("FT4222_SPI_Reset");
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().spiReset());
}

FT4222_STATUS FT4222_SPI_ResetTransaction(FT_HANDLE handle, uint8 spiIdx)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPI_ResetTransaction(handle, spiIdx);
    Call call("FT4222_SPI_ResetTransaction");
    call.args({ spiIdx });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().spiResetTransaction(spiIdx));
}

FT4222_STATUS FT4222_SPI_SetDrivingStrength(FT_HANDLE handle, SPI_DrivingStrength clkStrength,
    SPI_DrivingStrength ioStrength, SPI_DrivingStrength ssoStrength)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_SPI_SetDrivingStrength(handle, clkStrength, ioStrength, ssoStrength);
    Call call("FT4222_SPI_SetDrivingStrength");
    call.args({ asInt(clkStrength), asInt(ioStrength), asInt(ssoStrength) });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(
        call.port().setDrivingStrength(asInt(clkStrength), asInt(ioStrength), asInt(ssoStrength)));
}

FT4222_STATUS FT4222_GPIO_Init(FT_HANDLE handle, GPIO_Dir gpioDir[4])
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_GPIO_Init(handle, gpioDir);
    Call call("FT4222_GPIO_Init");
    int directions[4] = {};
    if (gpioDir) {
        std::memcpy(directions, gpioDir, sizeof directions);
        call.args({ directions[0], directions[1], directions[2], directions[3] });
    }
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().gpioInit(gpioDir ? directions : nullptr));
}

FT4222_STATUS FT4222_GPIO_Read(FT_HANDLE handle, GPIO_Port portNum, BOOL* value)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_GPIO_Read(handle, portNum, value);
    Call call("FT4222_GPIO_Read");
    call.args({ asInt(portNum) });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    const FT4222_STATUS status = call.port().gpioRead(asInt(portNum), value);
    if (status == FT4222_OK)
        call.addArg(*value);
    return call.finish4222(status);
}

FT4222_STATUS FT4222_GPIO_Write(FT_HANDLE handle, GPIO_Port portNum, BOOL bValue)
{
    if (Replay* replay = activeReplay())
        return replay->FT4222_GPIO_Write(handle, portNum, bValue);
    Call call("FT4222_GPIO_Write");
    call.args({ asInt(portNum), bValue });
    if (const uint32_t status = call.check(handle, Api::LibFt4222))
        return call.finish4222(status);
    return call.finish4222(call.port().gpioWrite(asInt(portNum), bValue));
}

} // extern "C"
#pragma GCC visibility pop
