// Copies of the sensor's flash files on the host's disk, and the page dump.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include <QFile>
#include <QFileInfo>

#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "flash/FlashProtocol.h"
#include "plugin/OperationScope.h"

using namespace korux;

namespace {

// Where each file lives in the flash.
constexpr unsigned int kPRDAddress = 0x000000;
constexpr unsigned int kASSAddress = 0x001000;
constexpr unsigned int kFFCAddress = 0x010000;
constexpr unsigned int kBLKAddress = 0x500000;
constexpr unsigned int kDPLAddress = 0xA00000;
constexpr unsigned int kBTSAddress = 0xF00000;

// The first sector is read whole; the rest of a file in chunks of 15 sectors.
constexpr unsigned short kFirstChunk = kFlashSectorSize;
constexpr unsigned short kNextChunk = 15 * kFlashSectorSize;
constexpr uint32_t kFirstChunkContent = kFlashSectorSize - kFlashFileHeaderSize;
constexpr int kWorkBufferSize = 65536;

QString hexAddress(unsigned int address)
{
    return QStringLiteral("%1").arg(address, 8, 16, QLatin1Char('0'));
}

long elapsedMs(std::clock_t start, std::clock_t end)
{
    return static_cast<long>((end - start) * 1000 / CLOCKS_PER_SEC);
}

}  // namespace

QString QVeltraXRayKORUXPlugInUnit::familyFilePath(const char* pattern)
{
    QVeltraHardwareFamily* owner = family();
    const QString name = QString::fromLatin1(pattern).arg(boardSerial());
    return owner ? owner->directory().filePath(name) : name;
}

QString QVeltraXRayKORUXPlugInUnit::PRDFileName()
{
    return familyFilePath("%1.PRD");
}

QString QVeltraXRayKORUXPlugInUnit::ASSFileName()
{
    return familyFilePath("%1.ASS");
}

// The calibration file is named after the board serial, which the sensor
// information read finds out first.
QString QVeltraXRayKORUXPlugInUnit::FFCFileName()
{
    if (boardSerial().compare(QLatin1String("UNKNOWN"), Qt::CaseInsensitive) == 0)
        readInformation(true);
    return familyFilePath("%1.FFC");
}

QString QVeltraXRayKORUXPlugInUnit::BLKFileName()
{
    return familyFilePath("%1.BLK");
}

QString QVeltraXRayKORUXPlugInUnit::DPLFileName()
{
    return familyFilePath("%1.DPL");
}

QString QVeltraXRayKORUXPlugInUnit::BTSFileName()
{
    return familyFilePath("%1.BTS");
}

bool QVeltraXRayKORUXPlugInUnit::readPRDFile(bool overwrite)
{
    const korux::OperationScope scope;
    return readFlashFile(PRDFileName(), kPRDAddress, false, overwrite);
}

bool QVeltraXRayKORUXPlugInUnit::readASSFile(bool overwrite)
{
    const korux::OperationScope scope;
    return readFlashFile(ASSFileName(), kASSAddress, false, overwrite);
}

bool QVeltraXRayKORUXPlugInUnit::readFFCFile(bool overwrite)
{
    const korux::OperationScope scope;
    return readFlashFile(FFCFileName(), kFFCAddress, false, overwrite);
}

bool QVeltraXRayKORUXPlugInUnit::readBLKFile(bool overwrite)
{
    const korux::OperationScope scope;
    return readFlashFile(BLKFileName(), kBLKAddress, false, overwrite);
}

bool QVeltraXRayKORUXPlugInUnit::readDPLFile(bool overwrite)
{
    const korux::OperationScope scope;
    return readFlashFile(DPLFileName(), kDPLAddress, false, overwrite);
}

bool QVeltraXRayKORUXPlugInUnit::readBTSFile(bool overwrite)
{
    const korux::OperationScope scope;
    return readFlashFile(BTSFileName(), kBTSAddress, false, overwrite);
}

