// The picture files of a shot as pure encoders: the 16-bit PNG with its
// pixel size and significant bits, the raw area, the automatic window and
// the 8-bit preview.
#include <QBuffer>
#include <QImage>
#include <QImageReader>
#include <QSet>

#include <cmath>

#include <gtest/gtest.h>

#include "sim/Phantom.h"
#include "imaging/ImageFiles.h"

using namespace korux;

namespace {

QImage grey16(int width, int height, const std::function<quint16(int, int)>& value)
{
    QImage image(width, height, QImage::Format_Grayscale16);
    for (int y = 0; y < height; ++y) {
        auto* row = reinterpret_cast<quint16*>(image.scanLine(y));
        for (int x = 0; x < width; ++x)
            row[x] = value(x, y);
    }
    return image;
}

quint16 pixel(const QImage& image, int x, int y)
{
    return reinterpret_cast<const quint16*>(image.constScanLine(y))[x];
}

// The data of the first chunk of this type, empty when there is none.
QByteArray chunk(const QByteArray& png, const char* type)
{
    int at = 8;
    while (at + 8 <= png.size()) {
        const quint32 length = (quint32(quint8(png[at])) << 24) | (quint32(quint8(png[at + 1])) << 16)
            | (quint32(quint8(png[at + 2])) << 8) | quint8(png[at + 3]);
        if (png.mid(at + 4, 4) == type)
            return png.mid(at + 8, static_cast<int>(length));
        at += 12 + static_cast<int>(length);
    }
    return QByteArray();
}

// The virtual sensor's picture of the default exposure, as the plug-in
// delivers it (size code 1 over the first pixel).
QImage defaultShot()
{
    const std::vector<uint16_t> pixels
        = vbridge::renderPhantom(1000, 1506, vbridge::phantom::kReferenceDose, 0x1234, 1);
    QImage image
        = grey16(1000, 1506, [&](int x, int y) { return pixels[static_cast<size_t>(y) * 1000 + x]; });
    reinterpret_cast<quint16*>(image.scanLine(0))[0] |= 0x4000;
    return image;
}

} // namespace

TEST(SensorPng, SaysItsPixelSizeAndFourteenSignificantBits)
{
    const QImage image = grey16(300, 200, [](int x, int y) { return quint16((x * 53 + y * 7) & 0x3FFF); });
    QString error;
    const QByteArray png = encodeSensorPng(image, PngText(), &error);
    ASSERT_FALSE(png.isEmpty()) << error.toStdString();
    EXPECT_EQ(chunk(png, "sBIT"), QByteArray(1, char(14)));
    // pHYs: 50,000 pixels per metre both ways, unit metre.
    EXPECT_EQ(chunk(png, "pHYs").toHex(), QByteArray("0000c3500000c35001"));
    EXPECT_EQ(quint8(chunk(png, "IHDR")[8]), 16); // bit depth
    QBuffer buffer(const_cast<QByteArray*>(&png));
    QImageReader reader(&buffer, "png");
    const QImage viewed = reader.read();
    EXPECT_EQ(viewed.dotsPerMeterX(), kPixelsPerMetre);
    EXPECT_EQ(viewed.dotsPerMeterY(), kPixelsPerMetre);
}

TEST(SensorPng, SamplesAreScaledToSixteenBitsAndReadBackExactly)
{
    const QImage image = grey16(64, 32, [](int x, int y) { return quint16((x * 257 + y * 911) & 0x3FFF); });
    QString error;
    const QByteArray png = encodeSensorPng(image, PngText(), &error);
    // A viewer that ignores sBIT sees the full 16-bit range: value << 2 with
    // the top bits repeated below.
    QImage viewed;
    ASSERT_TRUE(viewed.loadFromData(png, "png"));
    const quint16 v = pixel(image, 5, 3);
    EXPECT_EQ(pixel(viewed.convertToFormat(QImage::Format_Grayscale16), 5, 3), quint16(v << 2 | v >> 12));
    // korux and libpng readers that honour sBIT get the sensor's values.
    const QImage back = decodeSensorPng(png, nullptr, &error);
    ASSERT_FALSE(back.isNull()) << error.toStdString();
    ASSERT_EQ(back.size(), image.size());
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            ASSERT_EQ(pixel(back, x, y), pixel(image, x, y)) << x << "," << y;
}

