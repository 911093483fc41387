#include "ssh_connection.h"
#include "ssh_connection_p.h"

#include <QTimer>
#include <QUrl>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

// Jump hosts (ProxyJump) of SshConnection. OpenSSH runs "ssh -W" for each
// hop, so a hop's failure reaches the user as some other program's stderr
// and its questions cannot be answered in a window; libssh does the same.
// Here each hop is an SshConnection of its own: it logs in as the target
// does (its host key question, passphrase and password go out through the
// target's signals), then opens a direct-tcpip channel to the next host
// instead of a shell. That channel is relayed on the window's thread to one
// end of a socket pair; the target's session takes the other end as its
// socket, so its handshake is the same as over TCP.

namespace {
// A ProxyJump setting can name a loop (a jump host whose own ProxyJump leads
// back); OpenSSH would start ssh after ssh. Past this many hops it is refused.
constexpr int maxHops = 10;

struct Hop
{
    QString text; // as written, for the hops before the last
    QString user;
    QString host;
    quint16 port = 0;
};

// "[user@]host[:port]" or "ssh://[user@]host[:port]", comma-separated; an
// IPv6 address in brackets. Empty when any part is not understood.
QList<Hop> parseHops(const QString &setting)
{
    QList<Hop> hops;
    for (const QString &word : setting.split(QLatin1Char(','))) {
        Hop hop;
        hop.text = word.trimmed();
        QString rest = hop.text;
        if (rest.startsWith(QLatin1String("ssh://"))) {
            const QUrl url(rest, QUrl::StrictMode);
            if (!url.isValid() || url.host().isEmpty() || !url.path().isEmpty())
                return {};
            hop.user = url.userName();
            hop.host = url.host();
            hop.port = quint16(qMax(0, url.port(0)));
            hops << hop;
            continue;
        }
        const qsizetype at = rest.lastIndexOf(QLatin1Char('@'));
        if (at >= 0) {
            hop.user = rest.left(at);
            rest = rest.mid(at + 1);
        }
        qsizetype colon = rest.lastIndexOf(QLatin1Char(':'));
        if (rest.startsWith(QLatin1Char('['))) {
            const qsizetype close = rest.indexOf(QLatin1Char(']'));
            if (close < 0 || (close + 1 < rest.size() && rest.at(close + 1) != QLatin1Char(':')))
                return {};
            colon = close + 1 < rest.size() ? close + 1 : -1;
            hop.host = rest.mid(1, close - 1);
        } else {
            if (rest.indexOf(QLatin1Char(':')) != colon)
                return {}; // an IPv6 address needs its brackets
            hop.host = colon < 0 ? rest : rest.left(colon);
        }
        if (colon >= 0) {
            bool ok = false;
            const uint port = rest.mid(colon + 1).toUInt(&ok);
            if (!ok || port == 0 || port > 65535)
                return {};
            hop.port = quint16(port);
        }
        if (hop.host.isEmpty() || hop.host.contains(QLatin1Char(' ')) || (at >= 0 && hop.user.isEmpty()))
            return {};
        hops << hop;
    }
    return hops;
}
} // namespace

// Starts the connection to the last jump host (itself through the ones
// before it); false when the setting is refused.
bool SshConnection::startJump(const QString &setting)
{
    const QList<Hop> hops = parseHops(setting);
    if (hops.isEmpty()) {
        fail(QStringLiteral("ProxyJump %1 for %2 is not a list of [user@]host[:port]").arg(setting, d->host));
        return false;
    }
    int depth = hops.size();
    for (const SshConnection *outer = m_outer; outer; outer = outer->m_outer)
        ++depth;
    if (depth > maxHops) {
        fail(QStringLiteral("more than %1 jump hosts on the way to %2: does a ProxyJump lead back?")
                 .arg(maxHops)
                 .arg(d->host));
        return false;
    }
    // Where the jump host connects: the target as ~/.ssh/config names it.
    const auto [target, port] = endpoint();

    auto *jump = new SshConnection(this);
    jump->m_outer = this;
    jump->m_forwardHost = target;
    jump->m_forwardPort = port;
    QStringList before;
    for (qsizetype i = 0; i + 1 < hops.size(); ++i)
        before << hops[i].text;
    jump->m_jumpVia = before.join(QLatin1Char(','));
    jump->m_agentTimeout = m_agentTimeout;
    jump->setHandshakeTimeout(m_handshakeTimeout);
    // The jump host's questions are the user's as the target's are; they
    // name the jump host themselves.
    connect(jump, &SshConnection::hostKeyQuestion, this, &SshConnection::hostKeyQuestion);
    connect(jump, &SshConnection::secretsRequested, this, &SshConnection::secretsRequested);
    connect(jump, &SshConnection::notice, this, &SshConnection::notice);
    connect(jump, &SshConnection::opened, this, &SshConnection::onJumpOpened);
    connect(jump, &SshConnection::received, this, [this](const QByteArray &bytes) {
        d->tunnelOut += bytes;
        flushTunnel();
    });
    connect(jump, &SshConnection::failed, this,
        [this](const QString &message, bool timedOut) { fail(message, timedOut, true); });
    // The channel ended: the target's end of the line closed; the session
    // reads that as it would over TCP.
    connect(jump, &SshConnection::closed, this, [this] {
        d->tunnelEnded = true;
        flushTunnel();
    });
    connect(jump, &SshConnection::lost, this, &SshConnection::onJumpEnded);
    d->jump = jump;
    d->stage = Stage::Jumping;
    // libssh turned ProxyJump into an "ssh -W" command of its own.
    ssh_options_set(d->session, SSH_OPTIONS_PROXYCOMMAND, "none");
    const Hop &last = hops.last();
    jump->open(last.host, last.port, last.user);
    return true;
}

