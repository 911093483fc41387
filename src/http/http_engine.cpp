#include "http/http_engine.h"

#include "http/http_engine_p.h"

#include <QElapsedTimer>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <linux/tcp.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr quint64 progressBytes = 1024; // what counts as progress for the watchdog
constexpr int progressIntervalMs = 250; // about four monitor updates a second per row
constexpr int batchMs = 200; // events handed to the windows' thread at most this often

MHD_Result answerCallback(void *cls, MHD_Connection *connection, const char *url, const char *method,
    const char *version, const char *upload, size_t *uploadSize, void **requestContext)
{
    return MHD_Result(static_cast<HttpEngine *>(cls)->answer(
        connection, url, method, version, upload, uploadSize, requestContext));
}

void *uriCallback(void *cls, const char *uri, MHD_Connection *connection)
{
    static_cast<HttpEngine *>(cls)->uriSeen(connection, uri);
    return nullptr;
}

void completedCallback(void *cls, MHD_Connection *, void **requestContext, MHD_RequestTerminationCode toe)
{
    static_cast<HttpEngine *>(cls)->requestEnded(requestContext, int(toe));
}

void connectionCallback(
    void *cls, MHD_Connection *connection, void **socketContext, MHD_ConnectionNotificationCode toe)
{
    static_cast<HttpEngine *>(cls)->connectionEvent(connection, socketContext, int(toe));
}

// The URL path reaches us as sent: it is decoded once, by HttpWire::servedName.
size_t keepEscapes(void *, MHD_Connection *, char *text)
{
    return std::strlen(text);
}

QString dotted(const sockaddr *address)
{
    if (!address || address->sa_family != AF_INET)
        return {};
    char text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in *>(address)->sin_addr, text, sizeof text);
    return QString::fromLatin1(text);
}

QElapsedTimer &monotonic()
{
    static QElapsedTimer timer = [] {
        QElapsedTimer t;
        t.start();
        return t;
    }();
    return timer;
}

} // namespace

SocketCounters socketCounters(int fd)
{
    tcp_info info {};
    socklen_t size = sizeof info;
    if (fd < 0 || ::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return {};
    return { info.tcpi_bytes_acked, info.tcpi_bytes_received };
}

HttpEngine::HttpEngine(const Settings &settings, Deliver deliver)
    : m_settings(settings)
    , m_deliver(std::move(deliver))
{
    monotonic();
    m_rows.store(std::make_shared<const QList<AccessEntry>>());
}

HttpEngine::~HttpEngine()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
    if (m_daemon)
        MHD_stop_daemon(m_daemon); // started, but the thread was not
    if (m_listenFd >= 0)
        ::close(m_listenFd);
}

qint64 HttpEngine::now() const
{
    return monotonic().elapsed();
}

void HttpEngine::publishAccessList(const QList<AccessEntry> &rows)
{
    m_rows.store(std::make_shared<const QList<AccessEntry>>(rows));
}

bool HttpEngine::start()
{
    // Our own listening socket, so a failed bind says why (in use, no privilege).
    m_listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_port = htons(m_settings.port);
    address.sin_addr.s_addr = htonl(m_settings.bindAddress.toIPv4Address());
    const int on = 1;
    if (m_listenFd >= 0)
        ::setsockopt(m_listenFd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (m_listenFd < 0 || ::bind(m_listenFd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0
        || ::listen(m_listenFd, 512) != 0) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        if (m_listenFd >= 0)
            ::close(m_listenFd);
        m_listenFd = -1;
        return false;
    }
    socklen_t length = sizeof address;
    ::getsockname(m_listenFd, reinterpret_cast<sockaddr *>(&address), &length);
    m_port = ntohs(address.sin_port);

    const bool tls = !m_settings.certificatePem.isEmpty() && !m_settings.keyPem.isEmpty();
    if (tls && MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
        m_error = QStringLiteral("this libmicrohttpd has no TLS support");
        return false;
    }
    // The library's own hard limit sits above ours, so that connections past
    // our limit can still be told 503 instead of being dropped unanswered.
    const unsigned int hardLimit = unsigned(m_settings.maxConnections) + 64;
    // Pedantic: a request the protocol calls malformed (an HTTP/1.1 request
    // without Host, say) gets 400 rather than a guess.
    unsigned int flags = MHD_USE_EPOLL | MHD_USE_PEDANTIC_CHECKS;
    if (tls)
        flags |= MHD_USE_TLS;
    m_daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &answerCallback, this, MHD_OPTION_LISTEN_SOCKET,
        m_listenFd, MHD_OPTION_CONNECTION_LIMIT, hardLimit, MHD_OPTION_NOTIFY_COMPLETED, &completedCallback,
        this, MHD_OPTION_NOTIFY_CONNECTION, &connectionCallback, this, MHD_OPTION_UNESCAPE_CALLBACK,
        &keepEscapes, this, MHD_OPTION_URI_LOG_CALLBACK, &uriCallback, this,
        MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1,
        // Upload bodies are read in pieces of about half this (16 KiB by default).
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, size_t(256 * 1024),
        tls ? MHD_OPTION_HTTPS_MEM_CERT : MHD_OPTION_END, m_settings.certificatePem.constData(),
        MHD_OPTION_HTTPS_MEM_KEY, m_settings.keyPem.constData(), MHD_OPTION_END);
    if (!m_daemon) {
        m_error = tls ? QStringLiteral("the HTTPS certificate or key was not accepted")
                      : QStringLiteral("the HTTP library could not start");
        return false;
    }
    m_listenFd = -1; // the daemon owns it now
    m_thread = std::thread([this] { run(); });
    return true;
}

