// The oscilloscope plot and the description it is read from.
#include <QImage>

#include <gtest/gtest.h>

#include "imaging/OscilloscopePlot.h"
#include "imaging/ShotDescription.h"
#include "imaging/ShotPictures.h"

using namespace korux;

namespace {

// A description as the plug-in writes it (CR LF, leading empty line).
QString description(const QString& oscillo, int energy = 12, int exposition = 87)
{
    return QStringLiteral(
        "\r\n[ACQUISITION]\r\nEnergy=%1\r\nExposition=%2\r\nOscillo=%3\r\nPixelHeight=20\r\n"
        "PixelWidth=20\r\nResolution=High\r\ndirectUnarmed=false\r\n[SENSOR]\r\n"
        "HardwareSerial=B123\r\nInside=no\r\nSensorSerial=S456\r\nSerial=789\r\nSize=1\r\n"
        "Technology=CsI\r\nType=KORUX-KORUX2 Series\r\n")
        .arg(energy)
        .arg(exposition)
        .arg(oscillo);
}

// Samples ramping up to 700 and down again, as a short exposure gives them.
QString exposureSamples()
{
    QString text;
    for (int i = 0; i < 120; ++i) {
        const int edge = std::min(i, 119 - i);
        const int value = edge < 5 ? 428 + (700 - 428) * (edge + 1) / 6 : 700;
        text += QStringLiteral("%1").arg(value, 4, 16, QLatin1Char('0'));
    }
    return text;
}

// Dark pixels of the heading (title, energy and exposition): text was drawn.
int headingInk(const QImage& image)
{
    int count = 0;
    for (int y = 0; y < 50; ++y)
        for (int x = 0; x < image.width(); ++x)
            count += qGray(image.pixel(x, y)) < 100;
    return count;
}

int countColour(const QImage& image, QRgb colour, int tolerance)
{
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const QRgb c = image.pixel(x, y);
            if (std::abs(qRed(c) - qRed(colour)) <= tolerance
                && std::abs(qGreen(c) - qGreen(colour)) <= tolerance
                && std::abs(qBlue(c) - qBlue(colour)) <= tolerance)
                ++count;
        }
    }
    return count;
}

} // namespace

TEST(ShotDescription, SectionsAndKeysAreReadBack)
{
    const Description sections = parseDescription(description(QStringLiteral("01ad")));
    EXPECT_EQ(sections.keys(), (QStringList { QStringLiteral("ACQUISITION"), QStringLiteral("SENSOR") }));
    EXPECT_EQ(sections["ACQUISITION"]["Oscillo"], QStringLiteral("01ad"));
    EXPECT_EQ(sections["SENSOR"]["Type"], QStringLiteral("KORUX-KORUX2 Series"));
    EXPECT_EQ(sections["SENSOR"]["HardwareSerial"], QStringLiteral("B123"));
}

TEST(ShotDescription, OscilloscopeTextIsFourHexDigitsASample)
{
    QVector<int> samples;
    QString error;
    ASSERT_TRUE(parseOscilloscope(QStringLiteral("0105010a03FF"), &samples, &error)) << error.toStdString();
    EXPECT_EQ(samples, (QVector<int> { 0x105, 0x10a, 0x3ff }));
    EXPECT_FALSE(parseOscilloscope(QStringLiteral("01050"), &samples, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("5 characters"))) << error.toStdString();
    EXPECT_FALSE(parseOscilloscope(QStringLiteral("0105+1ab"), &samples, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("\"+1ab\""))) << error.toStdString();
}

TEST(OscilloscopePlot, HasItsSizeTheCurveAndTheThreshold)
{
    OscilloscopeFigures figures;
    QString error;
    ASSERT_TRUE(oscilloscopeFromDescription(description(exposureSamples()), &figures, &error))
        << error.toStdString();
    ASSERT_EQ(figures.samples.size(), 120);
    EXPECT_TRUE(figures.hasEnergy);
    EXPECT_EQ(figures.energy, 12);
    EXPECT_EQ(figures.exposition, 87);
    const QImage plot = plotOscilloscope(figures);
    ASSERT_EQ(plot.size(), kOscilloscopePlotSize);
    EXPECT_GT(headingInk(plot), 500);
    // The curve (dark blue) runs across the plot; the threshold (red) too.
    EXPECT_GT(countColour(plot, qRgb(20, 60, 160), 30), 700);
    EXPECT_GT(countColour(plot, qRgb(200, 30, 30), 30), 300);
    // The samples above the threshold are filled: at 700 the curve stands
    // above the area, below it the fill reaches the threshold.
    EXPECT_GT(countColour(plot, qRgb(170, 205, 240), 10), 50000);
    // A flat exposure at 700 puts the curve at 700's height in the middle.
    const int x = plot.width() / 2;
    bool curveAt700 = false;
    for (int y = 0; y < plot.height(); ++y)
        curveAt700 = curveAt700
            || (qBlue(plot.pixel(x, y)) > 120 && qRed(plot.pixel(x, y)) < 60
                && qGreen(plot.pixel(x, y)) < 100);
    EXPECT_TRUE(curveAt700);
}

TEST(OscilloscopePlot, NoSamplesNoPlot)
{
    OscilloscopeFigures figures;
    QString error;
    ASSERT_TRUE(oscilloscopeFromDescription(description(QString()), &figures, &error)) << error.toStdString();
    EXPECT_TRUE(figures.samples.isEmpty());
    EXPECT_TRUE(plotOscilloscope(figures).isNull());
    // Nor is a plot file among a shot's pictures.
    QImage image(100, 30, QImage::Format_Grayscale16);
    image.fill(0);
    QVector<ShotFile> files;
    ASSERT_TRUE(shotPictureFiles(QStringLiteral("/tmp/x-001"), image, description(QString()), DicomUnit(),
        QDateTime::currentDateTime(), DicomIdentity(), PictureOptions(), &files, &error))
        << error.toStdString();
    ASSERT_EQ(files.size(), 1);
    EXPECT_EQ(files.first().path, QStringLiteral("/tmp/x-001-preview.png"));
}

TEST(OscilloscopePlot, ShotWithSamplesGetsItsPlotFile)
{
    QImage image(100, 30, QImage::Format_Grayscale16);
    image.fill(1000);
    QVector<ShotFile> files;
    QString error;
    ASSERT_TRUE(shotPictureFiles(QStringLiteral("/tmp/x-002"), image, description(exposureSamples()),
        DicomUnit(), QDateTime::currentDateTime(), DicomIdentity(), PictureOptions(), &files, &error))
        << error.toStdString();
    ASSERT_EQ(files.size(), 2);
    EXPECT_EQ(files.at(1).path, QStringLiteral("/tmp/x-002-oscilloscope.png"));
    QImage plot;
    ASSERT_TRUE(plot.loadFromData(files.at(1).bytes, "png"));
    EXPECT_EQ(plot.size(), kOscilloscopePlotSize);
}

TEST(OscilloscopePlot, BrokenOscilloscopeTextIsAnError)
{
    QImage image(100, 30, QImage::Format_Grayscale16);
    image.fill(1000);
    QVector<ShotFile> files;
    QString error;
    EXPECT_FALSE(shotPictureFiles(QStringLiteral("/tmp/x-003"), image, description(QStringLiteral("01ag")),
        DicomUnit(), QDateTime::currentDateTime(), DicomIdentity(), PictureOptions(), &files, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("\"01ag\""))) << error.toStdString();
}
