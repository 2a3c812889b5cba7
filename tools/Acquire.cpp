// korux acquire: from whatever status the family is in to an armed family,
// then the exposure followed live until every unit has delivered its image,
// written as 16-bit grey-scale PNG files with the description beside them.
#include <QDir>
#include <QImage>

#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/ShotOutput.h"

namespace korux {

namespace {

constexpr double kDefaultTimeoutSeconds = 60;

// What the running acquire makes besides the image files (its options).
PictureOptions shotPictures;

// Statuses that end a unit's part of one shot: its image delivered, a
// failure, or a sensor that was already off when stopped.
bool shotEnded(hardwareStatus status)
{
    return status == statusAcquired || status == statusError || status == statusStopped;
}

// True when no unit is armed or in an acquisition.
bool unitsAtRest(Session& session)
{
    for (const QVeltraHardwareUnit* unit : session.host->family()->hardwareUnitVector()) {
        switch (unit->status()) {
        case statusArmed:
        case statusIntegrating:
        case statusIntegrated:
        case statusAcquiring:
            return false;
        default:
            break;
        }
    }
    return true;
}

// Brings the family to a status that accepts arming (statusReady,
// statusFpgaUpdated, statusNoOpEnd or statusArmed), going the ways the
// status cycle allows.
int prepareStatus(Session& session)
{
    for (int step = 0; step < 3; ++step) {
        const hardwareStatus status = session.host->family()->status();
        int result = kExitOk;
        switch (status) {
        case statusReady:
        case statusFpgaUpdated:
        case statusNoOpEnd:
        case statusArmed:
            return kExitOk;
        case statusAcquired:
            result = cycleExit(session, sendFamilyCommand(session, statusEnumerating), { statusReady });
            break;
        case statusSensorFound:
            result = cycleExit(session, sendFamilyCommand(session, statusFpgaUpdating), { statusFpgaUpdated });
            break;
        case statusAborted:
        case statusStopped:
        case statusError:
            // The units are still set up from their last arming; a new
            // enumeration would give them up with their ports open.
            result = cycleExit(session, sendFamilyCommand(session, statusNoOpBegin), { statusNoOpEnd });
            break;
        case statusIntegrating:
        case statusIntegrated:
        case statusAcquiring:
            // After a stop the family keeps the last status its units'
            // dummy integration passed it; once they rest, so may it.
            if (!unitsAtRest(session)) {
                session.console.error(QStringLiteral("korux: the family is busy (%1); try again once it is done")
                                          .arg(statusText(status)));
                return kExitFailure;
            }
            result = cycleExit(session, sendFamilyCommand(session, statusNoOpBegin), { statusNoOpEnd });
            break;
        case statusUnknown:
        case statusInitialized:
        case statusNoSensor:
        case statusSensorLost:
        case statusWarning:
        case statusCalibrated:
            result = cycleExit(session, sendFamilyCommand(session, statusEnumerating), { statusSensorFound });
            break;
        default:
            session.console.error(
                QStringLiteral("korux: the family is busy (%1); try again once it is done").arg(statusText(status)));
            return kExitFailure;
        }
        if (result != kExitOk)
            return result;
    }
    return kExitFailure;
}

// Arming reads the sensor's status before it sets port A up, so it needs a
// port A that an earlier operation left open and in SPI mode. An FPGA
// programming and a flash-file copy close the ports; a voltage read opens
// them and sets A and D up (and shows the supplies before the shot).
int prepareArming(Session& session)
{
    const hardwareStatus status = session.host->family()->status();
    const bool portsInUse = status == statusArmed || status == statusAcquired;
    const int result = prepareStatus(session);
    if (result == kExitOk && !portsInUse)
        sendFamilyCommand(session, commandGetVoltages);
    return result;
}

bool writePng(Session& session, const QImage& image, const QString& path, const PngText& text)
{
    QString error;
    const QByteArray bytes = encodeSensorPng(image, text, &error);
    if (bytes.isEmpty()) {
        session.console.error(QStringLiteral("korux: cannot write %1: %2").arg(path, error));
        return false;
    }
    return writeShotFile(session, { path, bytes }, true);
}

bool writeText(Session& session, const QString& text, const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text.toUtf8()) < 0) {
        session.console.error(QStringLiteral("korux: cannot write %1: %2").arg(path, file.errorString()));
        return false;
    }
    session.console.out(QStringLiteral("wrote %1").arg(path));
    return true;
}

