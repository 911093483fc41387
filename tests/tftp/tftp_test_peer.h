#pragma once

// What both TFTP test executables build datagrams and files with, and the
// hand-made client that checks what real clients cannot show.

#include <QByteArray>
#include <QFile>
#include <QHostAddress>
#include <QNetworkDatagram>
#include <QTest>
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
    // The next datagram within timeoutMs (empty if none), running the event loop and so the server.
    QByteArray next(int timeoutMs = 3000)
    {
        if (!QTest::qWaitFor([this] { return socket.hasPendingDatagrams(); }, timeoutMs))
            return {};
        const QNetworkDatagram d = socket.receiveDatagram();
        peer = quint16(d.senderPort());
        return d.data().isEmpty() ? "<empty datagram>" : d.data();
    }
    bool silent(int ms) { return next(ms).isEmpty(); }
};

} // namespace tftptest
