// Scenario files: a JSON description of the virtual machine (its sensors,
// their state and contents, foreign devices, the list order and faults).
#include <QByteArray>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <fstream>
#include <functional>

#include "sim/BridgeState.h"
#include "sim/FlashContent.h"

namespace vbridge {

namespace {

// Reads one JSON object with known keys, collecting the first error.
class Reader {
public:
    Reader(const QJsonObject& object, QString where, QString* error)
        : object_(object)
        , where_(std::move(where))
        , error_(error)
    {
    }

    bool allowOnly(const QStringList& keys)
    {
        for (const QString& key : object_.keys())
            if (!keys.contains(key))
                return fail(QStringLiteral("unknown key \"%1\" in %2 (known: %3)").arg(key, where_, keys.join(", ")));
        return true;
    }

    bool has(const QString& key) const { return object_.contains(key); }

    bool integer(const QString& key, int64_t minimum, int64_t maximum, int64_t* value)
    {
        if (!object_.contains(key))
            return true;
        const QJsonValue v = object_.value(key);
        int64_t number = 0;
        if (v.isDouble()) {
            const double d = v.toDouble();
            if (d != static_cast<double>(static_cast<int64_t>(d)))
                return fail(QStringLiteral("%1.%2 must be a whole number").arg(where_, key));
            number = static_cast<int64_t>(d);
        } else if (v.isString()) {
            bool ok = false;
            const QString text = v.toString();
            number = text.startsWith("0x", Qt::CaseInsensitive) ? text.mid(2).toLongLong(&ok, 16)
                                                                : text.toLongLong(&ok, 10);
            if (!ok)
                return fail(QStringLiteral("%1.%2 must be a number, not \"%3\"").arg(where_, key, text));
        } else {
            return fail(QStringLiteral("%1.%2 must be a number").arg(where_, key));
        }
        if (number < minimum || number > maximum)
            return fail(QStringLiteral("%1.%2 = %3 is out of range (%4 to %5)")
                            .arg(where_, key)
                            .arg(number)
                            .arg(minimum)
                            .arg(maximum));
        *value = number;
        return true;
    }

    template <typename T>
    bool number(const QString& key, int64_t minimum, int64_t maximum, T* value)
    {
        int64_t v = static_cast<int64_t>(*value);
        if (!integer(key, minimum, maximum, &v))
            return false;
        *value = static_cast<T>(v);
        return true;
    }

    bool boolean(const QString& key, bool* value)
    {
        if (!object_.contains(key))
            return true;
        if (!object_.value(key).isBool())
            return fail(QStringLiteral("%1.%2 must be true or false").arg(where_, key));
        *value = object_.value(key).toBool();
        return true;
    }

    bool text(const QString& key, std::string* value)
    {
        if (!object_.contains(key))
            return true;
        if (!object_.value(key).isString())
            return fail(QStringLiteral("%1.%2 must be a text").arg(where_, key));
        *value = object_.value(key).toString().toStdString();
        return true;
    }

    bool object(const QString& key, const std::function<bool(Reader&)>& read)
    {
        if (!object_.contains(key))
            return true;
        if (!object_.value(key).isObject())
            return fail(QStringLiteral("%1.%2 must be an object").arg(where_, key));
        Reader inner(object_.value(key).toObject(), where_ + "." + key, error_);
        return read(inner);
    }

    bool array(const QString& key, QJsonArray* value)
    {
        if (!object_.contains(key))
            return true;
        if (!object_.value(key).isArray())
            return fail(QStringLiteral("%1.%2 must be a list").arg(where_, key));
        *value = object_.value(key).toArray();
        return true;
    }

    bool fail(const QString& message)
    {
        if (error_->isEmpty())
            *error_ = message;
        return false;
    }

