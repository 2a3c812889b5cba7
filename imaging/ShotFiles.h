// The image files of a shot: 16-bit grey-scale PNG with the pixel size, the
// significant bits and the shot's text (imaging/ImageFiles.h), encoded fast
// enough that the files are on the disk well before the next exposure is due.
#pragma once

#include <QByteArray>
#include <QImage>
#include <QString>

#include "imaging/ImageFiles.h"

namespace korux {

// The image and, when there is one, the black image, encoded side by side on
// two threads (zlib's fastest level: a file a few per cent larger than the
// default level's, made in a fraction of the time). False with the reason in
// error.
bool encodeShot(const QImage& image, const QImage& black, const PngText& text, QByteArray* imagePng,
    QByteArray* blackPng, QString* error);

} // namespace korux
