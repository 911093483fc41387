#pragma once

#include "snmp/snmp_agent.h"

#include <QObject>

#include <memory>

// One interface as one poll read it from ifTable and ifXTable. Octets come
// from ifHCInOctets/ifHCOutOctets (octetBits 64) where the agent has them,
// else from the 32-bit ifInOctets/ifOutOctets.
struct IfReading
{
    int index = 0;
    QString descr;
    QString name;
    QString alias;
    int admin = 0;
    int oper = 0;
    double speedBps = 0; // ifHighSpeed × 10^6, else ifSpeed; 0 unknown
    bool hasOctets = false;
    int octetBits = 32;
    quint64 inOctets = 0;
    quint64 outOctets = 0;
    quint64 inErrors = 0;
    quint64 outErrors = 0;
    quint64 inDiscards = 0;
    quint64 outDiscards = 0;
};

// What one poll brought back. uptime is sysUpTime in hundredths of a second.
struct PollResult
{
    bool ok = false;
    QString error;
    int errorCode = 0; // net-snmp's SNMPERR_* when not ok
    quint32 uptime = 0;
    bool hasUptime = false;
    QString cpu;
    QString freeMemory;
    int ifNumber = -1;
    QList<IfReading> interfaces;
};

namespace SnmpTables {
// The ifTable and ifXTable columns one poll walks, in walk order.
QList<Oid> interfaceColumns();
// The interfaces the walked columns describe (values[i] being the instances
// of interfaceColumns()[i]), ordered by ifIndex. Instances whose index does
// not parse are skipped; missing columns leave their field at its default.
QList<IfReading> interfaceReadings(const QList<QList<SnmpValue>> &values);
} // namespace SnmpTables

// Runs on the monitor's worker thread: each poll() opens (or keeps) the
// session, reads the scalars, walks the interface columns with GetBulk and
// reports by polled(), which the monitor receives queued on the UI thread.
// A failed poll drops the session so the next one starts with a fresh engine
// discovery (the agent may have restarted with new boots and keys).
class SnmpWorker : public QObject
{
    Q_OBJECT
public:
    using QObject::QObject;
    ~SnmpWorker() override;

    // GetBulk max-repetitions, shared among the columns walked side by side.
    static constexpr int bulkRepetitions = 150;

    // From any thread: the poll under way gives up at once (bar a v3 engine
    // discovery, which net-snmp waits out) and no other is started.
    void cancel() { m_cancel.cancel(); }

public Q_SLOTS:
    void poll(const SnmpTarget &target);

Q_SIGNALS:
    void polled(const PollResult &result);

private:
    void diagnosePrivacy(const SnmpTarget &target, PollResult &result);

    SnmpCancel m_cancel;
    std::unique_ptr<AgentSession> m_session;
    SnmpTarget m_target;
    int m_rows = 0; // interfaces in the last poll
};

Q_DECLARE_METATYPE(PollResult)
