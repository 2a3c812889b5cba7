// korux flash-files: the family directory checked before the flash is read,
// and every copy checked against its flash header afterwards.
#include <QDir>
#include <QFile>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tools/KoruxRunner.h"

using namespace korux_test;

namespace {

constexpr char kBoard[] = "59881DA3846E4A89";

class KoruxFlashFiles : public Korux {
protected:
    KoruxRun flashFiles(const QString& directory, const QString& scenario = QString())
    {
        QStringList words { QStringLiteral("-v"), QStringLiteral("--dir"), directory,
            QStringLiteral("--time-scale"), QStringLiteral("0") };
        if (!scenario.isEmpty())
            words << QStringLiteral("--scenario")
                  << writeFile(QStringLiteral("scenario.json"), scenario.toUtf8());
        return korux(words + QStringList { QStringLiteral("flash-files"), QStringLiteral("--all") });
    }
};

} // namespace

TEST_F(KoruxFlashFiles, ADirectoryThatIsAFileIsRefusedBeforeTheFlashIsRead)
{
    const QString file = writeFile(QStringLiteral("afile"), "x");
    const KoruxRun run = flashFiles(file);
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.err.contains(
        QStringLiteral("korux: the family directory (--dir): %1 is not a directory").arg(file)))
        << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("readFlash"))) << run.out;
    EXPECT_FALSE(run.out.contains(QStringLiteral("files in"))) << run.out;
    EXPECT_FALSE(run.err.contains(QStringLiteral("device not open"))) << run.err;
}

TEST_F(KoruxFlashFiles, AReadOnlyDirectoryIsRefusedBeforeTheFlashIsRead)
{
    // /proc/self takes no new file, whoever asks.
    QStringList directories { QStringLiteral("/proc/self") };
    if (geteuid() != 0) {
        const QString readOnly = path(QStringLiteral("read-only"));
        ASSERT_TRUE(QDir().mkpath(readOnly));
        ASSERT_TRUE(QFile::setPermissions(readOnly, QFile::ReadOwner | QFile::ExeOwner));
        directories << readOnly;
    }
    for (const QString& directory : directories) {
        const KoruxRun run = flashFiles(directory);
        EXPECT_EQ(run.exitCode, 2) << directory;
        EXPECT_TRUE(run.err.contains(
            QStringLiteral("korux: the family directory (--dir): %1 is not writable").arg(directory)))
            << run.err;
        EXPECT_FALSE(run.out.contains(QStringLiteral("readFlash"))) << run.out;
    }
}

TEST_F(KoruxFlashFiles, AFileMissingFromTheFlashIsNamedWithWhatItCost)
{
    // Four equal bytes where the BLK header should be: no data there. The
    // plug-in stops at it, so DPL, PRD and ASS are not copied either.
    const KoruxRun run = flashFiles(
        familyDirectory(), QStringLiteral(R"({"sensors": [{"flash": {"BLK": {"hex": "ff ff ff ff"}}}]})"));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(
        run.err.contains(QStringLiteral("the flash holds no BLK file at 0x500000 (no data to be read!); "
                                        "%1/%2.BLK is not copied")
                             .arg(familyDirectory(), kBoard)))
        << run.err;
    EXPECT_TRUE(run.err.contains(QStringLiteral("%1/%2.DPL is missing").arg(familyDirectory(), kBoard)))
        << run.err;
    EXPECT_TRUE(run.err.contains(
        QStringLiteral("korux: 4 flash files not copied whole to %1").arg(familyDirectory())))
        << run.err;
    EXPECT_FALSE(run.out.contains(QStringLiteral("files in"))) << run.out;
}

TEST_F(KoruxFlashFiles, ACopyThatCouldNotBeWrittenIsNamed)
{
    ASSERT_TRUE(QDir().mkpath(QStringLiteral("%1/%2.FFC").arg(familyDirectory(), kBoard)));
    const KoruxRun run = flashFiles(familyDirectory());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.err.contains(QStringLiteral("%1/%2.FFC is not a file").arg(familyDirectory(), kBoard)))
        << run.err;
}
