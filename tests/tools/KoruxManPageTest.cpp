// The manual page says what korux help says: every command, every option of
// every command, every global option and every exit status.
#include "KoruxRunner.h"

#include <QRegularExpression>
#include <QSet>

using namespace korux_test;

namespace {

QString manPage()
{
    QFile file(QStringLiteral(KORUX_SOURCE_DIR "/docs/korux.1"));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly | QIODevice::Text));
    return QString::fromUtf8(file.readAll());
}

// A word as roff sets it in bold: "\fBfpga\-update\fR" or ".B fpga\-update".
bool showsInBold(const QString& page, const QString& word)
{
    QString escaped = word;
    escaped.replace(QLatin1Char('-'), QStringLiteral("\\-"));
    return page.contains(QStringLiteral("\\fB") + escaped + QStringLiteral("\\fR"))
        || page.contains(QStringLiteral(".B ") + escaped + QLatin1Char('\n'));
}

// The names in the "commands:" part of korux help.
QStringList commandNames(const QString& help)
{
    QStringList names;
    bool inCommands = false;
    static const QRegularExpression entry(QStringLiteral("^  ([a-z][a-z-]*)"));
    for (const QString& line : help.split(QLatin1Char('\n'))) {
        if (line == QLatin1String("commands:")) {
            inCommands = true;
            continue;
        }
        if (inCommands && line.isEmpty())
            break;
        const QRegularExpressionMatch match = entry.match(line);
        if (inCommands && match.hasMatch())
            names << match.captured(1);
    }
    return names;
}

QSet<QString> optionsIn(const QString& text)
{
    QSet<QString> options;
    static const QRegularExpression option(QStringLiteral("(?<![\\w-])(--?[a-z][a-z-]*)(?=[\\s\\]|,]|$)"));
    auto matches = option.globalMatch(text);
    while (matches.hasNext())
        options << matches.next().captured(1);
    return options;
}

} // namespace

TEST_F(Korux, ManualPageNamesEveryCommandAndOption)
{
    const QString page = manPage();
    const KoruxRun help = korux({ QStringLiteral("help") });
    ASSERT_EQ(help.exitCode, 0) << help.err;
    const QStringList commands = commandNames(help.out);
    ASSERT_GE(commands.size(), 20) << help.out;

    QSet<QString> options = optionsIn(help.out.mid(help.out.indexOf(QStringLiteral("\noptions:"))));
    for (const QString& command : commands) {
        EXPECT_TRUE(showsInBold(page, command)) << "korux.1 lacks the command " << command;
        const KoruxRun one = korux({ QStringLiteral("help"), command });
        EXPECT_EQ(one.exitCode, 0) << command << one.err;
        options += optionsIn(one.out);
    }
    for (const QString& option : options)
        EXPECT_TRUE(showsInBold(page, option)) << "korux.1 lacks the option " << option;
}

TEST_F(Korux, ManualPageListsEveryExitStatus)
{
    const QString page = manPage();
    const QString exitSection = page.mid(page.indexOf(QStringLiteral(".SH EXIT STATUS")));
    const KoruxRun codes = korux({ QStringLiteral("help"), QStringLiteral("exit-codes") });
    ASSERT_EQ(codes.exitCode, 0) << codes.err;
    static const QRegularExpression code(QStringLiteral("^  (\\d+) "), QRegularExpression::MultilineOption);
    auto matches = code.globalMatch(codes.out);
    int seen = 0;
    while (matches.hasNext()) {
        const QString number = matches.next().captured(1);
        ++seen;
        EXPECT_TRUE(QRegularExpression(QStringLiteral("\\.B [0-9, ]*\\b%1\\b").arg(number)).match(exitSection).hasMatch())
            << "korux.1 lacks the exit status " << number;
    }
    EXPECT_GE(seen, 8);
}
