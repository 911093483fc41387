#include "ssh_connection.h"
#include "ssh_connection_p.h"

#include "console/ssh_agent_auth.h"

#include <QCryptographicHash>
#include <QFileInfo>
#include <QMessageAuthenticationCode>
#include <QMetaMethod>
#include <QRandomGenerator>
#include <QTimer>
#include <QtEndian>

// The host key check and user authentication of SshConnection.

namespace {
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
// The modulus size of an "ssh-rsa" public key blob (string type, mpint e,
// mpint n); 0 for any other key.
int rsaBits(const QByteArray &blob)
{
    QByteArray fields[3];
    qsizetype at = 0;
    for (QByteArray &field : fields) {
        if (at + 4 > blob.size())
            return 0;
        const quint32 length = qFromBigEndian<quint32>(blob.constData() + at);
        if (length > quint32(blob.size() - at - 4))
            return 0;
        field = blob.mid(at + 4, length);
        at += 4 + length;
    }
    if (fields[0] != "ssh-rsa")
        return 0;
    QByteArray &n = fields[2];
    while (!n.isEmpty() && n.at(0) == 0)
        n.remove(0, 1);
    if (n.isEmpty())
        return 0;
    int bits = int(n.size()) * 8;
    for (quint8 top = quint8(n.at(0)); !(top & 0x80); top <<= 1)
        --bits;
    return bits;
}
} // namespace

bool SshConnection::canAsk(const char *signal) const
{
    if (m_outer)
        return m_outer->canAsk(signal); // a jump host asks whoever the target asks
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
    const ssh_keytypes_e type = ssh_key_type(key);
    const QString keyType = type == SSH_KEYTYPE_RSA ? QStringLiteral("RSA")
        : type == SSH_KEYTYPE_ED25519               ? QStringLiteral("ED25519")
        : type == SSH_KEYTYPE_ECDSA_P256 || type == SSH_KEYTYPE_ECDSA_P384 || type == SSH_KEYTYPE_ECDSA_P521
        ? QStringLiteral("ECDSA")
        : QString::fromLatin1(ssh_key_type_to_char(type));
    char *base64 = nullptr;
    const QString keyText
        = ssh_pki_export_pubkey_base64(key, &base64) == SSH_OK ? takeString(base64) : QString();
    ssh_key_free(key);

    // libssh does not read markers: a revoked key would pass as unknown.
    const QString revoked = knownHostsLine(true, keyText);
    if (!keyText.isEmpty() && !revoked.isEmpty()) {
        fail(QStringLiteral("the host key of %1 (%2) is revoked (@revoked at %3); refused")
                 .arg(d->host, fingerprint, revoked));
        return false;
    }
    switch (ssh_session_is_known_server(d->session)) {
    case SSH_KNOWN_HOSTS_OK:
        d->stage = Stage::AuthNone;
        return true;
    case SSH_KNOWN_HOSTS_CHANGED:
    case SSH_KNOWN_HOSTS_OTHER:
        if (m_outer) {
            fail(QStringLiteral("jump host %1: host key changed (now %2; it does not match %3)")
                     .arg(d->host, fingerprint, changedKeyLine()),
                false, true);
            return false;
        }
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
        Q_EMIT hostKeyQuestion(described(), fingerprint, keyType);
        return false;
    case SSH_KNOWN_HOSTS_ERROR:
        break;
    }
    fail(QStringLiteral("cannot check the host key of %1: %2").arg(d->host, libsshError()));
    return false;
}

std::pair<QString, quint16> SshConnection::endpoint() const
{
    char *hostName = nullptr;
    QString host = d->host;
    if (ssh_options_get(d->session, SSH_OPTIONS_HOST, &hostName) == SSH_OK)
        host = takeString(hostName);
    unsigned int port = 22;
    ssh_options_get_port(d->session, &port);
    return { host, quint16(port) };
}

