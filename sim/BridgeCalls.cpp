// The D2XX and LibFT4222 C functions, answered from the virtual machine with
// the vendor library's checks. Every call is traced and can be made to fail.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

#include "sim/BridgeState.h"

using namespace vbridge;

namespace {

constexpr uint32_t kSeriesId = 0x1CE60003;
constexpr size_t kMaxTransfer = 65535;
constexpr size_t kMaxSingleBytesInMulti = 15;
constexpr char kLetters[] = "ABCD";

// One traced call: finds its device, applies the faults, records itself.
class Call {
public:
    Call(Machine& m, const char* function)
        : m_(m)
        , lock_(m.mutex)
    {
        ensureInitialised(m_);
        entry_.function = function;
        number_ = ++m_.calls;
        const auto unplug = m_.unplugAtCall.find(number_);
        if (unplug != m_.unplugAtCall.end()) {
            unplugSensor(m_, unplug->second);
            m_.unplugAtCall.erase(unplug);
        }
    }

    ~Call()
    {
        if (!m_.traceEnabled)
            return;
        entry_.seq = number_;
        if (entry_.written.size() > m_.traceDataLimit)
            entry_.written.resize(m_.traceDataLimit);
        if (entry_.read.size() > m_.traceDataLimit)
            entry_.read.resize(m_.traceDataLimit);
        m_.trace.push_back(std::move(entry_));
    }

    // The injected failure of this call, or 0.
    uint32_t fault()
    {
        const auto byNumber = m_.callNumberFaults.find(number_);
        if (byNumber != m_.callNumberFaults.end()) {
            const uint32_t status = byNumber->second;
            m_.callNumberFaults.erase(byNumber);
            return status;
        }
        uint32_t status = 0;
        for (auto it = m_.callFaults.begin(); it != m_.callFaults.end();) {
            if (it->function == entry_.function && --it->remaining == 0) {
                status = it->status;
                it = m_.callFaults.erase(it);
                continue;
            }
            ++it;
        }
        return status;
    }

    uint32_t finish(uint32_t status)
    {
        entry_.status = status;
        return status;
    }

    void args(std::initializer_list<int64_t> values) { entry_.args.assign(values); }
    void text(const std::string& value) { entry_.text = value; }
    void device(const std::string& serial, char port)
    {
        entry_.device = serial;
        entry_.port = port;
    }
    void written(const uint8_t* bytes, size_t count)
    {
        if (bytes && m_.traceEnabled)
            entry_.written.insert(entry_.written.end(), bytes, bytes + std::min(count, m_.traceDataLimit));
    }
    void read(const uint8_t* bytes, size_t count)
    {
        if (bytes && m_.traceEnabled)
            entry_.read.insert(entry_.read.end(), bytes, bytes + std::min(count, m_.traceDataLimit));
    }

    // Resolves a handle. Returns 0 and sets sensor/port, or the failure.
    uint32_t resolve(FT_HANDLE handle, bool libft4222)
    {
        const auto it = m_.handles.find(reinterpret_cast<uintptr_t>(handle));
        if (!handle || it == m_.handles.end() || it->second.closed)
            return FT_INVALID_HANDLE;
        record_ = &it->second;
        if (record_->sensor < 0) {
            const Foreign& device = m_.foreign[record_->port];
            entry_.device = device.device.serial;
            return libft4222 ? static_cast<uint32_t>(FT4222_DEVICE_NOT_SUPPORTED) : static_cast<uint32_t>(FT_OK);
        }
        sensor_ = m_.sensors[record_->sensor].get();
        entry_.device = interfaceSerialOf(*sensor_, record_->port);
        entry_.port = kLetters[record_->port];
        if (!sensor_->plugged || record_->generation != sensor_->generation)
            return libft4222 ? static_cast<uint32_t>(FT4222_DEVICE_NOT_FOUND) : static_cast<uint32_t>(FT_IO_ERROR);
        return FT_OK;
    }

    HandleRecord* record() { return record_; }
    Sensor* sensor() { return sensor_; }
    PortState& port() { return sensor_->ports[record_->port]; }
    int portIndex() const { return record_->port; }
    Machine& machine() { return m_; }

