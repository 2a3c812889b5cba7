// korux's signal handling: the first SIGINT or SIGTERM only asks for a stop;
// the second ends the process there and then, removing the temporary files
// being written.
#include <QTemporaryDir>

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tools/Interrupt.h"

using namespace korux;

namespace {

// Runs body in a child process with korux's handlers installed; its exit
// status, or -1 when it did not exit normally.
template <typename Body> int inChild(Body body)
{
    const pid_t child = fork();
    if (child == 0) {
        // Only what a signal handler could do too: no test framework here.
        installSignalHandlers();
        body();
        _exit(0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

bool exists(const QByteArray& path)
{
    return access(path.constData(), F_OK) == 0;
}

} // namespace

TEST(Interrupt, TheFirstSignalOnlyAsksForAStop)
{
    const int status = inChild([] {
        raise(SIGINT);
        _exit(stopSignal() == SIGINT ? 7 : 8);
    });
    EXPECT_EQ(status, 7);
}

TEST(Interrupt, TheSecondSignalEndsAtOnceAndTakesTheTemporaryFilesAlong)
{
    QTemporaryDir directory;
    ASSERT_TRUE(directory.isValid());
    const QByteArray temporary = QFile::encodeName(directory.filePath(QStringLiteral(".shot.png.tmp-1")));
    const QByteArray kept = QFile::encodeName(directory.filePath(QStringLiteral("shot.txt")));
    for (const QByteArray& path : { temporary, kept })
        close(open(path.constData(), O_CREAT | O_WRONLY, 0644));

    const int status = inChild([&] {
        registerTemporary(temporary.constData());
        raise(SIGINT);
        raise(SIGINT);
        _exit(9); // not reached when the second signal ends the process
    });
    EXPECT_EQ(status, 130);
    EXPECT_FALSE(exists(temporary));
    EXPECT_TRUE(exists(kept));
}

TEST(Interrupt, ATemporaryFileNoLongerRegisteredIsLeftAlone)
{
    QTemporaryDir directory;
    ASSERT_TRUE(directory.isValid());
    const QByteArray renamed = QFile::encodeName(directory.filePath(QStringLiteral("shot.png")));
    close(open(renamed.constData(), O_CREAT | O_WRONLY, 0644));

    const int status = inChild([&] {
        unregisterTemporary(registerTemporary(renamed.constData()));
        raise(SIGTERM);
        raise(SIGTERM);
        _exit(9);
    });
    EXPECT_EQ(status, 143);
    EXPECT_TRUE(exists(renamed));
}
