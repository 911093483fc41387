// Fires syslog-style datagrams of 100 to 300 bytes at a UDP port, as fast as
// possible (rate 0) or paced to a given number per second, and reports what it
// sent. Used by the log receiver's flood test and by bench/logrecv/run.
//
//     log_flood HOST PORT COUNT [RATE]

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>

int main(int argc, char **argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s HOST PORT COUNT [RATE]\n", argv[0]);
        return 2;
    }
    const long count = std::atol(argv[3]);
    const long rate = argc > 4 ? std::atol(argv[4]) : 0;
    sockaddr_in to {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(std::atoi(argv[2])));
    if (inet_pton(AF_INET, argv[1], &to.sin_addr) != 1) {
        std::fprintf(stderr, "bad address %s\n", argv[1]);
        return 2;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        std::perror("socket");
        return 1;
    }

    std::mt19937 random(514);
    std::uniform_int_distribution<int> size(100, 300);
    const std::string filler(300, 'x');
    char message[512];
    const auto start = std::chrono::steady_clock::now();
    long sent = 0;
    long failed = 0;
    for (long i = 0; i < count; ++i) {
        if (rate > 0) {
            // Pace against the clock, not per message, so the average holds.
            const auto due = start + std::chrono::nanoseconds(i * 1000000000LL / rate);
            if (std::chrono::steady_clock::now() < due)
                std::this_thread::sleep_until(due);
        }
        const int length = size(random);
        int n = std::snprintf(message, sizeof message,
            "<189>%ld: *Nov 22 23:59:59.123: %%LINEPROTO-5-UPDOWN: seq %08ld ", i, i);
        if (n < length) {
            std::memcpy(message + n, filler.data(), length - n);
            n = length;
        }
        if (send(fd, message, n, 0) == n)
            ++sent;
        else
            ++failed;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("sent %ld failed %ld seconds %.3f rate %.0f\n", sent, failed, seconds,
        seconds > 0 ? sent / seconds : 0.0);
    close(fd);
    return failed ? 1 : 0;
}
