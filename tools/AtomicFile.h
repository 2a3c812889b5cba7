// Files a user keeps appear under their name whole or not at all. The bytes
// go to a temporary file in the same directory (so that the rename stays on
// one file system), are flushed to the disk, and the file is then renamed
// into place; a crash, a kill or a full disk leaves the old file or none,
// never a piece. Every failure is kept and told, with the file's name.
//
// A name that is there already and is no regular file (a terminal, a pipe,
// /dev/null, /dev/full) is written directly: there is nothing to replace.
#pragma once

#include <QByteArray>
#include <QString>

namespace korux {

class AtomicFile {
public:
    // Replace: an existing file is replaced at commit. Keep: commit fails
    // (alreadyExists()) when the name is taken by then, even by another
    // process a moment earlier.
    enum class Existing { Replace, Keep };

    explicit AtomicFile(const QString& path, Existing existing = Existing::Replace);
    ~AtomicFile(); // a file not committed is removed
    AtomicFile(const AtomicFile&) = delete;
    AtomicFile& operator=(const AtomicFile&) = delete;

    bool open();
    bool isOpen() const { return fd_ >= 0; }
    // Writes all of bytes, or records the failure; after one, every call
    // fails until the file is discarded.
    bool write(const char* data, qint64 size);
    bool write(const QByteArray& bytes) { return write(bytes.constData(), bytes.size()); }
    // Flush to the disk, close, rename into place (and flush the directory).
    bool commit();
    // Removes the temporary file.
    void discard();

    const QString& path() const { return path_; }
    bool failed() const { return errno_ != 0; }
    bool alreadyExists() const { return alreadyExists_; }
    // "cannot write PATH: REASON"
    QString errorString() const;

private:
    bool fail(int error);
    void closeAndRemove();

    QString path_;
    Existing existing_;
    QByteArray target_; // the file replaced (a link's target)
    QByteArray temporary_; // empty when writing directly
    int fd_ = -1;
    int slot_ = -1;
    int errno_ = 0;
    bool alreadyExists_ = false;
    bool committed_ = false;
};

// The whole file in one go; false with the reason in error.
bool writeFileAtomically(
    const QString& path, const QByteArray& bytes, AtomicFile::Existing existing, QString* error);

// Removes the temporary files (".NAME.tmp-XXXXXX") that writers killed on
// their way left in directory: those whose lock no process holds (korux's
// writers hold one on their file, the virtual bridge names its holder in
// NAME.lock). Once per directory and process.
void removeAbandonedTemporaries(const QString& directory);
void removeAbandonedTemporaries(const QByteArray& directory);

// True when a file can be created in directory: tries one (and removes it),
// so read-only mounts and permissions are seen as they are, for root too.
bool directoryIsWritable(const QString& directory, QString* reason);

} // namespace korux
