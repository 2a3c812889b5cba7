#include "imaging/ImageFiles.h"

#include <png.h>
#include <zlib.h>

#include <QBuffer>
#include <QImageWriter>
#include <QtEndian>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstring>
#include <vector>

namespace korux {

const QString kPngFirmwareKey = QStringLiteral("Firmware");

namespace {

struct PngState {
    QByteArray* out = nullptr;
    const QByteArray* in = nullptr;
    qsizetype position = 0;
    QString message;
};

void onError(png_structp png, png_const_charp message)
{
    static_cast<PngState*>(png_get_error_ptr(png))->message = QString::fromLatin1(message);
    png_longjmp(png, 1);
}

void onWarning(png_structp, png_const_charp)
{
}

void writeBytes(png_structp png, png_bytep data, png_size_t length)
{
    auto* state = static_cast<PngState*>(png_get_io_ptr(png));
    state->out->append(reinterpret_cast<const char*>(data), static_cast<int>(length));
}

void flushBytes(png_structp)
{
}

void readBytes(png_structp png, png_bytep data, png_size_t length)
{
    auto* state = static_cast<PngState*>(png_get_io_ptr(png));
    if (state->position + static_cast<qsizetype>(length) > state->in->size())
        png_error(png, "the file ends early");
    std::memcpy(data, state->in->constData() + state->position, length);
    state->position += static_cast<qsizetype>(length);
}

// Rows of big-endian samples, as PNG stores them.
struct PngPicture {
    int width = 0;
    int height = 0;
    int depth = 8; // 8 or 16
    int significant = 0; // 0: no sBIT chunk
    bool pixelSize = true;
    std::vector<unsigned char> data;
};

QByteArray writePng(const PngPicture& picture, const PngText& text, QString* error)
{
    QByteArray bytes;
    PngState state;
    state.out = &bytes;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &state, onError, onWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_write_struct(&png, nullptr);
        *error = QStringLiteral("out of memory");
        return QByteArray();
    }
    // Kept outside the frame that the error handler jumps out of.
    std::vector<png_bytep> rows(static_cast<size_t>(picture.height));
    std::vector<QByteArray> keys, values;
    std::vector<png_text> chunks;
    volatile bool ok = false; // read after the error handler's jump
    if (setjmp(png_jmpbuf(png)) == 0) {
        png_set_write_fn(png, &state, writeBytes, flushBytes);
        // The fastest compression: a shot's files are written while the
        // user waits, and a sensor image hardly gets smaller at higher
        // levels.
        png_set_compression_level(png, Z_BEST_SPEED);
        png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
        png_set_IHDR(png, info, static_cast<png_uint_32>(picture.width),
            static_cast<png_uint_32>(picture.height), picture.depth, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
            PNG_COMPRESSION_TYPE_BASE, PNG_FILTER_TYPE_BASE);
        if (picture.significant > 0) {
            png_color_8 bits {};
            bits.gray = static_cast<png_byte>(picture.significant);
            png_set_sBIT(png, info, &bits);
        }
        if (picture.pixelSize)
            png_set_pHYs(png, info, kPixelsPerMetre, kPixelsPerMetre, PNG_RESOLUTION_METER);
        for (auto it = text.cbegin(); it != text.cend(); ++it) {
            keys.push_back(it.key().toLatin1().left(79));
            values.push_back(it.value().toLatin1());
        }
        for (size_t i = 0; i < keys.size(); ++i) {
            png_text chunk {};
            chunk.compression = PNG_TEXT_COMPRESSION_NONE;
            chunk.key = keys[i].data();
            chunk.text = values[i].data();
            chunk.text_length = static_cast<size_t>(values[i].size());
            chunks.push_back(chunk);
        }
        if (!chunks.empty())
            png_set_text(png, info, chunks.data(), static_cast<int>(chunks.size()));
        const size_t stride = static_cast<size_t>(picture.width) * (picture.depth / 8);
        for (int y = 0; y < picture.height; ++y)
            rows[static_cast<size_t>(y)] = const_cast<unsigned char*>(picture.data.data()) + y * stride;
        png_set_rows(png, info, rows.data());
        png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
        ok = true;
    }
    png_destroy_write_struct(&png, &info);
    if (!ok) {
        *error = QStringLiteral("cannot encode the PNG: %1").arg(state.message);
        return QByteArray();
    }
    return bytes;
}

QImage toGrey16(const QImage& image)
{
    return image.format() == QImage::Format_Grayscale16 ? image
                                                        : image.convertToFormat(QImage::Format_Grayscale16);
}

} // namespace

