#include "ssh_agent_auth.h"

#include <QLocalSocket>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>
#include <QtEndian>

#include <libssh/libssh.h>

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr char identitiesAnswer = 12;

quint32 readUint32(const QByteArray &bytes, qsizetype at)
{
    return qFromBigEndian<quint32>(bytes.constData() + at);
}

void appendUint32(QByteArray &bytes, quint32 value)
{
    char buffer[4];
    qToBigEndian(value, buffer);
    bytes.append(buffer, 4);
}

// The agent's key list in the order OpenSSH offers it: the preferred keys
// (those of the IdentityFiles) first, then the others unless onlyPreferred.
// The listed keys go to `listed`. A list that does not parse is passed on
// untouched.
QByteArray cutIdentities(const QByteArray &message, const QList<QByteArray> &preferred, bool onlyPreferred,
    QList<QByteArray> *listed)
{
    if (message.size() < 9)
        return message;
    const quint32 count = readUint32(message, 5);
    QByteArray keys[2]; // preferred, others
    QList<QByteArray> blobs[2];
    qsizetype at = 9;
    for (quint32 i = 0; i < count; ++i) {
        if (at + 4 > message.size())
            return message;
        const quint32 blobLength = readUint32(message, at);
        if (blobLength > quint32(message.size() - at - 4))
            return message;
        const QByteArray blob = message.mid(at + 4, blobLength);
        const qsizetype commentAt = at + 4 + blobLength;
        if (commentAt + 4 > message.size())
            return message;
        const quint32 commentLength = readUint32(message, commentAt);
        if (commentLength > quint32(message.size() - commentAt - 4))
            return message;
        const qsizetype end = commentAt + 4 + commentLength;
        const int kind = preferred.contains(blob) ? 0 : 1;
        if (kind == 0 || !onlyPreferred) {
            keys[kind] += message.mid(at, end - at);
            blobs[kind] << blob;
        }
        at = end;
    }
    *listed << blobs[0] << blobs[1];
    QByteArray body(1, identitiesAnswer);
    appendUint32(body, quint32(blobs[0].size() + blobs[1].size()));
    body += keys[0] + keys[1];
    QByteArray result;
    appendUint32(result, quint32(body.size()));
    return result + body;
}
} // namespace

struct SshAgentAuth::Job
{
    ssh_session session = nullptr;
    std::atomic<bool> stop { false };
    int rc = SSH_AUTH_ERROR;
    bool abandoned = false; // only touched on the window's thread
};

SshAgentAuth::SshAgentAuth(QObject *parent)
    : QObject(parent)
    , m_limit(new QTimer(this))
{
    m_limit->setSingleShot(true);
    connect(m_limit, &QTimer::timeout, this, [this] {
        m_timedOut = true;
        cut();
    });
}

SshAgentAuth::~SshAgentAuth()
{
    if (m_job) {
        m_job->abandoned = true;
        m_job->stop = true;
    }
    cut();
}

