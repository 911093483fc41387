#include "ssh_connection.h"
#include "ssh_connection_p.h"

#include "console/ssh_agent_auth.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QRegularExpression>
#include <QSocketNotifier>
#include <QTimer>

#include <libssh/libssh.h>
#include <libssh/server.h> // ssh_send_keepalive, which clients use too

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

bool SshConnection::s_interactive = true;

SshConnection::SshConnection(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<State>())
    , m_handshakeTimer(new QTimer(this))
    , m_keepAliveTimer(new QTimer(this))
{
    m_handshakeTimer->setSingleShot(true);
    m_handshakeTimer->setInterval(m_handshakeTimeout);
    connect(m_handshakeTimer, &QTimer::timeout, this, [this] {
        if (m_outer && d->stage <= Stage::TcpConnecting)
            return fail(QStringLiteral("cannot reach %1: no answer").arg(d->host), true, true);
        fail(QStringLiteral("no answer from %1").arg(d->host), true);
    });
    m_keepAliveTimer->setSingleShot(true);
    connect(m_keepAliveTimer, &QTimer::timeout, this, &SshConnection::sendKeepAlive);
    resetAgentAuth();
}

void SshConnection::resetAgentAuth()
{
    m_agentAuth = new SshAgentAuth(this);
    connect(m_agentAuth, &SshAgentAuth::finished, this, &SshConnection::onAgentFinished);
}

void SshConnection::onAgentFinished(int rc, bool timedOut)
{
    if (d->stage != Stage::WaitAgent)
        return;
    d->agentKeys = m_agentAuth->listedKeys();
    if (timedOut)
        tell(QStringLiteral("SSH agent did not answer; trying other methods"));
    d->stage = rc == SSH_AUTH_SUCCESS ? Stage::OpenChannel : Stage::AuthKeys;
    step();
}

SshConnection::~SshConnection()
{
    endSession();
}

void SshConnection::setInteractive(bool interactive)
{
    s_interactive = interactive;
}

void SshConnection::setHandshakeTimeout(int milliseconds)
{
    m_handshakeTimeout = milliseconds;
    m_handshakeTimer->setInterval(milliseconds);
}

bool SshConnection::isOpen() const
{
    return d->stage == Stage::Open && d->channel && ssh_channel_is_open(d->channel)
        && !ssh_channel_is_eof(d->channel);
}

bool SshConnection::isActive() const
{
    return d->session != nullptr;
}

