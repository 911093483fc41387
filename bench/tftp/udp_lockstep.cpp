// The machine's lock-step limit for TFTP over loopback: two processes trading
// a 516-byte "block" and a 4-byte "acknowledgement" as fast as they can, with
// no files and no event loop. No TFTP server can beat this rate with one
// client, so it puts the measured servers' figures into perspective.
// Prints MB/s (10^6 bytes of payload per second) for 512-byte blocks.

#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 20000;
    int a = ::socket(AF_INET, SOCK_DGRAM, 0);
    int b = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(a, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0
        || ::bind(b, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
        return 1;
    sockaddr_in aAddr {}, bAddr {};
    ::getsockname(a, reinterpret_cast<sockaddr *>(&aAddr), &len);
    len = sizeof bAddr;
    ::getsockname(b, reinterpret_cast<sockaddr *>(&bAddr), &len);
    ::connect(a, reinterpret_cast<sockaddr *>(&bAddr), sizeof bAddr);
    ::connect(b, reinterpret_cast<sockaddr *>(&aAddr), sizeof aAddr);

    char buffer[516] = {};
    const pid_t child = ::fork();
    if (child == 0) { // the "client": acknowledge every block
        for (int i = 0; i < rounds; ++i) {
            if (::recv(b, buffer, sizeof buffer, 0) < 0 || ::send(b, buffer, 4, 0) < 0)
                _exit(1);
        }
        _exit(0);
    }
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < rounds; ++i) {
        if (::send(a, buffer, sizeof buffer, 0) < 0 || ::recv(a, buffer, sizeof buffer, 0) < 0)
            return 1;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ::waitpid(child, nullptr, 0);
    std::printf("%.2f\n", 512.0 * rounds / seconds / 1e6);
    return 0;
}
