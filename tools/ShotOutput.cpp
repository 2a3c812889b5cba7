// korux's side of a shot's picture files: the options that ask for them,
// writing them, and korux dicom for a shot saved before.
#include "tools/ShotOutput.h"

#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

#include <cstdio>

#include <dlfcn.h>

#include "tools/AtomicFile.h"
#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Interrupt.h"
#include "imaging/ShotDescription.h"

namespace korux {

namespace {

// Qt's own messages become korux's lines: one line each, on standard error,
// marked as korux's, never Qt's format.
void filterMessages(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (message.startsWith(QLatin1String("QStandardPaths: XDG_RUNTIME_DIR not set")))
        return;
    const char* kind = type == QtDebugMsg || type == QtInfoMsg ? "" : "warning: ";
    std::fprintf(stderr, "korux: %s%s\n", kind, message.simplified().toLocal8Bit().constData());
}

} // namespace

void prepareHeadlessGui()
{
    qputenv("QT_QPA_PLATFORM", "minimal:enable_fonts");
    qInstallMessageHandler(filterMessages);
}

PictureOptions pictureOptions(const CommandLine& line)
{
    PictureOptions options;
    options.presentation
        = line.has(QStringLiteral("--dicom-presentation")) || line.has(QStringLiteral("--presentation"));
    options.dicom = options.presentation || line.has(QStringLiteral("--dicom"));
    options.patient.name = line.value(QStringLiteral("--patient-name"));
    options.patient.id = line.value(QStringLiteral("--patient-id"));
    options.patient.study = line.value(QStringLiteral("--study"));
    options.studyUid = line.value(QStringLiteral("--study-uid"));
    options.send = line.has(QStringLiteral("--send"));
    QString error;
    parsePeer(line.value(QStringLiteral("--send")), &options.peer, &error);
    options.peer.calledAe = line.value(QStringLiteral("--called-ae"), options.peer.calledAe);
    options.peer.callingAe = line.value(QStringLiteral("--calling-ae"), options.peer.callingAe);
    parseAnatomy(line.value(QStringLiteral("--teeth")), line.value(QStringLiteral("--region")),
        line.value(QStringLiteral("--laterality")), &options.anatomy, &error);
    return options;
}

namespace {

// The peer option (peerOption: --send or --peer) and the AE titles.
bool checkPeerOptions(
    const QString& command, const CommandLine& line, const QString& peerOption, QString* error)
{
    QString reason;
    DicomPeer peer;
    if (line.has(peerOption) && !parsePeer(line.value(peerOption), &peer, &reason)) {
        *error = QStringLiteral("%1 %2: %3").arg(command, peerOption, reason);
        return false;
    }
    for (const char* option : { "--called-ae", "--calling-ae" }) {
        const QString name = QString::fromLatin1(option);
        if (!line.has(name))
            continue;
        if (!line.has(peerOption)) {
            *error = QStringLiteral("%1 %2 names an AE title of the peer %3 gives")
                         .arg(command, name, peerOption);
            return false;
        }
        if (!checkAeTitle(line.value(name), &reason)) {
            *error = QStringLiteral("%1 %2: %3").arg(command, name, reason);
            return false;
        }
    }
    return true;
}

} // namespace

bool checkPictureOptions(const QString& command, const CommandLine& line, bool dicomAsked, QString* error)
{
    for (const char* option : { "--patient-name", "--patient-id", "--study", "--study-uid", "--teeth",
             "--region", "--laterality" }) {
        const QString name = QString::fromLatin1(option);
        if (!line.has(name))
            continue;
        if (!dicomAsked) {
            *error
                = QStringLiteral("%1 %2 describes the patient, study or anatomy of DICOM files; add --dicom")
                      .arg(command, name);
            return false;
        }
        const QString value = line.value(name);
        QString reason;
        if (name == QLatin1String("--patient-name") ? !checkPersonName(value, &reason)
                                                    : !checkLongString(value, &reason)) {
            *error = QStringLiteral("%1 %2 %3").arg(command, name, reason);
            return false;
        }
        if (name == QLatin1String("--patient-id") && value.trimmed().isEmpty()) {
            *error
                = QStringLiteral("%1 --patient-id needs an ID; without the option the patient is anonymous")
                      .arg(command);
            return false;
        }
        // A UID: digits in components separated by dots, 64 characters at most.
        static const QRegularExpression uid(QStringLiteral("^(0|[1-9][0-9]*)(\\.(0|[1-9][0-9]*))+$"));
        if (name == QLatin1String("--study-uid") && (value.size() > 64 || !uid.match(value).hasMatch())) {
            *error
                = QStringLiteral("%1 --study-uid takes a DICOM UID (digits and dots, 64 characters at most), "
                                 "not \"%2\"")
                      .arg(command, value);
            return false;
        }
    }
    QString reason;
    if (!checkPeerOptions(command, line, QStringLiteral("--send"), &reason)) {
        *error = reason;
        return false;
    }
    if (line.has(QStringLiteral("--send")) && !dicomAsked) {
        *error = QStringLiteral("%1 --send sends the DICOM files; add --dicom").arg(command);
        return false;
    }
    DicomAnatomy anatomy;
    if (!parseAnatomy(line.value(QStringLiteral("--teeth")), line.value(QStringLiteral("--region")),
            line.value(QStringLiteral("--laterality")), &anatomy, &reason)) {
        *error = QStringLiteral("%1 %2").arg(command, reason);
        return false;
    }
    return true;
}

PictureOptions picturesFor(const PictureOptions& options, const DicomUnit& unit)
{
    if (!options.anatomy.isEmpty())
        return options;
    // Only the virtual bridge has this entry; it knows its sensors' pictures.
    using PictureAnatomy = int (*)(const char*, char*, unsigned long);
    const auto pictureAnatomy
        = reinterpret_cast<PictureAnatomy>(dlsym(RTLD_DEFAULT, "vbridge_picture_anatomy"));
    char text[256] = {};
    if (!pictureAnatomy || !pictureAnatomy(unit.boardSerial.toLatin1().constData(), text, sizeof text))
        return options;
    PictureOptions phantom = options;
    phantom.anatomy = anatomyFromText(QString::fromLatin1(text));
    return phantom;
}

namespace {

// Sends paths to peer, saying each file stored and, in one line, why the
// rest was not.
bool sendAndReport(Session& session, const DicomPeer& peer, const QStringList& paths)
{
    QStringList stored;
    QString error;
    const bool sent = sendDicomFiles(peer, paths, &stored, &error);
    const QString where = QStringLiteral("%1:%2").arg(peer.host).arg(peer.port);
    for (const QString& file : stored) {
        session.console.out(QStringLiteral("sent %1 to %2").arg(file, where));
        session.console.json({ { QStringLiteral("sent"), file }, { QStringLiteral("peer"), where } });
    }
    if (!sent)
        session.console.error(QStringLiteral("korux: ") + error);
    return sent;
}

} // namespace

bool sendShotFiles(Session& session, const PictureOptions& options, const QVector<ShotFile>& files)
{
    if (!options.send)
        return true;
    QStringList dicom;
    for (const ShotFile& file : files)
        if (file.path.endsWith(QLatin1String(".dcm")))
            dicom << file.path;
    return dicom.isEmpty() || sendAndReport(session, options.peer, dicom);
}

bool checkSend(const CommandLine& line, QString* error)
{
    if (!line.has(QStringLiteral("--peer"))) {
        *error = QStringLiteral("send needs --peer HOST:PORT, the archive to store the files on");
        return false;
    }
    bool ok = true;
    const int timeout = line.value(QStringLiteral("--timeout"), QStringLiteral("30")).toInt(&ok);
    if (!ok || timeout < 1 || timeout > 3600) {
        *error = QStringLiteral("send --timeout takes 1 to 3600 seconds");
        return false;
    }
    return checkPeerOptions(QStringLiteral("send"), line, QStringLiteral("--peer"), error);
}

// korux send FILE... --peer HOST:PORT: DICOM files stored on an archive.
int runSend(Session& session, const CommandLine& line)
{
    QString error;
    if (!checkSend(line, &error)) {
        session.console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    DicomPeer peer;
    parsePeer(line.value(QStringLiteral("--peer")), &peer, &error);
    peer.calledAe = line.value(QStringLiteral("--called-ae"), peer.calledAe);
    peer.callingAe = line.value(QStringLiteral("--calling-ae"), peer.callingAe);
    peer.timeoutSeconds
        = line.value(QStringLiteral("--timeout"), QString::number(peer.timeoutSeconds)).toInt();
    return sendAndReport(session, peer, line.positional) ? kExitOk : kExitFailure;
}

bool checkDicom(const CommandLine& line, QString* error)
{
    const QString png = line.positional.value(0);
    if (!png.endsWith(QLatin1String(".png"), Qt::CaseInsensitive) || png.size() <= 4) {
        *error = QStringLiteral("dicom takes a shot's PNG (SHOT.png), not \"%1\"").arg(png);
        return false;
    }
    return checkPictureOptions(QStringLiteral("dicom"), line, true, error);
}

// korux dicom SHOT.png: the DICOM files of a shot saved before, from its PNG
// and the description beside it.
int runDicom(Session& session, const CommandLine& line)
{
    QString error;
    if (!checkDicom(line, &error)) {
        session.console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    const QString png = line.positional.first();
    const QString stem = png.left(png.size() - 4);
    QFile pngFile(png);
    if (!pngFile.open(QIODevice::ReadOnly)) {
        session.console.error(QStringLiteral("korux: cannot read %1: %2").arg(png, pngFile.errorString()));
        return kExitFailure;
    }
    const QByteArray pngBytes = pngFile.readAll();
    // What is not a shot's 16-bit PNG is refused from its header, before
    // any pixel is allocated: a preview (8 bits, windowed and inverted)
    // would be labelled as the sensor's values, a negative.
    PngHeader header;
    if (!readPngHeader(pngBytes, &header)) {
        session.console.error(QStringLiteral("korux: %1 is no PNG file").arg(png));
        return kExitFailure;
    }
    if (header.bitDepth != 16 || header.colourType != 0) {
        session.console.error(
            QStringLiteral("korux: %1 is a %2-bit %3 PNG, not a shot's 16-bit grey image "
                           "(a preview or plot cannot be made into DICOM)")
                .arg(png)
                .arg(header.bitDepth)
                .arg(header.colourType == 0 ? QStringLiteral("grey") : QStringLiteral("colour")));
        return kExitFailure;
    }
    QFile textFile(stem + QStringLiteral(".txt"));
    if (!textFile.open(QIODevice::ReadOnly)) {
        session.console.error(QStringLiteral("korux: cannot read %1, the description of %2: %3")
                                  .arg(textFile.fileName(), png, textFile.errorString()));
        return kExitFailure;
    }
    const QString description = QString::fromUtf8(textFile.readAll());
    const Description sections = parseDescription(description);
    if (!sections.contains(QStringLiteral("SENSOR"))) {
        session.console.error(
            QStringLiteral("korux: %1 is no acquisition description (it has no [SENSOR] section)")
                .arg(textFile.fileName()));
        return kExitFailure;
    }
    const QString size = sections.value(QStringLiteral("SENSOR")).value(QStringLiteral("Size"));
    const bool small = size == QLatin1String("1");
    const quint32 width = small ? kSmallReadoutWidth : kLargeReadoutWidth;
    const quint32 height = small ? kSmallReadoutHeight : kLargeReadoutHeight;
    if ((size != QLatin1String("1") && size != QLatin1String("2")) || header.width != width
        || header.height != height) {
        session.console.error(QStringLiteral("korux: %1 is %2x%3 pixels; its description %4 gives Size=%5, a "
                                             "read-out of %6x%7")
                                  .arg(png)
                                  .arg(header.width)
                                  .arg(header.height)
                                  .arg(textFile.fileName(), size.isEmpty() ? QStringLiteral("(none)") : size)
                                  .arg(width)
                                  .arg(height));
        return kExitFailure;
    }
    PngText text;
    const QImage readout = decodeSensorPng(pngBytes, &text, &error);
    if (readout.isNull()) {
        session.console.error(QStringLiteral("korux: %1: %2").arg(png, error));
        return kExitFailure;
    }
    const QImage raw = rawArea(readout);
    if (raw.isNull()) {
        session.console.error(QStringLiteral("korux: %1 is %2x%3 pixels, too small for a read-out")
                                  .arg(png)
                                  .arg(readout.width())
                                  .arg(readout.height()));
        return kExitFailure;
    }
    // The time is the shot's own: a file's modification time is not it.
    const QDateTime acquired = QDateTime::fromString(text.value(kPngCreationTimeKey), Qt::ISODate);
    if (!acquired.isValid()) {
        session.console.error(
            QStringLiteral("korux: %1 does not say when the shot was taken (no \"%2\" text); "
                           "no DICOM file written")
                .arg(png, kPngCreationTimeKey));
        return kExitFailure;
    }

    PictureOptions options = pictureOptions(line);
    DicomShot shot;
    shot.raw = raw;
    shot.description = description;
    shot.acquired = acquired;
    shot.unit = unitFromDescription(description, text.value(kPngFirmwareKey));
    shot.patient = options.patient;
    // The identity the shot was given when taken, so that the files are the
    // ones acquire would have written; a new one in this session's study
    // when another patient or study is asked for.
    DicomIdentity kept;
    const bool hasKept = identityFromPngText(text, &kept);
    if (hasKept && (options.patient.id.isEmpty() || options.patient.id == kept.patientId)
        && (options.studyUid.isEmpty() || options.studyUid == kept.studyUid)) {
        shot.identity = kept;
        if (!options.patient.name.isEmpty())
            shot.identity.patientName = options.patient.name;
    } else {
        // Another study for the same patient keeps the patient.
        PictureOptions who = options;
        if (hasKept && who.patient.id.isEmpty()) {
            who.patient.id = kept.patientId;
            if (who.patient.name.isEmpty())
                who.patient.name = kept.patientName;
        }
        shot.identity = shotIdentity(shot.unit, acquired, who);
    }
    shot.anatomy = line.has(QStringLiteral("--teeth")) || line.has(QStringLiteral("--region"))
            || line.has(QStringLiteral("--laterality"))
        ? options.anatomy
        : anatomyFromText(text.value(kPngAnatomyKey));
    const bool replace = line.has(QStringLiteral("--overwrite"));
    QStringList names { stem + QStringLiteral(".dcm") };
    if (options.presentation)
        names << stem + QStringLiteral("-presentation.dcm");
    if (!replace) {
        for (const QString& name : names) {
            if (QFileInfo::exists(name)) {
                session.console.error(QStringLiteral(
                    "korux: %1 exists already; nothing written (dicom --overwrite replaces it)")
                                          .arg(name));
                return kExitFailure;
            }
        }
    }
    QVector<ShotFile> files;
    files.append({ stem + QStringLiteral(".dcm"), encodeDicom(shot, DicomIntent::ForProcessing, &error) });
    if (!files.last().bytes.isEmpty() && options.presentation)
        files.append({ stem + QStringLiteral("-presentation.dcm"),
            encodeDicom(shot, DicomIntent::ForPresentation, &error) });
    if (files.last().bytes.isEmpty()) {
        session.console.error(QStringLiteral("korux: %1: %2").arg(png, error));
        return kExitFailure;
    }
    // Ctrl-C while encoding: nothing is written.
    if (stopRequested())
        return interruptedExit();
    // The first file claims the name for the pair, as acquire's shots do.
    const AtomicFile::Existing existing
        = replace ? AtomicFile::Existing::Replace : AtomicFile::Existing::Keep;
    for (const ShotFile& file : files) {
        AtomicFile output(file.path, existing);
        if (!(output.open() && output.write(file.bytes) && output.commit())) {
            session.console.error(output.alreadyExists()
                    ? QStringLiteral("korux: %1; nothing more written (dicom --overwrite replaces it)")
                          .arg(output.errorString())
                    : QStringLiteral("korux: ") + output.errorString());
            return kExitFailure;
        }
        session.console.out(QStringLiteral("wrote %1").arg(file.path));
        session.console.json({ { QStringLiteral("wrote"), file.path } });
    }
    return kExitOk;
}

} // namespace korux
