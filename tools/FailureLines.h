// Which of the plug-in's log lines tell of a failure: those it colours red,
// and the flash, information and read-out failures it logs without a colour.
// korux judges a command's outcome by them, and the fault tests do too.
#pragma once

#include <QLatin1String>
#include <QString>

namespace korux {

inline bool isFailureLine(const QString& text)
{
    static const char* const kUncoloured[] = {
        "readFlash failed!",
        "no data to be read!",
        "No file present at",
        "Invalid file size at",
        "readFlash error",
        "Sensor is not ready",
        "Sensor serial not readable",
        "Sensor size not readable",
        "SPI r/w error",
        "Unable to read binary image",
    };
    if (text.startsWith(QLatin1String("[red")))
        return true;
    for (const char* start : kUncoloured)
        if (text.startsWith(QLatin1String(start)))
            return true;
    return false;
}

} // namespace korux
