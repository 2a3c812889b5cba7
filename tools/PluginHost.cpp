#include "tools/PluginHost.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEvent>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include "tools/ExitCodes.h"
#include "tools/Interrupt.h"
#include "tools/Transcript.h"

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

// The "ShootCounter" member of a report, wherever it sits. (Read by hand: a
// regular expression would run PCRE's JIT on every report.)
uint reportedCounter(const QString& json, bool* found)
{
    static const QString member = QStringLiteral("\"ShootCounter\"");
    *found = false;
    const int at = json.indexOf(member);
    if (at < 0)
        return 0;
    int i = at + member.size();
    while (i < json.size() && (json.at(i).isSpace() || json.at(i) == QLatin1Char(':')))
        ++i;
    int end = i;
    while (end < json.size() && json.at(end).isDigit())
        ++end;
    return json.midRef(i, end - i).toUInt(found);
}

QJsonObject statusFields(hardwareStatus status)
{
    return { { QStringLiteral("status"), int(status) },
        { QStringLiteral("name"), QVeltraHardwareUnit::hardwareStatusToString(status) } };
}

} // namespace

PluginHost::PluginHost(Console& console, bool verbose, Transcript* transcript)
    : console_(console)
    , verbose_(verbose)
    , transcript_(transcript)
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
        // The plug-in repeats a status when more than one unit passes it.
        if (echo_ && !quiet_ && (verbose_ || int(status) != printedStatus_))
            console_.out(statusLine(status));
        printedStatus_ = int(status);
        if (transcript_)
            transcript_->record(QStringLiteral("status"), statusFields(status));
        connectUnits();
    });
    QObject::connect(family_, &QVeltraHardwareFamily::gotoStatusRejected, context, [this] {
        ++observations_.rejected;
        if (echo_ && !quiet_)
            console_.out(QStringLiteral("rejected"));
        if (transcript_)
            transcript_->record(QStringLiteral("rejected"));
    });
    QObject::connect(family_, &QVeltraHardwareFamily::logText, context,
        [this](const QString& text) { logLine(text, false, nullptr); });
    QObject::connect(family_, &QVeltraHardwareFamily::logAdvancedText, context,
        [this](const QString& text) { logLine(text, true, nullptr); });
    QObject::connect(family_, &QVeltraHardwareFamily::dataRead, context,
        [this](const QString& json) { report(json, nullptr); });
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
    QObject::connect(unit, &QVeltraHardwareUnit::logText, context,
        [this, unit](const QString& text) { logLine(text, false, unit); });
    QObject::connect(unit, &QVeltraHardwareUnit::logAdvancedText, context,
        [this, unit](const QString& text) { logLine(text, true, unit); });
    QObject::connect(unit, &QVeltraHardwareUnit::dataRead, context,
        [this, unit](const QString& json) { report(json, unit); });
    QObject::connect(unit, &QVeltraHardwareUnit::statusChanged, context, [this, unit](hardwareStatus status) {
        observations_.unitStatus.insert(unit, status);
        if (verbose_ && echo_)
            console_.out(QStringLiteral("unit %1 %2").arg(unitName(unit), statusLine(status)));
        if (transcript_) {
            QJsonObject fields = statusFields(status);
            fields.insert(QStringLiteral("unit"), unitIndex(unit));
            transcript_->record(QStringLiteral("unit-status"), fields);
        }
    });
    if (QVeltraGenerator* generator = unit->generator())
        QObject::connect(generator, &QVeltraGenerator::isInsideChanged, context,
            [this, unit](bool inside) { observations_.inside.insert(unit, inside); });
    QObject::connect(unit, &QVeltraHardwareUnit::imageAcquired, context,
        [this, unit](const QImage& image, const QString& description) {
            printImage(unit, image, QImage(), description);
        });
    QObject::connect(unit, &QVeltraHardwareUnit::imageAndBlackAcquired, context,
        [this, unit](const QImage& image, const QImage& black, const QString& description) {
            printImage(unit, image, black, description);
        });
}

