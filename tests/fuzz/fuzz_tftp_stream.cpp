// libFuzzer target: the classic TFTP server fed a stream of datagrams from a
// few senders, with its sockets replaced by in-memory ones and its timers
// fired on demand, so nothing waits. (The standard engine has its own target,
// fuzz_tftp_standard.cpp, reading the same records.)
//
// Input: the records of tftp_fuzz.h; for time, the length byte picks which
// active timer fires.

#include "tftp/capture_sink.h"
#include "tftp/datagram_socket.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"
#include "tftp_fuzz.h"

#include <QMap>
#include <QNetworkDatagram>
#include <QTimer>

#include <deque>

namespace {

struct MemoryNetwork
{
    QMap<quint16, class MemorySocket *> bound;
    quint16 nextPort = 40000;
};

class MemorySocket : public DatagramSocket
{
public:
    MemorySocket(MemoryNetwork &network, QObject *parent)
        : DatagramSocket(parent)
        , m_network(network)
    { }
    ~MemorySocket() override { close(); }

    bool bind(const QHostAddress &, quint16 port, bool exclusive) override
    {
        if (port == 0)
            port = m_network.nextPort++;
        if (exclusive && m_network.bound.contains(port))
            return false;
        m_network.bound[port] = this;
        m_port = port;
        m_bound = true;
        return true;
    }
    bool isBound() const override { return m_bound; }
    void close() override
    {
        if (m_bound && m_network.bound.value(m_port) == this)
            m_network.bound.remove(m_port);
        m_bound = false;
        m_queue.clear();
    }
    quint16 localPort() const override { return m_bound ? m_port : 0; }
    bool hasPendingDatagrams() const override { return !m_queue.empty(); }
    qint64 readDatagram(char *data, qint64 maxSize, QHostAddress *sender, quint16 *senderPort,
        QHostAddress *destination) override
    {
        if (m_queue.empty())
            return -1;
        const QNetworkDatagram next = m_queue.front();
        m_queue.pop_front();
        const qint64 size = qMin<qint64>(next.data().size(), maxSize);
        memcpy(data, next.data().constData(), size_t(size));
        *sender = next.senderAddress();
        *senderPort = quint16(next.senderPort());
        if (destination)
            *destination = QHostAddress(QHostAddress::LocalHost);
        return size;
    }
    // The senders never read their replies.
    qint64 writeDatagram(const QByteArray &datagram, const QHostAddress &, quint16) override
    {
        return datagram.size();
    }
    QString errorString() const override { return {}; }

    void deliver(const QByteArray &data, const QHostAddress &sender, quint16 senderPort)
    {
        QNetworkDatagram datagram(data);
        datagram.setSender(sender, senderPort);
        m_queue.push_back(datagram);
        emit readyRead();
    }

private:
    MemoryNetwork &m_network;
    quint16 m_port = 0;
    bool m_bound = false;
    std::deque<QNetworkDatagram> m_queue;
};

class Capture : public CaptureSink
{
public:
    bool on = false;
    bool capturing() const override { return on; }
    void CaptureFileName(const QString &) override { }
    void CaptureData(const QByteArray &) override { }
};

void runClassic(const uint8_t *data, size_t size)
{
    resetTftpFuzzFiles();
    MemoryNetwork network;
    TransferMonitor monitor;
    AccessList acl;
    for (const AccessEntry &entry : tftpFuzzAccess())
        acl.appendEntry(entry);
    Capture capture;
    TftpServer server(&monitor, &acl);
    server.setSocketFactory([&network](QObject *parent) { return new MemorySocket(network, parent); });
    server.setPort(69);
    server.setTraceFilePath(tftpFuzzFolder().filePath(QStringLiteral("bugfix.ini")));
    server.setCaptureSink(&capture);
    server.setConfine(size > 0 && (data[0] & 2));
    capture.on = size > 0 && (data[0] & 1);
    server.start();

    const QHostAddress senders[3] = { QHostAddress(QStringLiteral("10.0.0.1")),
        QHostAddress(QStringLiteral("10.0.0.2")), QHostAddress(QStringLiteral("10.0.0.3")) };
    const auto tick = [&](uint8_t length) {
        QList<QTimer *> active;
        for (QTimer *timer : server.findChildren<QTimer *>())
            if (timer->isActive())
                active.append(timer);
        if (!active.isEmpty()) {
            QTimer *timer = active[length % active.size()];
            timer->stop();
            QMetaObject::invokeMethod(timer, "timeout", Qt::DirectConnection);
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    };
    forEachTftpRecord(
        data, size, tick, [&](int target, const QByteArray &datagram, int sender, quint16 port) {
            MemorySocket *socket = target == 0 ? network.bound.value(69) : nullptr;
            int n = 0;
            for (auto it = network.bound.cbegin(); it != network.bound.cend() && !socket; ++it)
                if (it.key() != 69 && ++n == target)
                    socket = it.value();
            if (socket)
                socket->deliver(datagram, senders[sender], port);
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tftpFuzzApplication("fuzz_tftp_stream");
    runClassic(data, size);
    endTftpFuzzInput();
    return 0;
}
