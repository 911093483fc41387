#pragma once

#include "access/access_list.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <queue>
#include <unordered_map>
#include <vector>

class StandardTransfer;

// The standard engine's datagram I/O, as small as the engine needs it:
// sockets are small integer handles, addresses IPv4 in host order. The
// program uses the epoll-driven one on the engine's thread (standard_loop.h);
// the fuzz harness and tests put an in-memory one behind the same interface.
class EngineNet
{
public:
    virtual ~EngineNet() = default;
    // A UDP socket bound to address:port (port 0: a fresh ephemeral port);
    // -1 on failure, with errorString() saying why.
    virtual int open(quint32 address, quint16 port) = 0;
    virtual void close(int socket) = 0;
    // A socket that moves to another engine's thread leaves this one's
    // watch (detach) and joins the other's (attach); no-ops where one
    // engine sees every socket.
    virtual void detach(int) { }
    virtual void attach(int) { }
    virtual quint16 localPort(int socket) const = 0;
    virtual void send(int socket, const QByteArray &datagram, quint32 to, quint16 port) = 0;
    // Datagrams back to back, each `segment` bytes but the last; one by one
    // unless the I/O can hand them to the kernel at once.
    virtual void sendSegments(int socket, const QByteArray &datagrams, int segment, quint32 to, quint16 port)
    {
        for (qsizetype at = 0; at < datagrams.size(); at += segment)
            send(socket, datagrams.mid(at, segment), to, port);
    }
    // What the socket's send buffer holds, so a window never overflows it.
    virtual int sendBufferBytes(int socket) const = 0;
    virtual QString errorString() const = 0;
};

// One transfer-list row as the engine sees it: its own number (never reused,
// unlike the list's row numbers), the five columns, and whether a transfer
// still runs in it (a running row is never dropped from the list).
struct StandardRow
{
    quint64 id = 0;
    std::array<QString, 5> columns;
    bool running = false;
};

// The socket table in this profile: row 1 the listener, rows 2 to 30 the
// oldest running transfers; each entry is the row's five columns.
using StandardSocketRows = QList<QStringList>;

// The standard TFTP profile's engine, for a server that a whole lab or a PXE
// fleet talks to. It lives on a thread of its own (StandardServer starts it),
// owns its transfer table and talks to the rest only through signals, which
// the owner connects queued.
//
// One listening socket on the TFTP port is never held, moved or closed while
// the profile is on. Each transfer gets a socket of its own on a fresh
// ephemeral port of the address the request reached, and is driven by a
// StandardTransfer. A refusal, a missing file or a bad request is answered
// with its ERROR from a fresh ephemeral port and costs nothing else. A
// request beyond the transfer limit gets no answer (the client's own
// retransmission retries it); a request repeated by a client whose transfer
// runs is not a second transfer; a finished transfer closes its socket at
// once.
//
// Transfers may run on more than one loop (StandardServer starts them): the
// first engine keeps the listener, the access decision, the duplicate check,
// the limit, the row numbers and the socket table, with a small entry per
// running transfer wherever it runs, and hands a new transfer's socket and
// protocol to the loop that runs the fewest. That loop drives its blocks,
// timers and rows (under the first engine's row numbers) and tells the first
// when it ends. A one-loop engine is the same with nobody to hand to.
//
// Retransmission timers are one queue for all transfers, checked lazily: an
// ACK costs no timer work, and a timer that comes due for a transfer that has
// moved on since is pushed back to where it should be. Monitor rows are
// collected and sent in batches (flush), each running row's progress at most
// about four times a second.
class StandardEngine : public QObject
{
    Q_OBJECT
public:
    static constexpr int socketRows = 30;
    static constexpr int progressMs = 250;

    explicit StandardEngine(EngineNet *net, QObject *parent = nullptr);
    ~StandardEngine() override;

    void setAddress(quint32 address, quint16 port); // AnyIPv4 and 69 by default
    void setMaxTransfers(int limit);
    void setConfine(bool on);
    void setAccessEntries(const QList<AccessEntry> &entries);
    void setCapturing(bool on);
    // Tests: re-send after this many ms instead of the negotiated timeout (0: negotiated).
    void setRetransmitInterval(int ms);

    struct Transfer;
    // The first engine: transfers may also run on loops 1 to count - 1, and
    // handOff(loop, transfer) takes one there (it calls adopt on that loop).
    using HandOff = std::function<void(int loop, std::shared_ptr<Transfer> transfer)>;
    void setLoops(int count, HandOff handOff);
    // Another loop's engine: takes over a handed-off transfer, and reports
    // each of its transfers' ends through `ended` (to transferEnded on the first).
    void setEnded(std::function<void(quint64 serial)> ended);
    void adopt(std::shared_ptr<Transfer> transfer);
    void transferEnded(quint64 serial);
    // Hands off the transfers accepted since the last call, after the rows
    // made so far, so that the list shows a request's row before its progress.
    bool hasHandOffs() const { return !m_outgoing.empty(); }
    void handOffAccepted();
    std::vector<int> transfersPerLoop() const { return m_load; }

