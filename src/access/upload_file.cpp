#include "access/upload_file.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

UploadFile::~UploadFile()
{
    discard();
}

bool UploadFile::open(const QString &targetPath)
{
    discard();
    const QFileInfo target(targetPath);
    QByteArray pattern = QFile::encodeName(
        target.absolutePath() + QLatin1String("/.") + target.fileName() + QLatin1String(".XXXXXX"));
    const int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (fd < 0) {
        m_errno = errno;
        return false;
    }
    m_targetPath = QFile::encodeName(targetPath);
    struct stat st;
    m_replaces = ::stat(m_targetPath.constData(), &st) == 0;
    ::fchmod(fd, m_replaces ? st.st_mode & 07777 : 0644);
    m_fd = fd;
    m_tempPath = pattern;
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
    // A full disk can still show at close (delayed allocation), so both count.
    const int fd = m_fd;
    m_fd = -1;
    if (::close(fd) != 0 || ::rename(m_tempPath.constData(), m_targetPath.constData()) != 0) {
        m_errno = errno;
        ::unlink(m_tempPath.constData());
        m_tempPath.clear();
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