void SshConnection::open(const QString &host, quint16 port, const QString &user)
{
    endSession();
    d->host = host;
    d->session = ssh_new();
    if (!d->session)
        return fail(QStringLiteral("out of memory"));
    const QByteArray hostBytes = host.toUtf8();
    const QByteArray dirBytes = QFile::encodeName(sshDir());
    ssh_options_set(d->session, SSH_OPTIONS_HOST, hostBytes.constData());
    ssh_options_set(d->session, SSH_OPTIONS_SSH_DIR, dirBytes.constData());
    // $HOME/.ssh/config (through the folder set above), then the system's.
    if (ssh_options_parse_config(d->session, nullptr) != SSH_OK)
        return fail(QStringLiteral("cannot read %1/config: %2").arg(sshDir(), libsshError()));
    d->config = SshConfig::forHost(host);
    // libssh reads algorithm lists literally; "+alg", "-alg" and "^alg" are
    // applied here to its defaults, as OpenSSH applies them to its own.
    struct Kind
    {
        const char *keyword;
        ssh_options_e options[2];
        const char *defaults;
    };
    static const Kind kinds[] = {
        { "kexalgorithms", { SSH_OPTIONS_KEY_EXCHANGE, SSH_OPTIONS_KEY_EXCHANGE }, libsshDefaultKex },
        { "hostkeyalgorithms", { SSH_OPTIONS_HOSTKEYS, SSH_OPTIONS_HOSTKEYS }, libsshDefaultHostKeys },
        { "ciphers", { SSH_OPTIONS_CIPHERS_C_S, SSH_OPTIONS_CIPHERS_S_C }, libsshDefaultCiphers },
        { "macs", { SSH_OPTIONS_HMAC_C_S, SSH_OPTIONS_HMAC_S_C }, libsshDefaultMacs },
    };
    for (const Kind &kind : kinds) {
        const QString setting = d->config.value(QLatin1String(kind.keyword));
        if (setting.isEmpty())
            continue;
        const QByteArray list
            = SshConfig::resolveAlgorithms(setting, QLatin1String(kind.defaults)).toLatin1();
        for (ssh_options_e option : kind.options) {
            if (ssh_options_set(d->session, option, list.constData()) != SSH_OK)
                return fail(QStringLiteral("%1 %2 in %3/config: %4")
                                .arg(QLatin1String(kind.keyword), setting, sshDir(), libsshError()));
        }
    }
    if (d->config.has(QStringLiteral("requiredrsasize"))) {
        const int bits = requiredRsaBits(d->config);
        ssh_options_set(d->session, SSH_OPTIONS_RSA_MIN_SIZE, &bits);
        const int asked = d->config.number(QStringLiteral("requiredrsasize"), bits);
        if (asked != 0 && asked < bits)
            tell(QStringLiteral("RequiredRSASize %1 for %2: RSA keys under %3 bits are never accepted")
                     .arg(d->config.value(QStringLiteral("requiredrsasize")), host)
                     .arg(bits));
        if (bits < 1024)
            tell(QStringLiteral("WARNING: RSA keys of %1 bits and more are accepted for %2 "
                                "(RequiredRSASize); keys under 1024 bits are weak")
                     .arg(bits)
                     .arg(host));
    }
    const int connectTimeout = d->config.number(QStringLiteral("connecttimeout"), 0);
    m_handshakeTimer->setInterval(connectTimeout > 0 ? connectTimeout * 1000 : m_handshakeTimeout);
    if (port != 0) {
        const unsigned int portValue = port;
        ssh_options_set(d->session, SSH_OPTIONS_PORT, &portValue);
    }
    if (!user.isEmpty())
        ssh_options_set(d->session, SSH_OPTIONS_USER, user.toUtf8().constData());
    char *effectiveUser = nullptr;
    if (ssh_options_get(d->session, SSH_OPTIONS_USER, &effectiveUser) == SSH_OK)
        d->user = takeString(effectiveUser);
    ssh_set_blocking(d->session, 0);
    // A jump host's own hops come from the ProxyJump that named it.
    const QString jumps = m_jumpVia.isEmpty() ? d->config.value(QStringLiteral("proxyjump")) : m_jumpVia;
    if (!jumps.isEmpty() && jumps.compare(QLatin1String("none"), Qt::CaseInsensitive) != 0) {
        startJump(jumps);
        return;
    }
    m_handshakeTimer->start();
    // libssh would look the name up itself, blocking the window for as long
    // as a slow name server takes. So the name is looked up here and the TCP
    // connection made here, and libssh takes over the connected socket; the
    // host name stays what ~/.ssh/config and known_hosts see. A ProxyCommand
    // (the one of ProxyCommand and ProxyJump that comes first) is left to
    // libssh.
    const QString proxy = d->config.value(QStringLiteral("proxycommand"));
    if (!proxy.isEmpty() && proxy.compare(QLatin1String("none"), Qt::CaseInsensitive) != 0) {
        ssh_options_set(d->session, SSH_OPTIONS_PROXYCOMMAND, proxy.toUtf8().constData());
        d->stage = Stage::Connecting;
        step();
        return;
    }
    char *hostName = nullptr;
    QString target = host;
    if (ssh_options_get(d->session, SSH_OPTIONS_HOST, &hostName) == SSH_OK)
        target = takeString(hostName);
    d->stage = Stage::Resolving;
    m_lookupId = QHostInfo::lookupHost(target, this, &SshConnection::onResolved);
}

