#include "tftp/standard_loop.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <future>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103 // Linux 4.18; older C libraries lack the name
#endif

EpollNet::EpollNet()
    : m_epoll(::epoll_create1(EPOLL_CLOEXEC))
{ }

EpollNet::~EpollNet()
{
    if (m_epoll >= 0)
        ::close(m_epoll);
}

int EpollNet::open(quint32 address, quint16 port)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        return -1;
    }
    const int on = 1;
    // The listener learns which of the host's addresses each request reached,
    // so the transfer can answer from that same address.
    if (port != 0) {
        ::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
        // A rack booting at once sends its requests in one burst: room for a
        // few thousand of them (beyond net.core.rmem_max only with the privilege).
        const int bytes = 4 << 20;
        if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    }
    sockaddr_in local {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(address);
    local.sin_port = htons(port);
    epoll_event event {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0
        || ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &event) != 0) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        ::close(fd);
        return -1;
    }
    return fd;
}

void EpollNet::close(int socket)
{
    ::close(socket); // also leaves the epoll set
}

void EpollNet::detach(int socket)
{
    ::epoll_ctl(m_epoll, EPOLL_CTL_DEL, socket, nullptr);
}

void EpollNet::attach(int socket)
{
    // Level-triggered: datagrams that arrived while the socket was between
    // two sets are reported at once.
    epoll_event event {};
    event.events = EPOLLIN;
    event.data.fd = socket;
    ::epoll_ctl(m_epoll, EPOLL_CTL_ADD, socket, &event);
}

quint16 EpollNet::localPort(int socket) const
{
    sockaddr_in local {};
    socklen_t length = sizeof local;
    if (::getsockname(socket, reinterpret_cast<sockaddr *>(&local), &length) != 0)
        return 0;
    return ntohs(local.sin_port);
}

void EpollNet::send(int socket, const QByteArray &datagram, quint32 to, quint16 port)
{
    sockaddr_in peer {};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(to);
    peer.sin_port = htons(port);
    // A full send buffer drops the datagram; the retransmission timer covers it.
    [[maybe_unused]] const ssize_t sent = ::sendto(socket, datagram.constData(), size_t(datagram.size()), 0,
        reinterpret_cast<sockaddr *>(&peer), sizeof peer);
}

void EpollNet::sendSegments(int socket, const QByteArray &datagrams, int segment, quint32 to, quint16 port)
{
    if (m_segments) {
        sockaddr_in peer {};
        peer.sin_family = AF_INET;
        peer.sin_addr.s_addr = htonl(to);
        peer.sin_port = htons(port);
        iovec io { const_cast<char *>(datagrams.constData()), size_t(datagrams.size()) };
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(quint16))] = {};
        msghdr message {};
        message.msg_name = &peer;
        message.msg_namelen = sizeof peer;
        message.msg_iov = &io;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        cmsghdr *c = CMSG_FIRSTHDR(&message);
        c->cmsg_level = SOL_UDP;
        c->cmsg_type = UDP_SEGMENT;
        c->cmsg_len = CMSG_LEN(sizeof(quint16));
        const quint16 size = quint16(segment);
        std::memcpy(CMSG_DATA(c), &size, sizeof size);
        if (::sendmsg(socket, &message, 0) >= 0 || errno == EAGAIN || errno == EWOULDBLOCK)
            return; // a full buffer drops the window; the retransmission timer covers it
        if (errno != EIO && errno != EINVAL && errno != ENOPROTOOPT && errno != EOPNOTSUPP)
            return;
        m_segments = false; // no GSO on this kernel or route: one by one from now on
    }
    EngineNet::sendSegments(socket, datagrams, segment, to, port);
}

int EpollNet::sendBufferBytes(int socket) const
{
    int bytes = 0;
    socklen_t length = sizeof bytes;
    if (::getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, &length) != 0)
        return 65536;
    return bytes;
}

