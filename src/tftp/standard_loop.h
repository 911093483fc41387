#pragma once

#include "tftp/standard_engine.h"

#include <QThread>

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

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
    void detach(int socket) override;
    void attach(int socket) override;
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

// The engine's thread and its loop. It is a plain epoll loop, not Qt's
// event loop: in a lock-step transfer the time between an ACK's arrival and
// the next DATA leaving is the transfer's speed, and here that is one
// epoll_wait, one recvmsg and one sendto (Qt's dispatcher adds a poll and
// its own bookkeeping per wake-up). It reads what epoll reports (a bounded
// number of datagrams per socket and round, so one busy transfer cannot
// starve the others), fires retransmission timers when they are due, and
// flushes monitor updates in batches every flushMs. Calls from other threads
// are queued and the loop is woken through an eventfd in the same epoll set.
class StandardLoop : public QThread
{
public:
    static constexpr int flushMs = 100;
    static constexpr int datagramsPerWakeUp = EpollNet::maxBatch; // on the listener, per round

    StandardLoop();
    ~StandardLoop() override; // stops the thread and closes every socket
    // Stops the thread; work queued after that is dropped. Loops that post to
    // each other are all stopped before any is destroyed.
    void stop();

    // Lives on the loop's thread once it runs; use it from there (post, call).
    StandardEngine *engine() { return m_engine.get(); }
    // Runs `work` on the loop's thread: post returns at once, call once it ran.
    void post(std::function<void(StandardEngine &)> work);
    void call(std::function<void(StandardEngine &)> work);

protected:
    void run() override;

private:
    int timeoutMs(qint64 now) const;
    void runQueued();
    void afterWork(qint64 now);
    // Reads up to count datagrams of socket into the engine; false when none came or it closed the socket.
    bool deliver(int socket, int count);

    EpollNet m_net;
    std::unique_ptr<StandardEngine> m_engine;
    int m_wake = -1; // eventfd: queued work or stop
    std::mutex m_mutex;
    std::vector<std::function<void(StandardEngine &)>> m_queue;
    bool m_stop = false;
    qint64 m_flushAt = -1; // on the engine clock; -1 when nothing waits to be shown
    EpollNet::Datagram m_received[EpollNet::maxBatch];
};
