// The owner of a loopback connection's other end.
#include "platform/socket_owner.hpp"

#include "platform/retry.hpp"
#include "platform/system.hpp"
#include "platform/unique_fd.hpp"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace tovel::sys {

namespace {

constexpr std::size_t kDiagReplySize = 8192;
constexpr char kHexDigits[] = "0123456789ABCDEF";

Result<sockaddr_in> socketAddress(int fd, int (*query)(int, sockaddr*, socklen_t*)) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (query(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return fail(errorFromErrno(errno));
    if (address.sin_family != AF_INET)
        return fail(Error::AddressFamilyNotSupported);
    return address;
}

void appendHex(std::string& out, std::uint32_t value, int digits) {
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
        out.push_back(kHexDigits[(value >> shift) & 0xF]);
}

// "ADDRESS:PORT" as /proc/net/tcp prints it: the address as the raw 32-bit
// word in hex, the port in host order.
void appendProcEnd(std::string& out, std::uint32_t address, std::uint16_t port) {
    appendHex(out, address, 8);
    out.push_back(':');
    appendHex(out, ntohs(port), 4);
}

Result<std::string> readWholeFile(std::string_view path) {
    UniqueFd file = TRY(open(path, O_RDONLY));
    std::string text;
    char buffer[65536];
    for (;;) {
        std::size_t got = TRY(read(file.get(), std::span(buffer, sizeof buffer)));
        if (got == 0)
            return text;
        text.append(buffer, got);
    }
}

} // namespace

Result<TcpEnds> tcpEnds(int fd) {
    sockaddr_in local = TRY(socketAddress(fd, ::getsockname));
    sockaddr_in peer = TRY(socketAddress(fd, ::getpeername));
    return TcpEnds{local.sin_addr.s_addr, local.sin_port, peer.sin_addr.s_addr, peer.sin_port};
}

Result<uid_t> peerOwnerByDiag(const TcpEnds& ends) {
    int raw = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (raw < 0)
        return fail(errorFromErrno(errno));
    UniqueFd netlink(raw);
    // The peer's socket is the one whose own end is our peer's address.
    struct {
        nlmsghdr header;
        inet_diag_req_v2 request;
    } message{};
    message.header.nlmsg_len = sizeof message;
    message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    message.header.nlmsg_flags = NLM_F_REQUEST;
    message.header.nlmsg_seq = 1;
    message.request.sdiag_family = AF_INET;
    message.request.sdiag_protocol = IPPROTO_TCP;
    message.request.idiag_states = ~0U;
    message.request.id.idiag_sport = ends.peerPort;
    message.request.id.idiag_dport = ends.localPort;
    message.request.id.idiag_src[0] = ends.peerAddress;
    message.request.id.idiag_dst[0] = ends.localAddress;
    message.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    message.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    ssize_t sent = retryOnInterrupt([&] {
        return ::sendto(netlink.get(), &message, sizeof message, 0,
                        reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
    });
    if (sent < 0)
        return fail(errorFromErrno(errno));
    alignas(nlmsghdr) char reply[kDiagReplySize];
    ssize_t got = retryOnInterrupt([&] { return ::recv(netlink.get(), reply, sizeof reply, 0); });
    if (got < 0)
        return fail(errorFromErrno(errno));
    auto* header = reinterpret_cast<nlmsghdr*>(reply);
    auto length = static_cast<unsigned>(got);
    for (; NLMSG_OK(header, length); header = NLMSG_NEXT(header, length)) {
        if (header->nlmsg_type == NLMSG_ERROR) {
            auto* error = static_cast<nlmsgerr*>(NLMSG_DATA(header));
            return fail(error->error < 0 ? errorFromErrno(-error->error) : Error::Unexpected);
        }
        if (header->nlmsg_type == SOCK_DIAG_BY_FAMILY &&
            header->nlmsg_len >= NLMSG_LENGTH(sizeof(inet_diag_msg)))
            return static_cast<inet_diag_msg*>(NLMSG_DATA(header))->idiag_uid;
    }
    return fail(Error::Unexpected);
}

Result<uid_t> peerOwnerByProcTable(const TcpEnds& ends) {
    std::string table = TRY(readWholeFile("/proc/net/tcp"));
    std::string wanted = " ";
    appendProcEnd(wanted, ends.peerAddress, ends.peerPort);
    wanted.push_back(' ');
    appendProcEnd(wanted, ends.localAddress, ends.localPort);
    wanted.push_back(' ');
    std::size_t at = table.find(wanted);
    if (at == std::string::npos)
        return fail(Error::FileNotFound);
    // After the two ends: state, queues, timer, retransmits, then the uid.
    std::string_view rest = std::string_view(table).substr(at + wanted.size());
    for (int field = 0; field < 4; ++field) {
        std::size_t space = rest.find_first_of(" \n");
        if (space == std::string_view::npos || rest[space] == '\n')
            return fail(Error::Unexpected);
        std::size_t next = rest.find_first_not_of(' ', space);
        if (next == std::string_view::npos)
            return fail(Error::Unexpected);
        rest.remove_prefix(next);
    }
    uid_t uid = 0;
    std::size_t digits = 0;
    for (; digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9'; ++digits)
        uid = uid * 10 + static_cast<uid_t>(rest[digits] - '0');
    if (digits == 0)
        return fail(Error::Unexpected);
    return uid;
}

uid_t effectiveUid() {
    return ::geteuid();
}

} // namespace tovel::sys
