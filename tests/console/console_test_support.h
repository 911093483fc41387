#pragma once

// Real peers for the console tests: a pseudo-terminal whose master side plays
// the device on a serial line, and a TCP device that accepts the session.

#include "console/console_session.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

struct PtyDevice
{
    int master = -1, slave = -1;
    QString path;
    QByteArray got; // everything the console has written so far
    PtyDevice()
    {
        char name[128] = {};
        if (openpty(&master, &slave, name, nullptr, nullptr) == 0) {
            path = QString::fromLocal8Bit(name);
            ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
        }
    }
    ~PtyDevice() { ::close(master), ::close(slave); }
    QByteArray received()
    {
        char buffer[4096];
        for (ssize_t n; (n = ::read(master, buffer, sizeof buffer)) > 0;)
            got.append(buffer, n);
        return got;
    }
};

// Connects session to server on 127.0.0.1; returns the device's end, or nullptr.
inline QTcpSocket *acceptDevice(QTcpServer *server, ConsoleSession &session)
{
    ConsoleSession::setTelnetPort(server->serverPort());
    session.ConnectTCP(QStringLiteral("127.0.0.1"));
    if (!server->waitForNewConnection(5000))
        return nullptr;
    QTcpSocket *device = server->nextPendingConnection();
    return QTest::qWaitFor([&] { return session.tcpConnected(); }, 5000) ? device : nullptr;
}
