#include "tools/AtomicFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <csignal>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/Interrupt.h"

namespace korux {

namespace {

// The mode a file created by open(2) with 0666 gets under the umask.
mode_t defaultMode()
{
    static const mode_t mode = [] {
        const mode_t mask = umask(0);
        umask(mask);
        return static_cast<mode_t>(0666 & ~mask);
    }();
    return mode;
}

bool syncDirectory(const QByteArray& directory)
{
    const int fd = ::open(directory.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = fsync(fd) == 0 || errno == EINVAL;
    close(fd);
    return synced;
}

QByteArray directoryOf(const QByteArray& path)
{
    const int slash = path.lastIndexOf('/');
    if (slash < 0)
        return QByteArray(".");
    return slash == 0 ? QByteArray("/") : path.left(slash);
}

// rename(2) that does not replace: renameat2 where the file system has it,
// else a hard link, which fails just as atomically on a taken name.
int renameNoReplace(const char* from, const char* to)
{
#ifdef RENAME_NOREPLACE
    if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS)
        return -1;
#endif
    if (link(from, to) != 0)
        return -1;
    unlink(from);
    return 0;
}

// Temporary files younger than this are left alone whatever their lock says:
// a writer takes its lock a moment after it creates its file.
constexpr qint64 kAbandonedAfterMs = 1000;

// Whether the process named first in a lock file ("PID NAME") still runs.
bool lockHolderRuns(const QByteArray& lockPath)
{
    QFile lock(QFile::decodeName(lockPath));
    if (!lock.open(QIODevice::ReadOnly))
        return false;
    bool ok = false;
    const qint64 pid = lock.readLine(64).split(' ').value(0).trimmed().toLongLong(&ok);
    return ok && pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

// The ".NAME.tmp-XXXXXX" files of writers that no longer run (a korux that
// was killed): each korux writer holds a lock on its file while it lives,
// and the virtual bridge's flash image is guarded by NAME.lock, which names
// its holder. Once per folder and process.
} // namespace

void removeAbandonedTemporaries(const QByteArray& directory)
{
    static QSet<QByteArray> cleaned;
    if (cleaned.contains(directory))
        return;
    cleaned.insert(directory);
    DIR* folder = opendir(directory.constData());
    if (!folder)
        return;
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    while (const dirent* entry = readdir(folder)) {
        const QByteArray name(entry->d_name);
        const int marker = name.lastIndexOf(".tmp-");
        if (!name.startsWith('.') || marker <= 1 || name.size() - marker != 11)
            continue;
        const QByteArray path = directory + '/' + name;
        const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0)
            continue;
        struct stat status = {};
        const bool old = fstat(fd, &status) == 0 && S_ISREG(status.st_mode)
            && (now.tv_sec - status.st_mtim.tv_sec) * 1000 + (now.tv_nsec - status.st_mtim.tv_nsec) / 1000000
                >= kAbandonedAfterMs;
        const QByteArray target = name.mid(1, marker - 1);
        if (old && flock(fd, LOCK_EX | LOCK_NB) == 0 && !lockHolderRuns(directory + '/' + target + ".lock"))
            unlink(path.constData());
        close(fd);
    }
    closedir(folder);
}

void removeAbandonedTemporaries(const QString& directory)
{
    removeAbandonedTemporaries(QFile::encodeName(QDir::cleanPath(QDir(directory).absolutePath())));
}

AtomicFile::AtomicFile(const QString& path, Existing existing)
    : path_(path)
    , existing_(existing)
{
}

AtomicFile::~AtomicFile()
{
    if (!committed_)
        discard();
}

bool AtomicFile::open()
{
    // A link is followed: the file it names is replaced, the link stays.
    const QFileInfo link(path_);
    const QString resolved = link.isSymLink() && link.exists() ? link.canonicalFilePath() : path_;
    const QByteArray target = QFile::encodeName(resolved);
    target_ = target;
    struct stat status = {};
    if (stat(target.constData(), &status) == 0 && !S_ISREG(status.st_mode)) {
        if (S_ISDIR(status.st_mode))
            return fail(EISDIR);
        if (existing_ == Existing::Keep) {
            alreadyExists_ = true;
            return fail(EEXIST);
        }
        fd_ = ::open(target.constData(), O_WRONLY | O_CLOEXEC);
        return fd_ >= 0 || fail(errno);
    }
    const QByteArray directory = directoryOf(target);
    const QByteArray name = target.mid(target.lastIndexOf('/') + 1);
    removeAbandonedTemporaries(directory);
    QByteArray pattern = directory + "/." + name + ".tmp-XXXXXX";
    fd_ = mkostemp(pattern.data(), O_CLOEXEC);
    if (fd_ < 0)
        return fail(errno);
    // Held while this process lives: the next korux leaves the file alone.
    flock(fd_, LOCK_EX | LOCK_NB);
    temporary_ = pattern;
    slot_ = registerTemporary(temporary_.constData());
    fchmod(fd_, defaultMode());
    return true;
}

bool AtomicFile::write(const char* data, qint64 size)
{
    if (fd_ < 0 || errno_ != 0)
        return fail(errno_ != 0 ? errno_ : EBADF);
    while (size > 0) {
        const ssize_t written = ::write(fd_, data, static_cast<size_t>(size));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return fail(errno);
        }
        data += written;
        size -= written;
    }
    return true;
}

