#include "acquisition/AcquisitionProtocol.h"

#include <QTextStream>

#include "transport/SensorProtocol.h"

namespace korux {

ArmFrame armFrame(bool oscilloscope, int threshold, int32_t ace)
{
    const int mode = ((oscilloscope ? 1 : 0) + 4) << 4;
    return {kClassControl,
            kCodeArm,
            kFrameTailHigh,
            kFrameTailLow,
            static_cast<uint8_t>(mode | (threshold >> 8)),
            static_cast<uint8_t>(threshold),
            static_cast<uint8_t>(ace >> 16),
            static_cast<uint8_t>(ace >> 8),
            static_cast<uint8_t>(ace)};
}

ImageBlocks imageBlocks(const QSize& readOutSize)
{
    ImageBlocks blocks;
    if (!readOutSize.isValid())
        return blocks;
    blocks.totalBytes = static_cast<uint32_t>(readOutSize.width() * readOutSize.height() * 2);
    blocks.fullBlocks = blocks.totalBytes / kImageBlockSize;
    blocks.remainder = blocks.totalBytes % kImageBlockSize;
    blocks.lastReadLength =
        (blocks.remainder + kLastBlockGranule - 1) / kLastBlockGranule * kLastBlockGranule;
    return blocks;
}

void swapPixelBytes(uint8_t* pixels, uint32_t count)
{
    auto* words = reinterpret_cast<uint16_t*>(pixels);
    for (uint32_t i = 0; i < count; ++i)
        words[i] = static_cast<uint16_t>((words[i] >> 8) | (words[i] << 8));
}

namespace {

QString sampleText(int sample)
{
    return QStringLiteral("%1").arg(sample, 4, 16, QLatin1Char('0'));
}

}  // namespace

OscilloscopeScan scanOscilloscope(const uint8_t* data, uint32_t length)
{
    OscilloscopeScan scan;
    for (uint32_t offset = 0; offset < length; offset += 2) {
        const uint8_t high = data[offset];
        if (high == 0 || high > 3)
            break;
        const int sample = (high << 8) | (offset + 1 < length ? data[offset + 1] : 0);
        scan.text += sampleText(sample);
        if (sample > kOscilloscopeThreshold) {
            scan.energySum += sample - kOscilloscopeThreshold;
            ++scan.samplesAbove;
        }
    }
    return scan;
}

QString scanFullOscilloscope(const uint8_t* data, uint32_t length, int* samples)
{
    QString text;
    int count = 0;
    for (uint32_t offset = 0; offset < length; offset += 2) {
        const uint8_t high = data[offset];
        if (high == 0xFF)
            break;
        const int sample = (high << 8) | (offset + 1 < length ? data[offset + 1] : 0);
        if (sample == 0)
            continue;
        text += sampleText(sample);
        ++count;
    }
    if (samples)
        *samples = count;
    return text;
}

std::array<uint8_t, kAdcFrameSize> adcFrame(int channel)
{
    return {0x01, static_cast<uint8_t>((channel + 8) * 16), 0x00};
}

int adcRaw(const uint8_t* answer)
{
    return ((answer[1] << 8) | answer[2]) & 0x3FF;
}

long adcMillivolts(int channel, int raw)
{
    const long millivolts = static_cast<long>(raw) * 3300 / 1024;
    return channel >= 2 ? 2 * millivolts : millivolts;
}

QString descriptionText(const ReportMap& map)
{
    QString text;
    QTextStream stream(&text);
    stream << "\r\n";
    for (auto section = map.cbegin(); section != map.cend(); ++section) {
        stream << "[" << section.key() << "]\r\n";
        for (auto entry = section.value().cbegin(); entry != section.value().cend(); ++entry)
            stream << entry.key() << "=" << entry.value().toString() << "\r\n";
    }
    stream.flush();
    return text;
}

}  // namespace korux
