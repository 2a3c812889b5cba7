#include "tools/KeepFile.h"

#include <QFileInfo>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace korux {

bool keepFile(const QString& path, const QByteArray& bytes, bool replace, QString* error)
{
    const QFileInfo target(path);
    QTemporaryFile temporary(
        target.absolutePath() + QStringLiteral("/.") + target.fileName() + QStringLiteral(".XXXXXX"));
    auto fail = [&](const QString& reason) {
        *error = QStringLiteral("cannot write %1: %2").arg(path, reason);
        return false;
    };
    if (!temporary.open())
        return fail(temporary.errorString());
    // A temporary file is the owner's alone; the kept one is made as any
    // new file would be.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    if (::fchmod(temporary.handle(), 0666 & ~mask) != 0)
        return fail(QString::fromLocal8Bit(std::strerror(errno)));
    if (temporary.write(bytes) != bytes.size() || !temporary.flush())
        return fail(temporary.errorString());
    if (::fsync(temporary.handle()) != 0)
        return fail(QString::fromLocal8Bit(std::strerror(errno)));
    const QByteArray from = QFile::encodeName(temporary.fileName());
    const QByteArray to = QFile::encodeName(target.absoluteFilePath());
    if (replace) {
        if (std::rename(from.constData(), to.constData()) != 0)
            return fail(QString::fromLocal8Bit(std::strerror(errno)));
        temporary.setAutoRemove(false);
        return true;
    }
    // The temporary name goes with the QTemporaryFile; the link stays.
    if (::link(from.constData(), to.constData()) != 0) {
        if (errno == EEXIST) {
            *error = QStringLiteral("%1 exists already").arg(path);
            return false;
        }
        return fail(QString::fromLocal8Bit(std::strerror(errno)));
    }
    return true;
}

} // namespace korux
