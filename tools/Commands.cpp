#include "tools/Commands.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonObject>

#include "tools/ExitCodes.h"
#include "tools/InstallLayout.h"
#include "tools/Report.h"
#include "tools/ShotOutput.h"
#include "tools/Transcript.h"

namespace korux {

namespace {

constexpr char kUsageHead[] = R"(usage: korux [options] COMMAND [ARGUMENTS]

Loads the FT4222 bridge library and the sensor plug-in as a host application does,
and drives the plug-in through the framework's interface. Commands marked * act on
one unit with --serial, on every unit otherwise.

commands:
)";

constexpr char kUsageTail[] = R"(
options:
  --bridge auto|virtual|vendor|PATH
                                the library that answers "libft4222.so" (default: auto, the
                                vendor's one when installed in the system library path, else
                                the virtual bridge, said once on stderr; virtual:
                                @VIRTUAL@)
  --scenario FILE               load FILE into the virtual bridge before the plug-in starts
  --plugin PATH                 the plug-in library (default:
                                @PLUGIN@)
  --dir DIR                     the family's directory for the files copied from flash
                                (default: the per-user data directory)
  --serial SERIAL               the unit a * command is for, by its board serial, in any case
                                (korux serial prints it)
  --transcript FILE             write every signal and command as JSON lines to FILE; an
                                existing FILE is refused without --overwrite, the scenario
                                and the flash images always
  --overwrite                   (before the command) let --transcript replace its file
  --record FILE                 record the bridge traffic (every call to the bridge library,
                                vendor or virtual) to the trace FILE (docs/trace.md)
  --record-mask-serials         with --record: serial numbers in the trace are stand-ins
  --color auto|always|never     render the log lines' style tags as colours (auto: on a
                                terminal, unless NO_COLOR is set)
  --time-scale X                stretch every framework sleep by X, 0 to 100 (0: no waits)
  -v, --verbose                 also print the plug-in's log (both channels), every report
                                and the unit status changes
  -q, --quiet                   print only results (reports, files written) and errors
  --json                        print the results as JSON documents, one a line, and nothing
                                else (a report with its unit and board serial, a file
                                written, a unit listed, a parameter set, a command's result;
                                help, doctor and --version as one document each); with -v
                                the plug-in's log goes to stderr as JSON lines
  -h, --help                    print this help (korux COMMAND --help: that command's options)
  --version                     print korux's version and the plug-in it would load

korux help COMMAND describes one command and its options; korux help exit-codes lists
the exit statuses.)";

constexpr char kExitCodes[] = R"(exit statuses of korux:
  0    success: the command reached its expected final status, nothing failed
  1    failure: statusError, a failure the plug-in logged, a report or image that did not
       come, a file not written whole (a full disk, a closed pipe), a flash file not
       copied, an irreversible write not confirmed
  2    bad command line, script line, scenario (--scenario or KORUX_SCENARIO),
       KORUX_TIMING, value out of range, a counter value at or below the count, a
       transcript that would replace a file, or an output folder that cannot be written
       or has no room for the shot
  3    no sensor found, or no unit with the serial given
  4    no bridge library could be loaded
  5    the family refused the command in its status
  6    time-out: no image within acquire --timeout; the family is stopped
  130  interrupted by SIGINT (Ctrl-C): the family is stopped, temporary files removed
  141  standard output was closed (korux ... | head): the output ended quietly, the
       command went on and its files are written
  143  terminated by SIGTERM, as for SIGINT)";

// What korux help COMMAND adds to a command's synopsis: its options, their
// defaults and limits.
struct CommandDetails {
    const char* name;
    const char* text;
};