void SshConnection::onResolved(const QHostInfo &info)
{
    if (d->stage != Stage::Resolving || info.lookupId() != m_lookupId)
        return;
    const QList<QHostAddress> addresses = info.addresses();
    // IPv4 first: addresses are dotted IPv4 text everywhere else in the program.
    auto chosen = std::find_if(addresses.begin(), addresses.end(),
        [](const QHostAddress &a) { return a.protocol() == QAbstractSocket::IPv4Protocol; });
    if (chosen == addresses.end())
        chosen = addresses.begin();
    if (chosen == addresses.end())
        return unreachable(info.errorString(),
            QStringLiteral("cannot find %1: %2").arg(info.hostName(), info.errorString()));

    unsigned int port = 22;
    ssh_options_get_port(d->session, &port);
    sockaddr_storage address {};
    socklen_t length = 0;
    if (chosen->protocol() == QAbstractSocket::IPv4Protocol) {
        auto *in = reinterpret_cast<sockaddr_in *>(&address);
        in->sin_family = AF_INET;
        in->sin_port = htons(quint16(port));
        in->sin_addr.s_addr = htonl(chosen->toIPv4Address());
        length = sizeof(sockaddr_in);
    } else {
        auto *in6 = reinterpret_cast<sockaddr_in6 *>(&address);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(quint16(port));
        const Q_IPV6ADDR bytes = chosen->toIPv6Address();
        std::memcpy(&in6->sin6_addr, &bytes, sizeof bytes);
        length = sizeof(sockaddr_in6);
    }
    m_connectFd = ::socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_connectFd < 0
        || (::connect(m_connectFd, reinterpret_cast<sockaddr *>(&address), length) != 0
            && errno != EINPROGRESS))
        return unreachable(QString::fromLocal8Bit(std::strerror(errno)));
    d->stage = Stage::TcpConnecting;
    m_connectNotifier = new QSocketNotifier(m_connectFd, QSocketNotifier::Write, this);
    connect(m_connectNotifier, &QSocketNotifier::activated, this, &SshConnection::onTcpConnected);
}

