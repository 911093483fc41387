#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

struct variable_list;

// Identifiers and values as our SNMP code holds them, apart from net-snmp's
// own structures, which never leave the session layer.

using Oid = QList<quint32>;

// One value as our code sees it. Integers, counters, gauges and time ticks
// are numbers (bits tells a Counter64 from the 32-bit kinds); strings,
// addresses and opaque values are bytes; noSuchObject, noSuchInstance,
// endOfMibView and NULL are Missing.
struct SnmpValue
{
    enum Kind { Missing, Number, Bytes };
    Oid oid;
    Kind kind = Missing;
    quint64 number = 0;
    int bits = 0;
    QByteArray bytes;
    bool endOfView = false;
};

// Converts one net-snmp variable, checking the length of what it points at
// before reading it (a value shorter than its type needs is Missing).
SnmpValue toSnmpValue(const variable_list *var);

// "1.3.6.1.2.1.2.2.1.10" as an identifier; empty when any piece is not a
// number below 2^32 or there are fewer than two pieces.
Oid parseOid(const QString &dotted);
QString oidText(const Oid &oid);

// The instance of a table column: oid is column.<index> with exactly one more
// piece, index 1 to 2^31 - 1 as IF-MIB allows; nullopt for anything else.
std::optional<int> columnIndex(const Oid &column, const Oid &oid);