    const QString& where() const { return where_; }
    QString* error() { return error_; }

private:
    QJsonObject object_;
    QString where_;
    QString* error_;
};

struct FileSpec {
    uint32_t address = 0;
    std::vector<uint8_t> content;
    std::string header;
    bool raw = false;  // content written as it is, without a file header
};

struct SensorSpec {
    SensorConfig config;
    bool plugged = true;
    bool eraseFlash = false;
    std::vector<FileSpec> files;
    bool hasCounter = false;
    std::vector<uint32_t> counter;
    std::string flashImage;
    bool hasTiming = false;
    FlashTiming timing;
};

struct Spec {
    std::vector<SensorSpec> sensors;
    std::vector<ForeignDevice> foreign;
    bool hasOrder = false;
    std::vector<ListEntry> order;
    std::vector<CallFault> faults;
    std::vector<int> details;
    bool linkTiming = false;
};

bool readFile(Reader& r, const QString& name, uint32_t address, SensorSpec& sensor)
{
    return r.object(name, [&](Reader& f) {
        if (!f.allowOnly({"text", "size", "seed", "header", "hex"}))
            return false;
        FileSpec file;
        file.address = address;
        std::string text;
        std::string hex;
        int64_t size = -1;
        int64_t seed = address;
        if (!f.text("text", &text) || !f.integer("size", 0, 0x3FFFFF, &size) || !f.integer("seed", 0, 0xFFFFFFFF, &seed)
            || !f.text("header", &file.header) || !f.text("hex", &hex))
            return false;
        if (f.has("text")) {
            file.content.assign(text.begin(), text.end());
        } else if (f.has("hex")) {
            const QByteArray bytes = QByteArray::fromHex(QByteArray::fromStdString(hex));
            file.content.assign(bytes.begin(), bytes.end());
            file.raw = true;
        } else if (size >= 0) {
            file.content = dataFileContent(static_cast<uint32_t>(size), static_cast<uint32_t>(seed));
        } else {
            return f.fail(QStringLiteral("%1 needs \"text\", \"hex\" or \"size\"").arg(f.where()));
        }
        if (file.header.empty())
            file.header = name.toStdString() + " KORUX3";
        sensor.files.push_back(file);
        return true;
    });
}

bool readBitstream(Reader& r, const QString& key, uint32_t address, SensorSpec& sensor)
{
    return r.object(key, [&](Reader& b) {
        if (!b.allowOnly({"date", "lattice", "size", "seed", "truncate", "corrupt", "firstByte"}))
            return false;
        BitstreamHeader header;
        int64_t size = 30000, seed = 15, truncate = 0, firstByte = 0xFF;
        bool corrupt = false;
        if (!b.text("date", &header.date) || !b.text("lattice", &header.lattice) || !b.integer("size", 256, 0x3FFFF0, &size)
            || !b.integer("seed", 0, 0xFFFFFFFF, &seed) || !b.integer("truncate", 0, 0x3FFFF0, &truncate)
            || !b.boolean("corrupt", &corrupt) || !b.integer("firstByte", 0, 255, &firstByte))
            return false;
        std::vector<uint8_t> bytes = makeBitstream(header, static_cast<uint32_t>(size), static_cast<uint32_t>(seed));
        if (truncate > 0 && static_cast<size_t>(truncate) < bytes.size())
            bytes.resize(static_cast<size_t>(truncate));
        if (corrupt)
            bytes[bytes.size() / 2] ^= 0x5A;
        bytes[0] = static_cast<uint8_t>(firstByte);
        FileSpec file;
        file.address = address;
        file.content = bytes;
        file.header = "BTS KORUX3";
        sensor.files.push_back(file);
        return true;
    });
}

bool readSensor(const QJsonValue& value, int index, SensorSpec& sensor, QString* error)
{
    const QString where = QStringLiteral("sensors[%1]").arg(index);
    if (!value.isObject()) {
        *error = where + " must be an object";
        return false;
    }
    Reader r(value.toObject(), where, error);
    SensorConfig& c = sensor.config;
    std::string uniqueId;
    if (!r.allowOnly({"serial", "location", "inside", "size", "version", "uniqueId", "status", "generator", "adc",
                      "exposure", "fpga", "flash", "plugged"})
        || !r.text("serial", &c.serial) || !r.number("location", 0, 0xFFFFFFFF, &c.location)
        || !r.boolean("inside", &c.inside) || !r.number("size", 0, 3, &c.sizeCode)
        || !r.number("version", 0, 15, &c.version) || !r.text("uniqueId", &uniqueId)
        || !r.boolean("plugged", &sensor.plugged))
        return false;
    if (c.serial.size() > 14)
        return r.fail(where + ".serial is longer than 14 characters");
    if (!uniqueId.empty()) {
        bool ok = false;
        c.uniqueId = QString::fromStdString(uniqueId).toULongLong(&ok, 16);
        if (!ok || uniqueId.size() != 16)
            return r.fail(where + ".uniqueId must be 16 hexadecimal digits");
    }
    if (!r.object("generator", [&](Reader& g) {
            GeneratorSettings& s = c.generator;
            return g.allowOnly({"kV", "mA", "timeSet", "timeDone", "dap", "cone", "airDose", "cutMethod", "mode",
                                "markerOk", "checksumOk"})
                   && g.number("kV", 0, 255, &s.kV) && g.number("mA", 0, 255, &s.mA)
                   && g.number("timeSet", 0, 65535, &s.timeSet) && g.number("timeDone", 0, 65535, &s.timeDone)
                   && g.number("dap", 0, 65535, &s.dap) && g.number("cone", 0, 255, &s.cone)
                   && g.number("airDose", 0, 65535, &s.airDose) && g.number("cutMethod", 0, 255, &s.cutMethod)
                   && g.number("mode", 0, 255, &s.mode) && g.boolean("markerOk", &s.markerOk)
                   && g.boolean("checksumOk", &s.checksumOk);
        }))
        return false;
    QJsonArray adc;
    if (!r.array("adc", &adc))
        return false;
    if (r.has("adc")) {
        if (adc.size() != 4)
            return r.fail(where + ".adc must list four raw values");
        for (int i = 0; i < 4; ++i) {
            if (!adc[i].isDouble() || adc[i].toInt(-1) < 0 || adc[i].toInt(-1) > 1023)
                return r.fail(QStringLiteral("%1.adc[%2] must be a number from 0 to 1023").arg(where).arg(i));
            c.adcRaw[i] = static_cast<uint16_t>(adc[i].toInt());
        }
    }
    if (!r.object("exposure", [&](Reader& e) {
            return e.allowOnly({"auto", "delayMs", "durationMs", "doseRate"}) && e.boolean("auto", &c.autoExposure)
                   && e.number("delayMs", 0, 600000, &c.exposure.delayMs)
                   && e.number("durationMs", 1, 10000, &c.exposure.durationMs)
                   && e.number("doseRate", 0, 1023, &c.exposure.doseRate);
        }))
        return false;
    if (!r.object("fpga", [&](Reader& f) {
            return f.allowOnly({"configured", "deviceId"}) && f.boolean("configured", &c.fpgaConfigured)
                   && f.number("deviceId", 0, 0xFFFFFFFF, &c.fpgaDeviceId);
        }))
        return false;
    return r.object("flash", [&](Reader& f) {
        bool erased = false;
        QJsonArray counter;
        if (!f.allowOnly({"erased", "image", "counter", "timing", "PRD", "ASS", "FFC", "BLK", "DPL", "BTS", "bitstream"})
            || !f.boolean("erased", &erased) || !f.text("image", &sensor.flashImage) || !f.array("counter", &counter))
            return false;
        sensor.eraseFlash = erased;
        if (f.has("counter")) {
            sensor.hasCounter = true;
            for (int i = 0; i < counter.size(); ++i) {
                if (!counter[i].isDouble() || counter[i].toDouble() < 0 || counter[i].toDouble() > 4294967295.0)
                    return f.fail(QStringLiteral("%1.counter[%2] must be a number from 0 to 4294967295")
                                      .arg(f.where())
                                      .arg(i));
                sensor.counter.push_back(static_cast<uint32_t>(counter[i].toDouble()));
            }
            if (sensor.counter.size() > 4096)
                return f.fail(f.where() + ".counter holds more than 4096 slots");
        }
        if (!f.object("timing", [&](Reader& t) {
                sensor.hasTiming = true;
                return t.allowOnly({"busyPolls", "programUs", "eraseUs", "chipEraseUs"})
                       && t.number("busyPolls", 0, 1000000, &sensor.timing.busyPolls)
                       && t.number("programUs", 0, 10000000, &sensor.timing.programUs)
                       && t.number("eraseUs", 0, 10000000, &sensor.timing.eraseUs)
                       && t.number("chipEraseUs", 0, 100000000, &sensor.timing.chipEraseUs);
            }))
            return false;
        return readFile(f, "PRD", kPrdAddress, sensor) && readFile(f, "ASS", kAssAddress, sensor)
               && readFile(f, "FFC", kFfcAddress, sensor) && readFile(f, "BLK", kBlkAddress, sensor)
               && readFile(f, "DPL", kDplAddress, sensor) && readFile(f, "BTS", kBtsAddress, sensor)
               && readBitstream(f, "bitstream", kBtsAddress, sensor);
    });
}

bool readSpec(const QJsonObject& root, Spec& spec, QString* error)
{
    Reader r(root, "scenario", error);
    if (!r.allowOnly({"sensors", "foreign", "order", "faults", "linkTiming", "comment"}) || !r.boolean("linkTiming", &spec.linkTiming))
        return false;
    QJsonArray sensors, foreign, order, faults;
    if (!r.array("sensors", &sensors) || !r.array("foreign", &foreign) || !r.array("order", &order)
        || !r.array("faults", &faults))
        return false;
    for (int i = 0; i < sensors.size(); ++i) {
        SensorSpec sensor;
        if (!readSensor(sensors[i], i, sensor, error))
            return false;
        spec.sensors.push_back(sensor);
    }
    for (int i = 0; i < foreign.size(); ++i) {
        if (!foreign[i].isObject())
            return r.fail(QStringLiteral("foreign[%1] must be an object").arg(i));
        Reader f(foreign[i].toObject(), QStringLiteral("foreign[%1]").arg(i), error);
        ForeignDevice device;
        if (!f.allowOnly({"id", "description", "serial", "location", "type"}) || !f.number("id", 0, 0xFFFFFFFF, &device.id)
            || !f.text("description", &device.description) || !f.text("serial", &device.serial)
            || !f.number("location", 0, 0xFFFFFFFF, &device.location) || !f.number("type", 0, 0xFFFFFFFF, &device.type))
            return false;
        spec.foreign.push_back(device);
    }
    if (r.has("order")) {
        spec.hasOrder = true;
        for (int i = 0; i < order.size(); ++i) {
            // "S1A" is port A of sensor 1 (from 0); "F0" is foreign device 0.
            const QString item = order[i].toString();
            ListEntry entry;
            bool ok = false;
            if (item.startsWith('S') && item.size() >= 3) {
                entry.sensor = item.mid(1, item.size() - 2).toInt(&ok);
                entry.port = item.at(item.size() - 1).unicode() - 'A';
                ok = ok && entry.sensor >= 0 && entry.sensor < static_cast<int>(spec.sensors.size()) && entry.port >= 0
                     && entry.port < 4;
            } else if (item.startsWith('F')) {
                entry.port = item.mid(1).toInt(&ok);
                ok = ok && entry.port >= 0 && entry.port < static_cast<int>(spec.foreign.size());
            }
            if (!ok)
                return r.fail(QStringLiteral("order[%1] \"%2\" names no interface (\"S0A\" to \"S%3D\", \"F0\" ...)")
                                  .arg(i)
                                  .arg(item)
                                  .arg(std::max<int>(0, static_cast<int>(spec.sensors.size()) - 1)));
            spec.order.push_back(entry);
        }
    }
    for (int i = 0; i < faults.size(); ++i) {
        if (!faults[i].isObject())
            return r.fail(QStringLiteral("faults[%1] must be an object").arg(i));
        Reader f(faults[i].toObject(), QStringLiteral("faults[%1]").arg(i), error);
        CallFault fault;
        int64_t nth = 1, status = 4, detail = -1;
        if (!f.allowOnly({"call", "nth", "status", "detail"}) || !f.text("call", &fault.function)
            || !f.integer("nth", 1, 1000000000, &nth) || !f.integer("status", 1, 0xFFFFFFFF, &status)
            || !f.integer("detail", 0, 1000000, &detail))
            return false;
        if (f.has("detail")) {
            spec.details.push_back(static_cast<int>(detail));
        } else if (!fault.function.empty()) {
            fault.remaining = static_cast<int>(nth);
            fault.status = static_cast<uint32_t>(status);
            spec.faults.push_back(fault);
        } else {
            return f.fail(QStringLiteral("faults[%1] needs \"call\" or \"detail\"").arg(i));
        }
    }
    return true;
}

}  // namespace

bool VirtualBridge::loadScenarioText(const std::string& text, const std::string& name, std::string* error)
{
    QJsonParseError parse;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(text), &parse);
    QString reason;
    Spec spec;
    if (parse.error != QJsonParseError::NoError)
        reason = QStringLiteral("not valid JSON at offset %1: %2").arg(parse.offset).arg(parse.errorString());
    else if (!document.isObject())
        reason = QStringLiteral("the top level must be an object");
    else
        readSpec(document.object(), spec, &reason);
    if (!reason.isEmpty()) {
        if (error)
            *error = "scenario " + name + ": " + reason.toStdString();
        return false;
    }

