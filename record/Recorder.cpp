// The recording bridge: a library named like the vendor's (libft4222.so)
// that exports the same C functions, loads the real bridge library named by
// KORUX_RECORD_LIBRARY, forwards every call to it unchanged and writes each
// call to the trace KORUX_RECORD_FILE (docs/trace.md).
//
// A host gets it by the library search path alone, as it gets the virtual
// bridge; korux --record sets it up in front of whichever bridge it uses.
#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "record/Trace.h"
#include "transport/BridgeApi.h"

namespace {

#define KREC_FUNCTIONS(X)                                                                                    \
    X(FT_CreateDeviceInfoList)                                                                               \
    X(FT_GetDeviceInfoDetail)                                                                                \
    X(FT_OpenEx)                                                                                             \
    X(FT_SetTimeouts)                                                                                        \
    X(FT_Purge)                                                                                              \
    X(FT_ResetDevice)                                                                                        \
    X(FT_Close)                                                                                              \
    X(FT_SetVIDPID)                                                                                          \
    X(FT_GetVIDPID)                                                                                          \
    X(FT4222_UnInitialize)                                                                                   \
    X(FT4222_SetClock)                                                                                       \
    X(FT4222_GetClock)                                                                                       \
    X(FT4222_SetSuspendOut)                                                                                  \
    X(FT4222_SetWakeUpInterrupt)                                                                             \
    X(FT4222_SPIMaster_Init)                                                                                 \
    X(FT4222_SPIMaster_SetLines)                                                                             \
    X(FT4222_SPIMaster_SingleRead)                                                                           \
    X(FT4222_SPIMaster_SingleWrite)                                                                          \
    X(FT4222_SPIMaster_SingleReadWrite)                                                                      \
    X(FT4222_SPIMaster_MultiReadWrite)                                                                       \
    X(FT4222_SPI_Reset)                                                                                      \
    X(FT4222_SPI_ResetTransaction)                                                                           \
    X(FT4222_SPI_SetDrivingStrength)                                                                         \
    X(FT4222_GPIO_Init)                                                                                      \
    X(FT4222_GPIO_Read)                                                                                      \
    X(FT4222_GPIO_Write)

struct RealBridge {
#define KREC_POINTER(name) decltype(&::name) name = nullptr;
    KREC_FUNCTIONS(KREC_POINTER)
#undef KREC_POINTER
};

using Clock = std::chrono::steady_clock;

int64_t microsecondsSince(Clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

char portOfName(const std::string& name)
{
    const char last = name.empty() ? 0 : name.back();
    return last >= 'A' && last <= 'D' ? last : 0;
}

class Recorder {
public:
    static Recorder& instance()
    {
        static Recorder recorder;
        return recorder;
    }

    ~Recorder()
    {
        std::string error;
        if (!finish(&error))
            std::fprintf(stderr, "korux-record: %s\n", error.c_str());
    }

    bool ready() const { return library_ != nullptr; }
    const std::string& openError() const { return openError_; }
    const RealBridge& real() const { return real_; }
    void* library() const { return library_; }
    Clock::time_point start() const { return start_; }
    std::mutex& mutex() { return mutex_; }

    // Called with the mutex held.
    void write(ktrace::TraceCall& call)
    {
        if (!writer_.isOpen())
            return;
        call.index = writer_.calls() + 1;
        if (mask_)
            maskCall(call);
        writer_.write(call);
        dirty_ = true;
        if (call.function == "FT_Close") {
            writer_.flush();
            dirty_ = false;
        }
    }

    bool finish(std::string* error)
    {
        stopFlusher();
        std::lock_guard<std::mutex> lock(mutex_);
        if (finished_)
            return finishError_.empty() || (*error = finishError_, false);
        finished_ = true;
        if (!writer_.isOpen())
            return true;
        if (!writer_.finish(&finishError_)) {
            *error = finishError_;
            return false;
        }
        return true;
    }

    uint64_t calls() const { return writer_.calls(); }
    const std::string& tracePath() const { return tracePath_; }

    std::map<uint64_t, char> ports; // open handle -> its port
    std::map<uint32_t, std::string> serialAtLocation; // from the last device list

private:
    Recorder()
        : start_(Clock::now())
    {
        const char* library = std::getenv("KORUX_RECORD_LIBRARY");
        const char* file = std::getenv("KORUX_RECORD_FILE");
        const char* mask = std::getenv("KORUX_RECORD_MASK_SERIALS");
        mask_ = mask && *mask && std::string(mask) != "0";
        if (!library || !*library) {
            openError_ = "KORUX_RECORD_LIBRARY does not name the bridge library to record";
            return;
        }
        // Loaded by its path: by its name alone, the loader would hand back
        // this very library, which carries the same name.
        if (!std::strchr(library, '/')) {
            openError_ = std::string("KORUX_RECORD_LIBRARY must be a path, not the name \"") + library + "\"";
            return;
        }
        if (!file || !*file) {
            openError_ = "KORUX_RECORD_FILE does not name the trace to write";
            return;
        }
        tracePath_ = file;
        void* handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            const char* reason = dlerror();
            openError_ = std::string("cannot load ") + library + ": " + (reason ? reason : "unknown error");
            return;
        }
        RealBridge real;
#define KREC_LOOKUP(name) real.name = reinterpret_cast<decltype(&::name)>(dlsym(handle, #name));
        KREC_FUNCTIONS(KREC_LOOKUP)
#undef KREC_LOOKUP
        if (real.FT_OpenEx == &::FT_OpenEx) {
            openError_ = std::string(library) + " is the recording bridge itself, not the one to record";
            return;
        }
        if (!real.FT_OpenEx || !real.FT_CreateDeviceInfoList) {
            openError_ = std::string(library) + " is not an FT4222 bridge library (it has no FT_OpenEx)";
            return;
        }
        std::string error;
        if (!writer_.open(file, &error)) {
            openError_ = error;
            return;
        }
        char started[32] = {};
        const std::time_t now = std::time(nullptr);
        std::tm utc {};
        gmtime_r(&now, &utc);
        std::strftime(started, sizeof started, "%Y-%m-%dT%H:%M:%SZ", &utc);
        writer_.meta("recorder", "korux-record 1");
        writer_.meta("started", started);
        writer_.meta("library", library);
        char program[4096] = {};
        const ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
        if (length > 0)
            writer_.meta("program", std::string(program, static_cast<size_t>(length)));
        writer_.meta("masked", mask_ ? "yes" : "no");
        writer_.flush();
        real_ = real;
        library_ = handle;
        flusher_ = std::thread([this] { flushLoop(); });
    }

    // What was written reaches the file within kFlushInterval, calls or
    // none: a killed host leaves a trace that ends no earlier than that.
    void flushLoop()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stopping_) {
            wake_.wait_for(lock, kFlushInterval);
            if (dirty_ && !finished_) {
                writer_.flush();
                dirty_ = false;
            }
        }
    }

    void stopFlusher()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        if (flusher_.joinable() && flusher_.get_id() != std::this_thread::get_id())
            flusher_.join();
    }

    static constexpr std::chrono::milliseconds kFlushInterval { 200 };

    // The serial numbers of the interfaces stand for the site's sensors: a
    // masked trace gives each one a stand-in of the same length, the port
    // letter kept, the same wherever the serial appears.
    std::string maskSerial(const std::string& serial)
    {
        if (serial.empty())
            return serial;
        const char port = portOfName(serial);
        const std::string base = port ? serial.substr(0, serial.size() - 1) : serial;
        if (base.empty())
            return serial;
        auto it = masks_.find(base);
        if (it == masks_.end()) {
            std::string stand = std::to_string(masks_.size() + 1);
            while (stand.size() + 1 < base.size())
                stand = "0" + stand;
            stand = ("S" + stand).substr(0, std::max<size_t>(base.size(), 1));
            it = masks_.emplace(base, stand).first;
        }
        return it->second + (port ? std::string(1, port) : std::string());
    }

    void maskBytes(std::vector<uint8_t>& bytes)
    {
        for (const auto& [base, stand] : masks_) {
            if (base.size() < 4)
                continue;
            auto at = bytes.begin();
            while ((at = std::search(at, bytes.end(), base.begin(), base.end())) != bytes.end()) {
                std::copy(stand.begin(), stand.end(), at);
                at += static_cast<std::ptrdiff_t>(base.size());
            }
        }
    }

    // The board's serial is its flash's unique ID, read with the SPI NOR
    // command 4Bh on port C: the command byte and four dummy bytes, then
    // the ID. Each ID gets a stand-in of its length; its text in hex is
    // masked wherever it appears later.
    void maskUniqueId(ktrace::TraceCall& call)
    {
        const bool single = call.function == "FT4222_SPIMaster_SingleReadWrite";
        const bool multi = call.function == "FT4222_SPIMaster_MultiReadWrite";
        const size_t offset = single ? 5 : 0;
        if (call.port != 'C' || !(single || multi) || call.written.size() < 5 || call.written[0] != 0x4B
            || call.read.size() <= offset)
            return;
        const std::vector<uint8_t> id(
            call.read.begin() + static_cast<std::ptrdiff_t>(offset), call.read.end());
        auto it = idMasks_.find(id);
        if (it == idMasks_.end()) {
            std::vector<uint8_t> stand(id.size(), 0x5A);
            stand.back() = static_cast<uint8_t>(idMasks_.size() + 1);
            it = idMasks_.emplace(id, stand).first;
            for (const char* digits : { "0123456789ABCDEF", "0123456789abcdef" }) {
                std::string from, to;
                for (size_t i = 0; i < id.size(); ++i) {
                    from += { digits[id[i] >> 4], digits[id[i] & 15] };
                    to += { digits[stand[i] >> 4], digits[stand[i] & 15] };
                }
                masks_.emplace(from, to);
            }
        }
        std::copy(
            it->second.begin(), it->second.end(), call.read.begin() + static_cast<std::ptrdiff_t>(offset));
    }

    void maskCall(ktrace::TraceCall& call)
    {
        maskUniqueId(call);
        if (call.function == "FT_GetDeviceInfoDetail" && !call.outputTexts.empty())
            call.outputTexts[0] = maskSerial(call.outputTexts[0]);
        if (call.function == "FT_OpenEx" && call.hasText && !call.args.empty()
            && call.args.back() == FT_OPEN_BY_SERIAL_NUMBER)
            call.text = maskSerial(call.text);
        maskBytes(call.read);
        maskBytes(call.written);
    }

    std::mutex mutex_;
    Clock::time_point start_;
    void* library_ = nullptr;
    RealBridge real_;
    std::string openError_;
    std::string tracePath_;
    ktrace::TraceWriter writer_;
    bool mask_ = false;
    std::map<std::string, std::string> masks_;
    std::map<std::vector<uint8_t>, std::vector<uint8_t>> idMasks_;
    bool finished_ = false;
    bool dirty_ = false;
    bool stopping_ = false;
    std::condition_variable wake_;
    std::thread flusher_;
    std::string finishError_;
};

