#include "imaging/DicomSend.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmnet/diutil.h>
#include <dcmtk/dcmnet/scu.h>
#include <dcmtk/oflog/oflog.h>

#include <QFile>
#include <QMap>
#include <QRegularExpression>

namespace korux {

namespace {

QString conditionText(const OFCondition& condition)
{
    return QString::fromLatin1(condition.text()).simplified();
}

// What a C-STORE response status means (DICOM PS3.4 B.2.3, PS3.7 C).
QString storeStatusText(Uint16 status)
{
    if ((status & 0xFF00) == 0xA700)
        return QStringLiteral("out of resources");
    if ((status & 0xFF00) == 0xA900)
        return QStringLiteral("the data set does not match the SOP class");
    if ((status & 0xF000) == 0xC000)
        return QStringLiteral("cannot understand");
    if (status == 0x0122)
        return QStringLiteral("SOP class not supported");
    if (status == 0x0124)
        return QStringLiteral("not authorised");
    if (status == 0x0211)
        return QStringLiteral("unrecognised operation");
    return QStringLiteral("refused");
}

// The SOP class of a file, read from its meta header.
bool sopClassOf(const QString& path, OFString* sopClass, QString* error)
{
    if (!QFile::exists(path)) {
        *error = QStringLiteral("%1 does not exist").arg(path);
        return false;
    }
    DcmFileFormat file;
    const OFCondition status
        = file.loadFile(OFFilename(QFile::encodeName(path).constData()), EXS_Unknown, EGL_noChange, 4096);
    if (status.bad()) {
        *error = QStringLiteral("%1 is no DICOM file: %2").arg(path, conditionText(status));
        return false;
    }
    if (file.getMetaInfo()->findAndGetOFString(DCM_MediaStorageSOPClassUID, *sopClass).bad()
        || sopClass->empty()) {
        *error = QStringLiteral("%1 names no SOP class in its meta header").arg(path);
        return false;
    }
    return true;
}

} // namespace

bool checkAeTitle(const QString& title, QString* error)
{
    static const QRegularExpression printable(QStringLiteral("^[\\x20-\\x5B\\x5D-\\x7E]{1,16}$"));
    if (!printable.match(title).hasMatch() || title.trimmed().isEmpty()) {
        *error = QStringLiteral(
            "an AE title is 1 to %1 printable ASCII characters without a backslash, not \"%2\"")
                     .arg(kAeTitleLength)
                     .arg(title);
        return false;
    }
    return true;
}

bool parsePeer(const QString& text, DicomPeer* peer, QString* error)
{
    static const QRegularExpression form(
        QStringLiteral("^(\\[[0-9A-Fa-f:.]+\\]|[A-Za-z0-9.-]+):([0-9]{1,5})$"));
    const QRegularExpressionMatch match = form.match(text);
    const int port = match.hasMatch() ? match.captured(2).toInt() : 0;
    if (!match.hasMatch() || port < 1 || port > 65535) {
        *error = QStringLiteral("a peer is HOST:PORT (port 1 to 65535), not \"%1\"").arg(text);
        return false;
    }
    QString host = match.captured(1);
    if (host.startsWith(QLatin1Char('[')))
        host = host.mid(1, host.size() - 2);
    peer->host = host;
    peer->port = static_cast<quint16>(port);
    return true;
}

bool sendDicomFiles(const DicomPeer& peer, const QStringList& files, QStringList* stored, QString* error)
{
    // DCMTK's own log would repeat each failure, in its own words, on
    // stderr: korux says it once.
    OFLog::configure(OFLogger::OFF_LOG_LEVEL);
    const QString where = QStringLiteral("%1:%2").arg(peer.host).arg(peer.port);

    // Every file's class is known before the association is asked for: it
    // proposes exactly those, and a file that is no DICOM sends nothing.
    QMap<QString, OFString> classes;
    for (const QString& file : files) {
        OFString sopClass;
        if (!sopClassOf(file, &sopClass, error))
            return false;
        classes.insert(file, sopClass);
    }

    DcmSCU scu;
    scu.setAETitle(peer.callingAe.toLatin1().constData());
    scu.setPeerAETitle(peer.calledAe.toLatin1().constData());
    scu.setPeerHostName(peer.host.toLatin1().constData());
    scu.setPeerPort(peer.port);
    scu.setConnectionTimeout(peer.timeoutSeconds);
    scu.setACSETimeout(static_cast<Uint32>(peer.timeoutSeconds));
    scu.setDIMSEBlockingMode(DIMSE_NONBLOCKING);
    scu.setDIMSETimeout(static_cast<Uint32>(peer.timeoutSeconds));
    scu.setVerbosePCMode(OFFalse);
    // korux writes explicit VR little endian; implicit is every archive's
    // fallback (DCMTK converts an uncompressed file as it sends).
    OFList<OFString> syntaxes;
    syntaxes.push_back(UID_LittleEndianExplicitTransferSyntax);
    syntaxes.push_back(UID_LittleEndianImplicitTransferSyntax);
    scu.addPresentationContext(UID_VerificationSOPClass, syntaxes);
    QList<OFString> proposed;
    for (const OFString& sopClass : classes) {
        if (proposed.contains(sopClass))
            continue;
        proposed << sopClass;
        scu.addPresentationContext(sopClass, syntaxes);
    }

    OFCondition status = scu.initNetwork();
    if (status.bad()) {
        *error = QStringLiteral("cannot start the DICOM network: %1").arg(conditionText(status));
        return false;
    }
    status = scu.negotiateAssociation();
    if (status.bad()) {
        if (status == DUL_ASSOCIATIONREJECTED)
            *error = QStringLiteral("%1 refused the association (called AE title \"%2\", calling \"%3\")")
                         .arg(where, peer.calledAe, peer.callingAe);
        else
            *error = QStringLiteral("no DICOM association with %1: %2").arg(where, conditionText(status));
        return false;
    }
    const T_ASC_PresentationContextID echo = scu.findAnyPresentationContextID(UID_VerificationSOPClass, "");
    status = echo == 0 ? OFCondition(EC_IllegalCall) : scu.sendECHORequest(echo);
    if (status.bad()) {
        *error = echo == 0
            ? QStringLiteral("%1 does not take a C-ECHO (verification)").arg(where)
            : QStringLiteral("%1 did not answer the C-ECHO: %2").arg(where, conditionText(status));
        scu.abortAssociation();
        return false;
    }
    for (const QString& file : files) {
        const OFString& sopClass = classes.value(file);
        const T_ASC_PresentationContextID context = scu.findAnyPresentationContextID(sopClass, "");
        if (context == 0) {
            *error = QStringLiteral("%1 does not take %2: it accepts no %3 (SOP class %4)")
                         .arg(where, file, QString::fromLatin1(dcmFindNameOfUID(sopClass.c_str(), "files")),
                             QString::fromLatin1(sopClass.c_str()));
            scu.releaseAssociation();
            return false;
        }
        Uint16 response = 0;
        status = scu.sendSTORERequest(
            context, OFFilename(QFile::encodeName(file).constData()), nullptr, response);
        if (status.bad()) {
            *error = QStringLiteral("%1 was not stored on %2: %3").arg(file, where, conditionText(status));
            scu.abortAssociation();
            return false;
        }
        // 0x0000 success; 0xB000, 0xB007, 0xB006: stored with a warning.
        if (response != 0x0000 && (response & 0xF000) != 0xB000) {
            *error = QStringLiteral("%1 refused %2: status 0x%3 (%4)")
                         .arg(where, file)
                         .arg(response, 4, 16, QLatin1Char('0'))
                         .arg(storeStatusText(response));
            scu.releaseAssociation();
            return false;
        }
        stored->append(file);
    }
    scu.releaseAssociation();
    return true;
}

} // namespace korux
