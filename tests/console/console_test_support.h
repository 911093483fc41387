#pragma once

// Real peers for the console tests: a pseudo-terminal pair whose master side
// plays the device on a serial line, and a recorder that rebuilds what the
// terminal shows from the session's signals.

#include "console/console_session.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <fcntl.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

class PtyDevice
{
public:
    PtyDevice()
    {
        char name[128] = {};
        if (openpty(&m_master, &m_slave, name, nullptr, nullptr) == 0) {
            m_path = QString::fromLocal8Bit(name);
            ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
        }
    }
    ~PtyDevice()
    {
        if (m_master >= 0)
            ::close(m_master);
        if (m_slave >= 0)
            ::close(m_slave);
    }
    PtyDevice(const PtyDevice &) = delete;
    PtyDevice &operator=(const PtyDevice &) = delete;

    bool isValid() const { return !m_path.isEmpty(); }
    QString path() const { return m_path; }
    int slaveFd() const { return m_slave; }

    // Everything the console has written so far, accumulated.
    QByteArray received()
    {
        char buffer[4096];
        for (;;) {
            const ssize_t n = ::read(m_master, buffer, sizeof buffer);
            if (n <= 0)
                break;
            m_received.append(buffer, n);
        }
        return m_received;
    }
    void clearReceived()
    {
        received();
        m_received.clear();
    }
    bool write(const QByteArray &bytes)
    {
        return ::write(m_master, bytes.constData(), bytes.size()) == bytes.size();
    }

private:
    int m_master = -1;
    int m_slave = -1;
    QString m_path;
    QByteArray m_received;
};

struct ColouredText
{
    QString text;
    quint32 colour;
};

// Applies the session's terminal signals to a string, as ConsoleBox would.
class TerminalRecorder : public QObject
{
public:
    explicit TerminalRecorder(ConsoleSession *session)
    {
        connect(session, &ConsoleSession::terminalAppend, this, [this](const QString &text, quint32 colour) {
            terminal += text;
            appends.append({ text, colour });
        });
        connect(session, &ConsoleSession::terminalDeleteLast, this, [this] {
            if (terminal.endsWith(QLatin1String("\r\n")))
                terminal.chop(2);
            else
                terminal.chop(1);
        });
        connect(session, &ConsoleSession::terminalCleared, this, [this] { terminal.clear(); });
        connect(session, &ConsoleSession::logAppend, this, [this](const QString &text) { log += text; });
        connect(session, &ConsoleSession::captionChanged, this, [this](const QString &text) {
            caption = text;
            ++captions;
        });
    }

    QString terminal;
    QString log;
    QString caption;
    int captions = 0;
    QList<ColouredText> appends;
};

// Connects session to the device server on 127.0.0.1 and returns the
// device's end of the connection, or nullptr when it never came up.
inline QTcpSocket *acceptDevice(QTcpServer *server, ConsoleSession &session)
{
    ConsoleSession::setTelnetPort(server->serverPort());
    session.ConnectTCP(QStringLiteral("127.0.0.1"));
    if (!server->waitForNewConnection(5000))
        return nullptr;
    QTcpSocket *device = server->nextPendingConnection();
    for (int i = 0; i < 500 && !session.tcpConnected(); ++i)
        QTest::qWait(10);
    return session.tcpConnected() ? device : nullptr;
}
