// The platform parts the file server leans on: the directory reader, and
// detached threads on kept stacks (every thread runs with the full stack size,
// stacks are reused once their threads are gone, and more threads than kept
// stacks still start). Signals, locks, PTYs and descriptor flags are seen at
// work in the client and keeper suites.
#include "platform/directory.hpp"
#include "platform/thread.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <pthread.h>
#include <string>
#include <vector>

namespace tovel {
namespace {

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

constexpr std::size_t kStackSize = 16 * 1024 * 1024;

struct Probe {
    std::atomic<int> finished{0};
    std::atomic<int> smallStacks{0};
    std::atomic<bool> release{false};
};

void* probeThread(void* raw) {
    auto* probe = static_cast<Probe*>(raw);
    pthread_attr_t attributes;
    std::size_t size = 0;
    if (::pthread_getattr_np(::pthread_self(), &attributes) == 0) {
        ::pthread_attr_getstacksize(&attributes, &size);
        ::pthread_attr_destroy(&attributes);
    }
    probe->smallStacks.fetch_add(size < kStackSize ? 1 : 0);
    volatile char deep[256 * 1024]; // well inside the stack, far past a default guard
    deep[0] = 1;
    deep[sizeof deep - 1] = deep[0];
    while (!probe->release.load())
        ::sched_yield();
    probe->finished.fetch_add(1);
    return nullptr;
}

TEST(DetachedThreads, ManyAtOnceThenReusedStacks) {
    using namespace std::chrono_literals;
    // The starter keeps its stacks for the life of the process by design.
    static auto* starter = new sys::DetachedThreadStarter(kStackSize);
    auto* probe = new Probe;     // threads may touch it until they end
    constexpr int kAtOnce = 100; // more than the kept stacks
    for (int i = 0; i < kAtOnce; ++i)
        ASSERT_TRUE(starter->start(probeThread, probe)) << i;
    probe->release.store(true);
    ASSERT_TRUE(test::waitUntil([&] { return probe->finished.load() == kAtOnce; }, 60s));

    // One after another: each start finds a stack left by an ended thread.
    for (int i = 0; i < 300; ++i)
        ASSERT_TRUE(starter->start(probeThread, probe)) << i;
    ASSERT_TRUE(test::waitUntil([&] { return probe->finished.load() == kAtOnce + 300; }, 60s));
    EXPECT_EQ(probe->smallStacks.load(), 0);
}

} // namespace
} // namespace tovel
