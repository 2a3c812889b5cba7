#include "flash/InformationText.h"

#include <QStringList>

namespace korux {

ReportMap parseInformationText(QString& text)
{
    text = text.split(QStringLiteral("\r\n")).join(QLatin1Char('\r'));
    text = text.split(QLatin1Char('\n')).join(QLatin1Char('\r'));
    const QStringList lines = text.split(QLatin1Char('\r'));

    ReportMap sections;
    QString name;
    ReportSection values;
    auto store = [&] {
        if (!name.isEmpty() && !values.isEmpty())
            sections.insert(name, values);
    };

    for (const QString& line : lines) {
        if (line.isEmpty())
            continue;
        if (line.at(0) == QLatin1Char('[')) {
            store();
            // Only a stored section empties the key lines; an unnamed one
            // lets them flow on into the next.
            if (!name.isEmpty() && !values.isEmpty())
                values.clear();
            name = line.mid(1, line.size() - 2);
            continue;
        }
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals < 0)
            values.insert(line, QString());
        else
            values.insert(line.left(equals), line.mid(equals + 1));
    }
    store();
    return sections;
}

}  // namespace korux