constexpr CommandDetails kDetails[] = {
    { "acquire", R"(  --out DIR       the folder for the files (default: the current folder; created when
                  missing, under a folder that exists); before the sensor is armed it
                  and the family directory must be writable and have room for the shots
                  (else exit 2); a shot that cannot be written there goes to the rescue
                  folder ~/.local/state/korux/rescue, named on stderr (exit 1)
  --count N       N shots in a row (default 1)
  --timeout S     seconds to wait for each exposure, 1 to 86400 (default 60)
  --oscilloscope  arm with the oscilloscope on (the Oscilloscope parameter)
  --overwrite     replace files of the same name; without it an existing file is kept
                  and the shot takes the next free name (NAME-2.png and on)
  --dicom         also write the DICOM intra-oral image, For Processing (.dcm)
  --dicom-presentation
                  and the For Presentation one with its window (-presentation.dcm);
                  implies --dicom
  --patient-name NAME, --patient-id ID, --study TEXT
                  the DICOM files' patient and study (default: an anonymous patient
                  with an ID made up for the study, no study description); 64 bytes
                  at most, no backslash; a name has at most four '^' and two '='
  --study-uid UID join that study (default: one study per patient in a session)
  --teeth N,N     the teeth shown, ISO 3950 numbers (11-48, deciduous 51-85)
  --region JAW    maxilla or mandible (default: the teeth's jaw)
  --laterality SIDE
                  R, L or B (default: from the teeth); without --teeth, --region and
                  --laterality R or L; no anatomy given: none written (a virtual
                  sensor's phantom shots carry the phantom's)
  --send HOST:PORT
                  store the DICOM files on that archive once written (korux send),
                  with --called-ae AE and --calling-ae AE
files: <board serial>-<shot counter after the shot>.png, -black.png, .txt,
-preview.png (8 bits, the raw area through the window's sigmoid, as film),
-oscilloscope.png (the exposure's dose rate, when the sensor sent it), and with
--dicom .dcm and -presentation.dcm)" },
    { "send", R"(  FILE...          DICOM files (.dcm), stored in the order given on one association
  --peer HOST:PORT the archive's DICOM port
  --called-ae AE   the archive's AE title (default ANY-SCP)
  --calling-ae AE  korux's AE title (default KORUX); AE titles are 1 to 16 characters
  --timeout S      seconds to connect and for each answer, 1 to 3600 (default 30)
a C-ECHO first; a refused association, no answer in time or a store the archive
does not confirm ends the command with one line and status 1)" },
    { "dicom", R"(  SHOT.png        a shot acquire wrote; its description SHOT.txt must be beside it
  --presentation  also write the For Presentation file, SHOT-presentation.dcm
  --patient-name NAME, --patient-id ID, --study TEXT, --study-uid UID
                  the patient and study (default: those the shot was taken with,
                  kept in SHOT.png, so that the files are acquire's own)
  --teeth N,N, --region JAW, --laterality SIDE
                  the anatomy (default: the shot's, kept in SHOT.png)
refused: 8-bit PNGs (previews), sizes that are not the description's Size, and
PNGs that do not say when the shot was taken
  --overwrite     replace SHOT.dcm; without it an existing file is kept and nothing
                  is written
needs no sensor: the plug-in is not loaded)" },
    { "counter", R"(  --increase  add one to the counter (command 1009) before reading it; the counter
              is read before and after, and a step other than one fails (exit 1)
  --set N     write N (0 to 4294967294); the counter is read first and a value at
              or below it is refused (exit 2) before anything is written: the flash
              keeps every value written and reads the largest, so it is never set
              lower again; needs --serial with several sensors, and a confirmation
              on the terminal or --yes; the counter is read back afterwards)" },
    { "format-flash",
        R"(  needs --serial with several sensors, and a confirmation on the terminal or --yes)" },
    { "flash-files", R"(  --all        also the production files PRD and ASS
  --overwrite  replace copies already in the family directory (commands 1005, 1006)
the family directory (--dir) must be writable; afterwards every copy is checked
against the size its flash header gives)" },
    { "flash-page", R"(  ADDRESS  0 to 0xFFFF00, decimal or 0x...)" },
    { "set", R"(  --string  store VALUE as text
  --force   send a value outside the range the plug-in reads
known keys: PhdTreshold 0 to 4095, ACEValue and ACEValueInside 1 to 1864135, ACECoeff
and ACECoeffCSI 1 to 9, FlashAddress 0 to 0xFFFF00, Oscilloscope true or false
takes effect only in a script (korux run) or korux shell)" },
    { "arm", R"(  --oscilloscope  arm with the oscilloscope on (the Oscilloscope parameter)
after a stop or abort (the family left in statusAcquiring) a no-op comes first
takes effect only in a script (korux run) or korux shell)" },
    { "stop", R"(  takes effect only in a script (korux run) or korux shell)" },
    { "abort", R"(  takes effect only in a script (korux run) or korux shell)" },
    { "goto", R"(  COMMAND  a hardwareStatus value the framework names, by number (1010) or name
           (statusNoOpBegin, NoOpBegin, commandFamilyReport))
  --yes    confirm 1009 (counter increase) or 2000 (flash format): as counter --set
           and format-flash, they need --serial with several sensors and a
           confirmation on the terminal or --yes; 1003 to 1006 need a writable
           family directory (--dir), as flash-files does)" },
    { "run", R"(  --keep-going  run the lines after a failing one too; the exit status is the first failure
  SCRIPT        a file, or - for standard input; every line is checked before the first runs)" },
    { "shell", R"(  exit, quit or the end of input leave; Ctrl-C stops the command running, not the shell)" },
};

QStringList words(const char* list)
{
    return QString::fromLatin1(list).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

} // namespace

const std::vector<Command>& commandTable()
{
    // name, arguments, summary, positional min/max, flags, options with a value,
    // needs the plug-in, --serial applies, handler
    static const std::vector<Command> table = {
        { "list", "",
            "enumerate the sensors and print each unit: board serial, port A's USB serial and location, "
            "size, "
            "Inside or stand-alone, FPGA configured or not",
            0, 0, "", "", true, false, runList },
        { "enumerate", "", "enumerate the sensors again (command 1; in statusAcquired: back to statusReady)",
            0, 0, "", "", true, false, runEnumerate },
        { "fpga-update", "", "check every unit's FPGA and configure the ones that need it (command 11)", 0, 0,
            "", "", true, false, runFpgaUpdate },
        { "noop", "", "command 13: statusNoOpBegin then statusNoOpEnd", 0, 0, "", "", true, false, runNoop },
        { "arm", "[--oscilloscope]", "arm every unit (command 20) and return once armed", 0, 0,
            "--oscilloscope", "", true, false, runArm },
        { "stop", "", "stop an armed family (command 18) and wait for the units to stop", 0, 0, "", "", true,
            false, runStop },
        { "abort", "", "abort an armed family (command 6) and wait for the units to stop", 0, 0, "", "", true,
            false, runAbort },
        { "acquire",
            "[--out DIR] [--count N] [--oscilloscope] [--timeout S] [--overwrite] [--dicom] "
            "[--dicom-presentation] [--patient-name NAME] [--patient-id ID] [--study TEXT] [--study-uid UID] "
            "[--teeth N,N] [--region JAW] [--laterality SIDE] [--send PEER]",
            "arm, follow the exposure and write image, black image, description, preview, oscilloscope plot "
            "(and DICOM)",
            0, 0, "--oscilloscope --overwrite --dicom --dicom-presentation",
            "--out --count --timeout --patient-name --patient-id --study --study-uid --teeth --region "
            "--laterality --send --called-ae --calling-ae",
            true, false, runAcquire },
        { "dicom",
            "[--presentation] [--patient-name NAME] [--patient-id ID] [--study TEXT] [--study-uid UID] "
            "[--teeth N,N] [--region JAW] [--laterality SIDE] [--overwrite] SHOT.png",
            "write SHOT.dcm, the DICOM intra-oral image of a saved shot (SHOT.png and SHOT.txt)", 1, 1,
            "--presentation --overwrite",
            "--patient-name --patient-id --study --study-uid --teeth --region --laterality", false, false,
            runDicom },
        { "send", "--peer HOST:PORT [--called-ae AE] [--calling-ae AE] [--timeout S] FILE...",
            "store DICOM files on an archive (PACS): C-ECHO, then a C-STORE a file", 1, 100000, "",
            "--peer --called-ae --calling-ae --timeout", false, false, runSend },
        { "params", "", "* parameter report of each unit (command 1000)", 0, 0, "", "", true, true,
            runParams },
        { "voltages", "", "* voltage report of each unit (command 1001)", 0, 0, "", "", true, true,
            runVoltages },
        { "serial", "", "read each unit's serial number from its flash (command 1002)", 0, 0, "", "", true,
            false, runSerial },
        { "flash-files", "[--all] [--overwrite]",
            "* copy the files of the sensor flash to the family directory (commands 1003 to 1006)", 0, 0,
            "--all --overwrite", "", true, true, runFlashFiles },
        { "counter", "[--increase | --set N [--yes]]",
            "* read the shot counter (1007), add one (1009) or set it, then read it", 0, 0,
            "--increase --yes", "--set", true, true, runCounter },
        { "format-flash", "[--yes]",
            "* the flash format command (2000): a chip erase, sent only when write enable fails", 0, 0,
            "--yes", "", true, true, runFormatFlash },
        { "flash-page", "ADDRESS", "* print the flash page at ADDRESS (command 3001 with FlashAddress)", 1, 1,
            "", "", true, true, runFlashPage },
        { "report", "[--out FILE.tar.gz] [--with-images] [--family]",
            "the support bundle (doctor, list, selftest with its trace, the family's files; README: \"First "
            "contact with a real sensor\"); in a script or with --family: the family report (command 1010)",
            0, 0, "--with-images --family", "--out", true, false, runReportCommand },
        { "set", "[--string] [--force] KEY VALUE",
            "set a family parameter, typed and ranged as the plug-in reads it", 2, 2, "--string --force", "",
            true, false, runSet },
        { "goto", "[--yes] COMMAND", "* send any hardwareStatus value as a command, by number or name", 1, 1,
            "--yes", "", true, true, runGoto },
        { "run", "[--keep-going] SCRIPT|-",
            "run the commands of SCRIPT (- : standard input), one a line, with one family", 1, 1,
            "--keep-going", "", true, false, runScript },
        { "shell", "", "read commands at a prompt and run them with one family, until exit or end of input",
            0, 0, "", "", true, false, runShell },
        { "selftest", "[--expose] [--out DIR] [--no-trace]",
            "a safe bring-up of the sensor, step by step with PASS/FAIL/SKIP, cause and fix; nothing written "
            "to the flash, no arming without --expose; the bridge traffic is recorded",
            0, 0, "--expose --no-trace", "--out", true, false, runSelftest },
        { "doctor", "[--sysfs-root DIR] [--dev-root DIR] [--rules-dirs DIR:...]",
            "check bridge library, USB devices, their access, kernel drivers, udev rule and sensors", 0, 0,
            "", "--sysfs-root --dev-root --rules-dirs", false, false, runDoctor },
        { "help", "[COMMAND]", "print this help, or the synopsis of one command", 0, 1, "", "", false, false,
            runHelp },
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
        if (synopsis.size() > 20)
            text += QStringLiteral("  %1\n  %2 %3\n").arg(synopsis, QString(20, ' '), command.summary);
        else
            text += QStringLiteral("  %1 %2\n").arg(synopsis, -20).arg(command.summary);
    }
    // The defaults of the tree korux runs from, installed or built.
    const QString directory = QCoreApplication::applicationDirPath();
    return text
        + QString::fromLatin1(kUsageTail)
              .replace(QLatin1String("@VIRTUAL@"), virtualBridgeFileFrom(directory))
              .replace(QLatin1String("@PLUGIN@"), pluginFileFrom(directory));
}

bool parseCommandLine(const Command& command, const QStringList& arguments, const QString& serial,
    CommandLine* line, QString* error)
{
    if (!serial.isEmpty() && !command.forOneUnit) {
        *error = QStringLiteral("%1 acts on the whole family; --serial does not apply").arg(command.name);
        return false;
    }
    line->words = arguments;
    line->serial = serial;
    const QStringList flags = words(command.flags);
    const QStringList valueOptions = words(command.valueOptions);
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& word = arguments.at(i);
        const int equals = word.indexOf(QLatin1Char('='));
        const QString name = equals < 0 ? word : word.left(equals);
        if (flags.contains(word)) {
            line->flags.insert(word);
        } else if (valueOptions.contains(name)) {
            QString value;
            if (equals >= 0)
                value = word.mid(equals + 1);
            else if (i + 1 < arguments.size())
                value = arguments.at(++i);
            if (value.isEmpty()) {
                *error = QStringLiteral("%1 %2 needs a value").arg(command.name, name);
                return false;
            }
            line->values.insert(name, value);
        } else if (word.startsWith(QLatin1String("--"))) {
            *error = QStringLiteral("%1 has no option \"%2\"").arg(command.name, word);
            return false;
        } else {
            line->positional << word;
        }
    }
    const int count = line->positional.size();
    if (count < command.minimumArguments || count > command.maximumArguments) {
        *error = QStringLiteral("wrong arguments for %1: korux %1 %2")
                     .arg(command.name, command.arguments)
                     .trimmed();
        return false;
    }
    return true;
}

bool checkArguments(const Command& command, const CommandLine& line, QString* error)
{
    if (command.run == runAcquire)
        return checkAcquire(line, error);
    if (command.run == runDicom)
        return checkDicom(line, error);
    if (command.run == runSend)
        return checkSend(line, error);
    if (command.run == runCounter)
        return checkCounter(line, error);
    if (command.run == runFlashPage)
        return checkFlashPage(line, error);
    if (command.run == runGoto)
        return checkGoto(line, error);
    if (command.run == runSet)
        return checkSet(line, error);
    return true;
}

int runCommand(Session& session, const Command& command, const CommandLine& line)
{
    session.serial = line.serial;
    session.command = QString::fromLatin1(command.name);
    if (session.host) {
        // The reports that are these commands' results, by a member only they
        // have; anything else the plug-in reports on the way is a by-product.
        static const QMap<QString, QString> results {
            { QStringLiteral("params"), QStringLiteral("HardwareSerial") },
            { QStringLiteral("voltages"), QStringLiteral("FPGA High") },
            { QStringLiteral("serial"), QStringLiteral("serialNumber") },
            { QStringLiteral("counter"), QStringLiteral("ShootCounter") },
            { QStringLiteral("flash-page"), QStringLiteral("flashPage") },
            { QStringLiteral("report"), QStringLiteral("PhdTreshold") }, { QStringLiteral("goto"), QString() }
        };
        const auto result = results.constFind(session.command);
        session.host->setShownReports(
            result != results.constEnd(), result != results.constEnd() ? *result : QString());
        session.host->resetPrintedStatus();
    }
    if (session.transcript) {
        QJsonObject fields { { QStringLiteral("command"), QString::fromLatin1(command.name) },
            { QStringLiteral("arguments"), QJsonArray::fromStringList(line.words) } };
        if (!line.serial.isEmpty())
            fields.insert(QStringLiteral("serial"), line.serial);
        if (session.scriptLine > 0)
            fields.insert(QStringLiteral("line"), session.scriptLine);
        session.transcript->record(QStringLiteral("command"), fields);
        // Nothing runs that the transcript could not record.
        if (session.transcript->failed())
            return kExitFailure;
    }
    const int result = command.run(session, line);
    if (session.transcript)
        session.transcript->record(QStringLiteral("result"),
            { { QStringLiteral("command"), QString::fromLatin1(command.name) },
                { QStringLiteral("exit"), result } });
    return result;
}

namespace {

// The option lines of the help ("  --name VALUE   text", continued on lines
// that start further in) as name, synopsis and text.
QJsonArray optionsDocument()
{
    QJsonArray options;
    const QString tail
        = usageText().section(QStringLiteral("\noptions:\n"), 1).section(QStringLiteral("\n\n"), 0, 0);
    QJsonObject current;
    for (const QString& line : tail.split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1String("  -"))) {
            if (!current.isEmpty())
                options.append(current);
            const QString synopsis = line.mid(2).section(QStringLiteral("  "), 0, 0).trimmed();
            QString name = synopsis.section(QLatin1Char(' '), 0, 0);
            if (name.endsWith(QLatin1Char(','))) // "-v, --verbose": the long name
                name = synopsis.section(QLatin1Char(' '), 1, 1);
            current = { { QStringLiteral("option"), name }, { QStringLiteral("synopsis"), synopsis },
                { QStringLiteral("text"), line.mid(2 + synopsis.size()).trimmed() } };
        } else if (!current.isEmpty()) {
            const QString more = line.trimmed();
            const QString text = current.value(QStringLiteral("text")).toString();
            current.insert(QStringLiteral("text"), text.isEmpty() ? more : text + QLatin1Char(' ') + more);
        }
    }
    if (!current.isEmpty())
        options.append(current);
    return options;
}

