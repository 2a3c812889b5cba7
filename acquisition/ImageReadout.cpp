// Reading the image out of the sensor: 65,408-byte blocks straight into the
// image memory, then one byte swap in place.
#include "plugin/QVeltraXRayKORUXPlugInUnit.h"

#include "plugin/OperationScope.h"

#include <QImage>

#include <cstring>
#include <vector>

#include "acquisition/AcquisitionProtocol.h"
#include "transport/SensorProtocol.h"

using namespace korux;

namespace {

hardwareSize sizeOfCode(int code)
{
    return code == 1 ? size1 : size2;
}

}  // namespace

bool QVeltraXRayKORUXPlugInUnit::readImageBlock(uint8* buffer, int block, uint16 length,
                                                uint32* bytesRead)
{
    CommandFrame command = sensorCommand(kClassData, static_cast<uint8>(kCodeImageBlock + block));
    return FT4222_SPI_MRW(buffer, command.data(), length, bytesRead);
}

bool QVeltraXRayKORUXPlugInUnit::hasImage()
{
    const korux::OperationScope scope;
    std::vector<uint8> block(kImageBlockSize, 0);
    uint32 bytesRead = 0;
    if (!readImageBlock(block.data(), 0, kImageBlockSize, &bytesRead)) {
        logUser(QStringLiteral("[red]Unable to read first data bloc"));
        setFamilyError();
        return false;
    }
    const int code = imageSizeCode(block[0]);
    if (code == 0)
        return false;
    if ((code == 1 && size() == size1) || (code == 2 && size() == size2) || code == 3)
        return true;
    logUser(QStringLiteral("[red]Image sensor size mismatch %1 <> %2")
                .arg(QString::number(code), hardwareSizeToString(size())));
    setFamilyError();
    return false;
}

bool QVeltraXRayKORUXPlugInUnit::readImage(bool black)
{
    const korux::OperationScope scope;
    logUser(black ? QStringLiteral("readImage black") : QStringLiteral("readImage"));
    // A failed read-out clears the image it was to fill: the host never keeps
    // a stale one.
    auto clearTarget = [this, black] {
        if (black)
            resetBlackImage();
        else
            resetBinaryImage();
    };

    std::vector<uint8> block(kImageBlockSize, 0);
    uint32 bytesRead = 0;
    if (!readImageBlock(block.data(), 0, kImageBlockSize, &bytesRead)) {
        clearTarget();
        logUser(QStringLiteral("Unable to read binary image"));
        return false;
    }
    const int code = imageSizeCode(block[0]);
    if (code == 0) {
        clearTarget();
        logUser(QStringLiteral("Unable to read sensor size"));
        return false;
    }
    // The unit follows the sensor when it reports the other size.
    if ((code == 1 && size() != size1) || (code == 2 && size() != size2)) {
        logUser(QStringLiteral("[yellow,bold]Update sensor size to %1!").arg(code));
        setSize(sizeOfCode(code));
    }

    const QSize readOutSize = BINImageSize();
    const ImageBlocks blocks = imageBlocks(readOutSize);
    QImage image(readOutSize, QImage::Format_Grayscale16);
    uint8* pixels = nullptr;
    if (image.isNull()) {
        logUser(QStringLiteral("[red]image cannot be allocated"));
    } else {
        image.fill(0);
        logUser(QStringLiteral("[green]image allocated with size (%1x%2) and Format %3.")
                    .arg(QString::number(image.width()), QString::number(image.height()),
                        QString::number(int(image.format()))));
        pixels = image.bits();
        std::memcpy(pixels, block.data(), qMin<uint32_t>(kImageBlockSize, blocks.totalBytes));
    }

    // Full blocks land in place; without an image they are read and dropped.
    for (uint32_t number = 1; number < blocks.fullBlocks; ++number) {
        uint8* target = pixels ? pixels + number * kImageBlockSize : block.data();
        if (!readImageBlock(target, static_cast<int>(number), kImageBlockSize, &bytesRead)) {
            clearTarget();
            logUser(QStringLiteral("Unable to read binary image block #%1").arg(number));
            return false;
        }
    }
    if (blocks.remainder != 0) {
        if (!readImageBlock(block.data(), static_cast<int>(blocks.fullBlocks),
                            static_cast<uint16>(blocks.lastReadLength), &bytesRead)) {
            clearTarget();
            logUser(QStringLiteral("Unable to read last binary image block"));
            return false;
        }
        if (pixels)
            std::memcpy(pixels + blocks.fullBlocks * kImageBlockSize, block.data(), blocks.remainder);
    }
    if (!pixels) {
        clearTarget();
        return false;
    }

    swapPixelBytes(pixels, blocks.totalBytes / 2);
    if (!black) {
        setBinaryImage(image);
    } else {
        setBlackImage(image.copy(0, kBlackTopRows, image.width(), image.height() - kExtraReadOutRows));
    }
    return true;
}