    // Wire time of a transfer when link timing is on, slept after the lock.
    void wire(size_t singleBytes, size_t multiBytes, Lines multiLines)
    {
        if (!m_.linkTiming || !sensor_)
            return;
        static const double kSystemMHz[] = {60, 24, 48, 80};
        const double clockMHz = kSystemMHz[sensor_->clock & 3] / (1 << std::max<int>(1, port().divider));
        const double bits = singleBytes * 8.0 + multiBytes * 8.0 / static_cast<int>(multiLines);
        // Each USB transaction adds a few hundred microseconds.
        wireUs_ += bits / clockMHz + 250.0;
    }

    double wireUs() const { return wireUs_; }

private:
    Machine& m_;
    std::unique_lock<std::recursive_mutex> lock_;
    TraceEntry entry_;
    uint64_t number_ = 0;
    HandleRecord* record_ = nullptr;
    Sensor* sensor_ = nullptr;
    double wireUs_ = 0;
};

void sleepWire(double microseconds)
{
    if (microseconds > 0)
        std::this_thread::sleep_for(std::chrono::microseconds(static_cast<long long>(microseconds)));
}

SpiDevice* deviceBehind(Sensor& sensor, int port)
{
    switch (port) {
    case 0:
        return sensor.logic.get();
    case 1:
        return &sensor.converter;
    case 2:
        return &sensor.flash;
    default:
        return nullptr;
    }
}

Lines linesOf(FT4222_SPIMode mode)
{
    switch (mode) {
    case SPI_IO_DUAL:
        return Lines::Dual;
    case SPI_IO_QUAD:
        return Lines::Quad;
    default:
        return Lines::Single;
    }
}

// Chip select: asserted at the first transfer of a transaction, released
// when a transfer ends it.
void beginTransfer(Sensor& sensor, int port)
{
    PortState& state = sensor.ports[port];
    if (!state.inTransaction) {
        state.inTransaction = true;
        if (SpiDevice* device = deviceBehind(sensor, port))
            device->select();
    }
}

void endTransfer(Sensor& sensor, int port)
{
    PortState& state = sensor.ports[port];
    if (state.inTransaction) {
        state.inTransaction = false;
        if (SpiDevice* device = deviceBehind(sensor, port))
            device->deselect();
    }
}

void exchange(Sensor& sensor, int port, const uint8_t* out, uint8_t* in, size_t count, Lines lines)
{
    if (SpiDevice* device = deviceBehind(sensor, port)) {
        device->exchange(out, in, count, lines);
    } else if (in) {
        std::fill(in, in + count, 0xFF);
    }
}

uint32_t spiReady(Call& call, bool single)
{
    const PortState& state = call.port();
    if (!state.spiMaster)
        return FT4222_IS_NOT_SPI_MODE;
    if (single && state.lines != SPI_IO_SINGLE)
        return FT4222_IS_NOT_SPI_SINGLE_MODE;
    if (!single && state.lines != SPI_IO_DUAL && state.lines != SPI_IO_QUAD)
        return FT4222_IS_NOT_SPI_MULTI_MODE;
    return FT4222_OK;
}

void copyText(char* target, const std::string& text, size_t size)
{
    std::memset(target, 0, size);
    std::memcpy(target, text.data(), std::min(text.size(), size - 1));
}

}  // namespace