// Files of one image: <board serial>-<shot>.png, -black.png and .txt.
bool writeShot(Session& session, const QDir& directory, QVeltraHardwareUnit* unit, const QImage& image,
    const QImage& black, const QString& description)
{
    const QString board = unit->boardSerial();
    const QString name = board.isEmpty() ? QStringLiteral("unit%1").arg(session.host->unitIndex(unit)) : board;
    const QString stem = directory.filePath(QStringLiteral("%1-%2").arg(name).arg(session.shots, 3, 10, QLatin1Char('0')));
    const QDateTime acquired = QDateTime::currentDateTime();
    const DicomUnit identity = unitFromDescription(description, unit->firmware());
    const PngText text = shotPngText(identity, acquired);
    bool written = true;
    if (!image.isNull())
        written = writePng(session, image, stem + QStringLiteral(".png"), text) && written;
    if (!black.isNull())
        written = writePng(session, black, stem + QStringLiteral("-black.png"), text) && written;
    written = writeText(session, description, stem + QStringLiteral(".txt")) && written;
    // The files people open: preview, oscilloscope plot, DICOM.
    QVector<ShotFile> pictures;
    QString error;
    if (!image.isNull()
        && !shotPictureFiles(stem, image, description, identity, acquired, shotPictures, &pictures, &error)) {
        session.console.error(QStringLiteral("korux: the pictures of %1.png: %2").arg(stem, error));
        written = false;
    }
    for (const ShotFile& file : pictures)
        written = writeShotFile(session, file, true) && written;
    return written;
}

// One shot: arm, wait for every unit, stop on time-out.
int shoot(Session& session, const QDir& directory, int timeoutMs)
{
    PluginHost& host = *session.host;
    ++session.shots;
    bool filesWritten = true;
    host.onImage = [&](QVeltraHardwareUnit* unit, const QImage& image, const QImage& black,
                       const QString& description) {
        filesWritten = writeShot(session, directory, unit, image, black, description) && filesWritten;
    };
    const Outcome armed = sendFamilyCommand(session, statusArming);
    int result = kExitOk;
    if (armed.rejected || armed.status == statusError) {
        result = cycleExit(session, armed, {});
    } else {
        const QVector<QVeltraHardwareUnit*> units = host.family()->hardwareUnitVector();
        const bool ended = host.waitUntil(
            [&] {
                for (const QVeltraHardwareUnit* unit : units)
                    if (!shotEnded(host.observations().unitStatus.value(unit, statusUnknown)))
                        return false;
                return true;
            },
            timeoutMs);
        if (!ended) {
            session.console.error(QStringLiteral("korux: no image within %1 s; stopping").arg(timeoutMs / 1000.0));
            if (host.family()->status() == statusArmed) {
                sendFamilyCommand(session, statusStopping);
                waitForUnitsToStop(session, timeoutMs);
            }
            result = kExitTimeout;
        } else {
            for (const QVeltraHardwareUnit* unit : units) {
                if (host.observations().images.value(unit) == 0) {
                    session.console.error(
                        QStringLiteral("korux: unit %1 delivered no image").arg(host.unitName(unit)));
                    result = kExitFailure;
                }
            }
        }
    }
    host.onImage = nullptr;
    if (result == kExitOk && !filesWritten)
        result = kExitFailure;
    return result;
}

} // namespace

int runAcquire(Session& session, const CommandLine& line)
{
    bool ok = true;
    const int count = line.value(QStringLiteral("--count"), QStringLiteral("1")).toInt(&ok);
    if (!ok || count < 1) {
        session.console.error(QStringLiteral("korux: acquire --count takes a number of 1 or more"));
        return kExitUsage;
    }
    const double timeout =
        line.value(QStringLiteral("--timeout"), QString::number(kDefaultTimeoutSeconds)).toDouble(&ok);
    if (!ok || timeout <= 0) {
        session.console.error(QStringLiteral("korux: acquire --timeout takes a number of seconds above 0"));
        return kExitUsage;
    }
    const QDir directory(line.value(QStringLiteral("--out"), QStringLiteral(".")));
    if (!directory.mkpath(QStringLiteral("."))) {
        session.console.error(QStringLiteral("korux: cannot create %1").arg(directory.path()));
        return kExitFailure;
    }
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    if (line.has(QStringLiteral("--oscilloscope")))
        session.host->family()->setParameter(QStringLiteral("Oscilloscope"), true);
    shotPictures = pictureOptions(line);

    for (int shot = 0; shot < count; ++shot) {
        int result = shot == 0 ? prepareArming(session) : prepareStatus(session);
        if (result == kExitOk)
            result = shoot(session, directory, int(timeout * 1000));
        if (result != kExitOk)
            return result;
    }
    return kExitOk;
}

} // namespace korux
