#include "tools/Commands.h"

#include "tools/ExitCodes.h"

namespace korux {

namespace {

// Time given to queued calls and deferred deletions after an operation.
constexpr int kSettleMs = 50;

constexpr char kUsageHead[] = R"(usage: korux [options] COMMAND [ARGUMENTS]

Loads the FT4222 bridge library and the sensor plug-in as a host application does,
and drives the plug-in through the framework's interface.

commands:
)";

constexpr char kUsageTail[] = R"(
options:
  --bridge virtual|vendor|PATH  the library that answers "libft4222.so" (default: virtual,
                                <korux dir>/../lib/virtual/libft4222.so; vendor: the one
                                installed in the system library path)
  --scenario FILE               load FILE into the virtual bridge before the plug-in starts
  --plugin PATH                 the plug-in library (default:
                                <korux dir>/../lib/libVeltraXRayKORUX.so)
  --dir DIR                     the family's directory for the files copied from flash
                                (default: the per-user data directory)
  --color auto|always|never     render the log lines' style tags as colours (auto: on a
                                terminal, unless NO_COLOR is set)
  --time-scale X                stretch every framework sleep by X (0: no waits)
  -v, --verbose                 also print the detailed log and unit status changes
  -h, --help                    print this help

exit status: 0 success, 1 failure, 2 bad command line or scenario,
             3 no sensor found, 4 no bridge library)";

QString orDash(const QString& text)
{
    return text.isEmpty() ? QStringLiteral("-") : text;
}

QString statusText(hardwareStatus status)
{
    return QStringLiteral("%1 (%2)")
        .arg(QVeltraHardwareUnit::hardwareStatusToString(status))
        .arg(int(status));
}

// The exit status an enumeration outcome stands for.
int exitForFamilyStatus(hardwareStatus status)
{
    switch (status) {
    case statusSensorFound:
        return kExitOk;
    case statusNoSensor:
        return kExitNoSensor;
    default:
        return kExitFailure;
    }
}

// Initialises the family as a host does at start: directory, names and the
// enumeration of the sensors. The outcome is the family's status.
bool initializeFamily(Session& session)
{
    QVeltraHardwareFamily* family = session.host->family();
    const bool initialized = family->initializeVeltraHardwareFamily();
    session.host->connectUnits();
    session.host->settle(kSettleMs);
    if (!initialized)
        session.console.error(QStringLiteral("korux: initializeVeltraHardwareFamily failed"));
    return initialized;
}

int runHelp(Session& session, const QStringList& arguments)
{
    if (arguments.isEmpty()) {
        session.console.out(usageText());
        return kExitOk;
    }
    const Command* command = findCommand(arguments.first());
    if (!command) {
        session.console.error(QStringLiteral("korux: unknown command \"%1\"").arg(arguments.first()));
        session.console.error(usageText());
        return kExitUsage;
    }
    session.console.out(
        QStringLiteral("korux [options] %1 %2").arg(command->name, command->arguments).trimmed());
    session.console.out(QStringLiteral("  %1").arg(command->summary));
    return kExitOk;
}

int runList(Session& session, const QStringList&)
{
    if (!initializeFamily(session))
        return kExitFailure;
    QVeltraHardwareFamily* family = session.host->family();
    const QVector<QVeltraHardwareUnit*>& units = family->hardwareUnitVector();
    for (int i = 0; i < units.size(); ++i) {
        const QVeltraHardwareUnit* unit = units.at(i);
        session.console.out(QStringLiteral("unit %1 model %2 serial %3 board %4 status %5")
                                .arg(i)
                                .arg(orDash(unit->model()), orDash(unit->serial()),
                                    orDash(unit->boardSerial()), statusText(unit->status())));
    }
    const QString name = family->codeName().isEmpty() ? family->sensorFamily() : family->codeName();
    session.console.out(QStringLiteral("family %1: %2 unit%3, status %4")
                            .arg(orDash(name))
                            .arg(units.size())
                            .arg(units.size() == 1 ? QString() : QStringLiteral("s"))
                            .arg(statusText(family->status())));
    return exitForFamilyStatus(family->status());
}

} // namespace

const std::vector<Command>& commandTable()
{
    static const std::vector<Command> table = {
        { "list", "", "enumerate the sensors and print the units found", 0, 0, true, runList },
        { "help", "[COMMAND]", "print this help, or the synopsis of one command", 0, 1, false, runHelp },
    };
    return table;
}

const Command* findCommand(const QString& name)
{
    for (const Command& command : commandTable())
        if (name == QLatin1String(command.name))
            return &command;
    return nullptr;
}

QString usageText()
{
    QString text = QString::fromLatin1(kUsageHead);
    for (const Command& command : commandTable()) {
        const QString synopsis = QStringLiteral("%1 %2").arg(command.name, command.arguments).trimmed();
        text += QStringLiteral("  %1 %2\n").arg(synopsis, -18).arg(command.summary);
    }
    return text + QString::fromLatin1(kUsageTail);
}

} // namespace korux