extern "C" {

FT_STATUS WINAPI FT_CreateDeviceInfoList(DWORD* numDevs)
{
    Call call(machine(), "FT_CreateDeviceInfoList");
    if (const uint32_t fault = call.fault())
        return call.finish(fault);
    if (!numDevs)
        return call.finish(FT_INVALID_PARAMETER);
    Machine& m = call.machine();
    m.snapshot = listedInterfaces(m);
    *numDevs = static_cast<DWORD>(m.snapshot.size());
    call.args({static_cast<int64_t>(*numDevs)});
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_GetDeviceInfoDetail(DWORD index, DWORD* flags, DWORD* type, DWORD* id, DWORD* locId,
                                        void* serialNumber, void* description, FT_HANDLE* handle)
{
    Call call(machine(), "FT_GetDeviceInfoDetail");
    call.args({index});
    if (const uint32_t fault = call.fault())
        return call.finish(fault);
    Machine& m = call.machine();
    if (index >= m.snapshot.size()
        || std::find(m.failedDetails.begin(), m.failedDetails.end(), static_cast<int>(index)) != m.failedDetails.end())
        return call.finish(FT_DEVICE_NOT_FOUND);
    if (!flags || !type || !id || !locId || !serialNumber || !description || !handle)
        return call.finish(FT_INVALID_PARAMETER);

    const ListEntry entry = m.snapshot[index];
    if (entry.sensor < 0) {
        const Foreign& device = m.foreign[entry.port];
        *flags = FT_FLAGS_HISPEED | (device.open ? FT_FLAGS_OPENED : 0);
        *type = device.device.type;
        *id = device.device.id;
        *locId = device.device.location;
        copyText(static_cast<char*>(serialNumber), device.device.serial, 16);
        copyText(static_cast<char*>(description), device.device.description, 64);
        *handle = device.open ? reinterpret_cast<FT_HANDLE>(device.handle) : nullptr;
        return call.finish(FT_OK);
    }
    const Sensor& sensor = *m.sensors[entry.sensor];
    if (!sensor.plugged)
        return call.finish(FT_DEVICE_NOT_FOUND);
    const PortState& port = sensor.ports[entry.port];
    *flags = FT_FLAGS_HISPEED | (port.open ? FT_FLAGS_OPENED : 0);
    *type = FT_DEVICE_4222H_0;
    *id = kSeriesId;
    *locId = sensor.location + entry.port;
    copyText(static_cast<char*>(serialNumber), interfaceSerialOf(sensor, entry.port), 16);
    copyText(static_cast<char*>(description), interfaceDescriptionOf(entry.port), 64);
    *handle = port.open ? reinterpret_cast<FT_HANDLE>(port.handle) : nullptr;
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_OpenEx(void* arg, DWORD flags, FT_HANDLE* handle)
{
    Call call(machine(), "FT_OpenEx");
    std::string key;
    if (flags == FT_OPEN_BY_LOCATION) {
        call.args({static_cast<int64_t>(reinterpret_cast<uintptr_t>(arg)), flags});
    } else {
        if (arg)
            key = static_cast<const char*>(arg);
        call.text(key);
        call.args({flags});
    }
    if (const uint32_t fault = call.fault())
        return call.finish(fault);
    if (!handle || (!arg && flags != FT_OPEN_BY_LOCATION))
        return call.finish(FT_INVALID_PARAMETER);
    if (flags != FT_OPEN_BY_LOCATION && flags != FT_OPEN_BY_SERIAL_NUMBER && flags != FT_OPEN_BY_DESCRIPTION)
        return call.finish(FT_INVALID_PARAMETER);

    Machine& m = call.machine();
    for (const ListEntry& entry : listedInterfaces(m)) {
        bool match = false;
        if (entry.sensor >= 0) {
            const Sensor& sensor = *m.sensors[entry.sensor];
            if (flags == FT_OPEN_BY_LOCATION)
                match = sensor.location + entry.port == static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
            else if (flags == FT_OPEN_BY_SERIAL_NUMBER)
                match = interfaceSerialOf(sensor, entry.port) == key;
            else
                match = interfaceDescriptionOf(entry.port) == key;
        } else {
            const ForeignDevice& device = m.foreign[entry.port].device;
            if (flags == FT_OPEN_BY_LOCATION)
                match = device.location == static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
            else if (flags == FT_OPEN_BY_SERIAL_NUMBER)
                match = device.serial == key;
            else
                match = device.description == key;
        }
        if (!match)
            continue;

        const uintptr_t value = m.nextHandle;
        m.nextHandle += 0x10;
        if (entry.sensor >= 0) {
            Sensor& sensor = *m.sensors[entry.sensor];
            PortState& port = sensor.ports[entry.port];
            if (port.open)
                return call.finish(FT_DEVICE_NOT_OPENED);
            port = PortState();
            port.open = true;
            port.handle = value;
            m.handles[value] = HandleRecord{entry.sensor, entry.port, sensor.generation, false};
            call.device(interfaceSerialOf(sensor, entry.port), kLetters[entry.port]);
        } else {
            Foreign& device = m.foreign[entry.port];
            if (device.open)
                return call.finish(FT_DEVICE_NOT_OPENED);
            device.open = true;
            device.handle = value;
            m.handles[value] = HandleRecord{-1, entry.port, 0, false};
            call.device(device.device.serial, 0);
        }
        *handle = reinterpret_cast<FT_HANDLE>(value);
        return call.finish(FT_OK);
    }
    return call.finish(FT_DEVICE_NOT_FOUND);
}

FT_STATUS WINAPI FT_SetTimeouts(FT_HANDLE handle, ULONG readTimeoutMs, ULONG writeTimeoutMs)
{
    Call call(machine(), "FT_SetTimeouts");
    call.args({readTimeoutMs, writeTimeoutMs});
    if (const uint32_t fault = call.fault())
        return call.finish(fault);
    if (const uint32_t status = call.resolve(handle, false))
        return call.finish(status);
    if (call.sensor()) {
        call.port().readTimeout = readTimeoutMs;
        call.port().writeTimeout = writeTimeoutMs;
    }
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_Purge(FT_HANDLE handle, ULONG mask)
{
    Call call(machine(), "FT_Purge");
    call.args({mask});
    if (const uint32_t fault = call.fault())
        return call.finish(fault);
    if (const uint32_t status = call.resolve(handle, false))
        return call.finish(status);
    if (mask == 0 || (mask & ~ULONG(FT_PURGE_RX | FT_PURGE_TX)))
        return call.finish(FT_INVALID_PARAMETER);
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_ResetDevice(FT_HANDLE handle)
{
    Call call(machine(), "FT_ResetDevice");
    if (const uint32_t fault = call.fault())
        return call.finish(fault);
    if (const uint32_t status = call.resolve(handle, false))
        return call.finish(status);
    return call.finish(FT_OK);
}

FT_STATUS WINAPI FT_Close(FT_HANDLE handle)
{
    Call call(machine(), "FT_Close");
    if (const uint32_t fault = call.fault())
        return call.finish(fault);
    const uint32_t status = call.resolve(handle, false);
    if (status == FT_INVALID_HANDLE)
        return call.finish(status);
    // A handle is given back even when its device has gone.
    HandleRecord* record = call.record();
    record->closed = true;
    Machine& m = call.machine();
    if (record->sensor < 0) {
        m.foreign[record->port].open = false;
    } else if (status == FT_OK) {
        Sensor& sensor = *call.sensor();
        endTransfer(sensor, record->port);
        sensor.ports[record->port] = PortState();
        if (record->port == 2 && sensor.flash.dirty && !sensor.flashImage.empty())
            saveFlashImage(sensor, nullptr);
    }
    return call.finish(FT_OK);
}

FT4222_STATUS FT4222_UnInitialize(FT_HANDLE handle)
{
    Call call(machine(), "FT4222_UnInitialize");
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    PortState& port = call.port();
    endTransfer(*call.sensor(), call.portIndex());
    const bool open = port.open;
    const uintptr_t value = port.handle;
    port = PortState();
    port.open = open;
    port.handle = value;
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_SetClock(FT_HANDLE handle, FT4222_ClockRate clk)
{
    Call call(machine(), "FT4222_SetClock");
    call.args({clk});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (clk < SYS_CLK_60 || clk > SYS_CLK_80)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
    call.sensor()->clock = clk;
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_GetClock(FT_HANDLE handle, FT4222_ClockRate* clk)
{
    Call call(machine(), "FT4222_GetClock");
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (!clk)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_POINTER));
    *clk = call.sensor()->clock;
    call.args({*clk});
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_SetSuspendOut(FT_HANDLE handle, BOOL enable)
{
    Call call(machine(), "FT4222_SetSuspendOut");
    call.args({enable});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    call.sensor()->suspendOut = enable != 0;
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_SetWakeUpInterrupt(FT_HANDLE handle, BOOL enable)
{
    Call call(machine(), "FT4222_SetWakeUpInterrupt");
    call.args({enable});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    call.sensor()->wakeUpInterrupt = enable != 0;
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_SPIMaster_Init(FT_HANDLE handle, FT4222_SPIMode ioLine, FT4222_SPIClock clock,
                                    FT4222_SPICPOL cpol, FT4222_SPICPHA cpha, uint8 ssoMap)
{
    Call call(machine(), "FT4222_SPIMaster_Init");
    call.args({ioLine, clock, cpol, cpha, ssoMap});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if ((ioLine != SPI_IO_SINGLE && ioLine != SPI_IO_DUAL && ioLine != SPI_IO_QUAD) || clock < CLK_DIV_2
        || clock > CLK_DIV_512 || (cpol != CLK_IDLE_LOW && cpol != CLK_IDLE_HIGH)
        || (cpha != CLK_LEADING && cpha != CLK_TRAILING) || ssoMap == 0 || ssoMap > 0x0F)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
    endTransfer(*call.sensor(), call.portIndex());
    PortState& port = call.port();
    port.spiMaster = true;
    port.gpio = false;
    port.lines = ioLine;
    port.divider = clock;
    port.cpol = cpol;
    port.cpha = cpha;
    port.ssoMap = ssoMap;
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_SPIMaster_SetLines(FT_HANDLE handle, FT4222_SPIMode spiMode)
{
    Call call(machine(), "FT4222_SPIMaster_SetLines");
    call.args({spiMode});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (!call.port().spiMaster)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_IS_NOT_SPI_MODE));
    if (spiMode != SPI_IO_SINGLE && spiMode != SPI_IO_DUAL && spiMode != SPI_IO_QUAD)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
    call.port().lines = spiMode;
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_SPIMaster_SingleRead(FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeOfRead,
                                          BOOL isEndTransaction)
{
    double wireUs = 0;
    FT4222_STATUS result;
    {
        Call call(machine(), "FT4222_SPIMaster_SingleRead");
        call.args({bufferSize, isEndTransaction});
        if (const uint32_t fault = call.fault())
            return static_cast<FT4222_STATUS>(call.finish(fault));
        if (const uint32_t status = call.resolve(handle, true))
            return static_cast<FT4222_STATUS>(call.finish(status));
        if (const uint32_t status = spiReady(call, true))
            return static_cast<FT4222_STATUS>(call.finish(status));
        if (!buffer || !sizeOfRead)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_POINTER));
        if (bufferSize == 0)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
        Sensor& sensor = *call.sensor();
        beginTransfer(sensor, call.portIndex());
        exchange(sensor, call.portIndex(), nullptr, buffer, bufferSize, Lines::Single);
        if (isEndTransaction)
            endTransfer(sensor, call.portIndex());
        if (!sensor.plugged)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_DEVICE_NOT_FOUND));
        *sizeOfRead = bufferSize;
        call.read(buffer, bufferSize);
        call.wire(bufferSize, 0, Lines::Single);
        wireUs = call.wireUs();
        result = static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
    }
    sleepWire(wireUs);
    return result;
}

FT4222_STATUS FT4222_SPIMaster_SingleWrite(FT_HANDLE handle, uint8* buffer, uint16 bufferSize,
                                           uint16* sizeTransferred, BOOL isEndTransaction)
{
    double wireUs = 0;
    FT4222_STATUS result;
    {
        Call call(machine(), "FT4222_SPIMaster_SingleWrite");
        call.args({bufferSize, isEndTransaction});
        call.written(buffer, bufferSize);
        if (const uint32_t fault = call.fault())
            return static_cast<FT4222_STATUS>(call.finish(fault));
        if (const uint32_t status = call.resolve(handle, true))
            return static_cast<FT4222_STATUS>(call.finish(status));
        if (const uint32_t status = spiReady(call, true))
            return static_cast<FT4222_STATUS>(call.finish(status));
        if (!buffer || !sizeTransferred)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_POINTER));
        if (bufferSize == 0)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
        Sensor& sensor = *call.sensor();
        beginTransfer(sensor, call.portIndex());
        exchange(sensor, call.portIndex(), buffer, nullptr, bufferSize, Lines::Single);
        if (isEndTransaction)
            endTransfer(sensor, call.portIndex());
        if (!sensor.plugged)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_DEVICE_NOT_FOUND));
        *sizeTransferred = bufferSize;
        call.wire(bufferSize, 0, Lines::Single);
        wireUs = call.wireUs();
        result = static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
    }
    sleepWire(wireUs);
    return result;
}

