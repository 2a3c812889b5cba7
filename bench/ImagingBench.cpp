// Timings of the pictures: the virtual sensor's phantom for one exposure,
// and the files korux writes for one shot (16-bit PNG, preview, both DICOM
// classes), encoded in memory. The plot is left out: its text needs a GUI
// application, and it is small.
#include <QDateTime>
#include <QImage>

#include <benchmark/benchmark.h>

#include <cstring>

#include "sim/Phantom.h"
#include "imaging/DicomExport.h"
#include "imaging/ImageFiles.h"
#include "imaging/ShotPictures.h"

namespace {

// One exposure of the small sensor; the phantom's scene is built once per
// size and process, so this is the cost of every shot after the first.
void BM_PhantomShot(benchmark::State& state)
{
    vbridge::renderPhantom(1000, 1506, vbridge::phantom::kReferenceDose, 1, 0);
    uint32_t shot = 1;
    for (auto _ : state)
        benchmark::DoNotOptimize(
            vbridge::renderPhantom(1000, 1506, vbridge::phantom::kReferenceDose, 1, shot++));
}
BENCHMARK(BM_PhantomShot)->Unit(benchmark::kMillisecond)->UseRealTime();

QImage shotImage()
{
    const std::vector<uint16_t> pixels
        = vbridge::renderPhantom(1000, 1506, vbridge::phantom::kReferenceDose, 1, 1);
    QImage image(1000, 1506, QImage::Format_Grayscale16);
    for (int y = 0; y < 1506; ++y)
        std::memcpy(image.scanLine(y), &pixels[static_cast<size_t>(y) * 1000], 2000);
    return image;
}

void BM_SensorPng(benchmark::State& state)
{
    const QImage image = shotImage();
    QString error;
    for (auto _ : state)
        benchmark::DoNotOptimize(korux::encodeSensorPng(image, korux::PngText(), &error));
}
BENCHMARK(BM_SensorPng)->Unit(benchmark::kMillisecond)->UseRealTime();

// Preview and both DICOM files of a shot.
void BM_ShotPictureFiles(benchmark::State& state)
{
    const QImage image = shotImage();
    const QString description
        = QStringLiteral("\r\n[ACQUISITION]\r\nEnergy=31244\r\nExposition=120\r\nOscillo=\r\n"
                         "[SENSOR]\r\nHardwareSerial=B1\r\nTechnology=CsI\r\n"
                         "Type=KORUX-KORUX2 Series\r\n");
    korux::PictureOptions options;
    options.dicom = options.presentation = true;
    const QDateTime now = QDateTime::currentDateTime();
    QString error;
    for (auto _ : state) {
        QVector<korux::ShotFile> files;
        const korux::DicomUnit unit = korux::unitFromDescription(description, QStringLiteral("2"));
        if (!korux::shotPictureFiles(QStringLiteral("/tmp/bench"), image, description, unit, now,
                korux::shotIdentity(unit, now, options), options, &files, &error))
            state.SkipWithError(error.toStdString().c_str());
        benchmark::DoNotOptimize(files);
    }
}
BENCHMARK(BM_ShotPictureFiles)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
