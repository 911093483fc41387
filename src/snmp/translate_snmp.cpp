#include "snmp/translate_snmp.h"

#include <QStringList>

#include <cmath>

namespace TranslateSNMP {

namespace {

QByteArray &packet()
{
    static QByteArray buffer(packetSize, '\0');
    return buffer;
}

int g_lastMessageLength = 0;

// A byte field that is handed a value it cannot hold keeps 0, as the field
// would after a failed assignment.
quint8 byteOrZero(qint64 value)
{
    return value >= 0 && value <= 255 ? quint8(value) : 0;
}

// Writes fields in order and stops for good at the end of the buffer.
class PacketWriter
{
public:
    bool put(quint8 byte)
    {
        if (m_index >= packetSize)
            m_full = true;
        if (m_full)
            return false;
        packet()[m_index++] = char(byte);
        return true;
    }
    bool put(const QByteArray &bytes)
    {
        for (char c : bytes)
            put(quint8(c));
        return !m_full;
    }
    int index() const { return m_index; }
    bool full() const { return m_full; }

private:
    int m_index = 0;
    bool m_full = false;
};

const QString uptimeKey = QStringLiteral(" 6 1 2 1 1 3 0");
const QString cpuKey = QStringLiteral(" 6 1 4 1 9 9 109 1 1 1 1 5 1");
const QString interfaceCountKey = QStringLiteral(" 6 1 2 1 2 1 0");
// Without the leading space this never equals a built key, so free memory is
// never shown; kept so the table of keys stays whole.
const QString freeMemoryKey = QStringLiteral("6 1 4 1 9 2 1 8");
const QString addressTableKey = QStringLiteral(" 6 1 2 1 3 1 1 1 2 1 129 44 25 1 1");
const QString interfaceTablePrefix = QStringLiteral(" 6 1 2 1 2 2 1");
const QString physicalAddressPrefix = QStringLiteral(" 6 1 2 1 2 2 1 6");

} // namespace

const QByteArray &snmpPacket()
{
    return packet();
}

int lastMessageLength()
{
    return g_lastMessageLength;
}

QByteArray encodeIdentifier(const QString &dotted)
{
    QStringList pieces = dotted.trimmed().split(QLatin1Char('.'));
    if (!pieces.isEmpty() && pieces.last().isEmpty())
        pieces.removeLast();

    QByteArray out(1, char(0x2B));
    for (qsizetype i = 2; i < pieces.size(); ++i) {
        bool ok = false;
        qint64 v = pieces.at(i).trimmed().toLongLong(&ok);
        if (!ok)
            v = 0;
        if (v > 255) {
            // Floating division rounded half to even, as the first byte always was.
            const double high = std::nearbyint(double(v) / 128.0) + 128.0;
            out.append(char(high <= 255.0 ? quint8(high) : 0));
            out.append(char(byteOrZero(v % 128)));
        } else {
            out.append(char(byteOrZero(v)));
        }
    }
    return out;
}

SnmpMessage buildMessage(const QString &community, const QString &identifier, quint8 pduType)
{
    SnmpMessage m;
    m.community = community.trimmed().toLatin1();
    m.communityLength = byteOrZero(m.community.size());
    m.pduTag = pduType;
    m.identifier = encodeIdentifier(identifier);
    m.identifierLength = byteOrZero(m.identifier.size());
    m.bindingLength = byteOrZero(qint64(m.identifierLength) + 4);
    m.bindingListLength = byteOrZero(qint64(m.bindingLength) + 2);
    m.pduLength = byteOrZero(qint64(m.bindingListLength) + 11);
    return m;
}

bool serialise(const SnmpMessage &m)
{
    PacketWriter w;
    w.put(m.messageTag);
    w.put(m.messageLength);
    w.put(m.versionTag);
    w.put(m.versionLength);
    w.put(m.versionValue);
    w.put(m.communityTag);
    w.put(m.communityLength);
    w.put(m.community);
    w.put(m.pduTag);
    w.put(m.pduLength);
    w.put(m.requestIdTag);
    w.put(m.requestIdLength);
    w.put(m.requestIdValue);
    w.put(m.errorStatusTag);
    w.put(m.errorStatusLength);
    w.put(m.errorStatusValue);
    w.put(m.errorIndexTag);
    w.put(m.errorIndexLength);
    w.put(m.errorIndexValue);
    w.put(m.bindingListTag);
    w.put(m.bindingListLength);
    w.put(m.bindingTag);
    w.put(m.bindingLength);
    w.put(m.identifierTag);
    w.put(m.identifierLength);
    w.put(m.identifier);
    const int nullTagIndex = w.index();
    w.put(m.valueTag);
    w.put(m.valueLength);
    if (w.full())
        return false;
    packet()[1] = char(nullTagIndex);
    g_lastMessageLength = nullTagIndex;
    return true;
}

SnmpReply convertSnmp(const QByteArray &d)
{
    SnmpReply reply; // Malformed until the walk reaches what it needs
    const qsizetype size = d.size();
    const auto has = [size](qsizetype i) { return i >= 0 && i < size; };
    const auto at = [&d](qsizetype i) { return int(quint8(d.at(i))); };

    if (!has(2))
        return reply;
    qsizetype pos = 2;
    if (at(0) == 0x30 && (at(1) & 0xF0) == 0x80 && at(2) != 2)
        pos = 2 + (at(1) & 0x0F);

    // Version and community: tag, length, contents.
    for (int i = 0; i < 2; ++i) {
        if (!has(pos + 1))
            return reply;
        pos += 2 + at(pos + 1);
    }
    pos += 2; // into the PDU
    // Request identifier, error status, error index.
    for (int i = 0; i < 3; ++i) {
        if (!has(pos + 1))
            return reply;
        pos += 2 + at(pos + 1);
    }
    pos += 4; // into the binding list and the binding

    if (!has(pos + 1))
        return reply;
    const qsizetype first = pos + 2;
    const qsizetype p = pos + 1 + at(pos + 1); // the identifier's last byte
    if (!has(p))
        return reply;
    for (qsizetype i = first + 1; i <= p; ++i)
        reply.key += QLatin1Char(' ') + QString::number(at(i));

    // Every key but the ignored ones reads the value's length octet.
    const auto valueBytes = [&](qsizetype &length) {
        if (!has(p + 2))
            return false;
        length = at(p + 2);
        return length == 0 || has(p + 2 + length);
    };

    qsizetype length = 0;
    const QString &key = reply.key;
    if (key == uptimeKey) {
        // Anything longer than 8 bytes is no tick count this view can show.
        if (!valueBytes(length) || length > 8)
            return reply;
        double ticks = 0;
        for (qsizetype i = 0; i < length; ++i)
            ticks = ticks * 256.0 + at(p + 3 + i);
        reply.ticks = ticks;
        reply.kind = SnmpReply::Uptime;
    } else if (key == cpuKey) {
        if (!has(p + 2))
            return reply;
        reply.number = at(p + 2); // the length octet, not the load
        reply.kind = SnmpReply::Cpu;
    } else if (key == interfaceCountKey) {
        if (!has(p + 3))
            return reply;
        reply.number = at(p + 3);
        reply.kind = SnmpReply::InterfaceCount;
    } else if (key == freeMemoryKey) {
        if (!has(p + 2))
            return reply;
        reply.number = at(p + 2);
        reply.kind = SnmpReply::FreeMemory;
    } else if (key == addressTableKey) {
        reply.kind = SnmpReply::Ignored;
    } else if (key.startsWith(interfaceTablePrefix)) {
        if (!valueBytes(length))
            return reply;
        reply.value = d.mid(p + 3, length);
        reply.physicalAddress = key.startsWith(physicalAddressPrefix);
        reply.walkPosition = QStringLiteral("1.3") + QString(key).replace(QLatin1Char(' '), QLatin1Char('.'));
        reply.kind = SnmpReply::InterfaceValue;
    } else {
        reply.kind = SnmpReply::Ignored;
    }
    return reply;
}

} // namespace TranslateSNMP
