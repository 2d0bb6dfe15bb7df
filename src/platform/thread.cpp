// Detached threads.
#include "platform/thread.hpp"

#include <cerrno>
#include <unistd.h>

namespace tovel::sys {

namespace {

constexpr std::size_t kFallbackPageSize = 65536;

std::size_t pageSize() {
    long size = ::sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<std::size_t>(size) : kFallbackPageSize;
}

Error threadError(int code) {
    return code == EAGAIN ? Error::SystemResources : Error::Unexpected;
}

} // namespace

Result<DetachedThreadStarter> DetachedThreadStarter::create(std::size_t stackSize) {
    DetachedThreadStarter starter;
    if (int failed = ::pthread_attr_init(&starter.attributes_); failed != 0)
        return fail(threadError(failed));
    starter.owned_ = true;
    if (::pthread_attr_setdetachstate(&starter.attributes_, PTHREAD_CREATE_DETACHED) != 0 ||
        ::pthread_attr_setstacksize(&starter.attributes_, stackSize) != 0 ||
        ::pthread_attr_setguardsize(&starter.attributes_, pageSize()) != 0)
        return fail(Error::Unexpected);
    return starter;
}

DetachedThreadStarter::DetachedThreadStarter(DetachedThreadStarter&& other) noexcept
    : attributes_(other.attributes_), owned_(other.owned_) {
    other.owned_ = false;
}

DetachedThreadStarter::~DetachedThreadStarter() {
    if (owned_)
        ::pthread_attr_destroy(&attributes_);
}

Result<> DetachedThreadStarter::start(ThreadEntry entry, void* argument) {
    pthread_t thread;
    if (int failed = ::pthread_create(&thread, &attributes_, entry, argument); failed != 0)
        return fail(threadError(failed));
    return {};
}

} // namespace tovel::sys
