// A shot's PNG as korux dicom reads it: the header first, the pixels only
// for a read-out's size, then the text chunks that carry the shot's DICOM
// identity and anatomy.
#include <cstddef>
#include <cstdint>

#include "fuzz/FuzzCheck.h"
#include "imaging/DicomAnatomy.h"
#include "imaging/DicomIdentity.h"
#include "imaging/ImageFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > (1 << 20))
        return 0;
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));

    korux::PngHeader header;
    if (!korux::readPngHeader(bytes, &header))
        return 0;
    // korux dicom decodes nothing larger than the large sensor's read-out.
    if (header.width > korux::kLargeReadoutWidth || header.height > korux::kLargeReadoutHeight)
        return 0;
    korux::PngText text;
    QString error;
    const QImage image = korux::decodeSensorPng(bytes, &text, &error);
    FUZZ_CHECK(image.isNull() != error.isEmpty());
    if (image.isNull())
        return 0;
    FUZZ_CHECK(static_cast<quint32>(image.width()) == header.width);
    FUZZ_CHECK(static_cast<quint32>(image.height()) == header.height);

    korux::DicomIdentity identity;
    if (korux::identityFromPngText(text, &identity)) {
        FUZZ_CHECK(identity.isValid());
        FUZZ_CHECK(identity.processing.number > 0 && identity.presentation.instance > 0);
    }
    const korux::DicomAnatomy anatomy = korux::anatomyFromText(text.value(QStringLiteral("Anatomy")));
    for (const QString& tooth : anatomy.teeth)
        FUZZ_CHECK(!korux::toothCode(tooth).value.isEmpty());
    FUZZ_CHECK(anatomy.region.isEmpty() || !korux::regionCode(anatomy.region).value.isEmpty());
    return 0;
}
