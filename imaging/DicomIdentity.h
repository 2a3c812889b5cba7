// Who and what a shot's DICOM files belong to: the patient, the study (one
// patient in one session: one korux process, script or shell), the two series
// (For Processing and For Presentation are separate series of the study: a
// series has one Presentation Intent Type, DICOM PS3.3 C.8.11.1.1.1) and the
// instance in each. The identity is made when the shot is taken and kept
// in its PNG's text, so that the files made from the PNG later are the same.
#pragma once

#include <QDateTime>
#include <QHash>
#include <QString>
#include <QUuid>

#include "imaging/ImageFiles.h"

namespace korux {

// korux's own implementation class UID (a UUID-derived UID, 2.25 root) and
// version name in the files' meta header.
extern const char* const kKoruxImplementationClassUid;
extern const char* const kKoruxImplementationVersionName;

// The name written when the user gives none: it says the patient is not
// known; the ID is made up for the study (DicomSession).
extern const char* const kDicomAnonymousName;

// A UID of the 2.25 root from a UUID: "2.25." and the UUID's 128 bits as
// one decimal number (DICOM PS3.5 B.2).
QString uidFromUuid(const QUuid& uuid);
// A new UID from a random (version 4) UUID.
QString newDicomUid();

struct DicomSeriesIdentity {
    QString uid;
    int number = 0; // Series Number, unique in the study
    QDateTime started; // the series' first shot
    int instance = 0; // Instance Number, unique in the series
    QString instanceUid; // SOP Instance UID
};

struct DicomIdentity {
    QString patientId;
    QString patientName;
    QString studyUid;
    QString studyId; // Study ID, at most 16 characters
    QDateTime studyStarted; // the study's first shot
    DicomSeriesIdentity processing;
    DicomSeriesIdentity presentation;

    bool isValid() const
    {
        return !studyUid.isEmpty() && !processing.uid.isEmpty() && !presentation.uid.isEmpty();
    }
};

// The identity in a shot's PNG text chunks, and read back. fromPngText is
// false when the PNG holds none or only part of one.
void identityToPngText(const DicomIdentity& identity, PngText* text);
bool identityFromPngText(const PngText& text, DicomIdentity* identity);

// The studies of this process: one per patient (a new patient ID starts a
// new study; without an ID, an anonymous patient with a made-up ID), each
// unit's shots in a For Processing and a For Presentation series of it.
class DicomSession {
public:
    static DicomSession& instance();

    // The identity of a shot of unit (its board serial) taken at acquired.
    // patientId empty: the session's anonymous patient. studyUid non-empty:
    // the shot joins that study instead of the patient's own.
    DicomIdentity nextShot(const QString& patientId, const QString& patientName, const QString& studyUid,
        const QString& unit, const QDateTime& acquired);

private:
    struct Series {
        DicomSeriesIdentity processing;
        DicomSeriesIdentity presentation;
    };
    struct Study {
        QString uid;
        QString id;
        QString patientId;
        QDateTime started;
        int seriesCount = 0;
        QHash<QString, Series> series; // by unit
    };
    QHash<QString, Study> studies_; // by patient ID and joined study UID
};

} // namespace korux
