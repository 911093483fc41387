#include "snmp/snmp_value.h"

// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
// clang-format on

#include <QStringList>

#include <algorithm>

SnmpValue toSnmpValue(const variable_list *var)
{
    SnmpValue v;
    if (!var)
        return v;
    if (var->name && var->name_length <= MAX_OID_LEN) {
        v.oid.resize(qsizetype(var->name_length));
        std::transform(
            var->name, var->name + var->name_length, v.oid.begin(), [](oid n) { return quint32(n); });
    }
    v.endOfView = var->type == SNMP_ENDOFMIBVIEW;
    const auto has = [var](size_t bytes) { return var->val.string != nullptr && var->val_len >= bytes; };
    switch (var->type) {
    case ASN_INTEGER:
        if (has(sizeof(long))) {
            v.kind = SnmpValue::Number;
            v.number = quint64(qMax(0L, *var->val.integer)); // statuses and speeds: never negative
            v.bits = 32;
        }
        break;
    case ASN_COUNTER:
    case ASN_GAUGE:
    case ASN_TIMETICKS:
    case ASN_UINTEGER:
        if (has(sizeof(long))) {
            v.kind = SnmpValue::Number;
            v.number = quint32(*var->val.integer);
            v.bits = 32;
        }
        break;
    case ASN_COUNTER64:
        if (has(sizeof(counter64))) {
            v.kind = SnmpValue::Number;
            v.number = (quint64(quint32(var->val.counter64->high)) << 32) | quint32(var->val.counter64->low);
            v.bits = 64;
        }
        break;
    case ASN_OCTET_STR:
    case ASN_IPADDRESS:
    case ASN_OPAQUE:
        v.kind = SnmpValue::Bytes;
        if (var->val.string && var->val_len > 0)
            v.bytes = QByteArray(reinterpret_cast<const char *>(var->val.string),
                qsizetype(qMin<size_t>(var->val_len, 65535)));
        break;
    default:
        break;
    }
    return v;
}

Oid parseOid(const QString &dotted)
{
    Oid oid;
    const QStringList pieces = dotted.trimmed().split(QLatin1Char('.'), Qt::SkipEmptyParts);
    for (const QString &piece : pieces) {
        bool ok = false;
        const qulonglong n = piece.toULongLong(&ok);
        if (!ok || n > 0xFFFFFFFFull)
            return {};
        oid.append(quint32(n));
    }
    return oid.size() >= 2 ? oid : Oid();
}

QString oidText(const Oid &oid)
{
    QStringList pieces;
    for (quint32 n : oid)
        pieces << QString::number(n);
    return pieces.join(QLatin1Char('.'));
}

std::optional<int> columnIndex(const Oid &column, const Oid &oid)
{
    if (oid.size() != column.size() + 1 || !std::equal(column.begin(), column.end(), oid.begin()))
        return std::nullopt;
    const quint32 index = oid.last();
    if (index < 1 || index > 0x7FFFFFFF)
        return std::nullopt;
    return int(index);
}
