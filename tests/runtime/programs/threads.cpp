// Threads. argv[1]: "gate" checks that a new thread finds its record complete; "detached" runs
// detached threads one after another and checks that their memory does not pile up; "churn"
// starts each detached thread while the one before is still ending, as a server's sessions come
// and go; "last" ends the first thread while a detached one still runs, which then ends the
// process with status 0.
#include <cstring>

#include "platform/atomic.h"
#include "platform/kernel.h"
#include "runtime/context.h"
#include "runtime/errno.h"
#include "runtime/process.h"
#include "runtime/signal.h"
#include "runtime/stdio.h"
#include "runtime/thread.h"
#include "tests/runtime/programs/host_hooks.h"

namespace {

void pause_ms(std::int64_t ms)
{
    orlix::Handle never = orlix::_SL_CreateEvent(0, 0);
    orlix::Message record{};
    orlix::_SL_WaitForEventPtr(never, &record, ms);
    orlix::_SL_DeleteObject(never, orlix::DELETE_OBJECT);
}

std::uint32_t finished = 0;

void* check_record(void* parent)
{
    orlix::ThreadRecord* self = orlix::__pthread_self();
    int failures = 0;
    if (self->start_event != orlix::INVALID_HANDLE || self->context != orlix::g_libc_context)
        failures |= 1;
    if (self->signal_queue.mask.bits[0] != static_cast<orlix::ThreadRecord*>(parent)->signal_queue.mask.bits[0])
        failures |= 2;
    errno = 42;
    if (errno != 42 || orlix::__pthread_self()->errno_value != 42)
        failures |= 4;
    orlix::atomic::add(&finished, std::uint32_t{1});
    return reinterpret_cast<void*>(static_cast<std::intptr_t>(failures));
}

void* quick(void*)
{
    orlix::atomic::add(&finished, std::uint32_t{1});
    return nullptr;
}

void* last(void*)
{
    pause_ms(200);
    orlix::printf("last thread ends\n");
    orlix::fflush(orlix::__get_std_stream(1));
    return nullptr;
}

int detached_in_turn(int count, std::uint64_t* objects)
{
    orlix::pthread_attr_t attr;
    orlix::pthread_attr_init(&attr);
    orlix::pthread_attr_setdetachstate(&attr, 1);
    orlix::pthread_attr_setstacksize(&attr, 16384);
    for (int i = 0; i < count; ++i) {
        std::uint32_t before = orlix::atomic::load(&finished);
        orlix::pthread_t thread;
        if (orlix::pthread_create(&thread, &attr, quick, nullptr) != 0)
            return 1;
        while (orlix::atomic::load(&finished) == before)
            pause_ms(1);
        pause_ms(5); // let it go through its end
    }
    *objects = test_hooks::live_objects();
    return 0;
}

orlix::Handle ran = orlix::INVALID_HANDLE;

void* signal_ran(void*)
{
    orlix::_SL_SetEvent(ran, 0, 0, 0);
    return nullptr;
}

// The memory of each thread is freed while the next one starts: neither may lose its stack.
int churn(int count)
{
    ran = orlix::_SL_CreateEvent(0, 2);
    orlix::pthread_attr_t attr;
    orlix::pthread_attr_init(&attr);
    orlix::pthread_attr_setdetachstate(&attr, 1);
    orlix::pthread_attr_setstacksize(&attr, 16384);
    for (int i = 0; i < count; ++i) {
        orlix::pthread_t thread;
        orlix::Message record{};
        if (orlix::pthread_create(&thread, &attr, signal_ran, nullptr) != 0 ||
            orlix::_SL_WaitForEventPtr(ran, &record, -1) != orlix::STATUS_DONE)
            return 105;
    }
    return 0;
}

} // namespace

int orlix::main(int argc, char** argv, char**)
{
    if (argc < 2)
        return 100;
    if (std::strcmp(argv[1], "gate") == 0) {
        orlix::__sigsetSET(&orlix::__pthread_self()->signal_queue.mask, 9);
        orlix::pthread_t thread;
        if (orlix::pthread_create(&thread, nullptr, check_record, orlix::__pthread_self()) != 0)
            return 101;
        while (orlix::atomic::load(&thread->exited) == 0)
            pause_ms(1);
        return static_cast<int>(reinterpret_cast<std::intptr_t>(thread->exit_value));
    }
    if (std::strcmp(argv[1], "detached") == 0) {
        std::uint64_t after_three = 0;
        std::uint64_t after_thirty = 0;
        if (detached_in_turn(3, &after_three) != 0 || detached_in_turn(27, &after_thirty) != 0)
            return 102;
        orlix::printf("objects after 3: %llu, after 30: %llu\n", static_cast<unsigned long long>(after_three),
                      static_cast<unsigned long long>(after_thirty));
        return after_thirty == after_three ? 0 : 1;
    }
    if (std::strcmp(argv[1], "churn") == 0)
        return churn(30000);
    if (std::strcmp(argv[1], "last") == 0) {
        orlix::pthread_attr_t attr;
        orlix::pthread_attr_init(&attr);
        orlix::pthread_attr_setdetachstate(&attr, 1);
        orlix::pthread_t thread;
        if (orlix::pthread_create(&thread, &attr, last, nullptr) != 0)
            return 103;
        orlix::pthread_exit(nullptr);
    }
    return 104;
}
