// Load a TFTP server meets from a fleet, for bench/tftp/standard:
//   fleet_probe idle PORT FILE N
//       N clients on 127.0.0.1 each ask for FILE once and never answer; they
//       stay until the probe is terminated. Prints "idle N" once all are sent.
//   fleet_probe refusal PORT FILE ROUNDS GAP_MS
//       ROUNDS times: a request from 127.0.0.2 (which the server's access list
//       refuses), then GAP_MS later one from 127.0.0.1, timed until its first
//       block arrives (then ended with an ERROR). Prints
//       "answered A/ROUNDS worst MS median MS".

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

int boundSocket(const char *address)
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local {};
    local.sin_family = AF_INET;
    ::inet_pton(AF_INET, address, &local.sin_addr);
    ::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local);
    return fd;
}

void sendTo(int fd, const std::string &datagram, int port)
{
    sockaddr_in to {};
    to.sin_family = AF_INET;
    to.sin_port = htons(uint16_t(port));
    ::inet_pton(AF_INET, "127.0.0.1", &to.sin_addr);
    ::sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
}

std::string rrq(const char *file)
{
    return std::string("\0\1", 2) + file + std::string("\0octet\0", 7);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 5) {
        std::fprintf(stderr, "usage: fleet_probe idle PORT FILE N | refusal PORT FILE ROUNDS GAP_MS\n");
        return 2;
    }
    const std::string mode = argv[1];
    const int port = std::atoi(argv[2]);
    const char *file = argv[3];
    if (mode == "idle") {
        rlimit limit {};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        const int n = std::atoi(argv[4]);
        std::vector<int> clients;
        for (int i = 0; i < n; ++i) {
            clients.push_back(boundSocket("127.0.0.1"));
            sendTo(clients.back(), rrq(file), port);
            if (i % 100 == 99) // a burst the size of the port's buffer, not more
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::printf("idle %d\n", n);
        std::fflush(stdout);
        ::pause();
        return 0;
    }
    if (mode == "refusal" && argc >= 6) {
        const int rounds = std::atoi(argv[4]);
        const int gap = std::atoi(argv[5]);
        const int refused = boundSocket("127.0.0.2");
        std::vector<double> times;
        for (int i = 0; i < rounds; ++i) {
            sendTo(refused, rrq(file), port);
            std::this_thread::sleep_for(std::chrono::milliseconds(gap));
            const int allowed = boundSocket("127.0.0.1");
            const auto t0 = std::chrono::steady_clock::now();
            sendTo(allowed, rrq(file), port);
            pollfd p { allowed, POLLIN, 0 };
            char buffer[2048];
            sockaddr_in from {};
            socklen_t length = sizeof from;
            if (::poll(&p, 1, 2000) == 1
                && ::recvfrom(allowed, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr *>(&from), &length)
                    >= 4
                && buffer[1] == 3) {
                times.push_back(
                    std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
                const std::string bye("\0\5\0\0bench\0", 10);
                ::sendto(allowed, bye.data(), bye.size(), 0, reinterpret_cast<sockaddr *>(&from), length);
            }
            ::close(allowed);
            char drain[2048];
            while (::recv(refused, drain, sizeof drain, MSG_DONTWAIT) > 0) { }
        }
        std::sort(times.begin(), times.end());
        std::printf("answered %zu/%d worst %.1f ms median %.1f ms\n", times.size(), rounds,
            times.empty() ? 0.0 : times.back(), times.empty() ? 0.0 : times[times.size() / 2]);
        return times.size() == size_t(rounds) ? 0 : 1;
    }
    std::fprintf(stderr, "fleet_probe: unknown mode %s\n", argv[1]);
    return 2;
}
