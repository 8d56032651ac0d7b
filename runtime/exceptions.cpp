// The process's exception table: what the kernel calls for each class, the entries by number,
// their defaults (a system fault ends the task at once) and the calls that replace them.
// System code.
#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/heap.h"
#include "runtime/signal.h"

namespace orlix {

namespace {

// Values a debugger on the loader's side may watch; they mean nothing to the system.
constexpr std::uint64_t DEBUG_STATE = 0xddeebb66;
constexpr std::uint64_t DEBUG_CONSOLE_STATE = 0xddeebbcc;
constexpr std::uint64_t FAULT_BEGIN = 60161;
constexpr std::uint64_t FAULT_TASK_MARKED = 60162;
constexpr std::uint64_t FAULT_END = 60163;
constexpr std::uint64_t BREAKPOINT_SEEN = 48059;

// The private word the debug entries share.
constinit std::uint64_t debug_word = 0;

ExceptionEntry* system_entries() { return g_libc_context->exception_table; }

ExceptionEntry* user_entries()
{
    ExceptionEntry* table = g_libc_context->exception_table;
    return table == nullptr ? nullptr : table + EXCEPTION_ENTRIES;
}

[[noreturn]] void dispatch(ExceptionEntry* entries, std::uint64_t number, std::uint64_t argument,
                          std::uint64_t* word, std::uint64_t fifth, std::uint64_t sixth)
{
    *word = 0;
    std::uint64_t status = EXCEPTION_NOT_HANDLED;
    if (number < EXCEPTION_ENTRIES) {
        const ExceptionEntry& entry = entries[number];
        status = entry.handler(entry.context_word, number, argument, word, fifth, sixth);
    }
    _SL_RetException(status, *word);
}

ExceptionHandler replace(ExceptionEntry* entries, std::uint64_t number, ExceptionHandler handler,
                         void* context_word)
{
    if (entries == nullptr || number >= EXCEPTION_ENTRIES || handler == nullptr)
        return nullptr;
    ExceptionHandler previous = entries[number].handler;
    entries[number] = ExceptionEntry{handler, context_word};
    return previous;
}

std::uint64_t libc_ex_usr_default(void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t,
                                  std::uint64_t)
{
    return EXCEPTION_HANDLED;
}

std::uint64_t _libc_ex_empty(void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t, std::uint64_t)
{
    return EXCEPTION_HANDLED;
}

// The task dies: no exit handlers, no message to the supervisor.
std::uint64_t libc_ex_sys_default(void*, std::uint64_t number, std::uint64_t, std::uint64_t*, std::uint64_t,
                                  std::uint64_t)
{
    Handle task = _SL_GetState(STATE_TASK);
    bool breakpoint = number == EXCEPTION_BREAKPOINT;
    if (breakpoint)
        _SL_SetState(DEBUG_STATE, FAULT_BEGIN);
    _SL_ControlObject(task, CONTROL_TASK_DYING, 0, 0, 0, 0);
    if (breakpoint)
        _SL_SetState(DEBUG_STATE, FAULT_TASK_MARKED);
    _SL_DeleteObject(task, DELETE_OBJECT);
    if (breakpoint)
        _SL_SetState(DEBUG_STATE, FAULT_END);
    return EXCEPTION_HANDLED;
}

// The loader of this platform offers no debug hook, so a breakpoint is only noted.
std::uint64_t _libc_ex_gdb_brkpoint(void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t,
                                    std::uint64_t)
{
    _SL_SetState(DEBUG_STATE, BREAKPOINT_SEEN);
    return EXCEPTION_HANDLED;
}

std::uint64_t _libc_ex_gdb_break(void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t,
                                 std::uint64_t)
{
    return EXCEPTION_HANDLED;
}

std::uint64_t _libc_ex_debugconsole(void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t,
                                    std::uint64_t)
{
    _SL_GetState(DEBUG_CONSOLE_STATE);
    return EXCEPTION_HANDLED;
}

} // namespace

std::uint64_t libc_exhan_sys(void* table, std::uint64_t number, std::uint64_t argument, std::uint64_t* word,
                             std::uint64_t fifth, std::uint64_t sixth)
{
    dispatch(static_cast<ExceptionEntry*>(table), number, argument, word, fifth, sixth);
}

std::uint64_t libc_exhan_usr(void* table, std::uint64_t number, std::uint64_t argument, std::uint64_t* word,
                             std::uint64_t fifth, std::uint64_t sixth)
{
    dispatch(static_cast<ExceptionEntry*>(table), number, argument, word, fifth, sixth);
}

void libc_init_exception(LibcContext* context)
{
    if (context->exception_table != nullptr)
        return;
    auto* table = static_cast<ExceptionEntry*>(malloc(2 * EXCEPTION_ENTRIES * sizeof(ExceptionEntry)));
    if (table == nullptr)
        return;
    ExceptionEntry* user = table + EXCEPTION_ENTRIES;
    for (int i = 0; i < EXCEPTION_ENTRIES; ++i) {
        table[i] = ExceptionEntry{libc_ex_sys_default, nullptr};
        user[i] = ExceptionEntry{libc_ex_usr_default, nullptr};
    }
    user[EXCEPTION_SIGNAL] = ExceptionEntry{_libc_ex_signal, context};
    user[EXCEPTION_CANCEL] = ExceptionEntry{__pthread_cancel_handler, context};
    context->exception_table = table;
    _SL_SetExceptionHandler(0, EXCEPTION_SYSTEM, libc_exhan_sys, table);
    _SL_SetExceptionHandler(0, EXCEPTION_USER, libc_exhan_usr, user);
    exc_enable_debugconsole(1);
    exc_enable_gdb_break(1);
}

ExceptionHandler setexsyshan(std::uint64_t number, ExceptionHandler handler, void* context_word)
{
    return replace(system_entries(), number, handler, context_word);
}

ExceptionHandler setexusrhan(std::uint64_t number, ExceptionHandler handler, void* context_word)
{
    return replace(user_entries(), number, handler, context_word);
}

void exc_enable_debugconsole(int on)
{
    setexusrhan(EXCEPTION_DEBUG_CONSOLE, on ? _libc_ex_debugconsole : _libc_ex_empty, nullptr);
}

void exc_enable_gdb_break(int on)
{
    setexusrhan(EXCEPTION_DEBUG_BREAK, on ? _libc_ex_gdb_break : _libc_ex_empty, on ? &debug_word : nullptr);
    setexsyshan(EXCEPTION_BREAKPOINT, on ? _libc_ex_gdb_brkpoint : libc_ex_sys_default,
                on ? &debug_word : nullptr);
}

} // namespace orlix