// The host for a question: as typed, with the address and port it stands
// for where they differ ("fake-r1 (127.0.0.1 port 2222)"); a jump host as one.
QString SshConnection::described() const
{
    const auto [address, port] = endpoint();
    QString text = m_outer ? QStringLiteral("jump host %1").arg(d->host) : d->host;
    if (port != 22)
        text += QStringLiteral(" (%1 port %2)").arg(address).arg(port);
    else if (address != d->host)
        text += QStringLiteral(" (%1)").arg(address);
    return text;
}

QString SshConnection::changedKeyLine() const
{
    const QString line = knownHostsLine(false, QString());
    return line.isEmpty() ? QStringLiteral("the entry for this host in %1").arg(knownHostsFile()) : line;
}

QString SshConnection::knownHostsFile() const
{
    char *path = nullptr;
    if (ssh_options_get(d->session, SSH_OPTIONS_KNOWNHOSTS, &path) == SSH_OK)
        return expandPath(takeString(path));
    return sshDir() + QStringLiteral("/known_hosts");
}

// "line N of FILE" of the first known_hosts entry for this host: a plain one,
// or with `revoked` an @revoked one holding keyText; empty when none.
QString SshConnection::knownHostsLine(bool revoked, const QString &keyText) const
{
    const QString file = knownHostsFile();
    const auto [host, port] = endpoint();
    const QString hostText = port == 22 ? host : QStringLiteral("[%1]:%2").arg(host).arg(port);

    QFile known(file);
    if (known.open(QIODevice::ReadOnly | QIODevice::Text)) {
        int lineNumber = 0;
        while (!known.atEnd()) {
            ++lineNumber;
            QStringList fields = QString::fromUtf8(known.readLine())
                                     .simplified()
                                     .split(QLatin1Char(' '), Qt::SkipEmptyParts);
            // Marker lines (@revoked, @cert-authority) are never plain entries.
            const bool marked = fields.value(0).startsWith(QLatin1Char('@'));
            if (marked != revoked || (revoked && fields.takeFirst() != QLatin1String("@revoked")))
                continue;
            if (fields.size() >= 3 && !fields[0].startsWith(QLatin1Char('#'))
                && (namesHost(fields[0], hostText) || (revoked && fields[0] == QLatin1String("*")))
                && (!revoked || fields[2] == keyText))
                return QStringLiteral("line %1 of %2").arg(lineNumber).arg(file);
        }
    }
    return {};
}

// Appends the host's key to known_hosts, leaving every other line as it
// was; hashed with HashKnownHosts, as OpenSSH writes it; a new file is 0600.
// An empty result, or why it failed.
QString SshConnection::saveHostKey()
{
    char *entry = nullptr;
    if (ssh_session_export_known_hosts_entry(d->session, &entry) != SSH_OK)
        return libsshError();
    QByteArray line = takeString(entry).trimmed().toUtf8();
    if (d->config.flag(QStringLiteral("hashknownhosts"), false)) {
        const qsizetype space = line.indexOf(' ');
        QByteArray salt(20, Qt::Uninitialized);
        QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(salt.data()), salt.size() / 4);
        const QByteArray hash
            = QMessageAuthenticationCode::hash(line.left(space), salt, QCryptographicHash::Sha1);
        line = "|1|" + salt.toBase64() + '|' + hash.toBase64() + line.mid(space);
    }
    char *path = nullptr;
    QString name = sshDir() + QStringLiteral("/known_hosts");
    if (ssh_options_get(d->session, SSH_OPTIONS_KNOWNHOSTS, &path) == SSH_OK)
        name = expandPath(takeString(path));
    QDir().mkpath(QFileInfo(name).absolutePath());
    QFile file(name);
    const bool existed = file.exists();
    if (!file.open(QIODevice::ReadWrite | QIODevice::Append))
        return file.errorString();
    if (file.size() > 0) {
        // A last line without its line end gets one first.
        file.seek(file.size() - 1);
        if (file.read(1) != "\n")
            line.prepend('\n');
    }
    if (!existed)
        file.setPermissions(QFile::ReadOwner | QFile::WriteOwner);
    if (file.write(line + '\n') != line.size() + 1 || !file.flush())
        return file.errorString();
    return {};
}

