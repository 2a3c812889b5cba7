// korux's file writer: a file appears whole under its name or not at all,
// an existing one is kept when asked, and every failure is told.
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "tools/AtomicFile.h"

using korux::AtomicFile;

namespace {

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

QStringList everything(const QString& directory)
{
    return QDir(directory).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot);
}

} // namespace

TEST(AtomicFile, TheNameShowsTheOldContentsUntilTheCommit)
{
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("shot.txt"));
    ASSERT_TRUE(korux::writeFileAtomically(path, "old", AtomicFile::Existing::Replace, nullptr));
    AtomicFile file(path);
    ASSERT_TRUE(file.open());
    ASSERT_TRUE(file.write(QByteArray("new contents")));
    EXPECT_EQ(contents(path), QByteArray("old"));
    EXPECT_EQ(everything(directory.path()).size(), 2); // the file and its temporary
    ASSERT_TRUE(file.commit());
    EXPECT_EQ(contents(path), QByteArray("new contents"));
    EXPECT_EQ(everything(directory.path()), QStringList { QStringLiteral("shot.txt") });
}

TEST(AtomicFile, AFileNotCommittedLeavesNothing)
{
    QTemporaryDir directory;
    {
        AtomicFile file(directory.filePath(QStringLiteral("shot.png")));
        ASSERT_TRUE(file.open());
        ASSERT_TRUE(file.write(QByteArray(1000, 'x')));
    }
    EXPECT_TRUE(everything(directory.path()).isEmpty());
}

TEST(AtomicFile, KeepRefusesATakenNameAndKeepsItsContents)
{
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("shot.png"));
    ASSERT_TRUE(korux::writeFileAtomically(path, "first", AtomicFile::Existing::Keep, nullptr));
    AtomicFile file(path, AtomicFile::Existing::Keep);
    ASSERT_TRUE(file.open());
    ASSERT_TRUE(file.write(QByteArray("second")));
    EXPECT_FALSE(file.commit());
    EXPECT_TRUE(file.alreadyExists());
    EXPECT_EQ(file.errorString(), QStringLiteral("%1 exists already").arg(path));
    EXPECT_EQ(contents(path), QByteArray("first"));
    EXPECT_EQ(everything(directory.path()), QStringList { QStringLiteral("shot.png") });
}

TEST(AtomicFile, AFullDeviceIsAFailureWithItsReason)
{
    QString error;
    EXPECT_FALSE(korux::writeFileAtomically(
        QStringLiteral("/dev/full"), QByteArray(100, 'x'), AtomicFile::Existing::Replace, &error));
    EXPECT_EQ(error, QStringLiteral("cannot write /dev/full: No space left on device"));
}

TEST(AtomicFile, ADeviceIsWrittenInPlace)
{
    QString error;
    EXPECT_TRUE(korux::writeFileAtomically(
        QStringLiteral("/dev/null"), QByteArray("x"), AtomicFile::Existing::Replace, &error))
        << error.toStdString();
}

TEST(AtomicFile, AMissingFolderIsAFailure)
{
    QTemporaryDir directory;
    QString error;
    const QString path = directory.filePath(QStringLiteral("no/such/shot.png"));
    EXPECT_FALSE(korux::writeFileAtomically(path, "x", AtomicFile::Existing::Replace, &error));
    EXPECT_EQ(error, QStringLiteral("cannot write %1: No such file or directory").arg(path));
}

TEST(AtomicFile, AWritableFolderIsOneAFileCanBeMadeIn)
{
    QTemporaryDir directory;
    QString reason;
    EXPECT_TRUE(korux::directoryIsWritable(directory.path(), &reason));
    EXPECT_TRUE(everything(directory.path()).isEmpty());
    EXPECT_FALSE(korux::directoryIsWritable(QStringLiteral("/proc/self"), &reason));
    EXPECT_TRUE(reason.startsWith(QStringLiteral("/proc/self is not writable: "))) << reason.toStdString();
    EXPECT_FALSE(korux::directoryIsWritable(directory.filePath(QStringLiteral("absent")), &reason));
    EXPECT_EQ(reason, QStringLiteral("%1 does not exist").arg(directory.filePath(QStringLiteral("absent"))));
}

TEST(AtomicFile, ALinkKeepsPointingAtTheNewContents)
{
    QTemporaryDir directory;
    const QString target = directory.filePath(QStringLiteral("real.jsonl"));
    const QString link = directory.filePath(QStringLiteral("link.jsonl"));
    ASSERT_TRUE(korux::writeFileAtomically(target, "old", AtomicFile::Existing::Replace, nullptr));
    ASSERT_TRUE(QFile::link(target, link));
    ASSERT_TRUE(korux::writeFileAtomically(link, "new", AtomicFile::Existing::Replace, nullptr));
    EXPECT_TRUE(QFileInfo(link).isSymLink());
    EXPECT_EQ(contents(target), QByteArray("new"));
}
