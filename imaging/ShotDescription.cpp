#include "imaging/ShotDescription.h"

#include <QRegularExpression>
#include <QStringList>

namespace korux {

Description parseDescription(const QString& text)
{
    Description description;
    QString section;
    const QStringList lines = text.split(QRegularExpression(QStringLiteral("\r?\n")));
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            section = line.mid(1, line.size() - 2);
            description[section];
            continue;
        }
        const int equals = line.indexOf(QLatin1Char('='));
        if (section.isEmpty() || equals <= 0)
            continue;
        description[section].insert(line.left(equals), line.mid(equals + 1));
    }
    return description;
}

bool parseOscilloscope(const QString& text, QVector<int>* samples, QString* error)
{
    samples->clear();
    if (text.size() % 4 != 0) {
        *error
            = QStringLiteral("the oscilloscope text has %1 characters, not groups of four").arg(text.size());
        return false;
    }
    samples->reserve(text.size() / 4);
    for (int i = 0; i < text.size(); i += 4) {
        const QString group = text.mid(i, 4);
        static const QRegularExpression hex(QStringLiteral("^[0-9A-Fa-f]{4}$"));
        if (!hex.match(group).hasMatch()) {
            *error
                = QStringLiteral("the oscilloscope text holds \"%1\" at %2, not a sample").arg(group).arg(i);
            return false;
        }
        samples->append(group.toInt(nullptr, 16));
    }
    return true;
}

} // namespace korux
