// A plain process-local mutex over pthread_mutex_t. Unlike std::mutex it
// reports nothing by exception, which keeps the static binary free of the
// system_error machinery.
#pragma once

#include <pthread.h>

namespace tovel::sys {

class Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;
    void lock() { ::pthread_mutex_lock(&mutex_); }
    void unlock() { ::pthread_mutex_unlock(&mutex_); }

  private:
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

class MutexGuard {
  public:
    explicit MutexGuard(Mutex& mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexGuard() { mutex_.unlock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

  private:
    Mutex& mutex_;
};

} // namespace tovel::sys
