#include "tools/ShotFiles.h"

#include <QBuffer>
#include <QImageWriter>

#include <future>

namespace korux {

QByteArray encodePng(const QImage& image, QString* error)
{
    const QImage grey = image.format() == QImage::Format_Grayscale16
        ? image
        : image.convertToFormat(QImage::Format_Grayscale16);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    QImageWriter writer(&buffer, "png");
    writer.setQuality(kPngQuality);
    if (!writer.write(grey)) {
        *error = writer.errorString();
        return QByteArray();
    }
    return bytes;
}

bool encodeShot(
    const QImage& image, const QImage& black, QByteArray* imagePng, QByteArray* blackPng, QString* error)
{
    QString blackError;
    std::future<QByteArray> blackDone;
    if (!black.isNull())
        blackDone
            = std::async(std::launch::async, [&black, &blackError] { return encodePng(black, &blackError); });
    if (!image.isNull())
        *imagePng = encodePng(image, error);
    if (blackDone.valid())
        *blackPng = blackDone.get();
    if (error->isEmpty() && !blackError.isEmpty())
        *error = blackError;
    return error->isEmpty();
}

} // namespace korux
