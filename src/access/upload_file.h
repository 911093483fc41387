#pragma once

#include <QByteArray>
#include <QString>

// A file being received, for every protocol that accepts uploads (TFTP,
// HTTP): the bytes go to an unnamed file in the target's folder (O_TMPFILE;
// where the file system has none, a hidden "."name".XXXXXX" beside it), so a
// partial upload can never be fetched by name and the final rename stays on
// one file system. It replaces the target only on commit(). Destroyed or
// discarded before that, it is dropped and the old file stays as it was.
//
// A new file gets 0666 under the process's umask, a replaced one keeps its
// own permissions.
class UploadFile
{
public:
    UploadFile() = default;
    ~UploadFile();
    UploadFile(const UploadFile &) = delete;
    UploadFile &operator=(const UploadFile &) = delete;

    // Creates the temporary file; false with errorNumber() set when it cannot.
    bool open(const QString &targetPath);
    bool isOpen() const { return m_fd >= 0; }
    // Whether the target existed when the upload began (a replace, not a create).
    bool replacesExisting() const { return m_replaces; }

    // Appends all of data; false with errorNumber() set (ENOSPC: disk full).
    bool write(const char *data, qint64 size);
    // Closes the temporary file and renames it over the target.
    bool commit();
    // Closes and removes the temporary file; the target is not touched.
    void discard();

    int errorNumber() const { return m_errno; }
    qint64 bytesWritten() const { return m_written; }

private:
    int m_fd = -1;
    int m_errno = 0;
    bool m_replaces = false;
    qint64 m_written = 0;
    QByteArray m_tempPath; // empty while the file has no name
    QByteArray m_folder;
    QByteArray m_targetPath;
};
