#include "cls_resolve.h"

#include "util/message_box.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// Each byte as a decimal number without padding, in network order.
QString dottedText(const in_addr &address)
{
    const auto *bytes = reinterpret_cast<const unsigned char *>(&address.s_addr);
    return QStringLiteral("%1.%2.%3.%4").arg(bytes[0]).arg(bytes[1]).arg(bytes[2]).arg(bytes[3]);
}

std::optional<QString> systemNameOf(const QString &dotted)
{
    sockaddr_in socketAddress {};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_addr.s_addr = inet_addr(dotted.toLatin1().constData());
    char host[NI_MAXHOST] = {};
    const int rc = getnameinfo(reinterpret_cast<const sockaddr *>(&socketAddress), sizeof socketAddress, host,
        sizeof host, nullptr, 0, NI_NAMEREQD);
    if (rc != 0)
        return std::nullopt;
    return QString::fromLocal8Bit(host);
}

std::optional<QString> systemAddressOf(const QByteArray &name)
{
    addrinfo hints {};
    hints.ai_family = AF_INET;
    addrinfo *result = nullptr;
    if (getaddrinfo(name.constData(), nullptr, &hints, &result) != 0 || !result)
        return std::nullopt;
    std::optional<QString> dotted;
    for (const addrinfo *entry = result; entry; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET && entry->ai_addrlen >= sizeof(sockaddr_in)) {
            dotted = dottedText(reinterpret_cast<const sockaddr_in *>(entry->ai_addr)->sin_addr);
            break;
        }
    }
    freeaddrinfo(result);
    return dotted;
}

clsResolve::Lookup &lookup()
{
    static clsResolve::Lookup current { systemNameOf, systemAddressOf };
    return current;
}

} // namespace

void clsResolve::setLookup(Lookup replacement)
{
    lookup() = Lookup { replacement.nameOf ? replacement.nameOf : systemNameOf,
        replacement.addressOf ? replacement.addressOf : systemAddressOf };
}

QString clsResolve::GetHostNameFromIP(const QString &address) const
{
    // inet_addr rather than inet_pton on purpose: it accepts the same short and
    // octal forms users have always typed, and it fails on 255.255.255.255.
    const QByteArray text = address.toLatin1();
    const in_addr_t value = inet_addr(text.constData());
    if (value == INADDR_NONE || address.contains(QChar(0))) {
        tw::messageBox(QStringLiteral("Invalid IP address"));
        return {};
    }
    in_addr parsed {};
    parsed.s_addr = value;
    const std::optional<QString> name = lookup().nameOf(dottedText(parsed));
    if (!name) {
        tw::messageBox(QStringLiteral("Call to gethostbyaddr failed."));
        return {};
    }
    return *name;
}

QString clsResolve::GetIPFromHostName(const QString &hostName) const
{
    const QByteArray name = hostName.toLocal8Bit();
    if (name.isEmpty() || name.contains('\0'))
        return {};
    return lookup().addressOf(name).value_or(QString());
}
