#include "ssh_connection.h"
#include "ssh_connection_p.h"

#include <QCryptographicHash>
#include <QMessageAuthenticationCode>
#include <QMetaMethod>
#include <QTimer>

// The host key check and user authentication of SshConnection.

namespace {
constexpr int maxPasswordTries = 3;
constexpr int maxKbdintRounds = 6;

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