FT4222_STATUS FT4222_SPIMaster_SingleReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
                                               uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction)
{
    double wireUs = 0;
    FT4222_STATUS result;
    {
        Call call(machine(), "FT4222_SPIMaster_SingleReadWrite");
        call.args({bufferSize, isEndTransaction});
        call.written(writeBuffer, bufferSize);
        if (const uint32_t fault = call.fault())
            return static_cast<FT4222_STATUS>(call.finish(fault));
        if (const uint32_t status = call.resolve(handle, true))
            return static_cast<FT4222_STATUS>(call.finish(status));
        if (const uint32_t status = spiReady(call, true))
            return static_cast<FT4222_STATUS>(call.finish(status));
        if (!readBuffer || !writeBuffer || !sizeTransferred)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_POINTER));
        if (bufferSize == 0)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
        Sensor& sensor = *call.sensor();
        beginTransfer(sensor, call.portIndex());
        exchange(sensor, call.portIndex(), writeBuffer, readBuffer, bufferSize, Lines::Single);
        if (isEndTransaction)
            endTransfer(sensor, call.portIndex());
        if (!sensor.plugged)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_DEVICE_NOT_FOUND));
        *sizeTransferred = bufferSize;
        call.read(readBuffer, bufferSize);
        call.wire(bufferSize, 0, Lines::Single);
        wireUs = call.wireUs();
        result = static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
    }
    sleepWire(wireUs);
    return result;
}