    bool listen(); // false with errorString() when the port cannot be bound
    void stopListening(); // running transfers carry on
    bool isListening() const { return m_listener >= 0; }
    QString errorString() const { return m_error; }
    int listenerSocket() const { return m_listener; }
    int runningTransfers() const { return int(m_running.size()); } // on every loop (first engine)

    // One datagram that arrived on `socket`; destination is the local address
    // it was sent to (0 when unknown). False when the socket is closed now.
    bool receive(
        int socket, const QByteArray &datagram, quint32 sender, quint16 senderPort, quint32 destination);

    // The engine's clock in ms; the earliest retransmission due (-1: none); fire those due by `now`.
    qint64 now() const { return m_fakeClock ? m_fakeClock() : m_clock.elapsed(); }
    void setClock(std::function<qint64()> clock) { m_fakeClock = std::move(clock); } // tests, fuzzing
    qint64 nextDeadline() const;
    void expire(qint64 now);

    bool hasUpdates() const
    {
        return !m_pendingRows.empty() || (m_socketsDirty && !m_ended) || !m_progressDue.isEmpty();
    }
    void flush(); // sends what changed since the last flush

Q_SIGNALS:
    void rowsChanged(const QList<StandardRow> &rows); // new rows first appear here, in order
    void socketRowsChanged(const StandardSocketRows &rows);
    void limitReached(const QString &text);
    void accessDecisionFailed(const QString &text);
    // Capture mode: an accepted write's full path, then its blocks.
    void captureFileName(const QString &path);
    void captureData(const QByteArray &data);

private:
    class Capture;
    // What the first engine keeps of each running transfer, wherever it runs.
    struct Entry
    {
        QByteArray request; // to tell a repeated request from a new one
        quint32 peer = 0;
        quint16 peerPort = 0;
        quint16 localPort = 0;
        bool read = true;
        int loop = 0;
    };

    void handleRequest(const QByteArray &datagram, quint32 sender, quint16 senderPort, quint32 destination);
    void handleTransfer(Transfer &transfer, const QByteArray &datagram, quint32 sender, quint16 senderPort);
    int openFrom(quint32 local);
    void refuse(quint32 from, quint32 to, quint16 port, int code, const QByteArray &text);
    void outcome(Transfer &transfer, int outcome, bool advanced);
    void begin(Transfer &transfer);
    void end(Transfer &transfer, const QString &status);
    void emitRows();
    void showProgress(Transfer &transfer, bool final);
    void touch(const StandardRow &row) { m_pendingRows[row.id] = row; }
    int retransmitMs(const Transfer &transfer) const;
    void arm(Transfer &transfer, qint64 at);

    EngineNet *m_net;
    std::unique_ptr<Capture> m_capture;
    AccessList *m_acl;
    QElapsedTimer m_clock;
    std::function<qint64()> m_fakeClock;
    quint32 m_address = 0;
    quint16 m_port = 69;
    int m_listener = -1;
    int m_maxTransfers = 1000;
    bool m_confine = false;
    int m_retransmitMs = 0;
    QString m_error;
    quint64 m_nextRow = 0;
    quint64 m_nextSerial = 0;
    qint64 m_limitSaid = -1; // when the limit was last reported, on the engine clock
    QStringList m_reportedFailures;

    std::unordered_map<int, std::shared_ptr<Transfer>> m_transfers; // run on this loop, by socket
    std::map<quint64, Entry> m_running; // every loop's, by serial: oldest first
    QHash<quint64, quint64> m_byPeer; // (address << 16 | port) of the client -> its latest transfer's serial
    std::vector<int> m_load { 0 }; // running transfers per loop
    HandOff m_handOff;
    std::vector<std::pair<int, std::shared_ptr<Transfer>>> m_outgoing; // accepted, not yet handed off
    std::function<void(quint64)> m_ended; // set on the other loops' engines
    using Due = std::pair<qint64, std::pair<int, quint64>>; // when, (socket, serial)
    std::priority_queue<Due, std::vector<Due>, std::greater<Due>> m_timers;

    std::map<quint64, StandardRow> m_pendingRows;
    QSet<int> m_progressDue; // sockets of transfers whose newest progress is not shown yet
    bool m_socketsDirty = true;
    StandardSocketRows m_shownSockets;
};
