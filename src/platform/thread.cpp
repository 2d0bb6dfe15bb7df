// Detached threads.
#include "platform/thread.hpp"

#include <cerrno>
#include <new>
#include <pthread.h>
#include <unistd.h>

namespace tovel::sys {

namespace {

constexpr std::size_t kFallbackPageSize = 65536;

struct Start {
    ThreadEntry entry;
    void* argument;
};

void* trampoline(void* raw) {
    Start start = *static_cast<Start*>(raw);
    delete static_cast<Start*>(raw);
    start.entry(start.argument);
    return nullptr;
}

std::size_t pageSize() {
    long size = ::sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<std::size_t>(size) : kFallbackPageSize;
}

} // namespace

Result<> startDetachedThread(ThreadEntry entry, void* argument, std::size_t stackSize) {
    pthread_attr_t attributes;
    if (::pthread_attr_init(&attributes) != 0)
        return fail(Error::Unexpected);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    ::pthread_attr_setstacksize(&attributes, stackSize);
    ::pthread_attr_setguardsize(&attributes, pageSize());
    auto* start = new (std::nothrow) Start{entry, argument};
    if (start == nullptr) {
        ::pthread_attr_destroy(&attributes);
        return fail(Error::OutOfMemory);
    }
    pthread_t thread;
    int failed = ::pthread_create(&thread, &attributes, trampoline, start);
    ::pthread_attr_destroy(&attributes);
    if (failed == 0)
        return {};
    delete start;
    return fail(failed == EAGAIN ? Error::SystemResources : Error::Unexpected);
}

} // namespace tovel::sys