TEST(SensorPng, FirstPixelLosesOnlyItsSizeCode)
{
    const QImage image = defaultShot();
    EXPECT_EQ(significantBits(image), 14);
    QString error;
    const QImage back = decodeSensorPng(encodeSensorPng(image, PngText(), &error), nullptr, &error);
    ASSERT_FALSE(back.isNull()) << error.toStdString();
    EXPECT_EQ(pixel(back, 0, 0), pixel(image, 0, 0) & 0x3FFF);
    EXPECT_EQ(pixel(back, 1, 0), pixel(image, 1, 0));
    EXPECT_EQ(pixel(back, 999, 1505), pixel(image, 999, 1505));
}

TEST(SensorPng, WiderValuesKeepSixteenBitsWithoutSBit)
{
    const QImage image = grey16(40, 20, [](int x, int y) { return quint16(x * 1500 + y); });
    EXPECT_EQ(significantBits(image), 16);
    QString error;
    const QByteArray png = encodeSensorPng(image, PngText(), &error);
    EXPECT_TRUE(chunk(png, "sBIT").isEmpty());
    QImage viewed;
    ASSERT_TRUE(viewed.loadFromData(png, "png"));
    EXPECT_EQ(pixel(viewed, 39, 19), quint16(39 * 1500 + 19));
}

TEST(SensorPng, TextChunksComeBack)
{
    PngText text;
    text.insert(QStringLiteral("Software"), QStringLiteral("korux"));
    text.insert(kPngFirmwareKey, QStringLiteral("2A"));
    QString error;
    PngText back;
    ASSERT_FALSE(decodeSensorPng(
        encodeSensorPng(grey16(4, 4, [](int, int) { return 7; }), text, &error), &back, &error)
                     .isNull())
        << error.toStdString();
    EXPECT_EQ(back, text);
}

TEST(SensorPng, AChunkLongerThanTheFileIsRefusedBeforeAnythingIsRead)
{
    PngText text;
    text.insert(QStringLiteral("Software"), QStringLiteral("korux"));
    QString error;
    QByteArray png = encodeSensorPng(grey16(4, 4, [](int, int) { return 7; }), text, &error);
    const int at = png.indexOf("tEXt") - 4;
    ASSERT_GT(at, 8);
    // A damaged length of almost 2 GiB: libpng would allocate it.
    png[at] = char(0x70);
    EXPECT_TRUE(decodeSensorPng(png, nullptr, &error).isNull());
    EXPECT_EQ(error, QStringLiteral("the PNG file is damaged: a chunk runs past the end of the file"));
}

TEST(SensorPng, WhatIsNoGreyPngIsRefusedWithTheReason)
{
    QString error;
    EXPECT_TRUE(decodeSensorPng(QByteArray("not a png at all"), nullptr, &error).isNull());
    EXPECT_EQ(error, QStringLiteral("not a PNG file"));
    QImage colour(8, 8, QImage::Format_RGB32);
    colour.fill(Qt::red);
    QByteArray png;
    QBuffer buffer(&png);
    buffer.open(QIODevice::WriteOnly);
    ASSERT_TRUE(colour.save(&buffer, "png"));
    EXPECT_TRUE(decodeSensorPng(png, nullptr, &error).isNull());
    EXPECT_TRUE(error.startsWith(QStringLiteral("not a grey-scale PNG"))) << error.toStdString();
    EXPECT_TRUE(decodeSensorPng(png.left(60), nullptr, &error).isNull());
    EXPECT_FALSE(error.isEmpty());
}

