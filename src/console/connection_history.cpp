#include "connection_history.h"

#include "console/console_session.h"

#include <QSettings>
#include <QUrl>

#include <vector>

namespace {
constexpr int stride = 5;
constexpr int octets = 4;
constexpr quint16 sshPort = 22;
const QString sshKind = QStringLiteral("SSH");

QString readKey(QSettings &settings, const QString &name)
{
    const QVariant value = settings.value(name);
    return value.canConvert<QString>() ? value.toString() : QString();
}

QString portKey(int n)
{
    return ConnectionHistory::key(n, octets);
}

QString kindKey(int n)
{
    return QStringLiteral("HistoryKind%1").arg(n);
}

QString terminalKey(int n)
{
    return QStringLiteral("HistoryTerminal%1").arg(n);
}

QString userKey(int n)
{
    return QStringLiteral("HistoryUser%1").arg(n);
}

// Copies a key, or removes the destination when the source has none, so an
// older entry moving down stays an older entry.
void copyKey(QSettings &settings, const QString &from, const QString &to)
{
    if (settings.contains(from))
        settings.setValue(to, readKey(settings, from));
    else
        settings.remove(to);
}

std::optional<quint16> readPort(const QString &text)
{
    bool ok = false;
    const uint value = text.toUInt(&ok);
    if (!ok || value == 0 || value > 65535)
        return std::nullopt;
    return quint16(value);
}
} // namespace

quint16 ConnectTarget::effectivePort() const
{
    if (port != 0)
        return port;
    return isSsh() ? sshPort : ConsoleSession::telnetPort();
}

std::optional<ConnectTarget> parseConnectTarget(const QString &text)
{
    ConnectTarget target;
    if (text.startsWith(QLatin1String("ssh://"), Qt::CaseInsensitive)) {
        const QUrl url(text, QUrl::StrictMode);
        if (!url.isValid() || url.host().isEmpty() || !url.password().isEmpty()
            || !(url.path().isEmpty() || url.path() == QLatin1String("/")))
            return std::nullopt;
        target.kind = sshKind;
        target.host = url.host();
        target.user = url.userName();
        target.port = url.port() > 0 ? quint16(url.port()) : 0;
        return target;
    }
    if (text.isEmpty() || text.contains(QLatin1Char(' ')) || text.contains(QLatin1Char('/')))
        return std::nullopt;
    const QStringList parts = text.split(QLatin1Char(':'));
    if (parts.size() > 2 || parts.first().isEmpty())
        return std::nullopt;
    target.host = parts.first();
    if (parts.size() == 2) {
        const std::optional<quint16> port = readPort(parts.last());
        if (!port)
            return std::nullopt;
        target.port = *port;
    }
    return target;
}

