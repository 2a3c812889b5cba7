// Who a sensor is: the flash's factory unique identifier (the board serial),
// the status word (size, firmware version) and the information text.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"

#include <QFile>
#include <QTextStream>

#include "flash/FlashProtocol.h"
#include "flash/InformationText.h"
#include "transport/SensorProtocol.h"

using namespace korux;

namespace {

constexpr int kReadyTries = 10;
constexpr unsigned long kReadyPauseMs = 50;

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::readSerialNumber(QString& serial)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("readSerialNumber with"));
    serial.clear();
    openPorts();
    initPortC(false);
    if (!SPI_SetModeQuad(false))
        return false;
    bool solo = true;
    initPortD(&solo);

    uint8 frame[kUniqueIdFrameSize] = {kFlashReadUniqueId};
    uint8 answer[kUniqueIdFrameSize] = {};
    uint16 transferred = 0;
    const FT4222_STATUS status = FT4222_SPIMaster_SingleReadWrite(
        theHandleC(), answer, frame, kUniqueIdFrameSize, &transferred, true);
    if (status != FT4222_OK) {
        logTrace(QStringLiteral("[red]readSerialNumber error %1").arg(ft4222StatusToString(status)));
        return false;
    }
    waitWhileFlashBusy(0);

    serial = uniqueIdText(answer);
    if (!SPI_SetModeQuad(true))
        return false;
    setBoardSerial(serial);

    ReportSection values;
    values.insert(QStringLiteral("serialNumber"), serial);
    sendReport(QStringLiteral("%1").arg(familyName()), values);
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::readInformation(bool resetFirst)
{
    const korux::OperationScope scope;
    logUser(QStringLiteral("readInformation"));
    if (resetFirst)
        reset(false);

    uint8 flags = 0, sizeCode = 0, version = 0;
    uint16 diode = 0;
    getStatus(&flags, &sizeCode, &version, &diode);
    for (int tries = 0; !(flags & kFlagReady) && tries < kReadyTries; ++tries) {
        getStatus(&flags, &sizeCode, &version, &diode);
        Sleep_ms(kReadyPauseMs);
    }
    if (!(flags & kFlagReady)) {
        logUser(QStringLiteral("Sensor is not ready"));
        return false;
    }

    setFirmware(QString::number(version, 16));
    const QVeltraGenerator* owner = generator();
    logUser(owner && owner->isInside ? QStringLiteral("[yellow]Sensor is inside")
                                     : QStringLiteral("[yellow]Sensor is standalone"));

    QString boardSerialText;
    if (!readSerialNumber(boardSerialText)) {
        logUser(QStringLiteral("Sensor serial not readable"));
        return false;
    }

    switch (sizeCode) {
    case 1:
        setSize(size1);
        logUser(QStringLiteral("Sensor size is S1"));
        break;
    case 2:
        setSize(size2);
        logUser(QStringLiteral("Sensor size is S2"));
        break;
    default:
        setSize(sizeUnknown);
        logUser(QStringLiteral("Sensor size not readable"));
        return false;
    }

    // A missing information file is not an error: the map stays empty.
    ReportMap information;
    QFile file(PRDFileName());
    if (file.open(QIODevice::ReadOnly)) {
        QTextStream stream(&file);
        stream.setCodec("ISO 8859-1");
        QString text = stream.readAll();
        file.close();
        information = parseInformationText(text);
    }

    setTechnology(technologyCsI);
    if (!information.contains(QStringLiteral("KORUX3")))
        return true;
    const ReportSection section = information.value(QStringLiteral("KORUX3"));
    if (section.contains(QStringLiteral("SN")))
        setSerial(section.value(QStringLiteral("SN")).toString());
    if (section.contains(QStringLiteral("SNCapteur")))
        setSensorSerial(section.value(QStringLiteral("SNCapteur")).toString());
    if (section.contains(QStringLiteral("Technology"))
        && section.value(QStringLiteral("Technology"))
                   .toString()
                   .compare(QLatin1String("Gadox"), Qt::CaseInsensitive)
               == 0)
        setTechnology(technologyGadox);
    return true;
}
