// Stop and continue: a thread that runs blocking calls stops at the gate when signal 19 reaches it,
// stays stopped through a second 19, and goes on after one 18. Prints what it saw; status 0 when
// all held.
#include "platform/atomic.h"
#include "platform/kernel.h"
#include "runtime/context.h"
#include "runtime/fd.h"
#include "runtime/process.h"
#include "runtime/stdio.h"
#include "runtime/thread.h"
#include "tests/runtime/programs/host_hooks.h"

namespace {

std::uint64_t counter = 0;

void* spin(void*)
{
    for (;;) {
        orlix::atomic::add(&counter, std::uint64_t{1});
        orlix::close(-1); // a blocking call: it passes the gate while the process is stopped
    }
}

void pause_ms(std::int64_t ms)
{
    orlix::Handle never = orlix::_SL_CreateEvent(0, 0);
    orlix::Message record{};
    orlix::_SL_WaitForEventPtr(never, &record, ms);
    orlix::_SL_DeleteObject(never, orlix::DELETE_OBJECT);
}

std::uint64_t moves_over(std::int64_t ms)
{
    std::uint64_t before = orlix::atomic::load(&counter);
    pause_ms(ms);
    return orlix::atomic::load(&counter) - before;
}

} // namespace

int orlix::main(int, char**, char**)
{
    orlix::pthread_t thread;
    if (orlix::pthread_create(&thread, nullptr, spin, nullptr) != 0)
        return 100;
    int failures = 0;
    if (moves_over(50) == 0)
        failures |= 1;
    test_hooks::raise_signal(thread->thread, 19);
    pause_ms(50);
    if (moves_over(100) != 0)
        failures |= 2;
    test_hooks::raise_signal(thread->thread, 19);
    pause_ms(50);
    if (orlix::atomic::load(&orlix::g_libc_context->stop_count) != 1)
        failures |= 4;
    test_hooks::raise_signal(orlix::_SL_GetState(orlix::STATE_THREAD), 18);
    pause_ms(50);
    if (moves_over(50) == 0)
        failures |= 8;
    if (orlix::g_libc_context->stop_count != 0)
        failures |= 16;
    orlix::printf("stop and continue: %d\n", failures);
    return failures;
}