// Calls the real library makes into its own functions come here too when
// it resolves them globally: those are forwarded without a trace entry.
thread_local int nesting = 0;

// One forwarded call: its trace entry is written when it ends.
class Call {
public:
    explicit Call(const char* function)
        : recorder_(Recorder::instance())
        , start_(microsecondsSince(recorder_.start()))
        , nested_(nesting++ > 0)
    {
        call_.function = function;
        call_.timeUs = start_;
        if (!recorder_.ready())
            complain();
    }

    ~Call() { --nesting; }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    const RealBridge* real() const { return recorder_.ready() ? &recorder_.real() : nullptr; }

    void handle(FT_HANDLE handle)
    {
        call_.handle = reinterpret_cast<uintptr_t>(handle);
        if (nested_)
            return;
        std::lock_guard<std::mutex> lock(recorder_.mutex());
        const auto it = recorder_.ports.find(call_.handle);
        if (it != recorder_.ports.end())
            call_.port = it->second;
    }
    void args(std::initializer_list<int64_t> values) { call_.args.assign(values); }
    void text(const char* text)
    {
        call_.hasText = true;
        call_.text = text ? std::string(text, strnlen(text, ktrace::kMaxText)) : std::string();
    }
    void written(const uint8_t* bytes, size_t count)
    {
        if (bytes)
            call_.written.assign(bytes, bytes + std::min(count, ktrace::kMaxBytes));
    }
    void read(const uint8_t* bytes, size_t count)
    {
        if (bytes)
            call_.read.assign(bytes, bytes + std::min(count, ktrace::kMaxBytes));
    }
    void outputs(std::initializer_list<int64_t> values) { call_.outputs.assign(values); }
    ktrace::TraceCall& entry() { return call_; }

