#include "fpga/Bitstream.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace korux {

QByteArray readBitstreamHeader(const QString& path)
{
    // One byte more than read, so the last text always ends in a zero.
    QByteArray header(kBitstreamHeaderRead + 1, '\0');
    QFile file(path);
    if (file.open(QIODevice::ReadOnly)) {
        file.read(header.data(), kBitstreamHeaderRead);
        file.close();
    }
    return header;
}

QStringList bitstreamTexts(const QByteArray& header)
{
    QStringList texts;
    int offset = 2;
    for (int i = 0; i < kBitstreamTexts; ++i) {
        if (offset >= header.size()) {
            texts << QString();
            continue;
        }
        int end = header.indexOf('\0', offset);
        if (end < 0)
            end = header.size();
        texts << QString::fromLatin1(header.mid(offset, end - offset));
        offset = end + 1;
    }
    return texts;
}

QDateTime bitstreamDate(const QString& dateText)
{
    return QDateTime::fromString(dateText.mid(6), Qt::RFC2822Date);
}

QString applicationBitstreamName(const QString& portASerial)
{
    return QStringLiteral("KORUX_%1.bit").arg(portASerial.right(3).left(2));
}

QString applicationBitstreamDirectory(const QString& applicationDir)
{
    const auto parentOf = [](const QString& path) { return QDir::cleanPath(path + QStringLiteral("/..")); };
    const auto isRoot = [](const QString& path) { return QDir(path).isRoot(); };
    QString dir = QDir::cleanPath(applicationDir);
    if (isRoot(dir))
        return applicationDir;
    while (!isRoot(dir) && !QFileInfo(dir).isBundle())
        dir = parentOf(dir);
    if (isRoot(dir))
        return applicationDir;
    return parentOf(dir);
}

}  // namespace korux
