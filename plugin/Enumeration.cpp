// Device enumeration: the driver lists each interface of a bridge as a device
// of its own; the interfaces of this series are grouped by port letter, in
// list order, into sensors.
#include "plugin/Enumeration.h"

#include "plugin/QVeltraXRayKORUXPlugIn.h"
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <QPointer>

#include <cstring>

namespace korux {

namespace {

constexpr char kDescriptionPrefix[] = "KORUX/KORUX\xB2 ";
constexpr int kDescriptionPrefixLength = 13;
constexpr int kSuperscriptTwoPosition = 11;

}  // namespace

bool hasSeriesPrefix(const QString& description)
{
    static const QString prefix = QString::fromUtf8(kDescriptionPrefix);
    QString start = description.left(kDescriptionPrefixLength);
    if (start.size() > kSuperscriptTwoPosition && start.at(kSuperscriptTwoPosition) == QLatin1Char('?'))
        start[kSuperscriptTwoPosition] = prefix.at(kSuperscriptTwoPosition);
    return start == prefix;
}

int portOfDescription(const QString& description)
{
    if (description.isEmpty())
        return -1;
    const QChar letter = description.at(description.size() - 1);
    if (letter < QLatin1Char('A') || letter > QLatin1Char('D'))
        return -1;
    return letter.unicode() - 'A';
}

}  // namespace korux

using namespace korux;

void QVeltraXRayKORUXPlugIn::enumKORUXPlugIn(QString argument)
{
    // The host may delete the family from any slot of these signals: nothing
    // of it is touched after that.
    const QPointer<QVeltraXRayKORUXPlugIn> alive(this);
    emit logAdvancedText(QStringLiteral("enumKORUXPlugIn with %1").arg(argument));
    if (!alive)
        return;
    setFamilyStatus(statusEnumerating);
    if (!alive)
        return;
    clearHardwareUnitVector();

#if defined(__linux__) || defined(__APPLE__)
    // The driver on these systems lists only its maker's own USB ids unless
    // the series' pair is registered first. A failure leaves the list as the
    // driver makes it, which the steps below then judge.
    FT_SetVIDPID(kSeriesVendorId, kSeriesProductId);
#endif
    DWORD count = 0;
    if (FT_CreateDeviceInfoList(&count) != FT_OK) {
        emit logText(QStringLiteral("[red]Fail to Create Device Info List!"));
        if (!alive)
            return;
        setFamilyStatus(statusNoSensor);
        return;
    }
    if (count == 0) {
        emit logText(QStringLiteral("[red]No KORUX/KORUX² Series found!"));
        if (!alive)
            return;
        setFamilyStatus(statusNoSensor);
        return;
    }
    if (count % kPortsPerSensor != 0) {
        emit logText(QStringLiteral("[red]Bad number of KORUX/KORUX² Series found: %1!").arg(count));
        if (!alive)
            return;
        setFamilyStatus(statusError);
        return;
    }

    FT_DEVICE_LIST_INFO_NODE deviceSlots[kMaxSensors][kPortsPerSensor];
    int found[kPortsPerSensor] = {0, 0, 0, 0};
    clearHardwareUnitVector();

    for (DWORD index = 0; index < count; ++index) {
        FT_DEVICE_LIST_INFO_NODE record;
        std::memset(&record, 0, sizeof(record));
        emit logText(QStringLiteral("GetDeviceInfoDetail of device %1.").arg(index));
        if (!alive)
            return;
        if (FT_GetDeviceInfoDetail(index, &record.Flags, &record.Type, &record.ID, &record.LocId,
                                   record.SerialNumber, record.Description, &record.ftHandle)
            != FT_OK)
            continue;
        // The driver fills the texts; make sure they end inside their fields.
        record.SerialNumber[sizeof(record.SerialNumber) - 1] = '\0';
        record.Description[sizeof(record.Description) - 1] = '\0';

        const QString description = QString::fromUtf8(record.Description);
        emit logText(QStringLiteral("Description of device: %1.").arg(description));
        if (!alive)
            return;
        emit logAdvancedText(QString::fromLatin1(QByteArray(record.Description).toHex()));
        if (!alive)
            return;
        emit logAdvancedText(QStringLiteral("Flags: %1 - Type: %2 - ID: %3 - LocId: %4")
                                 .arg(record.Flags, 0, 16)
                                 .arg(record.Type, 0, 16)
                                 .arg(record.ID, 0, 16)
                                 .arg(record.LocId, 0, 16));
        if (!alive)
            return;
        emit logAdvancedText(
            QStringLiteral("SerialNumber: %1").arg(QString::fromUtf8(record.SerialNumber)));
        if (!alive)
            return;

        // These two lines carry no placeholders: the numbers never show.
        if (record.ID != kAcceptedDeviceId) {
            emit logText(QStringLiteral("[red]Not a KORUX/KORUX² Series: @1 <> @2!"));
            if (!alive)
                return;
            continue;
        }
        const QString upper = description.toUpper();
        if (!hasSeriesPrefix(upper)) {
            emit logText(QStringLiteral("[red]Not a KORUX/KORUX² Series port!"));
            if (!alive)
                return;
            continue;
        }
        const int port = portOfDescription(upper);
        if (port < 0) {
            emit logText(QStringLiteral("Unknow interface for description @1."));
            if (!alive)
                return;
            emit logText(QStringLiteral("[red]Not a KORUX/KORUX² Series port!"));
            if (!alive)
                return;
            continue;
        }

        const int sensor = found[port];
        if (sensor >= kMaxSensors)
            continue;
        deviceSlots[sensor][port] = record;
        found[port] = sensor + 1;
        emit logText(QStringLiteral("Find KORUX/KORUX² Series port %1 #%2.")
                         .arg(QLatin1Char(static_cast<char>('A' + port)))
                         .arg(found[port]));
        if (!alive)
            return;
    }

    if (found[0] != found[1] || found[0] != found[2] || found[0] != found[3]) {
        emit logAdvancedText(QStringLiteral("[red]inconsitent number of ports!"));
        if (!alive)
            return;
        clearHardwareUnitVector();
        emit logText(QStringLiteral("[red]No KORUX/KORUX² Series found!"));
        if (!alive)
            return;
        setFamilyStatus(statusError);
        return;
    }

    for (int sensor = 0; sensor < found[0]; ++sensor) {
        auto* unit = new QVeltraXRayKORUXPlugInUnit(this);
        unit->initializeVeltraHardware();
        for (int port = 0; port < kPortsPerSensor; ++port)
            unit->setInfoNode(port, &deviceSlots[sensor][port]);
        hardwareUnitVector_.append(unit);
    }

    setFamilyStatus(hardwareUnitVector_.isEmpty() ? statusNoSensor : statusSensorFound);
    if (!alive)
        return;
    emit logAdvancedText(QStringLiteral("[green]enumKORUXPlugIn OK."));
}
