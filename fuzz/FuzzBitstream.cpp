// Bitstream files as the FPGA update compares them: the first 2048 bytes of
// the file, the seven zero-terminated header texts, and the build date of
// the seventh. The input is the file; it is handed over through an
// in-memory file so the real reader opens it by path.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <QByteArray>
#include <QString>

#include "fpga/Bitstream.h"
#include "fuzz/FuzzCheck.h"

namespace {

// One in-memory file for the whole run, rewritten for each input.
const QString& inputPath()
{
    static const QString path = [] {
        const int fd = memfd_create("bitstream", 0);
        if (fd < 0) {
            std::perror("memfd_create");
            std::abort();
        }
        return QStringLiteral("/proc/self/fd/%1").arg(fd);
    }();
    return path;
}

int inputDescriptor()
{
    return inputPath().mid(static_cast<int>(sizeof("/proc/self/fd/") - 1)).toInt();
}

void writeInput(const uint8_t* data, size_t size)
{
    const int fd = inputDescriptor();
    FUZZ_CHECK(ftruncate(fd, 0) == 0);
    size_t written = 0;
    while (written < size) {
        const ssize_t n = pwrite(fd, data + written, size - written, static_cast<off_t>(written));
        FUZZ_CHECK(n > 0);
        written += static_cast<size_t>(n);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 3 * korux::kBitstreamHeaderRead)
        return 0;
    writeInput(data, size);

    const QByteArray header = korux::readBitstreamHeader(inputPath());
    FUZZ_CHECK(header.size() == korux::kBitstreamHeaderRead + 1);
    FUZZ_CHECK(header.at(korux::kBitstreamHeaderRead) == '\0');
    const size_t kept = std::min<size_t>(size, korux::kBitstreamHeaderRead);
    FUZZ_CHECK(kept == 0 || std::equal(data, data + kept, reinterpret_cast<const uint8_t*>(header.constData())));

    const QStringList texts = korux::bitstreamTexts(header);
    FUZZ_CHECK(texts.size() == korux::kBitstreamTexts);
    const QDateTime date = korux::bitstreamDate(texts[6]);
    (void)date.isValid();

    // The texts of a header that is not zero-padded (the parser must stop at
    // its end), and the date parser on the raw input, which random bytes
    // rarely reach through the seventh text.
    const QByteArray raw(reinterpret_cast<const char*>(data), static_cast<int>(size));
    FUZZ_CHECK(korux::bitstreamTexts(raw).size() == korux::kBitstreamTexts);
    const QDateTime direct = korux::bitstreamDate(QString::fromLatin1(raw.left(256)));
    (void)direct.isValid();
    return 0;
}
