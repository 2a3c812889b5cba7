#include "sim/Replay.h"
#include "sim/VirtualBridge.h"

#include <QByteArray>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "sim/Bridge.h"

namespace vbridge {

namespace {

std::mutex replayMutex; // guards the replay in force and its divergence
std::unique_ptr<Replay> current;
std::vector<std::unique_ptr<Replay>> retired;
std::atomic<Replay*> active { nullptr };
std::string lastDivergence;
std::atomic<bool> reportOnStderr { true };

std::string numbers(const std::vector<int64_t>& values)
{
    return "[" + ktrace::numberList(values) + "]";
}

} // namespace

std::string callDifference(const ktrace::TraceCall& recorded, const ktrace::TraceCall& came)
{
    if (recorded.function != came.function)
        return "another function";
    if (recorded.handle != came.handle)
        return "another handle (" + ktrace::handleText(came.handle) + " where " + ktrace::handleText(recorded.handle)
            + " was recorded)";
    if (recorded.hasText != came.hasText || recorded.text != came.text)
        return "another text (\"" + ktrace::escapeText(came.text) + "\" where \""
            + ktrace::escapeText(recorded.text) + "\" was recorded)";
    if (recorded.args != came.args)
        return "other arguments (" + numbers(came.args) + " where " + numbers(recorded.args)
            + " was recorded)";
    if (recorded.written != came.written) {
        size_t at = 0;
        while (at < recorded.written.size() && at < came.written.size()
            && recorded.written[at] == came.written[at])
            ++at;
        return "other bytes written (from byte " + std::to_string(at) + " on)";
    }
    return std::string();
}

std::string divergenceText(uint64_t index, const ktrace::TraceCall* recorded, const ktrace::TraceCall& came,
    const ktrace::Trace& trace)
{
    std::string text = "replay diverges at call " + std::to_string(index) + ": ";
    if (!recorded) {
        text += "the recording ends after call " + std::to_string(trace.calls.size())
            + (trace.complete ? "" : " (it was cut short)") + ", and " + ktrace::describeCall(came) + " came";
        return text;
    }
    text += callDifference(*recorded, came) + ": recorded " + ktrace::describeCall(*recorded) + ", came "
        + ktrace::describeCall(came);
    return text;
}

Replay::Replay(ktrace::Trace trace, bool recordedTiming)
    : trace_(std::move(trace))
    , recordedTiming_(recordedTiming)
{
}

const ktrace::TraceCall* Replay::take(ktrace::TraceCall& came)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (diverged_)
        return nullptr;
    const auto port = ports_.find(came.handle);
    if (port != ports_.end())
        came.port = port->second;
    const uint64_t index = next_ + 1;
    const ktrace::TraceCall* recorded = next_ < trace_.calls.size() ? &trace_.calls[next_] : nullptr;
    if (!recorded || !callDifference(*recorded, came).empty()) {
        diverged_ = true;
        const std::string text = divergenceText(index, recorded, came, trace_);
        if (reportOnStderr)
            std::fprintf(stderr, "virtual bridge: %s\n", text.c_str());
        std::lock_guard<std::mutex> replayLock(replayMutex);
        lastDivergence = text;
        return nullptr;
    }
    ++next_;
    if (recorded->outputHandle && recorded->function == "FT_OpenEx" && recorded->port)
        ports_[recorded->outputHandle] = recorded->port;
    if (recordedTiming_) {
        // The calls come when the host makes them; each answer takes as
        // long as it took, and no call is answered before its recorded time.
        if (next_ == 1)
            start_ = std::chrono::steady_clock::now() - std::chrono::microseconds(recorded->timeUs);
        std::this_thread::sleep_until(
            start_ + std::chrono::microseconds(recorded->timeUs + recorded->durationUs));
    }
    return recorded;
}

void Replay::copyRead(const ktrace::TraceCall& recorded, uint8_t* buffer, size_t size)
{
    if (buffer && !recorded.read.empty())
        std::memcpy(buffer, recorded.read.data(), std::min(size, recorded.read.size()));
}

