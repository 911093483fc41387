#pragma once

#include <QStringList>

#include <functional>
#include <optional>

// Where a network console connects: the kind ("TCP/IP" raw TCP, or "SSH"),
// the host (dotted address or name), the port (0: the kind's default, the
// Telnet port or 22) and, for SSH, the user name ("" lets ~/.ssh/config or
// the login name decide).
struct ConnectTarget
{
    QString kind = QStringLiteral("TCP/IP");
    QString host;
    quint16 port = 0;
    QString user;

    bool isSsh() const { return kind == QLatin1String("SSH"); }
    // The port actually used: the given one, else the kind's default.
    quint16 effectivePort() const;
    // "Terminal Emulation" unless the history says otherwise: on for SSH.
    bool terminalByDefault() const { return isSsh(); }
    bool operator==(const ConnectTarget &) const = default;
};

// Reads a --connect value: "HOST", "HOST:PORT" (raw TCP) or
// "ssh://[USER@]HOST[:PORT]"; nullopt when it is none of these.
std::optional<ConnectTarget> parseConnectTarget(const QString &text);

// The recently used network connections of the connection dialog, kept in the
// settings store (organisation and application "Tarnwick", group "Settings").
//
// Entry n (0 newest to 5 oldest) keeps its four octets as text under the keys
// "histroy" 5n to 5n+3. Key name and stride are what earlier releases wrote,
// so users keep their history. The fifth key of the stride, 5n+4, holds the
// port when it is not the kind's default; "HistoryKind" n and "HistoryUser" n
// hold the kind and user name of an SSH entry, "HistoryTerminal" n the
// terminal emulation choice when it is not the kind's default. An entry with none of these
// keys (as earlier releases wrote them, and as a raw TCP connection to the
// default port still writes them) is TCP/IP on the default port.
//
// remember() keeps the list most-recent-first without duplicates: a
// connection (octets, kind and port) already held in entries 0 to 4 moves to
// the front, a new one pushes the others down and the sixth entry drops off.
namespace ConnectionHistory {

constexpr int entryCount = 6;

// The four octets of entry n; unreadable or missing keys read as "".
QStringList entry(int n);
// Entry n as a connection target (host: the octets joined by ".").
ConnectTarget target(int n);

void remember(const QStringList &octets);
void remember(const ConnectTarget &target);
// Stores the terminal emulation choice with the entry holding target (octets,
// kind and port), if there is one.
void setTerminalEmulation(const ConnectTarget &target, bool on);
// The choice stored with the entry holding target; nullopt: none stored.
std::optional<bool> terminalEmulation(const ConnectTarget &target);

// The settings key of octet `octet` of entry n ("histroy" followed by 5n + octet).
QString key(int n, int octet);

// The hosts the entries hold (octets joined by "."), without repeats or blanks.
QStringList hosts();
// Whether connecting to host enters it in the history: a name does not (the
// entries are four octet boxes), four dotted parts do.
bool holds(const QString &host);
// Adds a handler called with each host that remember() pushed out of the
// history and that no other entry still holds, so what is kept per entry
// elsewhere (the SNMP tab's settings and passwords) goes with it.
void onHostForgotten(std::function<void(const QString &host)> handler);

} // namespace ConnectionHistory

class ConsoleSession;

// Connects session to host over TCP exactly as OK in the connection dialog
// does: ConnectTCP, then the history update. A host that is not four dotted
// parts (a name) connects without entering the history, whose entries are
// four octet boxes.
void connectTcpRemembered(ConsoleSession *session, const QString &host);
// The same for any network target: raw TCP on its port, or SSH. The console's
// terminal emulation follows the target, else the history entry for it, else
// the kind's default.
void connectRemembered(ConsoleSession *session, const ConnectTarget &target);
