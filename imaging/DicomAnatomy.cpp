#include "imaging/DicomAnatomy.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>

namespace korux {

const QStringList kDicomRegions { QStringLiteral("maxilla"), QStringLiteral("mandible") };
const QStringList kDicomLateralities { QStringLiteral("R"), QStringLiteral("L"), QStringLiteral("B") };

namespace {

// The teeth by ISO 3950 number: the first digit the quadrant (1-4 the
// permanent teeth, upper right, upper left, lower left, lower right; 5-8 the
// deciduous ones in the same order), the second the tooth from the midline.
// SNOMED CT codes of CID 4018 (permanent) and CID 4019 (deciduous).
const QHash<QString, DicomCode>& teethCodes()
{
    static const QHash<QString, DicomCode> codes {
        { "11", { "22120004", "Maxillary right central incisor tooth" } },
        { "12", { "11712009", "Maxillary right lateral incisor tooth" } },
        { "13", { "80647007", "Maxillary right canine tooth" } },
        { "14", { "57826002", "Maxillary right first premolar tooth" } },
        { "15", { "36492000", "Maxillary right second premolar tooth" } },
        { "16", { "5140004", "Maxillary right first molar tooth" } },
        { "17", { "7121006", "Maxillary right second molar tooth" } },
        { "18", { "68085002", "Maxillary right third molar tooth" } },
        { "21", { "31982000", "Maxillary left central incisor tooth" } },
        { "22", { "25748002", "Maxillary left lateral incisor tooth" } },
        { "23", { "72876007", "Maxillary left canine tooth" } },
        { "24", { "61897005", "Maxillary left first premolar tooth" } },
        { "25", { "23226009", "Maxillary left second premolar tooth" } },
        { "26", { "23427002", "Maxillary left first molar tooth" } },
        { "27", { "66303006", "Maxillary left second molar tooth" } },
        { "28", { "87704003", "Maxillary left third molar tooth" } },
        { "31", { "113278005", "Mandibular left central incisor tooth" } },
        { "32", { "77130001", "Mandibular left lateral incisor tooth" } },
        { "33", { "39844006", "Mandibular left canine tooth" } },
        { "34", { "2400006", "Mandibular left first premolar tooth" } },
        { "35", { "24573005", "Mandibular left second premolar tooth" } },
        { "36", { "89625000", "Mandibular left first molar tooth" } },
        { "37", { "48402004", "Mandibular left second molar tooth" } },
        { "38", { "74344005", "Mandibular left third molar tooth" } },
        { "41", { "15422005", "Mandibular right central incisor tooth" } },
        { "42", { "82628004", "Mandibular right lateral incisor tooth" } },
        { "43", { "47055002", "Mandibular right canine tooth" } },
        { "44", { "80140008", "Mandibular right first premolar tooth" } },
        { "45", { "8873007", "Mandibular right second premolar tooth" } },
        { "46", { "28480000", "Mandibular right first molar tooth" } },
        { "47", { "40005008", "Mandibular right second molar tooth" } },
        { "48", { "38994002", "Mandibular right third molar tooth" } },
        { "51", { "88824007", "Deciduous maxillary right central incisor tooth" } },
        { "52", { "65624003", "Deciduous maxillary right lateral incisor tooth" } },
        { "53", { "30618001", "Deciduous maxillary right canine tooth" } },
        { "54", { "17505006", "Deciduous maxillary right first molar tooth" } },
        { "55", { "27855007", "Deciduous maxillary right second molar tooth" } },
        { "61", { "51678005", "Deciduous maxillary left central incisor tooth" } },
        { "62", { "43622005", "Deciduous maxillary left lateral incisor tooth" } },
        { "63", { "73937000", "Deciduous maxillary left canine tooth" } },
        { "64", { "45234009", "Deciduous maxillary left first molar tooth" } },
        { "65", { "51943008", "Deciduous maxillary left second molar tooth" } },
        { "71", { "89552004", "Deciduous mandibular left central incisor tooth" } },
        { "72", { "14770005", "Deciduous mandibular left lateral incisor tooth" } },
        { "73", { "43281008", "Deciduous mandibular left canine tooth" } },
        { "74", { "38896004", "Deciduous mandibular left first molar tooth" } },
        { "75", { "49330006", "Deciduous mandibular left second molar tooth" } },
        { "81", { "67834006", "Deciduous mandibular right central incisor tooth" } },
        { "82", { "22445006", "Deciduous mandibular right lateral incisor tooth" } },
        { "83", { "6062009", "Deciduous mandibular right canine tooth" } },
        { "84", { "58646007", "Deciduous mandibular right first molar tooth" } },
        { "85", { "61868007", "Deciduous mandibular right second molar tooth" } },
    };
    return codes;
}

// Quadrants 1, 2, 5, 6 are upper; 1, 4, 5, 8 the patient's right.
bool upperQuadrant(int quadrant)
{
    return quadrant == 1 || quadrant == 2 || quadrant == 5 || quadrant == 6;
}

bool rightQuadrant(int quadrant)
{
    return quadrant == 1 || quadrant == 4 || quadrant == 5 || quadrant == 8;
}

} // namespace

DicomCode toothCode(const QString& iso)
{
    return teethCodes().value(iso);
}

DicomCode regionCode(const QString& region)
{
    if (region == QLatin1String("maxilla"))
        return { QStringLiteral("70925003"), QStringLiteral("Maxilla") };
    if (region == QLatin1String("mandible"))
        return { QStringLiteral("91609006"), QStringLiteral("Mandible") };
    return {};
}

DicomCode lateralityCode(const QString& laterality)
{
    if (laterality == QLatin1String("R"))
        return { QStringLiteral("24028007"), QStringLiteral("Right") };
    if (laterality == QLatin1String("L"))
        return { QStringLiteral("7771000"), QStringLiteral("Left") };
    return {};
}

DicomAnatomy completedAnatomy(const DicomAnatomy& anatomy)
{
    DicomAnatomy complete = anatomy;
    bool right = false;
    bool left = false;
    for (const QString& tooth : anatomy.teeth) {
        const int quadrant = tooth.left(1).toInt();
        if (complete.region.isEmpty())
            complete.region
                = upperQuadrant(quadrant) ? QStringLiteral("maxilla") : QStringLiteral("mandible");
        (rightQuadrant(quadrant) ? right : left) = true;
    }
    if (complete.laterality.isEmpty() && (right || left))
        complete.laterality = right && left ? QStringLiteral("B")
            : right                         ? QStringLiteral("R")
                                            : QStringLiteral("L");
    return complete;
}

bool parseAnatomy(const QString& teeth, const QString& region, const QString& laterality,
    DicomAnatomy* anatomy, QString* error)
{
    DicomAnatomy read;
    if (!teeth.isEmpty()) {
        QSet<QString> seen;
        for (const QString& part : teeth.split(QLatin1Char(','))) {
            const QString tooth = part.trimmed();
            if (!teethCodes().contains(tooth)) {
                *error = QStringLiteral("--teeth takes ISO 3950 tooth numbers (11 to 48, deciduous 51 to 85) "
                                        "separated by commas, not \"%1\"")
                             .arg(tooth);
                return false;
            }
            if (!seen.contains(tooth))
                read.teeth << tooth;
            seen.insert(tooth);
        }
    }
    if (!region.isEmpty()) {
        read.region = region.toLower();
        if (!kDicomRegions.contains(read.region)) {
            *error = QStringLiteral("--region takes %1, not \"%2\"")
                         .arg(kDicomRegions.join(QStringLiteral(" or ")), region);
            return false;
        }
    }
    if (!laterality.isEmpty()) {
        read.laterality = laterality.toUpper();
        if (!kDicomLateralities.contains(read.laterality)) {
            *error = QStringLiteral("--laterality takes R, L or B (both), not \"%1\"").arg(laterality);
            return false;
        }
    }
    // One image shows one jaw: the region's single item must hold every tooth.
    bool upper = false;
    bool lower = false;
    for (const QString& tooth : read.teeth)
        (upperQuadrant(tooth.left(1).toInt()) ? upper : lower) = true;
    if (upper && lower) {
        *error = QStringLiteral("--teeth %1 are in both jaws; an intra-oral image shows one").arg(teeth);
        return false;
    }
    const DicomAnatomy fromTeeth = completedAnatomy(DicomAnatomy { read.teeth, QString(), QString() });
    if (!read.teeth.isEmpty() && !read.region.isEmpty() && read.region != fromTeeth.region) {
        *error = QStringLiteral("--teeth %1 are not in the %2").arg(teeth, read.region);
        return false;
    }
    if (!read.teeth.isEmpty() && !read.laterality.isEmpty() && read.laterality != QLatin1String("B")
        && read.laterality != fromTeeth.laterality) {
        *error = QStringLiteral("--teeth %1 are not on side %2").arg(teeth, read.laterality);
        return false;
    }
    // Without teeth the region needs its side as a modifier (CID 4017 has
    // right and left).
    if (read.teeth.isEmpty() && (!read.region.isEmpty() || !read.laterality.isEmpty())
        && (read.region.isEmpty() || lateralityCode(read.laterality).value.isEmpty())) {
        *error = QStringLiteral("without --teeth, give --region and --laterality R or L");
        return false;
    }
    *anatomy = read;
    return true;
}

QString patientOrientation(const DicomAnatomy& anatomy)
{
    const DicomAnatomy complete = completedAnatomy(anatomy);
    if (complete.region.isEmpty() || complete.laterality.isEmpty())
        return QString();
    // Incisors and canines (second digit 1 to 3) are front teeth.
    bool front = complete.laterality == QLatin1String("B");
    for (const QString& tooth : complete.teeth)
        front = front || tooth.mid(1).toInt() <= 3;
    const QString row = front                       ? QStringLiteral("L")
        : complete.laterality == QLatin1String("R") ? QStringLiteral("A")
                                                    : QStringLiteral("P");
    return row + QStringLiteral("\\F");
}

QString anatomyText(const DicomAnatomy& anatomy)
{
    if (anatomy.isEmpty())
        return QString();
    return QStringLiteral("teeth=%1;region=%2;laterality=%3")
        .arg(anatomy.teeth.join(QLatin1Char(',')), anatomy.region, anatomy.laterality);
}

DicomAnatomy anatomyFromText(const QString& text)
{
    DicomAnatomy anatomy;
    for (const QString& field : text.split(QLatin1Char(';'), Qt::SkipEmptyParts)) {
        const QString key = field.section(QLatin1Char('='), 0, 0);
        const QString value = field.section(QLatin1Char('='), 1);
        if (key == QLatin1String("teeth"))
            anatomy.teeth = value.split(QLatin1Char(','), Qt::SkipEmptyParts);
        else if (key == QLatin1String("region"))
            anatomy.region = value;
        else if (key == QLatin1String("laterality"))
            anatomy.laterality = value;
    }
    DicomAnatomy checked;
    QString error;
    if (!parseAnatomy(
            anatomy.teeth.join(QLatin1Char(',')), anatomy.region, anatomy.laterality, &checked, &error))
        return DicomAnatomy();
    return checked;
}

} // namespace korux
