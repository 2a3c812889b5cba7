// The sensor's record of the dose rate during an exposure.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <vector>

#include "acquisition/AcquisitionProtocol.h"
#include "transport/SensorProtocol.h"

using namespace korux;

namespace {

constexpr uint16 kOscilloscopeReadSize = 0xFF80;

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::readOscilloscope()
{
    logUser(QStringLiteral("readOscilloscope"));
    std::vector<uint8> buffer(kOscilloscopeReadSize, 0);
    CommandFrame command = sensorCommand(kClassData, kCodeOscilloscope);
    uint32 bytesRead = 0;
    if (!FT4222_SPI_MRW(buffer.data(), command.data(), kOscilloscopeReadSize, &bytesRead)) {
        resetOscilloscope();
        logUser(QStringLiteral("Unable to read oscilloscope"));
        return false;
    }

    const OscilloscopeScan scan = scanOscilloscope(buffer.data(), bytesRead);
    aceValue = static_cast<int32_t>(scan.energySum / ACECoefficient());
    samplesAboveThreshold = scan.samplesAbove;
    setOscilloscope(scan.text);
    return true;
}

// Appends the samples that arrived since the previous call.
bool QVeltraXRayKORUXPlugInUnit::fullOscilloscope()
{
    logUser(QStringLiteral("fullOscilloscope"));
    std::vector<uint8> buffer(kOscilloscopeReadSize, 0);
    CommandFrame command = sensorCommand(kClassData, kCodeOscilloscope);
    uint32 bytesRead = 0;
    if (!FT4222_SPI_MRW(buffer.data(), command.data(), kOscilloscopeReadSize, &bytesRead)) {
        logUser(QStringLiteral("Unable to read full oscilloscope"));
        return false;
    }

    int samples = 0;
    const QString text = scanFullOscilloscope(buffer.data(), bytesRead, &samples);
    if (!text.isEmpty())
        logUser(QStringLiteral("Read %1 new full oscilloscope values").arg(samples));
    setOscilloscope(oscilloscope() + text);
    return true;
}