namespace {

ktrace::TraceCall callOf(const char* function, FT_HANDLE handle, std::initializer_list<int64_t> args)
{
    ktrace::TraceCall call;
    call.function = function;
    call.handle = reinterpret_cast<uintptr_t>(handle);
    call.args.assign(args);
    return call;
}

template <typename Enum> int64_t asInt(const Enum& value)
{
    int raw = 0;
    std::memcpy(&raw, &value, sizeof raw);
    return raw;
}

int64_t output(const ktrace::TraceCall& recorded, size_t index)
{
    return index < recorded.outputs.size() ? recorded.outputs[index] : 0;
}

void copyText(void* target, const ktrace::TraceCall& recorded, size_t index, size_t size)
{
    char* bytes = static_cast<char*>(target);
    std::memset(bytes, 0, size);
    if (index < recorded.outputTexts.size())
        std::memcpy(bytes, recorded.outputTexts[index].data(),
            std::min(recorded.outputTexts[index].size(), size - 1));
}

} // namespace

FT_STATUS Replay::FT_CreateDeviceInfoList(DWORD* numDevs)
{
    ktrace::TraceCall came = callOf("FT_CreateDeviceInfoList", nullptr, {});
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return kDivergedStatus;
    if (numDevs && !recorded->outputs.empty())
        *numDevs = static_cast<DWORD>(output(*recorded, 0));
    return static_cast<FT_STATUS>(recorded->status);
}

FT_STATUS Replay::FT_GetDeviceInfoDetail(DWORD index, DWORD* flags, DWORD* type, DWORD* id, DWORD* locId,
    void* serialNumber, void* description, FT_HANDLE* handle)
{
    ktrace::TraceCall came = callOf("FT_GetDeviceInfoDetail", nullptr, { index });
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return kDivergedStatus;
    if (recorded->status == FT_OK && recorded->outputs.size() == 4 && flags && type && id && locId
        && serialNumber && description && handle) {
        *flags = static_cast<DWORD>(output(*recorded, 0));
        *type = static_cast<DWORD>(output(*recorded, 1));
        *id = static_cast<DWORD>(output(*recorded, 2));
        *locId = static_cast<DWORD>(output(*recorded, 3));
        copyText(serialNumber, *recorded, 0, 16);
        copyText(description, *recorded, 1, 64);
        *handle = reinterpret_cast<FT_HANDLE>(static_cast<uintptr_t>(recorded->outputHandle));
    }
    return static_cast<FT_STATUS>(recorded->status);
}

FT_STATUS Replay::FT_OpenEx(void* arg, DWORD flags, FT_HANDLE* handle)
{
    ktrace::TraceCall came = callOf("FT_OpenEx", nullptr, {});
    if (flags == FT_OPEN_BY_LOCATION) {
        came.args = { static_cast<int64_t>(reinterpret_cast<uintptr_t>(arg)), flags };
    } else {
        if (arg) {
            came.hasText = true;
            const char* text = static_cast<const char*>(arg);
            came.text.assign(text, strnlen(text, ktrace::kMaxText));
        }
        came.args = { flags };
    }
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return kDivergedStatus;
    if (recorded->status == FT_OK && handle)
        *handle = reinterpret_cast<FT_HANDLE>(static_cast<uintptr_t>(recorded->outputHandle));
    return static_cast<FT_STATUS>(recorded->status);
}

