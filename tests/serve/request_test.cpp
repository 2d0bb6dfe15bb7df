// The server over a real TCP connection: path safety against a table of
// hostile targets, the exact header sets, routing and redirects, and one
// stalled client not delaying another.
#include "serve_fixture.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

class Serve : public ServeFixture {
  protected:
    void SetUp() override {
        writeFile("ok.txt", "hello\n");
        writeFile("docs/readme.md", "docs\n");
        writeFile("docs/x.PNG", "png");
        writeFile("docs/Makefile", "all:\n");
        writeFile(".ssh/config", "secret");
        writeFile("id.pem", "secret");
        writeFile("home/id_ed25519.KEY", "secret");
        writeFile("app/.env.local", "secret");
        writeFile("app/.env", "secret");
        writeFile("app/.npmrc", "secret");
        writeFile("app/.envrc", "fine");
        writeFile("app/env.pem.txt", "fine");
        writeFile("site/index.html", "<p>index</p>");
        writeFile(".ssh/index.html", "secret");
        writeFile("certs/a.P12", "secret");
        writeFile("certs/b.pFx", "secret");
        writeFile("app/.env.production", "secret");
        writeFile("docs/sub/keep.txt", "keep");
        writeFile("evil.host/x.txt", "x");
        writeFile("\\evil.host/x.txt", "x");
        writeFile("nl\n/x.txt", "x");
        tree_.writeFile("outside/secret.txt", "outside");
        tree_.writeFile("mounted/shared.txt", "shared");
        tree_.writeFile("mounted/.ssh/id", "secret");
        tree_.writeFile("mounted/cert.PEM", "secret");
        link(tree_.path() + "/mounted", "data");
        link(tree_.path() + "/outside", "docs/deep");
        link(tree_.path() + "/outside", "docs/sub/deeper");
        ASSERT_EQ(::symlink((tree_.path() + "/outside").c_str(),
                            (tree_.path() + "/mounted/away").c_str()),
                  0);
        link(tree_.path() + "/outside/secret.txt", "escape.txt");
        link(root() + "/data", "docs/viamount");
        link(root() + "/id.pem", "innocent.txt");
        link(root() + "/.ssh", "keys");
        writeFile("site2/placeholder", "");
        link(root() + "/id.pem", "site2/index.html");
        startServer();
    }
};

std::string statusLine(const std::string& response) {
    return response.substr(0, response.find("\r\n"));
}

struct TargetCase {
    const char* name;
    std::string target;
    std::string status;
};

class HostileTarget : public Serve, public ::testing::WithParamInterface<TargetCase> {};

TEST_P(HostileTarget, IsNeverServed) {
    for (const char* method : {"GET ", "HEAD "}) {
        std::string response = exchange(method + GetParam().target + " HTTP/1.1\r\n\r\n");
        EXPECT_EQ(statusLine(response), GetParam().status) << method << GetParam().target;
        EXPECT_EQ(response.find("secret"), std::string::npos);
        EXPECT_EQ(response.find("outside"), std::string::npos);
    }
    EXPECT_EQ(body(get("/ok.txt")), "hello\n"); // and the server is still there
}

