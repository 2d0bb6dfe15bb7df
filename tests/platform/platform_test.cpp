// The platform wrappers that other layers lean on: the signal self-pipe, the
// directory reader, file locks, PTY window sizes and process waiting.
#include "platform/directory.hpp"
#include "platform/file_lock.hpp"
#include "platform/process.hpp"
#include "platform/pty.hpp"
#include "platform/signal.hpp"
#include "platform/system.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace tovel {
namespace {

TEST(SignalPipe, RoutedSignalsBecomeTheirBytes) {
    auto pipe = sys::SignalPipe::create();
    ASSERT_TRUE(pipe);
    ASSERT_TRUE(pipe->route(SIGUSR1, 'U'));
    ASSERT_TRUE(pipe->route(SIGUSR2, 'V'));
    char bytes[8];
    EXPECT_EQ(pipe->drain(bytes).value(), 0u);
    ASSERT_EQ(::raise(SIGUSR1), 0);
    ASSERT_EQ(::raise(SIGUSR2), 0);
    auto got = pipe->drain(bytes);
    ASSERT_TRUE(got);
    EXPECT_EQ(std::string(bytes, *got), "UV");
}

TEST(DirectoryReader, ListsEntriesWithTypesAndSkipsDots) {
    test::TempDir dir;
    dir.writeFile("file.txt", "x");
    dir.writeFile("sub/inner", "y");
    auto reader = sys::DirectoryReader::open(dir.path());
    ASSERT_TRUE(reader);
    std::vector<std::string> seen;
    for (;;) {
        auto entry = reader->next();
        ASSERT_TRUE(entry);
        if (!*entry)
            break;
        seen.push_back(std::string((*entry)->name) +
                       ((*entry)->type == sys::EntryType::Directory ? "/" : ""));
    }
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::string>{"file.txt", "sub/"}));
    auto child = reader->openChild("sub");
    ASSERT_TRUE(child);
    auto st = child->statEntry("inner", sys::FollowLinks::No);
    ASSERT_TRUE(st);
    EXPECT_EQ(st->st_size, 1);
    EXPECT_EQ(reader->openChild("file.txt").error(), Error::NotDir);
    EXPECT_EQ(sys::DirectoryReader::open(dir.path() + "/missing").error(), Error::FileNotFound);
}

TEST(FileLock, SecondHolderWouldBlockUntilFirstCloses) {
    test::TempDir dir;
    std::string path = dir.path() + "/x.lock";
    auto first = sys::open(path, O_RDWR | O_CREAT, 0600);
    auto second = sys::open(path, O_RDWR);
    ASSERT_TRUE(first && second);
    ASSERT_TRUE(sys::lockExclusiveNonBlocking(first->get()));
    EXPECT_EQ(sys::lockExclusiveNonBlocking(second->get()).error(), Error::WouldBlock);
    first->reset();
    EXPECT_TRUE(sys::lockExclusiveNonBlocking(second->get()));
}

TEST(Pty, WindowSizeRoundTripsAndDescriptorsAreCloseOnExec) {
    auto pty = sys::openPty({100, 30});
    ASSERT_TRUE(pty);
    EXPECT_EQ(sys::windowSize(pty->slave.get())->cols, 100);
    ASSERT_TRUE(sys::setWindowSize(pty->master.get(), {200, 60}));
    auto size = sys::windowSize(pty->slave.get());
    ASSERT_TRUE(size);
    EXPECT_EQ(size->cols, 200);
    EXPECT_EQ(size->rows, 60);
    EXPECT_TRUE(sys::fcntl(pty->master.get(), F_GETFD).value() & FD_CLOEXEC);
    EXPECT_TRUE(sys::fcntl(pty->slave.get(), F_GETFD).value() & FD_CLOEXEC);
}

TEST(Process, WaitReportsExitStatusAndNoHang) {
    auto pipe = sys::pipe();
    ASSERT_TRUE(pipe);
    auto pid = sys::fork();
    ASSERT_TRUE(pid);
    if (*pid == 0) {
        char byte;
        (void)sys::read(pipe->readEnd.get(), std::span(&byte, 1));
        sys::exitImmediately(7);
    }
    auto early = sys::waitpid(*pid, sys::WaitMode::NoHang);
    ASSERT_TRUE(early);
    EXPECT_EQ(early->pid, 0);
    ASSERT_TRUE(sys::writeAll(pipe->writeEnd.get(), "x"));
    auto done = sys::waitpid(*pid, sys::WaitMode::Block);
    ASSERT_TRUE(done);
    EXPECT_EQ(done->pid, *pid);
    EXPECT_TRUE(WIFEXITED(done->status));
    EXPECT_EQ(WEXITSTATUS(done->status), 7);
    EXPECT_EQ(sys::killProcessGroup(0, SIGTERM).error(), Error::InvalidArgument);
}

} // namespace
} // namespace tovel

namespace tovel {
namespace {

TEST(PtyProcess, RunsTheBinaryOnATerminal) {
    test::PtyProcess process({"--version"}, {});
    EXPECT_TRUE(process.readUntil("tovel-ptyd v0.2.8"));
    EXPECT_EQ(process.waitExit(), 0);
}

} // namespace
} // namespace tovel
