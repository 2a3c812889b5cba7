// Where korux finds the plug-in and the virtual bridge, relative to its own
// directory: the installed layout first (the build passes it in), then the
// build tree's (bin/, lib/, lib/virtual/). Every command, doctor and help use
// this one lookup.
#pragma once

#include <QDir>
#include <QFileInfo>
#include <QString>

namespace korux {

// The first of the directories (relative to base) that holds file; the
// last one when none does: korux runs from a build tree then, and a failure
// names the build tree's place.
inline QString locateFile(const QString& base, std::initializer_list<const char*> directories, const QString& file)
{
    QString last;
    for (const char* directory : directories) {
        const QString path = QDir::cleanPath(base + QLatin1Char('/') + QLatin1String(directory) + QLatin1Char('/') + file);
        last = path;
        if (QFileInfo::exists(path))
            return path;
    }
    return last;
}

inline QString pluginFileFrom(const QString& executableDirectory)
{
    return locateFile(executableDirectory, { KORUX_PLUGIN_DIR_FROM_BIN, "../lib" },
        QStringLiteral("libVeltraXRayKORUX.so"));
}

inline QString virtualBridgeFileFrom(const QString& executableDirectory)
{
    return locateFile(
        executableDirectory, { KORUX_BRIDGE_DIR_FROM_BIN, "../lib/virtual" }, QStringLiteral("libft4222.so"));
}

} // namespace korux
