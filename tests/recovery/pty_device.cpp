#include "pty_device.h"

#include <QSocketNotifier>

#include <cerrno>
#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

PtyDevice::PtyDevice()
{
    char name[256] = {};
    if (openpty(&m_master, &m_slave, name, nullptr, nullptr) != 0) {
        m_master = m_slave = -1;
        return;
    }
    m_slavePath = QString::fromLocal8Bit(name);
    // Raw on both ends, so the bytes arrive exactly as the console wrote them.
    termios raw {};
    tcgetattr(m_slave, &raw);
    cfmakeraw(&raw);
    tcsetattr(m_slave, TCSANOW, &raw);
    fcntl(m_master, F_SETFL, fcntl(m_master, F_GETFL) | O_NONBLOCK);
    // The slave end stays open here too, so the line does not hang up when
    // the console closes its port and opens it again.
    m_clock.start();
    m_notifier = new QSocketNotifier(m_master, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &PtyDevice::readMaster);
}

PtyDevice::~PtyDevice()
{
    delete m_notifier;
    if (m_master >= 0)
        ::close(m_master);
    if (m_slave >= 0)
        ::close(m_slave);
}

QByteArray PtyDevice::received() const
{
    QByteArray all;
    for (const Chunk &chunk : m_chunks)
        all += chunk.bytes;
    return all;
}

void PtyDevice::readMaster()
{
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(m_master, buffer, sizeof buffer);
        if (n <= 0)
            break;
        m_chunks.append({ m_clock.elapsed(), QByteArray(buffer, int(n)) });
    }
}