    template <typename Status> Status finish(Status status)
    {
        if (nested_ || !recorder_.ready())
            return status;
        call_.status = static_cast<int64_t>(status);
        call_.durationUs = microsecondsSince(recorder_.start()) - start_;
        std::lock_guard<std::mutex> lock(recorder_.mutex());
        recorder_.write(call_);
        return status;
    }

private:
    void complain()
    {
        static std::once_flag once;
        std::call_once(
            once, [this] { std::fprintf(stderr, "korux-record: %s\n", recorder_.openError().c_str()); });
    }

    Recorder& recorder_;
    int64_t start_;
    bool nested_;
    ktrace::TraceCall call_;
};

std::string boundedText(const void* text, size_t size)
{
    const char* bytes = static_cast<const char*>(text);
    return std::string(bytes, strnlen(bytes, size));
}

template <typename Enum> int64_t asInt(const Enum& value)
{
    int raw = 0;
    std::memcpy(&raw, &value, sizeof raw);
    return raw;
}

} // namespace

extern "C" {

// For korux: sets the recording up now, so that a library that does not
// load or a trace that cannot be written is told before the host starts.
// Returns 0, or 1 with the reason in error.
__attribute__((visibility("default"))) int krec_open(char* error, unsigned long errorSize)
{
    Recorder& recorder = Recorder::instance();
    if (recorder.ready())
        return 0;
    if (error && errorSize) {
        std::strncpy(error, recorder.openError().c_str(), errorSize - 1);
        error[errorSize - 1] = '\0';
    }
    return 1;
}

// The real bridge library's handle (for its own extra entries), or null.
__attribute__((visibility("default"))) void* krec_bridge()
{
    return Recorder::instance().library();
}

// Ends the trace: the end line, the file closed and renamed into place.
// Returns 0, or 1 with the reason; *calls receives the number of calls.
__attribute__((visibility("default"))) int krec_finish(
    char* error, unsigned long errorSize, unsigned long long* calls)
{
    Recorder& recorder = Recorder::instance();
    std::string reason;
    const bool ok = recorder.finish(&reason);
    if (calls)
        *calls = recorder.calls();
    if (ok)
        return 0;
    if (error && errorSize) {
        std::strncpy(error, reason.c_str(), errorSize - 1);
        error[errorSize - 1] = '\0';
    }
    return 1;
}

FT_STATUS WINAPI FT_CreateDeviceInfoList(DWORD* numDevs)
{
    Call call("FT_CreateDeviceInfoList");
    if (!call.real())
        return FT_OTHER_ERROR;
    const FT_STATUS status = call.real()->FT_CreateDeviceInfoList(numDevs);
    if (status == FT_OK && numDevs)
        call.outputs({ *numDevs });
    return call.finish(status);
}

FT_STATUS WINAPI FT_GetDeviceInfoDetail(DWORD index, DWORD* flags, DWORD* type, DWORD* id, DWORD* locId,
    void* serialNumber, void* description, FT_HANDLE* handle)
{
    Call call("FT_GetDeviceInfoDetail");
    call.args({ index });
    if (!call.real())
        return FT_OTHER_ERROR;
    const FT_STATUS status = call.real()->FT_GetDeviceInfoDetail(
        index, flags, type, id, locId, serialNumber, description, handle);
    if (status == FT_OK && flags && type && id && locId && serialNumber && description && handle) {
        call.outputs({ *flags, *type, *id, *locId });
        const std::string serial = boundedText(serialNumber, 16);
        call.entry().outputTexts = { serial, boundedText(description, 64) };
        call.entry().outputHandle = reinterpret_cast<uintptr_t>(*handle);
        std::lock_guard<std::mutex> lock(Recorder::instance().mutex());
        Recorder::instance().serialAtLocation[*locId] = serial;
    }
    return call.finish(status);
}

FT_STATUS WINAPI FT_OpenEx(void* arg, DWORD flags, FT_HANDLE* handle)
{
    Call call("FT_OpenEx");
    std::string name;
    if (flags == FT_OPEN_BY_LOCATION) {
        call.args({ static_cast<int64_t>(reinterpret_cast<uintptr_t>(arg)), flags });
    } else {
        if (arg) {
            call.text(static_cast<const char*>(arg));
            name = call.entry().text;
        }
        call.args({ flags });
    }
    if (!call.real())
        return FT_OTHER_ERROR;
    const FT_STATUS status = call.real()->FT_OpenEx(arg, flags, handle);
    if (status == FT_OK && handle) {
        const uint64_t value = reinterpret_cast<uintptr_t>(*handle);
        call.entry().outputHandle = value;
        Recorder& recorder = Recorder::instance();
        std::lock_guard<std::mutex> lock(recorder.mutex());
        if (flags == FT_OPEN_BY_LOCATION) {
            const auto it
                = recorder.serialAtLocation.find(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg)));
            if (it != recorder.serialAtLocation.end())
                name = it->second;
        }
        if (const char port = portOfName(name)) {
            recorder.ports[value] = port;
            call.entry().port = port;
        }
    }
    return call.finish(status);
}