void SshAgentAuth::start(ssh_session_struct *session, const QString &agentPath, int timeoutMs,
    const QList<QByteArray> &preferred, bool onlyPreferred)
{
    m_timedOut = false;
    m_outstanding = 0;
    m_toAgent.clear();
    m_fromAgent.clear();
    m_listed.clear();
    m_preferred = preferred;
    m_onlyPreferred = onlyPreferred;
    m_limit->setInterval(timeoutMs);

    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
        QTimer::singleShot(0, this, [this] { Q_EMIT finished(SSH_AUTH_DENIED, false); });
        return;
    }
    m_relayFd = fds[1];
    ::fcntl(m_relayFd, F_SETFL, ::fcntl(m_relayFd, F_GETFL) | O_NONBLOCK);
    // libssh must never find the real agent itself, even after the relay is cut.
    ssh_options_set(session, SSH_OPTIONS_IDENTITY_AGENT, "/dev/null");
    ssh_set_agent_socket(session, fds[0]);
    m_notifier = new QSocketNotifier(m_relayFd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &SshAgentAuth::fromLibssh);
    m_agent = new QLocalSocket(this);
    connect(m_agent, &QLocalSocket::readyRead, this, &SshAgentAuth::fromAgent);
    connect(m_agent, &QLocalSocket::connected, this, [this] {
        m_agent->write(m_toAgent);
        m_toAgent.clear();
    });
    connect(m_agent, &QLocalSocket::errorOccurred, this, [this] { cut(); });
    connect(m_agent, &QLocalSocket::disconnected, this, [this] { cut(); });
    m_agent->connectToServer(agentPath);

    auto job = std::make_shared<Job>();
    job->session = session;
    m_job = job;
    QThread *thread = QThread::create([job] {
        for (;;) {
            job->rc = ssh_userauth_agent(job->session, nullptr);
            // A server that hung up leaves libssh saying "again" for ever.
            if (job->rc != SSH_AUTH_AGAIN || job->stop || !ssh_is_connected(job->session)
                || (ssh_get_status(job->session) & (SSH_CLOSED | SSH_CLOSED_ERROR)))
                return;
            pollfd wait { ssh_get_fd(job->session), POLLIN, 0 };
            ::poll(&wait, 1, 100);
        }
    });
    QPointer<SshAgentAuth> self(this);
    connect(thread, &QThread::finished, thread, [thread, job, self] {
        thread->deleteLater();
        if (job->abandoned || !self) {
            ssh_disconnect(job->session);
            ssh_free(job->session);
            return;
        }
        self->m_job.reset();
        self->cut();
        const int rc = job->rc == SSH_AUTH_AGAIN ? SSH_AUTH_ERROR : job->rc;
        Q_EMIT self->finished(rc, self->m_timedOut);
    });
    thread->start();
}

void SshAgentAuth::fromLibssh()
{
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(m_relayFd, buffer, sizeof buffer);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR))
            return cut();
        if (n < 0)
            break;
        m_toAgent.append(buffer, n);
    }
    // Whole requests start the clock; the agent gets them as they come.
    for (qsizetype at = 0; at + 4 <= m_toAgent.size();) {
        const qsizetype length = 4 + qsizetype(readUint32(m_toAgent, at));
        if (at + length > m_toAgent.size())
            break;
        ++m_outstanding;
        at += length;
    }
    if (m_outstanding > 0 && !m_limit->isActive())
        m_limit->start();
    if (m_agent->state() == QLocalSocket::ConnectedState) {
        m_agent->write(m_toAgent);
        m_toAgent.clear();
    }
}

void SshAgentAuth::fromAgent()
{
    m_fromAgent += m_agent->readAll();
    while (m_fromAgent.size() >= 4) {
        const qsizetype length = 4 + qsizetype(readUint32(m_fromAgent, 0));
        if (m_fromAgent.size() < length)
            return;
        QByteArray message = m_fromAgent.left(length);
        m_fromAgent.remove(0, length);
        if (message.size() > 4 && message.at(4) == identitiesAnswer)
            message = cutIdentities(message, m_preferred, m_onlyPreferred, &m_listed);
        // Answers are small; the pair's buffer takes them whole.
        if (::send(m_relayFd, message.constData(), size_t(message.size()), MSG_NOSIGNAL) != message.size())
            return cut();
        if (--m_outstanding <= 0) {
            m_outstanding = 0;
            m_limit->stop();
        } else {
            m_limit->start();
        }
    }
}

void SshAgentAuth::cut()
{
    m_limit->stop();
    if (m_notifier) {
        m_notifier->setEnabled(false);
        m_notifier->deleteLater();
        m_notifier = nullptr;
    }
    if (m_relayFd >= 0) {
        // libssh's blocked read sees the end of the stream and gives up.
        ::shutdown(m_relayFd, SHUT_RDWR);
        ::close(m_relayFd);
        m_relayFd = -1;
    }
    if (m_agent) {
        m_agent->disconnect(this);
        m_agent->abort();
        m_agent->deleteLater();
        m_agent = nullptr;
    }
}