bool AtomicFile::commit()
{
    if (fd_ < 0 || errno_ != 0)
        return fail(errno_ != 0 ? errno_ : EBADF);
    // Terminals and pipes cannot be synced; that is no failure.
    if (fsync(fd_) != 0 && errno != EINVAL && errno != EROFS)
        return fail(errno);
    const int fd = fd_;
    fd_ = -1;
    if (close(fd) != 0 && errno != EINTR)
        return fail(errno);
    if (!temporary_.isEmpty()) {
        const QByteArray& target = target_;
        const int renamed = existing_ == Existing::Replace
            ? rename(temporary_.constData(), target.constData())
            : renameNoReplace(temporary_.constData(), target.constData());
        if (renamed != 0) {
            alreadyExists_ = errno == EEXIST;
            return fail(errno);
        }
        unregisterTemporary(slot_);
        slot_ = -1;
        temporary_.clear();
        syncDirectory(directoryOf(target));
    }
    committed_ = true;
    return true;
}

void AtomicFile::discard()
{
    closeAndRemove();
}

void AtomicFile::closeAndRemove()
{
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
    if (!temporary_.isEmpty()) {
        unlink(temporary_.constData());
        unregisterTemporary(slot_);
        slot_ = -1;
        temporary_.clear();
    }
}

bool AtomicFile::fail(int error)
{
    if (errno_ == 0)
        errno_ = error;
    closeAndRemove();
    return false;
}

QString AtomicFile::errorString() const
{
    if (alreadyExists_)
        return QStringLiteral("%1 exists already").arg(path_);
    return QStringLiteral("cannot write %1: %2").arg(path_, QString::fromLocal8Bit(std::strerror(errno_)));
}

bool writeFileAtomically(
    const QString& path, const QByteArray& bytes, AtomicFile::Existing existing, QString* error)
{
    AtomicFile file(path, existing);
    if (file.open() && file.write(bytes) && file.commit())
        return true;
    if (error)
        *error = file.errorString();
    return false;
}

bool directoryIsWritable(const QString& directory, QString* reason)
{
    const QFileInfo info(directory);
    if (!info.exists()) {
        *reason = QStringLiteral("%1 does not exist").arg(directory);
        return false;
    }
    if (!info.isDir()) {
        *reason = QStringLiteral("%1 is not a directory").arg(directory);
        return false;
    }
    QByteArray probe = QFile::encodeName(directory) + "/.korux-probe-XXXXXX";
    const int fd = mkostemp(probe.data(), O_CLOEXEC);
    if (fd < 0) {
        *reason = QStringLiteral("%1 is not writable: %2")
                      .arg(directory, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    close(fd);
    unlink(probe.constData());
    return true;
}

} // namespace korux
