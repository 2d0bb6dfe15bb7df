// Reading one request head, routing it (raw files under "/", the file
// browser under "/__tovel/"), applying the path-safety rules and answering.
#include "serve/connection.hpp"

#include "cli/runtime_dir.hpp"
#include "platform/clock.hpp"
#include "platform/directory.hpp"
#include "platform/system.hpp"
#include "platform/tcp.hpp"
#include "serve/browser_page.hpp"
#include "serve/html_text.hpp"
#include "serve/http_response.hpp"
#include "serve/path_rules.hpp"
#include "serve/protected_path.hpp"
#include "serve/redirect_location.hpp"

#include <fcntl.h>
#include <sys/stat.h>

namespace tovel::serve {

namespace {

constexpr std::string_view kBrowserPrefix = "/__tovel";
constexpr std::size_t kFileChunkSize = 65536;
// sendfile moves file bytes to the socket inside the kernel; large counts
// keep a big download to a handful of calls.
constexpr std::size_t kSendfileChunkSize = 4 * 1024 * 1024;
// A client that sends half a head and then nothing, or stops reading its
// response, would otherwise hold its thread forever. Its connection is
// closed after this long without progress, as if it had gone away.
constexpr int kHeadReadTimeoutSeconds = 60;
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

// Reads until the blank line that ends the head. nullopt (no response at
// all) for end of stream, a read error or a head that does not fit.
std::optional<std::string_view> readHead(int fd, std::span<char> buffer) {
    std::size_t used = 0;
    while (used < buffer.size()) {
        auto got = sys::read(fd, buffer.subspan(used));
        if (!got || *got == 0)
            return std::nullopt;
        std::size_t searchFrom = used >= 3 ? used - 3 : 0;
        used += *got;
        std::string_view text(buffer.data(), used);
        if (text.find("\r\n\r\n", searchFrom) != std::string_view::npos)
            return text;
    }
    return std::nullopt;
}

std::string_view nextToken(std::string_view& line) {
    std::size_t start = line.find_first_not_of(' ');
    if (start == std::string_view::npos) {
        line = {};
        return {};
    }
    line.remove_prefix(start);
    std::size_t end = line.find(' ');
    std::string_view token = line.substr(0, end);
    line = end == std::string_view::npos ? std::string_view() : line.substr(end);
    return token;
}

// A parameter's value in the query ("name=value" pairs split by "&").
std::optional<std::string_view> queryParameter(std::string_view query, std::string_view name) {
    while (!query.empty()) {
        std::size_t amp = query.find('&');
        std::string_view pair = query.substr(0, amp);
        query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
        std::size_t equals = pair.find('=');
        if (pair.substr(0, equals) == name)
            return equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1);
    }
    return std::nullopt;
}

bool flagOn(std::string_view query, std::string_view name) {
    return queryParameter(query, name) == std::string_view("1");
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

struct Resolved {
    std::string relative; // decoded, below the root
    std::string realPath;
    struct stat status;
};

// Decoding, segment rules, real path and containment; answers the refusal
// itself and returns nullopt when the request ends there.
std::optional<Resolved> resolve(Responder& out, const ServeSettings& settings,
                                std::string_view rawPath) {
    auto decoded = percentDecode(rawPath);
    auto relative = decoded ? relativePathOf(*decoded) : std::nullopt;
    if (!relative) {
        out.error(Status::Forbidden);
        return std::nullopt;
    }
    std::string joined =
        relative->empty() ? settings.rootRealPath : joinPath(settings.rootRealPath, *relative);
    if (joined.size() >= kMaxDecodedPath) {
        out.error(Status::Forbidden);
        return std::nullopt;
    }
    auto real = sys::realpath(joined);
    if (!real) {
        out.error(Status::NotFound);
        return std::nullopt;
    }
    if (containmentOf(settings.rootRealPath, *relative, *real) == Containment::Outside) {
        out.error(Status::Forbidden);
        return std::nullopt;
    }
    auto status = sys::stat(*real);
    if (!status) {
        out.error(Status::NotFound);
        return std::nullopt;
    }
    return Resolved{std::move(*relative), std::move(*real), *status};
}

// The requested path and the resolved one must both be free of secrets: a
// link inside the root must not open a protected file under another name.
bool isProtectedTarget(const ServeSettings& settings, const Resolved& target) {
    if (isProtectedPath(target.relative))
        return true;
    std::string_view real = target.realPath;
    if (isInside(real, settings.rootRealPath))
        real.remove_prefix(std::min(real.size(), settings.rootRealPath.size()));
    return isProtectedPath(real);
}

// Sends the regular file checked as `checked`. The file opened must be that
// same file: one swapped in after the checks (say, for a link to a secret or
// a FIFO that would block the open) is answered as missing.
void sendFile(Responder& out, const std::string& realPath, const struct stat& checked,
              std::string_view name, Disposition disposition) {
    auto file = sys::open(realPath, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW);
    if (!file) {
        out.error(Status::NotFound);
        return;
    }
    auto status = sys::fstat(file->get());
    if (!status || !S_ISREG(status->st_mode) || status->st_dev != checked.st_dev ||
        status->st_ino != checked.st_ino) {
        out.error(Status::NotFound);
        return;
    }
    auto size = static_cast<std::uint64_t>(status->st_size);
    // With a body to follow, the head waits to share its first segment.
    bool bodyFollows = out.method() == Method::Get && size > 0;
    if (!out.send(staticFileHead(contentTypeFor(name), size, disposition),
                  bodyFollows ? sys::MoreToCome::Yes : sys::MoreToCome::No))
        return;
    if (out.method() == Method::Head)
        return;
    std::uint64_t left = size;
    while (left > 0) {
        auto sent = sys::sendfile(out.fd(), file->get(), kSendfileChunkSize);
        if (sent && *sent > 0) {
            left -= std::min<std::uint64_t>(left, *sent);
            continue;
        }
        if (sent)
            return; // the file shrank: the client sees a short body
        if (sent.error() != Error::InvalidArgument && sent.error() != Error::OperationNotSupported)
            return;
        // No sendfile for this file: copy through a buffer.
        char buffer[kFileChunkSize];
        while (left > 0) {
            auto got = sys::read(file->get(), std::span(buffer, sizeof buffer));
            if (!got || *got == 0 || !out.send(std::string_view(buffer, *got)))
                return;
            left -= std::min<std::uint64_t>(left, *got);
        }
    }
}

std::string_view lastSegment(std::string_view path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

void serveRaw(Responder& out, const ServeSettings& settings, const Request& request) {
    auto target = resolve(out, settings, request.path);
    if (!target)
        return;
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
        auto index = sys::realpath(joinPath(target->realPath, "index.html"));
        if (!index) {
            out.error(Status::NotFound);
            return;
        }
        std::string indexRelative =
            target->relative.empty() ? "index.html" : target->relative + "/index.html";
        if (containmentOf(settings.rootRealPath, indexRelative, *index) == Containment::Outside) {
            out.error(Status::Forbidden);
            return;
        }
        auto status = sys::stat(*index);
        if (!status || !S_ISREG(status->st_mode)) {
            out.error(Status::NotFound);
            return;
        }
        // An index page is a file like any other: inside ".ssh", or a link
        // to a key, it is refused.
        Resolved indexTarget{std::move(indexRelative), std::move(*index), *status};
        if (isProtectedTarget(settings, indexTarget)) {
            out.error(Status::Forbidden);
            return;
        }
        sendFile(out, indexTarget.realPath, indexTarget.status, "index.html", disposition);
        return;
    }
    if (!S_ISREG(target->status.st_mode)) {
        out.error(Status::NotFound);
        return;
    }
    if (isProtectedTarget(settings, *target)) {
        out.error(Status::Forbidden);
        return;
    }
    sendFile(out, target->realPath, target->status, lastSegment(target->relative), disposition);
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
    auto target = resolve(out, settings, path);
    if (!target)
        return;
    if (S_ISREG(target->status.st_mode)) {
        if (isProtectedTarget(settings, *target)) {
            out.error(Status::Forbidden);
            return;
        }
        std::string location;
        appendRawUrl(location, target->relative);
        out.send(redirectHead(location));
        return;
    }
    if (!S_ISDIR(target->status.st_mode)) {
        out.error(Status::NotFound);
        return;
    }
    if (!path.ends_with('/')) {
        out.redirect(kBrowserPrefix, path, "/");
        return;
    }
    auto directory = sys::DirectoryReader::open(target->realPath);
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
    std::string_view line = head.substr(0, head.find('\r'));
    std::string_view method = nextToken(line);
    std::string_view target = nextToken(line);
    std::string_view version = nextToken(line);
    if (version.empty()) {
        Responder(fd, Method::Get).error(Status::BadRequest);
        return;
    }
    if (method != "GET" && method != "HEAD") {
        Responder(fd, Method::Get).error(Status::MethodNotAllowed);
        return;
    }
    Responder out(fd, method == "HEAD" ? Method::Head : Method::Get);
    settings.lastActivityMs.store(sys::monotonicMs());

    target = target.substr(0, target.find('#'));
    std::size_t question = target.find('?');
    Request request{out.method(), target.substr(0, question),
                    question == std::string_view::npos ? std::string_view()
                                                       : target.substr(question + 1)};
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
    (void)sys::setDeferAccept(listenerFd, kHeadReadTimeoutSeconds);
    (void)sys::setReceiveTimeout(listenerFd, kHeadReadTimeoutSeconds);
    (void)sys::setSendTimeout(listenerFd, kStalledSendTimeoutSeconds);
}

void handleConnection(UniqueFd socket, ServeSettings& settings) {
    char buffer[kRequestHeadSize];
    auto head = readHead(socket.get(), std::span(buffer, sizeof buffer));
    if (head)
        answer(socket.get(), settings, *head);
}

} // namespace tovel::serve
