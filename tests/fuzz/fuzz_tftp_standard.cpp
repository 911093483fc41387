// libFuzzer target: the standard TFTP engine fed a stream of datagrams from a
// few senders, over in-memory sockets and with a clock the input moves on, so
// retransmissions and give-ups happen without waiting. Two engines stand for
// the server's two loops: the first hands every other transfer to the second
// at once, which tells it when one ends.
//
// Input: the records of fuzz_tftp_stream.cpp: [control][length][bytes].
//   control bits 0-1: the sender (three addresses, two ports each);
//   control bits 2-4: where it goes: 0 the listening port, 1-6 the n-th open
//                     transfer socket, 7 the clock moves on by length x 100 ms
//                     (no bytes follow) and due timers fire.
// The first byte: bit 0 capture on, bit 1 --confine.

#include "access/access_list.h"
#include "access/mask_display.h"
#include "tftp/standard_engine.h"
#include "tftp_fuzz_folder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QMap>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdint>

namespace {

// The standard engine's sockets: handles with ports, datagrams sent into the void.
class MemoryNet : public EngineNet
{
public:
    QMap<int, quint16> ports; // handle -> port, in the order opened
    int open(quint32, quint16 port) override
    {
        if (port != 0 && std::find(ports.cbegin(), ports.cend(), port) != ports.cend())
            return -1;
        ports.insert(m_next, port ? port : m_nextPort++);
        return m_next++;
    }
    void close(int socket) override { ports.remove(socket); }
    quint16 localPort(int socket) const override { return ports.value(socket); }
    void send(int, const QByteArray &datagram, quint32, quint16) override
    {
        m_sent += quint64(datagram.size());
    }
    int sendBufferBytes(int) const override { return 212992; }
    QString errorString() const override { return QStringLiteral("in use"); }

private:
    int m_next = 3;
    quint16 m_nextPort = 40000;
    quint64 m_sent = 0;
};

void runStandard(const uint8_t *data, size_t size)
{
    resetTftpFuzzFiles();
    MemoryNet network;
    StandardEngine engine(&network);
    StandardEngine second(&network);
    engine.setLoops(2, [&second](int, std::shared_ptr<StandardEngine::Transfer> t) { second.adopt(t); });
    second.setEnded([&engine](quint64 serial) { engine.transferEnded(serial); });
    qint64 clock = 0;
    engine.setClock([&clock] { return clock; });
    second.setClock([&clock] { return clock; });
    const QString share = tftpFuzzFolder().filePath(QStringLiteral("share"));
    engine.setAccessEntries({ { QStringLiteral("0.0.0.0"), maskDisplayForm(0), QStringLiteral("yes"),
                                  QStringLiteral("yes"), share, 0 },
        { QStringLiteral("10.0.0.3"), maskDisplayForm(32), QStringLiteral("no"), QStringLiteral("no"), share,
            32 } });
    engine.setAddress(0, 69);
    engine.setMaxTransfers(4);
    engine.setCapturing(size > 0 && (data[0] & 1));
    engine.setConfine(size > 0 && (data[0] & 2));
    engine.listen();
    const quint32 senders[3] = { 0x0a000001, 0x0a000002, 0x0a000003 };
    size_t at = 1;
    while (at + 2 <= size) {
        const uint8_t control = data[at];
        const uint8_t length = data[at + 1];
        at += 2;
        const int target = (control >> 2) & 7;
        if (target == 7) { // time moves on by up to 25.5 s and the due timers fire
            clock += qint64(length) * 100;
            engine.expire(clock);
            second.expire(clock);
            engine.flush();
            second.flush();
            continue;
        }
        const QByteArray datagram(
            reinterpret_cast<const char *>(data + at), int(qMin<size_t>(length, size - at)));
        at += size_t(datagram.size());
        int socket = -1;
        if (target == 0) {
            socket = engine.listenerSocket();
        } else {
            int n = 0;
            for (auto it = network.ports.cbegin(); it != network.ports.cend() && socket < 0; ++it)
                if (it.key() != engine.listenerSocket() && ++n == target)
                    socket = it.key();
        }
        const quint32 sender = senders[(control & 3) % 3];
        const quint16 port = quint16(1000 + (control & 3) + (control >> 5));
        if (socket >= 0 && !engine.receive(socket, datagram, sender, port, 0x7f000001))
            second.receive(socket, datagram, sender, port, 0x7f000001);
        if (engine.hasHandOffs())
            engine.handOffAccepted();
    }
    engine.flush();
    second.flush();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static int argc = 1;
    static char name[] = "fuzz_tftp_standard";
    static char *argv[] = { name, nullptr };
    static QCoreApplication app(argc, argv);
    runStandard(data, size);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
