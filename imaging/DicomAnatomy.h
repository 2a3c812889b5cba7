// What an intra-oral image shows, as the user gives it: the teeth (ISO 3950
// two-digit numbers, permanent and deciduous), the jaw and the side, and the
// SNOMED CT codes (scheme SCT) the Intra-oral Image module takes for them
// (DICOM PS3.3 C.8.11.9; the context groups of PS3.16: CID 4016 for the
// region, CID 4017 for its modifier, CID 4018 and 4019 for the teeth).
#pragma once

#include <QString>
#include <QStringList>

namespace korux {

struct DicomCode {
    QString value;
    QString meaning;
};

struct DicomAnatomy {
    QStringList teeth; // ISO 3950 numbers, e.g. "44"
    QString region; // "maxilla" or "mandible"; empty: from the teeth
    QString laterality; // "R", "L" or "B"; empty: from the teeth

    bool isEmpty() const { return teeth.isEmpty() && region.isEmpty() && laterality.isEmpty(); }
};

// The region (maxilla, mandible) and laterality (right, left, both) names
// the options take.
extern const QStringList kDicomRegions;
extern const QStringList kDicomLateralities;

// --teeth, --region and --laterality read and checked: teeth are a comma
// list of ISO 3950 numbers (11-48 permanent, 51-85 deciduous), all of one
// jaw, and agree with the region and laterality given. False with the
// reason in error.
bool parseAnatomy(const QString& teeth, const QString& region, const QString& laterality,
    DicomAnatomy* anatomy, QString* error);

// The anatomy completed from its teeth: the jaw of the teeth as region, and
// R, L or B from their quadrants as laterality.
DicomAnatomy completedAnatomy(const DicomAnatomy& anatomy);

// The SCT code of an ISO 3950 tooth number (CID 4018 or 4019); an empty
// value for a number that is none.
DicomCode toothCode(const QString& iso);
// The SCT code of a region name (CID 4016), and of a laterality's modifier
// (CID 4017: right, left).
DicomCode regionCode(const QString& region);
DicomCode lateralityCode(const QString& laterality);

// Patient Orientation (row and column directions) of an image of the
// anatomy as dentists view it, from outside the mouth: back teeth seen from
// the cheek ("A\\F" on the right, "P\\F" on the left), front teeth from the
// lips ("L\\F"); the head at the top in both jaws (the crowns of the lower
// teeth point up, those of the upper down). Empty without anatomy.
QString patientOrientation(const DicomAnatomy& anatomy);

// The anatomy as the text korux keeps with a shot ("teeth=44,45;region=
// mandible;laterality=R") and read back.
QString anatomyText(const DicomAnatomy& anatomy);
DicomAnatomy anatomyFromText(const QString& text);

} // namespace korux
