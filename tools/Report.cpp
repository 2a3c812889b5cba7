// korux report: one bundle (a gzip-compressed tar file) with what support
// needs of a machine and its sensor: versions and paths, korux doctor and
// korux list as JSON, a self-test with its bridge trace, the names, sizes and
// checksums of the family directory's files, and the last self-test traces
// and transcripts kept in korux's state folder. Images only with
// --with-images (the self-test then takes one shot). The README lists it.
#include "tools/Report.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSysInfo>
#include <QTemporaryDir>

#include <cstring>

#include <zlib.h>

#include "host/VeltraXRayHardware.h"
#include "tools/AtomicFile.h"
#include "tools/BridgeLoader.h"
#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Folders.h"
#include "tools/PluginHost.h"

namespace korux {

namespace {

constexpr char kTop[] = "korux-report/";
constexpr int kBlock = 512;

void octal(char* field, int size, qint64 value)
{
    // size - 1 digits and a NUL, as ustar has them.
    std::snprintf(field, static_cast<size_t>(size), "%0*llo", size - 1, static_cast<long long>(value));
}

} // namespace

QByteArray tarArchive(const QVector<BundleFile>& files, qint64 modified)
{
    QByteArray archive;
    for (const BundleFile& file : files) {
        QByteArray name = file.name.toUtf8();
        QByteArray prefix;
        if (name.size() > 100) {
            // ustar splits a long name at a slash: up to 155 bytes before it.
            const int slash = name.lastIndexOf('/', 155);
            if (slash > 0 && name.size() - slash - 1 <= 100) {
                prefix = name.left(slash);
                name = name.mid(slash + 1);
            } else {
                name = name.right(100);
            }
        }
        char header[kBlock];
        std::memset(header, 0, sizeof header);
        std::memcpy(header, name.constData(), static_cast<size_t>(name.size()));
        octal(header + 100, 8, 0644);
        octal(header + 108, 8, 0);
        octal(header + 116, 8, 0);
        octal(header + 124, 12, file.bytes.size());
        octal(header + 136, 12, modified);
        std::memset(header + 148, ' ', 8);
        header[156] = '0';
        std::memcpy(header + 257, "ustar", 6);
        std::memcpy(header + 263, "00", 2);
        std::memcpy(header + 345, prefix.constData(), static_cast<size_t>(prefix.size()));
        unsigned sum = 0;
        for (unsigned char c : header)
            sum += c;
        std::snprintf(header + 148, 8, "%06o", sum);
        header[155] = ' ';
        archive.append(header, kBlock);
        archive.append(file.bytes);
        archive.append(QByteArray((kBlock - file.bytes.size() % kBlock) % kBlock, '\0'));
    }
    archive.append(QByteArray(2 * kBlock, '\0'));
    return archive;
}

QByteArray gzipBytes(const QByteArray& bytes)
{
    z_stream stream;
    std::memset(&stream, 0, sizeof stream);
    if (deflateInit2(&stream, 9, Z_DEFLATED, 16 + MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return QByteArray();
    QByteArray out(static_cast<int>(deflateBound(&stream, static_cast<uLong>(bytes.size()))), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(bytes.constData()));
    stream.avail_in = static_cast<uInt>(bytes.size());
    stream.next_out = reinterpret_cast<Bytef*>(out.data());
    stream.avail_out = static_cast<uInt>(out.size());
    const int result = deflate(&stream, Z_FINISH);
    const qint64 written = static_cast<qint64>(stream.total_out);
    deflateEnd(&stream);
    if (result != Z_STREAM_END)
        return QByteArray();
    out.truncate(static_cast<int>(written));
    return out;
}

QString fileListing(const QString& directory)
{
    QString text;
    const QFileInfoList entries = QDir(directory).entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo& entry : entries) {
        QFile file(entry.absoluteFilePath());
        QString sum = QStringLiteral("-");
        if (file.open(QIODevice::ReadOnly)) {
            QCryptographicHash hash(QCryptographicHash::Sha256);
            hash.addData(&file);
            sum = QString::fromLatin1(hash.result().toHex());
        }
        text += QStringLiteral("%1  %2  %3\n").arg(sum).arg(entry.size(), 10).arg(entry.fileName());
    }
    return text;
}

namespace {

struct Child {
    QByteArray out;
    QByteArray err;
    int exitCode = -1;
};

// korux itself, with the session's bridge, scenario, plug-in and family
// directory, on one command.
Child runKorux(const Session& session, const QString& bridge, const QStringList& arguments)
{
    QStringList words;
    const Options& options = session.options;
    if (!bridge.isEmpty())
        words << QStringLiteral("--bridge") << bridge;
    if (!options.scenario.isEmpty())
        words << QStringLiteral("--scenario") << options.scenario;
    if (!options.plugin.isEmpty())
        words << QStringLiteral("--plugin") << options.plugin;
    if (!options.directory.isEmpty())
        words << QStringLiteral("--dir") << options.directory;
    if (options.timeScaleSet)
        words << QStringLiteral("--time-scale") << QString::number(options.timeScale);
    QProcess process;
    // Nothing to read: a child that asked would wait for ever.
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(QCoreApplication::applicationFilePath(), words + arguments);
    Child child;
    if (!process.waitForFinished(300000)) {
        process.kill();
        process.waitForFinished();
        child.out = process.readAllStandardOutput();
        child.err = process.readAllStandardError() + "korux did not finish in 5 minutes\n";
        return child;
    }
    child.out = process.readAllStandardOutput();
    child.err = process.readAllStandardError();
    child.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return child;
}

// The newest files of a folder that match patterns, at most count.
QFileInfoList newest(const QString& directory, const QStringList& patterns, int count)
{
    QFileInfoList files = QDir(directory).entryInfoList(patterns, QDir::Files, QDir::Time);
    return files.mid(0, count);
}

} // namespace

int runSupportReport(Session& session, const CommandLine& line)
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QString target = line.value(QStringLiteral("--out"),
        QStringLiteral("korux-report-%1.tar.gz").arg(now.toString(QStringLiteral("yyyyMMdd-HHmmss"))));
    const bool images = line.has(QStringLiteral("--with-images"));
    // A bundle that could not be written is told before anything runs.
    const QFileInfo folder(QFileInfo(target).absolutePath());
    if (!folder.isDir() || !folder.isWritable()) {
        session.console.error(
            QStringLiteral("korux: report: cannot write %1: the folder %2 cannot be written")
                .arg(target, folder.absoluteFilePath()));
        return kExitUsage;
    }
    QTemporaryDir work;
    if (!work.isValid()) {
        session.console.error(
            QStringLiteral("korux: report: no temporary folder (%1)").arg(work.errorString()));
        return kExitFailure;
    }
    QVector<BundleFile> files;
    auto add = [&](const QString& name, const QByteArray& bytes) { files.append({ kTop + name, bytes }); };
    auto addChild = [&](const QString& name, const Child& child) {
        add(name, child.out);
        if (!child.err.isEmpty())
            add(name + QStringLiteral(".stderr"), child.err);
    };

    // The bundle holds no bridge and no plug-in of its own: its korux
    // children do, one after the other. Held here, the virtual machine's
    // flash image would be locked while they wait for it. The automatic
    // choice is made once, here, and the bridge chosen is what every child
    // runs on and the bundle describes.
    const QString bridge = chosenBridge(session.options, session.console);
    QString family = session.options.directory;
    if (family.isEmpty())
        family = session.host && session.host->family() ? session.host->family()->directory().path()
                                                        : QVeltraHardwareFamily().directory().path();
    QString versions;
    versions += QStringLiteral("report written %1\n").arg(now.toString(Qt::ISODate));
    versions += runKorux(session, bridge, { QStringLiteral("--version") }).out;
    versions += QStringLiteral("korux %1\n").arg(QCoreApplication::applicationFilePath());
    versions += session.options.bridge == QLatin1String("auto")
        ? QStringLiteral("bridge %1 (chosen by --bridge auto)\n").arg(bridge)
        : QStringLiteral("bridge %1\n").arg(bridge);
    versions += QStringLiteral("family directory %1\n").arg(family);
    versions += QStringLiteral("system %1, kernel %2 %3\n")
                    .arg(QSysInfo::prettyProductName(), QSysInfo::kernelType(), QSysInfo::kernelVersion());
    add(QStringLiteral("versions.txt"), versions.toUtf8());

    session.console.out(QStringLiteral("report: korux doctor"));
    // The plain doctor checks what real sensors need (the vendor's
    // library); on the virtual bridge it checks that bridge instead.
    const QString doctorBridge = bridge == QLatin1String("vendor") ? QString() : bridge;
    addChild(QStringLiteral("doctor.txt"), runKorux(session, doctorBridge, { QStringLiteral("doctor") }));
    const Child doctorJson
        = runKorux(session, doctorBridge, { QStringLiteral("--json"), QStringLiteral("doctor") });
    if (!doctorJson.out.isEmpty())
        add(QStringLiteral("doctor.json"), doctorJson.out);
    session.console.out(QStringLiteral("report: korux list"));
    addChild(QStringLiteral("list.json"),
        runKorux(session, bridge, { QStringLiteral("--json"), QStringLiteral("list") }));
    session.console.out(QStringLiteral("report: korux selftest%1").arg(images ? " --expose" : ""));
    const QString trace = work.filePath(QStringLiteral("selftest.trace"));
    QStringList selftest { QStringLiteral("--json"), QStringLiteral("--record"), trace,
        QStringLiteral("selftest") };
    if (images)
        selftest << QStringLiteral("--expose") << QStringLiteral("--out")
                 << work.filePath(QStringLiteral("shot"));
    addChild(QStringLiteral("selftest.json"), runKorux(session, bridge, selftest));
    QFile traceFile(trace);
    if (traceFile.open(QIODevice::ReadOnly))
        add(QStringLiteral("selftest.trace"), traceFile.readAll());
    if (images)
        for (const QFileInfo& shot : QDir(work.filePath(QStringLiteral("shot"))).entryInfoList(QDir::Files)) {
            QFile file(shot.absoluteFilePath());
            if (file.open(QIODevice::ReadOnly))
                add(QStringLiteral("images/") + shot.fileName(), file.readAll());
        }
    add(QStringLiteral("family-files.txt"), fileListing(family).toUtf8());
    // The last self-tests' traces and the transcripts korux keeps.
    for (const QFileInfo& kept :
        newest(stateDirectory(),
            { QStringLiteral("selftest-*.trace"), QStringLiteral("*.jsonl"), QStringLiteral("*.transcript") },
            5)) {
        QFile file(kept.absoluteFilePath());
        if (file.open(QIODevice::ReadOnly))
            add(QStringLiteral("kept/") + kept.fileName(), file.readAll());
    }

    const QByteArray bundle = gzipBytes(tarArchive(files, now.toSecsSinceEpoch()));
    QString error;
    AtomicFile out(target);
    if (bundle.isEmpty() || !out.open() || !out.write(bundle) || !out.commit()) {
        session.console.error(QStringLiteral("korux: report: %1")
                                  .arg(bundle.isEmpty() ? QStringLiteral("the bundle could not be compressed")
                                                        : out.errorString()));
        return kExitFailure;
    }
    session.console.out(
        QStringLiteral("wrote %1 (%2 files, %3 bytes)").arg(target).arg(files.size()).arg(bundle.size()));
    session.console.json({ { QStringLiteral("wrote"), target }, { QStringLiteral("files"), files.size() } });
    return kExitOk;
}

bool supportBundle(const Options& options, const CommandLine& line)
{
    return options.command == QLatin1String("report") && !line.has(QStringLiteral("--family"));
}

int runReportCommand(Session& session, const CommandLine& line)
{
    // In a script or the shell, and with --family, report is the family's
    // parameter report (command 1010); on korux's own command line, the
    // support bundle.
    if (!supportBundle(session.options, line))
        return runReport(session, line);
    return runSupportReport(session, line);
}

} // namespace korux
