// korux flash-files: the copies of the sensor's flash files that a service
// engineer keeps as the calibration backup. The plug-in copies them; korux
// makes sure beforehand that they can land, and afterwards that each one
// did, whole: a backup that is believed to exist and does not is the worst
// outcome of this command.
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "flash/FlashProtocol.h"
#include "tools/AtomicFile.h"
#include "tools/ExitCodes.h"
#include "tools/FamilyControl.h"
#include "tools/Interrupt.h"

namespace korux {

namespace {

// Where the plug-in finds each file in the sensor flash, and the name of its
// copy: "<board serial>.<suffix>".
struct FlashFile {
    const char* suffix;
    unsigned int address;
    bool production; // copied only with --all
};

constexpr FlashFile kFlashFiles[] = {
    { "BTS", 0xF00000, false },
    { "FFC", 0x010000, false },
    { "BLK", 0x500000, false },
    { "DPL", 0xA00000, false },
    { "PRD", 0x000000, true },
    { "ASS", 0x001000, true },
};

QString hexAddress(unsigned int address)
{
    return QStringLiteral("0x%1").arg(address, 6, 16, QLatin1Char('0'));
}

// The first bytes of the flash page in a page report, empty when it has none.
QByteArray pageBytes(const QString& json)
{
    const QJsonDocument document = QJsonDocument::fromJson(json.toUtf8());
    const QJsonArray sections = document.isArray() ? document.array() : QJsonArray { document.object() };
    for (const QJsonValue& section : sections) {
        const QJsonObject object = section.toObject();
        for (const QJsonValue& entries : object) {
            const QJsonArray list = entries.isArray() ? entries.toArray() : QJsonArray { entries };
            for (const QJsonValue& entry : list) {
                const QString page = entry.toObject().value(QStringLiteral("flashPage")).toString();
                if (!page.isEmpty())
                    return QByteArray::fromHex(page.toLatin1());
            }
        }
    }
    return QByteArray();
}

// The header of the file at address in the unit's flash, read through the
// page command; false when no page came back.
bool readHeader(Session& session, QVeltraHardwareUnit* unit, unsigned int address, FlashFileHeader* header)
{
    PluginHost& host = *session.host;
    host.family()->setParameter(QStringLiteral("FlashAddress"), int(address));
    const QString chosen = session.serial;
    session.serial = unit->boardSerial();
    const Outcome outcome = sendUnitCommand(session, commandReadFlashPage);
    session.serial = chosen;
    for (const QString& report : outcome.reports) {
        const QByteArray page = pageBytes(report);
        if (page.size() >= kFlashFileHeaderSize) {
            *header = parseFlashFileHeader(reinterpret_cast<const uint8_t*>(page.constData()));
            return true;
        }
    }
    return false;
}

// Each expected copy of each unit asked for: there, and as long as its flash
// header says. Every missing or short one is named.
int verifyCopies(Session& session, bool withProduction)
{
    PluginHost& host = *session.host;
    const QDir directory = host.family()->directory();
    QuietOutput quiet(host);
    // The page reads work on port C as the copy left it: the serial read
    // opens and sets it up.
    sendFamilyCommand(session, commandReadSerialNumber);
    int problems = 0;
    for (QVeltraHardwareUnit* unit : targetUnits(session)) {
        const QString board = unit->boardSerial();
        if (board.isEmpty() || board.compare(QLatin1String("UNKNOWN"), Qt::CaseInsensitive) == 0) {
            session.console.error(
                QStringLiteral("korux: unit %1: its board serial is unknown, so are its files' names")
                    .arg(host.unitName(unit)));
            ++problems;
            continue;
        }
        for (const FlashFile& file : kFlashFiles) {
            if (file.production && !withProduction)
                continue;
            const QString copy = directory.filePath(QStringLiteral("%1.%2").arg(board, file.suffix));
            FlashFileHeader header;
            if (!readHeader(session, unit, file.address, &header)) {
                session.console.error(
                    QStringLiteral("korux: unit %1: the flash page at %2 (%3) could not be read")
                        .arg(host.unitName(unit), hexAddress(file.address), file.suffix));
                ++problems;
                continue;
            }
            QString reason;
            switch (header.state) {
            case FlashFileState::NoData:
                reason = QStringLiteral("the flash holds no %1 file at %2 (no data to be read!)")
                             .arg(file.suffix, hexAddress(file.address));
                break;
            case FlashFileState::NoFile:
                reason = QStringLiteral("the flash has an empty %1 entry at %2 (No file present)")
                             .arg(file.suffix, hexAddress(file.address));
                break;
            case FlashFileState::InvalidSize:
                reason = QStringLiteral("the %1 file at %2 gives an impossible size (%3 bytes)")
                             .arg(file.suffix, hexAddress(file.address))
                             .arg(header.size);
                break;
            case FlashFileState::Present:
                break;
            }
            if (!reason.isEmpty()) {
                session.console.error(QStringLiteral("korux: unit %1: %2; %3 is not copied")
                                          .arg(host.unitName(unit), reason, copy));
                ++problems;
                continue;
            }
            const QFileInfo info(copy);
            if (!info.exists()) {
                session.console.error(
                    QStringLiteral("korux: unit %1: %2 is missing").arg(host.unitName(unit), copy));
                ++problems;
            } else if (!info.isFile()) {
                session.console.error(
                    QStringLiteral("korux: unit %1: %2 is not a file").arg(host.unitName(unit), copy));
                ++problems;
            } else if (info.size() != qint64(header.size)) {
                session.console.error(
                    QStringLiteral("korux: unit %1: %2 holds %3 bytes; the flash file has %4")
                        .arg(host.unitName(unit), copy)
                        .arg(info.size())
                        .arg(header.size));
                ++problems;
            }
        }
    }
    if (problems > 0) {
        session.console.error(QStringLiteral("korux: %1 flash file%2 not copied whole to %3")
                                  .arg(problems)
                                  .arg(problems == 1 ? QString() : QStringLiteral("s"))
                                  .arg(directory.absolutePath()));
        return kExitFailure;
    }
    return kExitOk;
}

} // namespace

int runFlashFiles(Session& session, const CommandLine& line)
{
    const int ready = requireUnits(session);
    if (ready != kExitOk)
        return ready;
    // Before any flash is read: the copies must have somewhere to go.
    const QString directory = session.host->family()->directory().absolutePath();
    const int family = checkFamilyDirectory(session);
    if (family != kExitOk)
        return family;
    // 1003: the four files, 1004: with the production files, 1005 and 1006:
    // the same, replacing the copies already on disk.
    const bool all = line.has(QStringLiteral("--all"));
    int command = commandReadFlashFiles;
    if (all)
        command += 1;
    if (line.has(QStringLiteral("--overwrite")))
        command += 2;
    const Outcome outcome = sendUnitCommand(session, hardwareStatus(command));
    if (stopRequested())
        return interruptedExit();
    if (!session.serial.isEmpty() && !findUnit(session, session.serial))
        return serviceExit(session, outcome, false);
    // The plug-in's failure lines are its own account; the check below says
    // which files they cost.
    const int copied = verifyCopies(session, all);
    if (copied != kExitOk)
        return copied;
    const int result = serviceExit(session, outcome, false);
    if (result == kExitOk) {
        session.console.out(QStringLiteral("files in %1").arg(directory));
        session.console.json({ { QStringLiteral("directory"), directory } });
    }
    return result;
}

} // namespace korux