QJsonArray exitCodesDocument()
{
    QJsonArray codes;
    QJsonObject current;
    for (const QString& line : QString::fromLatin1(kExitCodes).split(QLatin1Char('\n')).mid(1)) {
        bool number = false;
        const int code = line.left(7).trimmed().toInt(&number);
        if (number) {
            if (!current.isEmpty())
                codes.append(current);
            current = { { QStringLiteral("status"), code },
                { QStringLiteral("meaning"), line.mid(7).trimmed() } };
        } else if (!current.isEmpty()) {
            current.insert(QStringLiteral("meaning"),
                current.value(QStringLiteral("meaning")).toString() + QLatin1Char(' ') + line.trimmed());
        }
    }
    if (!current.isEmpty())
        codes.append(current);
    return codes;
}

QJsonObject commandDocument(const Command& command)
{
    return { { QStringLiteral("name"), QString::fromLatin1(command.name) },
        { QStringLiteral("arguments"), QString::fromLatin1(command.arguments) },
        { QStringLiteral("summary"), QString::fromLatin1(command.summary) },
        { QStringLiteral("forOneUnit"), command.forOneUnit },
        { QStringLiteral("details"), commandDetails(command) } };
}

} // namespace

QJsonObject helpDocument(const Command* command)
{
    if (command)
        return { { QStringLiteral("command"), commandDocument(*command) } };
    QJsonArray commands;
    for (const Command& each : commandTable())
        commands.append(commandDocument(each));
    const QString directory = QCoreApplication::applicationDirPath();
    const QJsonObject defaults { { QStringLiteral("bridge"), QStringLiteral("auto") },
        { QStringLiteral("virtualBridge"), virtualBridgeFileFrom(directory) },
        { QStringLiteral("plugin"), pluginFileFrom(directory) },
        { QStringLiteral("color"), QStringLiteral("auto") }, { QStringLiteral("timeScale"), 1 } };
    return { { QStringLiteral("commands"), commands }, { QStringLiteral("options"), optionsDocument() },
        { QStringLiteral("defaults"), defaults }, { QStringLiteral("exitCodes"), exitCodesDocument() } };
}

