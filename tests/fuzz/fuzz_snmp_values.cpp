// Variables as net-snmp hands them over after a GetBulk walk of the interface
// columns, with any type, any claimed length and any identifier, turned into
// our values, interface readings and two polls' rates. One record per part:
// column number, type, identifier length, identifier pieces (4 bytes each),
// then the value bytes.
#include "fuzz_input.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

#include "snmp/snmp_monitor.h"
#include "snmp/snmp_worker.h"

#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QList<Oid> columns = SnmpTables::interfaceColumns();
    QList<QList<SnmpValue>> values(columns.size());
    for (const QByteArray &part : splitInput(data, size)) {
        if (part.size() < 3)
            continue;
        const int column = quint8(part[0]) % int(columns.size());
        std::vector<oid> name;
        qsizetype at = 3;
        if (quint8(part[2]) & 0x80)
            name.assign(
                columns[column].begin(), columns[column].end()); // under the column, index from the input
        for (int i = 0; i < (part[2] & 0x7F) && at + 4 <= part.size(); ++i, at += 4) {
            quint32 piece;
            std::memcpy(&piece, part.constData() + at, 4);
            name.push_back(piece);
        }
        // An aligned copy of the value bytes, with a claimed length that may be shorter than the type needs.
        std::vector<long> storage(size_t(part.size() - at) / sizeof(long) + 2, 0);
        std::memcpy(storage.data(), part.constData() + at, size_t(part.size() - at));
        variable_list var {};
        var.name = name.data();
        var.name_length = name.size();
        var.type = u_char(part[1]);
        var.val.string = reinterpret_cast<u_char *>(storage.data());
        var.val_len = size_t(part.size() - at);
        const SnmpValue v = toSnmpValue(&var);
        if (v.kind == SnmpValue::Bytes && v.bytes.size() > part.size())
            std::abort();
        values[column].append(v);
        columnIndex(columns[column], v.oid);
    }
    const QList<IfReading> readings = SnmpTables::interfaceReadings(values);
    SnmpMonitor monitor([] { return QString(); });
    PollResult poll;
    poll.ok = poll.hasUptime = true;
    poll.interfaces = readings;
    for (quint32 uptime : { 100u, 600u, 50u }) {
        poll.uptime = uptime;
        monitor.takeResult(poll, 1700000000000 + uptime);
        for (const IfReading &r : readings)
            for (const std::optional<double> &rate : { monitor.inRate(r.index), monitor.outRate(r.index) })
                if (rate && !(*rate >= 0))
                    std::abort();
    }
    monitor.tableCsv();
    return 0;
}