#define REPLAY_SIMPLE(Type, name, parameters, handleName, ...)                                               \
    Type Replay::name parameters                                                                             \
    {                                                                                                        \
        ktrace::TraceCall came = callOf(#name, handleName, { __VA_ARGS__ });                                 \
        const ktrace::TraceCall* recorded = take(came);                                                      \
        return recorded ? static_cast<Type>(recorded->status) : static_cast<Type>(kDivergedStatus);          \
    }

REPLAY_SIMPLE(FT_STATUS, FT_SetTimeouts, (FT_HANDLE handle, ULONG readTimeoutMs, ULONG writeTimeoutMs),
    handle, readTimeoutMs, writeTimeoutMs)
REPLAY_SIMPLE(FT_STATUS, FT_Purge, (FT_HANDLE handle, ULONG mask), handle, mask)
REPLAY_SIMPLE(FT_STATUS, FT_ResetDevice, (FT_HANDLE handle), handle)
REPLAY_SIMPLE(FT_STATUS, FT_Close, (FT_HANDLE handle), handle)
REPLAY_SIMPLE(FT_STATUS, FT_SetVIDPID, (DWORD vid, DWORD pid), nullptr, vid, pid)
REPLAY_SIMPLE(FT4222_STATUS, FT4222_UnInitialize, (FT_HANDLE handle), handle)
REPLAY_SIMPLE(FT4222_STATUS, FT4222_SetClock, (FT_HANDLE handle, FT4222_ClockRate clk), handle, asInt(clk))
REPLAY_SIMPLE(FT4222_STATUS, FT4222_SetSuspendOut, (FT_HANDLE handle, BOOL enable), handle, enable)
REPLAY_SIMPLE(FT4222_STATUS, FT4222_SetWakeUpInterrupt, (FT_HANDLE handle, BOOL enable), handle, enable)
REPLAY_SIMPLE(FT4222_STATUS, FT4222_SPIMaster_Init,
    (FT_HANDLE handle, FT4222_SPIMode ioLine, FT4222_SPIClock clock, FT4222_SPICPOL cpol, FT4222_SPICPHA cpha,
        uint8 ssoMap),
    handle, asInt(ioLine), asInt(clock), asInt(cpol), asInt(cpha), ssoMap)
REPLAY_SIMPLE(FT4222_STATUS, FT4222_SPIMaster_SetLines, (FT_HANDLE handle, FT4222_SPIMode spiMode), handle,
    asInt(spiMode))
REPLAY_SIMPLE(FT4222_STATUS, FT4222_SPI_Reset, (FT_HANDLE handle), handle)
REPLAY_SIMPLE(FT4222_STATUS, FT4222_SPI_ResetTransaction, (FT_HANDLE handle, uint8 spiIdx), handle, spiIdx)
REPLAY_SIMPLE(FT4222_STATUS, FT4222_SPI_SetDrivingStrength,
    (FT_HANDLE handle, SPI_DrivingStrength clkStrength, SPI_DrivingStrength ioStrength,
        SPI_DrivingStrength ssoStrength),
    handle, asInt(clkStrength), asInt(ioStrength), asInt(ssoStrength))
REPLAY_SIMPLE(FT4222_STATUS, FT4222_GPIO_Write, (FT_HANDLE handle, GPIO_Port portNum, BOOL bValue), handle,
    asInt(portNum), bValue)

#undef REPLAY_SIMPLE

FT_STATUS Replay::FT_GetVIDPID(DWORD* vid, DWORD* pid)
{
    ktrace::TraceCall came = callOf("FT_GetVIDPID", nullptr, {});
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return kDivergedStatus;
    if (vid && pid && recorded->outputs.size() == 2) {
        *vid = static_cast<DWORD>(output(*recorded, 0));
        *pid = static_cast<DWORD>(output(*recorded, 1));
    }
    return static_cast<FT_STATUS>(recorded->status);
}

FT4222_STATUS Replay::FT4222_GetClock(FT_HANDLE handle, FT4222_ClockRate* clk)
{
    ktrace::TraceCall came = callOf("FT4222_GetClock", handle, {});
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return static_cast<FT4222_STATUS>(kDivergedStatus);
    if (clk && !recorded->outputs.empty()) {
        const int value = static_cast<int>(output(*recorded, 0));
        std::memcpy(clk, &value, sizeof value);
    }
    return static_cast<FT4222_STATUS>(recorded->status);
}

FT4222_STATUS Replay::FT4222_SPIMaster_SingleRead(
    FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeOfRead, BOOL isEndTransaction)
{
    ktrace::TraceCall came = callOf("FT4222_SPIMaster_SingleRead", handle, { bufferSize, isEndTransaction });
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return static_cast<FT4222_STATUS>(kDivergedStatus);
    if (sizeOfRead && !recorded->outputs.empty())
        *sizeOfRead = static_cast<uint16>(output(*recorded, 0));
    copyRead(*recorded, buffer, bufferSize);
    return static_cast<FT4222_STATUS>(recorded->status);
}

FT4222_STATUS Replay::FT4222_SPIMaster_SingleWrite(
    FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction)
{
    ktrace::TraceCall came = callOf("FT4222_SPIMaster_SingleWrite", handle, { bufferSize, isEndTransaction });
    if (buffer)
        came.written.assign(buffer, buffer + std::min<size_t>(bufferSize, ktrace::kMaxBytes));
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return static_cast<FT4222_STATUS>(kDivergedStatus);
    if (sizeTransferred && !recorded->outputs.empty())
        *sizeTransferred = static_cast<uint16>(output(*recorded, 0));
    return static_cast<FT4222_STATUS>(recorded->status);
}

FT4222_STATUS Replay::FT4222_SPIMaster_SingleReadWrite(FT_HANDLE handle, uint8* readBuffer,
    uint8* writeBuffer, uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction)
{
    ktrace::TraceCall came
        = callOf("FT4222_SPIMaster_SingleReadWrite", handle, { bufferSize, isEndTransaction });
    if (writeBuffer)
        came.written.assign(writeBuffer, writeBuffer + std::min<size_t>(bufferSize, ktrace::kMaxBytes));
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return static_cast<FT4222_STATUS>(kDivergedStatus);
    if (sizeTransferred && !recorded->outputs.empty())
        *sizeTransferred = static_cast<uint16>(output(*recorded, 0));
    copyRead(*recorded, readBuffer, bufferSize);
    return static_cast<FT4222_STATUS>(recorded->status);
}

FT4222_STATUS Replay::FT4222_SPIMaster_MultiReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
    uint8 singleWriteBytes, uint16 multiWriteBytes, uint16 multiReadBytes, uint32* sizeOfRead)
{
    ktrace::TraceCall came = callOf(
        "FT4222_SPIMaster_MultiReadWrite", handle, { singleWriteBytes, multiWriteBytes, multiReadBytes });
    if (writeBuffer)
        came.written.assign(writeBuffer,
            writeBuffer
                + std::min<size_t>(
                    static_cast<size_t>(singleWriteBytes) + multiWriteBytes, ktrace::kMaxBytes));
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return static_cast<FT4222_STATUS>(kDivergedStatus);
    if (sizeOfRead && !recorded->outputs.empty())
        *sizeOfRead = static_cast<uint32>(output(*recorded, 0));
    copyRead(*recorded, readBuffer, multiReadBytes);
    return static_cast<FT4222_STATUS>(recorded->status);
}

