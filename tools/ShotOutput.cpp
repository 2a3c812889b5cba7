// korux's side of a shot's picture files: the options that ask for them,
// writing them, and korux dicom for a shot saved before.
#include "tools/ShotOutput.h"

#include <QFile>
#include <QFileInfo>

#include <cstdio>

#include "tools/AtomicFile.h"
#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Interrupt.h"
#include "tools/ShotDescription.h"

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
    return options;
}

bool checkPictureOptions(const QString& command, const CommandLine& line, bool dicomAsked, QString* error)
{
    for (const char* option : { "--patient-name", "--patient-id", "--study" }) {
        const QString name = QString::fromLatin1(option);
        if (!line.has(name))
            continue;
        if (!dicomAsked) {
            *error = QStringLiteral("%1 %2 names the patient or study of DICOM files; add --dicom")
                         .arg(command, name);
            return false;
        }
        const QString value = line.value(name);
        if (value.size() > kDicomLongValue) {
            *error = QStringLiteral("%1 %2 takes %3 characters at most (DICOM), not %4")
                         .arg(command, name)
                         .arg(kDicomLongValue)
                         .arg(value.size());
            return false;
        }
        for (const QChar c : value) {
            if (c == QLatin1Char('\\') || c.category() == QChar::Other_Control) {
                *error = QStringLiteral("%1 %2 cannot hold a backslash or a control character")
                             .arg(command, name);
                return false;
            }
        }
    }
    return true;
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
    PngText text;
    const QImage readout = decodeSensorPng(pngFile.readAll(), &text, &error);
    if (readout.isNull()) {
        session.console.error(QStringLiteral("korux: %1: %2").arg(png, error));
        return kExitFailure;
    }
    QFile textFile(stem + QStringLiteral(".txt"));
    if (!textFile.open(QIODevice::ReadOnly)) {
        session.console.error(QStringLiteral("korux: cannot read %1, the description of %2: %3")
                                  .arg(textFile.fileName(), png, textFile.errorString()));
        return kExitFailure;
    }
    const QString description = QString::fromUtf8(textFile.readAll());
    if (!parseDescription(description).contains(QStringLiteral("SENSOR"))) {
        session.console.error(
            QStringLiteral("korux: %1 is no acquisition description (it has no [SENSOR] section)")
                .arg(textFile.fileName()));
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
    QDateTime acquired = QDateTime::fromString(text.value(kPngCreationTimeKey), Qt::ISODate);
    if (!acquired.isValid())
        acquired = QFileInfo(png).lastModified();

    PictureOptions options = pictureOptions(line);
    DicomShot shot;
    shot.raw = raw;
    shot.description = description;
    shot.acquired = acquired;
    shot.unit = unitFromDescription(description, text.value(kPngFirmwareKey));
    shot.patient = options.patient;
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
