// Running the server for tests and speaking raw HTTP to it.
#include "serve_fixture.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tovel::test {

void ServeFixture::startServer(const std::vector<std::string>& extra) {
    ::mkdir(root().c_str(), 0755);
    std::vector<std::string> args = {"serve", root(), "--idle-timeout", "120"};
    args.insert(args.end(), extra.begin(), extra.end());
    RunOptions run;
    run.env["NO_COLOR"] = "1";
    server_ = std::make_unique<PtyProcess>(args, run);
    ASSERT_TRUE(server_->readUntil("\n"));
    const std::string prefix = "TOVEL_PTYD_SERVE_PORT ";
    ASSERT_EQ(server_->output().rfind(prefix, 0), 0u) << server_->output();
    port_ = std::stoi(server_->output().substr(prefix.size()));
}

int ServeFixture::connectClient() {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port_));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
        return fd;
    ::close(fd);
    return -1;
}

std::string ServeFixture::exchange(const std::string& request, AfterRequest after) {
    int fd = connectClient();
    std::string response;
    if (fd >= 0 && ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) ==
                       static_cast<ssize_t>(request.size())) {
        if (after == AfterRequest::HalfClose)
            ::shutdown(fd, SHUT_WR);
        for (;;) {
            pollfd entry{fd, POLLIN, 0};
            if (::poll(&entry, 1, 5000) <= 0)
                break;
            char buffer[65536];
            ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n <= 0)
                break;
            response.append(buffer, static_cast<std::size_t>(n));
        }
    }
    if (fd >= 0)
        ::close(fd);
    return response;
}

void ServeFixture::link(const std::string& target, const std::string& relative) {
    std::string path = root() + "/" + relative;
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0) << path;
}

} // namespace tovel::test
