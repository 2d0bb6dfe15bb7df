// One connection: reading its request head within the deadline, checking
// who sent it and for which host, routing it (raw files under "/", the
// file browser under "/__tovel/") and answering from opened descriptors.
#include "serve/connection.hpp"

#include "platform/clock.hpp"
#include "platform/directory.hpp"
#include "platform/system.hpp"
#include "platform/tcp.hpp"
#include "serve/browser_page.hpp"
#include "serve/html_text.hpp"
#include "serve/http_response.hpp"
#include "serve/open_target.hpp"
#include "serve/path_rules.hpp"
#include "serve/peer_owner.hpp"
#include "serve/redirect_location.hpp"
#include "serve/request_head.hpp"

#include <poll.h>
#include <sys/stat.h>

namespace tovel::serve {

namespace {

constexpr std::string_view kBrowserPrefix = "/__tovel";
constexpr std::size_t kFileChunkSize = 65536;
// sendfile moves file bytes to the socket inside the kernel; large counts
// keep a big download to a handful of calls.
constexpr std::size_t kSendfileChunkSize = 4 * 1024 * 1024;
// The whole head must arrive within this long, however it is trickled; a
// connection served on the accept thread gets far less.
constexpr int kHeadDeadlineSeconds = 10;
constexpr std::int64_t kHeadDeadlineMs = kHeadDeadlineSeconds * 1000;
constexpr std::int64_t kInlineHeadDeadlineMs = 1000;
// A client that stops reading its response would otherwise hold its thread
// forever: a send that makes no progress for this long ends the response.
constexpr int kStalledSendTimeoutSeconds = 120;
// Page pieces are gathered into writes of this size: a long listing goes
// out in a few large writes rather than many small ones.
constexpr std::size_t kPageBufferSize = 65536;

enum class Method { Get, Head };

struct Request {
    Method method;
    std::string_view path;  // raw, still percent-encoded
    std::string_view query; // after "?", without the fragment
};

// Reads until the blank line that ends the head, or until the deadline.
// nullopt (no response at all) for end of stream, a read error, a head
// that does not fit or one that is late.
std::optional<std::string_view> readHead(int fd, std::span<char> buffer, std::int64_t deadlineMs) {
    std::size_t used = 0;
    while (used < buffer.size()) {
        auto got = sys::receiveNow(fd, buffer.subspan(used));
        if (!got && got.error() == Error::WouldBlock) {
            std::int64_t left = deadlineMs - sys::monotonicMs();
            pollfd entry{fd, POLLIN, 0};
            auto ready =
                left > 0 ? sys::poll(std::span(&entry, 1), static_cast<int>(left)) : Result<int>(0);
            if (!ready || *ready == 0)
                return std::nullopt;
            continue;
        }
        if (!got || *got == 0)
            return std::nullopt;
        std::size_t searched = used;
        used += *got;
        std::string_view text(buffer.data(), used);
        if (headEnd(text, searched))
            return text;
    }
    return std::nullopt;
}

// Writes all of `bytes` to the blocking socket. A client that has read
// nothing for the send timeout (WouldBlock) ends the response like one that
// has gone away.
Result<> sendAll(int fd, std::string_view bytes, sys::MoreToCome more = sys::MoreToCome::No) {
    while (!bytes.empty()) {
        std::size_t written = TRY(sys::send(fd, bytes, more));
        if (written == 0)
            return fail(Error::BrokenPipe);
        bytes.remove_prefix(written);
    }
    return {};
}

class Responder {
  public:
    Responder(int fd, Method method) : fd_(fd), method_(method) {}

    void error(Status status) {
        send(errorResponse(status, method_ == Method::Head ? Body::Omit : Body::Send));
    }
    // Redirects that repeat the request path build it from the path as
    // received, in one way for every route (see redirectLocation): the
    // target always stays a path on this server.
    void redirect(std::string_view prefix, std::string_view rawPath, std::string_view suffix) {
        send(redirectHead(redirectLocation(prefix, rawPath, suffix)));
    }
    bool send(std::string_view bytes, sys::MoreToCome more = sys::MoreToCome::No) {
        return sendAll(fd_, bytes, more).has_value();
    }
    [[nodiscard]] Method method() const { return method_; }
    [[nodiscard]] int fd() const { return fd_; }

