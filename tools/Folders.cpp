#include "tools/Folders.h"

#include <QDir>
#include <QFileInfo>

#include <sys/statvfs.h>

#include "tools/AtomicFile.h"

namespace korux {

namespace {

// Room kept free beside the estimate: the file system's own bookkeeping.
constexpr qint64 kSpareBytes = 1 << 20;

QString megabytes(qint64 bytes)
{
    return QString::number(double(bytes) / (1 << 20), 'f', 1) + QStringLiteral(" MiB");
}

} // namespace

qint64 freeBytes(const QString& path)
{
    // A stand-in for tests that cannot mount a small file system.
    bool fake = false;
    const qint64 given = qEnvironmentVariable("KORUX_TEST_FREE_BYTES").toLongLong(&fake);
    if (fake)
        return given;
    struct statvfs info = {};
    if (statvfs(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return qint64(info.f_bavail) * qint64(info.f_frsize);
}

bool prepareFolder(const QString& folder, qint64 bytes, QString* reason)
{
    const QFileInfo info(folder);
    if (info.exists() && !info.isDir()) {
        *reason = QStringLiteral("%1 is not a directory").arg(folder);
        return false;
    }
    if (!info.exists()) {
        const QFileInfo parent(info.absolutePath());
        if (!parent.isDir()) {
            *reason
                = QStringLiteral("%1 cannot be created: %2 does not exist").arg(folder, parent.filePath());
            return false;
        }
        if (!QDir(parent.filePath()).mkdir(info.fileName()) && !QFileInfo(folder).isDir()) {
            *reason = QStringLiteral("%1 cannot be created").arg(folder);
            return false;
        }
    }
    if (!directoryIsWritable(folder, reason))
        return false;
    const qint64 free = freeBytes(folder);
    if (bytes > 0 && free >= 0 && free < bytes + kSpareBytes) {
        *reason = QStringLiteral("%1 has %2 free; the files need about %3")
                      .arg(folder, megabytes(free), megabytes(bytes + kSpareBytes));
        return false;
    }
    return true;
}

qint64 shotBytes(int sizeCode, int dicomFiles)
{
    const qint64 width = sizeCode == 1 ? 1000 : 1300;
    const qint64 height = sizeCode == 1 ? 1506 : 1706;
    const qint64 pixels = width * height;
    // Two 16-bit PNGs, the 8-bit preview, DICOM pixel data, and a little
    // for the description, the plot and the files' headers.
    return 2 * (2 * pixels) + pixels + dicomFiles * (2 * pixels) + (256 << 10);
}

QString stateDirectory()
{
    QString base = qEnvironmentVariable("XDG_STATE_HOME");
    // Only an absolute path counts, as the XDG rules say.
    if (base.isEmpty() || QDir::isRelativePath(base))
        base = QDir::homePath() + QStringLiteral("/.local/state");
    return QDir::cleanPath(base + QStringLiteral("/korux"));
}

QString rescueDirectory()
{
    return stateDirectory() + QStringLiteral("/rescue");
}

} // namespace korux
