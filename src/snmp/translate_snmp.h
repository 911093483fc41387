#pragma once

#include "snmp/snmp_message.h"

#include <QByteArray>
#include <QString>

// The SNMP version 1 codec, with no I/O: the identifier encoder, the
// serialiser into the send buffer and the response decoder.
//
// Requests are written into snmpPacket, one 256-byte buffer shared by every
// console. The whole buffer is the datagram: the bytes after a message are
// whatever an earlier, longer message left there (zeros at first). Agents read
// only as far as the outer length says.
//
// Responses are not matched to requests by request identifier; the decoder
// recognises a response only by the bytes of the object identifier that comes
// back, and examines nothing else (not the version, community, PDU type or
// error status, so a noSuchName answer is shown like a value).
namespace TranslateSNMP {

constexpr int packetSize = 256;

// The shared send buffer, always packetSize bytes.
const QByteArray &snmpPacket();

// The message-length field of the last message serialised.
int lastMessageLength();

// Encodes a dotted identifier such as "1.3.6.1.2.1.1.3.0". The first byte is
// always 0x2B: the first two pieces are not read, every identifier is taken to
// start with 1.3. A trailing dot adds nothing. Pieces up to 255 are one byte
// (so 172 is 0xAC, not 0x81 0x2C); larger ones are two bytes, v / 128 rounded
// half to even plus 128, then v % 128 (so 383 gives 0x83 0x7F). These are the
// limits of this encoder and agents answer in kind; a byte that cannot hold
// its value (pieces of 16384 and more, negative ones) is written as 0.
QByteArray encodeIdentifier(const QString &dotted);

// The request snmpSend sends: community and identifier trimmed, one byte per
// character of the community, lengths filled in for one NULL binding.
SnmpMessage buildMessage(const QString &community, const QString &identifier, quint8 pduType);

// Writes the message into snmpPacket from index 0 and sets byte 1 to the
// message length. A message that does not fit stops at the end of the buffer,
// leaving it partly written with byte 1 as the record had it (0, since only
// the serialiser works the length out); it is still sent. Returns false then.
bool serialise(const SnmpMessage &message);

// What one response datagram asks the statistics view to show.
struct SnmpReply
{
    enum Kind {
        Malformed, // too short for the walk to the value: dropped without a word
        Ignored, // a well-formed answer with a key that is not acted on
        Uptime, // sysUpTime.0: ticks in hundredths of a second
        Cpu, // CPU load: number is the value's length octet
        FreeMemory, // never produced: its key can never be built
        InterfaceCount, // ifNumber.0: number is the first content byte
        InterfaceValue, // a step of the interface-table walk
    };
    Kind kind = Malformed;
    QString key; // " 6 1 2 1 1 3 0": a space and the decimal of each identifier byte after 0x2B
    double ticks = 0;
    int number = 0;
    QString walkPosition; // "1.3" and the key with dots: the identifier of the next GetNext
    QByteArray value; // content bytes of an interface-table value
    bool physicalAddress = false; // the value is from the physical-address column
};

// Decodes one received datagram (one byte per character).
SnmpReply convertSnmp(const QByteArray &datagram);

} // namespace TranslateSNMP
