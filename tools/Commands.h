// korux's commands, as a table: a new command is a handler and a row.
#pragma once

#include <QString>
#include <QStringList>

#include <vector>

#include "tools/Console.h"
#include "tools/Options.h"
#include "tools/PluginHost.h"

namespace korux {

// What a command works with. host is null for commands that run without the
// plug-in (help).
struct Session {
    const Options& options;
    Console& console;
    PluginHost* host = nullptr;
};

struct Command {
    const char* name;
    const char* arguments; // synopsis of the arguments, "" for none
    const char* summary;
    int minimumArguments;
    int maximumArguments;
    bool needsPlugin;
    int (*run)(Session& session, const QStringList& arguments);
};

const std::vector<Command>& commandTable();
const Command* findCommand(const QString& name);
QString usageText();

} // namespace korux
