// The runtime's process and thread records for test and benchmark programs that run system code
// without the loader. Test code.
#include "tests/support/process.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "host/devices/devices.h"
#include "platform/kernel.h"
#include "runtime/context.h"
#include "runtime/thread.h"

namespace orlix::test {

namespace {

thread_local bool attached = false;

// A record of its own for a thread other than the first, in a memo as pthread_create makes it.
ThreadRecord* new_record()
{
    Handle memo = _SL_CreateMemo(0, 0, sizeof(ThreadRecord), 0);
    void* view = memo == INVALID_HANDLE ? nullptr : _SL_AllocView(0, memo, nullptr, 0, 0, 0);
    if (view == nullptr) {
        std::fputs("test: no memory for a thread record\n", stderr);
        std::abort();
    }
    auto* record = static_cast<ThreadRecord*>(view);
    std::memset(record, 0, sizeof *record);
    record->stack_memo = memo;
    return record;
}

} // namespace

void attach_thread()
{
    if (attached)
        return;
    static std::once_flag once;
    bool first = false;
    std::call_once(once, [&] {
        host::devices::boot();
        g_libc_context = __initcontext(0x10000, 0x40000, 0x80000000);
        first = true;
    });
    if (!first) {
        ThreadRecord* record = new_record();
        record->thread = _SL_GetState(STATE_THREAD);
        if (__pthread_init(record, g_libc_context, nullptr) != 0) {
            std::fputs("test: a thread record could not be made\n", stderr);
            std::abort();
        }
    }
    attached = true;
}

} // namespace orlix::test