FT4222_STATUS FT4222_SPIMaster_MultiReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
                                              uint8 singleWriteBytes, uint16 multiWriteBytes,
                                              uint16 multiReadBytes, uint32* sizeOfRead)
{
    double wireUs = 0;
    FT4222_STATUS result;
    {
        Call call(machine(), "FT4222_SPIMaster_MultiReadWrite");
        call.args({singleWriteBytes, multiWriteBytes, multiReadBytes});
        call.written(writeBuffer, static_cast<size_t>(singleWriteBytes) + multiWriteBytes);
        if (const uint32_t fault = call.fault())
            return static_cast<FT4222_STATUS>(call.finish(fault));
        if (const uint32_t status = call.resolve(handle, true))
            return static_cast<FT4222_STATUS>(call.finish(status));
        if (const uint32_t status = spiReady(call, false))
            return static_cast<FT4222_STATUS>(call.finish(status));
        if (singleWriteBytes > kMaxSingleBytesInMulti)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_EXCEEDED_MAX_TRANSFER_SIZE));
        if ((!writeBuffer && singleWriteBytes + multiWriteBytes > 0) || (!readBuffer && multiReadBytes > 0)
            || !sizeOfRead)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_POINTER));
        Sensor& sensor = *call.sensor();
        const int port = call.portIndex();
        const Lines lines = linesOf(call.port().lines);
        beginTransfer(sensor, port);
        if (singleWriteBytes)
            exchange(sensor, port, writeBuffer, nullptr, singleWriteBytes, Lines::Single);
        if (multiWriteBytes && sensor.plugged)
            exchange(sensor, port, writeBuffer + singleWriteBytes, nullptr, multiWriteBytes, lines);
        if (multiReadBytes && sensor.plugged)
            exchange(sensor, port, nullptr, readBuffer, multiReadBytes, lines);
        endTransfer(sensor, port);
        if (!sensor.plugged)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_DEVICE_NOT_FOUND));
        *sizeOfRead = multiReadBytes;
        call.read(readBuffer, multiReadBytes);
        call.wire(singleWriteBytes, static_cast<size_t>(multiWriteBytes) + multiReadBytes, lines);
        wireUs = call.wireUs();
        result = static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
    }
    sleepWire(wireUs);
    return result;
}

