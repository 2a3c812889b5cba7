// The --transcript file: every signal of the plug-in and every command korux
// gives, one JSON object a line, each with its wall-clock time and the
// milliseconds since korux started. Meant for scripts and bug reports.
// It is written under a temporary name and takes its own name when korux
// ends (an interrupted run included); a kill leaves the older transcript.
#pragma once

#include <QElapsedTimer>
#include <QJsonObject>
#include <QString>

#include <memory>

#include "tools/AtomicFile.h"

namespace korux {

class Transcript {
public:
    Transcript();

    // Creates the temporary file; false with the reason in error.
    bool open(const QString& path, QString* error);
    bool isOpen() const { return file_ != nullptr; }

    // Writes {"time": ..., "ms": ..., "event": event, ...fields}. After a
    // write error nothing more is written; failed() tells.
    void record(const QString& event, QJsonObject fields = {});

    bool failed() const { return file_ && file_->failed(); }
    QString errorString() const { return file_ ? file_->errorString() : QString(); }

    // Puts the file in place; false (errorString()) when it could not be
    // written whole.
    bool close();

private:
    std::unique_ptr<AtomicFile> file_;
    QElapsedTimer clock_;
};

} // namespace korux
