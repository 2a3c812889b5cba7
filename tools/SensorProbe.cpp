#include "tools/SensorProbe.h"

#include <dlfcn.h>

#include "transport/BridgeApi.h"
#include "transport/SensorProtocol.h"
#include "transport/StatusTexts.h"

namespace korux {

namespace {

// The text between prefix and suffix when the line is exactly that.
bool between(const QString& line, QLatin1String prefix, QLatin1String suffix, QStringRef* middle)
{
    if (!line.startsWith(prefix) || !line.endsWith(suffix) || line.size() < prefix.size() + suffix.size())
        return false;
    *middle = line.midRef(prefix.size(), line.size() - prefix.size() - suffix.size());
    return true;
}

} // namespace

// Plain string matching: every line the plug-in logs passes through here.
bool EnumerationLog::feed(const QString& line)
{
    static const QString found = QStringLiteral("Find KORUX/KORUX\u00B2 Series port A #");
    QStringRef middle;
    if (line.startsWith(QLatin1String("enumKORUXPlugIn with"))) {
        *this = EnumerationLog();
        return true;
    }
    if (between(line, QLatin1String("GetDeviceInfoDetail of device "), QLatin1String("."), &middle)) {
        current_ = PortRecord();
    } else if (between(line, QLatin1String("SerialNumber: "), QLatin1String(""), &middle)) {
        current_.serial = middle.toString();
    } else if (line.startsWith(QLatin1String("Flags: "))) {
        const int at = line.lastIndexOf(QLatin1String(" - LocId: "));
        bool ok = false;
        const uint location = at < 0 ? 0 : line.midRef(at + 10).toUInt(&ok, 16);
        current_.location = location;
        current_.known = ok;
    } else if (line.startsWith(found) && line.endsWith(QLatin1Char('.'))) {
        bool ok = false;
        const int index = line.midRef(found.size(), line.size() - found.size() - 1).toInt(&ok) - 1;
        if (ok && index >= 0 && index < 256) {
            if (portA_.size() <= index)
                portA_.resize(index + 1);
            portA_[index] = current_;
        }
    }
    return false;
}

PortRecord EnumerationLog::portA(int index) const
{
    return index >= 0 && index < portA_.size() ? portA_.at(index) : PortRecord();
}

namespace {

// The bridge functions, taken from the library the loader made global: korux
// links no bridge library, as a host does not.
struct Bridge {
    decltype(&FT_OpenEx) openEx = nullptr;
    decltype(&FT_Close) close = nullptr;
    decltype(&FT4222_UnInitialize) unInitialize = nullptr;
    decltype(&FT4222_SetClock) setClock = nullptr;
    decltype(&FT4222_SPIMaster_Init) spiInit = nullptr;
    decltype(&FT4222_SPIMaster_MultiReadWrite) multiReadWrite = nullptr;

    bool load()
    {
        return resolve(openEx, "FT_OpenEx") && resolve(close, "FT_Close")
            && resolve(unInitialize, "FT4222_UnInitialize") && resolve(setClock, "FT4222_SetClock")
            && resolve(spiInit, "FT4222_SPIMaster_Init")
            && resolve(multiReadWrite, "FT4222_SPIMaster_MultiReadWrite");
    }