FT4222_STATUS FT4222_SPI_Reset(FT_HANDLE handle)
{
    Call call(machine(), "FT4222_SPI_Reset");
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (!call.port().spiMaster)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_IS_NOT_SPI_MODE));
    endTransfer(*call.sensor(), call.portIndex());
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_SPI_ResetTransaction(FT_HANDLE handle, uint8 spiIdx)
{
    Call call(machine(), "FT4222_SPI_ResetTransaction");
    call.args({spiIdx});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (!call.port().spiMaster)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_IS_NOT_SPI_MODE));
    if (spiIdx > 3)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
    endTransfer(*call.sensor(), call.portIndex());
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_SPI_SetDrivingStrength(FT_HANDLE handle, SPI_DrivingStrength clkStrength,
                                            SPI_DrivingStrength ioStrength, SPI_DrivingStrength ssoStrength)
{
    Call call(machine(), "FT4222_SPI_SetDrivingStrength");
    call.args({clkStrength, ioStrength, ssoStrength});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (!call.port().spiMaster)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_IS_NOT_SPI_MODE));
    for (SPI_DrivingStrength strength : {clkStrength, ioStrength, ssoStrength})
        if (strength < DS_4MA || strength > DS_16MA)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_GPIO_Init(FT_HANDLE handle, GPIO_Dir gpioDir[4])
{
    Call call(machine(), "FT4222_GPIO_Init");
    if (gpioDir)
        call.args({gpioDir[0], gpioDir[1], gpioDir[2], gpioDir[3]});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (!gpioDir)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_POINTER));
    PortState& port = call.port();
    if (port.spiMaster)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE));
    for (int i = 0; i < 4; ++i) {
        if (gpioDir[i] != GPIO_OUTPUT && gpioDir[i] != GPIO_INPUT)
            return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_PARAMETER));
        port.directions[i] = gpioDir[i];
    }
    port.gpio = true;
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

