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
    file_.reset(new AtomicFile(path));
    if (!file_->open()) {
        *error = QStringLiteral("the transcript: %1").arg(file_->errorString());
        file_.reset();
        return false;
    }
    return true;
}

void Transcript::record(const QString& event, QJsonObject fields)
{
    if (!file_ || file_->failed())
        return;
    fields.insert(QStringLiteral("time"), QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs));
    fields.insert(QStringLiteral("ms"), double(clock_.nsecsElapsed() / 1000) / 1000.0);
    fields.insert(QStringLiteral("event"), event);
    file_->write(QJsonDocument(fields).toJson(QJsonDocument::Compact) + '\n');
}

bool Transcript::close()
{
    return !file_ || file_->commit();
}

} // namespace korux
