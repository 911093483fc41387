#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QStringList>

#include <memory>
#include <utility>

class QHostInfo;
class SshAgentAuth;
class QSocketNotifier;
class QTimer;

// One SSH shell session of a console, driven by libssh in non-blocking mode
// on the user-interface thread: a QSocketNotifier on the session's socket
// moves it on, so connecting, key exchange, authentication and a dead peer
// never hold up the window.
//
// open() reads ~/.ssh/config for the host ("~" is $HOME, QDir::homePath(),
// not the password database), connects, checks the host key against
// ~/.ssh/known_hosts, authenticates and opens a channel with an "xterm-256color" pty of
// the terminal's size and a shell. Authentication follows OpenSSH's client:
// PreferredAuthentications (publickey, keyboard-interactive, password by
// default) as the *Authentication keywords allow; public keys are offered
// in OpenSSH's order: the agent's keys of the IdentityFiles (OpenSSH's
// default files when none is named), the agent's other keys (not with
// IdentitiesOnly), then the IdentityFile keys the agent did not hold. The agent is asked through
// SshAgentAuth, key files are read on a thread of their own: nothing here waits on the window's thread. An
// agent silent past its time limit is reported through notice() and the login goes on with the next method.
//
// A host with ProxyJump is reached through its jump hosts (SshJump, in
// ssh_jump.cpp): each hop is an SshConnection of its own whose questions
// reach the user as the target's do, and a failure names the hop ("jump host
// J: authentication failed", "cannot reach J: ...").
//
// An open shell is kept alive with SSH keep-alives every
// ServerAliveInterval seconds (60 by default, 0 turns them off); a peer that
// lets ServerAliveCountMax (3) of them go unanswered is reported lost.
//
// Questions go out as signals and their answers come back through the
// answer*() calls; the handshake waits meanwhile (its time limit stops). When
// no user can be asked (setInteractive(false), as in --headless runs, or
// nobody listens to the signal) an unknown host key is refused and no
// passphrase or password is asked for. Secrets are used once and never kept.
//  - hostKeyQuestion(host, fingerprint, keyType): an unknown host key,
//    "SHA256:..." and "ED25519" (host names the address and port where they
//    are not the name typed, and a jump host as one);
//  - secretsRequested(title, instruction, prompts, echo): a passphrase, a
//    password or the server's keyboard-interactive prompts;
//  - opened(): the shell is up; received() then carries its output;
//  - failed(message, timedOut): the handshake ended without a shell
//    (refused, a changed host key, an error, the server closed the
//    connection, or no progress within the time limit); the connection is
//    closed;
//  - closed(exitStatus): an open shell ended normally (exit status or -1);
//  - lost(message): an open shell's connection died (no answer to the
//    keep-alives, or the line broke);
//  - notice(text): something worth a line in the console that does not end
//    the login (the agent did not answer).
class SshConnection : public QObject
{
    Q_OBJECT
public:
    enum class HostKeyAnswer { AcceptAndSave, AcceptOnce, Cancel };

    explicit SshConnection(QObject *parent = nullptr);
    ~SshConnection() override;

    // port 0 and an empty user leave them to ~/.ssh/config (then 22 and the
    // login name).
    void open(const QString &host, quint16 port, const QString &user);
    void close();

    bool isOpen() const;
    bool isActive() const; // between open() and the end of the session
    void write(const QByteArray &bytes);
    // An RFC 4335 break request, held for the given time.
    void sendBreak(int milliseconds);
    // The terminal's size in characters; sent now if the shell is open.
    void setTerminalSize(int columns, int rows);

    void answerHostKey(HostKeyAnswer answer);
    void answerSecrets(const QStringList &answers);
    void cancelSecrets();

    static void setInteractive(bool interactive);
    // The handshake's time limit without an answer pending (20 s, or
    // ConnectTimeout).
    void setHandshakeTimeout(int milliseconds);
    // How long the agent may take over one request (10 s).
    void setAgentTimeout(int milliseconds) { m_agentTimeout = milliseconds; }

Q_SIGNALS:
    void hostKeyQuestion(const QString &host, const QString &fingerprint, const QString &keyType);
    void secretsRequested(const QString &title, const QString &instruction, const QStringList &prompts,
        const QList<bool> &echo);
    void opened();
    void received(const QByteArray &bytes);
    void failed(const QString &message, bool timedOut);
    void closed(int exitStatus);
    void lost(const QString &message);
    void notice(const QString &text);

private:
    struct State;
    enum class Stage;

    void resetAgentAuth();
    void onAgentFinished(int rc, bool timedOut);
    void onResolved(const QHostInfo &info);
    void onTcpConnected();
    void step();
    bool stepStage();
    // One non-blocking libssh step's result: on to `next` when done, a failure
    // (`failure` with %1 for libssh's reason) when refused, else wait.
    bool advance(int rc, Stage next, const QString &failure);
    bool checkHostKey();
    bool authenticate();
    bool nextMethod();
    void startAgent();
    void prepareKeys();
    void loadPrivateKey(const QByteArray &passphrase);
    bool tryKeyFiles();
    bool loginClosed();
    void sendKeepAlive();
    bool keyboardInteractive();
    bool password();
    bool openShell();
    bool shellOpened();
    void readChannel();
    void flushPending();
    // Ends the login with message; a jump host's own failures name it unless
    // `named` says the message does already.
    void fail(const QString &message, bool timedOut = false, bool named = false);
    void unreachable(const QString &reason, const QString &message = QString());
    // A notice, naming the jump host when this is one.
    void tell(const QString &text);
    QString lostMessage(const QString &reason) const;
    void endJump();
    bool startJump(const QString &setting);
    void onJumpOpened();
    void onJumpEnded(const QString &message);
    void readTunnel();
    void flushTunnel();
    void endSession();
    void watchSocket();
    void askSecrets(const QString &title, const QString &instruction, const QStringList &prompts,
        const QList<bool> &echo);
    bool canAsk(const char *signal) const;
    QString libsshError() const;
    QString changedKeyLine() const;
    QString knownHostsFile() const;
    QString described() const;
    // The host name and port the session connects to, after ~/.ssh/config.
    std::pair<QString, quint16> endpoint() const;
    QString knownHostsLine(bool revoked, const QString &keyText) const;
    QString saveHostKey();

    std::unique_ptr<State> d;
    QSocketNotifier *m_readNotifier = nullptr;
    QSocketNotifier *m_writeNotifier = nullptr;
    QSocketNotifier *m_connectNotifier = nullptr;
    int m_connectFd = -1; // our own socket until libssh takes it over
    int m_lookupId = -1;
    QTimer *m_handshakeTimer;
    QTimer *m_keepAliveTimer;
    SshAgentAuth *m_agentAuth;
    int m_agentTimeout = 10000;
    int m_handshakeTimeout = 20000;
    int m_columns = 80;
    int m_rows = 24;
    bool m_readQueued = false; // the rest of a sliced read waits for the event loop

    // Set on a jump host's connection: who it carries, and where to.
    SshConnection *m_outer = nullptr;
    QString m_forwardHost;
    quint16 m_forwardPort = 0;
    QString m_jumpVia; // the hops before this one, when the outer ProxyJump names them

    static bool s_interactive;
};
