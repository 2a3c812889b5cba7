// A host as the tests play it: the plug-in's family made by its factory, on
// a virtual machine described by the test, with every signal recorded.
#pragma once

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QStringList>
#include <QTemporaryDir>
#include <QTimer>
#include <QVector>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/VeltraXRayHardware.h"
#include "plugin/QVeltraXRayKORUXPlugIn.h"
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"
#include "sim/VirtualBridge.h"
#include "support/KoruxUnitAccess.h"

extern "C" QVeltraHardwareFamily* getVeltraHardware();

namespace testing_support {

// Every signal the family and its units send, in arrival order per kind.
struct SignalLog {
    std::vector<int> statuses;         // family statusChanged
    std::vector<int> unitStatuses;     // statusChanged of any unit
    int rejected = 0;
    QStringList log;                   // logText of family and units
    QStringList advanced;              // logAdvancedText of family and units
    QStringList all;                   // both channels together, in order
    QStringList data;                  // dataRead of family and units
    struct Image {
        QImage image;
        QImage black;
        QString description;
        bool withBlack = false;
    };
    std::vector<Image> images;

    void clear() { *this = SignalLog(); }
    bool hasLog(const QString& line) const { return log.contains(line); }
    bool hasAdvanced(const QString& line) const { return advanced.contains(line); }
    int count(const QString& line) const { return all.count(line); }
};

inline std::string hex(const std::vector<uint8_t>& bytes)
{
    std::string text;
    char buffer[4];
    for (uint8_t byte : bytes) {
        snprintf(buffer, sizeof(buffer), "%02x ", byte);
        text += buffer;
    }
    if (!text.empty())
        text.pop_back();
    return text;
}

// The values of the first (only) section of a data report.
inline QJsonObject reportValues(const QString& json)
{
    const QJsonArray sections = QJsonDocument::fromJson(json.toUtf8()).array();
    if (sections.isEmpty())
        return {};
    const QJsonObject section = sections[0].toObject();
    return section.value(section.keys().value(0)).toArray()[0].toObject();
}

inline std::vector<uint8_t> bytes(std::initializer_list<int> values)
{
    std::vector<uint8_t> result;
    for (int value : values)
        result.push_back(static_cast<uint8_t>(value));
    return result;
}

class PluginHarness {
public:
    // KORUX_TIMING=realistic (the CTest label "realistic"): the devices take
    // their datasheet times, and the plug-in's own waits are real too.
    static bool realisticTiming() { return qgetenv("KORUX_TIMING") == "realistic"; }
    // The host's sleeps: real with the realistic machine, none otherwise.
    static double hostSleepScale() { return realisticTiming() ? 1.0 : 0.0; }

    PluginHarness()
    {
        setSleepTimeScale(hostSleepScale());
        bridge().reset();
        if (realisticTiming())
            bridge().setTiming(vbridge::Timing::Realistic);
        family_.reset(static_cast<QVeltraXRayKORUXPlugIn*>(getVeltraHardware()));
        family_->setDirectory(QDir(directory_.path()));
        QObject::connect(family_.get(), &QVeltraHardwareFamily::statusChanged, [this](hardwareStatus s) {
            signals_.statuses.push_back(s);
            connectUnits();
        });
        QObject::connect(family_.get(), &QVeltraHardwareFamily::gotoStatusRejected,
                         [this] { ++signals_.rejected; });
        QObject::connect(family_.get(), &QVeltraHardwareFamily::logText, [this](const QString& t) {
            signals_.log << t;
            signals_.all << t;
        });
        QObject::connect(family_.get(), &QVeltraHardwareFamily::logAdvancedText,
                         [this](const QString& t) {
                             signals_.advanced << t;
                             signals_.all << t;
                         });
        QObject::connect(family_.get(), &QVeltraHardwareFamily::dataRead,
                         [this](const QString& t) { signals_.data << t; });
    }

    ~PluginHarness()
    {
        family_.reset();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        bridge().reset();
        setSleepTimeScale(1.0);
    }

    static vbridge::VirtualBridge& bridge() { return vbridge::VirtualBridge::instance(); }

    // The shot counter as the sensor's flash holds it: the largest of the
    // big-endian slots at 0xFA0000 that are not erased. Read here from the
    // bytes, independently of the plug-in's own scan.
    static uint32_t storedCounter(int sensor = 0)
    {
        const std::vector<uint8_t> area = bridge().flashContents(sensor, 0xFA0000, 16384);
        uint32_t best = 0;
        for (size_t i = 0; i + 4 <= area.size(); i += 4) {
            const uint32_t value = (uint32_t(area[i]) << 24) | (uint32_t(area[i + 1]) << 16)
                | (uint32_t(area[i + 2]) << 8) | area[i + 3];
            if (value != 0xFFFFFFFF)
                best = std::max(best, value);
        }
        return best;
    }