void SshConnection::answerHostKey(HostKeyAnswer answer)
{
    if (d->stage == Stage::Jumping && d->jump)
        return d->jump->answerHostKey(answer); // the jump host asked
    if (d->stage != Stage::WaitHostKey)
        return;
    if (answer == HostKeyAnswer::Cancel)
        return fail(QStringLiteral("the host key of %1 was not accepted").arg(d->host));
    if (answer == HostKeyAnswer::AcceptAndSave) {
        const QString error = saveHostKey();
        if (!error.isEmpty())
            return fail(QStringLiteral("cannot save the host key of %1: %2").arg(d->host, error));
    }
    d->stage = Stage::AuthNone;
    m_handshakeTimer->start();
    QTimer::singleShot(0, this, &SshConnection::step);
}

void SshConnection::askSecrets(
    const QString &title, const QString &instruction, const QStringList &prompts, const QList<bool> &echo)
{
    d->answered = false;
    wipe(d->answers);
    m_handshakeTimer->stop();
    // Whose question it is: a jump host's passphrase looks like the target's.
    QString context = QStringLiteral("Logging in to %1 as %2").arg(described(), d->user);
    if (!instruction.isEmpty())
        context += QStringLiteral("\n\n") + instruction;
    Q_EMIT secretsRequested(title, context, prompts, echo);
}

void SshConnection::answerSecrets(const QStringList &answers)
{
    if (d->stage == Stage::Jumping && d->jump)
        return d->jump->answerSecrets(answers);
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
    if (d->stage == Stage::Jumping && d->jump)
        return d->jump->cancelSecrets();
    if (d->stage != Stage::WaitPassphrase && d->stage != Stage::WaitKbdint && d->stage != Stage::WaitPassword)
        return;
    fail(QStringLiteral("authentication to %1 cancelled").arg(d->host));
}

bool SshConnection::authenticate()
{
    switch (d->stage) {
    case Stage::AuthNone: {
        const int rc = ssh_userauth_none(d->session, nullptr);
        if (rc == SSH_AUTH_AGAIN)
            return false;
        if (rc == SSH_AUTH_SUCCESS) {
            d->stage = Stage::OpenChannel;
            return true;
        }
        if (rc == SSH_AUTH_ERROR) {
            if (!loginClosed())
                fail(QStringLiteral("authentication error: %1").arg(libsshError()));
            return false;
        }
        d->methods = ssh_userauth_list(d->session, nullptr);
        d->methodQueue = d->config.authMethods();
        if (d->methodQueue.contains(QLatin1String("publickey")) && (d->methods & SSH_AUTH_METHOD_PUBLICKEY)) {
            d->stage = Stage::PrepareKeys;
            return true;
        }
        return nextMethod();
    }
    case Stage::PrepareKeys:
        prepareKeys();
        return false;
    case Stage::AuthAgent:
        startAgent();
        return false;
    case Stage::AuthKeys:
        return tryKeyFiles();
    case Stage::AuthKbdint:
        return keyboardInteractive();
    case Stage::AuthPassword:
        return password();
    default:
        return false;
    }
}

// On to the next method of the client's list that the server takes; false
// (and the login refused) when none is left.
bool SshConnection::nextMethod()
{
    while (!d->methodQueue.isEmpty()) {
        const QString method = d->methodQueue.takeFirst();
        if (method == QLatin1String("publickey") && (d->methods & SSH_AUTH_METHOD_PUBLICKEY))
            d->stage = Stage::AuthAgent;
        else if (method == QLatin1String("keyboard-interactive")
            && (d->methods & SSH_AUTH_METHOD_INTERACTIVE))
            d->stage = Stage::AuthKbdint;
        else if (method == QLatin1String("password") && (d->methods & SSH_AUTH_METHOD_PASSWORD))
            d->stage = Stage::AuthPassword;
        else
            continue;
        return true;
    }
    if (loginClosed())
        return false;
    if (m_outer)
        fail(QStringLiteral("jump host %1: authentication failed").arg(d->host), false, true);
    else
        fail(QStringLiteral("authentication refused for %1@%2").arg(d->user, d->host));
    return false;
}