int EpollNet::readBatch(int socket, Datagram *out, int count)
{
    // One system call for everything waiting (up to count): a burst of
    // requests on the listener costs one call, not one each plus one to
    // learn that nothing more is there.
    mmsghdr messages[maxBatch];
    iovec io[maxBatch];
    sockaddr_in from[maxBatch];
    alignas(cmsghdr) char control[maxBatch][CMSG_SPACE(sizeof(in_pktinfo))];
    count = qBound(1, count, int(maxBatch));
    for (int i = 0; i < count; ++i) {
        if (out[i].bytes.size() != 65536 + 4) // kept between reads: no allocation per datagram
            out[i].bytes.resize(65536 + 4);
        io[i] = { out[i].bytes.data(), size_t(out[i].bytes.size()) };
        messages[i] = {};
        messages[i].msg_hdr.msg_name = &from[i];
        messages[i].msg_hdr.msg_namelen = sizeof from[i];
        messages[i].msg_hdr.msg_iov = &io[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_control = control[i];
        messages[i].msg_hdr.msg_controllen = sizeof control[i];
    }
    // A single read is a plain recvmsg: recvmmsg would look for a second
    // datagram that a lock-step peer has not sent yet.
    int n;
    if (count == 1) {
        const ssize_t got = ::recvmsg(socket, &messages[0].msg_hdr, MSG_DONTWAIT);
        messages[0].msg_len = got > 0 ? unsigned(got) : 0;
        n = got >= 0 ? 1 : -1;
    } else {
        n = ::recvmmsg(socket, messages, unsigned(count), MSG_DONTWAIT, nullptr);
    }
    for (int i = 0; i < n; ++i) {
        Datagram &d = out[i];
        d.size = qint64(messages[i].msg_len);
        d.sender = ntohl(from[i].sin_addr.s_addr);
        d.senderPort = ntohs(from[i].sin_port);
        d.destination = 0;
        msghdr &message = messages[i].msg_hdr;
        for (cmsghdr *c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
            if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
                in_pktinfo info;
                std::memcpy(&info, CMSG_DATA(c), sizeof info);
                d.destination = ntohl(info.ipi_addr.s_addr);
            }
        }
    }
    return qMax(0, n);
}

StandardLoop::StandardLoop()
    : m_engine(std::make_unique<StandardEngine>(&m_net))
    , m_wake(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    epoll_event event {};
    event.events = EPOLLIN;
    event.data.fd = m_wake;
    ::epoll_ctl(m_net.epollFd(), EPOLL_CTL_ADD, m_wake, &event);
    m_engine->moveToThread(this);
}

StandardLoop::~StandardLoop()
{
    stop();
    m_queue.clear(); // transfers handed to this loop too late close their sockets here
    m_engine.reset(); // closes its sockets while the epoll set still exists
    ::close(m_wake);
}

void StandardLoop::stop()
{
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    const quint64 one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wake, &one, sizeof one);
    wait();
}

void StandardLoop::post(std::function<void(StandardEngine &)> work)
{
    {
        std::lock_guard lock(m_mutex);
        m_queue.push_back(std::move(work));
    }
    const quint64 one = 1;
    [[maybe_unused]] const ssize_t written = ::write(m_wake, &one, sizeof one);
}

void StandardLoop::call(std::function<void(StandardEngine &)> work)
{
    std::promise<void> done;
    post([&](StandardEngine &engine) {
        work(engine);
        done.set_value();
    });
    done.get_future().wait();
}

int StandardLoop::timeoutMs(qint64 now) const
{
    qint64 at = m_engine->nextDeadline();
    if (m_flushAt >= 0 && (at < 0 || m_flushAt < at))
        at = m_flushAt;
    if (at < 0)
        return -1;
    return int(qBound<qint64>(0, at - now, qint64(1) << 30));
}

void StandardLoop::runQueued()
{
    quint64 count = 0;
    [[maybe_unused]] const ssize_t got = ::read(m_wake, &count, sizeof count);
    std::vector<std::function<void(StandardEngine &)>> work;
    {
        std::lock_guard lock(m_mutex);
        work.swap(m_queue);
    }
    for (auto &w : work)
        w(*m_engine);
}

void StandardLoop::afterWork(qint64 now)
{
    if (m_engine->hasHandOffs())
        m_engine->handOffAccepted();
    const qint64 due = m_engine->nextDeadline();
    if (due >= 0 && due <= now)
        m_engine->expire(now);
    if (m_flushAt >= 0 && now >= m_flushAt) {
        m_engine->flush();
        m_flushAt = -1;
    }
    // Progress held back by the rate limit is shown by the next flush.
    if (m_flushAt < 0 && m_engine->hasUpdates())
        m_flushAt = now + flushMs;
}

bool StandardLoop::deliver(int socket, int count)
{
    const int n = m_net.readBatch(socket, m_received, count);
    for (int k = 0; k < n; ++k) {
        const EpollNet::Datagram &d = m_received[k];
        // The engine may close this socket while handling a datagram: the rest were for it.
        if (!m_engine->receive(socket, QByteArray::fromRawData(d.bytes.constData(), d.size), d.sender,
                d.senderPort, d.destination))
            return false;
    }
    return n > 0;
}

void StandardLoop::run()
{
    const int epoll = m_net.epollFd();
    for (;;) {
        epoll_event events[256];
        const int ready = ::epoll_wait(epoll, events, 256, timeoutMs(m_engine->now()));
        for (int i = 0; i < ready; ++i) {
            const int socket = events[i].data.fd;
            if (socket == m_wake) {
                runQueued();
                std::lock_guard lock(m_mutex);
                if (m_stop)
                    return;
                continue;
            }
            // Transfers read one datagram per round: a lock-step peer has
            // sent no more, and a stranger's flood cannot crowd out the rest.
            deliver(socket, socket == m_engine->listenerSocket() ? datagramsPerWakeUp : 1);
        }
        afterWork(m_engine->now());
    }
}
