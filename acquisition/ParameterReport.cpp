// Everything a unit knows about itself, in one report.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"

bool QVeltraXRayKORUXPlugInUnit::getParameters()
{
    const korux::OperationScope scope;
    long fpgaHigh = 0, fpgaLow = 0, usb = 0, sensor = 0;
    if (!readVoltages(&fpgaHigh, &fpgaLow, &usb, &sensor))
        return false;

    QString scratch;
    readSerialNumber(scratch);
    // A counter that cannot be read is reported as 0.
    unsigned int counter = 0;
    int index = -1;
    if (!getShootCounter(&counter, &index))
        counter = 0;

    QVariantMap generatorValues;
    QVeltraGenerator* owner = generator();
    generatorValues.insert(QStringLiteral("Inside"), owner ? owner->isInside : false);
    generatorValues.insert(QStringLiteral("Manufacturer"), owner ? owner->manufacturer() : QString());
    generatorValues.insert(QStringLiteral("Model"), owner ? owner->model() : QString());
    generatorValues.insert(QStringLiteral("Serial"), owner ? owner->serial() : QString());

    QVeltraHardwareFamily* owningFamily = family();
    ReportSection values;
    values.insert(QStringLiteral("FPGA High"), QVariant::fromValue<long>(fpgaHigh));
    values.insert(QStringLiteral("FPGA Low"), QVariant::fromValue<long>(fpgaLow));
    values.insert(QStringLiteral("USB"), QVariant::fromValue<long>(usb));
    values.insert(QStringLiteral("Sensor"), QVariant::fromValue<long>(sensor));
    values.insert(QStringLiteral("SensorSerial"), sensorSerial());
    values.insert(QStringLiteral("HardwareSerial"), boardSerial());
    values.insert(QStringLiteral("Firmware"), firmware());
    values.insert(QStringLiteral("Serial"), serial());
    values.insert(QStringLiteral("Model"), model());
    values.insert(QStringLiteral("Protocol"), hardwareProtocolToString(protocol()));
    values.insert(QStringLiteral("Technology"), hardwareTechnologyToString(technology()));
    values.insert(QStringLiteral("Size"), hardwareSizeToString(size()));
    values.insert(QStringLiteral("ShootCounter"), counter);
    values.insert(QStringLiteral("CodeName"), owningFamily ? owningFamily->codeName() : QString());
    values.insert(QStringLiteral("Manufacturer"), owningFamily ? owningFamily->manufacturer() : QString());
    values.insert(QStringLiteral("Generator"), generatorValues);
    sendReport(QStringLiteral("%1 %2").arg(familyName(), boardSerial()), values);
    return true;
}
