// korux run SCRIPT: a plain text file of korux commands, one a line, run in
// one session with one family, so that a service procedure or an acquisition
// cycle can be replayed exactly. "#" starts a comment; words are split as a
// shell splits them (quotes group words). A line may name its unit with
// --serial; korux's other options belong on its own command line.
#include <QFile>
#include <QProcess>

#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Interrupt.h"

namespace korux {

namespace {

struct ScriptLine {
    int number = 0;
    QString text;
    const Command* command = nullptr;
    CommandLine commandLine;
};

bool parseLine(const QString& text, ScriptLine* line, QString* error)
{
    Options options;
    if (!parseOptions(QProcess::splitCommand(text), &options, error))
        return false;
    const Options defaults;
    if (options.bridge != defaults.bridge || !options.scenario.isEmpty() || !options.plugin.isEmpty()
        || !options.directory.isEmpty() || !options.transcript.isEmpty() || options.timeScaleSet
        || options.color != defaults.color || options.verbose || options.help) {
        *error = QStringLiteral("only --serial may be given in a script; korux's other options go on its command line");
        return false;
    }
    line->command = findCommand(options.command);
    if (!line->command) {
        *error = QStringLiteral("unknown command \"%1\"").arg(options.command);
        return false;
    }
    if (line->command->run == runScript) {
        *error = QStringLiteral("a script cannot run another script");
        return false;
    }
    return parseCommandLine(*line->command, options.arguments, options.serial, &line->commandLine, error);
}

} // namespace

int runScript(Session& session, const CommandLine& line)
{
    const QString path = line.positional.first();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        session.console.error(QStringLiteral("korux: cannot read the script %1: %2").arg(path, file.errorString()));
        return kExitUsage;
    }
    // Every line is checked before the first one runs: a typo at the end of
    // a procedure must not leave it half done.
    QVector<ScriptLine> lines;
    const QStringList texts = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    for (int i = 0; i < texts.size(); ++i) {
        QString text = texts.at(i);
        const int comment = text.indexOf(QLatin1Char('#'));
        if (comment >= 0)
            text.truncate(comment);
        text = text.trimmed();
        if (text.isEmpty())
            continue;
        ScriptLine scriptLine;
        scriptLine.number = i + 1;
        scriptLine.text = text;
        QString error;
        if (!parseLine(text, &scriptLine, &error)) {
            session.console.error(QStringLiteral("korux: %1:%2: %3").arg(path).arg(i + 1).arg(error));
            return kExitUsage;
        }
        lines.append(scriptLine);
    }

    const bool keepGoing = line.has(QStringLiteral("--keep-going"));
    int worst = kExitOk;
    for (const ScriptLine& scriptLine : lines) {
        if (stopRequested())
            return interruptedExit();
        session.console.out(QStringLiteral("korux> %1").arg(scriptLine.text));
        session.scriptLine = scriptLine.number;
        const int result = runCommand(session, *scriptLine.command, scriptLine.commandLine);
        session.scriptLine = 0;
        if (result == kExitOk)
            continue;
        if (stopRequested())
            return result;
        session.console.error(QStringLiteral("korux: %1:%2: %3 ended with exit status %4")
                                  .arg(path)
                                  .arg(scriptLine.number)
                                  .arg(scriptLine.command->name)
                                  .arg(result));
        if (!keepGoing)
            return result;
        if (worst == kExitOk)
            worst = result;
    }
    return worst;
}

} // namespace korux
