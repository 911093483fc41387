#pragma once

#include "tftp/standard_engine.h"

#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QPersistentModelIndex>

#include <memory>
#include <vector>

class AccessList;
class CaptureSink;
class StandardLoop;
class TransferMonitor;

// The standard TFTP profile as the rest of the program sees it: it starts
// the engine on a thread of its own (StandardLoop, StandardEngine) and is the
// only place that talks to it. Settings and the access list go there as
// queued calls; rows, the socket table, captured uploads and reports come
// back as queued signals, applied here to the monitor on the UI thread.
//
// Rows are matched by the engine's own row number, kept here as a persistent
// index, so a row keeps receiving its updates when older rows are dropped
// from the list above it.
//
// The engine runs on `loops` threads (StandardLoop), two by default where
// the machine has two cores or more: the first keeps the listener and the
// table of running transfers, and each new transfer runs on the loop with
// the fewest (see StandardEngine). With many clients at once a single
// thread is the limit by the CPU share it gets, not by its cost per block.
//
// listen() and stopListening() wait for the engine's thread to bind or close
// the port, so that switching profiles hands the port over without a gap
// in which both or neither hold it.
class StandardServer : public QObject
{
    Q_OBJECT
public:
    static constexpr int defaultMaxTransfers = 1000;

    static int defaultLoops();
    StandardServer(
        TransferMonitor *monitor, AccessList *acl, QObject *parent = nullptr, int loops = defaultLoops());
    ~StandardServer() override;

    void setPort(quint16 port);
    void setBindAddress(const QHostAddress &address);
    void setConfine(bool on);
    // The limit asked for (--tftp-max-transfers, "TftpMaxTransfers"). Each
    // transfer needs two descriptors (socket and file); when the process may
    // not open that many, the limit is lowered and limitLowered says so.
    void setMaxTransfers(int limit);
    int maxTransfers() const { return m_maxTransfers; }
    void setCaptureSink(CaptureSink *sink);
    void setCapturing(bool on);
    void setRetransmitInterval(int ms); // tests

    bool listen();
    void stopListening();
    bool isListening() const { return m_listening; }
    QString errorString() const { return m_error; }
    quint16 port() const { return m_port; }

    // Returns once the engine has handled every call made before (tests).
    void waitForEngine();
    // Running transfers on each loop, as the first one counts them (tests).
    std::vector<int> transfersPerLoop();
    // Rows of the transfer list whose transfer still runs.
    bool rowRunning(int row) const;

    // Raises the soft RLIMIT_NOFILE to the hard limit; returns the limit now in force.
    static quint64 raiseDescriptorLimit();

Q_SIGNALS:
    void limitReached(const QString &text);
    void limitLowered(const QString &text);
    void accessDecisionFailed(const QString &text);

private:
    void applyRows(const QList<StandardRow> &rows);
    void applySockets(const StandardSocketRows &rows);
    void sendAccessList();
    void onEngine(std::function<void(StandardEngine &)> call);
    void onEveryEngine(const std::function<void(StandardEngine &)> &call);

    TransferMonitor *m_monitor;
    AccessList *m_acl;
    CaptureSink *m_capture = nullptr;
    std::vector<std::unique_ptr<StandardLoop>> m_loops; // the first keeps the listener
    StandardEngine *m_engine; // the first loop's
    QHash<quint64, QPersistentModelIndex> m_rows; // running rows, by the engine's row number
    quint16 m_port = 69;
    QHostAddress m_bindAddress { QHostAddress::AnyIPv4 };
    int m_maxTransfers = defaultMaxTransfers;
    bool m_listening = false;
    QString m_error;
};
