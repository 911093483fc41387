#pragma once

#include "tftp/datagram_socket.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QStringList>
#include <array>
#include <memory>

class AccessList;
class CaptureSink;
class QTimer;
class TransferMonitor;

// The TFTP server: 30 transfer slots, each a row of the monitor's socket
// table with its own UDP socket (objectName "server") and one-shot slot timer
// ("Timer1"), plus the 10-second refresh timer ("Timer2").
//
// One slot at a time listens on the TFTP port (tag "Null", row "Listen").
// A request that is taken turns that slot into the transfer's slot: the
// transfer gets a fresh socket of its own on an ephemeral port (shown in the
// socket table) and sends only to the requester, while the listening socket
// itself moves to the lowest "ready" slot, so requests already queued on the
// port are not lost. When no slot is ready the listening socket is closed:
// requests then get no answer until a slot is freed and a refresh reopens it.
//
// Every datagram of every slot goes through one handler (tftp_engine.cpp),
// whoever sends it; an ERROR on the listener is shown and holds it like any
// other. The classic profile there: plain octet-mode transfers with 512-byte blocks, driven entirely by the
// client's retransmissions; the server never sends ERROR and never
// retransmits. Requests are judged by CheckAccess; a refused slot drops all
// datagrams until its timer frees it. Files are opened and closed within the
// handling of each datagram, and each datagram (except on "Blocking" slots)
// adds a line with the slot number to the trace file.
//
// Slot endings: a finished download is cleaned at once ("Cleaning", then
// "ready"); a finished upload, a received ERROR or a socket error holds the
// slot ("Blocking") for the hold interval; a refusal winds the slot up after
// the slot timer's current interval. The refresh tick copies ports into the
// socket table, holds a slot whose socket has closed unless it is already
// held or refused (so a held slot is never re-armed, and slots without a
// socket are skipped), and reopens a listener when no row is "Listen". A
// listener that cannot be bound at refresh leaves its row "ready" and is
// retried on the next tick.
//
// setConfine(true) additionally refuses names leaving the folder. A failed
// access decision (a broken access-list row) leaves the slot as it was, gets
// no answer, and is reported once per cause through accessDecisionFailed.
//
// The standard profile has an engine of its own (StandardServer). While it
// is on, setStandardProfile(true) hands it the port: this server closes its
// listener and opens none, and its running transfers finish on their own
// sockets; setStandardProfile(false) takes the port back.
//
// Live progress goes into the "Data sent/Received" column of the request's
// own transfer row, at most about four times a second.
class TftpServer : public QObject
{
    Q_OBJECT
public:
    static constexpr int slotCount = 30;

    TftpServer(TransferMonitor *monitor, AccessList *acl, QObject *parent = nullptr);
    ~TftpServer() override;

    void setPort(quint16 port); // 69 by default
    void setBindAddress(const QHostAddress &address); // AnyIPv4 by default
    void setCaptureSink(CaptureSink *sink);
    // Refuse ("Blocked", silence, slot wound up) any request whose joined
    // path would leave the access row's folder: "..", absolute names, links.
    void setConfine(bool on);
    void setTraceFilePath(const QString &path); // default "bugfix.ini"
    void setIntervals(int holdMs, int refreshMs, int designedSlotMs); // 30000, 10000, 8000
    // Where the slots' sockets come from (real UDP sockets unless set); for the fuzz harness.
    void setSocketFactory(DatagramSocketFactory factory);
    // On: the standard engine has the port, and this server does not listen.
    void setStandardProfile(bool on);
    bool standardProfile() const { return m_standard; }

    // Slot 1 becomes the listener and row 1 reads "Listen" (even when the
    // bind fails: the refresh then holds and later retries that slot),
    // unless the standard profile has the port.
    bool start();
    QString errorString() const;

    // Highest transfer-list row a running transfer may still write to
    // (finished downloads write by slot number, errors by access row); 0 when none runs.
    int highestTransferRowInUse() const;

