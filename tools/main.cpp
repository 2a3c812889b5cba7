// korux: a command-line host for the sensor plug-in. It picks the bridge
// library first, then loads the plug-in the way a host application does and
// runs one command against it, printing whatever the plug-in reports.
#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QGuiApplication>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <unistd.h>

#include "host/VeltraXRayHardware.h"
#include "tools/BridgeLoader.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/ExitCodes.h"
#include "tools/Folders.h"
#include "tools/InstallLayout.h"
#include "tools/FamilyControl.h"
#include "tools/Interrupt.h"
#include "tools/Options.h"
#include "tools/PluginHost.h"
#include "tools/Record.h"
#include "tools/Report.h"
#include "tools/Selftest.h"
#include "tools/ShotOutput.h"
#include "tools/Transcript.h"

using namespace korux;

namespace {

bool wantColour(ColorMode mode)
{
    switch (mode) {
    case ColorMode::Always:
        return true;
    case ColorMode::Never:
        return false;
    case ColorMode::Auto:
        break;
    }
    const char* noColour = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) && !(noColour && *noColour);
}

// One line of what is wrong, and where to read more: the help of the
// command when there is one.
int usageError(Console& console, const QString& reason, const QString& command = QString())
{
    console.error(QStringLiteral("korux: ") + reason);
    console.error(findCommand(command) ? QStringLiteral("korux: see korux help %1").arg(command)
                                       : QStringLiteral("korux: see korux help"));
    return kExitUsage;
}

// The files a transcript must never take the place of: the scenario, and
// the flash images it names or the default machine keeps.
QStringList protectedFiles(const Options& options)
{
    QStringList files;
    QString scenario = options.scenario;
    if (scenario.isEmpty())
        scenario = qEnvironmentVariable("KORUX_SCENARIO");
    if (scenario.isEmpty()) {
        scenario = stateDirectory() + QStringLiteral("/default-machine.json");
        files << stateDirectory() + QStringLiteral("/default-flash.bin");
    }
    files << scenario;
    QFile file(scenario);
    if (file.open(QIODevice::ReadOnly)) {
        const QJsonArray sensors
            = QJsonDocument::fromJson(file.read(1 << 20)).object().value(QStringLiteral("sensors")).toArray();
        for (const QJsonValue& sensor : sensors) {
            const QString image = sensor.toObject()
                                      .value(QStringLiteral("flash"))
                                      .toObject()
                                      .value(QStringLiteral("image"))
                                      .toString();
            if (!image.isEmpty())
                files << QFileInfo(scenario).absoluteDir().filePath(image);
        }
    }
    return files;
}

// The same file, by what it is on the disk where it exists.
bool sameFile(const QString& one, const QString& other)
{
    const QFileInfo a(one);
    const QFileInfo b(other);
    if (a.exists() && b.exists())
        return a.canonicalFilePath() == b.canonicalFilePath();
    return a.absoluteFilePath() == b.absoluteFilePath();
}

