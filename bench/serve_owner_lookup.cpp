// The cost of finding who owns the other end of a loopback connection, the
// check the file server makes for every request: one connection is made
// and its owner looked up many times, through socket diagnostics and
// through /proc/net/tcp. Prints microseconds per lookup.
#include "platform/clock.hpp"
#include "platform/socket_owner.hpp"
#include "platform/tcp.hpp"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace tovel;

int main(int argc, char** argv) {
    int rounds = argc > 1 ? std::atoi(argv[1]) : 20000;
    auto listener = sys::tcpSocket();
    if (!listener || !sys::bindLoopback(listener->get(), 0) || !sys::listen(listener->get(), 1))
        return 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(sys::boundPort(listener->get()).value_or(0));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int client = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return 1;
    auto accepted = sys::accept(listener->get());
    if (!accepted)
        return 1;
    for (auto [name, lookup] : {std::pair{"sock_diag", &sys::peerOwnerByDiag},
                                std::pair{"/proc/net/tcp", &sys::peerOwnerByProcTable}}) {
        std::int64_t start = sys::monotonicNs();
        for (int i = 0; i < rounds; ++i) {
            auto ends = sys::tcpEnds(accepted->get());
            if (!ends || !lookup(*ends))
                return 1;
        }
        double us = double(sys::monotonicNs() - start) / rounds / 1000.0;
        std::printf("%s %.1f\n", name, us);
    }
    return 0;
}
