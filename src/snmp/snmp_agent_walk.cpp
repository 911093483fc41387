// Reading values: GET and the GetBulk walk of table columns.
#include "snmp/snmp_agent.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

#include <algorithm>

namespace {
void addNull(netsnmp_pdu *pdu, const Oid &name)
{
    oid id[MAX_OID_LEN];
    const size_t length = qMin<size_t>(size_t(name.size()), MAX_OID_LEN);
    std::copy_n(name.begin(), length, id);
    snmp_add_null_var(pdu, id, length);
}
} // namespace

bool AgentSession::get(const QList<Oid> &oids, QList<SnmpValue> &values)
{
    values.clear();
    if (!m_session && !open())
        return false;
    netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_GET);
    for (const Oid &o : oids)
        addNull(pdu, o);
    const bool ok = request(pdu, [&values](const snmp_pdu *reply) {
        for (const variable_list *v = reply->variables; v; v = v->next_variable)
            values.append(toSnmpValue(v));
    });
    if (!ok)
        return false;
    while (values.size() < oids.size())
        values.append(SnmpValue());
    return true;
}

// The columns are walked in two chains of requests, each on its own share of
// the columns and each sent as soon as its previous answer is in, so the
// agent has the other chain's request to work on while we read an answer
// and while a request or an answer is on its way.
bool AgentSession::bulkWalk(
    const QList<Oid> &columns, int maxRepetitions, QList<QList<SnmpValue>> &values, int expectedRows)
{
    values = QList<QList<SnmpValue>>(columns.size());
    if (!m_session && !open())
        return false;
    m_answered = false;
    QList<Oid> cursor = columns;
    // An agent that never leaves a column would keep us here for ever.
    constexpr int instanceLimit = 100000;
    int instances = 0;
    struct Chain
    {
        QList<int> active; // the columns still being walked
        QList<bool> done;
        bool any = false;
        bool out = false; // a request is out
        Take take;
    };
    Chain chains[walkChains];
    for (int c = 0; c < columns.size(); ++c)
        chains[c * walkChains / columns.size()].active.append(c);
    for (Chain &chain : chains) {
        // One answer: its values come column by column, round after round.
        chain.take = [&, ch = &chain](const snmp_pdu *reply) {
            int n = 0;
            for (const variable_list *v = reply->variables; v; v = v->next_variable, ++n) {
                const int slot = n % int(ch->active.size());
                if (ch->done[slot])
                    continue;
                const int c = ch->active[slot];
                SnmpValue value = toSnmpValue(v);
                const Oid &column = columns[c];
                const bool inside = !value.endOfView && value.oid.size() > column.size()
                    && std::equal(column.begin(), column.end(), value.oid.begin());
                // Identifiers must grow, or the agent is going round in circles.
                if (!inside || !(cursor[c] < value.oid)) {
                    ch->done[slot] = true;
                    continue;
                }
                cursor[c] = value.oid;
                values[c].append(std::move(value));
                ch->any = true;
                ++instances;
            }
        };
    }
    const auto next = [&](int k) {
        Chain &chain = chains[k];
        netsnmp_pdu *pdu = snmp_pdu_create(SNMP_MSG_GETBULK);
        pdu->non_repeaters = 0;
        const int share = qMax(1, maxRepetitions / int(chain.active.size()));
        int wanted = expectedRows > 0 ? 1 : share;
        for (int c : std::as_const(chain.active)) {
            const int left = expectedRows - int(values[c].size());
            wanted = qMax(wanted, left >= 0 ? left + 1 : share);
        }
        pdu->max_repetitions = qMin(wanted, share);
        for (int c : std::as_const(chain.active))
            addNull(pdu, cursor[c]);
        chain.done.fill(false, chain.active.size());
        chain.any = false;
        chain.out = send(pdu, chain.take, m_waits[k]);
        return chain.out;
    };
    for (int k = 0; k < walkChains; ++k) {
        if (!chains[k].active.isEmpty() && !next(k)) {
            if (m_waits[k].error)
                finish(m_waits[k]);
            abandon();
            return false;
        }
    }
    for (;;) {
        bool out = false;
        for (const Chain &chain : chains)
            out = out || chain.out;
        if (!out)
            return true;
        pump([&] {
            for (int k = 0; k < walkChains; ++k)
                if (chains[k].out && !m_waits[k].waiting)
                    return true;
            return false;
        });
        for (int k = 0; k < walkChains; ++k) {
            Chain &chain = chains[k];
            if (!chain.out || m_waits[k].waiting)
                continue;
            chain.out = false;
            if (!finish(m_waits[k])) {
                abandon();
                return false;
            }
            QList<int> still;
            for (int slot = 0; slot < chain.active.size(); ++slot)
                if (!chain.done[slot] && chain.any)
                    still.append(chain.active[slot]);
            chain.active = still;
            if (!chain.active.isEmpty() && instances < instanceLimit && !next(k)) {
                if (m_waits[k].error)
                    finish(m_waits[k]);
                abandon();
                return false;
            }
        }
    }
}