int significantBits(const QImage& image)
{
    const QImage grey = toGrey16(image);
    for (int y = 0; y < grey.height(); ++y) {
        const auto* row = reinterpret_cast<const quint16*>(grey.constScanLine(y));
        for (int x = y == 0 ? 1 : 0; x < grey.width(); ++x)
            if (row[x] >> kSensorBits)
                return 16;
    }
    return kSensorBits;
}

QByteArray encodeSensorPng(const QImage& image, const PngText& text, QString* error)
{
    if (image.isNull()) {
        *error = QStringLiteral("no image to encode");
        return QByteArray();
    }
    const QImage grey = toGrey16(image);
    PngPicture picture;
    picture.width = grey.width();
    picture.height = grey.height();
    picture.depth = 16;
    picture.significant = significantBits(grey);
    const int shift = 16 - picture.significant;
    const quint16 mask = static_cast<quint16>((1u << picture.significant) - 1);
    picture.data.resize(static_cast<size_t>(picture.width) * picture.height * 2);
    unsigned char* out = picture.data.data();
    for (int y = 0; y < picture.height; ++y) {
        const auto* row = reinterpret_cast<const quint16*>(grey.constScanLine(y));
        for (int x = 0; x < picture.width; ++x) {
            const quint16 value = row[x] & mask;
            // Left bit replication: the original's top bits fill the low ones.
            const quint16 scaled = shift
                ? static_cast<quint16>(value << shift | value >> (picture.significant - shift))
                : value;
            qToBigEndian(scaled, out);
            out += 2;
        }
    }
    if (picture.significant == 16)
        picture.significant = 0; // nothing to say
    return writePng(picture, text, error);
}

bool readPngHeader(const QByteArray& bytes, PngHeader* header)
{
    // Signature (8 bytes), then the IHDR chunk: length 13, type, width,
    // height (big-endian), bit depth, colour type.
    static const QByteArray signature("\x89PNG\r\n\x1a\n", 8);
    if (bytes.size() < 26 || !bytes.startsWith(signature) || bytes.mid(12, 4) != "IHDR")
        return false;
    auto word = [&bytes](int at) {
        return (quint32(quint8(bytes[at])) << 24) | (quint32(quint8(bytes[at + 1])) << 16)
            | (quint32(quint8(bytes[at + 2])) << 8) | quint32(quint8(bytes[at + 3]));
    };
    header->width = word(16);
    header->height = word(20);
    header->bitDepth = quint8(bytes[24]);
    header->colourType = quint8(bytes[25]);
    return true;
}

namespace {

// Whether every chunk's declared length stays inside the file. libpng reads a
// chunk other than the image data whole into memory, allocated from that
// length: a damaged one must not ask for gigabytes.
bool chunksFitTheFile(const QByteArray& bytes)
{
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.constData());
    const qint64 size = bytes.size();
    qint64 at = 8;
    while (at + 12 <= size) {
        const qint64 length = (qint64(data[at]) << 24) | (data[at + 1] << 16) | (data[at + 2] << 8) | data[at + 3];
        if (length > size - at - 12)
            return false;
        if (std::memcmp(data + at + 4, "IEND", 4) == 0)
            return true;
        at += 12 + length;
    }
    return at == size;
}

} // namespace

