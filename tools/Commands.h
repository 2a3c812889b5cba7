// korux's commands, as a table: a new command is a handler and a row.
#pragma once

#include <QJsonObject>
#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>

#include <vector>

#include "tools/Console.h"
#include "tools/Options.h"
#include "tools/PluginHost.h"

namespace korux {

class Transcript;

// What commands work with. host is null for commands that run without the
// plug-in (help). One session lives as long as korux, so that a script's
// commands share one family.
struct Session {
    const Options& options;
    Console& console;
    PluginHost* host = nullptr;
    Transcript* transcript = nullptr;
    // The unit the current command is for (--serial); empty: every unit.
    QString serial;
    bool familyInitialized = false;
    // Shots taken in this session, for the image file names.
    int shots = 0;
    // The script line being run (from 1), 0 outside a script.
    int scriptLine = 0;
    // The command being run, for korux's messages.
    QString command = QString();
    // The bridge library that answers the plug-in's calls, as loaded (the
    // vendor's or the virtual one, also behind a recording bridge).
    QString bridgeFile;
};

// A command's own words after korux's options are taken out, checked and
// split, with the unit it is for.
struct CommandLine {
    QStringList words; // as given, for the transcript
    QString serial; // --serial; empty: every unit
    QStringList positional;
    QSet<QString> flags;
    QMap<QString, QString> values;

    bool has(const QString& flag) const { return flags.contains(flag) || values.contains(flag); }
    QString value(const QString& name, const QString& fallback = QString()) const
    {
        return values.value(name, fallback);
    }
};

struct Command {
    const char* name;
    const char* arguments; // synopsis of the arguments, "" for none
    const char* summary;
    int minimumArguments; // positional ones
    int maximumArguments;
    const char* flags; // options without a value, space-separated
    const char* valueOptions; // options that take a value, space-separated
    bool needsPlugin;
    bool forOneUnit; // --serial chooses the unit
    int (*run)(Session& session, const CommandLine& line);
};

const std::vector<Command>& commandTable();
// The options of one command with their defaults and limits.
QString commandDetails(const Command& command);
const Command* findCommand(const QString& name);
QString usageText();
// The help as one JSON document: commands, options, defaults, exit codes;
// or one command's page.
QJsonObject helpDocument(const Command* command);

// Splits a command's words into positional arguments and its options and
// checks them, and that --serial (serial) applies to the command; false
// with the reason in error.
bool parseCommandLine(
    const Command& command, const QStringList& words, const QString& serial, CommandLine* line, QString* error);

// Checks the values a command was given (ranges, numbers, names) before
// anything runs: korux's own line before the plug-in loads, every script line
// before the first runs. False with the reason in error.
bool checkArguments(const Command& command, const CommandLine& line, QString* error);
bool checkAcquire(const CommandLine& line, QString* error);
bool checkCounter(const CommandLine& line, QString* error);
bool checkFlashPage(const CommandLine& line, QString* error);
bool checkGoto(const CommandLine& line, QString* error);
bool checkSet(const CommandLine& line, QString* error);

// Runs a command on its checked line, in the transcript too.
int runCommand(Session& session, const Command& command, const CommandLine& line);

// The handlers, by file.
int runHelp(Session& session, const CommandLine& line);
int runList(Session& session, const CommandLine& line);
int runEnumerate(Session& session, const CommandLine& line);
int runNoop(Session& session, const CommandLine& line);
int runFpgaUpdate(Session& session, const CommandLine& line);
int runArm(Session& session, const CommandLine& line);
int runStop(Session& session, const CommandLine& line);
int runAbort(Session& session, const CommandLine& line);
int runGoto(Session& session, const CommandLine& line);
int runParams(Session& session, const CommandLine& line);
int runVoltages(Session& session, const CommandLine& line);
int runSerial(Session& session, const CommandLine& line);
int runFlashFiles(Session& session, const CommandLine& line);
int runCounter(Session& session, const CommandLine& line);
int runFormatFlash(Session& session, const CommandLine& line);
int runFlashPage(Session& session, const CommandLine& line);
int runReport(Session& session, const CommandLine& line);
int runSet(Session& session, const CommandLine& line);
int runAcquire(Session& session, const CommandLine& line);
int runDicom(Session& session, const CommandLine& line);
int runSend(Session& session, const CommandLine& line);
int runScript(Session& session, const CommandLine& line);
int runDoctor(Session& session, const CommandLine& line);
int runShell(Session& session, const CommandLine& line);
int runSelftest(Session& session, const CommandLine& line);

// Splits a script line into words as a POSIX shell does (quotes, escapes,
// comments); false with the reason in error.
bool splitShellWords(const QString& text, QStringList* words, QString* error);

} // namespace korux
