// What korux tells of each sensor beyond what a unit holds: the driver record
// of its port A (USB serial and location), as the plug-in's enumeration logged
// it, and a read of the sensor's status word (size, FPGA configured or not)
// made by korux itself through the loaded bridge library, without the plug-in.
#pragma once

#include <QString>
#include <QVector>

#include <cstdint>

namespace korux {

// One interface of the driver's list as the enumeration logged it.
struct PortRecord {
    QString serial;
    uint32_t location = 0;
    bool known = false;
};

// Follows the family's log through an enumeration and keeps the record of
// port A of each sensor it grouped. The enumeration logs each interface
// ("GetDeviceInfoDetail of device N.", "Flags: ... - LocId: L", "SerialNumber:
// S") and then, for a port it takes, "Find KORUX/KORUX² Series port A #k.".
class EnumerationLog {
public:
    // True when the line starts a new enumeration (the units of the last
    // one are gone).
    bool feed(const QString& line);
    // Port A of sensor `index` (0-based); known is false when the enumeration
    // did not log it.
    PortRecord portA(int index) const;

private:
    PortRecord current_;
    QVector<PortRecord> portA_;
};

struct StatusProbe {
    bool read = false;
    QString failure; // why not, when not read
    int sizeCode = 0; // 1 or 2; 0 unknown
    bool fpgaConfigured = false;
};

// The plug-in's own account of a status read, from its log line
// "getStatus Status=%1 Size=%2 Version=%3 Diode=%4" (status in hexadecimal);
// read is false for any other line.
StatusProbe statusOfLogLine(const QString& line);

// Opens port A by its location, or by its serial when that fails (an open
// interface has no location), sets it up as the plug-in does for normal use,
// sends the status request and closes the port again. Read-only: a port the
// plug-in holds open cannot be opened a second time, and the probe then says
// so. Needs the bridge library loaded with global symbols.
StatusProbe probeStatus(const PortRecord& portA);

} // namespace korux
