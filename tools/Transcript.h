// The --transcript file: every signal of the plug-in and every command korux
// gives, one JSON object a line, each with its wall-clock time and the
// milliseconds since korux started. Meant for scripts and bug reports.
#pragma once

#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QString>

namespace korux {

class Transcript {
public:
    Transcript();

    // Creates (or truncates) the file; false with the reason in error.
    bool open(const QString& path, QString* error);
    bool isOpen() const { return file_.isOpen(); }

    // Writes {"time": ..., "ms": ..., "event": event, ...fields} and flushes,
    // so that a crash or a kill keeps every line written before it.
    void record(const QString& event, QJsonObject fields = {});

private:
    QFile file_;
    QElapsedTimer clock_;
};

} // namespace korux
