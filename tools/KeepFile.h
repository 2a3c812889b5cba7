// Writes a file a user keeps whole or not at all: the bytes go to a
// temporary file in the same directory, are flushed to the disk, and the
// file is then put in place in one step. Without replace an existing file
// is never replaced (the new one is linked in, which fails when the name is
// taken, even by another process a moment earlier).
#pragma once

#include <QByteArray>
#include <QString>

namespace korux {

// False with "cannot write PATH: REASON" (or "PATH exists already") in error.
bool keepFile(const QString& path, const QByteArray& bytes, bool replace, QString* error);

} // namespace korux
