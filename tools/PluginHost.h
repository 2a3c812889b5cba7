// The plug-in as korux hosts it: loaded with QLibrary, its factory called,
// every framework signal of the family and of its units printed.
#pragma once

#include <QImage>
#include <QLibrary>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QVector>

#include <functional>
#include <memory>

#include "host/VeltraXRayHardware.h"
#include "tools/Console.h"

namespace korux {

class PluginHost {
public:
    PluginHost(Console& console, bool verbose);
    ~PluginHost();

    PluginHost(const PluginHost&) = delete;
    PluginHost& operator=(const PluginHost&) = delete;

    // Loads the plug-in library and makes its family. Returns kExitOk or the
    // exit status to stop with, having said why.
    int load(const QString& pluginPath);

    QVeltraHardwareFamily* family() const { return family_; }
    QString pluginFile() const { return library_.fileName(); }

    // Connects the units of the family's vector that are not connected yet;
    // an enumeration replaces the units, so this runs after every status.
    void connectUnits();
    // Position of the unit in the family's vector, -1 when it left it.
    int unitIndex(const QVeltraHardwareUnit* unit) const;

    // Lets queued calls, timers and deferred deletions run for a while.
    void settle(int milliseconds);

    // Called for each image a unit delivers (black is null for imageAcquired),
    // after korux has printed its line.
    std::function<void(
        QVeltraHardwareUnit*, const QImage& image, const QImage& black, const QString& description)>
        onImage;

private:
    void connectFamily();
    void connectUnit(QVeltraHardwareUnit* unit);
    QString unitName(const QVeltraHardwareUnit* unit) const;
    void printImage(
        QVeltraHardwareUnit* unit, const QImage& image, const QImage& black, const QString& description);

    Console& console_;
    bool verbose_;
    QLibrary library_;
    QVeltraHardwareFamily* family_ = nullptr;
    // Receiver of every connection: they all go when the host does.
    std::unique_ptr<QObject> context_;
    QVector<QPointer<QVeltraHardwareUnit>> connected_;
};

} // namespace korux
