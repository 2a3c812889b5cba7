#include "tools/Console.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace korux {

namespace {

// SGR parameters of the words a style tag may hold.
QString sgrFor(const QString& word)
{
    if (word == QLatin1String("red"))
        return QStringLiteral("31");
    if (word == QLatin1String("green"))
        return QStringLiteral("32");
    if (word == QLatin1String("yellow"))
        return QStringLiteral("33");
    if (word == QLatin1String("blue"))
        return QStringLiteral("34");
    if (word == QLatin1String("magenta"))
        return QStringLiteral("35");
    if (word == QLatin1String("cyan"))
        return QStringLiteral("36");
    if (word == QLatin1String("orange"))
        return QStringLiteral("38;5;208");
    if (word == QLatin1String("bold"))
        return QStringLiteral("1");
    if (word == QLatin1String("italic"))
        return QStringLiteral("3");
    return QString();
}

constexpr int kLongestTag = 32;

// errno of a failed write, 0 when every byte went out.
int writeAll(FILE* stream, const QString& text)
{
    const QByteArray bytes = text.toUtf8() + '\n';
    errno = 0;
    const size_t written = std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    if (std::fflush(stream) == 0 && written == static_cast<size_t>(bytes.size()))
        return 0;
    const int error = errno != 0 ? errno : EIO;
    std::clearerr(stream);
    return error;
}

} // namespace

QString styleLogText(const QString& text, bool colour)
{
    if (!text.startsWith('['))
        return text;
    const int close = text.indexOf(']');
    if (close < 2 || close > kLongestTag)
        return text;
    QStringList codes;
    for (const QString& word : text.mid(1, close - 1).split(',')) {
        const QString code = sgrFor(word.trimmed());
        if (code.isEmpty())
            return text;
        codes << code;
    }
    if (!colour)
        return text.mid(close + 1);
    return QStringLiteral("\033[%1m%2\033[0m").arg(codes.join(';'), text.mid(close + 1));
}

void Console::write(const QString& text)
{
    if (outputError_ != 0)
        return;
    endProgress();
    outputError_ = writeAll(stdout, text);
    // A reader that went away (korux ... | head) is no error to tell: the
    // output ends there, the work goes on.
    if (outputError_ != 0 && outputError_ != EPIPE)
        error(QStringLiteral("korux: cannot write to standard output: %1")
                  .arg(QString::fromLocal8Bit(std::strerror(outputError_))));
}

void Console::out(const QString& text)
{
    if (!json_)
        write(text);
}

void Console::json(const QJsonObject& document)
{
    if (json_)
        write(QString::fromUtf8(QJsonDocument(document).toJson(QJsonDocument::Compact)));
}

void Console::progress(const QString& text)
{
    if (!terminal_ || json_ || outputError_ != 0)
        return;
    const QByteArray bytes = "\r" + text.toUtf8() + "\033[K";
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
    progressShown_ = true;
}

void Console::endProgress()
{
    if (!progressShown_)
        return;
    progressShown_ = false;
    std::fputs("\n", stdout);
}

void Console::log(const QString& text)
{
    if (!json_) {
        write(styleLogText(text, colour_));
        return;
    }
    // Standard output carries only results: the log goes to standard error,
    // a JSON line each, its style tag apart from its text.
    QJsonObject line { { QStringLiteral("log"), styleLogText(text, false) } };
    if (text.startsWith(QLatin1Char('[')) && text.indexOf(QLatin1Char(']')) > 0)
        line.insert(QStringLiteral("style"), text.mid(1, text.indexOf(QLatin1Char(']')) - 1));
    writeAll(stderr, QString::fromUtf8(QJsonDocument(line).toJson(QJsonDocument::Compact)));
}

void Console::error(const QString& text)
{
    if (progressShown_) {
        progressShown_ = false;
        writeAll(stdout, QString());
    }
    writeAll(stderr, text);
}

} // namespace korux
