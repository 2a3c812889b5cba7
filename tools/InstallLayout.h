// Where korux finds the plug-in and the virtual bridge, relative to its own
// directory: the build tree's layout (bin/, lib/, lib/virtual/) first, then
// the installed one, which the build passes in.
#pragma once

#include <QDir>
#include <QFileInfo>
#include <QString>

namespace korux {

// The first of the directories (relative to base) that holds file; the
// first one when none does, so that a failure names the usual place.
inline QString locateFile(const QString& base, std::initializer_list<const char*> directories, const QString& file)
{
    QString first;
    for (const char* directory : directories) {
        const QString path = QDir::cleanPath(base + QLatin1Char('/') + QLatin1String(directory) + QLatin1Char('/') + file);
        if (first.isEmpty())
            first = path;
        if (QFileInfo::exists(path))
            return path;
    }
    return first;
}

inline QString pluginFileFrom(const QString& executableDirectory)
{
    return locateFile(executableDirectory, { "../lib", KORUX_PLUGIN_DIR_FROM_BIN }, QStringLiteral("libVeltraXRayKORUX.so"));
}

inline QString virtualBridgeFileFrom(const QString& executableDirectory)
{
    return locateFile(executableDirectory, { "../lib/virtual", KORUX_BRIDGE_DIR_FROM_BIN }, QStringLiteral("libft4222.so"));
}

} // namespace korux