TEST(RawArea, DropsTheFourTopAndSixBottomRows)
{
    const QImage readout = grey16(10, 30, [](int, int y) { return quint16(y); });
    const QImage raw = rawArea(readout);
    ASSERT_EQ(raw.size(), QSize(10, 20));
    EXPECT_EQ(pixel(raw, 0, 0), 4);
    EXPECT_EQ(pixel(raw, 9, 19), 23);
    EXPECT_TRUE(rawArea(grey16(10, 10, [](int, int) { return 0; })).isNull());
}

TEST(Preview, WindowIsTheHalfPercentPoints)
{
    // 1000 pixels valued 0 to 999: the 5th and the 995th.
    const QImage ramp = grey16(1000, 1, [](int x, int) { return quint16(x); });
    const Window window = autoWindow(ramp);
    EXPECT_EQ(window.low, 4);
    EXPECT_EQ(window.high, 994);
}

TEST(Preview, ShowsTheRawAreaThroughTheInvertedSigmoid)
{
    // Covered rows of 0, then a raw area from 100 to 1099 over the columns.
    const QImage readout
        = grey16(1000, 20, [](int x, int y) { return quint16(y < 4 || y >= 14 ? 0 : 100 + x); });
    const QImage preview = previewImage(readout);
    ASSERT_EQ(preview.format(), QImage::Format_Grayscale8);
    // The covered rows are left out: no white bars.
    ASSERT_EQ(preview.size(), QSize(1000, 10));
    const Window window = autoWindow(rawArea(readout));
    for (int x : { 0, 4, 300, 500, 700, 994, 999 })
        EXPECT_EQ(preview.constScanLine(0)[x], qRound(255 * (1 - sigmoidLevel(100 + x, window)))) << x;
    // The window's ends are not clipped: the sigmoid rolls off gently.
    EXPECT_GT(preview.constScanLine(0)[4], 200);
    EXPECT_LT(preview.constScanLine(0)[4], 255);
    EXPECT_NEAR(preview.constScanLine(0)[500], 128, 2);
    for (int x = 1; x < 1000; ++x)
        ASSERT_LE(preview.constScanLine(9)[x], preview.constScanLine(9)[x - 1]) << x;
}

TEST(Preview, SigmoidIsTheStandardCurve)
{
    // Y = 1 / (1 + exp(-4 (x - c) / w)): a half at the centre, 1 / (1 + e^2)
    // and 1 / (1 + e^-2) at the window's ends.
    Window window;
    window.low = 100;
    window.high = 299;
    EXPECT_DOUBLE_EQ(sigmoidLevel(int(window.centre()), window), 1.0 / (1.0 + std::exp(2.0 / 200)));
    EXPECT_NEAR(sigmoidLevel(100, window), 1.0 / (1.0 + std::exp(2.0)), 0.01);
    EXPECT_NEAR(sigmoidLevel(300, window), 1.0 / (1.0 + std::exp(-2.0)), 0.01);
}

TEST(Preview, DefaultShotLooksLikeAnXRay)
{
    const QImage shot = defaultShot();
    const QImage preview = previewImage(shot);
    ASSERT_EQ(preview.format(), QImage::Format_Grayscale8);
    ASSERT_EQ(preview.size(), rawArea(shot).size());
    double sum = 0;
    QSet<int> levels;
    for (int y = 0; y < preview.height(); ++y) {
        const uchar* row = preview.constScanLine(y);
        for (int x = 0; x < preview.width(); ++x) {
            sum += row[x];
            levels.insert(row[x]);
        }
    }
    const double mean = sum / (preview.width() * preview.height());
    EXPECT_GT(mean, 60);
    EXPECT_LT(mean, 190);
    EXPECT_GE(levels.size(), 100);

    QString error;
    const QByteArray png = encodePreviewPng(shot, &error);
    ASSERT_FALSE(png.isEmpty()) << error.toStdString();
    EXPECT_EQ(quint8(chunk(png, "IHDR")[8]), 8);
    EXPECT_EQ(chunk(png, "pHYs").toHex(), QByteArray("0000c3500000c35001"));
    QImage viewed;
    ASSERT_TRUE(viewed.loadFromData(png, "png"));
    EXPECT_EQ(viewed.convertToFormat(QImage::Format_Grayscale8), preview);
}
