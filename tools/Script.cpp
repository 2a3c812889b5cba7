// korux run SCRIPT and korux shell: korux commands, one a line, run in one
// session with one family, so that a service procedure or an acquisition
// cycle can be replayed exactly, or tried step by step. Lines are split into
// words as a POSIX shell splits them: '...' keeps everything, "..." keeps
// everything but \" \\ \$ \`, a backslash outside quotes keeps the next
// character, and "#" at the start of a word begins a comment. A line may
// name its unit with --serial; korux's other options belong on its own
// command line.
#include <QFile>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Interrupt.h"

namespace korux {

bool splitShellWords(const QString& text, QStringList* words, QString* error)
{
    words->clear();
    QString word;
    bool inWord = false;
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char(' ') || c == QLatin1Char('\t') || c == QLatin1Char('\r')) {
            if (inWord)
                *words << word;
            word.clear();
            inWord = false;
        } else if (c == QLatin1Char('#') && !inWord) {
            break;
        } else if (c == QLatin1Char('\\')) {
            if (++i == text.size()) {
                *error = QStringLiteral("a backslash ends the line; nothing follows for it to keep");
                return false;
            }
            word += text.at(i);
            inWord = true;
        } else if (c == QLatin1Char('\'')) {
            const int close = text.indexOf(QLatin1Char('\''), i + 1);
            if (close < 0) {
                *error = QStringLiteral("the quote ' opened at column %1 is not closed").arg(i + 1);
                return false;
            }
            word += text.mid(i + 1, close - i - 1);
            i = close;
            inWord = true;
        } else if (c == QLatin1Char('"')) {
            const int open = i;
            for (++i; i < text.size() && text.at(i) != QLatin1Char('"'); ++i) {
                if (text.at(i) == QLatin1Char('\\') && i + 1 < text.size()
                    && QStringLiteral("\"\\$`").contains(text.at(i + 1)))
                    ++i;
                word += text.at(i);
            }
            if (i == text.size()) {
                *error = QStringLiteral("the quote \" opened at column %1 is not closed").arg(open + 1);
                return false;
            }
            inWord = true;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord)
        *words << word;
    return true;
}

namespace {

struct ScriptLine {
    int number = 0;
    QString text;
    const Command* command = nullptr;
    CommandLine commandLine;
};

// False with the reason in error; an empty or comment line gives no command.
bool parseLine(const QString& text, ScriptLine* line, QString* error)
{
    QStringList words;
    if (!splitShellWords(text, &words, error))
        return false;
    if (words.isEmpty())
        return true;
    Options options;
    if (!parseOptions(words, &options, error))
        return false;
    const Options defaults;
    if (options.bridge != defaults.bridge || !options.scenario.isEmpty() || !options.plugin.isEmpty()
        || !options.directory.isEmpty() || !options.transcript.isEmpty() || options.timeScaleSet
        || options.color != defaults.color || options.verbose || options.quiet || options.help
        || options.version || options.json || options.overwrite) {
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
    if (line->command->run == runShell) {
        *error = QStringLiteral("the shell cannot be started from a script or itself");
        return false;
    }
    line->text = text.trimmed();
    return parseCommandLine(*line->command, options.arguments, options.serial, &line->commandLine, error)
        && checkArguments(*line->command, line->commandLine, error);
}

} // namespace

int runScript(Session& session, const CommandLine& line)
{
    const QString path = line.positional.first();
    QFile file(path);
    const bool opened = path == QLatin1String("-") ? file.open(stdin, QIODevice::ReadOnly)
                                                   : file.open(QIODevice::ReadOnly | QIODevice::Text);
    if (!opened) {
        session.console.error(QStringLiteral("korux: cannot read the script %1: %2").arg(path, file.errorString()));
        return kExitUsage;
    }
    const QString name = path == QLatin1String("-") ? QStringLiteral("<stdin>") : path;
    // Every line is checked before the first one runs: a typo at the end of
    // a procedure must not leave it half done.
    QVector<ScriptLine> lines;
    const QStringList texts = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    for (int i = 0; i < texts.size(); ++i) {
        ScriptLine scriptLine;
        scriptLine.number = i + 1;
        QString error;
        if (!parseLine(texts.at(i), &scriptLine, &error)) {
            session.console.error(QStringLiteral("korux: %1:%2: %3").arg(name).arg(i + 1).arg(error));
            return kExitUsage;
        }
        if (scriptLine.command)
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
                                  .arg(name)
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

int runShell(Session& session, const CommandLine&)
{
    const bool terminal = isatty(STDIN_FILENO);
    int last = kExitOk;
    for (int number = 1;; ++number) {
        if (terminal) {
            std::fputs("korux> ", stderr);
            std::fflush(stderr);
        }
        // A line of any length: getline grows the buffer as it reads.
        char* buffer = nullptr;
        size_t capacity = 0;
        const ssize_t length = getline(&buffer, &capacity, stdin);
        const QString text = length < 0 ? QString() : QString::fromLocal8Bit(buffer, int(length)).trimmed();
        std::free(buffer);
        if (length < 0) {
            // Ctrl-C at the prompt drops the line and asks again.
            if (std::ferror(stdin) && errno == EINTR && stopSignal() == SIGINT) {
                std::clearerr(stdin);
                clearStopRequest();
                std::fputs("\n", stderr);
                continue;
            }
            if (terminal)
                std::fputs("\n", stderr);
            return last;
        }
        if (text == QLatin1String("exit") || text == QLatin1String("quit"))
            return last;
        ScriptLine scriptLine;
        scriptLine.number = number;
        QString error;
        if (!parseLine(text, &scriptLine, &error)) {
            session.console.error(QStringLiteral("korux: %1").arg(error));
            last = kExitUsage;
            continue;
        }
        if (!scriptLine.command)
            continue;
        if (!terminal)
            session.console.out(QStringLiteral("korux> %1").arg(scriptLine.text));
        last = runCommand(session, *scriptLine.command, scriptLine.commandLine);
        if (stopRequested()) {
            // The shell outlives a Ctrl-C; kill, TERM and a closed output end it.
            if (stopSignal() != SIGINT)
                return last;
            stopArmedFamily(session);
            session.console.error(QStringLiteral("korux: interrupted"));
            clearStopRequest();
            continue;
        }
        if (last != kExitOk)
            session.console.error(QStringLiteral("korux: %1 ended with exit status %2")
                                      .arg(scriptLine.command->name)
                                      .arg(last));
    }
}

} // namespace korux
