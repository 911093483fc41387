#pragma once

#include <QByteArray>
#include <QString>

#include <fcntl.h>
#include <pty.h>
#include <unistd.h>

// A device on a serial line: the master side of a pseudo-terminal whose slave
// path the console opens.
struct PtyDevice
{
    int master = -1, slave = -1;
    QString path;
    QByteArray got; // everything the console has written so far
    PtyDevice()
    {
        char name[128] = {};
        if (openpty(&master, &slave, name, nullptr, nullptr) == 0)
            path = QString::fromLocal8Bit(name);
        ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    }
    ~PtyDevice() { ::close(master), ::close(slave); }
    PtyDevice(const PtyDevice &) = delete;
    PtyDevice &operator=(const PtyDevice &) = delete;
    QByteArray received()
    {
        char buffer[4096];
        for (ssize_t n; (n = ::read(master, buffer, sizeof buffer)) > 0;)
            got.append(buffer, n);
        return got;
    }
};