QImage decodeSensorPng(const QByteArray& bytes, PngText* text, QString* error)
{
    if (bytes.size() < 8 || png_sig_cmp(reinterpret_cast<png_const_bytep>(bytes.constData()), 0, 8) != 0) {
        *error = QStringLiteral("not a PNG file");
        return QImage();
    }
    if (!chunksFitTheFile(bytes)) {
        *error = QStringLiteral("the PNG file is damaged: a chunk runs past the end of the file");
        return QImage();
    }
    PngState state;
    state.in = &bytes;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &state, onError, onWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info) {
        png_destroy_read_struct(&png, nullptr, nullptr);
        *error = QStringLiteral("out of memory");
        return QImage();
    }
    QImage image;
    PngText chunks;
    std::vector<unsigned char> data;
    std::vector<png_bytep> rows;
    volatile bool ok = false; // read after the error handler's jump
    if (setjmp(png_jmpbuf(png)) == 0) {
        png_set_read_fn(png, &state, readBytes);
        png_read_info(png, info);
        const png_uint_32 width = png_get_image_width(png, info);
        const png_uint_32 height = png_get_image_height(png, info);
        const int colour = png_get_color_type(png, info);
        const int depth = png_get_bit_depth(png, info);
        if (colour != PNG_COLOR_TYPE_GRAY || (depth != 8 && depth != 16)) {
            state.message = QStringLiteral("not a grey-scale PNG of 8 or 16 bits (colour type %1, %2 bits)")
                                .arg(colour)
                                .arg(depth);
        } else if (width > 16384 || height > 16384) {
            state.message = QStringLiteral("%1x%2 pixels is larger than any sensor").arg(width).arg(height);
        } else {
            png_color_8p bits = nullptr;
            if (png_get_sBIT(png, info, &bits) && bits && bits->gray > 0 && bits->gray < depth)
                png_set_shift(png, bits);
            png_read_update_info(png, info);
            const size_t stride = static_cast<size_t>(width) * (depth / 8);
            data.resize(stride * height);
            rows.resize(height);
            for (png_uint_32 y = 0; y < height; ++y)
                rows[y] = data.data() + y * stride;
            png_read_image(png, rows.data());
            png_read_end(png, info);
            png_textp texts = nullptr;
            const int count = png_get_text(png, info, &texts, nullptr);
            for (int i = 0; i < count; ++i)
                chunks.insert(QString::fromLatin1(texts[i].key),
                    QString::fromLatin1(texts[i].text, static_cast<int>(texts[i].text_length)));
            image = QImage(static_cast<int>(width), static_cast<int>(height), QImage::Format_Grayscale16);
            for (png_uint_32 y = 0; y < height && !image.isNull(); ++y) {
                auto* out = reinterpret_cast<quint16*>(image.scanLine(static_cast<int>(y)));
                const unsigned char* in = rows[y];
                for (png_uint_32 x = 0; x < width; ++x)
                    out[x] = depth == 16 ? qFromBigEndian<quint16>(in + 2 * x) : in[x];
            }
            ok = !image.isNull();
            if (!ok)
                state.message = QStringLiteral("out of memory");
        }
    }
    png_destroy_read_struct(&png, &info, nullptr);
    if (!ok) {
        *error = state.message.isEmpty() ? QStringLiteral("cannot be read") : state.message;
        return QImage();
    }
    if (text)
        *text = chunks;
    return image;
}

QImage rawArea(const QImage& readout)
{
    const int rows = readout.height() - kCoveredRowsTop - kCoveredRowsBottom;
    if (readout.isNull() || rows <= 0)
        return QImage();
    return toGrey16(readout).copy(0, kCoveredRowsTop, readout.width(), rows);
}