bool QVeltraXRayKORUXPlugInUnit::readFlashFile(QString fileName, unsigned int address,
                                               bool checkOnly, bool overwrite)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("readFlashFile %1 @0x%2").arg(fileName, hexAddress(address)));
    if (!openPorts())
        return false;

    const std::clock_t start = std::clock();
    initPortC(false);
    resetFlash();
    if (!SPI_SetModeQuad(true))
        return false;

    std::vector<unsigned char> buffer(kWorkBufferSize, 0);
    if (!readFlash(buffer.data(), kFirstChunk, address)) {
        logUser(QStringLiteral("readFlash failed!"));
        return false;
    }

    const FlashFileHeader header = parseFlashFileHeader(buffer.data());
    switch (header.state) {
    case FlashFileState::NoData:
        logUser(QStringLiteral("no data to be read!"));
        return false;
    case FlashFileState::NoFile:
        logUser(QStringLiteral("No file present at @0x%1!").arg(hexAddress(address)));
        return false;
    case FlashFileState::InvalidSize:
        logUser(QStringLiteral("Invalid file size at @0x%1 (%2 Bytes)!")
                    .arg(hexAddress(address), QString::number(header.size)));
        return false;
    case FlashFileState::Present:
        break;
    }
    if (checkOnly)
        return header.framed;

    const uint32_t size = header.size;
    QFileInfo existing(fileName);
    if (existing.exists() && static_cast<uint64_t>(existing.size()) == size) {
        if (!overwrite) {
            logTrace(QStringLiteral("the file already exists %1").arg(fileName));
            return true;
        }
        logTrace(QStringLiteral("the file will be overwrited %1").arg(fileName));
    }

    // An unopenable file is not detected here: the writes fail silently.
    QFile file(fileName);
    file.open(QIODevice::ReadWrite | QIODevice::Truncate);
    const char* bytes = reinterpret_cast<const char*>(buffer.data());
    if (size < kFirstChunkContent) {
        file.write(bytes + kFlashFileHeaderSize, size);
    } else {
        // The chunks are read one behind the other after the first sector and
        // the content goes to the file in one write: the file system charges
        // per write call far more than per byte. A failed read writes what
        // came before it, as a copy written chunk by chunk leaves it.
        const uint32_t chunks = (size - kFirstChunkContent + kNextChunk - 1) / kNextChunk;
        std::unique_ptr<unsigned char[]> content(
            new unsigned char[kFlashSectorSize + size_t(chunks) * kNextChunk]);
        std::memcpy(content.get(), buffer.data(), kFlashSectorSize);
        const char* contentBytes = reinterpret_cast<const char*>(content.get()) + kFlashFileHeaderSize;
        uint32_t gathered = kFirstChunkContent;
        uint32_t remaining = size - kFirstChunkContent;
        unsigned int next = address + kFlashSectorSize;
        unsigned char* target = content.get() + kFlashSectorSize;
        while (remaining != 0) {
            if (!readFlash(target, kNextChunk, next)) {
                file.write(contentBytes, gathered);
                file.close();
                logUser(QStringLiteral("readFlash error @0x%1!").arg(hexAddress(next)));
                return false;
            }
            const uint32_t chunk = remaining <= kNextChunk ? remaining : kNextChunk;
            gathered += chunk;
            remaining -= chunk;
            next += kNextChunk;
            target += kNextChunk;
        }
        file.write(contentBytes, gathered);
    }
    file.close();

    SPI_SetModeQuad(false);
    closePorts();
    const std::clock_t end = std::clock();
    logTrace(QStringLiteral("file created successfully %1").arg(fileName));
    logTrace(QStringLiteral("size %1 read in %2ms")
                 .arg(QString::number(size), QString::number(elapsedMs(start, end))));
    letHostRun();
    return true;
}

// Works on a unit whose ports are open; it neither opens nor closes them.
bool QVeltraXRayKORUXPlugInUnit::technicReadFlashPage(unsigned int address)
{
    const korux::OperationScope scope;
    logTrace(QStringLiteral("technicReadFlashPage @0x%1").arg(hexAddress(address)));
    if (!SPI_SetModeQuad(true))
        return false;

    unsigned char page[kFlashPageSize];
    readFlash(page, kFlashPageSize, address);

    ReportSection values;
    values.insert(QStringLiteral("serialNumber"), boardSerial());
    values.insert(QStringLiteral("flashPage"),
                  QString::fromLatin1(QByteArray(reinterpret_cast<const char*>(page), kFlashPageSize).toHex()));
    values.insert(QStringLiteral("address"), address);
    sendReport(QStringLiteral("%1").arg(familyName()), values);
    return true;
}
