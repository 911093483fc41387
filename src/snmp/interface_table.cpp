#include "snmp/interface_table.h"

namespace InterfaceTable {

namespace {

QString hexText(const QByteArray &value, bool physicalAddress)
{
    QString text;
    for (char c : value) {
        text += QStringLiteral("%1").arg(uint(quint8(c)), 2, 16, QLatin1Char('0')).toUpper();
        if (physicalAddress)
            text += QLatin1Char('#');
    }
    return text;
}

// The value's hex text read as one number, most significant byte first.
// Counters are read into a floating value so that those above 2^31 show whole.
double bytesToDouble(const QByteArray &value)
{
    double v = 0;
    for (char c : value)
        v = v * 256.0 + quint8(c);
    return v;
}

// The MTU goes into a 32-bit integer: longer values keep their low 32 bits.
qint32 bytesToInt32(const QByteArray &value)
{
    quint32 v = 0;
    for (char c : value)
        v = (v << 8) | quint8(c);
    return qint32(v);
}

QString numberText(double v)
{
    return QString::number(v, 'f', 0);
}

} // namespace

QStringList headers()
{
    return {
        QStringLiteral("Interface"),
        QStringLiteral("Status"),
        QStringLiteral("MTU"),
        QStringLiteral("Speed"),
        QStringLiteral("Mac"),
        QStringLiteral("admin status"),
        QStringLiteral("oper status"),
        QStringLiteral("last change"),
        QStringLiteral("octets in"),
        QStringLiteral("ucast in"),
        QStringLiteral("discards in"),
        QStringLiteral("errors in"),
        QStringLiteral("unknown prot"),
        QStringLiteral("octets out"),
        QStringLiteral("ucast out"),
        QStringLiteral("nucast out"),
        QStringLiteral("discards out"),
        QStringLiteral("errors out"),
        QStringLiteral("out qlength"),
        QStringLiteral("if specific"),
    };
}

Cell converttolist(const QString &key, const QByteArray &value, bool physicalAddress)
{
    Cell cell;
    const QStringList pieces = key.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    // " 6 1 2 1 2 2 1" is seven pieces; the column follows, then the index.
    if (pieces.size() < 8)
        return cell;
    cell.column = pieces.at(7).toInt();
    cell.subItem = cell.column - 2;
    // The index comes back as the agent encoded it: seven bits per byte.
    qint64 row = 0;
    for (qsizetype i = 8; i < pieces.size() && row <= 0xFFFFFFF; ++i)
        row = row * 128 + (pieces.at(i).toInt() & 0x7F);
    cell.row = int(row);

    const QString text = hexText(value, physicalAddress);
    switch (cell.column) {
    case 2:
        cell.text = QString::fromLatin1(value);
        break;
    case 3:
    case 21:
        cell.text = numberText(bytesToDouble(value));
        break;
    case 4:
        cell.text = QString::number(bytesToInt32(value));
        break;
    case 6:
        cell.text = text.size() > 2 ? text.chopped(1) : text;
        break;
    case 7:
        cell.text = text == QLatin1String("01") ? QStringLiteral("Ad up") : QStringLiteral("Ad Down");
        break;
    case 8:
        cell.text = text == QLatin1String("01") ? QStringLiteral("Op up") : QStringLiteral("Op Down");
        break;
    default:
        if (cell.column == 5 || (cell.column >= 9 && cell.column <= 20))
            cell.text = numberText(bytesToDouble(value));
        else
            cell.text = text;
        break;
    }
    return cell;
}

} // namespace InterfaceTable
