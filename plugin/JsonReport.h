// Every data report of the plug-in is a two-level map (section -> key ->
// value) sent as one indented JSON text.
#pragma once

#include <QJsonDocument>
#include <QMap>
#include <QString>
#include <QVariant>

using ReportSection = QMap<QString, QVariant>;
using ReportMap = QMap<QString, ReportSection>;

// [ { "<section>": [ { key: value, ... } ] }, ... ] with sections in key order.
QJsonDocument mapToJsonDocument(ReportMap map);

// The indented UTF-8 text of the document, as dataRead carries it.
QString reportText(const ReportMap& map);
