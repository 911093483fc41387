#pragma once

// What both TFTP test executables build datagrams and files with, the hand-made client
// that checks what real clients cannot show, and a server on a free loopback port.

#include "access/access_list.h"
#include "access/mask_display.h"
#include "test_support.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QNetworkDatagram>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QUdpSocket>

namespace tftptest {

template <size_t N> QByteArray bytes(const char (&text)[N])
{
    return QByteArray(text, N - 1);
}
inline QByteArray request(
    int op, const QByteArray &name, const QByteArray &mode = "octet", const QByteArray &options = {})
{
    return QByteArray(1, '\0') + char(op) + name + '\0' + mode + '\0' + options;
}
inline QByteArray packet(int op, int block, const QByteArray &payload = {})
{
    return QByteArray(1, '\0') + char(op) + char((block >> 8) & 0xff) + char(block & 0xff) + payload;
}
inline QByteArray pattern(qint64 size)
{
    QByteArray out(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        out[i] = char((i * 31 + 7 + i / 509) & 0xff);
    return out;
}
inline bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}
inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

struct Client
{
    QUdpSocket socket;
    quint16 peer = 0; // the port the last datagram came from: a transfer's own port
    Client() { socket.bind(QHostAddress::LocalHost, 0); }
    void send(const QByteArray &d, quint16 port) { socket.writeDatagram(d, QHostAddress::LocalHost, port); }
    // The next datagram (empty if none comes within timeoutMs), running the event loop and so the server.
    QByteArray next(int timeoutMs = 30000)
    {
        if (!QTest::qWaitFor([this] { return socket.hasPendingDatagrams(); }, timeoutMs))
            return {};
        const QNetworkDatagram d = socket.receiveDatagram();
        peer = quint16(d.senderPort());
        return d.data().isEmpty() ? "<empty datagram>" : d.data();
    }
    // Nothing has come. Silence is only asserted once the server is known to have handled what was sent
    // (its trace, a row, the answer to a later datagram): its answers leave while it handles a datagram.
    bool quiet() { return !socket.hasPendingDatagrams(); }
};

struct Fixture
{
    QTemporaryDir dir;
    TransferMonitor monitor;
    AccessList acl;
    TftpServer server { &monitor, &acl };
    quint16 port = 0;
    QString folder = dir.filePath("share"), tracePath = dir.filePath("bugfix.ini");

    // Short timer intervals stand in for the 30 s hold, 10 s refresh and 8 s refusal. The server
    // starts with `content` in f.bin unless `start` is false.
    explicit Fixture(const QByteArray &content = {}, bool start = true, int holdMs = 60000,
        int refreshMs = 60000, int refusalMs = 60000, bool standard = false)
    {
        port = tw::test::freeUdpPort();
        QDir().mkpath(folder);
        acl.appendEntry({ "0.0.0.0", maskDisplayForm(0), "yes", "yes", folder, 0 });
        server.setPort(port);
        server.setBindAddress(QHostAddress::LocalHost);
        server.setTraceFilePath(tracePath);
        server.setIntervals(holdMs, refreshMs, refusalMs);
        server.setStandardProfile(standard);
        if (!content.isNull())
            writeFile(path("f.bin"), content);
        if (start && !server.start())
            qFatal("cannot start: %s", qPrintable(server.errorString()));
    }
    QString path(const QString &name) const { return folder + '/' + name; }
    QString socket(int slot, int column = TransferMonitor::SocketStatus) const
    {
        return monitor.socketText(slot, column);
    }
    QString transfer(int row, int column) const { return monitor.transferText(row, column); }
    // The slot's own timer.
    QTimer *slotTimer(int slot)
    {
        for (QTimer *timer : server.findChildren<QTimer *>("Timer1"))
            if (timer->property("slot").toInt() == slot)
                return timer;
        return nullptr;
    }
    // The interval the slot's timer runs with, 0 when it is not running.
    int slotInterval(int slot) { return slotTimer(slot)->isActive() ? slotTimer(slot)->interval() : 0; }
    // True once the trace holds `lines` lines (one per datagram the classic server handled), false if it
    // never does or holds more.
    bool traced(qsizetype lines)
    {
        return QTest::qWaitFor([&] { return readFile(tracePath).count('\n') >= lines; }, 30000)
            && readFile(tracePath).count('\n') == lines;
    }
    // Fetches a whole file whose size is not a multiple of 512.
    QByteArray download(Client &client, const QByteArray &name)
    {
        client.send(request(1, name), port);
        QByteArray got;
        for (int block = 1;; ++block) {
            const QByteArray d = client.next();
            if (d.left(4) != packet(3, block))
                return "<broken at block " + QByteArray::number(block) + ">";
            got += d.mid(4);
            client.send(packet(4, block), client.peer);
            if (d.size() < 516)
                return got;
        }
    }
};

} // namespace tftptest
