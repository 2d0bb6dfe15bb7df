// What a hostile neighbour can try against a running server: connecting as
// another user, swapping links and FIFOs into the
// tree while it is read, trickling a head, growing a file mid-download.
#include "serve_fixture.hpp"

#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace tovel::test {
namespace {

using namespace std::chrono_literals;

class Hardening : public ServeFixture {
  protected:
    void SetUp() override {
        writeFile("ok.txt", "hello\n");
        startServer();
    }
};

// Runs `change` over and over on a thread for as long as it lives.
std::jthread meddler(std::function<void()> change) {
    return std::jthread([change](std::stop_token stop) {
        while (!stop.stop_requested())
            change();
    });
}

void exchangePaths(const std::string& a, const std::string& b) {
    (void)::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
}

TEST_F(Hardening, AnotherUserIsRefusedAndTheOwnerServed) {
    EXPECT_EQ(body(get("/ok.txt")), "hello\n");
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to connect as another uid";
    pid_t child = ::fork();
    if (child == 0) {
        if (::setresgid(65534, 65534, 65534) != 0 || ::setresuid(65534, 65534, 65534) != 0)
            ::_exit(2);
        std::string response = get("/ok.txt");
        ::_exit(response.starts_with("HTTP/1.1 403 Forbidden\r\n") &&
                        response.find("hello") == std::string::npos
                    ? 0
                    : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

// A directory inside the tree and a link to one outside trade places as
// fast as they can; whatever route reads the name, nothing from outside
// comes back.
TEST_F(Hardening, LinkSwappedInDuringRequestsNeverLeaksOutside) {
    writeFile("d/swap/inner.txt", "inside\n");
    tree_.writeFile("outside/inner.txt", "OUTSIDE-BYTES\n");
    tree_.writeFile("outside/leaked-name.txt", "OUTSIDE-BYTES\n");
    link(tree_.path() + "/outside", "d/swaplink"); // deeper than a mount
    std::string responses;
    {
        auto swapper = meddler([&] { exchangePaths(root() + "/d/swap", root() + "/d/swaplink"); });
        for (auto end = std::chrono::steady_clock::now() + 3s;
             std::chrono::steady_clock::now() < end;)
            for (const char* target :
                 {"/d/swap/inner.txt", "/__tovel/d/swap/", "/__tovel/?q=leaked",
                  "/__tovel/?q=OUTSIDE", "/d/swap/leaked-name.txt"})
                responses += get(target);
    }
    EXPECT_EQ(responses.find("OUTSIDE-BYTES"), std::string::npos);
    EXPECT_EQ(responses.find("leaked-name"), std::string::npos);
    EXPECT_NE(responses.find("inside\n"), std::string::npos);
}

TEST_F(Hardening, FifoSwappedInDuringSearchNeverHoldsARequest) {
    writeFile("sub/data.txt", "needle\n");
    ASSERT_EQ(::mkfifo((root() + "/sub/fifo").c_str(), 0644), 0);
    auto swapper = meddler([&] { exchangePaths(root() + "/sub/data.txt", root() + "/sub/fifo"); });
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(get("/__tovel/?q=needle").ends_with("</main></body></html>")) << i;
        ASSERT_TRUE(get("/sub/data.txt").starts_with("HTTP/1.1 ")) << i;
    }
}

TEST_F(Hardening, TrickledHeadIsClosedWithoutAnswer) {
    int fd = connectClient();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::send(fd, "GET /ok.txt HTTP/1.1\r\nX: ", 25, MSG_NOSIGNAL), 25);
    pollfd entry{fd, POLLIN, 0};
    while (::poll(&entry, 1, 500) == 0) {
        (void)::send(fd, "a", 1, MSG_NOSIGNAL);
        EXPECT_EQ(body(get("/ok.txt")), "hello\n"); // others are served meanwhile
    }
    char buffer[256];
    EXPECT_LE(::read(fd, buffer, sizeof buffer), 0); // closed, and not a byte of answer
    ::close(fd);
}

TEST_F(Hardening, GrowingFileIsSentExactlyToItsLength) {
    std::string path = root() + "/grow.bin";
    writeFile("grow.bin", std::string(8 * 1024 * 1024, 'g'));
    auto grower = meddler([&] {
        FILE* file = std::fopen(path.c_str(), "a");
        std::fwrite(std::string(65536, 'h').data(), 1, 65536, file);
        std::fclose(file);
        std::this_thread::sleep_for(1ms); // growth, not a full disk
    });
    for (int i = 0; i < 3; ++i) {
        std::string response = get("/grow.bin");
        std::size_t at = response.find("Content-Length: ");
        ASSERT_NE(at, std::string::npos);
        EXPECT_EQ(body(response).size(), std::stoull(response.substr(at + 16)));
    }
}

} // namespace
} // namespace tovel::test
