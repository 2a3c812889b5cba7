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
#include "tools/Folders.h"
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

} // namespace

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

namespace {

// What a run of acquire writes besides the image files, and whether it may
// replace files.
struct ShotSettings {
    QDir directory;
    bool overwrite = false;
    PictureOptions pictures;
};

// How one set of shot files went.
enum class SetWritten { Written, Taken, Failed };

// Names tried for one shot before it goes to the rescue folder:
// NAME, NAME-2, ... NAME-99.
constexpr int kLastNameSuffix = 99;

// The files of one image: <board serial>-<shot counter after the shot>.png,
// -black.png, .txt, -preview.png, -oscilloscope.png (with oscilloscope
// samples) and, when asked, .dcm and -presentation.dcm. The counter is the
// sensor's own, so the name is never used twice by one sensor; should it be
// taken anyway (a counter that did not advance, the same folder for two
// machines), the shot takes the next free name, NAME-2 and on, unless
// --overwrite replaces the files. A shot that cannot be written where asked
// (a full disk, a folder gone) goes to the rescue folder: an exposure is
// never thrown away.
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
    const QString base = QStringLiteral("%1-%2").arg(name, shot);

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
    // The image files of the set named stem, and the names of all its files.
    auto imageFiles = [&](const QString& stem) {
        QVector<ShotFile> outputs;
        if (!image.isNull())
            outputs.append({ stem + QStringLiteral(".png"), imagePng });
        if (!black.isNull())
            outputs.append({ stem + QStringLiteral("-black.png"), blackPng });
        outputs.append({ stem + QStringLiteral(".txt"), description.toUtf8() });
        return outputs;
    };
    auto allNames = [&](const QString& stem) {
        QStringList names;
        for (const ShotFile& output : imageFiles(stem))
            names << output.path;
        if (!image.isNull())
            names << shotPictureNames(stem, description, settings.pictures);
        return names;
    };
    bool picturesWritten = true;
    // One set under stem: the image files first, on the disk as soon as they
    // can be; the first claims the name for the set (a process that finds it
    // taken a moment after the check leaves the rest to the other). Then the
    // files people open: preview, oscilloscope plot, DICOM.
    auto writeSet = [&](const QString& stem, AtomicFile::Existing existing) {
        QStringList failures;
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
                if (file.alreadyExists() && &output == &files.first())
                    return SetWritten::Taken;
                failures << file.errorString();
                return SetWritten::Failed;
            }
            return SetWritten::Written;
        };
        const SetWritten images = writeAll(imageFiles(stem));
        if (images == SetWritten::Failed)
            for (const QString& failure : failures)
                session.console.error(QStringLiteral("korux: ") + failure);
        if (images != SetWritten::Written || image.isNull())
            return images;
        QVector<ShotFile> pictureFiles;
        QString reason;
        if (!shotPictureFiles(stem, image, description, identity, acquired, dicomIdentity, pictures,
                &pictureFiles, &reason)) {
            session.console.error(QStringLiteral("korux: the pictures of %1.png: %2").arg(stem, reason));
            picturesWritten = false;
        } else if (writeAll(pictureFiles) != SetWritten::Written) {
            for (const QString& failure : failures)
                session.console.error(QStringLiteral("korux: ") + failure);
            picturesWritten = false;
        } else if (!sendShotFiles(session, pictures, pictureFiles)) {
            picturesWritten = false;
        }
        return SetWritten::Written;
    };

    // The first free name (or the name itself, when overwrite), and the set
    // written under it; on a write failure the rest goes to the rescue folder.
    auto writeFreeName = [&](const QDir& directory, bool overwrite, QString* written) {
        const AtomicFile::Existing existing = overwrite ? AtomicFile::Existing::Replace : AtomicFile::Existing::Keep;
        for (int suffix = 1; suffix <= kLastNameSuffix; ++suffix) {
            const QString stem
                = directory.filePath(suffix == 1 ? base : QStringLiteral("%1-%2").arg(base).arg(suffix));
            bool taken = false;
            for (const QString& path : allNames(stem))
                taken = taken || (!overwrite && QFileInfo::exists(path));
            if (taken)
                continue;
            const SetWritten result = writeSet(stem, existing);
            if (result == SetWritten::Taken)
                continue;
            *written = stem;
            return result;
        }
        return SetWritten::Taken;
    };
    QString stem;
    const SetWritten result = writeFreeName(settings.directory, settings.overwrite, &stem);
    if (result == SetWritten::Written) {
        if (QFileInfo(stem).fileName() != base)
            session.console.error(
                QStringLiteral("korux: %1.png was taken; the shot of unit %2 is written as %3.png")
                    .arg(settings.directory.filePath(base), host.unitName(unit), stem));
        return picturesWritten;
    }
    // Not where it was asked: into the rescue folder, named on stderr.
    const QString why = result == SetWritten::Taken
        ? QStringLiteral("every name from %1 to %1-%2 is taken").arg(base).arg(kLastNameSuffix)
        : QStringLiteral("it could not be written to %1").arg(settings.directory.path());
    // A rescued shot never replaces one rescued before.
    const QString rescue = rescueDirectory();
    QString kept;
    if (QDir().mkpath(rescue) && writeFreeName(QDir(rescue), false, &kept) == SetWritten::Written) {
        session.console.error(
            QStringLiteral("korux: the shot of unit %1 is kept in the rescue folder as %2.png: %3")
                .arg(host.unitName(unit), kept, why));
        return false;
    }
    session.console.error(
        QStringLiteral("korux: the shot of unit %1 is lost: %2, nor to the rescue folder %3")
            .arg(host.unitName(unit), why, rescue));
    return false;
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
    if (!prepareFolder(directory.path(), 0, &reason)) {
        session.console.error(QStringLiteral("korux: acquire --out: %1").arg(reason));
        return kExitUsage;
    }
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    // Room for every shot of every unit, by each sensor's size.
    const int dicomFiles = settings.pictures.dicom ? (settings.pictures.presentation ? 2 : 1) : 0;
    qint64 bytes = 0;
    for (const QVeltraHardwareUnit* unit : session.host->family()->hardwareUnitVector())
        bytes += shotBytes(session.host->lastStatus(unit).sizeCode, dicomFiles) * count;
    if (!prepareFolder(directory.path(), bytes, &reason)) {
        session.console.error(QStringLiteral("korux: acquire --out: %1").arg(reason));
        return kExitUsage;
    }
    // The plug-in copies the FPGA's bitstream from flash into the family
    // directory on its way to arming.
    const int family = checkFamilyDirectory(session);
    if (family != kExitOk)
        return family;
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
