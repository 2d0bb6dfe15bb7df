// The session's two addresses and the connect that tries both.
#include "client/protocol/session_address.hpp"

#include "cli/runtime_dir.hpp"
#include "cli/session_id.hpp"
#include "client/protocol/frame.hpp"
#include "platform/clock.hpp"
#include "platform/process.hpp"
#include "platform/socket.hpp"
#include "platform/system.hpp"

#include <cstdint>

namespace tovel {

namespace {

// A keeper whose backlog is full takes the connection within moments; a
// listener that never accepts must not hang anyone.
constexpr int kFullBacklogRetries = 100;
constexpr std::int64_t kFullBacklogRetryMs = 10;

// FNV-1a, 64 bits: stable across builds, which a shared name needs.
std::uint64_t pathHash(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325u;
    for (char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3u;
    }
    return hash;
}

std::string hex64(std::uint64_t value) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string out(16, '0');
    for (std::size_t i = 0; i < out.size(); ++i)
        out[out.size() - 1 - i] = kDigits[(value >> (4 * i)) & 0xF];
    return out;
}

// No keeper at the path: a missing file (or directory), or nobody listening.
bool pathHasNoKeeper(Error error) {
    return error == Error::FileNotFound || error == Error::ConnectionRefused;
}

// Only a keeper of this user is a session of this user. The abstract name
// has no file permissions: any local user can bind it first, and talking to
// such a listener would hand it everything typed. A foreign listener counts
// as no keeper at all.
Result<UniqueFd> ownKeeper(Result<UniqueFd> connected) {
    if (!connected)
        return connected;
    auto peer = sys::peerUid(connected->get());
    if (!peer || *peer != sys::getuid())
        return fail(Error::ConnectionRefused);
    return connected;
}

Result<UniqueFd> connectAbstractKeeper(std::string_view runtimeDir, std::string_view id) {
    return ownKeeper(connectAbstractName(abstractSessionName(runtimeDir, id)));
}

} // namespace

std::string abstractNamePrefix(std::string_view runtimeDir) {
    return "tovel-ptyd/" + std::to_string(sys::getuid()) + "/" + hex64(pathHash(runtimeDir)) + "/";
}

std::string abstractSessionName(std::string_view runtimeDir, std::string_view id) {
    std::string name = abstractNamePrefix(runtimeDir);
    name.append(id);
    return name;
}

Result<UniqueFd> connectAbstractName(std::string_view name) {
    auto connected = sys::connectAbstract(name);
    for (int retry = 0;
         retry < kFullBacklogRetries && !connected && connected.error() == Error::WouldBlock;
         ++retry) {
        (void)sys::sleepMs(kFullBacklogRetryMs);
        connected = sys::connectAbstract(name);
    }
    if (connected)
        TRY(sys::setBlocking(connected->get()));
    return connected;
}

Result<UniqueFd> connectSessionIn(std::string_view runtimeDir, std::string_view id) {
    std::string name(id);
    name.append(".sock");
    auto connected = ownKeeper(connectSocketPath(joinPath(runtimeDir, name)));
    if (connected || !pathHasNoKeeper(connected.error()))
        return connected;
    if (auto abstract = connectAbstractKeeper(runtimeDir, id))
        return abstract;
    return connected;
}

Result<UniqueFd> connect_session(std::string_view id) {
    if (!isValidSessionId(id))
        return fail(Error::InvalidSessionId);
    auto directory = runtimeDir();
    if (directory)
        return connectSessionIn(*directory, id);
    if (directory.error() != Error::FileNotFound)
        return fail(directory.error());
    std::string chosen = TRY(chooseRuntimeDir());
    if (auto abstract = connectAbstractKeeper(chosen, id))
        return abstract;
    return fail(directory.error());
}

} // namespace tovel