  private:
    int fd_;
    Method method_;
};

// Page bytes gathered into socket-sized writes.
class SocketBodyWriter final : public BodyWriter {
  public:
    explicit SocketBodyWriter(int fd) : fd_(fd) { buffer_.reserve(kPageBufferSize); }
    Result<> write(std::string_view bytes) override {
        if (buffer_.size() + bytes.size() > kPageBufferSize)
            TRY(flush());
        if (bytes.size() >= kPageBufferSize)
            return sendAll(fd_, bytes);
        buffer_.append(bytes);
        return {};
    }
    Result<> flush() {
        if (buffer_.empty())
            return {};
        auto written = sendAll(fd_, buffer_);
        buffer_.clear();
        return written;
    }

  private:
    int fd_;
    std::string buffer_;
};

// Sends the regular file open on `file`, exactly the size it had when it
// was opened: bytes it gains meanwhile are not sent, and a file that
// shrinks ends the connection with the body short.
void sendFile(Responder& out, const OpenTarget& file, std::string_view name,
              Disposition disposition) {
    auto size = static_cast<std::uint64_t>(file.status.st_size);
    // With a body to follow, the head waits to share its first segment.
    bool bodyFollows = out.method() == Method::Get && size > 0;
    if (!out.send(staticFileHead(contentTypeFor(name), size, disposition),
                  bodyFollows ? sys::MoreToCome::Yes : sys::MoreToCome::No))
        return;
    if (out.method() == Method::Head)
        return;
    std::uint64_t left = size;
    while (left > 0) {
        auto sent = sys::sendfile(out.fd(), file.fd.get(),
                                  std::min<std::uint64_t>(left, kSendfileChunkSize));
        if (sent && *sent > 0) {
            left -= *sent;
            continue;
        }
        if (sent)
            return;
        if (sent.error() != Error::InvalidArgument && sent.error() != Error::OperationNotSupported)
            return;
        // No sendfile for this file: copy through a buffer.
        char buffer[kFileChunkSize];
        while (left > 0) {
            std::size_t want = std::min<std::uint64_t>(left, sizeof buffer);
            auto got = sys::read(file.fd.get(), std::span(buffer, want));
            if (!got || *got == 0 || !out.send(std::string_view(buffer, *got)))
                return;
            left -= *got;
        }
    }
}

std::string_view lastSegment(std::string_view path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void serveRaw(Responder& out, const ServeSettings& settings, const Request& request) {
    auto target = openRequestPath(settings, request.path);
    if (!target) {
        out.error(target.error());
        return;
    }
    Disposition disposition =
        flagOn(request.query, "download") ? Disposition::Attachment : Disposition::Inline;
    bool endsInSlash = request.path.ends_with('/');
    if (S_ISDIR(target->status.st_mode)) {
        if (settings.browseMode == BrowseMode::On) {
            out.redirect(kBrowserPrefix, request.path, endsInSlash ? "" : "/");
            return;
        }
        if (!endsInSlash) {
            out.redirect("", request.path, "/");
            return;
        }
        // An index page is a file like any other: inside ".ssh", or a link
        // to a key, it is refused.
        target =
            openRelative(settings, target->relative.empty() ? std::string("index.html")
                                                            : target->relative + "/index.html");
        if (!target) {
            out.error(target.error());
            return;
        }
    }
    if (!S_ISREG(target->status.st_mode)) {
        out.error(Status::NotFound);
        return;
    }
    if (isProtectedTarget(settings, *target)) {
        out.error(Status::Forbidden);
        return;
    }
    sendFile(out, *target, lastSegment(target->relative), disposition);
}

bool hasHiddenSegment(std::string_view decoded) {
    while (!decoded.empty()) {
        std::size_t slash = decoded.find('/');
        std::string_view segment = decoded.substr(0, slash);
        decoded = slash == std::string_view::npos ? std::string_view() : decoded.substr(slash + 1);
        if (segment.size() >= 2 && segment.front() == '.')
            return true;
    }
    return false;
}

void serveBrowser(Responder& out, const ServeSettings& settings, const Request& request) {
    std::string_view path = request.path.substr(kBrowserPrefix.size()); // from its "/"
    HiddenFiles hidden = flagOn(request.query, "hidden") ? HiddenFiles::Shown : HiddenFiles::Hidden;
    if (hidden == HiddenFiles::Hidden) {
        auto decoded = percentDecode(path);
        if (decoded && hasHiddenSegment(*decoded)) {
            out.error(Status::NotFound);
            return;
        }
    }
    auto target = openRequestPath(settings, path);
    if (!target) {
        out.error(target.error());
        return;
    }
    bool isDirectory = S_ISDIR(target->status.st_mode);
    if (!isDirectory && !S_ISREG(target->status.st_mode)) {
        out.error(Status::NotFound);
        return;
    }
    // A protected directory is not listed either: its names alone (key
    // files, hosts) are what it protects.
    if (isProtectedTarget(settings, *target)) {
        out.error(Status::Forbidden);
        return;
    }
    if (!isDirectory) {
        std::string location;
        appendRawUrl(location, target->relative);
        out.send(redirectHead(location));
        return;
    }
    if (!path.ends_with('/')) {
        out.redirect(kBrowserPrefix, path, "/");
        return;
    }
    auto directory = sys::DirectoryReader::fromDescriptor(std::move(target->fd));
    if (!directory) {
        out.error(Status::NotFound);
        return;
    }
    if (!out.send(browserPageHead()) || out.method() == Method::Head)
        return;
    std::string pagePath = "/" + target->relative;
    if (!target->relative.empty())
        pagePath.push_back('/');
    BrowserPageRequest page{settings.rootRealPath,
                            pagePath,
                            target->realPath,
                            hidden,
                            queryParameter(request.query, "q"),
                            &*directory};
    SocketBodyWriter body(out.fd());
    if (writeBrowserPage(body, page))
        (void)body.flush();
}

void answer(int fd, ServeSettings& settings, std::string_view head) {
    if (checkPeerOwner(fd) == PeerAccess::Refused) {
        Responder(fd, Method::Get).error(Status::Forbidden);
        return;
    }
    RequestLine line = parseRequestLine(head);
    if (line.version.empty()) {
        Responder(fd, Method::Get).error(Status::BadRequest);
        return;
    }
    if (line.method != "GET" && line.method != "HEAD") {
        Responder(fd, Method::Get).error(Status::MethodNotAllowed);
        return;
    }
    Responder out(fd, line.method == "HEAD" ? Method::Head : Method::Get);
    if (checkHost(head) == HostCheck::Refused) {
        out.error(Status::Forbidden);
        return;
    }
    settings.lastActivityMs.store(sys::monotonicMs());

    Target target = splitTarget(line.target);
    Request request{out.method(), target.path, target.query};
    if (request.path.empty() || request.path.front() != '/') {
        out.error(Status::Forbidden);
        return;
    }
    if (request.path == kBrowserPrefix) {
        out.redirect(kBrowserPrefix, "/", "");
        return;
    }
    if (request.path.starts_with("/__tovel/")) {
        serveBrowser(out, settings, request);
        return;
    }
    serveRaw(out, settings, request);
}

} // namespace

void setConnectionTimeouts(int listenerFd) {
    (void)sys::setDeferAccept(listenerFd, kHeadDeadlineSeconds);
    (void)sys::setSendTimeout(listenerFd, kStalledSendTimeoutSeconds);
}

void handleConnection(UniqueFd socket, ServeSettings& settings, Handling handling) {
    std::int64_t deadline =
        sys::monotonicMs() +
        (handling == Handling::Inline ? kInlineHeadDeadlineMs : kHeadDeadlineMs);
    char buffer[kRequestHeadSize];
    auto head = readHead(socket.get(), std::span(buffer, sizeof buffer), deadline);
    if (head)
        answer(socket.get(), settings, *head);
}

} // namespace tovel::serve
