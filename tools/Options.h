// korux's command line: korux's own options anywhere, the first other word
// is the command, the words after it (its own options included) are the
// command's arguments.
#pragma once

#include <QString>
#include <QStringList>

namespace korux {

enum class ColorMode { Auto, Always, Never };

struct Options {
    // "auto" (the vendor's library when installed, else the virtual
    // bridge), "virtual", "vendor" or a library path.
    QString bridge = QStringLiteral("auto");
    QString scenario; // scenario file for the virtual bridge
    QString plugin; // plug-in library; empty: next to korux
    QString directory; // family directory; empty: the framework's default
    QString serial; // the one unit a command is for; empty: every unit
    QString transcript; // file that receives every signal as JSON lines
    QString record; // trace of the bridge traffic (docs/trace.md); empty: none
    bool recordMaskSerials = false;
    ColorMode color = ColorMode::Auto;
    bool verbose = false;
    bool quiet = false; // only results and errors
    bool json = false; // results as JSON documents, one a line, nothing else
    bool help = false;
    bool version = false;
    bool overwrite = false; // an existing transcript may be replaced
    bool timeScaleSet = false;
    double timeScale = 1.0;
    QString command;
    QStringList arguments;
};

// Parses the arguments after the program name; on failure says why in error.
bool parseOptions(const QStringList& arguments, Options* options, QString* error);

} // namespace korux
