// The study, series and instance of a shot, the anatomy options and their
// codes, and the checks of the values a user gives.
#include <QDateTime>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcistrmb.h>
#include <dcmtk/dcmdata/dcitem.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcsequen.h>

#include <gtest/gtest.h>

#include "imaging/DicomAnatomy.h"
#include "imaging/DicomExport.h"
#include "imaging/DicomIdentity.h"
#include "imaging/DicomSend.h"

using namespace korux;

namespace {

const QDateTime kFirst(QDate(2026, 3, 4), QTime(10, 11, 12), Qt::OffsetFromUTC, 3600);

// A patient ID no other test uses: the session is process-wide.
QString uniquePatient(const char* name)
{
    return QStringLiteral("%1-%2").arg(QString::fromLatin1(name), newDicomUid().right(12));
}

} // namespace

TEST(DicomUid, IsTheUuidAsOneDecimalNumberUnderTwoDotTwentyFive)
{
    EXPECT_EQ(uidFromUuid(QUuid(QStringLiteral("{c4892186-11d0-4f95-9129-7cec0774d685}"))),
        QStringLiteral("2.25.261240711785066557454219841290311620229"));
    EXPECT_EQ(uidFromUuid(QUuid()), QStringLiteral("2.25.0"));
    EXPECT_EQ(uidFromUuid(QUuid(QStringLiteral("{ffffffff-ffff-ffff-ffff-ffffffffffff}"))),
        QStringLiteral("2.25.340282366920938463463374607431768211455"));
    const QString uid = newDicomUid();
    EXPECT_LE(uid.size(), 64);
    EXPECT_NE(uid, newDicomUid());
}

TEST(DicomSession, APatientsShotsAreOneStudyWithTwoSeries)
{
    const QString patient = uniquePatient("PAT");
    DicomSession& session = DicomSession::instance();
    const DicomIdentity first = session.nextShot(patient, QString(), QString(), QStringLiteral("U1"), kFirst);
    const DicomIdentity second
        = session.nextShot(patient, QString(), QString(), QStringLiteral("U1"), kFirst.addSecs(40));
    EXPECT_EQ(first.studyUid, second.studyUid);
    EXPECT_EQ(first.studyId, second.studyId);
    EXPECT_LE(first.studyId.size(), 16);
    // The study's and the series' times are those of their first shot.
    EXPECT_EQ(second.studyStarted, kFirst);
    EXPECT_EQ(second.processing.started, kFirst);
    // For Processing and For Presentation: separate series, own numbers.
    EXPECT_NE(first.processing.uid, first.presentation.uid);
    EXPECT_NE(first.processing.number, first.presentation.number);
    EXPECT_EQ(second.processing.uid, first.processing.uid);
    EXPECT_EQ(first.processing.instance, 1);
    EXPECT_EQ(second.processing.instance, 2);
    EXPECT_EQ(second.presentation.instance, 2);
    EXPECT_NE(first.processing.instanceUid, second.processing.instanceUid);
    EXPECT_NE(second.processing.instanceUid, second.presentation.instanceUid);
    EXPECT_EQ(first.patientId, patient);
    EXPECT_TRUE(first.patientName.isEmpty());
}

TEST(DicomSession, ANewPatientStartsANewStudy)
{
    DicomSession& session = DicomSession::instance();
    const QString a = uniquePatient("PAT-A");
    const QString b = uniquePatient("PAT-B");
    const DicomIdentity first = session.nextShot(a, QString(), QString(), QStringLiteral("U1"), kFirst);
    const DicomIdentity second
        = session.nextShot(b, QString(), QString(), QStringLiteral("U1"), kFirst.addSecs(60));
    EXPECT_NE(first.studyUid, second.studyUid);
    EXPECT_NE(first.processing.uid, second.processing.uid);
    EXPECT_EQ(second.studyStarted, kFirst.addSecs(60));
    EXPECT_EQ(second.processing.instance, 1);
    // Back to the first patient: the first study again.
    EXPECT_EQ(session.nextShot(a, QString(), QString(), QStringLiteral("U1"), kFirst.addSecs(90)).studyUid,
        first.studyUid);
}

TEST(DicomSession, AnAnonymousStudyHasAPatientIdOfItsOwn)
{
    DicomSession& session = DicomSession::instance();
    const DicomIdentity one = session.nextShot(QString(), QString(), QString(), QStringLiteral("U1"), kFirst);
    const DicomIdentity joined
        = session.nextShot(QString(), QString(), newDicomUid(), QStringLiteral("U1"), kFirst);
    EXPECT_TRUE(one.patientId.startsWith(QStringLiteral("KORUX-ANON-"))) << one.patientId.toStdString();
    EXPECT_NE(one.patientId, joined.patientId);
    EXPECT_EQ(one.patientName, QString::fromLatin1(kDicomAnonymousName));
    EXPECT_EQ(session.nextShot(QString(), QString(), QString(), QStringLiteral("U1"), kFirst).patientId,
        one.patientId);
}

