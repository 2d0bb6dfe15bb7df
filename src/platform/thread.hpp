// Detached POSIX threads that all share one stack size.
#pragma once

#include "platform/result.hpp"

#include <cstddef>
#include <pthread.h>

namespace tovel::sys {

// A thread's entry; its return value is ignored (the thread is detached).
using ThreadEntry = void* (*)(void* argument);

// Starts detached threads with a stack of a fixed size and a guard area of
// one page (64 KiB if the page size cannot be read). The attributes are set
// up once and reused for every thread. Only one thread may start threads
// through one starter at a time.
class DetachedThreadStarter {
  public:
    [[nodiscard]] static Result<DetachedThreadStarter> create(std::size_t stackSize);
    DetachedThreadStarter(DetachedThreadStarter&& other) noexcept;
    DetachedThreadStarter& operator=(DetachedThreadStarter&&) = delete;
    DetachedThreadStarter(const DetachedThreadStarter&) = delete;
    ~DetachedThreadStarter();

    // Starts `entry(argument)`. SystemResources when the system refuses for
    // lack of resources (EAGAIN), Unexpected otherwise.
    [[nodiscard]] Result<> start(ThreadEntry entry, void* argument);

  private:
    DetachedThreadStarter() = default;
    pthread_attr_t attributes_{};
    bool owned_ = false;
};

} // namespace tovel::sys