FT_STATUS WINAPI FT_SetTimeouts(FT_HANDLE handle, ULONG readTimeoutMs, ULONG writeTimeoutMs)
{
    Call call("FT_SetTimeouts");
    call.handle(handle);
    call.args({ readTimeoutMs, writeTimeoutMs });
    if (!call.real())
        return FT_OTHER_ERROR;
    return call.finish(call.real()->FT_SetTimeouts(handle, readTimeoutMs, writeTimeoutMs));
}

FT_STATUS WINAPI FT_Purge(FT_HANDLE handle, ULONG mask)
{
    Call call("FT_Purge");
    call.handle(handle);
    call.args({ mask });
    if (!call.real())
        return FT_OTHER_ERROR;
    return call.finish(call.real()->FT_Purge(handle, mask));
}

FT_STATUS WINAPI FT_ResetDevice(FT_HANDLE handle)
{
    Call call("FT_ResetDevice");
    call.handle(handle);
    if (!call.real())
        return FT_OTHER_ERROR;
    return call.finish(call.real()->FT_ResetDevice(handle));
}

FT_STATUS WINAPI FT_Close(FT_HANDLE handle)
{
    Call call("FT_Close");
    call.handle(handle);
    if (!call.real())
        return FT_OTHER_ERROR;
    const FT_STATUS status = call.real()->FT_Close(handle);
    {
        Recorder& recorder = Recorder::instance();
        std::lock_guard<std::mutex> lock(recorder.mutex());
        recorder.ports.erase(reinterpret_cast<uintptr_t>(handle));
    }
    return call.finish(status);
}

