// Detached POSIX threads that all get a stack of one fixed size.
#pragma once

#include "platform/result.hpp"

#include <cstddef>
#include <pthread.h>

namespace tovel::sys {

// A thread's entry; its return value is ignored (the thread is detached).
using ThreadEntry = void* (*)(void* argument);

struct StackPool;

// Starts detached threads whose stacks have a fixed size and a guard area of
// one page (64 KiB if the page size cannot be read) below them.
//
// Starting a thread is made cheap by keeping its stack: stacks are mapped
// once, lazily committed by the kernel, and handed to a later thread once
// the thread that last ran on one has entirely exited (the kernel no longer
// knows its id). Past a fixed number of kept stacks, threads get stacks of
// the same size from the C library. The kept stacks and their bookkeeping
// are never released, not even by the destructor: a detached thread may run
// on one until the process ends.
//
// Only one thread may start threads through one starter.
class DetachedThreadStarter {
  public:
    explicit DetachedThreadStarter(std::size_t stackSize);
    DetachedThreadStarter(const DetachedThreadStarter&) = delete;
    DetachedThreadStarter& operator=(const DetachedThreadStarter&) = delete;
    ~DetachedThreadStarter();

    // Starts `entry(argument)`. SystemResources when the system refuses for
    // lack of resources (EAGAIN), Unexpected otherwise.
    [[nodiscard]] Result<> start(ThreadEntry entry, void* argument);

  private:
    std::size_t stackSize_;
    std::size_t guardSize_;
    pthread_attr_t libraryStacks_{}; // for threads beyond the kept stacks
    bool libraryStacksReady_ = false;
    StackPool* pool_;
};

} // namespace tovel::sys
