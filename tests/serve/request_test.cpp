// The server over a real TCP connection: path safety against a table of
// hostile targets, the exact header sets, routing and redirects, request
// heads of every shape, the options and the idle exit.
#include "serve_fixture.hpp"

#include <sys/stat.h>
#include <unistd.h>

namespace tovel::test {
namespace {

class Serve : public ServeFixture {
  protected:
    void SetUp() override {
        writeFile("ok.txt", "hello\n");
        writeFile("docs/readme.md", "docs\n");
        writeFile("docs/x.PNG", "png");
        writeFile("docs/Makefile", "all:\n");
        for (const char* secret : {".ssh/config", "id.pem", "home/id_ed25519.KEY", "app/.env.local",
                                   "app/.npmrc", ".ssh/index.html"})
            writeFile(secret, "secret");
        writeFile("site/index.html", "<p>index</p>");
        writeFile("docs/sub/keep.txt", "keep");
        ASSERT_EQ(::mkfifo((root() + "/docs/pipe").c_str(), 0644), 0);
        writeFile("evil.host/x.txt", "x");
        tree_.writeFile("outside/secret.txt", "outside");
        tree_.writeFile("mounted/shared.txt", "shared");
        tree_.writeFile("mounted/.ssh/id", "secret");
        tree_.writeFile("mounted/cert.PEM", "secret");
        link(tree_.path() + "/mounted", "data");
        link(tree_.path() + "/outside", "docs/deep");
        link("../id.pem", "docs/relative.txt");
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

const std::string kOk = "HTTP/1.1 200 OK", kForbidden = "HTTP/1.1 403 Forbidden",
                  kNotFound = "HTTP/1.1 404 Not Found";

// Each target, by GET and HEAD, gets its status and nothing of a secret or
// of what lies outside the root.
TEST_F(Serve, HostileTargetsAreNeverServed) {
    std::vector<std::pair<std::string, std::string>> cases = {
        {"/" + std::string(4100, 'a'), kForbidden}};
    // clang-format off
    const char* forbidden[] = {
        "/docs/../ok.txt", "/%2e%2e/outside/secret.txt", "/.%2E/outside/secret.txt",
        "/docs%2f..%2f..%2foutside", "/docs%00/readme.md", "/ok%zz.txt", "/ok.txt%", "ok.txt",
        "/docs/sub/deeper/secret.txt", "/escape.txt", "/innocent.txt", "/docs/relative.txt",
        "/.ssh/config", "/home/id_ed25519.KEY", "/app/.env.local", "/app/.npmrc",
        "/data/away/secret.txt", "/docs/viamount/shared.txt", "/keys/config", "/data/.ssh/id",
        "/data/cert.PEM", "/.ssh/", "/site2/", "/__tovel/id.pem", "/__tovel/.ssh/?hidden=1",
        "/__tovel/keys/?hidden=1", "/__tovel/%2e%2e/?hidden=1", "/__tovel/docs/deep/",
        "/__tovel/data/cert.PEM"};
    // clang-format on
    for (const char* target : forbidden)
        cases.emplace_back(target, kForbidden);
    for (const char* target : {"/%252e%252e/outside", "/%2f%2fetc%2fpasswd", "/nope.txt",
                               "/docs/pipe", "/__tovel/%2essh/"})
        cases.emplace_back(target, kNotFound);
    for (const auto& [target, status] : cases) {
        for (const char* method : {"GET ", "HEAD "}) {
            std::string response = exchange(method + target + " HTTP/1.1\r\n\r\n");
            EXPECT_EQ(statusLine(response), status) << method << target;
            EXPECT_EQ(response.find("secret"), std::string::npos) << target;
            EXPECT_EQ(response.find("outside"), std::string::npos) << target;
        }
    }
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

TEST_F(Serve, RedirectsPointAtThisServer) {
    const std::pair<std::string, std::string> cases[] = {
        {"/docs?hidden=1", "/docs/"},        {"//docs", "/docs/"},
        {"///evil.host", "/evil.host/"},     {"/__tovel/data/shared.txt", "/data/shared.txt"},
        {"/__tovel/docs", "/__tovel/docs/"}, {"/__tovel/docs/readme.md", "/docs/readme.md"},
    };
    for (const auto& [target, location] : cases) {
        std::string response = get(target);
        EXPECT_EQ(statusLine(response), "HTTP/1.1 302 Found") << target;
        EXPECT_NE(response.find("\r\nLocation: " + location + "\r\n"), std::string::npos) << target;
    }
}

TEST_F(Serve, IndexHtmlMountAndContentTypes) {
    EXPECT_EQ(body(get("/site/")), "<p>index</p>");
    EXPECT_EQ(body(get("/data/shared.txt")), "shared"); // the external mount
    EXPECT_EQ(statusLine(get("/docs/")), "HTTP/1.1 404 Not Found");
    EXPECT_NE(get("/docs/x.PNG").find("Content-Type: image/png\r\n"), std::string::npos);
    EXPECT_NE(get("/docs/Makefile").find("Content-Type: application/octet-stream\r\n"),
              std::string::npos);
}

TEST_F(Serve, BrowseModeSendsDirectoriesToTheBrowser) {
    server_.reset();
    startServer({"--browse-mode"});
    EXPECT_NE(get("/docs").find("\r\nLocation: /__tovel/docs/\r\n"), std::string::npos);
    EXPECT_NE(get("/docs/").find("\r\nLocation: /__tovel/docs/\r\n"), std::string::npos);
    EXPECT_NE(get("//evil.host").find("\r\nLocation: /__tovel/evil.host/\r\n"), std::string::npos);
    EXPECT_EQ(body(get("/ok.txt")), "hello\n");
}

// Whatever a client sends ends in a status line or a silent close (an empty
// status here), and the server goes on answering others.
TEST_F(Serve, RequestBytesEndInAStatusOrASilentClose) {
    const std::pair<std::string, std::string> cases[] = {
        {"", ""},
        {"\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        {"GET /ok.txt\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        {"GET\t/ok.txt HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad Request"},
        {"   GET    /ok.txt    HTTP/1.1\r\n\r\n", kOk},
        {"get /ok.txt HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed"},
        {"GET http://evil/ok.txt HTTP/1.1\r\n\r\n", "HTTP/1.1 403 Forbidden"},
        {"GET /ok.txt HTTP/1.1\r\nhost: LocalHost\r\n\r\n", kOk},
        {"GET /ok.txt HTTP/1.1\r\nHost: [::1]:8080\r\n\r\n", kOk},
        {"GET /ok.txt HTTP/1.1\r\nHost: evil.example:80\r\n\r\n", kForbidden},
        {"GET / HTTP/1.1\r\nHost: 127.0.0.1.evil.example\r\n\r\n", kForbidden},
        {"GET / HTTP/1.1\r\nHost: localhost\r\nHost: a.b\r\n\r\n", kForbidden},
        {"GET /ok.txt HTTP/1.1\n\n", ""},
        {"GET /ok.txt HTTP/1.1\r\nHost: x\r\n", ""},
        {"GET /ok.txt HTTP/1.1\r\nContent-Length: -1\r\nTransfer-Encoding: x\r\n\r\n", kOk},
        {"GET /ok.txt HTTP/1.1\r\nX: " + std::string(16384 - 29, 'a') + "\r\n\r\n", kOk},
        {"GET /ok.txt HTTP/1.1\r\nX: " + std::string(16384 - 28, 'a') + "\r\n\r\n", ""},
    };
    for (const auto& [bytes, status] : cases)
        EXPECT_EQ(statusLine(exchange(bytes, AfterRequest::HalfClose)), status) << bytes;
    EXPECT_EQ(body(get("/ok.txt")), "hello\n");
}

TEST(ServeOptions, AreRefusedWithTheirError) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "error: MissingDirectory\n"},
        {{"/tmp", "/"}, "error: DuplicateOption\n"},
        {{"/tmp", "--idle-timeout", "0"}, "error: InvalidOptionValue\n"},
        {{"/tmp", "--port", "65536"}, "error: InvalidOptionValue\n"},
        {{"/tmp", "--verbose"}, "error: UnknownOption\n"},
        {{"/tmp", "--port"}, "error: MissingOptionValue\n"},
        {{"/etc/hostname"}, "serve: not a directory: /etc/hostname\n"},
        {{"-x"}, "serve: cannot open directory -x: FileNotFound\n"},
    };
    RunOptions run;
    run.env["NO_COLOR"] = "1";
    for (const auto& [options, err] : cases) {
        std::vector<std::string> args = {"serve"};
        args.insert(args.end(), options.begin(), options.end());
        RunResult result = runBinary(args, run);
        EXPECT_EQ(result.status, 1) << err;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, err);
    }
}

TEST(ServeIdle, ExitsAfterItsTimeoutWithItsLine) {
    TempDir dir;
    RunOptions run;
    run.env["NO_COLOR"] = "1";
    auto start = std::chrono::steady_clock::now();
    RunResult result = runBinary({"serve", dir.path(), "--idle-timeout", "1", "--dir", "/x"}, run);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("TOVEL_PTYD_SERVE_PORT ", 0), 0u);
    EXPECT_EQ(result.err.substr(result.err.find('\n') + 1), "serve: idle timeout after 1s\n");
    EXPECT_EQ(result.err.rfind("info(ptyd_serve): serving " + dir.path() + " on 127.0.0.1:", 0),
              0u);
}

} // namespace
} // namespace tovel::test
