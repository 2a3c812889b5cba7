#include "tools/AtomicFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
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

} // namespace

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
    QByteArray pattern = directory + "/." + name + ".tmp-XXXXXX";
    fd_ = mkostemp(pattern.data(), O_CLOEXEC);
    if (fd_ < 0)
        return fail(errno);
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
