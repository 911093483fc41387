#include "ssh_connection.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostInfo>
#include <QMessageAuthenticationCode>
#include <QMetaMethod>
#include <QSocketNotifier>
#include <QTimer>

#include <libssh/libssh.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

bool SshConnection::s_interactive = true;

enum class SshConnection::Stage {
    Idle,
    Resolving,
    TcpConnecting,
    Connecting,
    HostKey,
    WaitHostKey,
    AuthNone,
    AuthAgent,
    AuthKeys,
    WaitPassphrase,
    AuthKbdint,
    WaitKbdint,
    AuthPassword,
    WaitPassword,
    OpenChannel,
    RequestPty,
    RequestShell,
    Open,
};

struct SshConnection::State
{
    ssh_session session = nullptr;
    ssh_channel channel = nullptr;
    Stage stage = Stage::Idle;
    QString host; // as the user gave it
    QString user;
    int methods = 0; // what the server offers after "none"
    QStringList keyFiles; // still to try
    QString keyFile; // the one being tried
    ssh_key publicKey = nullptr;
    ssh_key privateKey = nullptr;
    bool keyAccepted = false; // the server would take publicKey
    bool passphraseAsked = false;
    QStringList answers;
    bool answered = false;
    int passwordTries = 0;
    int kbdintRounds = 0;
    QByteArray pending; // typed bytes the channel's window has no room for yet

    void dropKeys()
    {
        ssh_key_free(publicKey);
        ssh_key_free(privateKey);
        publicKey = privateKey = nullptr;
        keyAccepted = false;
    }
};

namespace {
constexpr int maxPasswordTries = 3;
constexpr int maxKbdintRounds = 6;

QString sshDir()
{
    return QDir::homePath() + QStringLiteral("/.ssh");
}

QString expandPath(QString path)
{
    path.replace(QLatin1String("%d"), sshDir());
    if (path.startsWith(QLatin1String("~/")))
        path = QDir::homePath() + path.mid(1);
    return path;
}

QString takeString(char *text)
{
    const QString result = QString::fromUtf8(text);
    ssh_string_free_char(text);
    return result;
}

// Does a known_hosts host field name this host? Plain patterns and hashed
// ("|1|salt|hash") entries, as OpenSSH writes them.
bool namesHost(const QString &field, const QString &hostText)
{
    for (const QString &pattern : field.split(QLatin1Char(','))) {
        if (pattern.startsWith(QLatin1String("|1|"))) {
            const QStringList parts = pattern.split(QLatin1Char('|'));
            if (parts.size() != 4)
                continue;
            const QByteArray salt = QByteArray::fromBase64(parts[2].toLatin1());
            const QByteArray hash = QByteArray::fromBase64(parts[3].toLatin1());
            if (QMessageAuthenticationCode::hash(hostText.toUtf8(), salt, QCryptographicHash::Sha1) == hash)
                return true;
        } else if (pattern.compare(hostText, Qt::CaseInsensitive) == 0) {
            return true;
        }
    }
    return false;
}
} // namespace