void HttpEngine::run()
{
    // A peer that goes away mid-body must not kill the program: SIGPIPE is
    // blocked on this thread, which lets the library use sendfile().
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    const int tick = qBound(20, m_settings.idleTimeoutMs / 4, progressIntervalMs);
    qint64 lastWatch = now();
    qint64 lastFlush = now();
    while (!m_stop) {
        MHD_run_wait(m_daemon, m_pending.isEmpty() ? tick : batchMs);
        if (now() - lastWatch >= tick) {
            lastWatch = now();
            watch();
        }
        // One hand-over per batch interval at most, however many turns the
        // loop makes: the windows' thread gets five signals a second at most,
        // each carrying every row's latest change, and repaints five times.
        if (!m_pending.isEmpty() && now() - lastFlush >= batchMs) {
            flush();
            lastFlush = now();
        }
    }
    // Ends what is still open, through the callbacks, on this thread.
    MHD_stop_daemon(m_daemon);
    m_daemon = nullptr;
    flush();
}

void HttpEngine::flush()
{
    if (m_pending.isEmpty())
        return;
    m_deliver(m_pending);
    m_pending.clear();
}

void HttpEngine::post(HttpEvent event)
{
    m_pending.append(std::move(event));
}

void HttpEngine::watch()
{
    const qint64 t = now();
    for (Connection *c : std::as_const(m_open)) {
        const SocketCounters counters = socketCounters(c->fd);
        const quint64 moved = counters.acked + counters.received;
        if (moved >= c->movedAtMark + progressBytes) {
            c->movedAtMark = moved;
            c->markMs = t;
        } else if (!c->timedOut && t - c->markMs >= m_settings.idleTimeoutMs) {
            // The library sees the socket end and closes the connection on its next turn.
            c->timedOut = true;
            ::shutdown(c->fd, SHUT_RDWR);
        }
        if (c->current && !c->current->put && c->current->total > 0)
            progress(*c->current, false);
    }
}

void HttpEngine::progress(Request &request, bool force)
{
    if (!request.rowed)
        return;
    const qint64 t = now();
    if (!force && request.lastProgressMs >= 0 && t - request.lastProgressMs < progressIntervalMs)
        return;
    request.lastProgressMs = t;
    qint64 done = request.received;
    qint64 total = request.total;
    if (!request.put) {
        const quint64 acked = request.connection ? socketCounters(request.connection->fd).acked : 0;
        done = qBound<qint64>(0, qint64(acked - request.ackedAtStart), qMax<qint64>(0, total));
    }
    HttpEvent event;
    event.request = request.id;
    if (force || total < 0) {
        event.data = QStringLiteral("%1 bytes").arg(done);
    } else {
        const qint64 percent = total > 0 ? done * 100 / total : 100;
        event.data = QStringLiteral("%1 of %2 bytes (%3%)").arg(done).arg(total).arg(percent);
    }
    post(event);
}

void HttpEngine::uriSeen(MHD_Connection *connection, const char *uri)
{
    const MHD_ConnectionInfo *info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    if (auto *c = info ? static_cast<Connection *>(info->socket_context) : nullptr)
        c->uriEnd = uri ? uri + std::strlen(uri) : nullptr;
}

void HttpEngine::connectionEvent(MHD_Connection *connection, void **socketContext, int event)
{
    if (event == MHD_CONNECTION_NOTIFY_STARTED) {
        auto *c = new Connection;
        const MHD_ConnectionInfo *fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
        c->fd = fd ? fd->connect_fd : -1;
        const MHD_ConnectionInfo *client
            = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
        c->remote = dotted(client ? client->client_addr : nullptr);
        sockaddr_in local {};
        socklen_t length = sizeof local;
        if (c->fd >= 0 && ::getsockname(c->fd, reinterpret_cast<sockaddr *>(&local), &length) == 0)
            c->local = dotted(reinterpret_cast<sockaddr *>(&local));
        c->markMs = now();
        ++m_connections;
        const int fromHere = ++m_perAddress[c->remote];
        c->overLimit = m_connections > m_settings.maxConnections || fromHere > m_settings.maxPerAddress;
        m_open.insert(c);
        *socketContext = c;
        return;
    }
    auto *c = static_cast<Connection *>(*socketContext);
    if (!c)
        return;
    m_open.remove(c);
    --m_connections;
    if (--m_perAddress[c->remote] <= 0)
        m_perAddress.remove(c->remote);
    if (c->current)
        c->current->connection = nullptr;
    delete c;
    *socketContext = nullptr;
}

void HttpEngine::requestEnded(void **requestContext, int termination)
{
    auto *request = static_cast<Request *>(*requestContext);
    if (!request)
        return;
    *requestContext = nullptr;
    Connection *c = request->connection;
    if (c) {
        c->current = nullptr;
        // A finished request is progress, however small.
        const SocketCounters counters = socketCounters(c->fd);
        c->movedAtMark = counters.acked + counters.received;
        c->markMs = now();
    }
    if (request->rowed) {
        HttpEvent event;
        event.kind = HttpEvent::Ended;
        event.request = request->id;
        if (termination == MHD_REQUEST_TERMINATED_COMPLETED_OK) {
            event.status = request->outcome;
            if (request->put)
                event.data = QStringLiteral("%1 bytes").arg(request->received);
            else if (request->total >= 0)
                event.data = QStringLiteral("%1 bytes").arg(request->total);
        } else {
            // Cut off: an upload's temporary file goes with the request.
            const bool timedOut = termination == MHD_REQUEST_TERMINATED_TIMEOUT_REACHED || (c && c->timedOut);
            event.status = timedOut ? QStringLiteral("TIMED OUT") : QStringLiteral("ABORTED");
            progress(*request, true);
        }
        post(event);
    }
    delete request;
}
