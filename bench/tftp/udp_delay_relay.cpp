// An emulated LAN for TFTP: udp_delay_relay LISTEN_PORT SERVER_PORT [DELAY_US]
// holds every datagram DELAY_US microseconds (500 by default) in each
// direction between clients on 127.0.0.1 and a TFTP server on 127.0.0.1, so
// one round trip costs about 1 ms, as on a switched LAN. (This kernel has no
// netem to do it.)
//
// TFTP moves each transfer to a port of its own, so the relay mirrors that:
// per client it talks to the server from one upstream socket, and for each
// server port it answers the client from a socket of its own, so the client
// sees one transfer ID per server port, as it would without the relay.
//
// It also measures each server's turnaround the same way for every server:
// from the moment the relay hands a datagram to the server (just before its
// sendto) to the kernel's arrival stamp (SO_TIMESTAMPNS) of the last datagram
// the server sent before the next one was handed to it: one DATA in
// lock-step, the whole window with windowsize, whose last block is what the
// client waits for. That is the server's wake-up, its work and its sends,
// plus loopback both ways, and none of the relay's own wake-up. On SIGUSR1 it
// prints "turnaround N median_us p90_us mean_us" to stderr for what it saw
// since the last report, and starts again.

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

volatile std::sig_atomic_t reportWanted = 0;

long long realtimeNs()
{
    timespec t {};
    ::clock_gettime(CLOCK_REALTIME, &t);
    return t.tv_sec * 1000000000LL + t.tv_nsec;
}

void report(std::vector<long long> &turnarounds)
{
    if (turnarounds.empty()) {
        std::fprintf(stderr, "turnaround 0 - - -\n");
        return;
    }
    std::sort(turnarounds.begin(), turnarounds.end());
    long long sum = 0;
    for (const long long t : turnarounds)
        sum += t;
    const std::size_t n = turnarounds.size();
    std::fprintf(stderr, "turnaround %zu %.1f %.1f %.1f\n", n, turnarounds[n / 2] / 1e3,
        turnarounds[n * 9 / 10] / 1e3, double(sum) / double(n) / 1e3);
    turnarounds.clear();
}

using Clock = std::chrono::steady_clock;

int udpSocket(unsigned short port)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    int size = 4 << 20;
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    sockaddr_in address {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        std::perror("udp_delay_relay: bind");
        std::exit(1);
    }
    return fd;
}

struct Pending
{
    Clock::time_point due;
    int fromFd;
    sockaddr_in to;
    std::vector<char> data;
};

