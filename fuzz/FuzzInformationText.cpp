// The information text (PRD file) as the plug-in reads it from the sensor
// flash: Latin-1 bytes through a text stream, then the section parser.
#include <cstddef>
#include <cstdint>

#include <QByteArray>
#include <QTextStream>

#include "flash/InformationText.h"
#include "fuzz/FuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1 << 16)
        return 0;
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QTextStream stream(bytes);
    stream.setCodec("ISO 8859-1");
    QString text = stream.readAll();

    const ReportMap sections = korux::parseInformationText(text);

    // Line ends are all CR afterwards, and no section is kept empty or
    // unnamed.
    FUZZ_CHECK(!text.contains(QLatin1Char('\n')));
    for (auto section = sections.cbegin(); section != sections.cend(); ++section) {
        FUZZ_CHECK(!section.key().isEmpty());
        FUZZ_CHECK(!section.value().isEmpty());
        for (auto entry = section.value().cbegin(); entry != section.value().cend(); ++entry) {
            FUZZ_CHECK(!entry.key().contains(QLatin1Char('\r')));
            FUZZ_CHECK(!entry.value().toString().contains(QLatin1Char('\r')));
        }
    }
    return 0;
}
