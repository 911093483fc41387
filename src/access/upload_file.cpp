#include "access/upload_file.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The process's umask as it is now, read without changing it (umask() would,
// for a moment, for every thread).
mode_t processUmask()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : status.readAll().split('\n'))
            if (line.startsWith("Umask:"))
                return mode_t(line.mid(6).trimmed().toUInt(nullptr, 8));
    }
    return mode_t(022);
}

} // namespace

UploadFile::~UploadFile()
{
    discard();
}

bool UploadFile::open(const QString &targetPath)
{
    discard();
    const QFileInfo target(targetPath);
    m_targetPath = QFile::encodeName(targetPath);
    m_folder = QFile::encodeName(target.absolutePath());
    struct stat st;
    m_replaces = ::stat(m_targetPath.constData(), &st) == 0;
    // An unnamed file: nobody can fetch a partial upload by some name.
    int fd = ::open(m_folder.constData(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
        QByteArray pattern = m_folder + "/." + QFile::encodeName(target.fileName()) + ".XXXXXX";
        fd = ::mkostemp(pattern.data(), O_CLOEXEC);
        if (fd >= 0)
            m_tempPath = pattern;
    }
    if (fd < 0) {
        m_errno = errno;
        return false;
    }
    ::fchmod(fd, m_replaces ? st.st_mode & 07777 : 0666 & ~processUmask());
    m_fd = fd;
    m_written = 0;
    m_errno = 0;
    return true;
}

bool UploadFile::write(const char *data, qint64 size)
{
    if (m_fd < 0)
        return false;
    qint64 done = 0;
    while (done < size) {
        const ssize_t n = ::write(m_fd, data + done, size_t(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            m_errno = n < 0 ? errno : ENOSPC;
            return false;
        }
        done += n;
    }
    m_written += size;
    return true;
}

bool UploadFile::commit()
{
    if (m_fd < 0)
        return false;
    int error = 0;
    if (m_tempPath.isEmpty()) {
        // The unnamed file gets a hidden name only now, complete, and at once
        // takes the target's place.
        char proc[64];
        std::snprintf(proc, sizeof proc, "/proc/self/fd/%d", m_fd);
        for (int attempt = 0; attempt < 8 && m_tempPath.isEmpty(); ++attempt) {
            const QByteArray name
                = m_folder + "/.upload-" + QByteArray::number(QRandomGenerator::global()->generate64(), 36);
            if (::linkat(AT_FDCWD, proc, AT_FDCWD, name.constData(), AT_SYMLINK_FOLLOW) == 0)
                m_tempPath = name;
            else if (errno != EEXIST)
                break;
        }
        if (m_tempPath.isEmpty())
            error = errno ? errno : EEXIST;
    }
    // A full disk can still show at close (delayed allocation), so both count.
    const int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0 && error == 0)
        error = errno;
    if (error == 0 && ::rename(m_tempPath.constData(), m_targetPath.constData()) != 0)
        error = errno;
    if (error != 0) {
        m_errno = error;
        discard();
        return false;
    }
    m_tempPath.clear();
    return true;
}

void UploadFile::discard()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    if (!m_tempPath.isEmpty())
        ::unlink(m_tempPath.constData()); // never committed: the old file stays as it was
    m_tempPath.clear();
}
