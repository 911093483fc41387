#pragma once

#include <QByteArray>
#include <QtGlobal>

// One SNMP version 1 request as it goes on the wire: every field of the
// message in wire order, tag, length and value. The encoder is deliberately
// small: every length is one byte (short form only), the request identifier is
// always 1 and the message carries exactly one variable binding whose value is
// NULL. snmpSend fills the lengths of the inner parts; the serialiser fills the
// outer message length.
struct SnmpMessage
{
    static constexpr quint8 getRequest = 0xA0;
    static constexpr quint8 getNextRequest = 0xA1;

    quint8 messageTag = 0x30;
    quint8 messageLength = 0;

    quint8 versionTag = 0x02;
    quint8 versionLength = 1;
    QByteArray versionValue = QByteArray(1, '\0'); // version 1 is sent as 0

    quint8 communityTag = 0x04;
    quint8 communityLength = 0;
    QByteArray community;

    quint8 pduTag = getRequest;
    quint8 pduLength = 0; // binding-list length + 11: three 3-byte integers and the list header

    quint8 requestIdTag = 0x02;
    quint8 requestIdLength = 1;
    QByteArray requestIdValue = QByteArray(1, '\1');

    quint8 errorStatusTag = 0x02;
    quint8 errorStatusLength = 1;
    QByteArray errorStatusValue = QByteArray(1, '\0');

    quint8 errorIndexTag = 0x02;
    quint8 errorIndexLength = 1;
    QByteArray errorIndexValue = QByteArray(1, '\0');

    quint8 bindingListTag = 0x30;
    quint8 bindingListLength = 0; // binding length + 2

    quint8 bindingTag = 0x30;
    quint8 bindingLength = 0; // identifier length + 4: identifier header and the NULL value

    quint8 identifierTag = 0x06;
    quint8 identifierLength = 0;
    QByteArray identifier;

    quint8 valueTag = 0x05;
    quint8 valueLength = 0;
};
