#include "snmp/snmp_worker.h"

#include <QMap>

namespace {

// Scalars shown as on the classic tab: uptime, interface count, CPU load and
// free memory (the last two Cisco's, absent on most other agents).
const Oid sysUpTime { 1, 3, 6, 1, 2, 1, 1, 3, 0 };
const Oid ifNumber { 1, 3, 6, 1, 2, 1, 2, 1, 0 };
const Oid cpuLoad { 1, 3, 6, 1, 4, 1, 9, 9, 109, 1, 1, 1, 1, 5, 1 };
const Oid freeMemory { 1, 3, 6, 1, 4, 1, 9, 2, 1, 8, 0 };

Oid ifEntry(quint32 column)
{
    return { 1, 3, 6, 1, 2, 1, 2, 2, 1, column };
}
Oid ifXEntry(quint32 column)
{
    return { 1, 3, 6, 1, 2, 1, 31, 1, 1, 1, column };
}

enum Column {
    Descr,
    Speed,
    Admin,
    Oper,
    InOctets,
    InDiscards,
    InErrors,
    OutOctets,
    OutDiscards,
    OutErrors,
    Name,
    HcInOctets,
    HcOutOctets,
    HighSpeed,
    Alias,
    ColumnCount
};

QString text(const SnmpValue &v)
{
    return v.kind == SnmpValue::Bytes ? QString::fromUtf8(v.bytes).remove(QChar(0)) : QString();
}

} // namespace

QList<Oid> SnmpTables::interfaceColumns()
{
    return { ifEntry(2), ifEntry(5), ifEntry(7), ifEntry(8), ifEntry(10), ifEntry(13), ifEntry(14),
        ifEntry(16), ifEntry(19), ifEntry(20), ifXEntry(1), ifXEntry(6), ifXEntry(10), ifXEntry(15),
        ifXEntry(18) };
}

QList<IfReading> SnmpTables::interfaceReadings(const QList<QList<SnmpValue>> &values)
{
    const QList<Oid> columns = interfaceColumns();
    QMap<int, IfReading> rows;
    QMap<int, int> hc; // HC octet columns seen per interface: both are needed
    for (int c = 0; c < qMin(values.size(), columns.size()); ++c) {
        for (const SnmpValue &v : values[c]) {
            const std::optional<int> index = columnIndex(columns[c], v.oid);
            if (!index)
                continue;
            IfReading &r = rows[*index];
            r.index = *index;
            const bool number = v.kind == SnmpValue::Number;
            switch (c) {
            case Descr:
                r.descr = text(v);
                break;
            case Name:
                r.name = text(v);
                break;
            case Alias:
                r.alias = text(v);
                break;
            case Admin:
                r.admin = number ? int(qMin<quint64>(v.number, 255)) : 0;
                break;
            case Oper:
                r.oper = number ? int(qMin<quint64>(v.number, 255)) : 0;
                break;
            case Speed:
                if (number && r.speedBps == 0)
                    r.speedBps = double(v.number);
                break;
            case HighSpeed:
                if (number && v.number > 0)
                    r.speedBps = double(v.number) * 1e6;
                break;
            case InOctets:
            case OutOctets:
                if (number && r.octetBits == 32) {
                    (c == InOctets ? r.inOctets : r.outOctets) = v.number;
                    r.hasOctets = true;
                }
                break;
            case HcInOctets:
            case HcOutOctets:
                if (number && v.bits == 64 && ++hc[*index] == 2) {
                    r.octetBits = 64;
                    r.hasOctets = true;
                }
                break;
            case InErrors:
                r.inErrors = number ? v.number : 0;
                break;
            case OutErrors:
                r.outErrors = number ? v.number : 0;
                break;
            case InDiscards:
                r.inDiscards = number ? v.number : 0;
                break;
            case OutDiscards:
                r.outDiscards = number ? v.number : 0;
                break;
            default:
                break;
            }
        }
    }
    // The 64-bit octets replace the 32-bit ones only where both directions came.
    for (int c : { HcInOctets, HcOutOctets })
        for (const SnmpValue &v : values.value(c)) {
            const std::optional<int> index = columnIndex(columns[c], v.oid);
            if (index && rows.contains(*index) && rows[*index].octetBits == 64)
                (c == HcInOctets ? rows[*index].inOctets : rows[*index].outOctets) = v.number;
        }
    return rows.values();
}

SnmpWorker::~SnmpWorker() = default;

// An agent drops a request it cannot decrypt without a word, so a wrong
// privacy password looks like a dead agent. Asking once more without privacy
// tells them apart: any answer means the agent is there and knows our
// authentication key, which leaves the privacy password (or protocol).
void SnmpWorker::diagnosePrivacy(const SnmpTarget &target, PollResult &result)
{
    if (!target.needsPriv() || result.errorCode != AgentSession::timeoutError())
        return;
    SnmpTarget probe = target;
    probe.level = SnmpTarget::Level::AuthNoPriv;
    probe.tries = 1;
    AgentSession session(probe, &m_cancel);
    QList<SnmpValue> ignored;
    if (session.get({ sysUpTime }, ignored) || session.answered()) {
        result.errorCode = AgentSession::decryptionError();
        result.error = agentErrorText(result.errorCode, target);
    } else if (credentialFault(session.errorCode()) == CredentialFault::Auth) {
        result.errorCode = session.errorCode();
        result.error = session.error();
    }
}

void SnmpWorker::poll(const SnmpTarget &target)
{
    if (!m_session || !(target == m_target)) {
        m_session = std::make_unique<AgentSession>(target, &m_cancel);
        m_target = target;
    }
    PollResult result;
    QList<SnmpValue> scalars;
    QList<QList<SnmpValue>> columns;
    // The agent's interface count, else the last poll's, tells the walk where
    // the columns are likely to end.
    const auto expectedRows = [&scalars, this] {
        const SnmpValue count = scalars.value(1);
        return count.kind == SnmpValue::Number && count.number > 0 && count.number < 1000000
            ? int(count.number)
            : m_rows;
    };
    if (!m_session->get({ sysUpTime, ifNumber, cpuLoad, freeMemory }, scalars)
        || !m_session->bulkWalk(SnmpTables::interfaceColumns(), bulkRepetitions, columns, expectedRows())) {
        result.error = m_session->error();
        result.errorCode = m_session->errorCode();
        diagnosePrivacy(target, result);
        m_session.reset();
        Q_EMIT polled(result);
        return;
    }
    result.ok = true;
    if (scalars.value(0).kind == SnmpValue::Number) {
        result.uptime = quint32(scalars[0].number);
        result.hasUptime = true;
    }
    if (scalars.value(1).kind == SnmpValue::Number)
        result.ifNumber = int(qMin<quint64>(scalars[1].number, 1000000));
    if (scalars.value(2).kind == SnmpValue::Number)
        result.cpu = QStringLiteral("%1 %").arg(scalars[2].number);
    if (scalars.value(3).kind == SnmpValue::Number)
        result.freeMemory = QString::number(scalars[3].number);
    result.interfaces = SnmpTables::interfaceReadings(columns);
    m_rows = int(result.interfaces.size());
    Q_EMIT polled(result);
}
