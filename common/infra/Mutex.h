// Mutexes, and the marks by which clang's thread-safety analysis follows them.
//
// The marks say which mutex guards a field and which one a function needs; clang checks them
// (-Wthread-safety), other compilers ignore them.
#pragma once

#include <mutex>

#include "common/infra/Semaphore.h"

#if defined(__clang__)
#define RL_ATTRIBUTE(x) __attribute__((x))
#else
#define RL_ATTRIBUTE(x)
#endif

#define RL_CAPABILITY(name) RL_ATTRIBUTE(capability(name))
#define RL_SCOPED_CAPABILITY RL_ATTRIBUTE(scoped_lockable)
#define RL_GUARDED_BY(mutex) RL_ATTRIBUTE(guarded_by(mutex))
#define RL_PT_GUARDED_BY(mutex) RL_ATTRIBUTE(pt_guarded_by(mutex))
#define RL_REQUIRES(...) RL_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define RL_EXCLUDES(...) RL_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define RL_ACQUIRE(...) RL_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define RL_TRY_ACQUIRE(...) RL_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RL_RELEASE(...) RL_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RL_ASSERT_CAPABILITY(x) RL_ATTRIBUTE(assert_capability(x))
#define RL_NO_THREAD_SAFETY_ANALYSIS RL_ATTRIBUTE(no_thread_safety_analysis)

// A plain, non-recursive mutex. The thread that locked it unlocks it.
// lock() and unlock() make it usable with std::unique_lock and std::condition_variable_any.
class RL_CAPABILITY("mutex") Mutex
{
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() RL_ACQUIRE() { m_mutex.lock(); }
    bool tryLock() RL_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }
    void unlock() RL_RELEASE() { m_mutex.unlock(); }

    // Tells the analysis that the caller knows the mutex to be held, where it cannot see so itself:
    // in code that is reached only through a call made under the lock. Does nothing at run time.
    void assertHeld() const RL_ASSERT_CAPABILITY(this) {}

    // For condition variables.
    std::mutex& native() { return m_mutex; }

private:
    std::mutex m_mutex;
};

// Holds a Mutex for the length of a scope.
class RL_SCOPED_CAPABILITY MutexGuard
{
public:
    explicit MutexGuard(Mutex& mutex) RL_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexGuard() RL_RELEASE() { m_mutex.unlock(); }
    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

private:
    Mutex& m_mutex;
};

// A mutex without an owner: one thread may lock it and another one unlock it, as when a lock is
// held across an asynchronous step.
class UnownedMutex
{
public:
    void lock() { m_free.wait(); }
    void unlock() { m_free.post(); }

private:
    Semaphore m_free{1};
};