    template <typename Function> static bool resolve(Function& function, const char* name)
    {
        function = reinterpret_cast<Function>(dlsym(RTLD_DEFAULT, name));
        return function != nullptr;
    }
};

// Closes the port on every way out.
class OpenPort {
public:
    OpenPort(const Bridge& bridge, FT_HANDLE handle)
        : bridge_(bridge)
        , handle_(handle)
    {
    }
    ~OpenPort()
    {
        bridge_.unInitialize(handle_);
        bridge_.close(handle_);
    }
    OpenPort(const OpenPort&) = delete;
    OpenPort& operator=(const OpenPort&) = delete;

private:
    const Bridge& bridge_;
    FT_HANDLE handle_;
};

StatusProbe fromStatusWord(const StatusWord& word)
{
    StatusProbe probe;
    probe.read = true;
    probe.fpgaConfigured = !isUnconfiguredFpga(word.flags, word.size, word.version, word.diode);
    // An FPGA that waits for its design says nothing of the sensor's size.
    probe.sizeCode = probe.fpgaConfigured && (word.size == 1 || word.size == 2) ? word.size : 0;
    return probe;
}

StatusProbe failed(const QString& why)
{
    StatusProbe probe;
    probe.failure = why;
    return probe;
}

} // namespace

StatusProbe probeStatus(const PortRecord& portA)
{
    if (!portA.known)
        return failed(QStringLiteral("port A not known"));
    Bridge bridge;
    if (!bridge.load())
        return failed(QStringLiteral("no bridge library"));

    FT_HANDLE handle = nullptr;
    FT_STATUS opened = bridge.openEx(
        reinterpret_cast<void*>(static_cast<uintptr_t>(portA.location)), FT_OPEN_BY_LOCATION, &handle);
    if (opened != FT_OK) {
        QByteArray serial = portA.serial.toLatin1();
        handle = nullptr;
        opened = bridge.openEx(serial.data(), FT_OPEN_BY_SERIAL_NUMBER, &handle);
    }
    if (opened == FT_DEVICE_NOT_OPENED)
        return failed(QStringLiteral("port A is in use"));
    if (opened != FT_OK)
        return failed(QStringLiteral("port A cannot be opened (%1)").arg(ftStatusText(opened)));
    OpenPort port(bridge, handle);

    // As the plug-in sets port A up for normal use: four lines at 40 MHz.
    bridge.setClock(handle, SYS_CLK_80);
    const FT4222_STATUS ready
        = bridge.spiInit(handle, SPI_IO_QUAD, CLK_DIV_2, CLK_IDLE_LOW, CLK_LEADING, kSsoMapPortA);
    if (ready != FT4222_OK)
        return failed(QStringLiteral("port A cannot be set up (%1)").arg(ft4222StatusText(ready)));

    CommandFrame command = sensorCommand(kClassControl, kCodeStatus);
    uint8_t answer[kStatusWordSize] = { 0, 0, 0 };
    uint32 received = 0;
    const FT4222_STATUS read = bridge.multiReadWrite(
        handle, answer, command.data(), kCommandFrameSize, 0, kStatusWordSize, &received);
    if (read != FT4222_OK)
        return failed(QStringLiteral("no status word (%1)").arg(ft4222StatusText(read)));

    return fromStatusWord(decodeStatusWord(answer));
}

StatusProbe statusOfLogLine(const QString& line)
{
    // "getStatus Status=%1 Size=%2 Version=%3 Diode=%4"
    static const char* const keys[] = { "getStatus Status=", " Size=", " Version=", " Diode=" };
    uint values[4] = {};
    int at = 0;
    for (int i = 0; i < 4; ++i) {
        const QLatin1String key(keys[i]);
        if (line.midRef(at, key.size()) != key)
            return StatusProbe();
        at += key.size();
        int end = at;
        while (end < line.size() && line.at(end).isLetterOrNumber())
            ++end;
        bool ok = false;
        values[i] = line.midRef(at, end - at).toUInt(&ok, i == 0 ? 16 : 10);
        if (!ok || end == at)
            return StatusProbe();
        at = end;
    }
    if (at != line.size() || values[0] > 0xFF || values[1] > 3 || values[2] > 0xFF || values[3] > 0xFFFF)
        return StatusProbe();
    StatusWord word;
    word.flags = static_cast<uint8_t>(values[0]);
    word.size = static_cast<uint8_t>(values[1]);
    word.version = static_cast<uint8_t>(values[2]);
    word.diode = static_cast<uint16_t>(values[3]);
    return fromStatusWord(word);
}

} // namespace korux
