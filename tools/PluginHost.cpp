#include "tools/PluginHost.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>

#include "tools/ExitCodes.h"

namespace korux {

namespace {

constexpr char kFactoryName[] = "getVeltraHardware";

using Factory = QVeltraHardwareFamily* (*)();

QString statusLine(hardwareStatus status)
{
    return QStringLiteral("status %1 (%2)")
        .arg(QVeltraHardwareUnit::hardwareStatusToString(status))
        .arg(int(status));
}

QString sizeText(const QImage& image)
{
    return QStringLiteral("%1x%2").arg(image.width()).arg(image.height());
}

} // namespace

PluginHost::PluginHost(Console& console, bool verbose)
    : console_(console)
    , verbose_(verbose)
    , context_(new QObject)
{
}

PluginHost::~PluginHost()
{
    // The host owns the family; its units are its children and go with it.
    context_.reset();
    delete family_;
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    // The library stays loaded: objects of its classes may still be queued.
}

int PluginHost::load(const QString& pluginPath)
{
    library_.setFileName(pluginPath);
    if (!library_.load()) {
        console_.error(
            QStringLiteral("korux: cannot load the plug-in %1: %2").arg(pluginPath, library_.errorString()));
        return kExitFailure;
    }
    auto factory = reinterpret_cast<Factory>(library_.resolve(kFactoryName));
    if (!factory) {
        console_.error(QStringLiteral("korux: the plug-in %1 has no %2 entry").arg(pluginPath, kFactoryName));
        return kExitFailure;
    }
    family_ = factory();
    if (!family_) {
        console_.error(QStringLiteral("korux: %1 of %2 gave no family").arg(kFactoryName, pluginPath));
        return kExitFailure;
    }
    connectFamily();
    connectUnits();
    return kExitOk;
}

void PluginHost::connectFamily()
{
    QObject* context = context_.get();
    QObject::connect(family_, &QVeltraHardwareFamily::statusChanged, context, [this](hardwareStatus status) {
        console_.out(statusLine(status));
        connectUnits();
    });
    QObject::connect(family_, &QVeltraHardwareFamily::gotoStatusRejected, context,
        [this] { console_.out(QStringLiteral("rejected")); });
    QObject::connect(family_, &QVeltraHardwareFamily::logText, context,
        [this](const QString& text) { console_.log(text); });
    QObject::connect(family_, &QVeltraHardwareFamily::logAdvancedText, context, [this](const QString& text) {
        if (verbose_)
            console_.log(text);
    });
    QObject::connect(family_, &QVeltraHardwareFamily::dataRead, context,
        [this](const QString& json) { console_.out(json); });
}

void PluginHost::connectUnits()
{
    if (!family_)
        return;
    for (QVeltraHardwareUnit* unit : family_->hardwareUnitVector()) {
        if (!unit || connected_.contains(unit))
            continue;
        connectUnit(unit);
    }
}

void PluginHost::connectUnit(QVeltraHardwareUnit* unit)
{
    // Units that went away leave null pointers behind: drop them first.
    connected_.removeAll(QPointer<QVeltraHardwareUnit>());
    connected_.append(unit);
    QObject* context = context_.get();
    QObject::connect(
        unit, &QVeltraHardwareUnit::logText, context, [this](const QString& text) { console_.log(text); });
    QObject::connect(unit, &QVeltraHardwareUnit::logAdvancedText, context, [this](const QString& text) {
        if (verbose_)
            console_.log(text);
    });
    QObject::connect(
        unit, &QVeltraHardwareUnit::dataRead, context, [this](const QString& json) { console_.out(json); });
    QObject::connect(unit, &QVeltraHardwareUnit::statusChanged, context, [this, unit](hardwareStatus status) {
        if (verbose_)
            console_.out(QStringLiteral("unit %1 %2").arg(unitName(unit), statusLine(status)));
    });
    QObject::connect(unit, &QVeltraHardwareUnit::imageAcquired, context,
        [this, unit](const QImage& image, const QString& description) {
            printImage(unit, image, QImage(), description);
        });
    QObject::connect(unit, &QVeltraHardwareUnit::imageAndBlackAcquired, context,
        [this, unit](const QImage& image, const QImage& black, const QString& description) {
            printImage(unit, image, black, description);
        });
}

void PluginHost::printImage(
    QVeltraHardwareUnit* unit, const QImage& image, const QImage& black, const QString& description)
{
    QString line = QStringLiteral("image unit %1 %2").arg(unitName(unit), sizeText(image));
    if (!black.isNull())
        line += QStringLiteral(" black %1").arg(sizeText(black));
    console_.out(line);
    if (verbose_)
        console_.out(description);
    if (onImage)
        onImage(unit, image, black, description);
}

int PluginHost::unitIndex(const QVeltraHardwareUnit* unit) const
{
    if (!family_)
        return -1;
    const QVector<QVeltraHardwareUnit*>& units = family_->hardwareUnitVector();
    for (int i = 0; i < units.size(); ++i)
        if (units.at(i) == unit)
            return i;
    return -1;
}

// A unit is named by its index and, once known, its board serial.
QString PluginHost::unitName(const QVeltraHardwareUnit* unit) const
{
    const QString index = QString::number(unitIndex(unit));
    const QString board = unit->boardSerial();
    return board.isEmpty() ? index : QStringLiteral("%1 (%2)").arg(index, board);
}

void PluginHost::settle(int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    do {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    } while (timer.elapsed() < milliseconds);
}

} // namespace korux
