#pragma once

#include <QByteArray>
#include <QList>

// Builds SNMP version 1 GetResponse datagrams the way an agent would, with
// proper BER sub-identifiers (172 becomes 0x81 0x2C), so the decoder is fed
// what real devices send rather than what our own encoder writes.
namespace test {

inline QByteArray tlv(quint8 tag, const QByteArray &content)
{
    QByteArray out(1, char(tag));
    if (content.size() < 128) {
        out.append(char(content.size()));
    } else {
        out.append(char(0x81));
        out.append(char(content.size()));
    }
    return out + content;
}

inline QByteArray berOid(const QList<quint32> &ids)
{
    QByteArray out(1, char(ids.value(0) * 40 + ids.value(1)));
    for (qsizetype i = 2; i < ids.size(); ++i) {
        quint32 v = ids.at(i);
        QByteArray piece(1, char(v & 0x7F));
        while (v >>= 7)
            piece.prepend(char(0x80 | (v & 0x7F)));
        out += piece;
    }
    return out;
}

struct Response
{
    QByteArray oid; // encoded identifier contents
    quint8 valueTag = 0x05;
    QByteArray value;
    int errorStatus = 0;
    // Outer length as 0x82 HH LL even when short would do. (A 0x81 LL length
    // happens to decode the same on either path, so it proves nothing.)
    bool longForm = false;
};

inline QByteArray response(const Response &r)
{
    const QByteArray binding = tlv(0x30, tlv(0x06, r.oid) + tlv(r.valueTag, r.value));
    const QByteArray pdu = tlv(0xA2,
        tlv(0x02, QByteArray(1, '\x2A')) + tlv(0x02, QByteArray(1, char(r.errorStatus)))
            + tlv(0x02, QByteArray(1, char(r.errorStatus ? 1 : 0))) + tlv(0x30, binding));
    const QByteArray body = tlv(0x02, QByteArray(1, '\0')) + tlv(0x04, "public") + pdu;
    if (r.longForm && body.size() < 256)
        return QByteArray("\x30\x82\x00", 3) + char(body.size()) + body;
    return tlv(0x30, body);
}

} // namespace test
