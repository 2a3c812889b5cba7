#include "plugin/JsonReport.h"

#include <QJsonArray>
#include <QJsonObject>

QJsonDocument mapToJsonDocument(ReportMap map)
{
    QJsonArray sections;
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        QJsonObject values;
        const ReportSection& inner = it.value();
        for (auto value = inner.cbegin(); value != inner.cend(); ++value)
            values.insert(value.key(), QJsonValue::fromVariant(value.value()));

        QJsonObject section;
        section.insert(it.key(), QJsonArray{values});
        sections.append(section);
    }
    return QJsonDocument(sections);
}

QString reportText(const ReportMap& map)
{
    return QString::fromUtf8(mapToJsonDocument(map).toJson(QJsonDocument::Indented));
}
