// The mutex over the kernel's semaphore: exclusion under contention, waiters that sleep and are
// let through one per unlock, kernel failures reported, and the edges of its count.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/mutex.h"
#include "tests/kernel/kernel_test_util.h"

using namespace ktest;

TEST(Mutex, ExcludesUnderContention)
{
    Mutex mutex;
    ASSERT_EQ(MutexInit(&mutex), MUTEX_OK);
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 50000; ++i) {
                ASSERT_EQ(MutexLock(&mutex), MUTEX_OK);
                long seen = counter;
                counter = seen + 1;
                ASSERT_EQ(MutexUnlock(&mutex), MUTEX_OK);
            }
        });
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(counter, 200000);
    EXPECT_EQ(mutex.count, 0);
    EXPECT_EQ(MutexDestroy(&mutex), MUTEX_OK);
    EXPECT_EQ(mutex.semaphore, INVALID_HANDLE);
}

TEST(Mutex, WaitersSleepAndEachUnlockLetsOneThrough)
{
    // The holder keeps the lock long enough for three waiters to go to sleep on the semaphore;
    // each then holds it long enough for the others to sleep again.
    Mutex mutex;
    ASSERT_EQ(MutexInit(&mutex), MUTEX_OK);
    ASSERT_EQ(MutexLock(&mutex), MUTEX_OK);
    std::atomic<int> inside{0}, most_inside{0}, finished{0};
    std::vector<std::thread> waiters;
    for (int t = 0; t < 3; ++t)
        waiters.emplace_back([&] {
            ASSERT_EQ(MutexLock(&mutex), MUTEX_OK);
            int now = ++inside;
            most_inside = std::max(most_inside.load(), now);
            std::this_thread::sleep_for(std::chrono::milliseconds(15));
            --inside;
            ++finished;
            ASSERT_EQ(MutexUnlock(&mutex), MUTEX_OK);
        });
    ASSERT_TRUE(wait_until([&] { return __atomic_load_n(&mutex.count, __ATOMIC_SEQ_CST) == 4; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(finished, 0);
    ASSERT_EQ(MutexUnlock(&mutex), MUTEX_OK);
    EXPECT_TRUE(wait_until([&] { return finished == 3; })) << "a waiter was never let through";
    for (auto& waiter : waiters)
        waiter.join();
    EXPECT_EQ(most_inside, 1);
    EXPECT_EQ(mutex.count, 0);
    EXPECT_EQ(MutexDestroy(&mutex), MUTEX_OK);
}

TEST(Mutex, KernelFailuresAreReported)
{
    // A waiter whose semaphore goes away: -3 from MutexLock, and from MutexTimedLock (292).
    for (bool timed : {false, true}) {
        Mutex mutex;
        ASSERT_EQ(MutexInit(&mutex), MUTEX_OK);
        ASSERT_EQ(MutexLock(&mutex), MUTEX_OK);
        std::atomic<int> result{1};
        std::thread waiter([&] { result = timed ? MutexTimedLock(&mutex, 5000) : MutexLock(&mutex); });
        ASSERT_TRUE(wait_until([&] { return __atomic_load_n(&mutex.count, __ATOMIC_SEQ_CST) == 2; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(MutexDestroy(&mutex), MUTEX_OK);
        waiter.join();
        EXPECT_EQ(result, MUTEX_KERNEL_FAILURE) << (timed ? "MutexTimedLock" : "MutexLock");
        // No semaphore to hand over through: the unlock that has a waiter to wake fails too.
        EXPECT_EQ(MutexUnlock(&mutex), MUTEX_KERNEL_FAILURE);
    }
    Mutex none{1, INVALID_HANDLE};
    EXPECT_EQ(MutexLock(&none), MUTEX_KERNEL_FAILURE);
}

TEST(Mutex, TryTimedAndUnbalancedUse)
{
    Mutex mutex;
    ASSERT_EQ(MutexInit(&mutex), MUTEX_OK);
    EXPECT_EQ(MutexTimedLock(&mutex, 0), MUTEX_BAD_ARGUMENT);
    EXPECT_EQ(mutex.count, 0);
    EXPECT_EQ(MutexTryLock(&mutex), MUTEX_OK);
    EXPECT_EQ(MutexTryLock(&mutex), MUTEX_BUSY);
    std::thread other([&] {
        auto start = Clock::now();
        EXPECT_EQ(MutexTimedLock(&mutex, 50), MUTEX_BUSY);
        EXPECT_GE(elapsed_ms(start), 50);
    });
    other.join();
    // The timed-out waiter left its increment behind, as the mutex does by design.
    EXPECT_EQ(mutex.count, 2);
    mutex.count = 1;
    EXPECT_EQ(MutexUnlock(&mutex), MUTEX_OK);
    EXPECT_EQ(MutexUnlock(&mutex), MUTEX_OK);
    EXPECT_EQ(mutex.count, -1);
    mutex.count = 0;
    EXPECT_EQ(MutexDestroy(&mutex), MUTEX_OK);
    EXPECT_EQ(MutexDestroy(&mutex), MUTEX_KERNEL_FAILURE);
}
