#include "imaging/DicomIdentity.h"

#include <QRandomGenerator>

namespace korux {

// From the UUID c4892186-11d0-4f95-9129-7cec0774d685, made once for korux.
const char* const kKoruxImplementationClassUid = "2.25.261240711785066557454219841290311620229";
const char* const kKoruxImplementationVersionName = "KORUX_" KORUX_IMAGING_VERSION;
const char* const kDicomAnonymousName = "ANONYMOUS^";

namespace {

const QString kPatientIdKey = QStringLiteral("DICOM Patient ID");
const QString kPatientNameKey = QStringLiteral("DICOM Patient Name");
const QString kStudyUidKey = QStringLiteral("DICOM Study UID");
const QString kStudyIdKey = QStringLiteral("DICOM Study ID");
const QString kStudyTimeKey = QStringLiteral("DICOM Study Time");

QString isoTime(const QDateTime& when)
{
    return when.toOffsetFromUtc(when.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

void seriesToPngText(const QString& prefix, const DicomSeriesIdentity& series, PngText* text)
{
    text->insert(prefix + QStringLiteral(" Series UID"), series.uid);
    text->insert(prefix + QStringLiteral(" Series Number"), QString::number(series.number));
    text->insert(prefix + QStringLiteral(" Series Time"), isoTime(series.started));
    text->insert(prefix + QStringLiteral(" Instance Number"), QString::number(series.instance));
    text->insert(prefix + QStringLiteral(" Instance UID"), series.instanceUid);
}

bool seriesFromPngText(const QString& prefix, const PngText& text, DicomSeriesIdentity* series)
{
    bool numberOk = false;
    bool instanceOk = false;
    series->uid = text.value(prefix + QStringLiteral(" Series UID"));
    series->number = text.value(prefix + QStringLiteral(" Series Number")).toInt(&numberOk);
    series->started
        = QDateTime::fromString(text.value(prefix + QStringLiteral(" Series Time")), Qt::ISODateWithMs);
    series->instance = text.value(prefix + QStringLiteral(" Instance Number")).toInt(&instanceOk);
    series->instanceUid = text.value(prefix + QStringLiteral(" Instance UID"));
    return numberOk && instanceOk && series->number > 0 && series->instance > 0 && series->started.isValid()
        && !series->uid.isEmpty() && !series->instanceUid.isEmpty();
}

// PNG text is Latin-1: a name in other scripts is kept as its UTF-8 bytes.
QString utf8AsLatin1(const QString& value)
{
    return QString::fromLatin1(value.toUtf8());
}

QString latin1AsUtf8(const QString& value)
{
    return QString::fromUtf8(value.toLatin1());
}

} // namespace

QString uidFromUuid(const QUuid& uuid)
{
    // The 128 bits as 8 16-bit digits, divided by 10 until nothing is left.
    const QByteArray bytes = uuid.toRfc4122();
    quint32 digits[8];
    for (int i = 0; i < 8; ++i)
        digits[i] = (quint8(bytes[2 * i]) << 8) | quint8(bytes[2 * i + 1]);
    QString decimal;
    bool zero = false;
    while (!zero) {
        quint32 remainder = 0;
        zero = true;
        for (quint32& digit : digits) {
            const quint32 value = (remainder << 16) | digit;
            digit = value / 10;
            remainder = value % 10;
            zero = zero && digit == 0;
        }
        decimal.prepend(QChar('0' + remainder));
    }
    return QStringLiteral("2.25.") + decimal;
}

QString newDicomUid()
{
    return uidFromUuid(QUuid::createUuid());
}

void identityToPngText(const DicomIdentity& identity, PngText* text)
{
    text->insert(kPatientIdKey, utf8AsLatin1(identity.patientId));
    text->insert(kPatientNameKey, utf8AsLatin1(identity.patientName));
    text->insert(kStudyUidKey, identity.studyUid);
    text->insert(kStudyIdKey, identity.studyId);
    text->insert(kStudyTimeKey, isoTime(identity.studyStarted));
    seriesToPngText(QStringLiteral("DICOM Processing"), identity.processing, text);
    seriesToPngText(QStringLiteral("DICOM Presentation"), identity.presentation, text);
}

bool identityFromPngText(const PngText& text, DicomIdentity* identity)
{
    DicomIdentity read;
    read.patientId = latin1AsUtf8(text.value(kPatientIdKey));
    read.patientName = latin1AsUtf8(text.value(kPatientNameKey));
    read.studyUid = text.value(kStudyUidKey);
    read.studyId = text.value(kStudyIdKey);
    read.studyStarted = QDateTime::fromString(text.value(kStudyTimeKey), Qt::ISODateWithMs);
    if (read.patientId.isEmpty() || read.studyUid.isEmpty() || !read.studyStarted.isValid()
        || !seriesFromPngText(QStringLiteral("DICOM Processing"), text, &read.processing)
        || !seriesFromPngText(QStringLiteral("DICOM Presentation"), text, &read.presentation))
        return false;
    *identity = read;
    return true;
}

DicomSession& DicomSession::instance()
{
    static DicomSession session;
    return session;
}

DicomIdentity DicomSession::nextShot(const QString& patientId, const QString& patientName,
    const QString& studyUid, const QString& unit, const QDateTime& acquired)
{
    Study& study = studies_[patientId + QLatin1Char('\\') + studyUid];
    if (study.uid.isEmpty()) {
        study.uid = studyUid.isEmpty() ? newDicomUid() : studyUid;
        // An anonymous patient gets an ID of its own for each study, unlike
        // any other patient's, so that an archive never merges two of them.
        study.patientId = !patientId.isEmpty()
            ? patientId
            : QStringLiteral("KORUX-ANON-%1")
                  .arg(QRandomGenerator::system()->generate64() & 0xFFFFFFFFFFFFull, 12, 16, QLatin1Char('0'))
                  .toUpper();
        study.started = acquired;
        // Sixteen characters at most: the date and time of its first shot.
        study.id = acquired.toString(QStringLiteral("yyyyMMdd-HHmmss"));
    }
    Series& series = study.series[unit];
    if (series.processing.uid.isEmpty()) {
        series.processing.uid = newDicomUid();
        series.processing.number = ++study.seriesCount;
        series.processing.started = acquired;
        series.presentation.uid = newDicomUid();
        series.presentation.number = ++study.seriesCount;
        series.presentation.started = acquired;
    }
    ++series.processing.instance;
    ++series.presentation.instance;
    DicomIdentity identity;
    identity.patientId = study.patientId;
    identity.patientName = !patientName.isEmpty() ? patientName
        : patientId.isEmpty()                     ? QString::fromLatin1(kDicomAnonymousName)
                                                  : QString();
    identity.studyUid = study.uid;
    identity.studyId = study.id;
    identity.studyStarted = study.started;
    identity.processing = series.processing;
    identity.processing.instanceUid = newDicomUid();
    identity.presentation = series.presentation;
    identity.presentation.instanceUid = newDicomUid();
    return identity;
}

} // namespace korux