SshConnection::SshConnection(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<State>())
    , m_handshakeTimer(new QTimer(this))
{
    m_handshakeTimer->setSingleShot(true);
    m_handshakeTimer->setInterval(20000);
    connect(m_handshakeTimer, &QTimer::timeout, this,
        [this] { fail(QStringLiteral("no answer from %1").arg(d->host), true); });
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
    m_handshakeTimer->start();
    // libssh would look the name up itself, blocking the window for as long
    // as a slow name server takes. So the name is looked up here and the TCP
    // connection made here, and libssh takes over the connected socket; the
    // host name stays what ~/.ssh/config and known_hosts see. A ProxyCommand
    // is left to libssh.
    char *proxy = nullptr;
    if (ssh_options_get(d->session, SSH_OPTIONS_PROXYCOMMAND, &proxy) == SSH_OK) {
        ssh_string_free_char(proxy);
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
        return fail(QStringLiteral("cannot find %1: %2").arg(info.hostName(), info.errorString()));

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
    if (m_connectFd < 0)
        return fail(QStringLiteral("cannot connect to %1: %2")
                        .arg(d->host, QString::fromLocal8Bit(std::strerror(errno))));
    if (::connect(m_connectFd, reinterpret_cast<sockaddr *>(&address), length) != 0 && errno != EINPROGRESS)
        return fail(QStringLiteral("cannot connect to %1: %2")
                        .arg(d->host, QString::fromLocal8Bit(std::strerror(errno))));
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
        return fail(QStringLiteral("cannot connect to %1: %2")
                        .arg(d->host, QString::fromLocal8Bit(std::strerror(error))));
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
    d->stage = Stage::Idle;
    d->pending.clear();
    d->answers.clear();
    d->passwordTries = d->kbdintRounds = 0;
}

void SshConnection::fail(const QString &message, bool timedOut)
{
    endSession();
    Q_EMIT failed(message, timedOut);
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
    if (!m_readNotifier) {
        m_readNotifier = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        m_writeNotifier = new QSocketNotifier(fd, QSocketNotifier::Write, this);
        connect(m_readNotifier, &QSocketNotifier::activated, this, &SshConnection::step);
        connect(m_writeNotifier, &QSocketNotifier::activated, this, &SshConnection::step);
    }
    // While a user answers, a peer that gives up would keep the socket
    // readable with nothing to do; the next libssh call after the answer
    // finds out instead.
    const bool waiting = d->stage == Stage::WaitHostKey || d->stage == Stage::WaitPassphrase
        || d->stage == Stage::WaitKbdint || d->stage == Stage::WaitPassword;
    m_readNotifier->setEnabled(!waiting);
    // Writable is only news while connecting or while libssh holds output.
    const bool wantWrite = d->stage == Stage::Connecting
        || (ssh_get_poll_flags(d->session) & SSH_WRITE_PENDING) || !d->pending.isEmpty();
    m_writeNotifier->setEnabled(wantWrite);
}

void SshConnection::step()
{
    if (!d->session)
        return;
    if (ssh_get_poll_flags(d->session) & SSH_WRITE_PENDING)
        ssh_blocking_flush(d->session, 0);
    while (d->session && stepStage()) { }
    watchSocket();
}

// Runs the current stage once; true when it moved on to a stage that can run
// at once, false when it waits for the socket, a user's answer, or ended.
bool SshConnection::stepStage()
{
    switch (d->stage) {
    case Stage::Idle:
    case Stage::Resolving:
    case Stage::TcpConnecting:
    case Stage::WaitHostKey:
    case Stage::WaitPassphrase:
    case Stage::WaitKbdint:
    case Stage::WaitPassword:
        return false;
    case Stage::Connecting: {
        const int rc = ssh_connect(d->session);
        if (rc == SSH_AGAIN)
            return false;
        if (rc != SSH_OK) {
            fail(QStringLiteral("cannot connect to %1: %2").arg(d->host, libsshError()));
            return false;
        }
        d->stage = Stage::HostKey;
        return true;
    }
    case Stage::HostKey:
        return checkHostKey();
    case Stage::AuthNone:
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

bool SshConnection::canAsk(const char *signal) const
{
    const QMetaMethod method = signal == QByteArrayLiteral("hostKey")
        ? QMetaMethod::fromSignal(&SshConnection::hostKeyQuestion)
        : QMetaMethod::fromSignal(&SshConnection::secretsRequested);
    return s_interactive && isSignalConnected(method);
}

bool SshConnection::checkHostKey()
{
    ssh_key key = nullptr;
    if (ssh_get_server_publickey(d->session, &key) != SSH_OK) {
        fail(QStringLiteral("%1 sent no host key").arg(d->host));
        return false;
    }
    unsigned char *hash = nullptr;
    size_t hashLength = 0;
    QString fingerprint;
    if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &hashLength) == SSH_OK) {
        fingerprint = takeString(ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, hashLength));
        ssh_clean_pubkey_hash(&hash);
    }
    ssh_key_free(key);

    switch (ssh_session_is_known_server(d->session)) {
    case SSH_KNOWN_HOSTS_OK:
        d->stage = Stage::AuthNone;
        return true;
    case SSH_KNOWN_HOSTS_CHANGED:
    case SSH_KNOWN_HOSTS_OTHER:
        fail(QStringLiteral("WARNING: the host key of %1 has changed (now %2); it does not match %3. "
                            "Refused: if the device really has a new key, remove that line.")
                 .arg(d->host, fingerprint, changedKeyLine()));
        return false;
    case SSH_KNOWN_HOSTS_UNKNOWN:
    case SSH_KNOWN_HOSTS_NOT_FOUND:
        if (!canAsk("hostKey")) {
            fail(QStringLiteral("the host key of %1 (%2) is not in %3/known_hosts and nobody can be asked; "
                                "refused")
                     .arg(d->host, fingerprint, sshDir()));
            return false;
        }
        d->stage = Stage::WaitHostKey;
        m_handshakeTimer->stop();
        Q_EMIT hostKeyQuestion(d->host, fingerprint);
        return false;
    case SSH_KNOWN_HOSTS_ERROR:
        break;
    }
    fail(QStringLiteral("cannot check the host key of %1: %2").arg(d->host, libsshError()));
    return false;
}

