// What the standard engine's I/O choices cost, measured on this machine:
//   1. wake-ups: round trips per second on one busy socket while N idle
//      sockets are open, (a) each idle socket registered with Qt's event
//      dispatcher (a QSocketNotifier each, as QUdpSocket does), (b) all of
//      them in one epoll set with one notifier on the epoll descriptor;
//   2. sending a window of 16 blocks of 1468 bytes: 16 sendto() calls
//      against one sendmsg() with UDP GSO (UDP_SEGMENT);
//   3. receiving: recvmsg() one at a time against recvmmsg() in batches of 16.
// Usage: tftp_wakeup_cost [IDLE_SOCKETS (1000)]

#include <QCoreApplication>
#include <QSocketNotifier>

#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103
#endif

namespace {

using Clock = std::chrono::steady_clock;

int udp(sockaddr_in *address = nullptr)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local);
    socklen_t length = sizeof local;
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&local), &length);
    if (address)
        *address = local;
    return fd;
}

// Round trips per second: the Qt side answers each datagram the echo thread sends.
double roundTrips(bool epoll, int idle, int rounds)
{
    sockaddr_in busyAddress {}, echoAddress {};
    const int busy = udp(&busyAddress);
    const int echo = udp(&echoAddress);
    ::fcntl(busy, F_SETFL, O_NONBLOCK);
    std::vector<int> idles;
    std::vector<std::unique_ptr<QSocketNotifier>> notifiers;
    const int ep = ::epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i < idle; ++i) {
        idles.push_back(udp());
        if (epoll) {
            epoll_event e {};
            e.events = EPOLLIN;
            e.data.fd = idles.back();
            ::epoll_ctl(ep, EPOLL_CTL_ADD, idles.back(), &e);
        } else {
            notifiers.push_back(std::make_unique<QSocketNotifier>(idles.back(), QSocketNotifier::Read));
        }
    }
    int done = 0;
    char buffer[600];
    const auto answer = [&] {
        while (::recv(busy, buffer, sizeof buffer, 0) > 0) {
            ::sendto(busy, buffer, 4, 0, reinterpret_cast<sockaddr *>(&echoAddress), sizeof echoAddress);
            if (++done == rounds)
                QCoreApplication::exit();
        }
    };
    std::unique_ptr<QSocketNotifier> watch;
    if (epoll) {
        epoll_event e {};
        e.events = EPOLLIN;
        e.data.fd = busy;
        ::epoll_ctl(ep, EPOLL_CTL_ADD, busy, &e);
        watch = std::make_unique<QSocketNotifier>(ep, QSocketNotifier::Read);
        QObject::connect(watch.get(), &QSocketNotifier::activated, [&] {
            epoll_event events[64];
            const int n = ::epoll_wait(ep, events, 64, 0);
            for (int i = 0; i < n; ++i)
                if (events[i].data.fd == busy)
                    answer();
        });
    } else {
        watch = std::make_unique<QSocketNotifier>(busy, QSocketNotifier::Read);
        QObject::connect(watch.get(), &QSocketNotifier::activated, answer);
    }
    std::thread peer([&] {
        char block[516] = {};
        for (int i = 0; i < rounds; ++i) {
            ::sendto(
                echo, block, sizeof block, 0, reinterpret_cast<sockaddr *>(&busyAddress), sizeof busyAddress);
            ::recv(echo, block, sizeof block, 0);
        }
    });
    const auto t0 = Clock::now();
    QCoreApplication::exec();
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    peer.join();
    notifiers.clear();
    watch.reset();
    for (int fd : idles)
        ::close(fd);
    ::close(ep);
    ::close(busy);
    ::close(echo);
    return rounds / seconds;
}