FT_STATUS WINAPI FT_SetVIDPID(DWORD vid, DWORD pid)
{
    Call call("FT_SetVIDPID");
    call.args({ vid, pid });
    if (!call.real())
        return FT_OTHER_ERROR;
    return call.finish(call.real()->FT_SetVIDPID(vid, pid));
}

FT_STATUS WINAPI FT_GetVIDPID(DWORD* vid, DWORD* pid)
{
    Call call("FT_GetVIDPID");
    if (!call.real())
        return FT_OTHER_ERROR;
    const FT_STATUS status = call.real()->FT_GetVIDPID(vid, pid);
    if (status == FT_OK && vid && pid)
        call.outputs({ *vid, *pid });
    return call.finish(status);
}

#define KREC_HANDLE_ONLY(name)                                                                               \
    FT4222_STATUS name(FT_HANDLE handle)                                                                     \
    {                                                                                                        \
        Call call(#name);                                                                                    \
        call.handle(handle);                                                                                 \
        if (!call.real())                                                                                    \
            return FT4222_OTHER_ERROR;                                                                       \
        return call.finish(call.real()->name(handle));                                                       \
    }

KREC_HANDLE_ONLY(FT4222_UnInitialize)
KREC_HANDLE_ONLY(FT4222_SPI_Reset)

FT4222_STATUS FT4222_SetClock(FT_HANDLE handle, FT4222_ClockRate clk)
{
    Call call("FT4222_SetClock");
    call.handle(handle);
    call.args({ asInt(clk) });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(call.real()->FT4222_SetClock(handle, clk));
}

FT4222_STATUS FT4222_GetClock(FT_HANDLE handle, FT4222_ClockRate* clk)
{
    Call call("FT4222_GetClock");
    call.handle(handle);
    if (!call.real())
        return FT4222_OTHER_ERROR;
    const FT4222_STATUS status = call.real()->FT4222_GetClock(handle, clk);
    if (status == FT4222_OK && clk)
        call.outputs({ asInt(*clk) });
    return call.finish(status);
}

FT4222_STATUS FT4222_SetSuspendOut(FT_HANDLE handle, BOOL enable)
{
    Call call("FT4222_SetSuspendOut");
    call.handle(handle);
    call.args({ enable });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(call.real()->FT4222_SetSuspendOut(handle, enable));
}

FT4222_STATUS FT4222_SetWakeUpInterrupt(FT_HANDLE handle, BOOL enable)
{
    Call call("FT4222_SetWakeUpInterrupt");
    call.handle(handle);
    call.args({ enable });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(call.real()->FT4222_SetWakeUpInterrupt(handle, enable));
}

FT4222_STATUS FT4222_SPIMaster_Init(FT_HANDLE handle, FT4222_SPIMode ioLine, FT4222_SPIClock clock,
    FT4222_SPICPOL cpol, FT4222_SPICPHA cpha, uint8 ssoMap)
{
    Call call("FT4222_SPIMaster_Init");
    call.handle(handle);
    call.args({ asInt(ioLine), asInt(clock), asInt(cpol), asInt(cpha), ssoMap });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(call.real()->FT4222_SPIMaster_Init(handle, ioLine, clock, cpol, cpha, ssoMap));
}

FT4222_STATUS FT4222_SPIMaster_SetLines(FT_HANDLE handle, FT4222_SPIMode spiMode)
{
    Call call("FT4222_SPIMaster_SetLines");
    call.handle(handle);
    call.args({ asInt(spiMode) });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(call.real()->FT4222_SPIMaster_SetLines(handle, spiMode));
}

FT4222_STATUS FT4222_SPIMaster_SingleRead(
    FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeOfRead, BOOL isEndTransaction)
{
    Call call("FT4222_SPIMaster_SingleRead");
    call.handle(handle);
    call.args({ bufferSize, isEndTransaction });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    const FT4222_STATUS status
        = call.real()->FT4222_SPIMaster_SingleRead(handle, buffer, bufferSize, sizeOfRead, isEndTransaction);
    if (sizeOfRead)
        call.outputs({ *sizeOfRead });
    if (status == FT4222_OK)
        call.read(buffer, sizeOfRead ? *sizeOfRead : bufferSize);
    return call.finish(status);
}

FT4222_STATUS FT4222_SPIMaster_SingleWrite(
    FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction)
{
    Call call("FT4222_SPIMaster_SingleWrite");
    call.handle(handle);
    call.args({ bufferSize, isEndTransaction });
    call.written(buffer, bufferSize);
    if (!call.real())
        return FT4222_OTHER_ERROR;
    const FT4222_STATUS status = call.real()->FT4222_SPIMaster_SingleWrite(
        handle, buffer, bufferSize, sizeTransferred, isEndTransaction);
    if (sizeTransferred)
        call.outputs({ *sizeTransferred });
    return call.finish(status);
}

FT4222_STATUS FT4222_SPIMaster_SingleReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
    uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction)
{
    Call call("FT4222_SPIMaster_SingleReadWrite");
    call.handle(handle);
    call.args({ bufferSize, isEndTransaction });
    call.written(writeBuffer, bufferSize);
    if (!call.real())
        return FT4222_OTHER_ERROR;
    const FT4222_STATUS status = call.real()->FT4222_SPIMaster_SingleReadWrite(
        handle, readBuffer, writeBuffer, bufferSize, sizeTransferred, isEndTransaction);
    if (sizeTransferred)
        call.outputs({ *sizeTransferred });
    if (status == FT4222_OK)
        call.read(readBuffer, bufferSize);
    return call.finish(status);
}