QString SshConnection::changedKeyLine() const
{
    char *path = nullptr;
    QString file = sshDir() + QStringLiteral("/known_hosts");
    if (ssh_options_get(d->session, SSH_OPTIONS_KNOWNHOSTS, &path) == SSH_OK)
        file = expandPath(takeString(path));
    char *hostName = nullptr;
    QString host = d->host;
    if (ssh_options_get(d->session, SSH_OPTIONS_HOST, &hostName) == SSH_OK)
        host = takeString(hostName);
    unsigned int port = 22;
    ssh_options_get_port(d->session, &port);
    const QString hostText = port == 22 ? host : QStringLiteral("[%1]:%2").arg(host).arg(port);

    QFile known(file);
    if (known.open(QIODevice::ReadOnly | QIODevice::Text)) {
        int lineNumber = 0;
        while (!known.atEnd()) {
            ++lineNumber;
            const QStringList fields = QString::fromUtf8(known.readLine())
                                           .simplified()
                                           .split(QLatin1Char(' '), Qt::SkipEmptyParts);
            if (fields.size() >= 3 && !fields[0].startsWith(QLatin1Char('#'))
                && namesHost(fields[0], hostText))
                return QStringLiteral("line %1 of %2").arg(lineNumber).arg(file);
        }
    }
    return QStringLiteral("the entry for %1 in %2").arg(hostText, file);
}

void SshConnection::answerHostKey(HostKeyAnswer answer)
{
    if (d->stage != Stage::WaitHostKey)
        return;
    if (answer == HostKeyAnswer::Cancel)
        return fail(QStringLiteral("the host key of %1 was not accepted").arg(d->host));
    if (answer == HostKeyAnswer::AcceptAndSave && ssh_session_update_known_hosts(d->session) != SSH_OK)
        return fail(QStringLiteral("cannot save the host key of %1: %2").arg(d->host, libsshError()));
    d->stage = Stage::AuthNone;
    m_handshakeTimer->start();
    QTimer::singleShot(0, this, &SshConnection::step);
}

void SshConnection::askSecrets(
    const QString &title, const QString &instruction, const QStringList &prompts, const QList<bool> &echo)
{
    d->answered = false;
    d->answers.clear();
    m_handshakeTimer->stop();
    Q_EMIT secretsRequested(title, instruction, prompts, echo);
}

void SshConnection::answerSecrets(const QStringList &answers)
{
    if (d->stage != Stage::WaitPassphrase && d->stage != Stage::WaitKbdint && d->stage != Stage::WaitPassword)
        return;
    d->answers = answers;
    d->answered = true;
    d->stage = d->stage == Stage::WaitPassphrase ? Stage::AuthKeys
        : d->stage == Stage::WaitKbdint          ? Stage::AuthKbdint
                                                 : Stage::AuthPassword;
    m_handshakeTimer->start();
    QTimer::singleShot(0, this, &SshConnection::step);
}

void SshConnection::cancelSecrets()
{
    if (d->stage != Stage::WaitPassphrase && d->stage != Stage::WaitKbdint && d->stage != Stage::WaitPassword)
        return;
    fail(QStringLiteral("authentication to %1 cancelled").arg(d->host));
}