TEST(DicomSession, StudyUidJoinsThatStudy)
{
    const QString study = newDicomUid();
    const DicomIdentity shot = DicomSession::instance().nextShot(
        uniquePatient("PAT"), QString(), study, QStringLiteral("U1"), kFirst);
    EXPECT_EQ(shot.studyUid, study);
}

TEST(DicomSession, IdentityIsKeptInThePngText)
{
    DicomIdentity shot = DicomSession::instance().nextShot(
        uniquePatient("PAT"), QStringLiteral("Mü^Zoë"), QString(), QStringLiteral("U1"), kFirst);
    PngText text;
    identityToPngText(shot, &text);
    for (auto it = text.cbegin(); it != text.cend(); ++it) {
        EXPECT_LE(it.key().size(), 79);
        EXPECT_EQ(QString::fromLatin1(it.value().toLatin1()), it.value()) << it.key().toStdString();
    }
    DicomIdentity back;
    ASSERT_TRUE(identityFromPngText(text, &back));
    EXPECT_EQ(back.patientId, shot.patientId);
    EXPECT_EQ(back.patientName, shot.patientName);
    EXPECT_EQ(back.studyUid, shot.studyUid);
    EXPECT_EQ(back.studyId, shot.studyId);
    EXPECT_EQ(back.studyStarted, shot.studyStarted);
    EXPECT_EQ(back.studyStarted.offsetFromUtc(), 3600);
    EXPECT_EQ(back.processing.uid, shot.processing.uid);
    EXPECT_EQ(back.processing.number, shot.processing.number);
    EXPECT_EQ(back.presentation.instanceUid, shot.presentation.instanceUid);
    EXPECT_EQ(back.presentation.instance, shot.presentation.instance);

    text.remove(QStringLiteral("DICOM Presentation Instance UID"));
    EXPECT_FALSE(identityFromPngText(text, &back));
}

TEST(DicomAnatomy, TeethGiveTheirJawAndSide)
{
    DicomAnatomy anatomy;
    QString error;
    ASSERT_TRUE(parseAnatomy(QStringLiteral("44,45"), QString(), QString(), &anatomy, &error))
        << error.toStdString();
    const DicomAnatomy complete = completedAnatomy(anatomy);
    EXPECT_EQ(complete.region, QStringLiteral("mandible"));
    EXPECT_EQ(complete.laterality, QStringLiteral("R"));
    EXPECT_EQ(patientOrientation(anatomy), QStringLiteral("A\\F"));

    ASSERT_TRUE(parseAnatomy(QStringLiteral("11,21"), QString(), QString(), &anatomy, &error))
        << error.toStdString();
    EXPECT_EQ(completedAnatomy(anatomy).region, QStringLiteral("maxilla"));
    EXPECT_EQ(completedAnatomy(anatomy).laterality, QStringLiteral("B"));
    EXPECT_EQ(patientOrientation(anatomy), QStringLiteral("L\\F"));

    // Deciduous teeth: quadrants 5 to 8.
    ASSERT_TRUE(parseAnatomy(QStringLiteral("74, 75"), QString(), QString(), &anatomy, &error))
        << error.toStdString();
    EXPECT_EQ(completedAnatomy(anatomy).laterality, QStringLiteral("L"));
    EXPECT_EQ(patientOrientation(anatomy), QStringLiteral("P\\F"));
    EXPECT_EQ(toothCode(QStringLiteral("75")).value, QStringLiteral("49330006"));

    ASSERT_TRUE(parseAnatomy(QString(), QStringLiteral("Maxilla"), QStringLiteral("r"), &anatomy, &error))
        << error.toStdString();
    EXPECT_EQ(anatomy.region, QStringLiteral("maxilla"));
    EXPECT_EQ(anatomy.laterality, QStringLiteral("R"));
    EXPECT_TRUE(parseAnatomy(QString(), QString(), QString(), &anatomy, &error));
    EXPECT_TRUE(anatomy.isEmpty());
}

