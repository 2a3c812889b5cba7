// Replay of a recorded session: the virtual bridge answers every call from a
// trace the recording bridge wrote (docs/trace.md), in its order. A call that
// is not the one recorded next (another function, handle or arguments, other
// bytes written) ends the replay: it and every call after it fail, and the
// divergence is reported once on stderr and through
// vbridge_replay_divergence.
#pragma once

#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "record/Trace.h"
#include "transport/BridgeApi.h"

namespace vbridge {

// A replay answers every bridge function; the C functions of the virtual
// bridge hand their calls to it while it is in force.
class Replay {
public:
    // What every call gets once the replay has left the recording.
    static constexpr int kDivergedStatus = FT_OTHER_ERROR;

    Replay(ktrace::Trace trace, bool recordedTiming);

    FT_STATUS FT_CreateDeviceInfoList(DWORD* numDevs);
    FT_STATUS FT_GetDeviceInfoDetail(DWORD index, DWORD* flags, DWORD* type, DWORD* id, DWORD* locId,
        void* serialNumber, void* description, FT_HANDLE* handle);
    FT_STATUS FT_OpenEx(void* arg, DWORD flags, FT_HANDLE* handle);
    FT_STATUS FT_SetTimeouts(FT_HANDLE handle, ULONG readTimeoutMs, ULONG writeTimeoutMs);
    FT_STATUS FT_Purge(FT_HANDLE handle, ULONG mask);
    FT_STATUS FT_ResetDevice(FT_HANDLE handle);
    FT_STATUS FT_Close(FT_HANDLE handle);
    FT_STATUS FT_SetVIDPID(DWORD vid, DWORD pid);
    FT_STATUS FT_GetVIDPID(DWORD* vid, DWORD* pid);
    FT4222_STATUS FT4222_UnInitialize(FT_HANDLE handle);
    FT4222_STATUS FT4222_SetClock(FT_HANDLE handle, FT4222_ClockRate clk);
    FT4222_STATUS FT4222_GetClock(FT_HANDLE handle, FT4222_ClockRate* clk);
    FT4222_STATUS FT4222_SetSuspendOut(FT_HANDLE handle, BOOL enable);
    FT4222_STATUS FT4222_SetWakeUpInterrupt(FT_HANDLE handle, BOOL enable);
    FT4222_STATUS FT4222_SPIMaster_Init(FT_HANDLE handle, FT4222_SPIMode ioLine, FT4222_SPIClock clock,
        FT4222_SPICPOL cpol, FT4222_SPICPHA cpha, uint8 ssoMap);
    FT4222_STATUS FT4222_SPIMaster_SetLines(FT_HANDLE handle, FT4222_SPIMode spiMode);
    FT4222_STATUS FT4222_SPIMaster_SingleRead(
        FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeOfRead, BOOL isEndTransaction);
    FT4222_STATUS FT4222_SPIMaster_SingleWrite(
        FT_HANDLE handle, uint8* buffer, uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction);
    FT4222_STATUS FT4222_SPIMaster_SingleReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
        uint16 bufferSize, uint16* sizeTransferred, BOOL isEndTransaction);
    FT4222_STATUS FT4222_SPIMaster_MultiReadWrite(FT_HANDLE handle, uint8* readBuffer, uint8* writeBuffer,
        uint8 singleWriteBytes, uint16 multiWriteBytes, uint16 multiReadBytes, uint32* sizeOfRead);
    FT4222_STATUS FT4222_SPI_Reset(FT_HANDLE handle);
    FT4222_STATUS FT4222_SPI_ResetTransaction(FT_HANDLE handle, uint8 spiIdx);
    FT4222_STATUS FT4222_SPI_SetDrivingStrength(FT_HANDLE handle, SPI_DrivingStrength clkStrength,
        SPI_DrivingStrength ioStrength, SPI_DrivingStrength ssoStrength);
    FT4222_STATUS FT4222_GPIO_Init(FT_HANDLE handle, GPIO_Dir gpioDir[4]);
    FT4222_STATUS FT4222_GPIO_Read(FT_HANDLE handle, GPIO_Port portNum, BOOL* value);
    FT4222_STATUS FT4222_GPIO_Write(FT_HANDLE handle, GPIO_Port portNum, BOOL bValue);

private:
    // The recorded call that answers came, or null once the replay has left
    // the recording (reported at the first such call).
    const ktrace::TraceCall* take(ktrace::TraceCall& came);
    static void copyRead(const ktrace::TraceCall& recorded, uint8_t* buffer, size_t size);

    std::mutex mutex_;
    ktrace::Trace trace_;
    bool recordedTiming_;
    size_t next_ = 0;
    bool diverged_ = false;
    std::map<uint64_t, char> ports_;
    std::chrono::steady_clock::time_point start_;
};

// The replay in force, or null (the emulated machine answers).
Replay* activeReplay();

// A scenario {"replay": FILE, "timing": "instant" | "recorded"}: the trace
// replaces the machine. Returns -1 when text is no replay scenario (nothing
// is done), 1 when the replay is in force, 0 with the reason on error.
int loadReplayScenario(
    const std::string& text, const std::string& name, const std::string& baseDirectory, std::string* error);

// Ends the replay in force, if any.
void stopReplay();

// Why the replay stopped answering, or empty while it follows the trace.
std::string replayDivergence();

// The report of a call that departs from the recording.
std::string divergenceText(uint64_t index, const ktrace::TraceCall* recorded, const ktrace::TraceCall& came,
    const ktrace::Trace& trace);

// The difference between the recorded call and the one that came; empty
// when they are the same call.
std::string callDifference(const ktrace::TraceCall& recorded, const ktrace::TraceCall& came);

} // namespace vbridge
