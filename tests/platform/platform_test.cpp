// Detached threads on kept stacks: every thread runs with the full stack
// size, stacks are reused once their threads are gone, and more threads than
// kept stacks still start. (The other wrappers are seen at work: directories
// in the listing and file-server suites; signals, locks, PTYs and descriptor
// flags in the client and keeper suites.)
#include "platform/thread.hpp"
#include "support/test_support.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <pthread.h>

namespace tovel {
namespace {

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