TEST(DicomAnatomy, WhatIsNoToothOrDisagreesIsRefused)
{
    DicomAnatomy anatomy;
    QString error;
    for (const char* teeth : { "19", "56", "90", "4", "44;45", "" }) {
        if (*teeth == 0)
            continue;
        EXPECT_FALSE(parseAnatomy(QString::fromLatin1(teeth), QString(), QString(), &anatomy, &error))
            << teeth;
        EXPECT_TRUE(error.startsWith(QStringLiteral("--teeth takes ISO 3950"))) << error.toStdString();
    }
    EXPECT_FALSE(parseAnatomy(QStringLiteral("14,44"), QString(), QString(), &anatomy, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("both jaws"))) << error.toStdString();
    EXPECT_FALSE(parseAnatomy(QStringLiteral("44"), QStringLiteral("maxilla"), QString(), &anatomy, &error));
    EXPECT_FALSE(parseAnatomy(QStringLiteral("44"), QString(), QStringLiteral("L"), &anatomy, &error));
    EXPECT_FALSE(parseAnatomy(QString(), QStringLiteral("jaw"), QStringLiteral("L"), &anatomy, &error));
    EXPECT_FALSE(parseAnatomy(QString(), QStringLiteral("maxilla"), QStringLiteral("X"), &anatomy, &error));
    // A region alone names no side, which the region's modifier needs.
    EXPECT_FALSE(parseAnatomy(QString(), QStringLiteral("maxilla"), QString(), &anatomy, &error));
    EXPECT_FALSE(parseAnatomy(QString(), QStringLiteral("maxilla"), QStringLiteral("B"), &anatomy, &error));
}

TEST(DicomAnatomy, TextRoundTrips)
{
    DicomAnatomy anatomy;
    QString error;
    ASSERT_TRUE(parseAnatomy(
        QStringLiteral("44,45"), QStringLiteral("mandible"), QStringLiteral("R"), &anatomy, &error));
    const DicomAnatomy back = anatomyFromText(anatomyText(anatomy));
    EXPECT_EQ(back.teeth, anatomy.teeth);
    EXPECT_EQ(back.region, anatomy.region);
    EXPECT_EQ(back.laterality, anatomy.laterality);
    EXPECT_TRUE(anatomyFromText(QStringLiteral("teeth=99")).isEmpty());
}

TEST(DicomValues, PersonNamesAreCheckedAsDicomCountsThem)
{
    QString error;
    EXPECT_TRUE(checkPersonName(QStringLiteral("Doe^Jane^M^Dr^Jr=ドウ^ジェーン=do^jane"), &error))
        << error.toStdString();
    EXPECT_FALSE(checkPersonName(QStringLiteral("a^b^c^d^e^f^g=x=y=z"), &error));
    EXPECT_FALSE(checkPersonName(QStringLiteral("a^b^c^d^e^f"), &error));
    EXPECT_TRUE(error.contains(QStringLiteral("at most four"))) << error.toStdString();
    EXPECT_FALSE(checkPersonName(QStringLiteral("a=b=c=d"), &error));
    EXPECT_TRUE(error.contains(QStringLiteral("at most two"))) << error.toStdString();
    // 40 'é' are 40 characters but 80 bytes of UTF-8: too long.
    EXPECT_FALSE(checkPersonName(QString(40, QChar(0xE9)), &error));
    EXPECT_TRUE(error.contains(QStringLiteral("80"))) << error.toStdString();
    EXPECT_TRUE(checkPersonName(QString(32, QChar(0xE9)), &error));
    EXPECT_FALSE(checkPersonName(QStringLiteral("a\\b"), &error));
    EXPECT_FALSE(checkLongString(QString(33, QChar(0xE9)), &error));
    EXPECT_TRUE(checkLongString(QString(64, QLatin1Char('x')), &error));
}

TEST(DicomValues, PeersAndAeTitlesAreChecked)
{
    DicomPeer peer;
    QString error;
    ASSERT_TRUE(parsePeer(QStringLiteral("127.0.0.1:4242"), &peer, &error));
    EXPECT_EQ(peer.host, QStringLiteral("127.0.0.1"));
    EXPECT_EQ(peer.port, 4242);
    ASSERT_TRUE(parsePeer(QStringLiteral("[::1]:104"), &peer, &error));
    EXPECT_EQ(peer.host, QStringLiteral("::1"));
    for (const char* bad : { "pacs", "pacs:", ":104", "pacs:0", "pacs:65536", "pa cs:104" })
        EXPECT_FALSE(parsePeer(QString::fromLatin1(bad), &peer, &error)) << bad;
    EXPECT_TRUE(checkAeTitle(QStringLiteral("ORTHANC"), &error));
    EXPECT_FALSE(checkAeTitle(QString(17, QLatin1Char('A')), &error));
    EXPECT_FALSE(checkAeTitle(QStringLiteral("A\\B"), &error));
    EXPECT_FALSE(checkAeTitle(QStringLiteral("   "), &error));
    EXPECT_FALSE(checkAeTitle(QString(), &error));
}
