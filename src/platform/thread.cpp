// Detached threads on kept stacks.
#include "platform/thread.hpp"

#include <array>
#include <atomic>
#include <cerrno>
#include <new>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tovel::sys {

namespace {

constexpr std::size_t kFallbackPageSize = 65536;
// Enough for the connections a small server sees at once; each kept stack
// holds on to the pages its deepest call touched.
constexpr std::size_t kKeptStacks = 64;

std::size_t pageSize() {
    long size = ::sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<std::size_t>(size) : kFallbackPageSize;
}

enum class SlotState { Free, Running, Exiting };

// True once the thread with this id has left the kernel's tables. By then it
// has run its last instruction on its stack and the kernel has made its last
// write there (clearing the thread id in the library's thread block).
bool threadGone(pid_t process, pid_t tid) {
    return ::syscall(SYS_tgkill, process, tid, 0) != 0 && errno == ESRCH;
}

} // namespace

struct StackSlot {
    pthread_attr_t attributes;
    std::atomic<SlotState> state{SlotState::Free};
    std::atomic<pid_t> tid{0};
    ThreadEntry entry = nullptr;
    void* argument = nullptr;
};

struct StackPool {
    std::array<StackSlot, kKeptStacks> slots;
    std::size_t mapped = 0; // slots [0, mapped) own a stack
    pid_t process = ::getpid();
    StackPool* next = nullptr;
};

namespace {

// Threads may still run on a pool's stacks when its starter goes away, so
// pools are never freed; listing them here keeps them reachable, which is
// also what tells a leak checker they are meant to live.
std::atomic<StackPool*> gPools{nullptr};

void keepPool(StackPool* pool) {
    if (pool == nullptr)
        return;
    pool->next = gPools.load();
    while (!gPools.compare_exchange_weak(pool->next, pool)) {
    }
}

} // namespace

namespace {

void* runOnKeptStack(void* raw) {
    auto* slot = static_cast<StackSlot*>(raw);
    slot->entry(slot->argument);
    slot->tid.store(static_cast<pid_t>(::syscall(SYS_gettid)), std::memory_order_relaxed);
    slot->state.store(SlotState::Exiting, std::memory_order_release);
    return nullptr;
}

// Maps a stack with its guard below it and prepares the slot's attributes.
bool mapStack(StackSlot& slot, std::size_t stackSize, std::size_t guardSize) {
    void* base = ::mmap(nullptr, guardSize + stackSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (base == MAP_FAILED)
        return false;
    auto* bytes = static_cast<std::byte*>(base);
    if (::mprotect(bytes, guardSize, PROT_NONE) != 0 ||
        ::pthread_attr_init(&slot.attributes) != 0) {
        ::munmap(base, guardSize + stackSize);
        return false;
    }
    ::pthread_attr_setdetachstate(&slot.attributes, PTHREAD_CREATE_DETACHED);
    if (::pthread_attr_setstack(&slot.attributes, bytes + guardSize, stackSize) != 0) {
        ::pthread_attr_destroy(&slot.attributes);
        ::munmap(base, guardSize + stackSize);
        return false;
    }
    return true;
}

// A slot whose stack no thread uses any more, mapping a new one if needed;
// nullptr when every kept stack is busy.
StackSlot* freeSlot(StackPool& pool, std::size_t stackSize, std::size_t guardSize) {
    for (std::size_t i = 0; i < pool.mapped; ++i) {
        StackSlot& slot = pool.slots[i];
        SlotState state = slot.state.load(std::memory_order_acquire);
        if (state == SlotState::Free)
            return &slot;
        if (state == SlotState::Exiting &&
            threadGone(pool.process, slot.tid.load(std::memory_order_relaxed)))
            return &slot;
    }
    if (pool.mapped == pool.slots.size() ||
        !mapStack(pool.slots[pool.mapped], stackSize, guardSize))
        return nullptr;
    return &pool.slots[pool.mapped++];
}

} // namespace

DetachedThreadStarter::DetachedThreadStarter(std::size_t stackSize)
    : stackSize_(stackSize), guardSize_(pageSize()), pool_(new (std::nothrow) StackPool) {
    keepPool(pool_);
    if (::pthread_attr_init(&libraryStacks_) != 0)
        return;
    libraryStacksReady_ = true;
    if (::pthread_attr_setdetachstate(&libraryStacks_, PTHREAD_CREATE_DETACHED) != 0 ||
        ::pthread_attr_setstacksize(&libraryStacks_, stackSize) != 0 ||
        ::pthread_attr_setguardsize(&libraryStacks_, guardSize_) != 0) {
        ::pthread_attr_destroy(&libraryStacks_);
        libraryStacksReady_ = false;
    }
}

DetachedThreadStarter::~DetachedThreadStarter() {
    if (libraryStacksReady_)
        ::pthread_attr_destroy(&libraryStacks_);
}

Result<> DetachedThreadStarter::start(ThreadEntry entry, void* argument) {
    pthread_t thread;
    StackSlot* slot = pool_ ? freeSlot(*pool_, stackSize_, guardSize_) : nullptr;
    if (slot != nullptr) {
        slot->entry = entry;
        slot->argument = argument;
        slot->state.store(SlotState::Running, std::memory_order_relaxed);
        int failed = ::pthread_create(&thread, &slot->attributes, runOnKeptStack, slot);
        if (failed == 0)
            return {};
        slot->state.store(SlotState::Free, std::memory_order_relaxed);
        return fail(processCreationError(errorFromErrno(failed)));
    }
    if (!libraryStacksReady_)
        return fail(Error::Unexpected);
    if (int failed = ::pthread_create(&thread, &libraryStacks_, entry, argument); failed != 0)
        return fail(processCreationError(errorFromErrno(failed)));
    return {};
}

} // namespace tovel::sys