void SshConnection::onTcpConnected()
{
    if (d->stage != Stage::TcpConnecting)
        return;
    m_connectNotifier->setEnabled(false);
    m_connectNotifier->deleteLater();
    m_connectNotifier = nullptr;
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(m_connectFd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        error = errno;
    if (error != 0)
        return unreachable(QString::fromLocal8Bit(std::strerror(error)));
    const socket_t fd = m_connectFd;
    ssh_options_set(d->session, SSH_OPTIONS_FD, &fd);
    m_connectFd = -1; // libssh closes it from now on
    d->stage = Stage::Connecting;
    step();
}

void SshConnection::close()
{
    endSession();
}

void SshConnection::endSession()
{
    m_handshakeTimer->stop();
    m_keepAliveTimer->stop();
    ++d->loadGeneration;
    if (m_agentAuth->running()) {
        // The agent's thread holds the session: it frees it when it is done.
        delete m_agentAuth;
        resetAgentAuth();
        d->session = nullptr;
        d->channel = nullptr;
    }
    // Possibly called from one of their own signals: let them go later.
    for (QSocketNotifier *notifier : { m_readNotifier, m_writeNotifier }) {
        if (notifier) {
            notifier->setEnabled(false);
            notifier->deleteLater();
        }
    }
    m_readNotifier = m_writeNotifier = nullptr;
    if (m_connectNotifier) {
        m_connectNotifier->setEnabled(false);
        m_connectNotifier->deleteLater();
        m_connectNotifier = nullptr;
    }
    if (m_connectFd >= 0) {
        ::close(m_connectFd);
        m_connectFd = -1;
    }
    if (m_lookupId >= 0) {
        QHostInfo::abortHostLookup(m_lookupId);
        m_lookupId = -1;
    }
    d->dropKeys();
    if (d->channel) {
        ssh_channel_free(d->channel);
        d->channel = nullptr;
    }
    if (d->session) {
        ssh_disconnect(d->session);
        ssh_free(d->session);
        d->session = nullptr;
    }
    endJump();
    d->stage = Stage::Idle;
    d->pending.clear();
    wipe(d->answers);
    d->agentKeys.clear();
    d->methodQueue.clear();
    d->passwordTries = d->kbdintRounds = 0;
    d->keepAliveMisses = 0;
}

void SshConnection::fail(const QString &message, bool timedOut, bool named)
{
    endSession();
    Q_EMIT failed(
        m_outer && !named ? QStringLiteral("jump host %1: %2").arg(d->host, message) : message, timedOut);
}

// The host (a name that does not resolve, a refused or unrouted TCP
// connection): "cannot connect to HOST: reason", or for a jump host "cannot
// reach J: reason". `message` replaces the first for a target.
void SshConnection::unreachable(const QString &reason, const QString &message)
{
    if (m_outer)
        return fail(QStringLiteral("cannot reach %1: %2").arg(d->host, reason), false, true);
    fail(message.isEmpty() ? QStringLiteral("cannot connect to %1: %2").arg(d->host, reason) : message);
}

void SshConnection::tell(const QString &text)
{
    Q_EMIT notice(m_outer ? QStringLiteral("jump host %1: %2").arg(d->host, text) : text);
}

QString SshConnection::lostMessage(const QString &reason) const
{
    return m_outer ? QStringLiteral("jump host %1: %2").arg(d->host, reason)
                   : QStringLiteral("Connection to %1 lost: %2").arg(d->host, reason);
}

QString SshConnection::libsshError() const
{
    return d->session ? QString::fromUtf8(ssh_get_error(d->session)) : QString();
}

void SshConnection::watchSocket()
{
    if (!d->session)
        return;
    const socket_t fd = ssh_get_fd(d->session);
    if (fd == SSH_INVALID_SOCKET)
        return;
    if (d->stage == Stage::WaitAgent) {
        // The agent's thread has the session; it polls the socket itself.
        if (m_readNotifier) {
            m_readNotifier->setEnabled(false);
            m_writeNotifier->setEnabled(false);
        }
        return;
    }
    if (!m_readNotifier) {
        m_readNotifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        m_writeNotifier = new QSocketNotifier(fd, QSocketNotifier::Write, this);
        connect(m_readNotifier, &QSocketNotifier::activated, this, [this] {
            d->lastHeard.start();
            step();
        });
        connect(m_writeNotifier, &QSocketNotifier::activated, this, &SshConnection::step);
    }
    // While a user answers (or a key loads), what arrives is read at once
    // (loginClosed()), so a server that gives up is reported then.
    m_readNotifier->setEnabled(true);
    // Writable is only news while libssh holds output (or typed bytes wait);
    // otherwise a writable socket would spin the handshake.
    const bool wantWrite = (ssh_get_poll_flags(d->session) & SSH_WRITE_PENDING) || !d->pending.isEmpty();
    m_writeNotifier->setEnabled(wantWrite);
}

void SshConnection::step()
{
    if (!d->session)
        return;
    if (ssh_get_poll_flags(d->session) & SSH_WRITE_PENDING)
        ssh_blocking_flush(d->session, 0);
    while (d->session && stepStage()) { }
    if (d->session && !loginClosed())
        watchSocket();
}

// Whether the server ended the connection before the shell was open; if so
// the login fails with its reason. Reads what has arrived without blocking.
bool SshConnection::loginClosed()
{
    if (!d->session || d->stage == Stage::Open || d->stage == Stage::WaitAgent || d->stage < Stage::AuthNone)
        return false;
    const bool waiting = d->stage == Stage::WaitHostKey || d->stage == Stage::WaitPassphrase
        || d->stage == Stage::WaitKbdint || d->stage == Stage::WaitPassword || d->stage == Stage::WaitKeys
        || d->stage == Stage::WaitKeyLoad;
    if (waiting) {
        ssh_event event = ssh_event_new();
        ssh_event_add_session(event, d->session);
        ssh_event_dopoll(event, 0);
        ssh_event_remove_session(event, d->session);
        ssh_event_free(event);
    }
    if (ssh_is_connected(d->session) && !(ssh_get_status(d->session) & (SSH_CLOSED | SSH_CLOSED_ERROR)))
        return false;
    // libssh keeps the server's reason as "Received SSH_MSG_DISCONNECT: code:reason".
    QString reason = libsshError();
    static const QRegularExpression disconnect(QStringLiteral("^Received SSH_MSG_DISCONNECT: \\d+:"));
    reason.remove(disconnect);
    fail(QStringLiteral("Connection closed by %1 during login: %2").arg(d->host, reason));
    return true;
}

// Runs the current stage once; true when it moved on to a stage that can run
// at once, false when it waits for the socket, a user's answer, or ended.
bool SshConnection::stepStage()
{
    switch (d->stage) {
    case Stage::Idle:
    case Stage::Resolving:
    case Stage::TcpConnecting:
    case Stage::Jumping:
    case Stage::WaitHostKey:
    case Stage::WaitPassphrase:
    case Stage::WaitKbdint:
    case Stage::WaitPassword:
    case Stage::WaitAgent:
    case Stage::WaitKeys:
    case Stage::WaitKeyLoad:
        return false;
    case Stage::Connecting: {
        return advance(ssh_connect(d->session), Stage::HostKey,
            QStringLiteral("cannot connect to %1: %2").arg(d->host, QStringLiteral("%1")));
    }
    case Stage::HostKey:
        return checkHostKey();
    case Stage::AuthNone:
    case Stage::PrepareKeys:
    case Stage::AuthAgent:
    case Stage::AuthKeys:
    case Stage::AuthKbdint:
    case Stage::AuthPassword:
        return authenticate();
    case Stage::OpenChannel:
    case Stage::RequestPty:
    case Stage::RequestShell:
        return openShell();
    case Stage::Open:
        flushPending();
        readChannel();
        return false;
    }
    return false;
}

bool SshConnection::advance(int rc, Stage next, const QString &failure)
{
    if (rc == SSH_AGAIN)
        return false;
    if (rc != SSH_OK) {
        fail(failure.arg(libsshError()));
        return false;
    }
    d->stage = next;
    return true;
}

bool SshConnection::openShell()
{
    if (d->stage == Stage::OpenChannel) {
        if (!d->channel) {
            d->channel = ssh_channel_new(d->session);
            d->exitStatus = -1;
            d->channelCallbacks = {};
            d->channelCallbacks.userdata = d.get();
            // Kept as it arrives: asking for it later would wait on the network.
            d->channelCallbacks.channel_exit_status_function
                = [](ssh_session, ssh_channel, int status, void *state) {
                      static_cast<State *>(state)->exitStatus = status;
                  };
            ssh_callbacks_init(&d->channelCallbacks);
            if (d->channel)
                ssh_set_channel_callbacks(d->channel, &d->channelCallbacks);
        }
        if (!m_forwardHost.isEmpty()) {
            // A jump host: a channel to the next host instead of a shell.
            const int rc = d->channel ? ssh_channel_open_forward(
                               d->channel, m_forwardHost.toUtf8().constData(), m_forwardPort, "127.0.0.1", 22)
                                      : SSH_ERROR;
            if (rc == SSH_AGAIN)
                return false;
            if (rc != SSH_OK) {
                // libssh says "Channel opening failure: channel N error (N) <the server's reason>".
                static const QRegularExpression prefix(
                    QStringLiteral("^Channel opening failure: .*\\(\\d+\\) "));
                fail(QStringLiteral("jump host %1 cannot reach %2 port %3: %4")
                         .arg(d->host, m_forwardHost)
                         .arg(m_forwardPort)
                         .arg(libsshError().remove(prefix)),
                    false, true);
                return false;
            }
            return shellOpened();
        }
        return advance(d->channel ? ssh_channel_open_session(d->channel) : SSH_ERROR, Stage::RequestPty,
            QStringLiteral("%1 opened no session: %2").arg(d->host, QStringLiteral("%1")));
    }
    if (d->stage == Stage::RequestPty)
        return advance(ssh_channel_request_pty_size(d->channel, "xterm-256color", m_columns, m_rows),
            Stage::RequestShell,
            QStringLiteral("%1 gave no terminal: %2").arg(d->host, QStringLiteral("%1")));
    if (!advance(ssh_channel_request_shell(d->channel), Stage::Open,
            QStringLiteral("%1 started no shell: %2").arg(d->host, QStringLiteral("%1"))))
        return false;
    return shellOpened();
}

// The shell (or a jump host's channel) is open: keep-alives start.
bool SshConnection::shellOpened()
{
    d->stage = Stage::Open;
    m_handshakeTimer->stop();
    const int interval = d->config.number(QStringLiteral("serveraliveinterval"), 60);
    d->lastHeard.start();
    d->keepAliveMisses = 0;
    if (interval > 0)
        m_keepAliveTimer->start(interval * 1000);
    Q_EMIT opened();
    return d->session != nullptr; // read what has arrived already
}

void SshConnection::readChannel()
{
    // Reading one stream may pull the other's data off the socket, so both
    // are read until a pass finds nothing. A flood is taken in slices: after
    // sliceBytes the rest waits for the next pass of the event loop (libssh
    // may already hold it, so the socket would not signal it again).
    constexpr qsizetype sliceBytes = 32768;
    char buffer[16384];
    qsizetype taken = 0;
    for (bool more = true; more;) {
        more = false;
        for (int fromStderr = 0; fromStderr < 2; ++fromStderr) {
            if (!d->channel)
                return;
            if (taken >= sliceBytes) {
                if (!m_readQueued) {
                    m_readQueued = true;
                    QTimer::singleShot(0, this, [this] {
                        m_readQueued = false;
                        if (d->session && d->stage == Stage::Open)
                            step();
                    });
                }
                return;
            }
            const int n = ssh_channel_read_nonblocking(d->channel, buffer, sizeof buffer, fromStderr);
            if (n > 0) {
                more = true;
                taken += n;
                Q_EMIT received(QByteArray(buffer, n));
            } else if (n < 0 || ssh_channel_is_eof(d->channel) || ssh_channel_is_closed(d->channel)) {
                const int status = d->exitStatus;
                const QString reason = libsshError();
                // A shell that ended closes its channel, which libssh reads
                // as an error too; the line itself is lost only when the
                // session is.
                const bool broken = !ssh_is_connected(d->session)
                    || (n < 0 && !ssh_channel_is_eof(d->channel) && !ssh_channel_is_closed(d->channel));
                endSession();
                if (broken)
                    Q_EMIT lost(lostMessage(reason));
                else
                    Q_EMIT closed(status);
                return;
            }
        }
    }
}

// Timed from the last thing the peer sent, as OpenSSH's ssh does: a keep-alive
// after each ServerAliveInterval of silence, and the peer is given up once it
// has been silent for ServerAliveInterval x ServerAliveCountMax with a
// keep-alive unanswered.
void SshConnection::sendKeepAlive()
{
    if (d->stage != Stage::Open)
        return;
    const qint64 interval = qint64(d->config.number(QStringLiteral("serveraliveinterval"), 60)) * 1000;
    const int countMax = qMax(1, d->config.number(QStringLiteral("serveralivecountmax"), 3));
    const qint64 silent = d->lastHeard.elapsed();
    if (silent < interval) {
        d->keepAliveMisses = 0;
        m_keepAliveTimer->start(int(interval - silent));
        return;
    }
    if (d->keepAliveMisses > 0 && silent >= interval * countMax) {
        endSession();
        Q_EMIT lost(lostMessage(QStringLiteral("no answer to keep-alives for %1 s").arg(silent / 1000)));
        return;
    }
    ++d->keepAliveMisses;
    // A global request the server must answer; its answer wakes the socket.
    ssh_send_keepalive(d->session);
    watchSocket();
    const qint64 next = qMin(interval * (silent / interval + 1), interval * qMax(countMax, 2));
    m_keepAliveTimer->start(int(qMax<qint64>(next - silent, 0)));
}

void SshConnection::write(const QByteArray &bytes)
{
    if (!isOpen())
        return;
    d->pending += bytes;
    flushPending();
    watchSocket();
}

void SshConnection::flushPending()
{
    while (!d->pending.isEmpty() && d->channel) {
        const int n = ssh_channel_write(d->channel, d->pending.constData(), uint32_t(d->pending.size()));
        if (n <= 0)
            break; // no window yet (or an error the next read reports)
        d->pending.remove(0, n);
    }
}

void SshConnection::sendBreak(int milliseconds)
{
    if (isOpen())
        ssh_channel_request_send_break(d->channel, uint32_t(milliseconds));
    watchSocket();
}

void SshConnection::setTerminalSize(int columns, int rows)
{
    if (columns <= 0 || rows <= 0 || (columns == m_columns && rows == m_rows))
        return;
    m_columns = columns;
    m_rows = rows;
    if (isOpen())
        ssh_channel_change_pty_size(d->channel, columns, rows);
}