// The public halves of the IdentityFile keys, read off the window's thread
// (a home folder on a slow file server must not freeze it).
void SshConnection::prepareKeys()
{
    d->stage = Stage::WaitKeys;
    const QStringList files = d->config.identityFiles();
    const int generation = d->loadGeneration;
    runOffThread<SshKeyBatch>(
        this,
        [files](SshKeyBatch &batch) {
            for (const QString &file : files) {
                SshIdentity identity;
                identity.path = file;
                const QByteArray path = QFile::encodeName(file);
                if (ssh_pki_import_pubkey_file((path + ".pub").constData(), &identity.publicKey) != SSH_OK) {
                    // No .pub beside it: the key itself, if it opens without a passphrase.
                    if (ssh_pki_import_privkey_file(
                            path.constData(), nullptr, nullptr, nullptr, &identity.privateKey)
                            != SSH_OK
                        || ssh_pki_export_privkey_to_pubkey(identity.privateKey, &identity.publicKey)
                            != SSH_OK) {
                        ssh_key_free(identity.privateKey);
                        continue; // an encrypted key without its .pub is not offered
                    }
                }
                char *base64 = nullptr;
                if (ssh_pki_export_pubkey_base64(identity.publicKey, &base64) == SSH_OK)
                    identity.blob = QByteArray::fromBase64(takeString(base64).toLatin1());
                batch.identities << identity;
            }
        },
        [this, generation](SshKeyBatch &batch) {
            if (generation != d->loadGeneration || d->stage != Stage::WaitKeys)
                return;
            d->identities.swap(batch.identities);
            // libssh would skip an RSA key under the limit without a word.
            const int minimum = requiredRsaBits(d->config);
            for (qsizetype i = d->identities.size() - 1; i >= 0; --i) {
                SshIdentity &identity = d->identities[i];
                const int bits = rsaBits(identity.blob);
                if (bits == 0 || bits >= minimum)
                    continue;
                tell(QStringLiteral("%1: an RSA key of %2 bits, under %3 (RequiredRSASize); not offered")
                         .arg(identity.path)
                         .arg(bits)
                         .arg(minimum));
                ssh_key_free(identity.publicKey);
                ssh_key_free(identity.privateKey);
                d->identities.removeAt(i);
            }
            if (nextMethod())
                step();
        });
}

void SshConnection::startAgent()
{
    QString agent = d->config.value(QStringLiteral("identityagent"), QStringLiteral("SSH_AUTH_SOCK"));
    if (agent == QLatin1String("SSH_AUTH_SOCK"))
        agent = qEnvironmentVariable("SSH_AUTH_SOCK");
    else if (agent.compare(QLatin1String("none"), Qt::CaseInsensitive) == 0)
        agent.clear();
    else
        agent = expandPath(agent);
    if (agent.isEmpty()) {
        d->stage = Stage::AuthKeys;
        return step();
    }
    QList<QByteArray> preferred;
    for (const SshIdentity &identity : std::as_const(d->identities))
        preferred << identity.blob;
    d->stage = Stage::WaitAgent;
    watchSocket();
    m_handshakeTimer->start();
    m_agentAuth->start(d->session, agent, m_agentTimeout, preferred,
        d->config.flag(QStringLiteral("identitiesonly"), false));
}

