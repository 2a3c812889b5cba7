// A shot as a DICOM Digital Intra-Oral X-Ray Image, the form in which dental
// software exchanges intra-oral images: the raw image area with the unit's
// identity, the patient and study, and the acquisition description. Encoded
// in memory with DCMTK (writing the file is the caller's business).
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QImage>
#include <QString>

#include "imaging/DicomAnatomy.h"
#include "imaging/DicomIdentity.h"

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
    QString name; // a person name; empty: none known
    QString id;
    QString study; // Study Description; empty: none
};

// The generator's settings, known only for a sensor Inside one.
struct DicomGenerator {
    int kV = 0; // 0: not known
    int mA = 0;
    int exposureMs = 0;
};

struct DicomShot {
    QImage raw; // the raw image area (16-bit grey)
    QString description; // the acquisition description text
    QDateTime acquired; // when the image was delivered, with its offset from UTC
    DicomUnit unit;
    DicomPatient patient; // the study description; the patient is the identity's
    DicomIdentity identity;
    DicomAnatomy anatomy; // empty: none written
};

// The longest value of a long string (patient ID, study description) and of
// each component group of a person name, in bytes as the file holds them
// (UTF-8).
constexpr int kDicomLongValue = 64;

extern const char* const kDicomManufacturer;

// A person name as DICOM takes it: at most three component groups
// (alphabetic=ideographic=phonetic), each of at most five components
// separated by '^' and 64 bytes, no backslash or control character. False
// with the reason in error.
bool checkPersonName(const QString& name, QString* error);
// A long string: 64 bytes at most, no backslash or control character.
bool checkLongString(const QString& value, QString* error);

// The generator's kV, mA and exposure time from an acquisition description
// whose sensor is Inside; all zero otherwise.
DicomGenerator generatorFromDescription(const QString& description);

// The Part 10 file (preamble, meta header, explicit VR little endian).
// Null with the reason in error.
QByteArray encodeDicom(const DicomShot& shot, DicomIntent intent, QString* error);

} // namespace korux
