#include "imaging/ShotFiles.h"

#include <future>

namespace korux {

bool encodeShot(const QImage& image, const QImage& black, const PngText& text, QByteArray* imagePng,
    QByteArray* blackPng, QString* error)
{
    QString blackError;
    std::future<QByteArray> blackDone;
    if (!black.isNull())
        blackDone = std::async(std::launch::async,
            [&black, &text, &blackError] { return encodeSensorPng(black, text, &blackError); });
    if (!image.isNull())
        *imagePng = encodeSensorPng(image, text, error);
    if (blackDone.valid())
        *blackPng = blackDone.get();
    if (error->isEmpty() && !blackError.isEmpty())
        *error = blackError;
    return error->isEmpty();
}

} // namespace korux