// Microseconds per window of 16 x 1472-byte datagrams, sent and drained.
double windowCost(bool gso, bool batchReceive, int windows)
{
    sockaddr_in to {};
    const int receiver = udp(&to);
    const int sender = udp();
    int big = 8 << 20;
    ::setsockopt(receiver, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof big);
    std::vector<char> window(16 * 1472, 'x');
    std::atomic<bool> stop { false };
    std::atomic<long> received { 0 };
    std::thread drain([&] {
        std::vector<char> space(16 * 1500);
        mmsghdr messages[16];
        iovec io[16];
        while (!stop) {
            if (batchReceive) {
                for (int i = 0; i < 16; ++i) {
                    io[i] = { space.data() + i * 1500, 1500 };
                    std::memset(&messages[i], 0, sizeof messages[i]);
                    messages[i].msg_hdr.msg_iov = &io[i];
                    messages[i].msg_hdr.msg_iovlen = 1;
                }
                pollfd p { receiver, POLLIN, 0 };
                const int n
                    = ::poll(&p, 1, 1) == 1 ? ::recvmmsg(receiver, messages, 16, MSG_DONTWAIT, nullptr) : 0;
                if (n > 0)
                    received += n;
            } else {
                pollfd p { receiver, POLLIN, 0 };
                if (::poll(&p, 1, 1) == 1 && ::recv(receiver, space.data(), 1500, 0) > 0)
                    ++received;
            }
        }
    });
    const auto t0 = Clock::now();
    for (int w = 0; w < windows; ++w) {
        if (gso) {
            iovec io { window.data(), window.size() };
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(uint16_t))] = {};
            msghdr message {};
            message.msg_name = &to;
            message.msg_namelen = sizeof to;
            message.msg_iov = &io;
            message.msg_iovlen = 1;
            message.msg_control = control;
            message.msg_controllen = sizeof control;
            cmsghdr *c = CMSG_FIRSTHDR(&message);
            c->cmsg_level = SOL_UDP;
            c->cmsg_type = UDP_SEGMENT;
            c->cmsg_len = CMSG_LEN(sizeof(uint16_t));
            const uint16_t segment = 1472;
            std::memcpy(CMSG_DATA(c), &segment, sizeof segment);
            if (::sendmsg(sender, &message, 0) < 0 && w == 0)
                std::perror("sendmsg with UDP_SEGMENT");
        } else {
            for (int i = 0; i < 16; ++i)
                ::sendto(
                    sender, window.data() + i * 1472, 1472, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
        }
        // Stay within the receiver's buffer (and give up if datagrams are lost).
        const auto waitStart = Clock::now();
        while (received < long(w + 1) * 16 - 64 && Clock::now() - waitStart < std::chrono::milliseconds(100))
            std::this_thread::yield();
    }
    while (received < long(windows) * 16 && std::chrono::duration<double>(Clock::now() - t0).count() < 10)
        std::this_thread::yield();
    const double micro = std::chrono::duration<double, std::micro>(Clock::now() - t0).count() / windows;
    stop = true;
    drain.join();
    ::close(receiver);
    ::close(sender);
    return micro;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IONBF, 0);
    rlimit limit {};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    const int idle = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int rounds = 20000;
    std::printf("1. round trips/s on one socket, Qt notifier per socket: 0 idle %.0f, %d idle %.0f\n",
        roundTrips(false, 0, rounds), idle, roundTrips(false, idle, rounds));
    std::printf("   round trips/s on one socket, one epoll notifier:     0 idle %.0f, %d idle %.0f\n",
        roundTrips(true, 0, rounds), idle, roundTrips(true, idle, rounds));
    const int windows = 20000;
    std::printf("2. window of 16 x 1468 bytes: 16 x sendto %.1f us, one sendmsg with UDP_SEGMENT %.1f us\n",
        windowCost(false, true, windows), windowCost(true, true, windows));
    std::printf("3. receiving those windows: recv one by one %.1f us per window, recvmmsg x16 %.1f us\n",
        windowCost(false, false, windows), windowCost(false, true, windows));
    return 0;
}
