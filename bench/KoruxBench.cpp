// Timings of the plug-in through the virtual bridge. Every measurement has a
// baseline measured in the same run (named *_Baseline, *_Ideal or
// *_Unavoidable) so that scripts/bench can report ratios that do not depend
// on the machine.
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "acquisition/AcquisitionProtocol.h"
#include "flash/FlashProtocol.h"
#include "host/VeltraXRayHardware.h"
#include "plugin/JsonReport.h"
#include "plugin/QVeltraXRayKORUXPlugIn.h"
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"
#include "sim/FlashContent.h"
#include "sim/VirtualBridge.h"
#include "transport/BridgeApi.h"
#include "transport/SensorProtocol.h"

extern "C" QVeltraHardwareFamily* getVeltraHardware();

namespace {

constexpr size_t kLargeImageBytes = 1300u * 1706u * 2u; // 4,435,600
constexpr uint32_t kLargestFile = 0x3FFFFF;
constexpr uint32_t kFileAddress = vbridge::kFfcAddress;

vbridge::VirtualBridge& bridge() { return vbridge::VirtualBridge::instance(); }

// A virtual machine with its sensors and the plug-in's family on it, in the
// status that accepts arming (as after the FPGA check).
class Machine {
public:
    explicit Machine(const vbridge::SensorConfig& config, int sensors = 1)
    {
        setSleepTimeScale(0.0);
        bridge().reset();
        for (int i = 0; i < sensors; ++i)
            bridge().addSensor(config);
        family_.reset(static_cast<QVeltraXRayKORUXPlugIn*>(getVeltraHardware()));
        family_->setDirectory(QDir(directory_.path()));
        ok_ = family_->initializeVeltraHardwareFamily() && family_->numberOfKorux3() == sensors;
        if (ok_) {
            family_->gotoStatus(statusFpgaUpdating);
            ok_ = family_->status() == statusFpgaUpdated;
        }
        bridge().setTraceEnabled(false);
        bridge().clearTrace();
    }

    ~Machine()
    {
        family_.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        bridge().setTraceEnabled(true);
        bridge().reset();
        setSleepTimeScale(1.0);
    }

    bool ok() const { return ok_; }
    QVeltraXRayKORUXPlugInUnit* unit(int index = 0) { return family_->deviceUnit(index); }
    QString path(const QString& name) const { return QDir(directory_.path()).filePath(name); }

private:
    QTemporaryDir directory_;
    std::unique_ptr<QVeltraXRayKORUXPlugIn> family_;
    bool ok_ = false;
};

// A sensor whose flash starts erased: each benchmark writes what it reads.
vbridge::SensorConfig erasedSensor()
{
    vbridge::SensorConfig config;
    config.defaultFlash = false;
    return config;
}

vbridge::SensorConfig largeSensor()
{
    vbridge::SensorConfig config;
    config.sizeCode = 2;
    return config;
}

std::vector<uint8_t> filler(size_t size)
{
    std::vector<uint8_t> data(size);
    uint32_t x = 1;
    for (uint8_t& byte : data) {
        x = x * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(x >> 24);
    }
    return data;
}

double processCpuSeconds()
{
    timespec ts {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// ---------------------------------------------------------------- read-out

void swapBytes16(uint8_t* data, size_t size)
{
    for (size_t i = 0; i + 1 < size; i += 2) {
        uint16_t value;
        std::memcpy(&value, data + i, 2);
        value = static_cast<uint16_t>((value >> 8) | (value << 8));
        std::memcpy(data + i, &value, 2);
    }
}

void BM_ImageReadout(benchmark::State& state)
{
    Machine machine(largeSensor());
    QVeltraXRayKORUXPlugInUnit* unit = machine.unit();
    if (!machine.ok() || !unit->readInformation(true)) {
        state.SkipWithError("the sensor did not come up");
        return;
    }
    // The image blocks read zeros until the sensor holds an image.
    bridge().holdDarkImage(0);
    for (auto _ : state) {
        if (!unit->readImage(false)) {
            state.SkipWithError("readImage failed");
            break;
        }
    }
    const QImage image = unit->binaryImage();
    if (image.width() != 1300 || image.height() != 1706)
        state.SkipWithError("the image is not 1300 x 1706");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kLargeImageBytes));
}
BENCHMARK(BM_ImageReadout)->Unit(benchmark::kMillisecond)->UseRealTime();

// For reference only: a copy and a swap of the same bytes, without any bridge
// call.
void BM_ImageReadout_CopyAndSwap(benchmark::State& state)
{
    const std::vector<uint8_t> source = filler(kLargeImageBytes);
    std::vector<uint8_t> target(kLargeImageBytes);
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), kLargeImageBytes);
        swapBytes16(target.data(), target.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kLargeImageBytes));
}
BENCHMARK(BM_ImageReadout_CopyAndSwap)->Unit(benchmark::kMillisecond)->UseRealTime();

