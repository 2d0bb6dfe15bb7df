// The server over a real TCP connection: path safety against a table of
// hostile targets, the exact header sets, routing and redirects, and one
// stalled client not delaying another.
#include "serve_fixture.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
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
        tree_.writeFile("outside/secret.txt", "outside");
        tree_.writeFile("mounted/shared.txt", "shared");
        link(tree_.path() + "/mounted", "data");
        link(tree_.path() + "/outside", "docs/deep");
        link(tree_.path() + "/outside/secret.txt", "escape.txt");
        link(root() + "/id.pem", "innocent.txt");
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
    std::string response = get(GetParam().target);
    EXPECT_EQ(statusLine(response), GetParam().status) << GetParam().target;
    EXPECT_EQ(response.find("secret"), std::string::npos);
    EXPECT_EQ(response.find("outside\n"), std::string::npos);
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
        TargetCase{"Missing", "/nope.txt", "HTTP/1.1 404 Not Found"}),
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
    ::testing::Values(RedirectCase{"DirectoryGetsSlash", "/docs?hidden=1", "/docs/"},
                      RedirectCase{"KeepsEncoding", "/d%6fcs", "/d%6fcs/"},
                      RedirectCase{"NeverProtocolRelative", "//docs", "/docs/"},
                      RedirectCase{"BrowserDirectory", "/__tovel/docs", "/__tovel/docs/"},
                      RedirectCase{"BrowserFileToRaw", "/__tovel/docs/readme.md",
                                   "/docs/readme.md"}),
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
