#include "tools/Transcript.h"

#include <QDateTime>
#include <QJsonDocument>

namespace korux {

Transcript::Transcript()
{
    clock_.start();
}

bool Transcript::open(const QString& path, QString* error)
{
    file_.setFileName(path);
    if (!file_.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        *error = QStringLiteral("cannot write the transcript %1: %2").arg(path, file_.errorString());
        return false;
    }
    return true;
}

void Transcript::record(const QString& event, QJsonObject fields)
{
    if (!file_.isOpen())
        return;
    fields.insert(QStringLiteral("time"),
        QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
    fields.insert(QStringLiteral("ms"), double(clock_.nsecsElapsed() / 1000) / 1000.0);
    fields.insert(QStringLiteral("event"), event);
    file_.write(QJsonDocument(fields).toJson(QJsonDocument::Compact));
    file_.write("\n");
    file_.flush();
}

} // namespace korux