FT4222_STATUS FT4222_SPIMaster_MultiReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
    uint8 singleWriteBytes, uint16 multiWriteBytes, uint16 multiReadBytes, uint32* sizeOfRead)
{
    Call call("FT4222_SPIMaster_MultiReadWrite");
    call.handle(handle);
    call.args({ singleWriteBytes, multiWriteBytes, multiReadBytes });
    call.written(writeBuffer, static_cast<size_t>(singleWriteBytes) + multiWriteBytes);
    if (!call.real())
        return FT4222_OTHER_ERROR;
    const FT4222_STATUS status = call.real()->FT4222_SPIMaster_MultiReadWrite(
        handle, readBuffer, writeBuffer, singleWriteBytes, multiWriteBytes, multiReadBytes, sizeOfRead);
    if (sizeOfRead)
        call.outputs({ *sizeOfRead });
    if (status == FT4222_OK)
        call.read(readBuffer, multiReadBytes);
    return call.finish(status);
}

FT4222_STATUS FT4222_SPI_ResetTransaction(FT_HANDLE handle, uint8 spiIdx)
{
    Call call("FT4222_SPI_ResetTransaction");
    call.handle(handle);
    call.args({ spiIdx });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(call.real()->FT4222_SPI_ResetTransaction(handle, spiIdx));
}

