// The four supply voltages, measured by the converter on port B.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"

#include "acquisition/AcquisitionProtocol.h"

using namespace korux;

bool QVeltraXRayKORUXPlugInUnit::readVoltages(long* fpgaHigh, long* fpgaLow, long* usb, long* sensor)
{
    long scratch[kAdcChannels] = {0, 0, 0, 0};
    long* outputs[kAdcChannels] = {fpgaHigh ? fpgaHigh : &scratch[0], fpgaLow ? fpgaLow : &scratch[1],
                                   usb ? usb : &scratch[2], sensor ? sensor : &scratch[3]};
    if (!openPorts())
        return false;
    if (!initPortB())
        return false;

    bool solo = true;
    for (int channel = 0; channel < kAdcChannels; ++channel) {
        auto frame = adcFrame(channel);
        uint8 answer[kAdcFrameSize] = {0, 0, 0};
        uint16 transferred = 0;
        const FT4222_STATUS status = FT4222_SPIMaster_SingleReadWrite(
            theHandleB(), answer, frame.data(), kAdcFrameSize, &transferred, true);
        if (status != FT4222_OK) {
            // Both markers take the status text, the "0x" included; kept.
            const QString text = ft4222StatusToString(status);
            logUser(QStringLiteral("SPI r/w error (port B) = 0x%1 (%2)").arg(text, text));
            initPortA(false);
            initPortD(&solo);
            return false;
        }
        *outputs[channel] = adcMillivolts(channel, adcRaw(answer));
    }
    initPortA(false);
    initPortD(&solo);
    return true;
}

bool QVeltraXRayKORUXPlugInUnit::getVoltages(long* fpgaHigh, long* fpgaLow, long* usb, long* sensor)
{
    const korux::OperationScope scope;
    long values[kAdcChannels] = {0, 0, 0, 0};
    fpgaHigh = fpgaHigh ? fpgaHigh : &values[0];
    fpgaLow = fpgaLow ? fpgaLow : &values[1];
    usb = usb ? usb : &values[2];
    sensor = sensor ? sensor : &values[3];
    if (!readVoltages(fpgaHigh, fpgaLow, usb, sensor))
        return false;

    ReportSection voltages;
    voltages.insert(QStringLiteral("FPGA High"), QVariant::fromValue<long>(*fpgaHigh));
    voltages.insert(QStringLiteral("FPGA Low"), QVariant::fromValue<long>(*fpgaLow));
    voltages.insert(QStringLiteral("USB"), QVariant::fromValue<long>(*usb));
    voltages.insert(QStringLiteral("Sensor"), QVariant::fromValue<long>(*sensor));
    sendReport(QStringLiteral("%1 %2").arg(familyName(), boardSerial()), voltages);
    return true;
}
