#pragma once

// What the TFTP test executables build datagrams and files with, the hand-made client that checks
// what real clients cannot show, real clients run to their end, and both servers on a free loopback
// port.

#include "access/access_list.h"
#include "access/mask_display.h"
#include "test_support.h"
#include "tftp/standard_server.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QNetworkDatagram>
#include <QProcess>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QUdpSocket>

namespace tftptest {

using TM = TransferMonitor;
using tw::test::writeFile;

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
inline QByteArray error(int code, const QByteArray &text)
{
    return packet(5, code, text + '\0');
}
inline QByteArray pattern(qint64 size)
{
    QByteArray out(size, Qt::Uninitialized);
    for (qint64 i = 0; i < size; ++i)
        out[i] = char((i * 31 + 7 + i / 509) & 0xff);
    return out;
}
// A missing file reads as "<missing>", never as an empty one.
inline QByteArray readFile(const QString &path)
{
    return QFile::exists(path) ? tw::test::readFile(path) : QByteArray("<missing>");
}

// Runs a client program to its end, keeping the event loop (and so the server) going. In `arguments` '|'
// separates the arguments, %P stands for `port`, %L for `local` and %R for f.bin.
inline QByteArray run(
    const QString &program, const QString &arguments, quint16 port, const QString &local, int *exitCode)
{
    QStringList list = arguments.split('|');
    for (QString &argument : list)
        argument.replace("%P", QString::number(port)).replace("%L", local).replace("%R", "f.bin");
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStandardPaths::findExecutable(program), list);
    // A missing client is a failure, never a skip.
    if (!process.waitForStarted())
        return "<" + program.toLatin1() + " not found: install the atftp, curl and tftp-hpa packages>";
    QSignalSpy finished(&process, &QProcess::finished);
    if (process.state() != QProcess::NotRunning && !finished.wait(150000))
        return "<" + program.toLatin1() + " did not finish>";
    *exitCode = process.exitCode();
    return process.readAll();
}

struct Client
{
    QUdpSocket socket;
    quint16 peer = 0; // the port the last datagram came from: a transfer's own port
    explicit Client(const QHostAddress &address = QHostAddress::LocalHost) { socket.bind(address, 0); }
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
    // Sends to `port`, by default the transfer's own, and returns the answer.
    QByteArray ask(const QByteArray &d, quint16 port = 0)
    {
        send(d, port ? port : peer);
        return next();
    }
    // Reads blocks from `first` on, ACKing each, up to a short one: their bytes, or "<broken at block N>".
    QByteArray blocks(int first = 1, int size = 512)
    {
        QByteArray got;
        for (int block = first;; ++block) {
            const QByteArray d = next();
            if (d.left(4) != packet(3, block))
                return "<broken at block " + QByteArray::number(block) + ">";
            got += d.mid(4);
            send(packet(4, block), peer);
            if (d.size() < size + 4)
                return got;
        }
    }
    // Nothing has come. Silence is only asserted once the server is known to have handled what was sent
    // (its trace, a row, the answer to a later datagram): its answers leave while it handles a datagram.
    bool quiet() { return !socket.hasPendingDatagrams(); }
};

// A share folder anyone may read and write, with `content` in f.bin unless it is null.
struct Share
{
    QTemporaryDir dir;
    TransferMonitor monitor;
    AccessList acl;
    quint16 port = tw::test::freeUdpPort();
    QString folder = dir.filePath("share");

    explicit Share(const QByteArray &content)
    {
        QDir().mkpath(folder);
        acl.appendEntry({ "0.0.0.0", maskDisplayForm(0), "yes", "yes", folder, 0 });
        if (!content.isNull())
            writeFile(path("f.bin"), content);
    }
    QString path(const QString &name) const { return folder + '/' + name; }
    QString socket(int slot, int column = TM::SocketStatus) const { return monitor.socketText(slot, column); }
    QString transfer(int row, int column) const { return monitor.transferText(row, column); }
};

// The classic server. Short timer intervals stand in for the 30 s hold, 10 s refresh and 8 s refusal;
// it starts unless `start` is false.
struct Fixture : Share
{
    TftpServer server { &monitor, &acl };
    QString tracePath = dir.filePath("bugfix.ini");

    explicit Fixture(const QByteArray &content = {}, bool start = true, int holdMs = 60000,
        int refreshMs = 60000, int refusalMs = 60000)
        : Share(content)
    {
        server.setPort(port);
        server.setBindAddress(QHostAddress::LocalHost);
        server.setTraceFilePath(tracePath);
        server.setIntervals(holdMs, refreshMs, refusalMs);
        if (start && !server.start())
            qFatal("cannot start: %s", qPrintable(server.errorString()));
    }
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
    // Fetches a whole file.
    QByteArray download(Client &client, const QByteArray &name)
    {
        client.send(request(1, name), port);
        return client.blocks();
    }
};

// The standard profile's engine, which refuses 127.0.0.2 (a device the list bars). Nothing is re-sent
// unasked, however slow the machine: a test that wants re-sends shortens the interval, and one with a
// real client (which may lose a datagram) sets 0, the timeout the client asked for.
struct StandardFixture : Share
{
    StandardServer server { &monitor, &acl, nullptr, 2 }; // two engine loops, whatever the machine

    explicit StandardFixture(const QByteArray &content = {}, int limit = 1000)
        : Share(content)
    {
        acl.appendEntry({ "127.0.0.2", maskDisplayForm(32), "no", "no", folder, 32 });
        server.setPort(port);
        server.setBindAddress(QHostAddress::LocalHost);
        server.setMaxTransfers(limit);
        server.setRetransmitInterval(3600000);
        if (!server.listen())
            qFatal("cannot listen: %s", qPrintable(server.errorString()));
    }
};

} // namespace tftptest
