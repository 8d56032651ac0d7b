// The end of a process: exit handlers in blocks of 32, the orderly end of exit and of a return
// from main, abort, and the status the supervisor hears. System code.
#include "platform/device.h"
#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/heap.h"
#include "runtime/process.h"
#include "runtime/start.h"
#include "runtime/stdio.h"

namespace orlix {

namespace {

// atexit's functions take no argument: each is registered as the argument of this trampoline.
void call(void* function) { reinterpret_cast<void (*)()>(function)(); }

bool has_supervisor(Handle port) { return port != 0 && port != INVALID_HANDLE; }

// The task's id for the supervisor, or its handle when the id can't be had.
std::uint64_t task_word()
{
    Handle task = _SL_GetState(STATE_TASK);
    std::uint64_t id = 0;
    if (_SL_GetObjectInfo(task, INFO_TASK_ID, &id) != STATUS_DONE)
        return static_cast<std::uint64_t>(task);
    return id;
}

void report_exit(std::uint64_t status)
{
    Handle supervisor = _SL_GetState(STATE_SUPERVISOR_PORT);
    if (has_supervisor(supervisor))
        SendMsgRetry(supervisor, task_word(), MSG_SUPERVISOR_EXIT, status, WAIT_FOREVER);
}

} // namespace

void crt_init_complete()
{
    Handle supervisor = _SL_GetState(STATE_SUPERVISOR_PORT);
    if (has_supervisor(supervisor))
        SendMsgRetry(supervisor, task_word(), MSG_SUPERVISOR_STARTED, 0, WAIT_FOREVER);
}

int __cxa_atexit(void (*function)(void*), void* argument)
{
    LibcContext* context = g_libc_context;
    if (context->atexit_block == nullptr) {
        context->atexit_block = &context->atexit_first;
        context->atexit_count = 0;
    }
    if (context->atexit_count == EXIT_BLOCK_ENTRIES) {
        auto* block = static_cast<ExitBlock*>(malloc(sizeof(ExitBlock)));
        if (block == nullptr)
            return -1;
        block->next = context->atexit_block;
        context->atexit_block = block;
        context->atexit_count = 0;
    }
    ExitBlock* block = context->atexit_block;
    block->functions[context->atexit_count] = function;
    block->arguments[context->atexit_count] = argument;
    context->atexit_count++;
    return 0;
}

int atexit(void (*function)())
{
    if (function == nullptr)
        return -1;
    return __cxa_atexit(call, reinterpret_cast<void*>(function));
}

void __libc_context_cleanup(LibcContext* context)
{
    std::uint64_t used = context->atexit_count;
    for (ExitBlock* block = context->atexit_block; block != nullptr; block = block->next) {
        for (std::uint64_t i = used; i-- > 0;)
            if (block->functions[i] != nullptr)
                block->functions[i](block->arguments[i]);
        used = EXIT_BLOCK_ENTRIES;
    }
    __fsi_fcloseall();
}

void crt_cleanup(int code)
{
    __libc_context_cleanup(g_libc_context);
    report_exit((static_cast<std::uint64_t>(code) << 8) & 0xff00);
    DeleteTask(0);
}

void __terminate_proc(std::uint64_t status)
{
    report_exit(status);
    for (;;)
        _SL_DeleteObject(_SL_GetState(STATE_TASK), DELETE_OBJECT);
}

void exit(int code)
{
    __libc_context_cleanup(g_libc_context);
    __terminate_proc((static_cast<std::uint64_t>(code) << 8) & 0xffff);
}

void _exit(int code) { exit(code); }

void _Exit(int code) { exit(code); }

void abort() { __terminate_proc(6); }

} // namespace orlix
