// Lattice bitstream files as the update procedure compares them: a header of
// zero-terminated texts after 0xFF and one more byte, the seventh text being
// the build date in RFC 2822 form after six leading characters.
#pragma once

#include <cstdint>

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QStringList>

namespace korux {

constexpr int kBitstreamHeaderRead = 2048;
constexpr int kBitstreamTexts = 7;
constexpr uint8_t kBitstreamFirstByte = 0xFF;

// Reads the first 2048 bytes of a file into a zero-filled buffer (a file
// that does not open leaves it zero).
QByteArray readBitstreamHeader(const QString& path);

// The seven header texts from offset 2 (missing ones are empty).
QStringList bitstreamTexts(const QByteArray& header);

// The date of the seventh text, from its seventh character on.
QDateTime bitstreamDate(const QString& dateText);

// "KORUX_%1.bit", %1 the two characters before the last of port A's serial.
QString applicationBitstreamName(const QString& portASerial);

// The application's bitstream directory: the application's own, or the one
// that holds its bundle.
QString applicationBitstreamDirectory(const QString& applicationDir);

// Lattice configuration answers are big-endian 32-bit values.
constexpr uint32_t bigEndian32(const uint8_t* bytes)
{
    return (uint32_t(bytes[0]) << 24) | (uint32_t(bytes[1]) << 16) | (uint32_t(bytes[2]) << 8) | bytes[3];
}

constexpr uint32_t littleEndian32(const uint8_t* bytes)
{
    return (uint32_t(bytes[3]) << 24) | (uint32_t(bytes[2]) << 16) | (uint32_t(bytes[1]) << 8) | bytes[0];
}

}  // namespace korux
