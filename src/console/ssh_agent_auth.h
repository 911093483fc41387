#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

#include <memory>

class QLocalSocket;
class QSocketNotifier;
class QTimer;
struct ssh_session_struct;

// Public key authentication through the SSH agent, without blocking the
// window on an agent that never answers (a locked hardware token, a hung
// forwarded agent).
//
// libssh reads the agent's answers with blocking reads, so its agent login
// runs on a thread of its own, the session handed over for that time. libssh
// does not reach the agent directly: its agent socket is one end of a socket
// pair whose other end this object relays to $SSH_AUTH_SOCK on the window's
// thread. A request the agent holds longer than the time limit cuts the relay:
// libssh's read ends, its agent login gives up, and the session comes back
// for the next method (finished() with timedOut set).
//
// The agent's list of keys is reordered on the way as OpenSSH orders it: the
// keys of the IdentityFiles (`preferred`) first, in the agent's order, then
// the agent's other keys; with onlyPreferred (IdentitiesOnly) the others are
// cut, so no other key of the agent is offered.
class SshAgentAuth : public QObject
{
    Q_OBJECT
public:
    explicit SshAgentAuth(QObject *parent = nullptr);
    // A login still running keeps the session until it ends, then frees it.
    ~SshAgentAuth() override;

    // preferred: public key blobs.
    void start(ssh_session_struct *session, const QString &agentPath, int timeoutMs,
        const QList<QByteArray> &preferred, bool onlyPreferred);
    bool running() const { return m_job != nullptr; }
    // The key blobs the agent listed (after the cut), in its order.
    QList<QByteArray> listedKeys() const { return m_listed; }

Q_SIGNALS:
    // rc is libssh's SSH_AUTH_* result; the session is back with the caller.
    void finished(int rc, bool timedOut);

private:
    struct Job;
    void fromLibssh();
    void fromAgent();
    void cut();

    std::shared_ptr<Job> m_job;
    int m_relayFd = -1;
    QSocketNotifier *m_notifier = nullptr;
    QLocalSocket *m_agent = nullptr;
    QTimer *m_limit;
    QByteArray m_toAgent; // requests not yet whole, or waiting for the connection
    QByteArray m_fromAgent; // an answer not yet whole
    int m_outstanding = 0;
    bool m_timedOut = false;
    bool m_onlyPreferred = false;
    QList<QByteArray> m_preferred;
    QList<QByteArray> m_listed;
};
