#pragma once

#include <QString>

#include <functional>
#include <optional>

// Translates between dotted IPv4 addresses and host names with one blocking
// look-up per call, on the caller's (the user-interface) thread. It keeps no
// state between calls, so an instance may be created per use.
//
// Failures are reported to the user through tw::messageBox, with the texts the
// log view's users know: "Invalid IP address" for text that is not an address
// (255.255.255.255 included, as the classic converter cannot tell it from its
// failure value) and "Call to gethostbyaddr failed." when no name is
// registered. A host name that does not resolve gives an empty result quietly.
// This platform's resolver needs no start or finish step, so the messages tied
// to those never appear.
class clsResolve
{
public:
    // The look-ups themselves: the system's resolver unless replaced (tests put
    // a hosts table in its place, so that no query leaves the machine). Each
    // takes and gives addresses as dotted text.
    struct Lookup
    {
        std::function<std::optional<QString>(const QString &dotted)> nameOf;
        std::function<std::optional<QString>(const QByteArray &name)> addressOf;
    };
    static void setLookup(Lookup lookup);

    // The host name registered for the address, or "".
    QString GetHostNameFromIP(const QString &address) const;
    // The first IPv4 address of the name as dotted text, or "".
    QString GetIPFromHostName(const QString &hostName) const;
};
