#include "tools/Record.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>

#include <dlfcn.h>

#include "tools/ExitCodes.h"
#include "tools/InstallLayout.h"

namespace korux {

namespace {

constexpr unsigned long kErrorSize = 2048;

bool usable(const QString& path, const QString& skipDirectory)
{
    const QFileInfo file(path);
    if (!file.isFile())
        return false;
    return skipDirectory.isEmpty()
        || QFileInfo(file.absolutePath()).canonicalFilePath() != QFileInfo(skipDirectory).canonicalFilePath();
}

// The ldconfig cache as `ldconfig -p` prints it: "\tNAME (FLAGS) => PATH".
QString fromLdconfigCache(const QString& name, const QString& skipDirectory)
{
    QString program = QStandardPaths::findExecutable(QStringLiteral("ldconfig"));
    if (program.isEmpty())
        program = QStandardPaths::findExecutable(
            QStringLiteral("ldconfig"), { QStringLiteral("/sbin"), QStringLiteral("/usr/sbin") });
    if (program.isEmpty())
        return QString();
    QProcess process;
    process.start(program, { QStringLiteral("-p") });
    if (!process.waitForFinished(10000))
        return QString();
    const QString listing = QString::fromLocal8Bit(process.readAllStandardOutput());
    for (const QString& line : listing.split(QLatin1Char('\n'))) {
        const QString trimmed = line.trimmed();
        if (!trimmed.startsWith(name + QLatin1Char(' ')))
            continue;
        // A 64-bit process takes the 64-bit entries only.
        if (sizeof(void*) == 8 && !trimmed.contains(QLatin1String("64")))
            continue;
        const int arrow = trimmed.indexOf(QLatin1String("=> "));
        if (arrow >= 0 && usable(trimmed.mid(arrow + 3), skipDirectory))
            return trimmed.mid(arrow + 3);
    }
    return QString();
}

} // namespace

QString findSystemLibrary(const QString& name, const QString& skipDirectory)
{
    for (const QString& directory :
        QString::fromLocal8Bit(qgetenv("LD_LIBRARY_PATH")).split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        const QString path = QDir(directory).filePath(name);
        if (usable(path, skipDirectory))
            return QFileInfo(path).absoluteFilePath();
    }
    const QString cached = fromLdconfigCache(name, skipDirectory);
    if (!cached.isEmpty())
        return cached;
    for (const char* directory : { "/lib/x86_64-linux-gnu", "/usr/lib/x86_64-linux-gnu", "/lib64",
             "/usr/lib64", "/lib", "/usr/lib" }) {
        const QString path = QDir(QString::fromLatin1(directory)).filePath(name);
        if (usable(path, skipDirectory))
            return path;
    }
    return QString();
}

QString recordingBridgeFileFrom(const QString& executableDirectory)
{
    return locateFile(
        executableDirectory, { "../lib/record", KORUX_RECORD_DIR_FROM_BIN }, QStringLiteral("libft4222.so"));
}

int checkRecordTarget(const Options& options, Console& console)
{
    // The trace is written beside its final name and renamed at the end.
    const QFileInfo trace(options.record);
    const QFileInfo folder(trace.absolutePath());
    if (!folder.isDir() || !folder.isWritable()) {
        console.error(QStringLiteral("korux: --record %1: the folder %2 cannot be written")
                          .arg(options.record, folder.absoluteFilePath()));
        return kExitUsage;
    }
    if (trace.isDir()) {
        console.error(
            QStringLiteral("korux: --record %1 is a folder; give the trace a file name").arg(options.record));
        return kExitUsage;
    }
    return kExitOk;
}

int loadRecordingBridge(const Options& options, const QString& bridge, const QString& executableDirectory,
    Console& console, BridgeInfo* info)
{
    const QString recorder = recordingBridgeFileFrom(executableDirectory);
    const QString recorderDirectory = QFileInfo(recorder).absolutePath();
    QString real;
    if (bridge == QLatin1String("virtual")) {
        real = QFileInfo(virtualBridgeFileFrom(executableDirectory)).absoluteFilePath();
    } else if (bridge == QLatin1String("vendor")) {
        // By its path: the recording bridge carries the vendor's name, so
        // the name alone would give the recorder itself.
        real = findSystemLibrary(QStringLiteral("libft4222.so"), recorderDirectory);
        if (real.isEmpty()) {
            console.error(QStringLiteral("korux: no FT4222 bridge library is installed on this machine: "
                                         "libft4222.so is in none of the library directories, so there is "
                                         "nothing to record (korux --bridge vendor doctor says more)"));
            return kExitNoBridge;
        }
    } else if (bridge.contains(QLatin1Char('/'))) {
        real = QFileInfo(bridge).absoluteFilePath();
    } else {
        real = findSystemLibrary(bridge, recorderDirectory);
        if (real.isEmpty()) {
            console.error(QStringLiteral("korux: cannot find the bridge library %1 to record").arg(bridge));
            return kExitNoBridge;
        }
    }
    if (!QFileInfo::exists(real)) {
        console.error(QStringLiteral("korux: cannot load the bridge library %1: no such file").arg(real));
        return kExitNoBridge;
    }
    const int target = checkRecordTarget(options, console);
    if (target != kExitOk)
        return target;
    const QFileInfo trace(options.record);
    qputenv("KORUX_RECORD_LIBRARY", QFile::encodeName(real));
    qputenv("KORUX_RECORD_FILE", QFile::encodeName(trace.absoluteFilePath()));
    qputenv("KORUX_RECORD_MASK_SERIALS", options.recordMaskSerials ? "1" : "0");

    info->handle = dlopen(QFile::encodeName(recorder).constData(), RTLD_NOW | RTLD_GLOBAL);
    if (!info->handle) {
        const char* reason = dlerror();
        console.error(QStringLiteral("korux: cannot load the recording bridge %1: %2")
                          .arg(recorder, QString::fromLocal8Bit(reason ? reason : "unknown error")));
        console.error(QStringLiteral("  (it is built with the project: cmake --build build)"));
        return kExitNoBridge;
    }
    auto open = reinterpret_cast<int (*)(char*, unsigned long)>(dlsym(info->handle, "krec_open"));
    auto recordedBridge = reinterpret_cast<void* (*)()>(dlsym(info->handle, "krec_bridge"));
    info->finishRecording = reinterpret_cast<int (*)(char*, unsigned long, unsigned long long*)>(
        dlsym(info->handle, "krec_finish"));
    if (!open || !recordedBridge || !info->finishRecording) {
        console.error(QStringLiteral("korux: %1 is not the recording bridge").arg(recorder));
        return kExitNoBridge;
    }
    char error[kErrorSize] = {};
    if (open(error, kErrorSize) != 0) {
        console.error(QStringLiteral("korux: --record: %1").arg(QString::fromLocal8Bit(error)));
        info->finishRecording = nullptr;
        return kExitNoBridge;
    }
    info->control = recordedBridge();
    info->file = real;
    info->recordFile = trace.absoluteFilePath();
    return kExitOk;
}

int finishBridge(const BridgeInfo& bridge, Console& console, bool quiet, int result)
{
    char error[kErrorSize] = {};
    if (bridge.replayDivergence && bridge.replayDivergence(error, kErrorSize) != 0) {
        console.error(QStringLiteral("korux: ") + QString::fromLocal8Bit(error));
        if (result == kExitOk)
            result = kExitFailure;
    }
    if (bridge.finishRecording) {
        unsigned long long calls = 0;
        error[0] = '\0';
        if (bridge.finishRecording(error, kErrorSize, &calls) != 0) {
            console.error(QStringLiteral("korux: the trace: %1").arg(QString::fromLocal8Bit(error)));
            if (result == kExitOk)
                result = kExitFailure;
        } else if (!quiet) {
            console.error(QStringLiteral("korux: bridge traffic recorded to %1 (%2 calls)")
                              .arg(bridge.recordFile)
                              .arg(calls));
        }
    }
    return result;
}

} // namespace korux
