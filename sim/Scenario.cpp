#include "sim/Scenario.h"

#include <cmath>
#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>

#include "sim/Bridge.h"
#include "sim/FlashContent.h"
#include "sim/NorFlash.h"
#include "sim/Phantom.h"
#include "sim/Replay.h"

namespace vbridge {

namespace {

constexpr int64_t kMaxSerialLength = 14; // 16-byte field, letter and NUL included
constexpr int64_t kMaxForeignSerialLength = 15;
constexpr int64_t kMaxDescriptionLength = 63;
constexpr uint32_t kDefaultFirstLocation = 0x1011; // as VirtualBridge::addSensor chooses
constexpr uint32_t kDefaultLocationStep = 0x10;
constexpr size_t kCounterSlots = 4096;
constexpr uint32_t kLargestFile = 0x3FFFFF;
// A scenario describes a machine in a few kilobytes; the plug-in drives four
// sensors, and every sensor holds 16 MiB of flash.
constexpr qint64 kLargestScenario = 1024 * 1024;
constexpr int kMostSensors = 16;

QString kindOf(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return QStringLiteral("true or false");
    case QJsonValue::Double:
        return QStringLiteral("a number");
    case QJsonValue::String:
        return QStringLiteral("a text");
    case QJsonValue::Array:
        return QStringLiteral("a list");
    case QJsonValue::Object:
        return QStringLiteral("an object");
    default:
        return QStringLiteral("null");
    }
}

// Reads one JSON object whose keys are all known, keeping the first error.
class Reader {
public:
    Reader(const QJsonObject& object, QString where, QString* error)
        : object_(object)
        , where_(std::move(where))
        , error_(error)
    {
    }

    // "comment" is allowed everywhere and ignored.
    bool allowOnly(QStringList keys)
    {
        for (const QString& key : object_.keys())
            if (key != QLatin1String("comment") && !keys.contains(key))
                return fail(
                    QStringLiteral("unknown key \"%1\" in %2 (known: %3)").arg(key, where_, keys.join(", ")));
        return true;
    }

    bool has(const QString& key) const { return object_.contains(key); }
    QString path(const QString& key) const { return where_ + "." + key; }

    // A whole number, written as a JSON number or as a text ("0x1011" or "4113").
    bool integer(const QString& key, int64_t minimum, int64_t maximum, int64_t* value)
    {
        if (!object_.contains(key))
            return true;
        return integerValue(object_.value(key), path(key), minimum, maximum, value);
    }

    bool integerValue(
        const QJsonValue& v, const QString& name, int64_t minimum, int64_t maximum, int64_t* value)
    {
        int64_t number = 0;
        if (v.isDouble()) {
            const double d = v.toDouble();
            if (d != std::trunc(d))
                return fail(QStringLiteral("%1 must be a whole number, not %2").arg(name).arg(d));
            // The range is checked on the double: converting a value that
            // does not fit (1e300, infinity, 2^63) would be undefined.
            const bool fits = d >= static_cast<double>(minimum) && d <= static_cast<double>(maximum)
                && d < std::ldexp(1.0, 63);
            if (!fits)
                return fail(QStringLiteral("%1 = %2 is out of range (%3 to %4)")
                                .arg(name)
                                .arg(d)
                                .arg(minimum)
                                .arg(maximum));
            number = static_cast<int64_t>(d);
        } else if (v.isString()) {
            bool ok = false;
            const QString text = v.toString().trimmed();
            number = text.startsWith("0x", Qt::CaseInsensitive) ? text.mid(2).toLongLong(&ok, 16)
                                                                : text.toLongLong(&ok, 10);
            if (!ok)
                return fail(QStringLiteral("%1 must be a number, not \"%2\"").arg(name, v.toString()));
        } else {
            return fail(QStringLiteral("%1 must be a number, not %2").arg(name, kindOf(v)));
        }
        if (number < minimum || number > maximum)
            return fail(QStringLiteral("%1 = %2 is out of range (%3 to %4)")
                            .arg(name)
                            .arg(number)
                            .arg(minimum)
                            .arg(maximum));
        *value = number;
        return true;
    }

    // A figure that keeps its absence: left empty when the key is not there.
    bool optional(const QString& key, int64_t minimum, int64_t maximum, std::optional<uint32_t>* value)
    {
        if (!object_.contains(key))
            return true;
        int64_t v = 0;
        if (!integer(key, minimum, maximum, &v))
            return false;
        *value = static_cast<uint32_t>(v);
        return true;
    }

    template <typename T> bool number(const QString& key, int64_t minimum, int64_t maximum, T* value)
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
        const QJsonValue v = object_.value(key);
        if (!v.isBool())
            return fail(QStringLiteral("%1 must be true or false, not %2").arg(path(key), kindOf(v)));
        *value = v.toBool();
        return true;
    }

