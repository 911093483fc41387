#pragma once

// Shared by the TFTP tests: a server on a free loopback port with its own
// folder, access list and trace file, and a hand-made UDP client that reads
// replies while the event loop keeps the in-process server running.

#include "access/access_list.h"
#include "access/mask_display.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QNetworkDatagram>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>
#include <memory>
#include <optional>

namespace tftptest {

inline quint16 freePort()
{
    QUdpSocket probe;
    probe.bind(QHostAddress::LocalHost, 0);
    return probe.localPort();
}

inline QByteArray request(
    int opcode, const QByteArray &name, const QByteArray &mode = "octet", const QByteArray &options = {})
{
    QByteArray out;
    out.append(char(0))
        .append(char(opcode))
        .append(name)
        .append('\0')
        .append(mode)
        .append('\0')
        .append(options);
    return out;
}

inline QByteArray packet(int opcode, int block, const QByteArray &payload = {})
{
    QByteArray out;
    out.append(char(0))
        .append(char(opcode))
        .append(char(block >> 8))
        .append(char(block & 0xff))
        .append(payload);
    return out;
}

inline QByteArray pattern(qint64 size, int seed = 7)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        bytes[i] = char((i * 31 + seed + i / 509) & 0xff);
    return bytes;
}

inline bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

class Client
{
public:
    Client() { m_socket.bind(QHostAddress::LocalHost, 0); }
    void send(const QByteArray &bytes, quint16 port)
    {
        m_socket.writeDatagram(bytes, QHostAddress::LocalHost, port);
    }
    // Next datagram within timeoutMs, running the event loop meanwhile.
    std::optional<QNetworkDatagram> receive(int timeoutMs = 3000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!m_socket.hasPendingDatagrams()) {
            if (timer.elapsed() > timeoutMs)
                return std::nullopt;
            QTest::qWait(1);
        }
        return m_socket.receiveDatagram();
    }
    quint16 port() const { return m_socket.localPort(); }

private:
    QUdpSocket m_socket;
};

struct Fixture
{
    std::unique_ptr<QTemporaryDir> dir = std::make_unique<QTemporaryDir>();
    TransferMonitor monitor;
    AccessList acl;
    std::unique_ptr<TftpServer> server;
    quint16 port = freePort();
    QString folder;
    QString tracePath;

    explicit Fixture(int holdMs = 60000, int refreshMs = 60000, int designedMs = 60000)
    {
        folder = dir->filePath("share");
        QDir().mkpath(folder);
        tracePath = dir->filePath("bugfix.ini");
        acl.appendEntry({ "0.0.0.0", maskDisplayForm(0), "yes", "yes", folder, 0 });
        server = std::make_unique<TftpServer>(&monitor, &acl);
        server->setPort(port);
        server->setBindAddress(QHostAddress::LocalHost);
        server->setTraceFilePath(tracePath);
        server->setIntervals(holdMs, refreshMs, designedMs);
    }
    QString path(const QString &name) const { return folder + QLatin1Char('/') + name; }
    QString socketStatus(int slot) const { return monitor.socketText(slot, TransferMonitor::SocketStatus); }
};

} // namespace tftptest
