// The picture files of a shot, as bytes (writing them to disk is the
// caller's business): the sensor image as a 16-bit PNG that tells its pixel
// size and its significant bits, and an 8-bit preview windowed so that it
// looks like an X-ray film in any viewer. Pure functions: no files, no clock.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QMap>
#include <QString>

namespace korux {

// The sensor's pixels are 20 um square: 50,000 per metre.
constexpr int kPixelsPerMetre = 50000;
constexpr double kPixelSpacingMm = 0.020;
// The converter gives 14 bits; the sensor uses the top two bits of the
// first pixel of the read-out for its size code.
constexpr int kSensorBits = 14;
// The read-out has 10 rows more than the image: 4 covered rows above it and
// 6 below.
constexpr int kCoveredRowsTop = 4;
constexpr int kCoveredRowsBottom = 6;

// Text chunks of a PNG: keyword (Latin-1, 1 to 79 characters) to text.
using PngText = QMap<QString, QString>;
// Keywords korux writes besides the standard "Software", "Source" and
// "Creation Time".
extern const QString kPngFirmwareKey; // the sensor's firmware

// 14 when every pixel but the first (whose top bits carry the size code)
// fits in 14 bits, else 16.
int significantBits(const QImage& image);

// A 16-bit grey-scale PNG of a sensor image (Format_Grayscale16, or
// converted to it). With 14 significant bits the samples are scaled to 16
// bits by bit replication, as PNG asks, and the sBIT chunk says 14: readers
// that honour it (libpng, korux) get the sensor's values back exactly; the
// first pixel's size code is not kept. pHYs gives 50,000 pixels per metre.
// Null with the reason in error when it cannot be encoded.
QByteArray encodeSensorPng(const QImage& image, const PngText& text, QString* error);

// A PNG's header (IHDR), read without decoding anything. False when the
// bytes do not start as a PNG does.
struct PngHeader {
    quint32 width = 0;
    quint32 height = 0;
    int bitDepth = 0;
    int colourType = 0; // 0 grey, 2 RGB, 3 palette, 4 grey and alpha, 6 RGBA
};
bool readPngHeader(const QByteArray& bytes, PngHeader* header);

// The read-out sizes of the two sensors (width x height): the .txt's Size
// "1" and "2".
constexpr int kSmallReadoutWidth = 1000;
constexpr int kSmallReadoutHeight = 1506;
constexpr int kLargeReadoutWidth = 1300;
constexpr int kLargeReadoutHeight = 1706;

// Reads a grey-scale PNG (8 or 16 bits) into a Format_Grayscale16 image of
// the original values (the sBIT chunk undone), with its text chunks.
QImage decodeSensorPng(const QByteArray& bytes, PngText* text, QString* error);

// The raw image in a read-out: without its 4 covered rows at the top and 6
// at the bottom (cut as the black image is). Null when the image is too
// small to hold them.
QImage rawArea(const QImage& readout);

// The display window of an image: its 0.5 % and 99.5 % points.
struct Window {
    int low = 0;
    int high = 0;
    double centre() const { return (low + high) / 2.0; }
    int width() const { return high - low + 1; }
};
Window autoWindow(const QImage& image);

// The displayed level (0 to 1) of a value through the window's sigmoid, as
// a viewer shows a For Presentation file (VOI LUT Function SIGMOID).
double sigmoidLevel(int value, const Window& window);

// The preview of a read-out: 8 bits, the raw area (the covered rows left
// out), the window's sigmoid on the raw area's histogram, inverted as film
// is (what stopped the beam is white).
QImage previewImage(const QImage& readout);
// The preview as an 8-bit PNG with its pixel size.
QByteArray encodePreviewPng(const QImage& readout, QString* error);

// Any image as a PNG (the oscilloscope plot), with the pixel size unless
// withPixelSize is false.
QByteArray encodePng(const QImage& image, bool withPixelSize, QString* error);

} // namespace korux