// The private half of the current key, read (and decrypted) off the
// window's thread; then on with AuthKeys, a passphrase question, or the next
// key.
void SshConnection::loadPrivateKey(const QByteArray &passphrase)
{
    d->stage = Stage::WaitKeyLoad;
    const QString file = d->identities.first().path;
    const int generation = d->loadGeneration;
    runOffThread<SshKeyBatch>(
        this,
        [file, secret = QByteArray(passphrase)](SshKeyBatch &batch) mutable {
            SshIdentity identity;
            if (ssh_pki_import_privkey_file(QFile::encodeName(file).constData(),
                    secret.isNull() ? nullptr : secret.constData(), nullptr, nullptr, &identity.privateKey)
                == SSH_OK)
                batch.identities << identity;
            wipe(secret);
        },
        [this, generation, file](SshKeyBatch &batch) {
            if (generation != d->loadGeneration || d->stage != Stage::WaitKeyLoad)
                return;
            if (!batch.identities.isEmpty()) {
                std::swap(d->identities.first().privateKey, batch.identities.first().privateKey);
                d->stage = Stage::AuthKeys;
            } else if (canAsk("secrets") && !d->passphraseAsked) {
                d->passphraseAsked = true;
                d->stage = Stage::WaitPassphrase;
                askSecrets(QStringLiteral("Passphrase"), QString(),
                    { QStringLiteral("Passphrase for key %1:").arg(file) }, { false });
            } else {
                d->dropKey();
                d->stage = Stage::AuthKeys;
            }
            step();
        });
}

// One step through the key files the agent did not hold; true when the stage
// moved on (to the next method, or to OpenChannel on success).
bool SshConnection::tryKeyFiles()
{
    for (;;) {
        if (d->identities.isEmpty())
            return nextMethod();
        SshIdentity &identity = d->identities.first();
        if (d->agentKeys.contains(identity.blob) && !identity.blob.isEmpty()) {
            d->dropKey();
            continue;
        }
        if (!d->keyAccepted) {
            const int rc = ssh_userauth_try_publickey(d->session, nullptr, identity.publicKey);
            if (rc == SSH_AUTH_AGAIN)
                return false;
            if (rc != SSH_AUTH_SUCCESS) {
                d->dropKey();
                if (loginClosed())
                    return false;
                continue;
            }
            d->keyAccepted = true;
        }
        if (!identity.privateKey) {
            QByteArray passphrase;
            if (d->answered)
                passphrase = d->answers.value(0).toUtf8();
            d->answered = false;
            wipe(d->answers);
            loadPrivateKey(passphrase);
            wipe(passphrase);
            return false;
        }
        const int rc = ssh_userauth_publickey(d->session, nullptr, identity.privateKey);
        if (rc == SSH_AUTH_AGAIN)
            return false;
        d->dropKey();
        if (rc == SSH_AUTH_SUCCESS) {
            d->stage = Stage::OpenChannel;
            return true;
        }
        if (loginClosed())
            return false;
    }
}

bool SshConnection::keyboardInteractive()
{
    if (!canAsk("secrets") || d->kbdintRounds >= maxKbdintRounds)
        return nextMethod();
    if (d->answered) {
        for (int i = 0; i < d->answers.size(); ++i) {
            QByteArray answer = d->answers[i].toUtf8();
            ssh_userauth_kbdint_setanswer(d->session, unsigned(i), answer.constData());
            wipe(answer);
        }
        d->answered = false;
        wipe(d->answers);
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
    if (loginClosed())
        return false;
    // Refused: a new round (a mistyped answer), a few times; then the next method.
    d->kbdintRounds += rc == SSH_AUTH_ERROR ? maxKbdintRounds : 2;
    return true;
}

bool SshConnection::password()
{
    if (!canAsk("secrets"))
        return nextMethod();
    if (!d->answered) {
        if (d->passwordTries >= d->config.number(QStringLiteral("numberofpasswordprompts"), 3))
            return nextMethod();
        ++d->passwordTries;
        d->stage = Stage::WaitPassword;
        askSecrets(QStringLiteral("Password"), QString(), { QStringLiteral("Password:") }, { false });
        return false;
    }
    QByteArray secret = d->answers.value(0).toUtf8();
    const int rc = ssh_userauth_password(d->session, nullptr, secret.constData());
    wipe(secret);
    if (rc == SSH_AUTH_AGAIN)
        return false;
    d->answered = false;
    wipe(d->answers);
    if (rc == SSH_AUTH_SUCCESS) {
        d->stage = Stage::OpenChannel;
        return true;
    }
    if (loginClosed())
        return false;
    if (rc == SSH_AUTH_ERROR) {
        fail(QStringLiteral("authentication error: %1").arg(libsshError()));
        return false;
    }
    return true; // ask again
}
