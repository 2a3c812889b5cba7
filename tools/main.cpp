// korux: a command-line host for the sensor plug-in. It picks the bridge
// library first, then loads the plug-in the way a host application does and
// runs one command against it, printing whatever the plug-in reports.
#include <QCoreApplication>
#include <QDir>
#include <QGuiApplication>
#include <QStringList>

#include <cstdlib>
#include <unistd.h>

#include "host/VeltraXRayHardware.h"
#include "tools/BridgeLoader.h"
#include "tools/Commands.h"
#include "tools/Console.h"
#include "tools/ExitCodes.h"
#include "tools/InstallLayout.h"
#include "tools/Options.h"
#include "tools/PluginHost.h"
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

int usageError(Console& console, const QString& reason)
{
    console.error(QStringLiteral("korux: ") + reason);
    console.error(usageText());
    return kExitUsage;
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
    Console console;

    Options options;
    QString error;
    QStringList words;
    for (int i = 1; i < argc; ++i)
        words << QString::fromLocal8Bit(argv[i]);
    if (!parseOptions(words, &options, &error))
        return usageError(console, error);
    if (options.help) {
        console.out(usageText());
        return kExitOk;
    }
    if (options.command.isEmpty())
        return usageError(console, QStringLiteral("no command given"));
    const Command* command = findCommand(options.command);
    if (!command)
        return usageError(console, QStringLiteral("unknown command \"%1\"").arg(options.command));
    CommandLine line;
    if (!parseCommandLine(*command, options.arguments, options.serial, &line, &error))
        return usageError(console, error);

    console.setColour(wantColour(options.color));
    if (options.timeScaleSet)
        setSleepTimeScale(options.timeScale);

    Transcript transcript;
    if (!options.transcript.isEmpty() && !transcript.open(options.transcript, &error)) {
        console.error(QStringLiteral("korux: ") + error);
        return kExitUsage;
    }
    Session session { options, console, nullptr, nullptr, QString(), false, 0, 0 };
    if (transcript.isOpen())
        session.transcript = &transcript;
    if (!command->needsPlugin)
        return runCommand(session, *command, line);

    // The bridge goes first: the plug-in's "libft4222.so" is bound to
    // whichever library of that name is loaded when the plug-in is.
    const QString executableDirectory = QCoreApplication::applicationDirPath();
    BridgeInfo bridge;
    const int bridgeResult = loadBridge(options, executableDirectory, console, &bridge);
    if (bridgeResult != kExitOk)
        return bridgeResult;

    const QString pluginPath = options.plugin.isEmpty() ? pluginFileFrom(executableDirectory) : options.plugin;
    PluginHost host(console, options.verbose, session.transcript);
    const int loadResult = host.load(pluginPath);
    if (loadResult != kExitOk)
        return loadResult;
    if (options.verbose) {
        console.out(
            QStringLiteral("bridge %1 (%2)").arg(bridge.file, bridge.virtualBridge ? "virtual" : "vendor"));
        console.out(QStringLiteral("plugin %1").arg(host.pluginFile()));
    }
    if (!options.directory.isEmpty())
        host.family()->setDirectory(QDir(options.directory));

    session.host = &host;
    return runCommand(session, *command, line);
}
