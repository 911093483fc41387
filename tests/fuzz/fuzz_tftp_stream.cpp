// libFuzzer target: the classic TFTP server fed a stream of datagrams from a
// few senders, with its sockets replaced by in-memory ones and its timers
// fired on demand, so nothing waits. (The standard engine has its own target,
// fuzz_tftp_standard.cpp, reading the same records.)
//
// Input: records of [control][length][length bytes].
//   control bits 0-1: the sender (three addresses, two ports each);
//   control bits 2-4: where it goes: 0 the listening port, 1-6 the n-th
//                     transfer socket that is bound, 7 a timer tick (the
//                     length byte picks which active timer fires; no bytes follow).
// The first byte chooses whether capture is on.

#include "access/access_list.h"
#include "access/mask_display.h"
#include "tftp_fuzz_folder.h"
#include "tftp/capture_sink.h"
#include "tftp/datagram_socket.h"
#include "tftp/tftp_server.h"
#include "tftp/transfer_monitor.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QTemporaryDir>
#include <QTimer>

#include <cstdint>
#include <deque>

namespace {

struct MemoryNetwork
{
    QMap<quint16, class MemorySocket *> bound;
    quint16 nextPort = 40000;
    quint64 sentBytes = 0;
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
        const Pending next = m_queue.front();
        m_queue.pop_front();
        const qint64 size = qMin<qint64>(next.data.size(), maxSize);
        memcpy(data, next.data.constData(), size_t(size));
        *sender = next.sender;
        *senderPort = next.senderPort;
        if (destination)
            *destination = QHostAddress(QHostAddress::LocalHost);
        return size;
    }
    qint64 writeDatagram(const QByteArray &datagram, const QHostAddress &, quint16) override
    {
        m_network.sentBytes += quint64(datagram.size()); // the senders never read their replies
        return datagram.size();
    }
    QString errorString() const override { return {}; }

    void deliver(const QByteArray &data, const QHostAddress &sender, quint16 senderPort)
    {
        m_queue.push_back({ data, sender, senderPort });
        emit readyRead();
    }

private:
    struct Pending
    {
        QByteArray data;
        QHostAddress sender;
        quint16 senderPort;
    };
    MemoryNetwork &m_network;
    quint16 m_port = 0;
    bool m_bound = false;
    std::deque<Pending> m_queue;
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
    acl.appendEntry({ QStringLiteral("0.0.0.0"), maskDisplayForm(0), QStringLiteral("yes"),
        QStringLiteral("yes"), tftpFuzzFolder().filePath(QStringLiteral("share")), 0 });
    acl.appendEntry({ QStringLiteral("10.0.0.3"), maskDisplayForm(32), QStringLiteral("no"),
        QStringLiteral("no"), tftpFuzzFolder().filePath(QStringLiteral("share")), 32 });
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
    size_t at = 1;
    while (at + 2 <= size) {
        const uint8_t control = data[at];
        const uint8_t length = data[at + 1];
        at += 2;
        const int target = (control >> 2) & 7;
        if (target == 7) {
            QList<QTimer *> active;
            for (QTimer *timer : server.findChildren<QTimer *>())
                if (timer->isActive())
                    active.append(timer);
            if (!active.isEmpty()) {
                QTimer *timer = active[length % active.size()];
                timer->stop();
                QMetaObject::invokeMethod(timer, "timeout", Qt::DirectConnection);
            }
        } else {
            const QByteArray datagram(
                reinterpret_cast<const char *>(data + at), int(qMin<size_t>(length, size - at)));
            at += size_t(datagram.size());
            MemorySocket *socket = nullptr;
            if (target == 0) {
                socket = network.bound.value(69);
            } else {
                int n = 0;
                for (auto it = network.bound.cbegin(); it != network.bound.cend() && !socket; ++it)
                    if (it.key() != 69 && ++n == target)
                        socket = it.value();
            }
            if (socket)
                socket->deliver(
                    datagram, senders[(control & 3) % 3], quint16(1000 + (control & 3) + (control >> 5)));
        }
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int argc = 1;
    static char name[] = "fuzz_tftp_stream";
    static char *argv[] = { name, nullptr };
    static QCoreApplication app(argc, argv);
    runClassic(data, size);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