    Machine& m = machine();
    std::lock_guard<std::recursive_mutex> lock(m.mutex);
    reset();
    for (const SensorSpec& sensor : spec.sensors) {
        const int index = addSensor(sensor.config);
        std::string imageError;
        // An existing image file holds the flash as the last run left it; a
        // new one starts from the described contents.
        if (!sensor.flashImage.empty() && std::ifstream(sensor.flashImage).good()) {
            if (!setFlashImage(index, sensor.flashImage, &imageError)) {
                reset();
                if (error)
                    *error = "scenario " + name + ": " + imageError;
                return false;
            }
        } else {
            if (sensor.eraseFlash)
                eraseFlashContents(index);
            for (const FileSpec& file : sensor.files)
                setFlashContents(index, file.address, file.raw ? file.content : flashFileImage(file.content, file.header));
            if (sensor.hasCounter)
                setFlashContents(index, kCounterAddress, counterAreaImage(sensor.counter));
            if (!sensor.flashImage.empty() && !setFlashImage(index, sensor.flashImage, &imageError)) {
                reset();
                if (error)
                    *error = "scenario " + name + ": " + imageError;
                return false;
            }
        }
        if (sensor.hasTiming)
            setFlashTiming(index, sensor.timing);
        if (!sensor.plugged)
            unplug(index);
    }
    for (const ForeignDevice& device : spec.foreign)
        addForeignDevice(device);
    if (spec.hasOrder)
        setListOrder(spec.order);
    for (const CallFault& fault : spec.faults)
        m.callFaults.push_back(fault);
    for (int detail : spec.details)
        m.failedDetails.push_back(detail);
    m.linkTiming = spec.linkTiming;
    return true;
}

bool VirtualBridge::loadScenario(const std::string& path, std::string* error)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = "scenario " + path + ": cannot be read (" + file.errorString().toStdString() + ")";
        return false;
    }
    return loadScenarioText(file.readAll().toStdString(), path, error);
}

}  // namespace vbridge