void PluginHost::logLine(const QString& text, bool detailed, const QVeltraHardwareUnit* unit)
{
    if (!unit) {
        // The units of the last enumeration are gone, and a new one may
        // take an old one's address.
        if (enumeration_.feed(text)) {
            lastStatus_.clear();
            observations_.inside.clear();
        }
    } else {
        const StatusProbe status = statusOfLogLine(text);
        if (status.read)
            lastStatus_.insert(unit, status);
    }
    if (unit) {
        // What an FPGA update did, as the plug-in tells it: the bitstream it
        // chose, or that none was needed.
        const QString plain = styleLogText(text, false).trimmed();
        if (plain == QLatin1String("The FPGA is already flashed"))
            observations_.fpga.insert(unit, { true, QString() });
        else if (plain.startsWith(QLatin1String("Use bitstream ")))
            observations_.fpga.insert(unit, { false, plain.mid(14) });
    }
    if (isFailureLine(text)) {
        ++observations_.failureLines;
        const QString plain = styleLogText(text, false).trimmed();
        observations_.failureTexts << (unit ? QStringLiteral("unit %1: %2").arg(unitName(unit), plain)
                                            : plain);
    }
    if (echo_ && verbose_)
        console_.log(text);
    if (transcript_) {
        QJsonObject fields { { QStringLiteral("channel"), detailed ? "detail" : "log" },
            { QStringLiteral("text"), text } };
        if (unit)
            fields.insert(QStringLiteral("unit"), unitIndex(unit));
        transcript_->record(QStringLiteral("log"), fields);
    }
}

void PluginHost::report(const QString& json, const QVeltraHardwareUnit* unit)
{
    observations_.reports.append(json);
    bool hasCounter = false;
    const uint counter = reportedCounter(json, &hasCounter);
    if (unit && hasCounter)
        observations_.counters.insert(unit, counter);
    const bool result = showReports_ && (reportMember_.isEmpty() || json.contains(reportMember_));
    if (echo_ && (verbose_ || result)) {
        // Which sensor said it: a report's own heading may not know yet.
        console_.out(unit ? QStringLiteral("unit %1:").arg(unitName(unit)) : QStringLiteral("family:"));
        console_.out(json);
        if (result) {
            QJsonObject document;
            if (unit) {
                document.insert(QStringLiteral("unit"), unitIndex(unit));
                document.insert(QStringLiteral("boardSerial"), unit->boardSerial());
            } else {
                document.insert(QStringLiteral("family"), true);
            }
            const QJsonDocument parsed = QJsonDocument::fromJson(json.toUtf8());
            if (parsed.isArray())
                document.insert(QStringLiteral("report"), parsed.array());
            else if (parsed.isObject())
                document.insert(QStringLiteral("report"), parsed.object());
            else
                document.insert(QStringLiteral("text"), json);
            console_.json(document);
        }
    }
    if (!transcript_)
        return;
    QJsonObject fields;
    const QJsonDocument document = QJsonDocument::fromJson(json.toUtf8());
    // A report is a list of sections; anything that does not parse is kept
    // as its text.
    if (document.isArray())
        fields.insert(QStringLiteral("report"), document.array());
    else if (document.isObject())
        fields.insert(QStringLiteral("report"), document.object());
    else
        fields.insert(QStringLiteral("text"), json);
    if (unit)
        fields.insert(QStringLiteral("unit"), unitIndex(unit));
    transcript_->record(QStringLiteral("report"), fields);
}

void PluginHost::printImage(
    QVeltraHardwareUnit* unit, const QImage& image, const QImage& black, const QString& description)
{
    // A failed read-out still delivers its result, with a null image: that
    // is no image.
    if (!image.isNull())
        ++observations_.images[unit];
    QString line = QStringLiteral("image unit %1 %2").arg(unitName(unit), sizeText(image));
    if (!black.isNull())
        line += QStringLiteral(" black %1").arg(sizeText(black));
    if (echo_ && !quiet_)
        console_.out(line);
    if (echo_ && verbose_)
        console_.out(description);
    if (transcript_) {
        QJsonObject fields { { QStringLiteral("unit"), unitIndex(unit) },
            { QStringLiteral("width"), image.width() }, { QStringLiteral("height"), image.height() },
            { QStringLiteral("description"), description } };
        if (!black.isNull())
            fields.insert(QStringLiteral("black"),
                QJsonObject { { QStringLiteral("width"), black.width() },
                    { QStringLiteral("height"), black.height() } });
        transcript_->record(QStringLiteral("image"), fields);
    }
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

QString PluginHost::unitName(const QVeltraHardwareUnit* unit) const
{
    const QString index = QString::number(unitIndex(unit));
    const QString board = unit->boardSerial();
    return board.isEmpty() ? index : QStringLiteral("%1 (%2)").arg(index, board);
}

void PluginHost::settle(int milliseconds)
{
    waitUntil([] { return false; }, milliseconds, false);
}

bool PluginHost::waitUntil(const std::function<bool()>& done, int timeoutMs, bool interruptible)
{
    QElapsedTimer timer;
    timer.start();
    // A tick keeps the wait below from sleeping past the time-out when the
    // plug-in has nothing queued.
    QTimer tick;
    tick.start(5);
    for (;;) {
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (done())
            return true;
        if (timer.elapsed() >= timeoutMs || (interruptible && stopRequested()))
            return false;
    }
}

} // namespace korux