    // A sensor whose exposure starts with the arming and runs over the first
    // polling tick (100 ms, with 200 ms to spare for a busy machine), so the
    // second tick finds the image ready: a whole shot in two ticks.
    static vbridge::SensorConfig twoTickSensor()
    {
        vbridge::SensorConfig config;
        config.exposure.delayMs = 0;
        config.exposure.durationMs = 300;
        config.readoutMs = 0;
        return config;
    }

    QVeltraXRayKORUXPlugIn& family() { return *family_; }
    SignalLog& seen() { return signals_; }
    QString directory() const { return directory_.path(); }

    // Adds n stand-alone sensors KX0001... to the machine.
    void addSensors(int n)
    {
        for (int i = 0; i < n; ++i)
            bridge().addSensor(vbridge::SensorConfig());
    }

    // Four interfaces of another maker that claim the series' USB ids, with
    // the given descriptions.
    static void addLookalikePorts(const std::vector<std::string>& descriptions)
    {
        int n = 0;
        for (const std::string& description : descriptions) {
            vbridge::ForeignDevice device;
            device.id = 0x1CE60003;
            device.description = description;
            device.serial = "LOOK" + std::to_string(n);
            device.location = 0x7000 + n++;
            bridge().addForeignDevice(device);
        }
    }

    bool initialize()
    {
        const bool result = family_->initializeVeltraHardwareFamily();
        connectUnits();
        return result;
    }

    // n stand-alone sensors, enumerated, with the start-up's log and trace
    // cleared: what a test then sees is what its own commands did.
    void startWith(int n)
    {
        addSensors(n);
        initialize();
        seen().clear();
        bridge().clearTrace();
    }

    QVeltraXRayKORUXPlugInUnit* unit(int index = 0) { return family_->deviceUnit(index); }
    int unitCount() { return family_->numberOfKorux3(); }

    // Lets the event loop run until the condition holds or the time is up.
    bool runUntil(const std::function<bool()>& done, int timeoutMs = 10000)
    {
        QElapsedTimer timer;
        timer.start();
        // Sleeps until the next event instead of spinning; the tick bounds
        // the sleep when nothing else is due.
        QTimer tick;
        tick.start(2);
        while (!done()) {
            if (timer.elapsed() > timeoutMs)
                return false;
            QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        }
        return true;
    }

    // The trace of one function since the last clear.
    static std::vector<vbridge::TraceEntry> calls(const std::string& function)
    {
        return bridge().trace(function);
    }

    void connectUnits()
    {
        for (QVeltraHardwareUnit* unit : family_->hardwareUnitVector()) {
            if (connected_.contains(unit))
                continue;
            connected_.append(unit);
            QObject::connect(unit, &QVeltraHardwareUnit::statusChanged,
                             [this](hardwareStatus s) { signals_.unitStatuses.push_back(s); });
            QObject::connect(unit, &QVeltraHardwareUnit::logText, [this](const QString& t) {
                signals_.log << t;
                signals_.all << t;
            });
            QObject::connect(unit, &QVeltraHardwareUnit::logAdvancedText, [this](const QString& t) {
                signals_.advanced << t;
                signals_.all << t;
            });
            QObject::connect(unit, &QVeltraHardwareUnit::dataRead,
                             [this](const QString& t) { signals_.data << t; });
            QObject::connect(unit, &QVeltraHardwareUnit::imageAcquired,
                             [this](const QImage& image, const QString& text) {
                                 signals_.images.push_back({image, QImage(), text, false});
                             });
            QObject::connect(unit, &QVeltraHardwareUnit::imageAndBlackAcquired,
                             [this](const QImage& image, const QImage& black, const QString& text) {
                                 signals_.images.push_back({image, black, text, true});
                             });
        }
    }

private:
    QTemporaryDir directory_;
    std::unique_ptr<QVeltraXRayKORUXPlugIn> family_;
    SignalLog signals_;
    QVector<QPointer<QVeltraHardwareUnit>> connected_;
};

// A host whose sleep functions run at another speed (an uncalibrated busy
// wait, say) for the life of this object; then the harness's own again.
class ScopedSleepScale {
public:
    explicit ScopedSleepScale(double scale) { setSleepTimeScale(scale); }
    ~ScopedSleepScale() { setSleepTimeScale(PluginHarness::hostSleepScale()); }
    ScopedSleepScale(const ScopedSleepScale&) = delete;
    ScopedSleepScale& operator=(const ScopedSleepScale&) = delete;
};

}  // namespace testing_support
