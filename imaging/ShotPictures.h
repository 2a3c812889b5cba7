// The files people open beside a shot's 16-bit PNG and its description: the
// preview, the oscilloscope plot and, when asked, the DICOM files. korux
// acquire makes them for every image it receives, korux dicom from a shot
// saved before.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QImage>
#include <QString>
#include <QStringList>
#include <QVector>

#include "imaging/DicomExport.h"
#include "imaging/DicomSend.h"
#include "imaging/ImageFiles.h"

namespace korux {

struct ShotFile {
    QString path;
    QByteArray bytes;
};

struct PictureOptions {
    bool dicom = false; // the For Processing file, <stem>.dcm
    bool presentation = false; // the For Presentation file too, <stem>-presentation.dcm
    DicomPatient patient;
    QString studyUid; // join this study; empty: the patient's study of the session
    DicomAnatomy anatomy;
    bool send = false; // send the DICOM files to peer once written
    DicomPeer peer;
};

// The unit as the description's SENSOR section gives it, with its firmware.
DicomUnit unitFromDescription(const QString& description, const QString& firmware);

// The text chunk of a shot's PNG that gives when it was taken (ISO 8601).
extern const QString kPngCreationTimeKey;

// The text chunk of a shot's PNG that gives what it shows (anatomyText).
extern const QString kPngAnatomyKey;

// The DICOM identity of a shot of unit taken at acquired, in the session's
// study of the options' patient (DicomSession).
DicomIdentity shotIdentity(const DicomUnit& unit, const QDateTime& acquired, const PictureOptions& options);

// What a shot's 16-bit PNG says besides its pixels: the unit, the time, the
// DICOM identity and the anatomy.
PngText shotPngText(const DicomUnit& unit, const QDateTime& acquired, const DicomIdentity& identity,
    const DicomAnatomy& anatomy);

// The names shotPictureFiles gives the pictures of a shot, known before any
// is made (so that taken names are found before the work).
QStringList shotPictureNames(const QString& stem, const QString& description, const PictureOptions& options);

// The shot's pictures: <stem>-preview.png, <stem>-oscilloscope.png when the
// description has samples, and the DICOM files asked for, with the shot's
// identity (shotIdentity). False with the reason in error.
bool shotPictureFiles(const QString& stem, const QImage& image, const QString& description,
    const DicomUnit& unit, const QDateTime& acquired, const DicomIdentity& identity,
    const PictureOptions& options, QVector<ShotFile>* files, QString* error);

} // namespace korux
