// Costs of the kernel's hot paths next to their host counterparts: a mutex pair uncontended and
// contended by two threads against std::mutex, a semaphore's signal and wait, and a message round
// trip between two threads through ports.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <benchmark/benchmark.h>

#include "platform/kernel.h"
#include "platform/kernel_wrappers.h"
#include "platform/mutex.h"

using namespace orlix;

static void BM_MutexLockUnlock(benchmark::State& state)
{
    Mutex mutex;
    MutexInit(&mutex);
    for (auto _ : state) {
        MutexLock(&mutex);
        benchmark::ClobberMemory();
        MutexUnlock(&mutex);
    }
    MutexDestroy(&mutex);
}
BENCHMARK(BM_MutexLockUnlock);

static void BM_StdMutexLockUnlock(benchmark::State& state)
{
    std::mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        benchmark::ClobberMemory();
        mutex.unlock();
    }
}
BENCHMARK(BM_StdMutexLockUnlock);

// The semaphore's fast paths on one thread: a signal, then a wait that finds it. Both find the
// semaphore through the thread's lookup cache.
static void BM_SemaphoreSignalWait(benchmark::State& state)
{
    Handle semaphore = _SL_CreateSemaphore(0, 0, 1, 0);
    for (auto _ : state) {
        _SL_SignalSemaphore(semaphore, 1);
        _SL_WaitSemaphore(semaphore, 1, WAIT_FOREVER);
    }
    DeleteSemaphore(semaphore);
}
BENCHMARK(BM_SemaphoreSignalWait);

// Two threads take turns on one lock around a short critical section: the figure is the time per
// pair over both threads, so a lock that hands over without sleeping stays near the uncontended one.
Mutex contended_mutex;
std::mutex contended_std_mutex;
long contended_counter = 0;

static void BM_MutexContendedPair(benchmark::State& state)
{
    if (state.thread_index() == 0)
        MutexInit(&contended_mutex);
    for (auto _ : state) {
        MutexLock(&contended_mutex);
        benchmark::DoNotOptimize(++contended_counter);
        MutexUnlock(&contended_mutex);
    }
    if (state.thread_index() == 0)
        MutexDestroy(&contended_mutex);
}
BENCHMARK(BM_MutexContendedPair)->Threads(1)->Threads(2)->UseRealTime();

static void BM_StdMutexContendedPair(benchmark::State& state)
{
    for (auto _ : state) {
        contended_std_mutex.lock();
        benchmark::DoNotOptimize(++contended_counter);
        contended_std_mutex.unlock();
    }
}
BENCHMARK(BM_StdMutexContendedPair)->Threads(1)->Threads(2)->UseRealTime();

// One thread sends to the echo thread's port and waits for the answer on its own.
static void BM_PortRoundTrip(benchmark::State& state)
{
    Handle request = _SL_CreateMsgPort(0, 0);
    Handle reply = _SL_CreateMsgPort(0, 0);
    std::thread echo([&] {
        Message m{};
        while (_SL_RecvMsgPtr(request, &m, -1) == STATUS_DONE && m.type != 0)
            _SL_SendMsg(reply, m.word1, m.type, m.word2, -1);
    });
    Message m{};
    for (auto _ : state) {
        _SL_SendMsg(request, 1, 1, 2, -1);
        _SL_RecvMsgPtr(reply, &m, -1);
    }
    _SL_SendMsg(request, 0, 0, 0, -1);
    echo.join();
    DeleteMsgPort(request);
    DeleteMsgPort(reply);
}
BENCHMARK(BM_PortRoundTrip)->UseRealTime();

// The same round trip between two host threads with std::mutex and std::condition_variable.
static void BM_HostCondvarRoundTrip(benchmark::State& state)
{
    std::mutex lock;
    std::condition_variable cv;
    int turn = 0; // 0 idle, 1 request, 2 reply, 3 stop
    std::thread echo([&] {
        std::unique_lock guard(lock);
        for (;;) {
            cv.wait(guard, [&] { return turn == 1 || turn == 3; });
            if (turn == 3)
                return;
            turn = 2;
            cv.notify_all();
        }
    });
    for (auto _ : state) {
        std::unique_lock guard(lock);
        turn = 1;
        cv.notify_all();
        cv.wait(guard, [&] { return turn == 2; });
    }
    {
        std::lock_guard guard(lock);
        turn = 3;
    }
    cv.notify_all();
    echo.join();
}
BENCHMARK(BM_HostCondvarRoundTrip)->UseRealTime();

int main(int argc, char** argv)
{
    // glibc's std::mutex skips its atomic operations while a process has never had a second
    // thread; the system always has several, so the comparison is made in that state.
    std::thread([] {}).join();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