struct Session
{
    sockaddr_in client;
    int upstream; // talks to the server
    long long handedAt = 0; // realtime ns of the last datagram handed to the server
    long long answeredAt = 0; // arrival of the server's latest datagram since then, 0 if none
    std::map<unsigned short, int> facing; // server port -> socket facing the client
};

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: udp_delay_relay LISTEN_PORT SERVER_PORT [DELAY_US]\n");
        return 2;
    }
    const unsigned short serverPort = static_cast<unsigned short>(std::atoi(argv[2]));
    const auto delay = std::chrono::microseconds(argc > 3 ? std::atoi(argv[3]) : 500);
    const int listener = udpSocket(static_cast<unsigned short>(std::atoi(argv[1])));

    std::vector<Session> sessions;
    std::deque<Pending> queue; // one delay for all: arrival order is due order
    std::vector<char> buffer(65536);
    sockaddr_in server {};
    server.sin_family = AF_INET;
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);

    std::vector<long long> turnarounds;
    struct sigaction wanted;
    std::memset(&wanted, 0, sizeof wanted);
    wanted.sa_handler = [](int) { reportWanted = 1; };
    ::sigaction(SIGUSR1, &wanted, nullptr);

    for (;;) {
        if (reportWanted) {
            reportWanted = 0;
            for (Session &s : sessions) { // the answer to the last datagram handed over
                if (s.answeredAt != 0)
                    turnarounds.push_back(s.answeredAt - s.handedAt);
                s.handedAt = s.answeredAt = 0;
            }
            report(turnarounds);
        }
        std::vector<pollfd> fds { { listener, POLLIN, 0 } };
        for (const Session &s : sessions) {
            fds.push_back({ s.upstream, POLLIN, 0 });
            for (const auto &[port, fd] : s.facing)
                fds.push_back({ fd, POLLIN, 0 });
        }
        timespec wait { 1, 0 };
        if (!queue.empty()) {
            const auto left
                = std::chrono::duration_cast<std::chrono::nanoseconds>(queue.front().due - Clock::now());
            const long long ns = left.count() > 0 ? left.count() : 0;
            wait = { time_t(ns / 1000000000), long(ns % 1000000000) };
        }
        ::ppoll(fds.data(), fds.size(), &wait, nullptr);

        for (const pollfd &p : fds) {
            if (!(p.revents & POLLIN))
                continue;
            for (;;) {
                sockaddr_in from {};
                iovec io { buffer.data(), buffer.size() };
                alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
                msghdr message {};
                message.msg_name = &from;
                message.msg_namelen = sizeof from;
                message.msg_iov = &io;
                message.msg_iovlen = 1;
                message.msg_control = control;
                message.msg_controllen = sizeof control;
                const ssize_t n = ::recvmsg(p.fd, &message, 0);
                if (n < 0)
                    break;
                long long arrived = 0;
                for (cmsghdr *c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
                    if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
                        timespec t;
                        std::memcpy(&t, CMSG_DATA(c), sizeof t);
                        arrived = t.tv_sec * 1000000000LL + t.tv_nsec;
                    }
                }
                Pending out { Clock::now() + delay, -1, {},
                    std::vector<char>(buffer.data(), buffer.data() + n) };
                if (p.fd == listener) { // a request: to the server's listening port
                    Session *session = nullptr;
                    for (Session &s : sessions)
                        if (s.client.sin_port == from.sin_port
                            && s.client.sin_addr.s_addr == from.sin_addr.s_addr)
                            session = &s;
                    if (!session) {
                        const int upstream = udpSocket(0);
                        const int on = 1;
                        ::setsockopt(upstream, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
                        sessions.push_back({ from, upstream, 0, 0, {} });
                        session = &sessions.back();
                    }
                    out.fromFd = session->upstream;
                    out.to = server;
                    out.to.sin_port = htons(serverPort);
                } else {
                    for (Session &s : sessions) {
                        if (p.fd
                            == s.upstream) { // from the server: back to the client from that port's socket
                            const unsigned short port = ntohs(from.sin_port);
                            if (s.handedAt != 0)
                                s.answeredAt = arrived;
                            if (!s.facing.count(port))
                                s.facing[port] = udpSocket(0);
                            out.fromFd = s.facing[port];
                            out.to = s.client;
                        }
                        for (const auto &[port, fd] : s.facing) {
                            if (p.fd == fd) { // from the client to a transfer port
                                out.fromFd = s.upstream;
                                out.to = server;
                                out.to.sin_port = htons(port);
                            }
                        }
                    }
                }
                if (out.fromFd >= 0)
                    queue.push_back(std::move(out));
            }
        }
        const auto now = Clock::now();
        while (!queue.empty() && queue.front().due <= now) {
            const Pending &p = queue.front();
            if (p.to.sin_port != htons(serverPort)) { // to a transfer's port (a request's answer opens files)
                for (Session &s : sessions) {
                    if (s.upstream == p.fromFd) {
                        if (s.answeredAt != 0)
                            turnarounds.push_back(s.answeredAt - s.handedAt);
                        s.handedAt = realtimeNs();
                        s.answeredAt = 0;
                    }
                }
            }
            ::sendto(p.fromFd, p.data.data(), p.data.size(), 0, reinterpret_cast<const sockaddr *>(&p.to),
                sizeof p.to);
            queue.pop_front();
        }
    }
}