int runHelp(Session& session, const CommandLine& line)
{
    if (line.positional.isEmpty()) {
        session.console.out(usageText());
        session.console.json(helpDocument(nullptr));
        return kExitOk;
    }
    if (line.positional.first() == QLatin1String("exit-codes")) {
        session.console.out(QString::fromLatin1(kExitCodes));
        session.console.json({ { QStringLiteral("exitCodes"), exitCodesDocument() } });
        return kExitOk;
    }
    const Command* command = findCommand(line.positional.first());
    if (!command) {
        session.console.error(QStringLiteral("korux: unknown command \"%1\"").arg(line.positional.first()));
        session.console.error(QStringLiteral("korux: see korux help"));
        return kExitUsage;
    }
    session.console.out(
        QStringLiteral("korux [options] %1 %2").arg(command->name, command->arguments).trimmed());
    session.console.out(QStringLiteral("  %1").arg(command->summary));
    session.console.out(commandDetails(*command));
    session.console.json(helpDocument(command));
    return kExitOk;
}

QString commandDetails(const Command& command)
{
    for (const CommandDetails& details : kDetails)
        if (QLatin1String(details.name) == QLatin1String(command.name))
            return QString::fromLatin1(details.text);
    const QStringList options = words(command.flags) + words(command.valueOptions);
    if (options.isEmpty())
        return QStringLiteral("  no options of its own");
    return QStringLiteral("  options: %1").arg(options.join(QStringLiteral(", ")));
}

} // namespace korux
