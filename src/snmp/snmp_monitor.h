#pragma once

#include "snmp/snmp_worker.h"

#include <QHash>
#include <QObject>
#include <QStandardItemModel>
#include <QThread>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>

// The v2c and v3 monitor of one console: polls the console's device every
// interval through an SnmpWorker on its own thread, works out rates from the
// counters (CounterRates) and keeps what the tab shows: the figures, the
// interface table and each interface's in/out history of the last hour.
//
// Polls never overlap: a tick that finds the previous poll still out (waiting
// out its time-outs) is skipped. A poll that fails leaves the table as it was
// and shows the reason as the state ("No response from HOST (3 tries)", a v3
// error in words); polling goes on and the next answer clears it.
//
// Destroying the monitor (the console closing) never waits on the device: the
// poll under way gives up at once, and a v3 engine discovery, which net-snmp
// cannot cut short, is left to end on its worker thread, which then deletes
// itself.
class SnmpMonitor : public QObject
{
    Q_OBJECT
public:
    static constexpr int defaultIntervalMs = 5000;
    static constexpr int minimumIntervalMs = 1000;
    static constexpr qint64 historyMs = 60 * 60 * 1000;

    enum TableColumn {
        IndexColumn,
        NameColumn,
        AliasColumn,
        AdminColumn,
        OperColumn,
        SpeedColumn,
        InColumn,
        OutColumn,
        InUseColumn,
        OutUseColumn,
        ErrorsColumn,
        DiscardsColumn,
        TableColumns
    };

    struct Point
    {
        qint64 msecs = 0; // our clock, ms since the epoch
        double inBps = 0;
        double outBps = 0;
    };

    explicit SnmpMonitor(std::function<QString()> deviceAddress, QObject *parent = nullptr);
    ~SnmpMonitor() override;

    // Everything but host and port, which come from the console when polling starts.
    void setTarget(const SnmpTarget &target) { m_settings = target; }
    SnmpTarget target() const { return m_settings; }
    void setIntervalMs(int ms);
    int intervalMs() const { return m_interval.interval(); }

    void start();
    void stop();
    bool isRunning() const { return m_interval.isActive(); }

    QString state() const { return m_state; }
    // net-snmp's error of the last poll, 0 when it succeeded.
    int lastError() const { return m_lastError; }
    QStandardItemModel *table() { return &m_table; }
    // The interface of a table row (0 if none) and its history, oldest first.
    int interfaceAt(int row) const;
    QList<Point> history(int ifIndex) const { return m_tracks.value(ifIndex).history; }
    std::optional<double> inRate(int ifIndex) const { return m_tracks.value(ifIndex).inBps; }
    std::optional<double> outRate(int ifIndex) const { return m_tracks.value(ifIndex).outBps; }

    // The table as shown, and one interface's history, as CSV.
    QString tableCsv() const;
    QString historyCsv(int ifIndex) const;

    // Feeds one poll's result as if it had come from the worker.
    void takeResult(const PollResult &result, qint64 nowMs);

    // Worker threads of this process still running, those of monitors
    // already gone included.
    static int workersRunning();
    // Waits until every worker thread has ended, at most ms milliseconds;
    // true if they all have. Those of monitors already gone end promptly (their
    // waits are cancelled), bar a host name lookup that hangs. Run at program
    // exit, so no thread is still inside net-snmp as the process ends.
    static bool finishWorkers(int ms);

Q_SIGNALS:
    void stateChanged(const QString &text);
    void uptimeTextChanged(const QString &text);
    void cpuTextChanged(const QString &text);
    void freeMemoryTextChanged(const QString &text);
    void interfacesTextChanged(const QString &text);
    void historyChanged(int ifIndex);
    void noConnection();
    void polled(bool ok);
    // To the worker thread.
    void pollRequested(const SnmpTarget &target);

private:
    struct Track
    {
        IfReading last;
        bool hasLast = false;
        std::optional<double> inBps, outBps, errors, discards;
        QList<Point> history;
    };

    void tick();
    void startWorker();
    void setState(const QString &state);
    void updateRow(int row, const IfReading &r, const Track &t);

    std::function<QString()> m_deviceAddress;
    SnmpTarget m_settings;
    SnmpTarget m_polling;
    struct Handoff;
    QThread *m_thread = nullptr;
    SnmpWorker *m_worker = nullptr;
    std::shared_ptr<Handoff> m_handoff;
    QTimer m_interval;
    bool m_busy = false;
    quint32 m_lastUptime = 0;
    bool m_hasUptime = false;
    QHash<int, Track> m_tracks;
    QStandardItemModel m_table;
    QString m_state;
    int m_lastError = 0;
};