namespace ConnectionHistory {

QString key(int n, int octet)
{
    return QStringLiteral("histroy%1").arg(stride * n + octet);
}

QStringList entry(int n)
{
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(QStringLiteral("Settings"));
    QStringList result;
    for (int i = 0; i < octets; ++i)
        result << readKey(settings, key(n, i));
    return result;
}

ConnectTarget target(int n)
{
    ConnectTarget result;
    result.host = entry(n).join(QLatin1Char('.'));
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(QStringLiteral("Settings"));
    if (readKey(settings, kindKey(n)) == sshKind) {
        result.kind = sshKind;
        result.user = readKey(settings, userKey(n));
    }
    result.port = readPort(readKey(settings, portKey(n))).value_or(0);
    return result;
}

QStringList hosts()
{
    QStringList result;
    for (int n = 0; n < entryCount; ++n) {
        const QString host = entry(n).join(QLatin1Char('.'));
        if (host != QLatin1String("...") && !result.contains(host))
            result << host;
    }
    return result;
}

namespace {
std::vector<std::function<void(const QString &)>> &forgetHandlers()
{
    static std::vector<std::function<void(const QString &)>> handlers;
    return handlers;
}
} // namespace

bool holds(const QString &host)
{
    return host.split(QLatin1Char('.')).size() == octets;
}

void onHostForgotten(std::function<void(const QString &host)> handler)
{
    forgetHandlers().push_back(std::move(handler));
}

void remember(const QStringList &typed)
{
    ConnectTarget plain;
    plain.host = typed.mid(0, octets).join(QLatin1Char('.'));
    remember(plain);
}

namespace {
bool sameConnection(int n, const ConnectTarget &typed)
{
    QStringList address = typed.host.split(QLatin1Char('.')).mid(0, octets);
    while (address.size() < octets)
        address << QString();
    const ConnectTarget held = ConnectionHistory::target(n);
    return ConnectionHistory::entry(n) == address && held.kind == typed.kind
        && held.effectivePort() == typed.effectivePort();
}

std::optional<bool> readTerminal(int n)
{
    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(QStringLiteral("Settings"));
    const QString value = readKey(settings, terminalKey(n));
    if (value != QLatin1String("1") && value != QLatin1String("0"))
        return std::nullopt;
    return value == QLatin1String("1");
}

void writeTerminal(QSettings &settings, int n, const ConnectTarget &target, std::optional<bool> on)
{
    // Only a choice other than the kind's default is written, so entries
    // stay as earlier releases wrote them.
    if (on && *on != target.terminalByDefault())
        settings.setValue(terminalKey(n), QString::number(int(*on)));
    else
        settings.remove(terminalKey(n));
}
} // namespace

void setTerminalEmulation(const ConnectTarget &typed, bool on)
{
    for (int n = 0; n < entryCount; ++n) {
        if (sameConnection(n, typed)) {
            QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
            settings.beginGroup(QStringLiteral("Settings"));
            writeTerminal(settings, n, typed, on);
            return;
        }
    }
}

std::optional<bool> terminalEmulation(const ConnectTarget &typed)
{
    for (int n = 0; n < entryCount; ++n) {
        if (sameConnection(n, typed))
            return readTerminal(n);
    }
    return std::nullopt;
}

void remember(const ConnectTarget &typed)
{
    const QStringList before = hosts();
    QStringList address = typed.host.split(QLatin1Char('.')).mid(0, octets);
    while (address.size() < octets)
        address << QString();

    // Entry 5 is never searched: a match there is treated like a new connection.
    int match = entryCount - 1;
    for (int n = 0; n < entryCount - 1; ++n) {
        if (sameConnection(n, typed)) {
            match = n;
            break;
        }
    }
    std::optional<bool> terminal;
    if (sameConnection(match, typed))
        terminal = readTerminal(match);

    QSettings settings(QStringLiteral("Tarnwick"), QStringLiteral("Tarnwick"));
    settings.beginGroup(QStringLiteral("Settings"));
    if (match != 0) {
        for (int j = match; j >= 1; --j) {
            for (int i = 0; i < octets; ++i)
                settings.setValue(key(j, i), readKey(settings, key(j - 1, i)));
            copyKey(settings, portKey(j - 1), portKey(j));
            copyKey(settings, kindKey(j - 1), kindKey(j));
            copyKey(settings, userKey(j - 1), userKey(j));
            copyKey(settings, terminalKey(j - 1), terminalKey(j));
        }
        for (int i = 0; i < octets; ++i)
            settings.setValue(key(0, i), address.at(i));
    }
    // A raw TCP entry on the default port is written exactly as earlier
    // releases wrote it: four octets and nothing else.
    const quint16 defaultPort = ConnectTarget { typed.kind, {}, 0, {} }.effectivePort();
    if (typed.effectivePort() != defaultPort)
        settings.setValue(portKey(0), QString::number(typed.effectivePort()));
    else
        settings.remove(portKey(0));
    if (typed.isSsh()) {
        settings.setValue(kindKey(0), sshKind);
        settings.setValue(userKey(0), typed.user);
    } else {
        settings.remove(kindKey(0));
        settings.remove(userKey(0));
    }
    writeTerminal(settings, 0, typed, terminal);

    const QStringList after = hosts();
    for (const QString &host : before)
        if (!after.contains(host))
            for (const auto &handler : forgetHandlers())
                handler(host);
}

} // namespace ConnectionHistory

void connectTcpRemembered(ConsoleSession *session, const QString &host)
{
    ConnectTarget target;
    target.host = host;
    connectRemembered(session, target);
}

void connectRemembered(ConsoleSession *session, const ConnectTarget &target)
{
    if (!session)
        return;
    session->setTerminalEmulation(
        ConnectionHistory::terminalEmulation(target).value_or(target.terminalByDefault()));
    if (target.isSsh())
        session->ConnectSSH(target.host, target.port, target.user);
    else if (target.port == 0)
        session->ConnectTCP(target.host);
    else
        session->ConnectTCP(target.host, target.port);
    if (ConnectionHistory::holds(target.host))
        ConnectionHistory::remember(target);
}