// The way out of every command that got as far as running: an interrupted
// one leaves its family stopped and says so, the transcript is put in place,
// and a failed write turns a success into a failure.
int finish(Session& session, Transcript& transcript, int result, const BridgeInfo* bridge = nullptr)
{
    if (stopRequested()) {
        const int signal = stopSignal();
        if (session.host)
            stopArmedFamily(session);
        if (session.transcript)
            session.transcript->record(
                QStringLiteral("interrupted"), { { QStringLiteral("signal"), signal } });
        session.console.error(QStringLiteral("korux: interrupted"));
        result = stopExitStatus(signal);
    }
    // A replay that left its recording, a trace not put in place.
    if (bridge)
        result
            = finishBridge(*bridge, session.console, session.options.quiet || session.options.json, result);
    // The virtual sensor's flash is kept in a file: one that fell behind is
    // a write error like any other.
    const QString image = bridge ? flashImageFailure(*bridge) : QString();
    if (!image.isEmpty()) {
        session.console.error(QStringLiteral("korux: the virtual bridge: %1").arg(image));
        if (result == kExitOk)
            result = kExitFailure;
    }
    if (transcript.isOpen() && !transcript.close()) {
        session.console.error(QStringLiteral("korux: the transcript: %1").arg(transcript.errorString()));
        if (result == kExitOk)
            result = kExitFailure;
    }
    // A closed pipe ends in the status a writer killed by SIGPIPE has, once
    // the command is done and its files are written.
    if (session.console.outputFailed() && result == kExitOk)
        result = session.console.outputError() == EPIPE ? stopExitStatus(SIGPIPE) : kExitFailure;
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    // Headless: a GUI application without a display, only so that
    // the oscilloscope plot can be drawn with its text. It sees the program
    // name alone: it would take options such as --plugin as its own.
    prepareHeadlessGui();
    int guiArgc = 1;
    QGuiApplication app(guiArgc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("korux"));
    installSignalHandlers();
    Console console;

    Options options;
    QString error;
    QStringList words;
    for (int i = 1; i < argc; ++i)
        words << QString::fromLocal8Bit(argv[i]);
    if (!parseOptions(words, &options, &error))
        return usageError(console, error, options.command);
    // The virtual bridge reads it; a value it does not know would be ignored.
    const QString timing = qEnvironmentVariable("KORUX_TIMING");
    if (!timing.isEmpty() && timing != QLatin1String("instant") && timing != QLatin1String("realistic")) {
        console.error(
            QStringLiteral("korux: KORUX_TIMING takes instant or realistic, not \"%1\"").arg(timing));
        return kExitUsage;
    }
    const QString executableDirectory = QCoreApplication::applicationDirPath();
    const QString pluginPath
        = options.plugin.isEmpty() ? pluginFileFrom(executableDirectory) : options.plugin;
    console.setJsonMode(options.json);
    if (options.version) {
        console.out(QStringLiteral("korux %1").arg(QStringLiteral(KORUX_VERSION)));
        const QFileInfo plugin(pluginPath);
        QJsonObject version { { QStringLiteral("korux"), QStringLiteral(KORUX_VERSION) },
            { QStringLiteral("plugin"), plugin.exists() ? plugin.absoluteFilePath() : pluginPath },
            { QStringLiteral("pluginFound"), plugin.exists() } };
        if (plugin.exists())
            version.insert(
                QStringLiteral("pluginBuilt"), plugin.lastModified().toUTC().toString(Qt::ISODate));
        console.json(version);
        console.out(plugin.exists()
                ? QStringLiteral("plug-in %1 (built %2)")
                      .arg(plugin.absoluteFilePath(), plugin.lastModified().toUTC().toString(Qt::ISODate))
                : QStringLiteral("plug-in %1: not found").arg(pluginPath));
        return console.outputFailed() ? kExitFailure : kExitOk;
    }
    if (options.help) {
        // korux COMMAND --help: that command's page.
        const Command* command = findCommand(options.command);
        if (command) {
            console.out(
                QStringLiteral("korux [options] %1 %2").arg(command->name, command->arguments).trimmed());
            console.out(QStringLiteral("  %1").arg(command->summary));
            console.out(commandDetails(*command));
        } else {
            console.out(usageText());
        }
        console.json(helpDocument(command));
        return console.outputFailed() ? kExitFailure : kExitOk;
    }
    if (options.command.isEmpty())
        return usageError(console, QStringLiteral("no command given"));
    const Command* command = findCommand(options.command);
    if (!command)
        return usageError(console, QStringLiteral("unknown command \"%1\"").arg(options.command));
    CommandLine line;
    if (!parseCommandLine(*command, options.arguments, options.serial, &line, &error))
        return usageError(console, error, options.command);
    // Every korux starts with a freshly enumerated family and ends it after
    // its command: these change nothing that outlives that.
    for (const char* name : { "arm", "stop", "abort", "set" }) {
        if (options.command == QLatin1String(name)) {
            console.error(
                QStringLiteral("korux: %1 takes effect only in a family that lives on: use it in a script "
                               "(korux run) or in korux shell")
                    .arg(name));
            return kExitUsage;
        }
    }
    if (!checkArguments(*command, line, &error)) {
        console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }

    // A self-test records the bridge traffic unless told not to.
    if (command->run == runSelftest && options.record.isEmpty() && !line.has(QStringLiteral("--no-trace")))
        options.record = defaultSelftestTrace();

    console.setColour(wantColour(options.color));
    console.setTerminal(isatty(STDOUT_FILENO));
    console.setJsonMode(options.json);
    if (options.timeScaleSet)
        setSleepTimeScale(options.timeScale);

    Transcript transcript;
    if (!options.transcript.isEmpty()) {
        for (const QString& file : protectedFiles(options)) {
            if (sameFile(options.transcript, file)) {
                console.error(
                    QStringLiteral("korux: --transcript %1 is the virtual machine's %2; choose another file")
                        .arg(options.transcript,
                            file.endsWith(QLatin1String(".json")) ? QStringLiteral("scenario")
                                                                  : QStringLiteral("flash image")));
                return kExitUsage;
            }
        }
        // A device (a terminal, /dev/full) is written to, not replaced.
        if (QFileInfo(options.transcript).isFile() && !options.overwrite) {
            console.error(QStringLiteral("korux: --transcript %1 exists already; --overwrite replaces it")
                              .arg(options.transcript));
            return kExitUsage;
        }
    }
    if (!options.transcript.isEmpty() && !transcript.open(options.transcript, &error)) {
        console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    Session session { options, console, nullptr, nullptr, QString(), false, 0, 0, QString(), QString() };
    if (transcript.isOpen())
        session.transcript = &transcript;
    if (!command->needsPlugin || supportBundle(options, line)) {
        // No bridge is loaded: there is nothing to record.
        if (!options.record.isEmpty())
            console.error(QStringLiteral("korux: --record: %1 makes no bridge calls; no trace is written")
                              .arg(command->name));
        return finish(session, transcript, runCommand(session, *command, line));
    }

    // The framework makes the family directory, parents and all: one that
    // is not there is made only under a folder that is.
    if (!options.directory.isEmpty() && !QFileInfo::exists(options.directory)) {
        const QFileInfo parent(QFileInfo(options.directory).absolutePath());
        if (!parent.isDir()) {
            console.error(
                QStringLiteral("korux: the family directory (--dir): %1 cannot be created: %2 does not "
                               "exist")
                    .arg(options.directory, parent.filePath()));
            return finish(session, transcript, kExitUsage);
        }
    }

    // The bridge goes first: the plug-in's "libft4222.so" is bound to
    // whichever library of that name is loaded when the plug-in is.
    BridgeInfo bridge;
    const int bridgeResult = loadBridge(options, executableDirectory, console, &bridge);
    if (bridgeResult != kExitOk || stopRequested())
        return finish(session, transcript, bridgeResult);

    PluginHost host(console, options.verbose, session.transcript);
    host.setQuiet(options.quiet || options.json);
    const int loadResult = host.load(pluginPath);
    if (loadResult != kExitOk)
        return finish(session, transcript, loadResult, &bridge);
    if (options.verbose) {
        console.out(
            QStringLiteral("bridge %1 (%2)").arg(bridge.file, bridge.virtualBridge ? "virtual" : "vendor"));
        console.out(QStringLiteral("plugin %1").arg(host.pluginFile()));
    }
    if (!options.directory.isEmpty())
        host.family()->setDirectory(QDir(options.directory));
    if (options.verbose)
        console.out(QStringLiteral("family directory %1").arg(host.family()->directory().absolutePath()));

    session.host = &host;
    session.bridgeFile = bridge.file;
    const int result = runCommand(session, *command, line);
    return finish(session, transcript, result, &bridge);
}
