// A shot as a DICOM Digital Intra-Oral X-Ray Image, the form in which dental
// software exchanges intra-oral images: the raw image area with the unit's
// identity, the patient and study, and the acquisition description. Encoded
// in memory with DCMTK (writing the file is the caller's business).
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QImage>
#include <QString>

namespace korux {

enum class DicomIntent {
    ForProcessing, // 1.2.840.10008.5.1.4.1.1.1.3.1: the sensor's values, for further processing
    ForPresentation, // 1.2.840.10008.5.1.4.1.1.1.3: the same values with a display window
};

struct DicomUnit {
    QString model; // the family's sensor family text
    QString boardSerial; // Device Serial Number
    QString sensorSerial; // Detector ID
    QString firmware; // Software Versions; empty: not known
    QString technology; // "CsI", "Gadox", "CCD", "Unknown"
};

struct DicomPatient {
    QString name; // empty: an anonymous placeholder
    QString id; // empty: an anonymous placeholder
    QString study; // Study Description; empty: none
};

// UIDs one run shares: the shots of one korux run are one study and, per
// unit, one series. Empty: made up.
struct DicomSeries {
    QString studyUid;
    QString seriesUid;
    int seriesNumber = 1;
};

struct DicomShot {
    QImage raw; // the raw image area (16-bit grey)
    QString description; // the acquisition description text
    QDateTime acquired; // when the image was delivered
    int instanceNumber = 1;
    DicomUnit unit;
    DicomPatient patient;
    DicomSeries series;
};

// The longest patient name, patient ID or study description kept (a DICOM
// person name group or long string).
constexpr int kDicomLongValue = 64;

extern const char* const kDicomManufacturer;
extern const char* const kDicomAnonymousName;
extern const char* const kDicomAnonymousId;

// A new UID from DCMTK's generator.
QString newDicomUid();

// The Part 10 file (preamble, meta header, explicit VR little endian).
// Null with the reason in error.
QByteArray encodeDicom(const DicomShot& shot, DicomIntent intent, QString* error);

} // namespace korux
