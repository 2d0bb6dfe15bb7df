// A signal caught while a wrapper blocks, with a handler installed without
// SA_RESTART, must not end the call as Interrupted: the wrapper retries.
#include "platform/system.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <pthread.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace tovel {
namespace {

std::atomic<bool> caught{false};

void noteSignal(int) {
    caught.store(true);
}

// Whether thread `tid` of this process sits in the `read` system call.
bool blockedInRead(pid_t tid) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/syscall");
    long number = -1;
    return file >> number && number == SYS_read;
}

TEST(Interrupted, BlockingReadRetriesAfterACaughtSignal) {
    struct sigaction action {};
    action.sa_handler = noteSignal;
    struct sigaction previous {};
    ASSERT_EQ(::sigaction(SIGUSR1, &action, &previous), 0);
    auto pipe = sys::pipe();
    ASSERT_TRUE(pipe);
    pthread_t reader = ::pthread_self();
    pid_t readerTid = ::gettid();
    bool signalled = false;
    std::thread writer([&] {
        signalled = test::waitUntil([&] { return blockedInRead(readerTid); }) &&
                    ::pthread_kill(reader, SIGUSR1) == 0 &&
                    test::waitUntil([] { return caught.load(); });
        (void)sys::write(pipe->writeEnd.get(), "x");
    });
    char byte = 0;
    auto got = sys::read(pipe->readEnd.get(), std::span(&byte, 1));
    writer.join();
    ::sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_TRUE(signalled);
    ASSERT_TRUE(got) << errorName(got.error());
    EXPECT_EQ(byte, 'x');
}

} // namespace
} // namespace tovel
