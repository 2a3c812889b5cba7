// Handing the host its images with the text that describes the acquisition.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "acquisition/AcquisitionProtocol.h"

using namespace korux;

namespace {

QVariant longValue(long value)
{
    return QVariant::fromValue<long>(value);
}

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::saveAcquisition()
{
    ReportMap description;

    ReportSection& acquisition = description[QStringLiteral("ACQUISITION")];
    acquisition.insert(QStringLiteral("Exposition"), samplesAboveThreshold);
    acquisition.insert(QStringLiteral("Energy"), aceValue);
    acquisition.insert(QStringLiteral("Oscillo"), oscilloscope());
    acquisition.insert(QStringLiteral("Resolution"), QStringLiteral("High"));
    acquisition.insert(QStringLiteral("PixelWidth"), 20);
    acquisition.insert(QStringLiteral("PixelHeight"), 20);
    acquisition.insert(QStringLiteral("directUnarmed"), imageReady);

    QVeltraGenerator* owner = generator();
    const bool inside = owner && owner->isInside;
    ReportSection& sensor = description[QStringLiteral("SENSOR")];
    sensor.insert(QStringLiteral("Type"), familyName());
    // Size value 2 is published as "1", every other as "2".
    sensor.insert(QStringLiteral("Size"), size() == size1 ? QStringLiteral("1") : QStringLiteral("2"));
    sensor.insert(QStringLiteral("Serial"), serial());
    sensor.insert(QStringLiteral("SensorSerial"), sensorSerial());
    sensor.insert(QStringLiteral("HardwareSerial"), boardSerial());
    sensor.insert(QStringLiteral("Technology"), hardwareTechnologyToString(technology()));
    sensor.insert(QStringLiteral("Inside"), inside ? QStringLiteral("yes") : QStringLiteral("no"));

    if (inside) {
        ReportSection& settings = description[QStringLiteral("INSIDE_SETTINGS")];
        settings.insert(QStringLiteral("kV"), longValue(owner->kV));
        settings.insert(QStringLiteral("mA"), longValue(owner->mA));
        settings.insert(QStringLiteral("TimeSet"), longValue(owner->timeSet));
        settings.insert(QStringLiteral("Cone"), longValue(owner->cone));
        // "ThresholD" is the published key.
        settings.insert(QStringLiteral("ThresholD"), longValue(owner->threshold));
        ReportSection& measured = description[QStringLiteral("INSIDE_MEASURED")];
        measured.insert(QStringLiteral("TimeDone"), longValue(owner->timeDone));
        measured.insert(QStringLiteral("DAP"), longValue(owner->DAP));
        measured.insert(QStringLiteral("AirDose"), longValue(owner->airDose));
        measured.insert(QStringLiteral("CutMethod"), longValue(owner->cutMethod));
        measured.insert(QStringLiteral("Energy"), longValue(owner->energy));
    }

    if (!setShootCounter(0xFFFFFFFF))
        logUser(QStringLiteral("[red]Unable to increase shoot counter. Continue acquisition nevertheless."));

    const QString text = descriptionText(description);
    if (blackImage().isNull())
        emit imageAcquired(binaryImage(), text);
    else
        emit imageAndBlackAcquired(binaryImage(), blackImage(), text);
    return true;
}