INSTANTIATE_TEST_SUITE_P(
    Serve, HostileTarget,
    ::testing::Values(
        TargetCase{"DotDot", "/docs/../ok.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"EncodedDots", "/%2e%2e/outside/secret.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"EncodedSlashAndDots", "/docs%2f..%2f..%2foutside", "HTTP/1.1 403 Forbidden"},
        TargetCase{"DoubleEncoded", "/%252e%252e/outside", "HTTP/1.1 404 Not Found"},
        TargetCase{"Nul", "/ok.txt%00.png", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BadEscape", "/ok%2", "HTTP/1.1 403 Forbidden"},
        TargetCase{"NonHexEscape", "/ok%zz.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"OverLong", "/" + std::string(4100, 'a'), "HTTP/1.1 403 Forbidden"},
        TargetCase{"NotAbsolute", "ok.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"DeepLinkLeavesRoot", "/docs/deep/secret.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"FileLinkLeavesRoot", "/escape.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"LinkToProtectedFile", "/innocent.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"SshDirectory", "/.ssh/config", "HTTP/1.1 403 Forbidden"},
        TargetCase{"Pem", "/id.pem", "HTTP/1.1 403 Forbidden"},
        TargetCase{"KeyAnyCase", "/home/id_ed25519.KEY", "HTTP/1.1 403 Forbidden"},
        TargetCase{"EnvFile", "/app/.env", "HTTP/1.1 403 Forbidden"},
        TargetCase{"EnvVariant", "/app/.env.local", "HTTP/1.1 403 Forbidden"},
        TargetCase{"Npmrc", "/app/.npmrc", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BrowserProtectedFile", "/__tovel/id.pem", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BrowserHiddenSegment", "/__tovel/.ssh/", "HTTP/1.1 404 Not Found"},
        TargetCase{"BrowserEncodedHidden", "/__tovel/%2essh/", "HTTP/1.1 404 Not Found"},
        TargetCase{"Missing", "/nope.txt", "HTTP/1.1 404 Not Found"},
        TargetCase{"UpperEncodedDots", "/%2E%2E/outside/secret.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"HalfEncodedDots", "/.%2e/outside/secret.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"AllEncoded", "/%2e%2e%2foutside%2fsecret.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"DotsBelowDirectory", "/docs/%2e%2e/%2e%2e/outside/secret.txt",
                   "HTTP/1.1 403 Forbidden"},
        TargetCase{"DoubleEncodedSlash", "/%252e%252e%252foutside%252fsecret.txt",
                   "HTTP/1.1 404 Not Found"},
        TargetCase{"EncodedAbsolute", "/%2f%2fetc%2fpasswd", "HTTP/1.1 404 Not Found"},
        TargetCase{"NulAlone", "/%00", "HTTP/1.1 403 Forbidden"},
        TargetCase{"NulInDirectory", "/docs%00/readme.md", "HTTP/1.1 403 Forbidden"},
        TargetCase{"TruncatedEscape", "/ok.txt%", "HTTP/1.1 403 Forbidden"},
        TargetCase{"OverLongEncoded",
                   "/" +
                       [] {
                           std::string path;
                           for (int i = 0; i < 4100; ++i)
                               path += "%61";
                           return path;
                       }(),
                   "HTTP/1.1 403 Forbidden"},
        TargetCase{"OverLongBySegments",
                   "/" +
                       [] {
                           std::string path;
                           for (int i = 0; i < 2100; ++i)
                               path += "a/";
                           return path;
                       }(),
                   "HTTP/1.1 403 Forbidden"},
        TargetCase{"SecondLevelLinkLeavesRoot", "/docs/sub/deeper/secret.txt",
                   "HTTP/1.1 403 Forbidden"},
        TargetCase{"LinkOutOfTheMount", "/data/away/secret.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"DeepLinkIntoTheMount", "/docs/viamount/shared.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"LinkToProtectedDirectory", "/keys/config", "HTTP/1.1 403 Forbidden"},
        TargetCase{"ProtectedInsideMount", "/data/.ssh/id", "HTTP/1.1 403 Forbidden"},
        TargetCase{"KeyInsideMount", "/data/cert.PEM", "HTTP/1.1 403 Forbidden"},
        TargetCase{"IndexInsideSsh", "/.ssh/", "HTTP/1.1 403 Forbidden"},
        TargetCase{"IndexLinkedToKey", "/site2/", "HTTP/1.1 403 Forbidden"},
        TargetCase{"P12", "/certs/a.P12", "HTTP/1.1 403 Forbidden"},
        TargetCase{"Pfx", "/certs/b.pFx", "HTTP/1.1 403 Forbidden"},
        TargetCase{"EnvProduction", "/app/.env.production", "HTTP/1.1 403 Forbidden"},
        TargetCase{"EncodedProtectedName", "/%2essh/config", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BrowserDotDot", "/__tovel/../", "HTTP/1.1 404 Not Found"},
        TargetCase{"BrowserDotDotShown", "/__tovel/../?hidden=1", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BrowserEncodedDotDot", "/__tovel/%2e%2e/?hidden=1", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BrowserLinkLeavesRoot", "/__tovel/docs/deep/", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BrowserLinkToKey", "/__tovel/innocent.txt", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BrowserLinkedSsh", "/__tovel/keys/config?hidden=1", "HTTP/1.1 403 Forbidden"},
        TargetCase{"BrowserKeyInMount", "/__tovel/data/cert.PEM", "HTTP/1.1 403 Forbidden"}),
    [](const auto& info) { return info.param.name; });

TEST_F(Serve, ProtectedLookalikesAndExternalMountAreServed) {
    EXPECT_EQ(body(get("/app/.envrc")), "fine");
    EXPECT_EQ(body(get("/app/env.pem.txt")), "fine");
    EXPECT_EQ(body(get("/data/shared.txt")), "shared");
}

const std::string kStaticTail = "Cache-Control: no-cache\r\nCross-Origin-Resource-Policy: "
                                "same-origin\r\nX-Content-Type-Options: nosniff\r\n"
                                "X-Frame-Options: DENY\r\nReferrer-Policy: no-referrer\r\n"
                                "Connection: close\r\n\r\n";

TEST_F(Serve, HeaderSetsAreExact) {
    EXPECT_EQ(get("/ok.txt"), "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\n"
                              "Content-Length: 6\r\n" +
                                  kStaticTail + "hello\n");
    EXPECT_EQ(get("/ok.txt?download=1#frag"),
              "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: "
              "6\r\nContent-Disposition: attachment\r\n" +
                  kStaticTail + "hello\n");
    EXPECT_EQ(exchange("HEAD /ok.txt HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\nContent-Type: text/plain; charset=utf-8\r\nContent-Length: "
              "6\r\n" +
                  kStaticTail);
    EXPECT_EQ(exchange("POST / HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 405 Method Not Allowed\r\nContent-Type: text/plain; charset=utf-8\r\n"
              "Content-Length: 19\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n"
              "Method Not Allowed\n");
    EXPECT_EQ(exchange("GET /\r\n\r\n"),
              "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain; charset=utf-8\r\n"
              "Content-Length: 12\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n"
              "Bad Request\n");
    EXPECT_EQ(get("/__tovel"),
              "HTTP/1.1 302 Found\r\nLocation: /__tovel/\r\nContent-Length: 0\r\nConnection: "
              "close\r\n\r\n");
    std::string page = get("/__tovel/");
    EXPECT_EQ(page.substr(0, page.find("\r\n\r\n") + 4),
              "HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\nCache-Control: "
              "no-store\r\nCross-Origin-Resource-Policy: same-origin\r\nX-Content-Type-Options: "
              "nosniff\r\nX-Frame-Options: DENY\r\nReferrer-Policy: no-referrer\r\n"
              "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; "
              "script-src 'unsafe-inline'; form-action 'self'; base-uri 'none'\r\n"
              "Connection: close\r\n\r\n");
}

struct RedirectCase {
    const char* name;
    std::string target;
    std::string location;
};

class Redirect : public Serve, public ::testing::WithParamInterface<RedirectCase> {};

TEST_P(Redirect, PointsAtThisServer) {
    std::string response = get(GetParam().target);
    EXPECT_EQ(statusLine(response), "HTTP/1.1 302 Found");
    EXPECT_NE(response.find("\r\nLocation: " + GetParam().location + "\r\n"), std::string::npos)
        << response;
}

INSTANTIATE_TEST_SUITE_P(
    Serve, Redirect,
    ::testing::Values(
        RedirectCase{"DirectoryGetsSlash", "/docs?hidden=1", "/docs/"},
        RedirectCase{"KeepsEncoding", "/d%6fcs", "/d%6fcs/"},
        RedirectCase{"NeverProtocolRelative", "//docs", "/docs/"},
        RedirectCase{"NeverAnotherHost", "///evil.host", "/evil.host/"},
        RedirectCase{"BackslashIsEncoded", "/\\evil.host", "/%5Cevil.host/"},
        RedirectCase{"EncodedSlashStaysEncoded", "/%2Fevil.host", "/%2Fevil.host/"},
        RedirectCase{"BrowserNeverDoubleSlash", "/__tovel//evil.host", "/__tovel/evil.host/"},
        RedirectCase{"BrowserFileOfLink", "/__tovel/data/shared.txt", "/data/shared.txt"},
        RedirectCase{"BrowserDirectory", "/__tovel/docs", "/__tovel/docs/"},
        RedirectCase{"BrowserFileToRaw", "/__tovel/docs/readme.md", "/docs/readme.md"}),
    [](const auto& info) { return info.param.name; });

TEST_F(Serve, IndexHtmlAndContentTypes) {
    EXPECT_EQ(body(get("/site/")), "<p>index</p>");
    EXPECT_EQ(statusLine(get("/docs/")), "HTTP/1.1 404 Not Found");
    EXPECT_NE(get("/docs/x.PNG").find("Content-Type: image/png\r\n"), std::string::npos);
    EXPECT_NE(get("/docs/Makefile").find("Content-Type: application/octet-stream\r\n"),
              std::string::npos);
}

TEST_F(Serve, OverLongHeadGetsNoResponseAtAll) {
    std::string head = "GET /ok.txt HTTP/1.1\r\nX: " + std::string(16384, 'a');
    EXPECT_EQ(exchange(head), "");
}

TEST_F(Serve, StalledClientDoesNotDelayOthers) {
    int stalled = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port_));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::connect(stalled, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::send(stalled, "GET /ok.txt HT", 14, 0), 14);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(body(get("/ok.txt")), "hello\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    ::close(stalled);
}

TEST_F(Serve, BrowseModeSendsDirectoriesToTheBrowser) {
    server_.reset();
    startServer({"--browse-mode"});
    EXPECT_NE(get("/docs").find("\r\nLocation: /__tovel/docs/\r\n"), std::string::npos);
    EXPECT_NE(get("/docs/").find("\r\nLocation: /__tovel/docs/\r\n"), std::string::npos);
    EXPECT_NE(get("//evil.host").find("\r\nLocation: /__tovel/evil.host/\r\n"), std::string::npos);
    EXPECT_EQ(body(get("/ok.txt")), "hello\n");
}

TEST_F(Serve, ControlBytesNeverReachTheLocationLine) {
    EXPECT_EQ(exchange("GET /nl\n HTTP/1.1\r\n\r\n"),
              "HTTP/1.1 302 Found\r\nLocation: /nl%0A/\r\nContent-Length: 0\r\n"
              "Connection: close\r\n\r\n");
}

struct HeadCase {
    const char* name;
    std::string bytes;
    std::string status; // empty: the connection is closed without a response
};

class RequestBytes : public Serve, public ::testing::WithParamInterface<HeadCase> {};

// Whatever a client sends ends in a status line or a silent close, and the
// server goes on answering others.
TEST_P(RequestBytes, EndInAStatusOrASilentClose) {
    std::string response = exchange(GetParam().bytes, AfterRequest::HalfClose);
    EXPECT_EQ(statusLine(response), GetParam().status);
    EXPECT_EQ(body(get("/ok.txt")), "hello\n");
}

INSTANTIATE_TEST_SUITE_P(
    Serve, RequestBytes,
    ::testing::Values(
        HeadCase{"Nothing", "", ""}, HeadCase{"BlankHead", "\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        HeadCase{"MethodOnly", "GET\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        HeadCase{"NoVersion", "GET /ok.txt\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        HeadCase{"TabIsNoSeparator", "GET\t/ok.txt HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        HeadCase{"RunsOfSpaces", "   GET    /ok.txt    HTTP/1.1\r\n\r\n", "HTTP/1.1 200 OK"},
        HeadCase{"ExtraToken", "GET /ok.txt HTTP/1.1 more\r\n\r\n", "HTTP/1.1 200 OK"},
        HeadCase{"AnyVersion", "GET /ok.txt banana\r\n\r\n", "HTTP/1.1 200 OK"},
        HeadCase{"LowerCaseMethod", "get /ok.txt HTTP/1.1\r\n\r\n",
                 "HTTP/1.1 405 Method Not Allowed"},
        HeadCase{"Delete", "DELETE /ok.txt HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed"},
        HeadCase{"AsteriskTarget", "GET * HTTP/1.1\r\n\r\n", "HTTP/1.1 403 Forbidden"},
        HeadCase{"AbsoluteUrl", "GET http://evil/ok.txt HTTP/1.1\r\n\r\n",
                 "HTTP/1.1 403 Forbidden"},
        HeadCase{"OnlyAFragment", "GET #/ok.txt HTTP/1.1\r\n\r\n", "HTTP/1.1 403 Forbidden"},
        HeadCase{"NulBytes", std::string("\0\0\0\r\n\r\n", 7), "HTTP/1.1 400 Bad Request"},
        HeadCase{"BareNewlines", "GET /ok.txt HTTP/1.1\n\n", ""},
        HeadCase{"HalfAHead", "GET /ok.txt HTTP/1.1\r\nHost: x\r\n", ""},
        HeadCase{"HeadersAreNotParsed",
                 "GET /ok.txt HTTP/1.1\r\nContent-Length: -1\r\nTransfer-Encoding: x\r\n\r\n",
                 "HTTP/1.1 200 OK"},
        HeadCase{"HeadAlmostFillingTheBuffer",
                 "GET /ok.txt HTTP/1.1\r\nX: " + std::string(16384 - 30, 'a') + "\r\n\r\n",
                 "HTTP/1.1 200 OK"},
        HeadCase{"HeadFillingTheBuffer",
                 "GET /ok.txt HTTP/1.1\r\nX: " + std::string(16384 - 29, 'a') + "\r\n\r\n",
                 "HTTP/1.1 200 OK"},
        HeadCase{"HeadOneByteTooLong",
                 "GET /ok.txt HTTP/1.1\r\nX: " + std::string(16384 - 28, 'a') + "\r\n\r\n", ""}),
    [](const auto& info) { return info.param.name; });

TEST_F(Serve, HeadTrickledByteByByteIsAnswered) {
    int fd = connectClient();
    ASSERT_GE(fd, 0);
    std::string request = "GET /ok.txt HTTP/1.1\r\nHost: localhost\r\n\r\n";
    for (char c : request) {
        ASSERT_EQ(::send(fd, &c, 1, MSG_NOSIGNAL), 1);
        std::this_thread::sleep_for(1ms); // let each byte arrive on its own
    }
    std::string response;
    char buffer[4096];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
        response.append(buffer, static_cast<std::size_t>(n));
    ::close(fd);
    EXPECT_EQ(body(response), "hello\n");
}

TEST_F(Serve, ManyStalledClientsDoNotDelayOthers) {
    std::vector<int> stalled;
    for (int i = 0; i < 64; ++i) {
        int fd = connectClient();
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::send(fd, "GET /", 5, MSG_NOSIGNAL), 5);
        stalled.push_back(fd);
    }
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(body(get("/ok.txt")), "hello\n");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    for (int fd : stalled)
        ::close(fd);
}

TEST_F(Serve, LargeFileArrivesWhole) {
    std::string big(3 * 1024 * 1024 + 17, 'z');
    for (std::size_t i = 0; i < big.size(); i += 4096)
        big[i] = static_cast<char>('a' + (i / 4096) % 26);
    writeFile("big.bin", big);
    std::string response = get("/big.bin?download=1");
    EXPECT_NE(response.find("Content-Length: " + std::to_string(big.size()) +
                            "\r\nContent-Disposition: attachment\r\n"),
              std::string::npos);
    EXPECT_TRUE(body(response) == big);
}

struct OptionCase {
    const char* name;
    std::vector<std::string> args;
    std::string err;
};

class ServeOptions : public ::testing::TestWithParam<OptionCase> {};

TEST_P(ServeOptions, RefusedWithTheirError) {
    std::vector<std::string> args = {"serve"};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    RunOptions run;
    run.env["NO_COLOR"] = "1";
    RunResult result = runBinary(args, run);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, GetParam().err);
}

INSTANTIATE_TEST_SUITE_P(
    Serve, ServeOptions,
    ::testing::Values(
        OptionCase{"Nothing", {}, "error: MissingDirectory\n"},
        OptionCase{"OnlyAPort", {"--port", "0"}, "error: MissingDirectory\n"},
        OptionCase{"TwoDirectories", {"/tmp", "/"}, "error: DuplicateOption\n"},
        OptionCase{"BrowserTwice", {"/tmp", "--browser", "--browser"}, "error: DuplicateOption\n"},
        OptionCase{"ZeroIdle", {"/tmp", "--idle-timeout", "0"}, "error: InvalidOptionValue\n"},
        OptionCase{"NegativeIdle", {"/tmp", "--idle-timeout", "-5"}, "error: InvalidOptionValue\n"},
        OptionCase{"PortTooBig", {"/tmp", "--port", "65536"}, "error: InvalidOptionValue\n"},
        OptionCase{"UnknownLongOption", {"/tmp", "--verbose"}, "error: UnknownOption\n"},
        OptionCase{"DoubleDash", {"/tmp", "--"}, "error: UnknownOption\n"},
        OptionCase{"TrailingValue", {"/tmp", "--port"}, "error: MissingOptionValue\n"},
        OptionCase{"RegularFile", {"/etc/hostname"}, "serve: not a directory: /etc/hostname\n"},
        OptionCase{"DashDirectory", {"-x"}, "serve: cannot open directory -x: FileNotFound\n"}),
    [](const auto& info) { return info.param.name; });

TEST(ServeIdle, ExitsAfterItsTimeoutWithItsLine) {
    TempDir dir;
    RunOptions run;
    run.env["NO_COLOR"] = "1";
    auto start = std::chrono::steady_clock::now();
    RunResult result = runBinary({"serve", dir.path(), "--idle-timeout", "1", "--dir", "/x"}, run);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1s);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("TOVEL_PTYD_SERVE_PORT ", 0), 0u);
    EXPECT_EQ(result.err.substr(result.err.find('\n') + 1), "serve: idle timeout after 1s\n");
    EXPECT_EQ(result.err.rfind("info(ptyd_serve): serving " + dir.path() + " on 127.0.0.1:", 0),
              0u);
}

} // namespace
} // namespace tovel::test
