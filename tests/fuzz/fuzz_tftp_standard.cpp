// libFuzzer target: the standard TFTP engine fed a stream of datagrams from a
// few senders, over in-memory sockets and with a clock the input moves on, so
// retransmissions and give-ups happen without waiting. Two engines stand for
// the server's two loops: the first hands every other transfer to the second
// at once, which tells it when one ends.
//
// Input: the records of tftp_fuzz.h; time moves on by length x 100 ms and the
// due timers fire.

#include "tftp/standard_engine.h"
#include "tftp_fuzz.h"

#include <QMap>

namespace {

// The standard engine's sockets: handles with ports, datagrams sent into the void.
struct MemoryNet : EngineNet
{
    QMap<int, quint16> ports; // handle -> port, in the order opened
    int next = 3;
    quint16 nextPort = 40000;
    int open(quint32, quint16 port) override
    {
        if (port != 0 && std::find(ports.cbegin(), ports.cend(), port) != ports.cend())
            return -1;
        ports.insert(next, port ? port : nextPort++);
        return next++;
    }
    void close(int socket) override { ports.remove(socket); }
    quint16 localPort(int socket) const override { return ports.value(socket); }
    void send(int, const QByteArray &, quint32, quint16) override { }
    int sendBufferBytes(int) const override { return 212992; }
    QString errorString() const override { return QStringLiteral("in use"); }
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
    engine.setAccessEntries(tftpFuzzAccess());
    engine.setAddress(0, 69);
    engine.setMaxTransfers(4);
    engine.setCapturing(size > 0 && (data[0] & 1));
    engine.setConfine(size > 0 && (data[0] & 2));
    engine.listen();
    const quint32 senders[3] = { 0x0a000001, 0x0a000002, 0x0a000003 };
    const auto tick = [&](uint8_t length) { // by up to 25.5 s
        clock += qint64(length) * 100;
        engine.expire(clock);
        second.expire(clock);
        engine.flush();
        second.flush();
    };
    forEachTftpRecord(
        data, size, tick, [&](int target, const QByteArray &datagram, int sender, quint16 port) {
            int socket = target == 0 ? engine.listenerSocket() : -1, n = 0;
            for (auto it = network.ports.cbegin(); it != network.ports.cend() && socket < 0; ++it)
                if (it.key() != engine.listenerSocket() && ++n == target)
                    socket = it.key();
            if (socket >= 0 && !engine.receive(socket, datagram, senders[sender], port, 0x7f000001))
                second.receive(socket, datagram, senders[sender], port, 0x7f000001);
            if (engine.hasHandOffs())
                engine.handOffAccepted();
        });
    engine.flush();
    second.flush();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    tftpFuzzApplication("fuzz_tftp_standard");
    runStandard(data, size);
    endTftpFuzzInput();
    return 0;
}
