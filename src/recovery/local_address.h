#pragma once

#include <QList>
#include <QNetworkAddressEntry>
#include <QString>

// Which of this workstation's addresses a device should use to reach our TFTP
// server. The ROMMON panel offers it as the "TFTP Server" value.
namespace tw {

// The IPv4 addresses of the interfaces that are up and running, loopback
// last (a device on a cable cannot reach 127.0.0.1, but a lab on this very
// machine can).
QList<QNetworkAddressEntry> localIPv4Entries();

// The entry whose network holds deviceAddress (dotted IPv4 text); when none
// does, or deviceAddress is not an address, the first non-loopback entry;
// failing that the first entry; "" for an empty list.
QString localAddressFacing(const QString &deviceAddress, const QList<QNetworkAddressEntry> &entries);

} // namespace tw