    // Read-only views of slot state, for the monitor's callers and tests.
    QString slotTag(int slot) const; // "", "Null", "Send", "Check end", "Receive", "Waiting", "Blocking"
    int slotAccessRow(int slot) const;
    int receivedBlocks(int slot) const;
    quint16 slotLocalPort(int slot) const; // 0 without a bound socket
    int listenerSlot() const; // 0 when none listens

    // Slot layer (also driven by the timers).
    void OpenListener();
    void HoldSlot(int slot);
    void CleanSlot(int slot);

Q_SIGNALS:
    // An access decision failed (a broken access-list row, an overflow):
    // said once per distinct cause, for stderr and the status bar.
    void accessDecisionFailed(const QString &text);

private:
    enum class Tag { None, Null, Send, CheckEnd, Receive, Waiting, Blocking };

    struct Slot
    {
        DatagramSocket *socket = nullptr;
        QTimer *timer = nullptr;
        Tag tag = Tag::None;
        QString filePath;
        QByteArray nativePath; // filePath encoded once, reused on every datagram
        int accessRow = 0;
        qint32 receivedBlocks = 0;
        QHostAddress peer;
        quint16 peerPort = 0;
        // The DATA datagram of the block after the one last sent, read (in
        // the same handling, file opened and closed there) once that block is
        // out, so the next ACK is answered before any file is touched.
        QByteArray ahead;
        int aheadBlock = 0; // 0: nothing read ahead
        bool aheadFinal = false;
        // The transfer row CheckAccess added for this request, for progress.
        int transferRow = 0;
        qint64 fileSize = -1;
        qint64 bytesDone = 0;
        QElapsedTimer progressClock;
    };

    // tftp_server.cpp: sockets and slot lifecycle
    DatagramSocket *newSocket();
    bool bindListener(DatagramSocket *socket);
    void readPending(DatagramSocket *socket);
    void socketError(DatagramSocket *socket, int error);
    void slotTimerTick(int slot);
    void refreshTick();
    void windUpRefused(int slot);
    void releaseSocket(Slot &slot);
    int slotOf(const DatagramSocket *socket) const;
    void setSocketColumn(int slot, int column, const QString &text);
    void showPorts(int slot);

    // tftp_engine.cpp: the data-arrival handler
    void handleDatagram(int slot, const QByteArray &datagram, const QHostAddress &sender, quint16 senderPort,
        const QHostAddress &destination);
    void dispatch(int slot, const QByteArray &datagram, const QHostAddress &sender, quint16 senderPort,
        const QHostAddress &destination);
    void handleRequest(int slot, int opcode, const QByteArray &datagram, const QHostAddress &sender,
        quint16 senderPort, const QHostAddress &destination);
    void handleAck(int slot, const QByteArray &datagram);
    void handleData(int slot, const QByteArray &datagram);
    void handleError(int slot, const QByteArray &datagram);
    void takeRequest(int slot, const QHostAddress &sender, quint16 senderPort);
    void sendBlock(int slot, int fd, qint64 offset, qint64 length, int high, int low);
    void readAhead(int slot, int fd, int block);
    void trace(int slot);
    int decideAccess(int slot, bool read, const QString &fileName, const QHostAddress &sender,
        const QHostAddress &destination);
    void showProgress(int slot, bool final);

    TransferMonitor *m_monitor;
    AccessList *m_acl;
    CaptureSink *m_capture = nullptr;
    std::array<Slot, slotCount + 1> m_slots; // index 0 unused: slots count from 1
    QTimer *m_refreshTimer;
    DatagramSocket *m_movingListener = nullptr; // between leaving one slot and joining the next
    QHostAddress m_bindAddress { QHostAddress::AnyIPv4 };
    quint16 m_port = 69;
    bool m_confine = false;
    DatagramSocketFactory m_socketFactory;
    bool m_standard = false;
    bool m_started = false;
    QStringList m_reportedFailures;
    QByteArray m_tracePath { "bugfix.ini" };
    int m_holdMs = 30000;
    int m_designedSlotMs = 8000;
    QString m_errorString;
    QByteArray m_sendBuffer;
    QByteArray m_readBuffer;
    QHostAddress m_sender; // reused by every read: no address allocated per block
    const QHostAddress m_noAddress; // transfer sockets do not report the local address
};
