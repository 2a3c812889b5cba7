// Commands to the FPGA's configuration port: a 4-byte frame (opcode and three
// zero operands) on one line, an optional 32-bit answer, and the bitstream.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <QFile>

#include "fpga/Bitstream.h"

using namespace korux;

namespace {

constexpr uint8 kLatticeBitstreamBurst = 0x7A;

QString hex8(uint32_t value)
{
    return QStringLiteral("%1").arg(value, 8, 16, QLatin1Char(' '));
}

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::latticeSysConfigSend(unsigned char opcode, bool endTransaction)
{
    logTrace(QStringLiteral("LatticeSysConfigSend with %1 %2")
                 .arg(QString::number(opcode, 16).rightJustified(2, QLatin1Char('0')),
                     QString::number(endTransaction ? 1 : 0)));
    if (FT4222_SPIMaster_SetLines(theHandleA(), SPI_IO_SINGLE) != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Lines in SINGLE!"));

    uint8 frame[4] = {opcode, 0x00, 0x00, 0x00};
    uint16 transferred = 0;
    if (FT4222_SPIMaster_SingleWrite(theHandleA(), frame, 4, &transferred, endTransaction) != FT4222_OK) {
        logUser(QStringLiteral("[red]Unable to send config!"));
        setStatus(statusError);
        return false;
    }
    logTrace(QStringLiteral("LatticeSysConfigSend OK."));
    return true;
}

// Class A commands answer 4 bytes while the chip select stays asserted.
bool QVeltraXRayKORUXPlugInUnit::latticeSysConfigSendClassA(unsigned char opcode, unsigned int& result)
{
    logTrace(QStringLiteral("LatticeSysConfigSendClassA with %1").arg(opcode, 2, 16, QLatin1Char('0')));
    result = 0;
    if (!latticeSysConfigSend(opcode, false)) {
        // The text names port D although the command goes through port A; kept.
        logUser(QStringLiteral("[red]Unable to send config to Port D!"));
        setStatus(statusError);
        return false;
    }

    uint8 answer[4] = {0, 0, 0, 0};
    uint16 transferred = 0;
    const FT4222_STATUS status = FT4222_SPIMaster_SingleRead(theHandleA(), answer, 4, &transferred, true);
    if (status != FT4222_OK) {
        logUser(QStringLiteral("[red]Unable to Single Read port A %1").arg(ft4222StatusToString(status)));
        setStatus(statusError);
        return false;
    }
    result = bigEndian32(answer);
    logTrace(QStringLiteral("LatticeSysConfigSendClassA result %1 [%2]")
                 .arg(hex8(result), hex8(littleEndian32(answer))));
    return true;
}

// The whole file goes in one transfer whose length is a 16-bit count, so a
// bitstream of 64 KiB or more is sent only in part. The chip select stays
// asserted after the data.
bool QVeltraXRayKORUXPlugInUnit::sendBitStream(QString fileName)
{
    logTrace(QStringLiteral("sendBitStream with %1").arg(fileName));
    if (!openPorts())
        return false;

    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly)) {
        logUser(QStringLiteral("[red]Unable to open bitStream file!"));
        setStatus(statusError);
        return false;
    }
    QByteArray bitstream = file.readAll();
    file.close();

    if (!latticeSysConfigSend(kLatticeBitstreamBurst, false)) {
        logUser(QStringLiteral("[red]Unable to send lattice config 0x7A!"));
        setStatus(statusError);
        return false;
    }
    if (FT4222_SPIMaster_SetLines(theHandleA(), SPI_IO_SINGLE) != FT4222_OK)
        logTrace(QStringLiteral("[red]Unable to set Lines in SINGLE!"));

    const uint16 length = static_cast<uint16>(bitstream.size());
    uint16 transferred = 0;
    const FT4222_STATUS status = FT4222_SPIMaster_SingleWrite(
        theHandleA(), reinterpret_cast<uint8*>(bitstream.data()), length, &transferred, false);
    if (status != FT4222_OK) {
        logUser(QStringLiteral("[red]Error while sending bitstream data: %1!").arg(ft4222StatusToString(status)));
        setStatus(statusError);
        return false;
    }
    logUser(QStringLiteral("[green,bold]BitStream file sent correctly."));
    return true;
}