FT4222_STATUS Replay::FT4222_GPIO_Init(FT_HANDLE handle, GPIO_Dir gpioDir[4])
{
    ktrace::TraceCall came = callOf("FT4222_GPIO_Init", handle, {});
    if (gpioDir)
        came.args = { asInt(gpioDir[0]), asInt(gpioDir[1]), asInt(gpioDir[2]), asInt(gpioDir[3]) };
    const ktrace::TraceCall* recorded = take(came);
    return recorded ? static_cast<FT4222_STATUS>(recorded->status)
                    : static_cast<FT4222_STATUS>(kDivergedStatus);
}

FT4222_STATUS Replay::FT4222_GPIO_Read(FT_HANDLE handle, GPIO_Port portNum, BOOL* value)
{
    ktrace::TraceCall came = callOf("FT4222_GPIO_Read", handle, { asInt(portNum) });
    const ktrace::TraceCall* recorded = take(came);
    if (!recorded)
        return static_cast<FT4222_STATUS>(kDivergedStatus);
    if (value && !recorded->outputs.empty())
        *value = static_cast<BOOL>(output(*recorded, 0));
    return static_cast<FT4222_STATUS>(recorded->status);
}

Replay* activeReplay()
{
    // The first call of a process reads KORUX_SCENARIO, which may name a
    // replay.
    static std::once_flag configured;
    std::call_once(configured, [] {
        Bridge& bridge = Bridge::instance();
        std::lock_guard<std::recursive_mutex> lock(bridge.mutex);
        bridge.ensureConfigured();
    });
    return active.load(std::memory_order_acquire);
}

