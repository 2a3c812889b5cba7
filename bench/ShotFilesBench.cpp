// The files of one shot as korux acquire writes them: the image (and, with
// the argument 1, a black image too) encoded as PNG and written whole
// (temporary file, sync, rename). /1000 is the default virtual sensor's shot
// (1000 x 1506, no black image), which scripts/bench holds to 150 ms, the
// time from the image's delivery to its files being on the disk; /1300 the
// large sensor's with its black image.
#include <QImage>
#include <QTemporaryDir>

#include <cstdint>

#include <benchmark/benchmark.h>

#include "tools/AtomicFile.h"
#include "imaging/ShotFiles.h"

namespace {

// A sensor-like picture: a smooth exposure with pixel noise (xorshift, so
// every run encodes the same bytes).
QImage sensorImage(int width, int height, uint32_t seed)
{
    QImage image(width, height, QImage::Format_Grayscale16);
    uint32_t state = seed;
    for (int y = 0; y < height; ++y) {
        quint16* row = reinterpret_cast<quint16*>(image.scanLine(y));
        for (int x = 0; x < width; ++x) {
            state ^= state << 13;
            state ^= state >> 17;
            state ^= state << 5;
            row[x] = static_cast<quint16>(3000 + (x * 11 + y * 7) % 9000 + (state & 0xFF));
        }
    }
    return image;
}

void BM_ShotPngWrite(benchmark::State& state)
{
    const bool large = state.range(0) == 1300;
    const QImage image = large ? sensorImage(1300, 1706, 1) : sensorImage(1000, 1506, 1);
    const QImage black = large ? sensorImage(1300, 1706, 2) : QImage();
    QTemporaryDir directory;
    for (auto _ : state) {
        QByteArray imagePng;
        QByteArray blackPng;
        QString error;
        const bool written = korux::encodeShot(image, black, korux::PngText(), &imagePng, &blackPng, &error)
            && korux::writeFileAtomically(directory.filePath(QStringLiteral("shot.png")), imagePng,
                korux::AtomicFile::Existing::Replace, &error)
            && (black.isNull()
                || korux::writeFileAtomically(directory.filePath(QStringLiteral("shot-black.png")), blackPng,
                    korux::AtomicFile::Existing::Replace, &error));
        if (!written)
            state.SkipWithError(error.toUtf8().constData());
        benchmark::DoNotOptimize(imagePng.data());
    }
}
BENCHMARK(BM_ShotPngWrite)->Arg(1000)->Arg(1300)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