    bool text(const QString& key, std::string* value, int64_t maximumLength = 1 << 20)
    {
        if (!object_.contains(key))
            return true;
        const QJsonValue v = object_.value(key);
        if (!v.isString())
            return fail(QStringLiteral("%1 must be a text, not %2").arg(path(key), kindOf(v)));
        // Device texts are Latin-1, as the driver gives them.
        const QByteArray bytes = v.toString().toLatin1();
        if (bytes.size() > maximumLength)
            return fail(QStringLiteral("%1 is longer than %2 characters").arg(path(key)).arg(maximumLength));
        *value = bytes.toStdString();
        return true;
    }

    bool object(const QString& key, const std::function<bool(Reader&)>& read)
    {
        if (!object_.contains(key))
            return true;
        const QJsonValue v = object_.value(key);
        if (!v.isObject())
            return fail(QStringLiteral("%1 must be an object, not %2").arg(path(key), kindOf(v)));
        Reader inner(v.toObject(), path(key), error_);
        return read(inner);
    }

    bool array(const QString& key, QJsonArray* value)
    {
        if (!object_.contains(key))
            return true;
        const QJsonValue v = object_.value(key);
        if (!v.isArray())
            return fail(QStringLiteral("%1 must be a list, not %2").arg(path(key), kindOf(v)));
        *value = v.toArray();
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

bool readStatusWord(Reader& r, StatusWord* word)
{
    return r.allowOnly({ "flags", "diode", "version", "size" }) && r.number("flags", 0, 255, &word->flags)
        && r.number("diode", 0, 1023, &word->diode) && r.number("version", 0, 15, &word->version)
        && r.number("size", 0, 3, &word->sizeCode);
}

bool readFile(Reader& r, const QString& name, uint32_t address, ScenarioSensor& sensor)
{
    return r.object(name, [&](Reader& f) {
        if (!f.allowOnly({ "text", "size", "seed", "header", "hex" }))
            return false;
        std::string text;
        std::string hex;
        std::string header = name.toStdString() + " KORUX3";
        int64_t size = -1;
        int64_t seed = address;
        if (!f.text("text", &text) || !f.integer("size", 0, kLargestFile, &size)
            || !f.integer("seed", 0, 0xFFFFFFFF, &seed) || !f.text("header", &header, 10)
            || !f.text("hex", &hex))
            return false;
        const int given = f.has("text") + f.has("hex") + f.has("size");
        if (given != 1)
            return f.fail(QStringLiteral("%1 needs one of \"text\", \"hex\" or \"size\"").arg(f.where()));
        ScenarioFile file;
        file.address = address;
        if (f.has("hex")) {
            // Raw bytes, written as they are: no file header.
            const QByteArray compact = QByteArray::fromStdString(hex).replace(' ', "");
            const QByteArray bytes = QByteArray::fromHex(compact);
            if (compact.size() % 2 || bytes.toHex() != compact.toLower())
                return f.fail(QStringLiteral("%1 must be pairs of hexadecimal digits").arg(f.path("hex")));
            file.bytes.assign(bytes.begin(), bytes.end());
        } else {
            const std::vector<uint8_t> content = f.has("text")
                ? std::vector<uint8_t>(text.begin(), text.end())
                : dataFileContent(static_cast<uint32_t>(size), static_cast<uint32_t>(seed));
            file.bytes = flashFileImage(content, header);
        }
        if (address + file.bytes.size() > NorFlash::kSize)
            return f.fail(QStringLiteral("%1 runs past the end of the flash").arg(f.where()));
        sensor.files.push_back(std::move(file));
        return true;
    });
}

bool readBitstream(Reader& r, ScenarioSensor& sensor)
{
    return r.object("bitstream", [&](Reader& b) {
        if (!b.allowOnly(
                { "date", "lattice", "size", "seed", "truncate", "corrupt", "firstByte", "deviceId" }))
            return false;
        BitstreamHeader header;
        int64_t size = 30000, seed = 15, truncate = 0, firstByte = 0xFF;
        bool corrupt = false;
        if (!b.text("date", &header.date) || !b.text("lattice", &header.lattice)
            || !b.integer("size", 256, 0x3FFFF0, &size) || !b.integer("seed", 0, 0xFFFFFFFF, &seed)
            || !b.integer("truncate", 0, 0x3FFFF0, &truncate) || !b.boolean("corrupt", &corrupt)
            || !b.integer("firstByte", 0, 255, &firstByte)
            || !b.number("deviceId", 0, 0xFFFFFFFF, &header.deviceId))
            return false;
        std::vector<uint8_t> bytes
            = makeBitstream(header, static_cast<uint32_t>(size), static_cast<uint32_t>(seed));
        if (truncate > 0 && static_cast<size_t>(truncate) < bytes.size())
            bytes.resize(static_cast<size_t>(truncate));
        if (corrupt)
            bytes[bytes.size() / 2] ^= 0x5A;
        bytes[0] = static_cast<uint8_t>(firstByte);
        sensor.files.push_back(ScenarioFile { kBtsAddress, flashFileImage(bytes, "BTS KORUX3") });
        return true;
    });
}

bool readFlash(Reader& r, const QString& baseDirectory, ScenarioSensor& sensor)
{
    return r.object("flash", [&](Reader& f) {
        QJsonArray counter;
        if (!f.allowOnly({ "erased", "image", "counter", "timing", "quadEnable", "PRD", "ASS", "FFC", "BLK",
                "DPL", "BTS", "bitstream" })
            || !f.boolean("erased", &sensor.eraseFlash) || !f.text("image", &sensor.flashImage)
            || !f.array("counter", &counter))
            return false;
        sensor.hasQuadEnable = f.has("quadEnable");
        if (!f.boolean("quadEnable", &sensor.quadEnable))
            return false;
        if (f.has("BTS") && f.has("bitstream"))
            return f.fail(QStringLiteral("%1 has both \"BTS\" and \"bitstream\"; give one").arg(f.where()));
        if (!sensor.flashImage.empty()) {
            const QFileInfo image(QDir(baseDirectory).filePath(QString::fromStdString(sensor.flashImage)));
            sensor.flashImage = image.absoluteFilePath().toStdString();
            if (image.exists() && (!image.isFile() || image.size() != NorFlash::kSize))
                return f.fail(QStringLiteral("%1: the file %2 holds %3 bytes, not %4")
                                  .arg(f.path("image"), image.absoluteFilePath())
                                  .arg(image.size())
                                  .arg(NorFlash::kSize));
            if (!image.exists() && !image.absoluteDir().exists())
                return f.fail(QStringLiteral("%1: the folder of %2 does not exist")
                                  .arg(f.path("image"), image.absoluteFilePath()));
        }
        if (f.has("counter")) {
            if (static_cast<size_t>(counter.size()) > kCounterSlots)
                return f.fail(
                    QStringLiteral("%1 holds more than %2 slots").arg(f.path("counter")).arg(kCounterSlots));
            std::vector<uint32_t> values;
            for (int i = 0; i < counter.size(); ++i) {
                int64_t value = 0;
                if (!f.integerValue(counter[i], QStringLiteral("%1[%2]").arg(f.path("counter")).arg(i), 0,
                        0xFFFFFFFF, &value))
                    return false;
                values.push_back(static_cast<uint32_t>(value));
            }
            sensor.files.push_back(ScenarioFile { kCounterAddress, counterAreaImage(values) });
        }
        if (!f.object("timing", [&](Reader& t) {
                // No longer than the datasheet's largest figures.
                return t.allowOnly(
                           { "busyPolls", "programUs", "eraseUs", "chipEraseUs", "resetUs", "writeStatusUs" })
                    && t.optional("busyPolls", 0, 1000000, &sensor.busyPolls)
                    && t.optional("programUs", 0, FlashTiming::kProgramMaxUs, &sensor.programUs)
                    && t.optional("eraseUs", 0, FlashTiming::kEraseMaxUs, &sensor.eraseUs)
                    && t.optional("chipEraseUs", 0, FlashTiming::kChipEraseMaxUs, &sensor.chipEraseUs)
                    && t.optional("resetUs", 0, FlashTiming::kResetUs, &sensor.resetUs)
                    && t.optional("writeStatusUs", 0, FlashTiming::kWriteStatusMaxUs, &sensor.writeStatusUs);
            }))
            return false;
        return readFile(f, "PRD", kPrdAddress, sensor) && readFile(f, "ASS", kAssAddress, sensor)
            && readFile(f, "FFC", kFfcAddress, sensor) && readFile(f, "BLK", kBlkAddress, sensor)
            && readFile(f, "DPL", kDplAddress, sensor) && readFile(f, "BTS", kBtsAddress, sensor)
            && readBitstream(f, sensor);
    });
}

// Where the sensor's pictures come from; a file is read now, and must have
// the sensor's read-out size.
bool readImageSource(Reader& r, const QString& baseDirectory, SensorConfig& c)
{
    return r.object("image", [&](Reader& i) {
        std::string source = "phantom";
        std::string file;
        if (!i.allowOnly({ "source", "file" }) || !i.text("source", &source) || !i.text("file", &file))
            return false;
        if (i.has("file") && !i.has("source"))
            source = "file";
        if (source == "phantom" || source == "pattern") {
            if (i.has("file"))
                return i.fail(QStringLiteral("%1 is for \"source\": \"file\"").arg(i.path("file")));
            c.image.kind = source == "phantom" ? ImageSource::Kind::Phantom : ImageSource::Kind::Pattern;
            return true;
        }
        if (source != "file")
            return i.fail(QStringLiteral("%1 must be \"phantom\", \"pattern\" or \"file\", not \"%2\"")
                              .arg(i.path("source"), QString::fromStdString(source)));
        if (file.empty())
            return i.fail(QStringLiteral("%1 needs a \"file\" (a grey-scale PNG)").arg(i.where()));
        const QString path
            = QFileInfo(QDir(baseDirectory).filePath(QString::fromStdString(file))).absoluteFilePath();
        // Only a regular file: a device or a pipe could block or never end.
        const QFileInfo info(path);
        if (info.exists() && !info.isFile())
            return i.fail(QStringLiteral("%1: %2 is not a regular file").arg(i.path("file"), path));
        auto pixels = std::make_shared<std::vector<uint16_t>>();
        int width = 0, height = 0;
        std::string why;
        if (!readGreyPng(path.toStdString(), pixels.get(), &width, &height, &why))
            return i.fail(QStringLiteral("%1: %2").arg(i.path("file"), QString::fromStdString(why)));
        const int wantWidth = c.sizeCode == 2 ? 1300 : 1000;
        const int wantHeight = c.sizeCode == 2 ? 1706 : 1506;
        if (width != wantWidth || height != wantHeight)
            return i.fail(QStringLiteral("%1: %2 is %3x%4 pixels; a sensor of size %5 reads %6x%7")
                              .arg(i.path("file"), path)
                              .arg(width)
                              .arg(height)
                              .arg(c.sizeCode)
                              .arg(wantWidth)
                              .arg(wantHeight));
        c.image.kind = ImageSource::Kind::File;
        c.image.file = path.toStdString();
        c.image.pixels = std::move(pixels);
        c.image.width = width;
        c.image.height = height;
        return true;
    });
}

bool readSensor(
    const QJsonValue& value, int index, const QString& baseDirectory, ScenarioSensor& sensor, QString* error)
{
    const QString where = QStringLiteral("sensors[%1]").arg(index);
    if (!value.isObject()) {
        *error = QStringLiteral("%1 must be an object, not %2").arg(where, kindOf(value));
        return false;
    }
    Reader r(value.toObject(), where, error);
    SensorConfig& c = sensor.config;
    std::string uniqueId;
    if (!r.allowOnly({ "serial", "location", "inside", "size", "version", "uniqueId", "plugged", "status",
            "statusQueue", "generator", "adc", "exposure", "image", "fpga", "flash", "delays", "spiEngine" })
        || !r.text("serial", &c.serial, kMaxSerialLength) || !r.number("location", 0, 0xFFFFFFF0, &c.location)
        || !r.boolean("inside", &c.inside) || !r.number("size", 0, 3, &c.sizeCode)
        || !r.number("version", 0, 15, &c.version) || !r.text("uniqueId", &uniqueId)
        || !r.boolean("plugged", &sensor.plugged))
        return false;
    std::string engine;
    if (!r.text("spiEngine", &engine))
        return false;
    if (engine == "separate")
        c.sharedSpiEngine = false;
    else if (r.has("spiEngine") && engine != "shared")
        return r.fail(QStringLiteral("%1 must be \"shared\" or \"separate\", not \"%2\"")
                          .arg(r.path("spiEngine"), QString::fromStdString(engine)));
    if (r.has("serial") && c.serial.empty())
        return r.fail(r.path("serial") + " is empty");
    if (!uniqueId.empty()) {
        bool ok = false;
        c.uniqueId = QString::fromStdString(uniqueId).toULongLong(&ok, 16);
        if (!ok || uniqueId.size() != 16)
            return r.fail(r.path("uniqueId") + " must be 16 hexadecimal digits");
    }
    if (!r.object("status", [&](Reader& s) {
            sensor.hasStatus = true;
            return readStatusWord(s, &sensor.status);
        }))
        return false;
    QJsonArray queue;
    if (!r.array("statusQueue", &queue))
        return false;
    for (int i = 0; i < queue.size(); ++i) {
        const QString name = QStringLiteral("%1[%2]").arg(r.path("statusQueue")).arg(i);
        if (!queue[i].isObject())
            return r.fail(QStringLiteral("%1 must be an object, not %2").arg(name, kindOf(queue[i])));
        Reader q(queue[i].toObject(), name, error);
        StatusWord word;
        if (!readStatusWord(q, &word))
            return false;
        sensor.statusQueue.push_back(word);
    }
    if (!r.object("generator", [&](Reader& g) {
            GeneratorSettings& s = c.generator;
            return g.allowOnly({ "kV", "mA", "timeSet", "timeDone", "dap", "cone", "airDose", "cutMethod",
                       "mode", "markerOk", "checksumOk" })
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
            return r.fail(
                QStringLiteral("%1 must list four raw values, not %2").arg(r.path("adc")).arg(adc.size()));
        for (int i = 0; i < 4; ++i) {
            int64_t raw = 0;
            if (!r.integerValue(adc[i], QStringLiteral("%1[%2]").arg(r.path("adc")).arg(i), 0, 1023, &raw))
                return false;
            c.adcRaw[static_cast<size_t>(i)] = static_cast<uint16_t>(raw);
        }
    }
    if (!r.object("exposure", [&](Reader& e) {
            return e.allowOnly({ "auto", "delayMs", "durationMs", "doseRate" })
                && e.boolean("auto", &c.autoExposure) && e.number("delayMs", 0, 600000, &c.exposure.delayMs)
                && e.number("durationMs", 1, 10000, &c.exposure.durationMs)
                && e.number("doseRate", 0, 1023, &c.exposure.doseRate);
        }))
        return false;
    if (!readImageSource(r, baseDirectory, c))
        return false;
    if (!r.object("delays", [&](Reader& d) {
            return d.allowOnly({ "readyMs", "armMs", "imageLeadMs", "readoutMs" })
                && d.optional("readyMs", 0, 60000, &sensor.readyMs)
                && d.optional("armMs", 0, 60000, &sensor.armMs)
                && d.optional("imageLeadMs", 0, 60000, &sensor.imageLeadMs)
                && d.optional("readoutMs", 0, 60000, &sensor.readoutMs);
        }))
        return false;
    if (!r.object("fpga", [&](Reader& f) {
            return f.allowOnly({ "configured", "deviceId", "settleUs", "programLowUs" })
                && f.boolean("configured", &c.fpgaConfigured)
                && f.number("deviceId", 0, 0xFFFFFFFF, &c.fpgaDeviceId)
                && f.optional("settleUs", 0, 1000000, &sensor.fpgaSettleUs)
                && f.optional("programLowUs", 0, 1000000, &sensor.programLowUs);
        }))
        return false;
    return readFlash(r, baseDirectory, sensor);
}

bool readForeign(const QJsonValue& value, int index, ForeignDevice& device, QString* error)
{
    const QString where = QStringLiteral("foreign[%1]").arg(index);
    if (!value.isObject()) {
        *error = QStringLiteral("%1 must be an object, not %2").arg(where, kindOf(value));
        return false;
    }
    Reader f(value.toObject(), where, error);
    return f.allowOnly({ "id", "description", "serial", "location", "type" })
        && f.number("id", 0, 0xFFFFFFFF, &device.id)
        && f.text("description", &device.description, kMaxDescriptionLength)
        && f.text("serial", &device.serial, kMaxForeignSerialLength)
        && f.number("location", 0, 0xFFFFFFFF, &device.location)
        && f.number("type", 0, 0xFFFFFFFF, &device.type);
}

// "S1A" is port A of sensors[1]; "F0" is foreign[0].
bool readOrder(Reader& r, const QJsonArray& order, Scenario& scenario)
{
    for (int i = 0; i < order.size(); ++i) {
        const QString name = QStringLiteral("order[%1]").arg(i);
        if (!order[i].isString())
            return r.fail(QStringLiteral("%1 must be a text such as \"S0A\" or \"F0\", not %2")
                              .arg(name, kindOf(order[i])));
        const QString item = order[i].toString();
        ListEntry entry;
        bool ok = false;
        if (item.startsWith('S') && item.size() >= 3) {
            entry.sensor = item.mid(1, item.size() - 2).toInt(&ok);
            entry.port = item.at(item.size() - 1).unicode() - 'A';
            ok = ok && entry.sensor >= 0 && entry.sensor < static_cast<int>(scenario.sensors.size())
                && entry.port >= 0 && entry.port < kPortCount;
        } else if (item.startsWith('F')) {
            entry.port = item.mid(1).toInt(&ok);
            ok = ok && entry.port >= 0 && entry.port < static_cast<int>(scenario.foreign.size());
        }
        if (!ok)
            return r.fail(
                QStringLiteral("%1 \"%2\" names no interface of this scenario (\"S0A\" ... \"S%3D\", "
                               "\"F0\" ... \"F%4\")")
                    .arg(name, item)
                    .arg(std::max<int>(0, static_cast<int>(scenario.sensors.size()) - 1))
                    .arg(std::max<int>(0, static_cast<int>(scenario.foreign.size()) - 1)));
        const bool repeated = std::any_of(scenario.order.begin(), scenario.order.end(),
            [&](const ListEntry& e) { return e.sensor == entry.sensor && e.port == entry.port; });
        if (repeated)
            return r.fail(QStringLiteral("%1 \"%2\" is listed twice").arg(name, item));
        scenario.order.push_back(entry);
    }
    return true;
}

bool readFault(
    const QJsonValue& value, int index, const Scenario& scenario, ScenarioFault& fault, QString* error)
{
    const QString where = QStringLiteral("faults[%1]").arg(index);
    if (!value.isObject()) {
        *error = QStringLiteral("%1 must be an object, not %2").arg(where, kindOf(value));
        return false;
    }
    Reader f(value.toObject(), where, error);
    int64_t status = fault.status, detail = 0, unplug = 0, shortBytes = 0;
    bool stuck = false;
    if (!f.allowOnly(
            { "call", "nth", "callNumber", "status", "detail", "unplug", "atCall", "short", "stuck" })
        || !f.integer("short", 0, 65535, &shortBytes) || !f.boolean("stuck", &stuck)
        || !f.text("call", &fault.function) || !f.integer("nth", 1, 1000000000, &fault.nth)
        || !f.integer("callNumber", 1, 1000000000000, &fault.nth)
        || !f.integer("status", 1, 0xFFFFFFFF, &status) || !f.integer("detail", 0, 1000000, &detail)
        || !f.integer(
            "unplug", 0, std::max<int64_t>(0, static_cast<int64_t>(scenario.sensors.size()) - 1), &unplug)
        || !f.integer("atCall", 1, 1000000000000, &fault.nth))
        return false;
    fault.status = static_cast<uint32_t>(status);
    if (f.has("nth") && !f.has("call"))
        return f.fail(QStringLiteral("%1 goes with \"call\" only").arg(f.path("nth")));
    if (f.has("atCall") && !f.has("unplug"))
        return f.fail(QStringLiteral("%1 goes with \"unplug\" only").arg(f.path("atCall")));
    if (f.has("status") && (f.has("detail") || f.has("unplug")))
        return f.fail(QStringLiteral("%1 goes with \"call\" or \"callNumber\" only").arg(f.path("status")));
    const int kinds = f.has("call") + f.has("callNumber") + f.has("detail") + f.has("unplug");
    if (kinds != 1)
        return f.fail(
            QStringLiteral("%1 needs exactly one of \"call\", \"callNumber\", \"detail\" or \"unplug\"")
                .arg(where));
    if (f.has("call")) {
        const auto& names = exportedFunctions();
        if (std::find(names.begin(), names.end(), fault.function) == names.end())
            return f.fail(QStringLiteral("%1 \"%2\" is not a bridge function")
                              .arg(f.path("call"), QString::fromStdString(fault.function)));
        fault.kind = ScenarioFault::Kind::Call;
        if (f.has("short") || f.has("stuck")) {
            static const std::vector<std::string> transfers { "FT4222_SPIMaster_SingleRead",
                "FT4222_SPIMaster_SingleWrite", "FT4222_SPIMaster_SingleReadWrite",
                "FT4222_SPIMaster_MultiReadWrite" };
            if (std::find(transfers.begin(), transfers.end(), fault.function) == transfers.end())
                return f.fail(
                    QStringLiteral("%1: \"short\" and \"stuck\" go with an SPI transfer function only")
                        .arg(where));
            if (f.has("status") || (f.has("short") && f.has("stuck")))
                return f.fail(
                    QStringLiteral("%1: give one of \"status\", \"short\" and \"stuck\"").arg(where));
            if (f.has("stuck") && !stuck)
                return f.fail(QStringLiteral("%1 can only be true").arg(f.path("stuck")));
            if (f.has("short")) {
                fault.kind = ScenarioFault::Kind::Short;
                fault.bytes = static_cast<uint16_t>(shortBytes);
            } else if (stuck) {
                fault.kind = ScenarioFault::Kind::Stuck;
            }
        }
    } else if (f.has("callNumber")) {
        fault.kind = ScenarioFault::Kind::CallNumber;
    } else if (f.has("detail")) {
        fault.kind = ScenarioFault::Kind::Detail;
        fault.index = static_cast<int>(detail);
    } else {
        if (scenario.sensors.empty())
            return f.fail(QStringLiteral("%1 names a sensor, but there is none").arg(f.path("unplug")));
        if (!f.has("atCall"))
            return f.fail(QStringLiteral("%1 needs \"atCall\"").arg(where));
        fault.kind = ScenarioFault::Kind::Unplug;
        fault.index = static_cast<int>(unplug);
    }
    return true;
}

// Serials and location ranges must not clash: the driver could not tell the
// interfaces apart.
bool checkIdentities(Scenario& scenario, QString* error)
{
    struct Range {
        QString owner;
        uint32_t first;
        uint32_t last;
    };
    std::vector<Range> ranges;
    std::vector<std::string> serials;
    for (size_t i = 0; i < scenario.sensors.size(); ++i) {
        SensorConfig& c = scenario.sensors[i].config;
        const QString owner = QStringLiteral("sensors[%1]").arg(i);
        const std::string serial = c.serial.empty()
            ? QStringLiteral("KX%1").arg(i + 1, 4, 10, QChar('0')).toStdString()
            : c.serial;
        if (std::find(serials.begin(), serials.end(), serial) != serials.end()) {
            *error = QStringLiteral("%1: the serial %2 is used twice")
                         .arg(owner, QString::fromStdString(serial));
            return false;
        }
        serials.push_back(serial);
        const uint32_t location = c.location
            ? c.location
            : kDefaultFirstLocation + kDefaultLocationStep * static_cast<uint32_t>(i);
        ranges.push_back(Range { owner, location, location + kPortCount - 1 });
    }
    for (size_t i = 0; i < scenario.foreign.size(); ++i)
        ranges.push_back(Range { QStringLiteral("foreign[%1]").arg(i), scenario.foreign[i].location,
            scenario.foreign[i].location });
    for (size_t i = 0; i < ranges.size(); ++i)
        for (size_t j = 0; j < i; ++j)
            if (ranges[i].first <= ranges[j].last && ranges[j].first <= ranges[i].last) {
                *error = QStringLiteral("%1: location 0x%2 clashes with %3 (0x%4 to 0x%5)")
                             .arg(ranges[i].owner)
                             .arg(ranges[i].first, 0, 16)
                             .arg(ranges[j].owner)
                             .arg(ranges[j].first, 0, 16)
                             .arg(ranges[j].last, 0, 16);
                return false;
            }
    return true;
}

bool readScenario(const QJsonObject& root, const QString& baseDirectory, Scenario& scenario, QString* error)
{
    Reader r(root, "the top level", error);
    QJsonArray sensors, foreign, order, faults;
    std::string driver;
    std::string timing;
    if (!r.allowOnly({ "sensors", "foreign", "order", "faults", "linkTiming", "driver",
            "nonAsciiAsQuestionMark", "timing" })
        || !r.boolean("linkTiming", &scenario.linkTiming) || !r.text("driver", &driver)
        || !r.boolean("nonAsciiAsQuestionMark", &scenario.nonAsciiAsQuestionMark)
        || !r.text("timing", &timing) || !r.array("sensors", &sensors) || !r.array("foreign", &foreign)
        || !r.array("order", &order) || !r.array("faults", &faults))
        return false;
    if (driver == "linux")
        scenario.driver = DriverProfile::Linux;
    else if (driver == "windows")
        scenario.driver = DriverProfile::Windows;
    else if (r.has("driver"))
        return r.fail(QStringLiteral("%1 must be \"linux\" or \"windows\", not \"%2\"")
                          .arg(r.path("driver"), QString::fromStdString(driver)));
    if (sensors.size() > kMostSensors)
        return r.fail(
            QStringLiteral("\"sensors\" lists %1 sensors; at most %2 are allowed (the plug-in uses four)")
                .arg(sensors.size())
                .arg(kMostSensors));
    if (r.has("timing")) {
        scenario.hasTiming = true;
        if (timing == "realistic")
            scenario.timing = Timing::Realistic;
        else if (timing != "instant")
            return r.fail(QStringLiteral("timing must be \"realistic\" or \"instant\", not \"%1\"")
                              .arg(QString::fromStdString(timing)));
    }
    for (int i = 0; i < sensors.size(); ++i) {
        ScenarioSensor sensor;
        if (!readSensor(sensors[i], i, baseDirectory, sensor, error))
            return false;
        scenario.sensors.push_back(std::move(sensor));
    }
    for (int i = 0; i < foreign.size(); ++i) {
        ForeignDevice device;
        if (!readForeign(foreign[i], i, device, error))
            return false;
        scenario.foreign.push_back(device);
    }
    if (!checkIdentities(scenario, error))
        return false;
    if (r.has("order")) {
        scenario.hasOrder = true;
        if (!readOrder(r, order, scenario))
            return false;
    }
    for (int i = 0; i < faults.size(); ++i) {
        ScenarioFault fault;
        if (!readFault(faults[i], i, scenario, fault, error))
            return false;
        scenario.faults.push_back(fault);
    }
    return true;
}

} // namespace

bool parseScenario(
    const std::string& text, const std::string& baseDirectory, Scenario* scenario, std::string* error)
{
    QJsonParseError parse;
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(text), &parse);
    QString reason;
    Scenario result;
    if (parse.error != QJsonParseError::NoError)
        reason = QStringLiteral("not valid JSON at offset %1: %2").arg(parse.offset).arg(parse.errorString());
    else if (!document.isObject())
        reason = QStringLiteral("the top level must be an object");
    else
        readScenario(document.object(), QString::fromStdString(baseDirectory), result, &reason);
    if (!reason.isEmpty()) {
        if (error)
            *error = reason.toStdString();
        return false;
    }
    *scenario = std::move(result);
    return true;
}

namespace {

// The figures a scenario names replace the machine's; those it leaves out
// stay as the machine's timing made them. A figure given for a flash busy
// time is that time exactly (not drawn between typical and maximum).
void applyFigures(const ScenarioSensor& s, VirtualSensor& sensor)
{
    SensorLogic& logic = sensor.logic;
    if (s.readyMs)
        logic.readyDelayMs = *s.readyMs;
    if (s.armMs)
        logic.armDelayMs = *s.armMs;
    if (s.imageLeadMs)
        logic.imageLeadMs = *s.imageLeadMs;
    if (s.readoutMs)
        logic.readoutMs = *s.readoutMs;
    if (s.fpgaSettleUs)
        logic.configSettleUs = *s.fpgaSettleUs;
    if (s.programLowUs)
        logic.programLowMinUs = *s.programLowUs;
    FlashTiming& t = sensor.flash.timing;
    if (s.busyPolls)
        t.busyPolls = *s.busyPolls;
    if (s.programUs)
        t.programUs = t.programMaxUs = *s.programUs;
    if (s.eraseUs)
        t.eraseUs = t.eraseMaxUs = *s.eraseUs;
    if (s.chipEraseUs)
        t.chipEraseUs = t.chipEraseMaxUs = *s.chipEraseUs;
    if (s.resetUs)
        t.resetUs = *s.resetUs;
    if (s.writeStatusUs)
        t.writeStatusUs = t.writeStatusMaxUs = *s.writeStatusUs;
}

// Replaces the whole machine with the scenario's, or says what is wrong with
// it and changes nothing.
bool load(
    const std::string& text, const std::string& name, const std::string& baseDirectory, std::string* error)
{
    Scenario scenario;
    std::string reason;
    if (static_cast<qint64>(text.size()) > kLargestScenario) {
        if (error)
            *error
                = "scenario " + name + ": larger than 1 MiB; a scenario describes a machine in a few lines";
        return false;
    }
    // A recorded session in place of a machine (sim/Replay.cpp).
    if (const int replay = loadReplayScenario(text, name, baseDirectory, error); replay >= 0)
        return replay == 1;
    if (!parseScenario(text, baseDirectory, &scenario, &reason)) {
        if (error)
            *error = "scenario " + name + ": " + reason;
        return false;
    }

    VirtualBridge& control = VirtualBridge::instance();
    Bridge& bridge = Bridge::instance();
    std::lock_guard<std::recursive_mutex> lock(bridge.mutex);
    control.reset();
    control.setTiming(scenario.timing);
    for (const ScenarioSensor& sensor : scenario.sensors) {
        const int index = control.addSensor(sensor.config);
        applyFigures(sensor, bridge.sensor(index));
        if (sensor.hasQuadEnable)
            control.setFlashQuadEnable(index, sensor.quadEnable);
        // The described contents, unless an image file holds the flash as
        // the last run left it: whether it does is seen only once this
        // process holds the file (another may be creating it right now).
        if (sensor.eraseFlash)
            control.eraseFlashContents(index);
        for (const ScenarioFile& file : sensor.files)
            control.setFlashContents(index, file.address, file.bytes);
        std::string imageError;
        if (!sensor.flashImage.empty() && !control.setFlashImage(index, sensor.flashImage, &imageError)) {
            if (error)
                *error = "scenario " + name + ": " + imageError;
            return false;
        }
        if (sensor.hasStatus)
            control.setStatusWord(index, sensor.status);
        if (!sensor.statusQueue.empty())
            control.queueStatusWords(index, sensor.statusQueue);
        if (!sensor.plugged)
            control.unplug(index);
    }
    for (const ForeignDevice& device : scenario.foreign)
        control.addForeignDevice(device);
    if (scenario.hasOrder)
        control.setListOrder(scenario.order);
    for (const ScenarioFault& fault : scenario.faults) {
        switch (fault.kind) {
        case ScenarioFault::Kind::Call:
            control.failCall(fault.function, static_cast<int>(fault.nth), fault.status);
            break;
        case ScenarioFault::Kind::CallNumber:
            control.failCallNumber(static_cast<uint64_t>(fault.nth), fault.status);
            break;
        case ScenarioFault::Kind::Detail:
            control.failDetail(fault.index);
            break;
        case ScenarioFault::Kind::Unplug:
            control.unplugAtCall(fault.index, static_cast<uint64_t>(fault.nth));
            break;
        case ScenarioFault::Kind::Short:
            control.shortTransfer(fault.function, static_cast<int>(fault.nth), fault.bytes);
            break;
        case ScenarioFault::Kind::Stuck:
            control.stickTransfer(fault.function, static_cast<int>(fault.nth));
            break;
        }
    }
    bridge.linkTiming = scenario.linkTiming || scenario.timing == Timing::Realistic;
    bridge.driver = scenario.driver;
    bridge.nonAsciiAsQuestionMark = scenario.nonAsciiAsQuestionMark;
    return true;
}

} // namespace

bool VirtualBridge::loadScenarioText(const std::string& text, const std::string& name, std::string* error)
{
    return load(text, name, std::string(), error);
}

bool VirtualBridge::loadScenario(const std::string& path, std::string* error)
{
    QFile file(QString::fromStdString(path));
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = "scenario " + path + ": cannot be read (" + file.errorString().toStdString() + ")";
        return false;
    }
    const std::string directory = QFileInfo(file).absolutePath().toStdString();
    // Read no further than the limit: the name may be a device without end.
    return load(file.read(kLargestScenario + 1).toStdString(), path, directory, error);
}

} // namespace vbridge