Window autoWindow(const QImage& image)
{
    const QImage grey = toGrey16(image);
    std::vector<quint32> histogram(65536);
    for (int y = 0; y < grey.height(); ++y) {
        const auto* row = reinterpret_cast<const quint16*>(grey.constScanLine(y));
        for (int x = 0; x < grey.width(); ++x)
            ++histogram[row[x]];
    }
    const quint64 total = quint64(grey.width()) * quint64(grey.height());
    Window window;
    if (total == 0)
        return window;
    // The first value at which the count reaches each point.
    const quint64 lowCount = std::max<quint64>(1, total * 5 / 1000);
    const quint64 highCount = std::max<quint64>(1, total * 995 / 1000);
    quint64 sum = 0;
    bool lowFound = false;
    for (int value = 0; value < 65536; ++value) {
        sum += histogram[static_cast<size_t>(value)];
        if (!lowFound && sum >= lowCount) {
            window.low = value;
            lowFound = true;
        }
        if (sum >= highCount) {
            window.high = value;
            break;
        }
    }
    return window;
}

double sigmoidLevel(int value, const Window& window)
{
    return 1.0 / (1.0 + std::exp(-4.0 * (value - window.centre()) / window.width()));
}

QImage previewImage(const QImage& readout)
{
    if (readout.isNull())
        return QImage();
    const QImage grey = toGrey16(readout);
    const QImage raw = rawArea(grey);
    // The covered rows are no picture: the preview is the raw area, as the
    // DICOM files are.
    const QImage shown = raw.isNull() ? grey : raw;
    const Window window = autoWindow(shown);
    QImage preview(shown.size(), QImage::Format_Grayscale8);
    if (preview.isNull())
        return preview;
    preview.setDotsPerMeterX(kPixelsPerMetre);
    preview.setDotsPerMeterY(kPixelsPerMetre);
    // The curve of the For Presentation file: the window through a sigmoid
    // (DICOM PS3.3 C.11.2.1.3.1), then inverted as film is.
    uchar levels[1 << 16];
    for (int value = 0; value < (1 << 16); ++value)
        levels[value] = static_cast<uchar>(255.0 * (1.0 - sigmoidLevel(value, window)) + 0.5);
    for (int y = 0; y < shown.height(); ++y) {
        const auto* in = reinterpret_cast<const quint16*>(shown.constScanLine(y));
        uchar* out = preview.scanLine(y);
        for (int x = 0; x < shown.width(); ++x) {
            // The read-out's first pixel's top bits are the size code, not light.
            const int value = x == 0 && y == 0 && raw.isNull() ? in[x] & ((1 << kSensorBits) - 1) : in[x];
            out[x] = levels[value];
        }
    }
    return preview;
}

QByteArray encodePng(const QImage& image, bool withPixelSize, QString* error)
{
    if (image.isNull()) {
        *error = QStringLiteral("no image to encode");
        return QByteArray();
    }
    if (!image.allGray() || image.format() == QImage::Format_Grayscale16) {
        // Colour (the plot) and 16 bits go through Qt's own writer.
        QImage copy = image;
        if (withPixelSize) {
            copy.setDotsPerMeterX(kPixelsPerMetre);
            copy.setDotsPerMeterY(kPixelsPerMetre);
        }
        QByteArray bytes;
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        QImageWriter writer(&buffer, "png");
        if (!writer.write(copy)) {
            *error = QStringLiteral("cannot encode the PNG: %1").arg(writer.errorString());
            return QByteArray();
        }
        return bytes;
    }
    const QImage grey = image.format() == QImage::Format_Grayscale8
        ? image
        : image.convertToFormat(QImage::Format_Grayscale8);
    PngPicture picture;
    picture.width = grey.width();
    picture.height = grey.height();
    picture.depth = 8;
    picture.pixelSize = withPixelSize;
    picture.data.resize(static_cast<size_t>(picture.width) * picture.height);
    for (int y = 0; y < picture.height; ++y)
        std::memcpy(picture.data.data() + static_cast<size_t>(y) * picture.width, grey.constScanLine(y),
            static_cast<size_t>(picture.width));
    return writePng(picture, PngText(), error);
}

QByteArray encodePreviewPng(const QImage& readout, QString* error)
{
    return encodePng(previewImage(readout), true, error);
}

} // namespace korux
