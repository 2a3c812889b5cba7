// korux report: one gzip-compressed tar file holding what the README says
// (versions, doctor, list, the self-test with its trace, the family's files
// with checksums), images only with --with-images; and report in a script
// is still the family's parameter report.
#include <QCryptographicHash>
#include <QDir>
#include <QProcess>

#include "record/Trace.h"
#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

class KoruxReport : public Korux {
protected:
    // The names in the bundle, as tar lists them.
    QStringList listing(const QString& bundle)
    {
        QProcess tar;
        tar.start(QStringLiteral("tar"), { QStringLiteral("tzf"), bundle });
        EXPECT_TRUE(tar.waitForFinished(30000));
        EXPECT_EQ(tar.exitCode(), 0) << tar.readAllStandardError().toStdString();
        return QString::fromUtf8(tar.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    }

    QByteArray member(const QString& bundle, const QString& name)
    {
        QProcess tar;
        tar.start(QStringLiteral("tar"), { QStringLiteral("xzOf"), bundle, name });
        EXPECT_TRUE(tar.waitForFinished(30000));
        EXPECT_EQ(tar.exitCode(), 0) << name;
        return tar.readAllStandardOutput();
    }
};

} // namespace

TEST_F(KoruxReport, TheBundleHoldsWhatTheReadmeSays)
{
    // A family directory with the sensor's files in it, as after a first run.
    ASSERT_EQ(koruxOn({ QStringLiteral("flash-files") }).exitCode, 0);
    const QString bundle = path(QStringLiteral("support.tar.gz"));
    const KoruxRun run = koruxOn({ QStringLiteral("report"), QStringLiteral("--out"), bundle });
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("wrote ") + bundle)) << run.out;

    const QStringList names = listing(bundle);
    for (const char* name :
        { "korux-report/versions.txt", "korux-report/doctor.txt", "korux-report/list.json",
            "korux-report/selftest.json", "korux-report/selftest.trace", "korux-report/family-files.txt" })
        EXPECT_TRUE(names.contains(QString::fromLatin1(name))) << name << names.join(' ');
    for (const QString& name : names)
        EXPECT_FALSE(name.endsWith(QLatin1String(".png"))) << name;

    EXPECT_TRUE(member(bundle, QStringLiteral("korux-report/versions.txt")).contains("korux "));
    EXPECT_TRUE(member(bundle, QStringLiteral("korux-report/list.json")).contains("\"boardSerial\""));
    EXPECT_TRUE(
        member(bundle, QStringLiteral("korux-report/selftest.json")).contains("\"selftest\":\"PASS\""));
    std::string text, error;
    bool cut = false;
    ktrace::Trace trace;
    ASSERT_TRUE(ktrace::decompress(
        member(bundle, QStringLiteral("korux-report/selftest.trace")).toStdString(), &text, &cut, &error))
        << error;
    ASSERT_TRUE(ktrace::parseTrace(text, &trace, &error)) << error;
    EXPECT_TRUE(trace.complete);
    EXPECT_FALSE(trace.calls.empty());

    // Every file of the family directory, with its size and checksum.
    const QString files = QString::fromUtf8(member(bundle, QStringLiteral("korux-report/family-files.txt")));
    const QStringList copied = QDir(familyDirectory()).entryList(QDir::Files);
    ASSERT_FALSE(copied.isEmpty());
    for (const QString& name : copied) {
        QFile file(QDir(familyDirectory()).filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const QByteArray bytes = file.readAll();
        const QString sum
            = QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
        EXPECT_TRUE(files.contains(QStringLiteral("%1  %2  %3").arg(sum).arg(bytes.size(), 10).arg(name)))
            << name << files;
    }
}

TEST_F(KoruxReport, ImagesOnlyWithWithImages)
{
    const QString bundle = path(QStringLiteral("images.tar.gz"));
    const KoruxRun run = koruxOn(
        { QStringLiteral("report"), QStringLiteral("--with-images"), QStringLiteral("--out"), bundle });
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const QStringList names = listing(bundle);
    EXPECT_TRUE(std::any_of(names.begin(), names.end(), [](const QString& name) {
        return name.startsWith(QLatin1String("korux-report/images/")) && name.endsWith(QLatin1String(".png"));
    })) << names.join(' ');
}

TEST_F(KoruxReport, ABundleThatCannotBeWrittenIsAFailure)
{
    const KoruxRun run = koruxOn({ QStringLiteral("report"), QStringLiteral("--out"),
        QStringLiteral("/nonexistent/korux/support.tar.gz") });
    // Told before anything runs.
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.out.isEmpty()) << run.out;
    EXPECT_TRUE(
        run.err.startsWith(QStringLiteral("korux: report: cannot write /nonexistent/korux/support.tar.gz")))
        << run.err;
}

TEST_F(KoruxReport, FamilyGivesTheFamilysParameterReport)
{
    const KoruxRun run
        = koruxOn({ QStringLiteral("--json"), QStringLiteral("report"), QStringLiteral("--family") });
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.out.contains(QStringLiteral("\"family\":true"))) << run.out;
}

TEST_F(KoruxReport, TheBundleDescribesTheBridgeTheAutomaticChoiceMade)
{
    const QString bundle = path(QStringLiteral("auto.tar.gz"));
    const KoruxRun run = korux({ QStringLiteral("--dir"), familyDirectory(), QStringLiteral("--time-scale"),
        QStringLiteral("0"), QStringLiteral("report"), QStringLiteral("--out"), bundle });
    if (run.err.contains(QStringLiteral("using the vendor's bridge library")))
        GTEST_SKIP() << "a vendor bridge library is installed here";
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // The choice is made and told once: the children run on the bridge chosen.
    EXPECT_EQ(
        run.err.count(QStringLiteral("korux: no vendor bridge library is installed; using the virtual")), 1)
        << run.err;
    EXPECT_TRUE(member(bundle, QStringLiteral("korux-report/versions.txt"))
                    .contains("bridge virtual (chosen by --bridge auto)"));
    EXPECT_TRUE(member(bundle, QStringLiteral("korux-report/doctor.txt")).contains("(the virtual bridge)"));
    EXPECT_TRUE(
        member(bundle, QStringLiteral("korux-report/selftest.json")).contains("\"selftest\":\"PASS\""));
    for (const QString& name : listing(bundle))
        EXPECT_FALSE(name.endsWith(QLatin1String(".stderr"))) << name;
}
