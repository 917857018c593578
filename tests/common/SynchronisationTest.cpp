// Semaphore, the mutex without an owner, and the singleton.
#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

#include "common/infra/Mutex.h"
#include "common/infra/Singleton.h"

namespace {

TEST(SemaphoreTest, CountsAndTimesOut)
{
    Semaphore semaphore(1);
    semaphore.wait();
    EXPECT_FALSE(semaphore.waitFor(1));
    semaphore.post();
    semaphore.post();
    EXPECT_TRUE(semaphore.waitFor(0));
    EXPECT_TRUE(semaphore.waitFor(0));
    EXPECT_FALSE(semaphore.waitFor(0));
}

TEST(UnownedMutexTest, OneThreadLocksAndAnotherUnlocks)
{
    UnownedMutex mutex;
    int guarded = 0;
    mutex.lock();
    std::thread other([&] {
        guarded = 1;
        mutex.unlock();
    });
    mutex.lock();
    EXPECT_EQ(guarded, 1);
    mutex.unlock();
    other.join();
}

TEST(MutexTest, TryLockFailsWhileAnotherThreadHoldsIt)
{
    Mutex mutex;
    MutexGuard lock(mutex);
    bool taken = true;
    std::thread([&] {
        if (mutex.tryLock())
            mutex.unlock();
        else
            taken = false;
    }).join();
    EXPECT_FALSE(taken);
}

struct Counted
{
    Counted() { ++s_made; }
    static inline std::atomic<int> s_made{0};
};

TEST(SingletonTest, ManyThreadsFindOneObject)
{
    std::vector<std::thread> threads;
    std::vector<Counted*> found(4);
    for (Counted*& slot : found)
        threads.emplace_back([&slot] { slot = Singleton<Counted, Counted>::instance(); });
    for (std::thread& thread : threads)
        thread.join();
    for (Counted* object : found)
        EXPECT_EQ(object, found[0]);
    EXPECT_EQ(Counted::s_made, 1);
}

} // namespace
