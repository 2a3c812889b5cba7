// korux acquire: from whatever status the family is in to an armed family,
// then the exposure followed live until every unit has delivered its image,
// written as 16-bit grey-scale PNG files with the description beside them,
// and the pictures people open (preview, oscilloscope plot, DICOM).
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QImage>
#include <QVector>

#include <cmath>

#include "tools/AtomicFile.h"
#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Interrupt.h"
#include "imaging/ShotFiles.h"
#include "tools/ShotOutput.h"

namespace korux {

namespace {

constexpr double kDefaultTimeoutSeconds = 60;
// A day at most: a waiting sensor is armed the whole time.
constexpr double kShortestTimeoutSeconds = 1;
constexpr double kLongestTimeoutSeconds = 86400;

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
            result
                = cycleExit(session, sendFamilyCommand(session, statusFpgaUpdating), { statusFpgaUpdated });
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
                session.console.error(
                    QStringLiteral("korux: the family is busy (%1); try again once it is done")
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
            session.console.error(QStringLiteral("korux: the family is busy (%1); try again once it is done")
                                      .arg(statusText(status)));
            return kExitFailure;
        }
        if (result != kExitOk)
            return result;
    }
    session.console.error(
        QStringLiteral("korux: acquire: the family did not get ready for arming (it is in %1)")
            .arg(statusText(session.host->family()->status())));
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

// What a run of acquire writes besides the image files, and whether it may
// replace files.
struct ShotSettings {
    QDir directory;
    bool overwrite = false;
    PictureOptions pictures;
};

// The files of one image: <board serial>-<shot counter after the shot>.png,
// -black.png, .txt, -preview.png, -oscilloscope.png (with oscilloscope
// samples) and, when asked, .dcm and -presentation.dcm. The counter is the
// sensor's own, so the name is never used twice by one sensor; should it be
// taken anyway (a counter that did not advance, the same folder for two
// machines), the file is kept and the shot reported as not written, unless
// --overwrite says otherwise.
bool writeShot(Session& session, const ShotSettings& settings, QVeltraHardwareUnit* unit, const QImage& image,
    const QImage& black, const QString& description)
{
    PluginHost& host = *session.host;
    const QString board = unit->boardSerial();
    const QString name = board.isEmpty() ? QStringLiteral("unit%1").arg(host.unitIndex(unit)) : board;
    QString shot;
    if (host.observations().counters.contains(unit))
        shot = QStringLiteral("%1").arg(
            qulonglong(host.observations().counters.value(unit)) + 1, 6, 10, QLatin1Char('0'));
    else
        shot = QStringLiteral("shot%1").arg(session.shots, 3, 10, QLatin1Char('0'));
    const QString stem = settings.directory.filePath(QStringLiteral("%1-%2").arg(name, shot));

    QVector<ShotFile> outputs;
    if (!image.isNull())
        outputs.append({ stem + QStringLiteral(".png"), QByteArray() });
    if (!black.isNull())
        outputs.append({ stem + QStringLiteral("-black.png"), QByteArray() });
    outputs.append({ stem + QStringLiteral(".txt"), description.toUtf8() });
    QStringList names;
    for (const ShotFile& output : outputs)
        names << output.path;
    if (!image.isNull())
        names << shotPictureNames(stem, description, settings.pictures);
    if (!settings.overwrite) {
        for (const QString& path : names) {
            if (QFileInfo::exists(path)) {
                session.console.error(QStringLiteral("korux: %1 exists already; the shot of unit %2 is not "
                                                     "written (acquire --overwrite replaces it)")
                                          .arg(path, host.unitName(unit)));
                return false;
            }
        }
    }
    QString error;
    const QDateTime acquired = QDateTime::currentDateTime();
    const DicomUnit identity = unitFromDescription(description, unit->firmware());
    const PictureOptions pictures = picturesFor(settings.pictures, identity);
    const DicomIdentity dicomIdentity = shotIdentity(identity, acquired, pictures);
    QByteArray imagePng;
    QByteArray blackPng;
    if (!encodeShot(image, black, shotPngText(identity, acquired, dicomIdentity, pictures.anatomy), &imagePng,
            &blackPng, &error)) {
        session.console.error(
            QStringLiteral("korux: cannot encode the image of unit %1: %2").arg(host.unitName(unit), error));
        return false;
    }
    if (!image.isNull())
        outputs[0].bytes = imagePng;
    if (!black.isNull())
        outputs[image.isNull() ? 0 : 1].bytes = blackPng;
    const AtomicFile::Existing existing
        = settings.overwrite ? AtomicFile::Existing::Replace : AtomicFile::Existing::Keep;
    bool written = true;
    // False once the name was found taken: the rest of the set is left to
    // the process that took it.
    auto writeAll = [&](const QVector<ShotFile>& files) {
        for (const ShotFile& output : files) {
            AtomicFile file(output.path, existing);
            if (file.open() && file.write(output.bytes) && file.commit()) {
                session.console.out(QStringLiteral("wrote %1").arg(output.path));
                session.console.json({ { QStringLiteral("wrote"), output.path },
                    { QStringLiteral("unit"), host.unitIndex(unit) },
                    { QStringLiteral("boardSerial"), board } });
                continue;
            }
            written = false;
            if (file.alreadyExists()) {
                session.console.error(QStringLiteral("korux: %1; the shot of unit %2 is not written (acquire "
                                                     "--overwrite replaces it)")
                                          .arg(file.errorString(), host.unitName(unit)));
                return false;
            }
            session.console.error(QStringLiteral("korux: ") + file.errorString());
        }
        return true;
    };
    // The image files first, on the disk as soon as they can be; the first
    // claims the name for the set: a process that finds it taken a moment
    // after the check above leaves the rest to the other.
    if (!writeAll(outputs))
        return false;
    // Then the files people open: preview, oscilloscope plot, DICOM.
    if (image.isNull())
        return written;
    QVector<ShotFile> pictureFiles;
    if (!shotPictureFiles(
            stem, image, description, identity, acquired, dicomIdentity, pictures, &pictureFiles, &error)) {
        session.console.error(QStringLiteral("korux: the pictures of %1.png: %2").arg(stem, error));
        return false;
    }
    writeAll(pictureFiles);
    return sendShotFiles(session, pictures, pictureFiles) && written;
}

// One shot: arm, wait for every unit, stop on time-out.
int shoot(Session& session, const ShotSettings& settings, int timeoutMs)
{
    PluginHost& host = *session.host;
    ++session.shots;
    bool filesWritten = true;
    host.onImage = [&](QVeltraHardwareUnit* unit, const QImage& image, const QImage& black,
                       const QString& description) {
        filesWritten = writeShot(session, settings, unit, image, black, description) && filesWritten;
    };
    const Outcome armed = sendFamilyCommand(session, statusArming);
    int result = kExitOk;
    if (armed.rejected || armed.status == statusError) {
        result = cycleExit(session, armed, {});
    } else {
        const QVector<QVeltraHardwareUnit*> units = host.family()->hardwareUnitVector();
        // One line while the sensor waits for X-rays; on a terminal it
        // counts down.
        QElapsedTimer waiting;
        waiting.start();
        int shownSeconds = (timeoutMs + 999) / 1000;
        const QString waitingText = QStringLiteral("waiting for the exposure (%1 s)");
        if (!session.options.quiet) {
            if (session.console.terminal())
                session.console.progress(waitingText.arg(shownSeconds));
            else
                session.console.out(waitingText.arg(shownSeconds));
        }
        const bool ended = host.waitUntil(
            [&] {
                const int left = int((timeoutMs - waiting.elapsed() + 999) / 1000);
                if (left != shownSeconds && left >= 0 && !session.options.quiet) {
                    shownSeconds = left;
                    session.console.progress(waitingText.arg(left));
                }
                for (const QVeltraHardwareUnit* unit : units)
                    if (!shotEnded(host.observations().unitStatus.value(unit, statusUnknown)))
                        return false;
                return true;
            },
            timeoutMs);
        if (!ended && stopRequested()) {
            result = interruptedExit();
        } else if (!ended) {
            session.console.error(
                QStringLiteral("korux: no image within %1 s; stopping").arg(timeoutMs / 1000.0));
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

bool checkAcquire(const CommandLine& line, QString* error)
{
    bool ok = true;
    const int count = line.value(QStringLiteral("--count"), QStringLiteral("1")).toInt(&ok);
    if (!ok || count < 1) {
        *error = QStringLiteral("acquire --count takes a number of 1 or more");
        return false;
    }
    const QString timeoutText
        = line.value(QStringLiteral("--timeout"), QString::number(kDefaultTimeoutSeconds));
    const double timeout = timeoutText.toDouble(&ok);
    if (!ok || !std::isfinite(timeout) || timeout < kShortestTimeoutSeconds
        || timeout > kLongestTimeoutSeconds) {
        *error = QStringLiteral("acquire --timeout takes a number of seconds from %1 to %2, not \"%3\"")
                     .arg(kShortestTimeoutSeconds)
                     .arg(kLongestTimeoutSeconds)
                     .arg(timeoutText);
        return false;
    }
    const bool dicom
        = line.has(QStringLiteral("--dicom")) || line.has(QStringLiteral("--dicom-presentation"));
    return checkPictureOptions(QStringLiteral("acquire"), line, dicom, error);
}

int runAcquire(Session& session, const CommandLine& line)
{
    QString error;
    if (!checkAcquire(line, &error)) {
        session.console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    const int count = line.value(QStringLiteral("--count"), QStringLiteral("1")).toInt();
    const double timeout
        = line.value(QStringLiteral("--timeout"), QString::number(kDefaultTimeoutSeconds)).toDouble();
    ShotSettings settings;
    settings.directory = QDir(line.value(QStringLiteral("--out"), QStringLiteral(".")));
    settings.overwrite = line.has(QStringLiteral("--overwrite"));
    settings.pictures = pictureOptions(line);
    const QDir& directory = settings.directory;
    // Checked before any arming: an exposure whose image cannot be kept is
    // a dose given for nothing.
    QString reason;
    if (!QFileInfo::exists(directory.path()) && !directory.mkpath(QStringLiteral("."))) {
        session.console.error(QStringLiteral("korux: acquire --out: cannot create %1").arg(directory.path()));
        return kExitUsage;
    }
    if (!directoryIsWritable(directory.path(), &reason)) {
        session.console.error(QStringLiteral("korux: acquire --out: %1").arg(reason));
        return kExitUsage;
    }
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    if (line.has(QStringLiteral("--oscilloscope")))
        session.host->family()->setParameter(QStringLiteral("Oscilloscope"), true);

    for (int shot = 0; shot < count; ++shot) {
        if (stopRequested())
            return interruptedExit();
        int result = shot == 0 ? prepareArming(session) : prepareStatus(session);
        if (result == kExitOk)
            result = shoot(session, settings, int(timeout * 1000));
        if (result != kExitOk)
            return result;
    }
    return kExitOk;
}

} // namespace korux
