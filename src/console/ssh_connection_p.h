#pragma once

// What SshConnection's two source files share: its stages, its libssh
// handles and progress, and a few path helpers. Not for use elsewhere.

#include "console/ssh_config.h"
#include "console/ssh_connection.h"

#include <QDir>
#include <QFile>
#include <QSocketNotifier>
#include <QThread>

#include <memory>

#include <libssh/callbacks.h>
#include <libssh/libssh.h>

enum class SshConnection::Stage {
    Idle,
    Resolving,
    TcpConnecting,
    Jumping, // waiting for the jump host's channel to the target
    Connecting,
    HostKey,
    WaitHostKey,
    AuthNone,
    AuthAgent,
    WaitAgent,
    PrepareKeys,
    WaitKeys,
    AuthKeys,
    WaitKeyLoad,
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

// A key file offered by public key: its public half (and blob, to compare
// with the agent's keys), and the private half once loaded.
struct SshIdentity
{
    QString path;
    QByteArray blob;
    ssh_key publicKey = nullptr;
    ssh_key privateKey = nullptr;
};

struct SshConnection::State
{
    ssh_session session = nullptr;
    ssh_channel channel = nullptr;
    Stage stage = Stage::Idle;
    QString host; // as the user gave it
    QString user;
    SshConfig config;
    int methods = 0; // what the server offers after "none"
    QStringList methodQueue; // the client's methods still to try
    QList<SshIdentity> identities; // key files still to offer; the first is current
    QList<QByteArray> agentKeys; // offered through the agent already
    bool keyAccepted = false; // the server would take the current key
    bool passphraseAsked = false;
    int loadGeneration = 0; // a key load whose connection ended is dropped
    int exitStatus = -1;
    int keepAliveMisses = 0;
    bool heard = false; // the peer sent something since the last keep-alive
    ssh_channel_callbacks_struct channelCallbacks {};
    QStringList answers;
    bool answered = false;
    int passwordTries = 0;
    int kbdintRounds = 0;
    QByteArray pending; // typed bytes the channel's window has no room for yet
    // Through a jump host: its connection, and our end of the socket pair
    // whose other end is the session's socket.
    SshConnection *jump = nullptr;
    int tunnelFd = -1;
    QSocketNotifier *tunnelRead = nullptr;
    QSocketNotifier *tunnelWrite = nullptr;
    QByteArray tunnelOut; // from the jump host, not yet taken by the session
    bool tunnelEnded = false; // the jump host's channel ended: EOF once tunnelOut is out

    void dropKey()
    {
        if (!identities.isEmpty()) {
            ssh_key_free(identities.first().publicKey);
            ssh_key_free(identities.first().privateKey);
            identities.removeFirst();
        }
        keyAccepted = false;
        passphraseAsked = false;
    }
    void dropKeys()
    {
        while (!identities.isEmpty())
            dropKey();
    }
};

static inline QString sshDir()
{
    return QDir::homePath() + QStringLiteral("/.ssh");
}

static inline QString expandPath(QString path)
{
    path.replace(QLatin1String("%d"), sshDir());
    if (path.startsWith(QLatin1String("~/")))
        path = QDir::homePath() + path.mid(1);
    return path;
}

static inline QString takeString(char *text)
{
    const QString result = QString::fromUtf8(text);
    ssh_string_free_char(text);
    return result;
}

// libssh 0.10's default algorithm lists, which "+", "-" and "^" in
// ~/.ssh/config start from (libssh has no call that returns them).
inline constexpr char libsshDefaultKex[]
    = "curve25519-sha256,curve25519-sha256@libssh.org,ecdh-sha2-nistp256,ecdh-sha2-nistp384,ecdh-sha2-"
      "nistp521,"
      "diffie-hellman-group18-sha512,diffie-hellman-group16-sha512,diffie-hellman-group-exchange-sha256,"
      "diffie-hellman-group14-sha256";
inline constexpr char libsshDefaultHostKeys[]
    = "ssh-ed25519-cert-v01@openssh.com,ecdsa-sha2-nistp521-cert-v01@openssh.com,"
      "ecdsa-sha2-nistp384-cert-v01@openssh.com,ecdsa-sha2-nistp256-cert-v01@openssh.com,"
      "sk-ecdsa-sha2-nistp256-cert-v01@openssh.com,rsa-sha2-512-cert-v01@openssh.com,"
      "rsa-sha2-256-cert-v01@openssh.com,ssh-ed25519,ecdsa-sha2-nistp521,ecdsa-sha2-nistp384,ecdsa-sha2-"
      "nistp256,"
      "sk-ssh-ed25519@openssh.com,sk-ecdsa-sha2-nistp256@openssh.com,rsa-sha2-512,rsa-sha2-256";
inline constexpr char libsshDefaultCiphers[] = "chacha20-poly1305@openssh.com,aes256-gcm@openssh.com,"
                                               "aes128-gcm@openssh.com,aes256-ctr,aes192-ctr,aes128-ctr";
inline constexpr char libsshDefaultMacs[]
    = "hmac-sha2-256-etm@openssh.com,hmac-sha2-512-etm@openssh.com,hmac-sha2-256,hmac-sha2-512";

// The smallest RSA key taken (host keys and key files): 1024 bits, or
// RequiredRSASize down to the 768 that libssh holds to whatever it is told.
static inline int requiredRsaBits(const SshConfig &config)
{
    const int bits = config.number(QStringLiteral("requiredrsasize"), 1024);
    return bits == 0 ? 1024 : qMax(768, bits);
}

// Secrets are overwritten before their memory goes back.
static inline void wipe(QStringList &secrets)
{
    for (QString &secret : secrets)
        secret.fill(QChar(0));
    secrets.clear();
}

static inline void wipe(QByteArray &secret)
{
    secret.fill('\0');
    secret.clear();
}

// Key files read on a thread of their own; keys nobody took are freed.
struct SshKeyBatch
{
    QList<SshIdentity> identities;
    ~SshKeyBatch()
    {
        for (SshIdentity &identity : identities) {
            ssh_key_free(identity.publicKey);
            ssh_key_free(identity.privateKey);
        }
    }
};

// Runs work() off the window's thread, then done(result) on it while context
// lives.
template <typename Result, typename Work, typename Done>
void runOffThread(QObject *context, Work work, Done done)
{
    auto result = std::make_shared<Result>();
    QThread *thread = QThread::create([result, work]() mutable { work(*result); });
    QObject::connect(thread, &QThread::finished, context, [result, done] { done(*result); });
    QObject::connect(thread, &QThread::finished, thread, &QObject::deleteLater);
    thread->start();
}
