// The runtime against the host's own calls, in one process: 4 KiB reads and writes of a file,
// stat of a path, thread creation and end, and malloc/free with two threads at once.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "runtime/fd.h"
#include "runtime/files.h"
#include "runtime/heap.h"
#include "runtime/thread.h"
#include "tests/support/process.h"

namespace {

constexpr std::size_t BLOCK = 4096;
constexpr std::size_t FILE_SIZE = std::size_t{16} << 20;

const std::string& data_file()
{
    static const std::string path = [] {
        std::string p = (std::filesystem::temp_directory_path() / ("orlix-bench-" + std::to_string(getpid()))).string();
        std::vector<char> chunk(1 << 20, 'x');
        int fd = ::open(p.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
        for (std::size_t done = 0; done < FILE_SIZE; done += chunk.size())
            if (::write(fd, chunk.data(), chunk.size()) != static_cast<ssize_t>(chunk.size()))
                std::abort();
        ::close(fd);
        std::atexit([] { std::filesystem::remove(data_file()); });
        return p;
    }();
    return path;
}

void HostPread(benchmark::State& state)
{
    int fd = ::open(data_file().c_str(), O_RDONLY);
    char buffer[BLOCK];
    off_t offset = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::pread(fd, buffer, BLOCK, offset));
        offset = (offset + BLOCK) % FILE_SIZE;
    }
    ::close(fd);
}

void RuntimeRead(benchmark::State& state)
{
    orlix::test::attach_thread();
    int fd = orlix::open(data_file().c_str(), orlix::OPEN_READ);
    char buffer[BLOCK];
    std::size_t offset = 0;
    for (auto _ : state) {
        if (offset == 0) {
            state.PauseTiming();
            orlix::lseek64(fd, 0, 0);
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(orlix::read(fd, buffer, BLOCK));
        offset = (offset + BLOCK) % FILE_SIZE;
    }
    orlix::close(fd);
}

void HostPwrite(benchmark::State& state)
{
    int fd = ::open(data_file().c_str(), O_WRONLY);
    char buffer[BLOCK] = {};
    off_t offset = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(::pwrite(fd, buffer, BLOCK, offset));
        offset = (offset + BLOCK) % FILE_SIZE;
    }
    ::close(fd);
}

void RuntimeWrite(benchmark::State& state)
{
    orlix::test::attach_thread();
    int fd = orlix::open(data_file().c_str(), orlix::OPEN_WRITE);
    char buffer[BLOCK] = {};
    std::size_t offset = 0;
    for (auto _ : state) {
        if (offset == 0) {
            state.PauseTiming();
            orlix::lseek64(fd, 0, 0);
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(orlix::write(fd, buffer, BLOCK));
        offset = (offset + BLOCK) % FILE_SIZE;
    }
    orlix::close(fd);
}

void HostStat(benchmark::State& state)
{
    struct ::stat st;
    for (auto _ : state)
        benchmark::DoNotOptimize(::stat(data_file().c_str(), &st));
}

void RuntimeStat(benchmark::State& state)
{
    orlix::test::attach_thread();
    struct orlix::stat st;
    for (auto _ : state)
        benchmark::DoNotOptimize(orlix::stat(data_file().c_str(), &st));
}

// A thread made, run and gone, with the 16 KiB stack of the daemon's workers.
void* host_routine(void*) { return nullptr; }

void HostThreadCreateJoin(benchmark::State& state)
{
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 16384);
    for (auto _ : state) {
        pthread_t thread;
        if (pthread_create(&thread, &attr, host_routine, nullptr) != 0)
            std::abort();
        pthread_join(thread, nullptr);
    }
    pthread_attr_destroy(&attr);
}

sem_t ran;

void* runtime_routine(void*)
{
    sem_post(&ran);
    return nullptr;
}

// Detached, as the daemon's workers are: each one's memory is released by the next to end.
void RuntimeThreadCreateAndEnd(benchmark::State& state)
{
    orlix::test::attach_thread();
    sem_init(&ran, 0, 0);
    orlix::pthread_attr_t attr;
    orlix::pthread_attr_init(&attr);
    orlix::pthread_attr_setstacksize(&attr, 16384);
    orlix::pthread_attr_setdetachstate(&attr, 1);
    for (auto _ : state) {
        orlix::pthread_t thread;
        if (orlix::pthread_create(&thread, &attr, runtime_routine, nullptr) != 0)
            std::abort();
        sem_wait(&ran);
    }
}

void HostMallocTwoThreads(benchmark::State& state)
{
    std::size_t size = 16;
    for (auto _ : state) {
        void* p = std::malloc(size);
        benchmark::DoNotOptimize(p);
        std::free(p);
        size = size == 128 ? 16 : size + 16;
    }
}

void RuntimeMallocTwoThreads(benchmark::State& state)
{
    orlix::test::attach_thread();
    std::size_t size = 16;
    for (auto _ : state) {
        void* p = orlix::malloc(size);
        benchmark::DoNotOptimize(p);
        orlix::free(p);
        size = size == 128 ? 16 : size + 16;
    }
}

} // namespace

BENCHMARK(HostPread);
BENCHMARK(RuntimeRead);
BENCHMARK(HostPwrite);
BENCHMARK(RuntimeWrite);
BENCHMARK(HostStat);
BENCHMARK(RuntimeStat);
BENCHMARK(HostThreadCreateJoin);
BENCHMARK(RuntimeThreadCreateAndEnd);
BENCHMARK(RuntimeMallocTwoThreads)->Threads(1)->Threads(2);
BENCHMARK(HostMallocTwoThreads)->Threads(1)->Threads(2);

BENCHMARK_MAIN();