FT4222_STATUS FT4222_SPI_SetDrivingStrength(FT_HANDLE handle, SPI_DrivingStrength clkStrength,
    SPI_DrivingStrength ioStrength, SPI_DrivingStrength ssoStrength)
{
    Call call("FT4222_SPI_SetDrivingStrength");
    call.handle(handle);
    call.args({ asInt(clkStrength), asInt(ioStrength), asInt(ssoStrength) });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(
        call.real()->FT4222_SPI_SetDrivingStrength(handle, clkStrength, ioStrength, ssoStrength));
}

FT4222_STATUS FT4222_GPIO_Init(FT_HANDLE handle, GPIO_Dir gpioDir[4])
{
    Call call("FT4222_GPIO_Init");
    call.handle(handle);
    if (gpioDir)
        call.args({ asInt(gpioDir[0]), asInt(gpioDir[1]), asInt(gpioDir[2]), asInt(gpioDir[3]) });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(call.real()->FT4222_GPIO_Init(handle, gpioDir));
}

FT4222_STATUS FT4222_GPIO_Read(FT_HANDLE handle, GPIO_Port portNum, BOOL* value)
{
    Call call("FT4222_GPIO_Read");
    call.handle(handle);
    call.args({ asInt(portNum) });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    const FT4222_STATUS status = call.real()->FT4222_GPIO_Read(handle, portNum, value);
    if (status == FT4222_OK && value)
        call.outputs({ *value });
    return call.finish(status);
}

FT4222_STATUS FT4222_GPIO_Write(FT_HANDLE handle, GPIO_Port portNum, BOOL bValue)
{
    Call call("FT4222_GPIO_Write");
    call.handle(handle);
    call.args({ asInt(portNum), bValue });
    if (!call.real())
        return FT4222_OTHER_ERROR;
    return call.finish(call.real()->FT4222_GPIO_Write(handle, portNum, bValue));
}

} // extern "C"