// The read-out's baseline: nothing but the least work its block reads allow,
// over the same virtual bridge calls. A fresh image allocated and filled
// black, the 68 block transfers straight into it (the last one, rounded up to
// 128 bytes on the wire, into a tail buffer of its own), one swap. What the
// plug-in adds on top: block 0 is read into a scratch buffer first (its size
// code decides the image) and copied, every transfer switches the lines to
// quad again and writes its trace line, the scratch buffer is allocated and
// zeroed per read-out, and each bridge call is an operation of the plug-in.
void BM_ImageReadout_Baseline(benchmark::State& state)
{
    Machine machine(largeSensor());
    QVeltraXRayKORUXPlugInUnit* unit = machine.unit();
    if (machine.ok())
        bridge().holdDarkImage(0);
    if (!machine.ok() || !unit->readInformation(true) || !unit->readImage(false)) {
        state.SkipWithError("the sensor did not come up");
        return;
    }
    const FT_HANDLE portA = unit->portRecord(0).ftHandle;
    const QSize size = unit->BINImageSize();
    const korux::ImageBlocks blocks = korux::imageBlocks(size);
    std::vector<uint8_t> tail(korux::kImageBlockSize);
    FT4222_SPIMaster_SetLines(portA, SPI_IO_QUAD);
    for (auto _ : state) {
        QImage image(size, QImage::Format_Grayscale16);
        image.fill(0);
        uint8_t* pixels = image.bits();
        uint32 bytesRead = 0;
        bool ok = true;
        for (uint32_t number = 0; number < blocks.fullBlocks && ok; ++number) {
            korux::CommandFrame command = korux::sensorCommand(
                korux::kClassData, static_cast<uint8_t>(korux::kCodeImageBlock + number));
            ok = FT4222_SPIMaster_MultiReadWrite(portA, pixels + number * korux::kImageBlockSize,
                     command.data(), 4, 0, static_cast<uint16>(korux::kImageBlockSize), &bytesRead)
                == FT4222_OK;
        }
        if (ok && blocks.remainder != 0) {
            korux::CommandFrame command = korux::sensorCommand(
                korux::kClassData, static_cast<uint8_t>(korux::kCodeImageBlock + blocks.fullBlocks));
            ok = FT4222_SPIMaster_MultiReadWrite(portA, tail.data(), command.data(), 4, 0,
                     static_cast<uint16>(blocks.lastReadLength), &bytesRead)
                == FT4222_OK;
            std::memcpy(pixels + blocks.fullBlocks * korux::kImageBlockSize, tail.data(), blocks.remainder);
        }
        if (!ok) {
            state.SkipWithError("a block transfer failed");
            break;
        }
        korux::swapPixelBytes(pixels, blocks.totalBytes / 2);
        benchmark::DoNotOptimize(image.constBits());
    }
    state.SetBytesProcessed(
        static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kLargeImageBytes));
}
BENCHMARK(BM_ImageReadout_Baseline)->Unit(benchmark::kMillisecond)->UseRealTime();

// --------------------------------------------------------------- flash file

void BM_FlashFileCopy(benchmark::State& state)
{
    Machine machine(erasedSensor());
    QVeltraXRayKORUXPlugInUnit* unit = machine.unit();
    if (!machine.ok()) {
        state.SkipWithError("the sensor did not come up");
        return;
    }
    bridge().setFlashContents(0, kFileAddress, vbridge::flashFileImage(filler(kLargestFile)));
    const QString path = machine.path(QStringLiteral("largest.bin"));
    for (auto _ : state) {
        // The copy of the previous round is removed so that this one is
        // really read from the flash.
        state.PauseTiming();
        QFile::remove(path);
        state.ResumeTiming();
        if (!unit->readFlashFile(path, kFileAddress, false, false)) {
            state.SkipWithError("readFlashFile failed");
            break;
        }
    }
    if (QFile(path).size() != static_cast<qint64>(kLargestFile))
        state.SkipWithError("the copy does not have the file's size");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kLargestFile);
}
BENCHMARK(BM_FlashFileCopy)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FlashFileCopy_Baseline(benchmark::State& state)
{
    const std::vector<uint8_t> source = filler(kLargestFile);
    std::vector<uint8_t> target(kLargestFile);
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), kLargestFile);
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kLargestFile);
}
BENCHMARK(BM_FlashFileCopy_Baseline)->Unit(benchmark::kMillisecond)->UseRealTime();