namespace {

// GPIO 2 and 3 double as the suspend output and the wake-up input.
uint32_t gpioUsable(Call& call, GPIO_Port line)
{
    if (!call.port().gpio)
        return FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE;
    if (line < GPIO_PORT0 || line > GPIO_PORT3)
        return FT4222_GPIO_EXCEEDED_MAX_PORTNUM;
    if (line == GPIO_PORT2 && call.sensor()->suspendOut)
        return FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE;
    if (line == GPIO_PORT3 && call.sensor()->wakeUpInterrupt)
        return FT4222_GPIO_NOT_SUPPORTED_IN_THIS_MODE;
    return FT4222_OK;
}

}  // namespace

FT4222_STATUS FT4222_GPIO_Read(FT_HANDLE handle, GPIO_Port portNum, BOOL* value)
{
    Call call(machine(), "FT4222_GPIO_Read");
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (const uint32_t status = gpioUsable(call, portNum))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (!value)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_INVALID_POINTER));
    Sensor& sensor = *call.sensor();
    // GPIO 3 is pulled low inside a generator; outputs read back their latch.
    if (call.port().directions[portNum] == GPIO_OUTPUT && portNum < GPIO_PORT3)
        *value = sensor.gpioOut[portNum] ? 1 : 0;
    else if (portNum == GPIO_PORT3 && call.portIndex() == 3)
        *value = sensor.config.inside ? 0 : 1;
    else
        *value = 1;
    call.args({portNum, *value});
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

FT4222_STATUS FT4222_GPIO_Write(FT_HANDLE handle, GPIO_Port portNum, BOOL bValue)
{
    Call call(machine(), "FT4222_GPIO_Write");
    call.args({portNum, bValue});
    if (const uint32_t fault = call.fault())
        return static_cast<FT4222_STATUS>(call.finish(fault));
    if (const uint32_t status = call.resolve(handle, true))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (const uint32_t status = gpioUsable(call, portNum))
        return static_cast<FT4222_STATUS>(call.finish(status));
    if (call.port().directions[portNum] != GPIO_OUTPUT || portNum == GPIO_PORT3)
        return static_cast<FT4222_STATUS>(call.finish(FT4222_GPIO_WRITE_NOT_SUPPORTED));
    Sensor& sensor = *call.sensor();
    const bool level = bValue != 0;
    // GPIO 2 of port D drives the FPGA's PROGRAMN: a low level resets its
    // configuration logic.
    if (call.portIndex() == 3 && portNum == GPIO_PORT2 && !level && sensor.gpioOut[2])
        sensor.logic->configurationReset();
    sensor.gpioOut[portNum] = level;
    return static_cast<FT4222_STATUS>(call.finish(FT4222_OK));
}

}  // extern "C"
