#pragma once

#include "tftp/standard_engine.h"

#include <QObject>

class QSocketNotifier;
class QTimer;

// The standard engine's sockets, as plain non-blocking descriptors in one
// epoll set. The engine's thread watches only the epoll descriptor, so a
// wake-up costs the same with one open transfer as with a thousand (Qt's
// own dispatcher polls every registered socket on every wake-up).
class EpollNet : public EngineNet
{
public:
    EpollNet();
    ~EpollNet() override;

    int epollFd() const { return m_epoll; }
    int open(quint32 address, quint16 port) override;
    void close(int socket) override;
    quint16 localPort(int socket) const override;
    void send(int socket, const QByteArray &datagram, quint32 to, quint16 port) override;
    // UDP GSO (UDP_SEGMENT): one system call for a window; one by one where the kernel refuses it.
    void sendSegments(
        int socket, const QByteArray &datagrams, int segment, quint32 to, quint16 port) override;
    int sendBufferBytes(int socket) const override;
    QString errorString() const override { return m_error; }

    struct Datagram
    {
        QByteArray bytes; // a buffer kept between reads; its first `size` bytes are the datagram
        qint64 size = 0;
        quint32 sender = 0;
        quint16 senderPort = 0;
        quint32 destination = 0; // the local address it was sent to (IP_PKTINFO), 0 when not given
    };
    static constexpr int maxBatch = 16;
    // What is waiting on socket, up to count datagrams, in one recvmmsg; returns how many.
    int readBatch(int socket, Datagram *out, int count);

private:
    int m_epoll;
    bool m_segments = true; // UDP GSO works here, until the kernel says otherwise
    QString m_error;
};

// The engine's event loop side: it lives on the engine's thread, reads what
// epoll reports (a bounded number of datagrams per socket and wake-up, so
// one busy transfer cannot starve the others or the engine's timers), fires
// retransmission timers through one QTimer, and flushes monitor updates in
// batches every flushMs.
class StandardLoop : public QObject
{
    Q_OBJECT
public:
    static constexpr int flushMs = 100;
    static constexpr int datagramsPerWakeUp = EpollNet::maxBatch; // per socket and round
    static constexpr int roundsPerWakeUp = 4;

    explicit StandardLoop(QObject *parent = nullptr);
    ~StandardLoop() override;

    StandardEngine *engine() { return m_engine; }
    // Call after anything that may have changed timers or rows from outside a wake-up.
    void settle();

private:
    void readable();

    EpollNet m_net;
    StandardEngine *m_engine;
    QSocketNotifier *m_notifier;
    QTimer *m_timer;
    QTimer *m_flush;
    EpollNet::Datagram m_received[EpollNet::maxBatch];
};
