#include "local_address.h"

#include <QNetworkInterface>

namespace tw {

QList<QNetworkAddressEntry> localIPv4Entries()
{
    QList<QNetworkAddressEntry> entries;
    QList<QNetworkAddressEntry> loopback;
    const auto interfaces = QNetworkInterface::allInterfaces();
    for (const QNetworkInterface &interface : interfaces) {
        const auto flags = interface.flags();
        if (!flags.testFlag(QNetworkInterface::IsUp) || !flags.testFlag(QNetworkInterface::IsRunning))
            continue;
        for (const QNetworkAddressEntry &entry : interface.addressEntries()) {
            if (entry.ip().protocol() != QAbstractSocket::IPv4Protocol)
                continue;
            (entry.ip().isLoopback() ? loopback : entries).append(entry);
        }
    }
    return entries + loopback;
}

QString localAddressFacing(const QString &deviceAddress, const QList<QNetworkAddressEntry> &entries)
{
    if (entries.isEmpty())
        return {};
    QHostAddress device;
    if (device.setAddress(deviceAddress.trimmed()) && device.protocol() == QAbstractSocket::IPv4Protocol) {
        for (const QNetworkAddressEntry &entry : entries) {
            if (entry.prefixLength() >= 0 && device.isInSubnet(entry.ip(), entry.prefixLength()))
                return entry.ip().toString();
        }
    }
    for (const QNetworkAddressEntry &entry : entries) {
        if (!entry.ip().isLoopback())
            return entry.ip().toString();
    }
    return entries.first().ip().toString();
}

} // namespace tw