bool SshConnection::authenticate()
{
    auto succeeded = [this] {
        d->stage = Stage::OpenChannel;
        return true;
    };
    switch (d->stage) {
    case Stage::AuthNone: {
        const int rc = ssh_userauth_none(d->session, nullptr);
        if (rc == SSH_AUTH_AGAIN)
            return false;
        if (rc == SSH_AUTH_SUCCESS)
            return succeeded();
        if (rc == SSH_AUTH_ERROR) {
            fail(QStringLiteral("authentication error: %1").arg(libsshError()));
            return false;
        }
        d->methods = ssh_userauth_list(d->session, nullptr);
        d->keyFiles.clear();
        char *identity = nullptr;
        if (ssh_options_get(d->session, SSH_OPTIONS_IDENTITY, &identity) == SSH_OK)
            d->keyFiles << expandPath(takeString(identity));
        for (const char *name : { "id_ed25519", "id_ecdsa", "id_rsa" }) {
            const QString path = sshDir() + QLatin1Char('/') + QLatin1String(name);
            if (!d->keyFiles.contains(path))
                d->keyFiles << path;
        }
        d->stage = Stage::AuthAgent;
        return true;
    }
    case Stage::AuthAgent: {
        if (!(d->methods & SSH_AUTH_METHOD_PUBLICKEY) || !qEnvironmentVariableIsSet("SSH_AUTH_SOCK")) {
            d->stage = Stage::AuthKeys;
            return true;
        }
        const int rc = ssh_userauth_agent(d->session, nullptr);
        if (rc == SSH_AUTH_AGAIN)
            return false;
        if (rc == SSH_AUTH_SUCCESS)
            return succeeded();
        d->stage = Stage::AuthKeys;
        return true;
    }
    case Stage::AuthKeys:
        if (!(d->methods & SSH_AUTH_METHOD_PUBLICKEY)) {
            d->stage = Stage::AuthKbdint;
            return true;
        }
        return tryKeyFiles();
    case Stage::AuthKbdint:
        return keyboardInteractive();
    case Stage::AuthPassword:
        return password();
    default:
        return false;
    }
}

// One step through the key files; true when the stage moved on (to the next
// method, or to OpenChannel on success).
bool SshConnection::tryKeyFiles()
{
    for (;;) {
        if (!d->publicKey && !d->privateKey) {
            if (d->keyFiles.isEmpty()) {
                d->stage = Stage::AuthKbdint;
                return true;
            }
            d->keyFile = d->keyFiles.takeFirst();
            d->passphraseAsked = false;
            if (!QFileInfo::exists(d->keyFile))
                continue;
            const QByteArray path = QFile::encodeName(d->keyFile);
            if (ssh_pki_import_pubkey_file((path + ".pub").constData(), &d->publicKey) != SSH_OK) {
                // No .pub beside it: the key itself, if it opens without a passphrase.
                if (ssh_pki_import_privkey_file(path.constData(), nullptr, nullptr, nullptr, &d->privateKey)
                        != SSH_OK
                    || ssh_pki_export_privkey_to_pubkey(d->privateKey, &d->publicKey) != SSH_OK) {
                    d->dropKeys();
                    continue; // an encrypted key without its .pub is not offered
                }
            }
        }
        if (!d->keyAccepted) {
            const int rc = ssh_userauth_try_publickey(d->session, nullptr, d->publicKey);
            if (rc == SSH_AUTH_AGAIN)
                return false;
            if (rc != SSH_AUTH_SUCCESS) {
                d->dropKeys();
                continue;
            }
            d->keyAccepted = true;
        }
        if (!d->privateKey) {
            const QByteArray path = QFile::encodeName(d->keyFile);
            const QByteArray passphrase = d->answered ? d->answers.value(0).toUtf8() : QByteArray();
            const bool opened
                = ssh_pki_import_privkey_file(path.constData(),
                      d->answered ? passphrase.constData() : nullptr, nullptr, nullptr, &d->privateKey)
                == SSH_OK;
            d->answered = false;
            d->answers.clear();
            if (!opened) {
                d->privateKey = nullptr;
                if (!canAsk("secrets") || d->passphraseAsked) {
                    d->dropKeys();
                    continue;
                }
                d->passphraseAsked = true;
                d->stage = Stage::WaitPassphrase;
                askSecrets(QStringLiteral("Passphrase"), QString(),
                    { QStringLiteral("Passphrase for key %1:").arg(d->keyFile) }, { false });
                return false;
            }
        }
        const int rc = ssh_userauth_publickey(d->session, nullptr, d->privateKey);
        if (rc == SSH_AUTH_AGAIN)
            return false;
        d->dropKeys();
        if (rc == SSH_AUTH_SUCCESS) {
            d->stage = Stage::OpenChannel;
            return true;
        }
    }
}

