#pragma once

// What SshConnection's two source files share: its stages, its libssh
// handles and progress, and a few path helpers. Not for use elsewhere.

#include "console/ssh_connection.h"

#include <QDir>
#include <QFile>

#include <libssh/libssh.h>

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