// What the copy cannot avoid: the same virtual flash reads (the first sector,
// then 60 KiB at a time, over port C on four lines) of the same bytes, and
// one write of them to a fresh file. What the copy adds on top: the ports
// opened, port C set up and the flash reset before the first read, a
// line-mode switch and a trace line per read, the content gathered into a
// buffer of its own, and the ports closed after the copy.
void BM_FlashFileCopy_Unavoidable(benchmark::State& state)
{
    Machine machine(erasedSensor());
    QVeltraXRayKORUXPlugInUnit* unit = machine.unit();
    if (!machine.ok() || !unit->openPorts() || !unit->initPortC(false)) {
        state.SkipWithError("the sensor did not come up");
        return;
    }
    bridge().setFlashContents(0, kFileAddress, vbridge::flashFileImage(filler(kLargestFile)));
    const FT_HANDLE portC = unit->portRecord(2).ftHandle;
    constexpr uint32_t kSector = 4096;
    constexpr uint32_t kChunk = 15 * kSector;
    const uint32_t total = kLargestFile + static_cast<uint32_t>(korux::kFlashFileHeaderSize);
    std::vector<uint8_t> content(((total + kChunk - 1) / kChunk + 1) * kChunk);
    const QByteArray path = QFile::encodeName(machine.path(QStringLiteral("largest.bin")));
    FT4222_SPIMaster_SetLines(portC, SPI_IO_QUAD);
    for (auto _ : state) {
        state.PauseTiming();
        ::unlink(path.constData());
        state.ResumeTiming();
        bool ok = true;
        uint32 bytesRead = 0;
        for (uint32_t offset = 0; offset < total && ok;) {
            const uint32_t length = offset == 0 ? kSector : kChunk;
            auto frame = korux::quadReadFrame(kFileAddress + offset);
            ok = FT4222_SPIMaster_MultiReadWrite(portC, content.data() + offset, frame.data(),
                     korux::kQuadReadOpcodeBytes, korux::kQuadReadAddressBytes, static_cast<uint16>(length),
                     &bytesRead)
                == FT4222_OK;
            offset += length;
        }
        const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ok = ok && fd >= 0
            && ::write(fd, content.data() + korux::kFlashFileHeaderSize, kLargestFile)
                == static_cast<ssize_t>(kLargestFile);
        if (fd >= 0)
            ::close(fd);
        if (!ok) {
            state.SkipWithError("the flash reads or the write failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kLargestFile);
}
BENCHMARK(BM_FlashFileCopy_Unavoidable)->Unit(benchmark::kMillisecond)->UseRealTime();

// ------------------------------------------------------------ shot counter

void BM_ShotCounterRead(benchmark::State& state)
{
    Machine machine(erasedSensor());
    QVeltraXRayKORUXPlugInUnit* unit = machine.unit();
    if (!machine.ok()) {
        state.SkipWithError("the sensor did not come up");
        return;
    }
    // Every one of the 4096 slots used: the search goes through the whole
    // 16 KiB area.
    std::vector<uint32_t> values(4096);
    for (size_t i = 0; i < values.size(); ++i)
        values[i] = 1000 + static_cast<uint32_t>(i);
    bridge().setFlashContents(0, vbridge::kCounterAddress, vbridge::counterAreaImage(values));
    if (!unit->openPorts() || !unit->initPortC(false)) {
        state.SkipWithError("port C did not open");
        return;
    }
    unsigned int value = 0;
    int index = 0;
    for (auto _ : state) {
        if (!unit->getShootCounter(&value, &index)) {
            state.SkipWithError("getShootCounter failed");
            break;
        }
    }
    if (value != 1000 + 4095 || index != 4095)
        state.SkipWithError("wrong counter value");
}
BENCHMARK(BM_ShotCounterRead)->Unit(benchmark::kMicrosecond)->UseRealTime();

// ------------------------------------------------------------- JSON report

ReportMap parameterReport()
{
    ReportSection section;
    for (int i = 0; i < 12; ++i)
        section.insert(QStringLiteral("integerParameter%1").arg(i, 2, 10, QLatin1Char('0')), 1000 + 37 * i);
    for (int i = 0; i < 8; ++i)
        section.insert(QStringLiteral("flag%1").arg(i), i % 2 == 0);
    for (int i = 0; i < 8; ++i)
        section.insert(QStringLiteral("voltage%1").arg(i), 1.25 * i + 0.125);
    for (int i = 0; i < 12; ++i)
        section.insert(QStringLiteral("text%1").arg(i, 2, 10, QLatin1Char('0')),
                       QStringLiteral("value of the text parameter number %1").arg(i));
    ReportMap map;
    map.insert(QStringLiteral("KORUX-KORUX2 Series"), section);
    return map;
}

void BM_JsonReport(benchmark::State& state)
{
    const ReportMap map = parameterReport();
    for (auto _ : state) {
        const QJsonDocument document = mapToJsonDocument(map);
        QString text = QString::fromUtf8(document.toJson(QJsonDocument::Indented));
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_JsonReport)->Unit(benchmark::kMicrosecond);

void BM_JsonReportText(benchmark::State& state)
{
    const ReportMap map = parameterReport();
    for (auto _ : state) {
        QString text = reportText(map);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_JsonReportText)->Unit(benchmark::kMicrosecond);

// ------------------------------------------------------------- enumeration

void BM_EnumerateFourSensors(benchmark::State& state)
{
    setSleepTimeScale(0.0);
    bridge().reset();
    for (int i = 0; i < 4; ++i)
        bridge().addSensor(vbridge::SensorConfig());
    bridge().setTraceEnabled(false);
    QTemporaryDir directory;
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<QVeltraXRayKORUXPlugIn> family(static_cast<QVeltraXRayKORUXPlugIn*>(getVeltraHardware()));
        family->setDirectory(QDir(directory.path()));
        state.ResumeTiming();
        const bool ok = family->initializeVeltraHardwareFamily();
        state.PauseTiming();
        const int units = family->numberOfKorux3();
        family.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        state.ResumeTiming();
        if (!ok || units != 4) {
            state.SkipWithError("the four sensors were not enumerated");
            break;
        }
    }
    bridge().setTraceEnabled(true);
    bridge().reset();
    setSleepTimeScale(1.0);
}
BENCHMARK(BM_EnumerateFourSensors)->Unit(benchmark::kMillisecond)->UseRealTime();

// ------------------------------------------------------------ fine sleeps

void BM_SleepUs(benchmark::State& state)
{
    setSleepTimeScale(1.0);
    const unsigned long us = static_cast<unsigned long>(state.range(0));
    std::vector<double> overshoots;
    overshoots.reserve(4096);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        Sleep_us(us);
        const auto end = std::chrono::steady_clock::now();
        overshoots.push_back(std::chrono::duration<double, std::micro>(end - start).count() - static_cast<double>(us));
    }
    if (overshoots.empty())
        return;
    std::sort(overshoots.begin(), overshoots.end());
    const auto at = [&](double fraction) {
        const size_t i = static_cast<size_t>(fraction * static_cast<double>(overshoots.size() - 1) + 0.5);
        return overshoots[std::min(i, overshoots.size() - 1)];
    };
    state.counters["median_overshoot_us"] = at(0.5);
    state.counters["p99_overshoot_us"] = at(0.99);
    state.counters["min_overshoot_us"] = overshoots.front();
}
BENCHMARK(BM_SleepUs)->Arg(10)->Arg(100)->Arg(400)->Unit(benchmark::kMicrosecond)->UseRealTime()
    ->MinTime(0.5);

// ------------------------------------------------- read-out at wire speed

void BM_ImageReadoutLinkTiming(benchmark::State& state)
{
    Machine machine(largeSensor());
    QVeltraXRayKORUXPlugInUnit* unit = machine.unit();
    if (!machine.ok() || !unit->readInformation(true)) {
        state.SkipWithError("the sensor did not come up");
        return;
    }
    bridge().holdDarkImage(0);
    bridge().setLinkTiming(true);
    double cpu = 0;
    double wall = 0;
    for (auto _ : state) {
        const double cpuStart = processCpuSeconds();
        const auto wallStart = std::chrono::steady_clock::now();
        const bool ok = unit->readImage(false);
        wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
        cpu += processCpuSeconds() - cpuStart;
        if (!ok) {
            state.SkipWithError("readImage failed");
            break;
        }
    }
    bridge().setLinkTiming(false);
    state.counters["cpu_ms"] = benchmark::Counter(cpu * 1e3, benchmark::Counter::kAvgIterations);
    state.counters["wall_ms"] = benchmark::Counter(wall * 1e3, benchmark::Counter::kAvgIterations);
    state.counters["cpu_wall_ratio"] = wall > 0 ? cpu / wall : 0.0;
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kLargeImageBytes));
}
BENCHMARK(BM_ImageReadoutLinkTiming)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime()
    ->MinTime(1.0);

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