bool SshConnection::keyboardInteractive()
{
    if (!(d->methods & SSH_AUTH_METHOD_INTERACTIVE) || !canAsk("secrets")
        || d->kbdintRounds >= maxKbdintRounds) {
        d->stage = Stage::AuthPassword;
        return true;
    }
    if (d->answered) {
        for (int i = 0; i < d->answers.size(); ++i)
            ssh_userauth_kbdint_setanswer(d->session, unsigned(i), d->answers[i].toUtf8().constData());
        d->answered = false;
        d->answers.clear();
    }
    const int rc = ssh_userauth_kbdint(d->session, nullptr, nullptr);
    if (rc == SSH_AUTH_AGAIN)
        return false;
    if (rc == SSH_AUTH_SUCCESS) {
        d->stage = Stage::OpenChannel;
        return true;
    }
    if (rc == SSH_AUTH_INFO) {
        ++d->kbdintRounds;
        const int count = ssh_userauth_kbdint_getnprompts(d->session);
        if (count <= 0)
            return true; // an empty round: answer it with nothing
        QStringList prompts;
        QList<bool> echo;
        for (int i = 0; i < count; ++i) {
            char echoes = 0;
            prompts << QString::fromUtf8(ssh_userauth_kbdint_getprompt(d->session, unsigned(i), &echoes));
            echo << bool(echoes);
        }
        const QString name = QString::fromUtf8(ssh_userauth_kbdint_getname(d->session));
        d->stage = Stage::WaitKbdint;
        askSecrets(name.isEmpty() ? QStringLiteral("Login to %1").arg(d->host) : name,
            QString::fromUtf8(ssh_userauth_kbdint_getinstruction(d->session)), prompts, echo);
        return false;
    }
    // Refused: a new round (a mistyped answer), a few times; then passwords.
    d->kbdintRounds += rc == SSH_AUTH_ERROR ? maxKbdintRounds : 2;
    return true;
}

bool SshConnection::password()
{
    const auto refused = [this] {
        fail(QStringLiteral("authentication refused for %1@%2").arg(d->user, d->host));
        return false;
    };
    if (!(d->methods & SSH_AUTH_METHOD_PASSWORD) || !canAsk("secrets"))
        return refused();
    if (!d->answered) {
        if (d->passwordTries >= maxPasswordTries)
            return refused();
        ++d->passwordTries;
        d->stage = Stage::WaitPassword;
        askSecrets(QStringLiteral("Password"), QString(),
            { QStringLiteral("Password for %1@%2:").arg(d->user, d->host) }, { false });
        return false;
    }
    const QByteArray secret = d->answers.value(0).toUtf8();
    const int rc = ssh_userauth_password(d->session, nullptr, secret.constData());
    if (rc == SSH_AUTH_AGAIN)
        return false;
    d->answered = false;
    d->answers.clear();
    if (rc == SSH_AUTH_SUCCESS) {
        d->stage = Stage::OpenChannel;
        return true;
    }
    if (rc == SSH_AUTH_ERROR) {
        fail(QStringLiteral("authentication error: %1").arg(libsshError()));
        return false;
    }
    return true; // ask again
}

bool SshConnection::openShell()
{
    if (d->stage == Stage::OpenChannel) {
        if (!d->channel)
            d->channel = ssh_channel_new(d->session);
        const int rc = d->channel ? ssh_channel_open_session(d->channel) : SSH_ERROR;
        if (rc == SSH_AGAIN)
            return false;
        if (rc != SSH_OK) {
            fail(QStringLiteral("%1 opened no session: %2").arg(d->host, libsshError()));
            return false;
        }
        d->stage = Stage::RequestPty;
        return true;
    }
    if (d->stage == Stage::RequestPty) {
        const int rc = ssh_channel_request_pty_size(d->channel, "vt100", m_columns, m_rows);
        if (rc == SSH_AGAIN)
            return false;
        if (rc != SSH_OK) {
            fail(QStringLiteral("%1 gave no terminal: %2").arg(d->host, libsshError()));
            return false;
        }
        d->stage = Stage::RequestShell;
        return true;
    }
    const int rc = ssh_channel_request_shell(d->channel);
    if (rc == SSH_AGAIN)
        return false;
    if (rc != SSH_OK) {
        fail(QStringLiteral("%1 started no shell: %2").arg(d->host, libsshError()));
        return false;
    }
    d->stage = Stage::Open;
    m_handshakeTimer->stop();
    Q_EMIT opened();
    return d->session != nullptr; // read what has arrived already
}

void SshConnection::readChannel()
{
    // Reading one stream may pull the other's data off the socket, so both
    // are read until a pass finds nothing.
    char buffer[16384];
    for (bool more = true; more;) {
        more = false;
        for (int fromStderr = 0; fromStderr < 2; ++fromStderr) {
            if (!d->channel)
                return;
            const int n = ssh_channel_read_nonblocking(d->channel, buffer, sizeof buffer, fromStderr);
            if (n > 0) {
                more = true;
                Q_EMIT received(QByteArray(buffer, n));
            } else if (n < 0 || ssh_channel_is_eof(d->channel) || ssh_channel_is_closed(d->channel)) {
                endSession();
                Q_EMIT closed();
                return;
            }
        }
    }
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
