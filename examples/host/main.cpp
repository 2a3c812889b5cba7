// A minimal host: loads the KORUX-KORUX2 plug-in, finds the sensors, takes
// one shot with the first one and saves the image.
//
//   example-host [IMAGE.png [PLUGIN.so]]
//
// The plug-in talks to whichever libft4222.so the loader finds: the bridge
// vendor's on a machine with sensors, or the virtual bridge when its
// directory is on LD_LIBRARY_PATH.
#include <QCoreApplication>
#include <QImage>
#include <QLibrary>
#include <QSaveFile>
#include <QTimer>

#include <cstdio>

#include <VeltraXRayHardware.h>

namespace {

int fail(const QString& what)
{
    std::fprintf(stderr, "example-host: %s\n", qPrintable(what));
    return 1;
}

// Gives a command and waits until the family reaches one of the statuses.
bool command(QVeltraHardwareFamily* family, hardwareStatus command, std::initializer_list<hardwareStatus> until)
{
    family->gotoStatus(command);
    for (hardwareStatus status : until)
        if (family->status() == status)
            return true;
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    const QString imagePath = arguments.value(1, QStringLiteral("shot.png"));
    const QString pluginPath = arguments.value(2, QStringLiteral(KORUX_PLUGIN));

    // The one exported factory; the family it returns is ours to delete.
    QLibrary plugin(pluginPath);
    using Factory = QVeltraHardwareFamily* (*)();
    auto factory = reinterpret_cast<Factory>(plugin.resolve("getVeltraHardware"));
    if (!factory)
        return fail(QStringLiteral("cannot load %1: %2").arg(pluginPath, plugin.errorString()));
    QScopedPointer<QVeltraHardwareFamily> family(factory());
    QObject::connect(family.data(), &QVeltraHardwareFamily::logText,
                     [](const QString& text) { std::printf("%s\n", qPrintable(text)); });

    // Finding the sensors opens nothing yet.
    family->initializeVeltraHardwareFamily();
    if (family->status() != statusSensorFound || family->hardwareUnitVector().isEmpty())
        return fail(QStringLiteral("no sensor found"));
    QVeltraHardwareUnit* unit = family->hardwareUnitVector().first();

    // From "sensor found" the cycle goes through the FPGA check; a voltage
    // read then opens and sets up the ports that arming expects.
    if (!command(family.data(), statusFpgaUpdating, { statusFpgaUpdated }))
        return fail(QStringLiteral("the FPGA check failed"));
    family->gotoStatus(commandGetVoltages);

    QImage image;
    QObject::connect(unit, &QVeltraHardwareUnit::imageAcquired,
                     [&](const QImage& acquired, const QString&) { image = acquired; });
    QObject::connect(unit, &QVeltraHardwareUnit::imageAndBlackAcquired,
                     [&](const QImage& acquired, const QImage&, const QString&) { image = acquired; });
    if (!command(family.data(), statusArming, { statusArmed }))
        return fail(QStringLiteral("the sensor could not be armed"));
    std::printf("armed: expose now\n");

    // The plug-in follows the exposure on this thread's event loop.
    QTimer timeout;
    timeout.setSingleShot(true);
    QObject::connect(&timeout, &QTimer::timeout, &application, [] { QCoreApplication::exit(2); });
    QObject::connect(unit, &QVeltraHardwareUnit::statusChanged, &application, [](hardwareStatus status) {
        if (status == statusAcquired || status == statusError)
            QCoreApplication::exit(0);
    });
    timeout.start(60000);
    if (application.exec() != 0 || image.isNull())
        return fail(QStringLiteral("no image"));

    // Written whole under a temporary name, then renamed into place.
    QSaveFile file(imagePath);
    if (!file.open(QIODevice::WriteOnly) || !image.save(&file, "PNG") || !file.commit())
        return fail(QStringLiteral("cannot write %1: %2").arg(imagePath, file.errorString()));
    std::printf("saved %dx%d image as %s\n", image.width(), image.height(), qPrintable(imagePath));
    return 0;
}