void SshConnection::onJumpOpened()
{
    if (d->stage != Stage::Jumping)
        return;
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair) != 0)
        return fail(QStringLiteral("cannot connect to %1: %2")
                        .arg(d->host, QString::fromLocal8Bit(std::strerror(errno))));
    const socket_t fd = pair[0];
    ssh_options_set(d->session, SSH_OPTIONS_FD, &fd); // libssh closes it from now on
    d->tunnelFd = pair[1];
    d->tunnelRead = new QSocketNotifier(d->tunnelFd, QSocketNotifier::Read, this);
    d->tunnelWrite = new QSocketNotifier(d->tunnelFd, QSocketNotifier::Write, this);
    d->tunnelWrite->setEnabled(false);
    connect(d->tunnelRead, &QSocketNotifier::activated, this, &SshConnection::readTunnel);
    connect(d->tunnelWrite, &QSocketNotifier::activated, this, &SshConnection::flushTunnel);
    flushTunnel(); // what the target sent already
    d->stage = Stage::Connecting;
    m_handshakeTimer->start();
    step();
}

// The jump host's connection died under the target's.
void SshConnection::onJumpEnded(const QString &message)
{
    if (d->stage != Stage::Open)
        return fail(message, false, true);
    endSession();
    // A jump host's own hop passes the message on as it is: it names the hop.
    Q_EMIT lost(m_outer ? message : QStringLiteral("Connection to %1 lost: %2").arg(d->host, message));
}

// What the session wrote goes down the jump host's channel.
void SshConnection::readTunnel()
{
    char buffer[16384];
    for (;;) {
        const ssize_t n = ::read(d->tunnelFd, buffer, sizeof buffer);
        if (n > 0 && d->jump) {
            d->jump->write(QByteArray(buffer, int(n)));
            continue;
        }
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
            d->tunnelRead->setEnabled(false); // the session let go of its socket
        if (n < 0 && errno == EINTR)
            continue;
        return;
    }
}

// What the jump host's channel brought goes to the session's socket.
void SshConnection::flushTunnel()
{
    if (d->tunnelFd < 0)
        return; // kept until the socket pair exists
    while (!d->tunnelOut.isEmpty()) {
        const ssize_t n
            = ::send(d->tunnelFd, d->tunnelOut.constData(), size_t(d->tunnelOut.size()), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
            d->tunnelOut.clear(); // the session let go of its socket
        if (n <= 0)
            break;
        d->tunnelOut.remove(0, n);
    }
    d->tunnelWrite->setEnabled(!d->tunnelOut.isEmpty());
    if (d->tunnelOut.isEmpty() && d->tunnelEnded)
        ::shutdown(d->tunnelFd, SHUT_WR);
}

void SshConnection::endJump()
{
    if (d->jump) {
        // Possibly inside one of its signals: it goes once that returns.
        d->jump->disconnect(this);
        d->jump->close();
        d->jump->deleteLater();
        d->jump = nullptr;
    }
    for (QSocketNotifier *notifier : { d->tunnelRead, d->tunnelWrite }) {
        if (notifier) {
            notifier->setEnabled(false);
            notifier->deleteLater();
        }
    }
    d->tunnelRead = d->tunnelWrite = nullptr;
    if (d->tunnelFd >= 0)
        ::close(d->tunnelFd);
    d->tunnelFd = -1;
    d->tunnelOut.clear();
    d->tunnelEnded = false;
}
