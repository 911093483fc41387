#include "tftp/standard_loop.h"

#include <QSocketNotifier>
#include <QTimer>

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/epoll.h>
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
    // One system call for everything waiting (up to count): a lock-step
    // transfer then costs one call per ACK, not a second one to learn that
    // nothing more is there.
    mmsghdr messages[maxBatch];
    iovec io[maxBatch];
    sockaddr_in from[maxBatch];
    alignas(cmsghdr) char control[maxBatch][CMSG_SPACE(sizeof(in_pktinfo))];
    count = qMin(count, int(maxBatch));
    for (int i = 0; i < count; ++i) {
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
    const int n = ::recvmmsg(socket, messages, unsigned(count), MSG_DONTWAIT, nullptr);
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

StandardLoop::StandardLoop(QObject *parent)
    : QObject(parent)
    , m_engine(new StandardEngine(&m_net, this))
    , m_notifier(new QSocketNotifier(m_net.epollFd(), QSocketNotifier::Read, this))
    , m_timer(new QTimer(this))
    , m_flush(new QTimer(this))
{
    m_timer->setSingleShot(true);
    m_flush->setSingleShot(true);
    m_flush->setInterval(flushMs);
    connect(m_notifier, &QSocketNotifier::activated, this, &StandardLoop::readable);
    connect(m_timer, &QTimer::timeout, this, [this] {
        m_engine->expire(m_engine->now());
        settle();
    });
    connect(m_flush, &QTimer::timeout, this, [this] {
        m_engine->flush();
        settle(); // progress held back by the rate limit is shown by the next flush
    });
}

StandardLoop::~StandardLoop()
{
    delete m_engine; // closes its sockets while the epoll set still exists
    m_engine = nullptr;
}

void StandardLoop::readable()
{
    // While datagrams keep coming, a few rounds are handled per wake-up
    // before the event loop gets its turn again (timers, queued calls).
    for (int round = 0; round < roundsPerWakeUp; ++round) {
        epoll_event events[256];
        const int ready = ::epoll_wait(m_net.epollFd(), events, 256, 0);
        if (ready <= 0)
            break;
        for (int i = 0; i < ready; ++i) {
            const int socket = events[i].data.fd;
            const int n = m_net.readBatch(socket, m_received, datagramsPerWakeUp);
            for (int k = 0; k < n; ++k) {
                const EpollNet::Datagram &d = m_received[k];
                // The engine may close this socket while handling a datagram: the rest were for it.
                if (!m_engine->receive(socket, QByteArray::fromRawData(d.bytes.constData(), d.size), d.sender,
                        d.senderPort, d.destination))
                    break;
            }
        }
    }
    m_engine->expire(m_engine->now());
    settle();
}

void StandardLoop::settle()
{
    const qint64 next = m_engine->nextDeadline();
    if (next >= 0) {
        const qint64 wait = qMax<qint64>(0, next - m_engine->now());
        if (!m_timer->isActive() || m_timer->remainingTime() > wait)
            m_timer->start(int(qMin<qint64>(wait, 1 << 30)));
    }
    if (m_engine->hasUpdates() && !m_flush->isActive())
        m_flush->start();
}
