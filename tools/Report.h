// korux report: the support bundle, and its pure parts (the tar archive, the
// gzip wrapper, the listing of a folder's files).
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include "tools/Commands.h"

namespace korux {

struct BundleFile {
    QString name; // path inside the archive
    QByteArray bytes;
};

// A ustar archive of the files (mode 0644, owner 0), modified at the time
// given (seconds since 1970).
QByteArray tarArchive(const QVector<BundleFile>& files, qint64 modified);

// bytes as one gzip member; empty when compression failed.
QByteArray gzipBytes(const QByteArray& bytes);

// One line per regular file of directory, by name: SHA-256, size, name.
QString fileListing(const QString& directory);

// True for the support bundle: report on korux's own command line without
// --family. It runs without bridge and plug-in (its korux children load them).
bool supportBundle(const Options& options, const CommandLine& line);

// report: the support bundle on korux's command line; in a script, in the
// shell or with --family, the family's parameter report.
int runReportCommand(Session& session, const CommandLine& line);
int runSupportReport(Session& session, const CommandLine& line);

} // namespace korux
