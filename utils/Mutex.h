#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "utils/ThreadAnnotations.h"

namespace kelm {

// std::mutex with the annotations that let the compiler check which thread touches what.
class CAPABILITY("mutex") Mutex {
 public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }
    bool tryLock() TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

 private:
    friend class CondVar;
    std::mutex m_mutex;
};

// Holds a mutex for a scope; may be given up and taken again within it.
class SCOPED_CAPABILITY MutexLock {
 public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    // For a mutex that tryLock() has taken.
    MutexLock(Mutex& mutex, std::adopt_lock_t) REQUIRES(mutex) : m_mutex(mutex) {}
    ~MutexLock() RELEASE() {
        if (m_held) m_mutex.unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() RELEASE() {
        m_mutex.unlock();
        m_held = false;
    }
    void lock() ACQUIRE() {
        m_mutex.lock();
        m_held = true;
    }

 private:
    Mutex& m_mutex;
    bool m_held = true;
};

// What the calling thread does before it waits for a condition, may be null; see OwedPools.
inline thread_local void (*t_beforeWait)() = nullptr;

// A condition variable for Mutex. Each wait is one wait: spurious wake-ups come through, so callers
// loop over their condition unless they say why one wait is enough. A thread that waits owes no
// pool a turn: what it waits for may depend on that.
class CondVar {
 public:
    void wait(Mutex& mutex) REQUIRES(mutex) {
        if (t_beforeWait != nullptr) t_beforeWait();
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        m_condition.wait(lock);
        (void)lock.release();
    }

    // False when the deadline has passed. Not by the wall clock: set back by an hour, it would have
    // the wait take an hour more.
    template <class Duration>
    bool waitUntil(Mutex& mutex,
                   const std::chrono::time_point<std::chrono::steady_clock, Duration>& deadline)
        REQUIRES(mutex) {
        if (t_beforeWait != nullptr) t_beforeWait();
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        const std::cv_status status = m_condition.wait_until(lock, deadline);
        (void)lock.release();
        return status == std::cv_status::no_timeout;
    }

    // False when the time is up.
    template <class Rep, class Period>
    bool waitFor(Mutex& mutex, const std::chrono::duration<Rep, Period>& time) REQUIRES(mutex) {
        return waitUntil(mutex, std::chrono::steady_clock::now() + time);
    }

    void notifyOne() { m_condition.notify_one(); }
    void notifyAll() { m_condition.notify_all(); }

 private:
    std::condition_variable m_condition;
};

// std::shared_mutex with annotations: many readers or one writer.
class CAPABILITY("shared mutex") SharedMutex {
 public:
    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }
    void lockShared() ACQUIRE_SHARED() { m_mutex.lock_shared(); }
    void unlockShared() RELEASE_SHARED() { m_mutex.unlock_shared(); }

 private:
    std::shared_mutex m_mutex;
};

class SCOPED_CAPABILITY ReaderLock {
 public:
    explicit ReaderLock(SharedMutex& mutex) ACQUIRE_SHARED(mutex) : m_mutex(mutex) {
        m_mutex.lockShared();
    }
    ~ReaderLock() RELEASE_GENERIC() { m_mutex.unlockShared(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

 private:
    SharedMutex& m_mutex;
};

class SCOPED_CAPABILITY WriterLock {
 public:
    explicit WriterLock(SharedMutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~WriterLock() RELEASE() { m_mutex.unlock(); }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

 private:
    SharedMutex& m_mutex;
};

}  // namespace kelm