int loadReplayScenario(
    const std::string& text, const std::string& name, const std::string& baseDirectory, std::string* error)
{
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(text));
    if (!document.isObject() || !document.object().contains(QStringLiteral("replay")))
        return -1;
    const QJsonObject root = document.object();
    const auto fail = [&](const std::string& reason) {
        if (error)
            *error = "scenario " + name + ": " + reason;
        return 0;
    };
    for (const QString& key : root.keys())
        if (key != QLatin1String("replay") && key != QLatin1String("timing")
            && key != QLatin1String("comment"))
            return fail("unknown key \"" + key.toStdString()
                + "\" beside \"replay\" (known: replay, timing); a replay takes the place of the machine");
    if (!root.value(QStringLiteral("replay")).isString()
        || root.value(QStringLiteral("replay")).toString().isEmpty())
        return fail("\"replay\" must name a trace file");
    bool recordedTiming = false;
    if (root.contains(QStringLiteral("timing"))) {
        const QString timing = root.value(QStringLiteral("timing")).toString();
        if (timing == QLatin1String("recorded"))
            recordedTiming = true;
        else if (timing != QLatin1String("instant"))
            return fail("timing of a replay must be \"recorded\" or \"instant\"");
    }
    QString file = root.value(QStringLiteral("replay")).toString();
    if (QDir::isRelativePath(file) && !baseDirectory.empty())
        file = QDir(QString::fromStdString(baseDirectory)).filePath(file);
    ktrace::Trace trace;
    std::string reason;
    if (!ktrace::readTraceFile(file.toStdString(), &trace, &reason))
        return fail("replay: " + reason);

    Bridge& bridge = Bridge::instance();
    std::lock_guard<std::recursive_mutex> lock(bridge.mutex);
    VirtualBridge::instance().reset(); // no machine behind the trace; ends a replay before
    std::lock_guard<std::mutex> replayLock(replayMutex);
    lastDivergence.clear();
    if (current)
        retired.push_back(std::move(current));
    current = std::make_unique<Replay>(std::move(trace), recordedTiming);
    active.store(current.get(), std::memory_order_release);
    return 1;
}

void stopReplay()
{
    std::lock_guard<std::mutex> lock(replayMutex);
    // Kept, not freed: a call on another thread may still be answering
    // from it. A process loads a handful of scenarios at most.
    if (current) {
        active.store(nullptr, std::memory_order_release);
        retired.push_back(std::move(current));
    }
    lastDivergence.clear();
}

std::string replayDivergence()
{
    std::lock_guard<std::mutex> lock(replayMutex);
    return lastDivergence;
}

} // namespace vbridge

// A host that tells the divergence itself (korux) turns the bridge's own
// line off.
extern "C" VBRIDGE_EXPORT void vbridge_replay_report_on_stderr(int on)
{
    vbridge::reportOnStderr = on != 0;
}

extern "C" VBRIDGE_EXPORT int vbridge_replay_divergence(char* error, unsigned long errorSize)
{
    const std::string text = vbridge::replayDivergence();
    if (text.empty())
        return 0;
    if (error && errorSize) {
        std::strncpy(error, text.c_str(), errorSize - 1);
        error[errorSize - 1] = '\0';
    }
    return 1;
}
