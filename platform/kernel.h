// The kernel entries: the one call boundary between the system and the kernel.
// Declared here for the system; the host platform implements them. Plain types only,
// so that host code can include this header next to the host's own headers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlix {

// A kernel object is known by a 64-bit handle; -1 is failure, and in a field that may be
// unset, 0 and -1 both mean none.
using Handle = std::int64_t;
inline constexpr Handle INVALID_HANDLE = -1;

inline bool handle_valid(Handle h) { return h != 0 && h != INVALID_HANDLE; }

// Kernel status of an entry.
using Status = std::uint64_t;
inline constexpr Status STATUS_DONE = 0;
inline constexpr Status STATUS_DELETED = 292;      // the object went away during the wait
inline constexpr Status STATUS_TIMEOUT = 293;      // the time-out ran out
inline constexpr Status STATUS_BAD_HANDLE = 300;   // no live object behind the handle
inline constexpr Status STATUS_BAD_ARGUMENT = 301; // wrong selector, size, address or object kind
inline constexpr Status STATUS_NO_MEMORY = 302;
inline constexpr Status STATUS_REPEAT = 310;       // an exception handler asked the wait to end

// Time-outs are milliseconds; -1 waits for ever.
inline constexpr std::int64_t WAIT_FOREVER = -1;

// A message: three 64-bit words.
struct Message {
    std::uint64_t word1;
    std::uint64_t type;
    std::uint64_t word2;
};
static_assert(sizeof(Message) == 24);

// Selectors of _SL_GetState.
inline constexpr std::uint64_t STATE_THREAD = 1;
inline constexpr std::uint64_t STATE_TASK = 2;
inline constexpr std::uint64_t STATE_REGISTRY_PORT = 9;
inline constexpr std::uint64_t STATE_SUPERVISOR_PORT = 10;
inline constexpr std::uint64_t STATE_TASKS_AS_HANDLES = 20;
inline constexpr std::uint64_t STATE_VM_AVAILABLE = 30;

// Selectors of _SL_GetObjectInfo and codes of _SL_ControlObject.
inline constexpr std::uint64_t INFO_TASK_ID = 6;
inline constexpr std::uint64_t INFO_USER_WORD = 782;
inline constexpr std::uint64_t CONTROL_SET_USER_WORD = 20482;
inline constexpr std::uint64_t CONTROL_TASK_DYING = 20487;

// Flags of _SL_DeleteObject.
inline constexpr std::uint64_t DELETE_OBJECT = 0x80000000;          // the object, through any handle
inline constexpr std::uint64_t DELETE_MEMO_WITH_VIEWS = 0x80020000; // a memo and its views
inline constexpr std::uint64_t DELETE_HANDLE = 0;                   // only this further handle

// Event modes of _SL_CreateEvent: bit 0 starts set; bit 1 makes a passed wait reset it.
inline constexpr std::uint64_t EVENT_STARTS_SET = 1;
inline constexpr std::uint64_t EVENT_AUTO_RESET = 2;

// Exception classes.
inline constexpr std::uint64_t EXCEPTION_SYSTEM = 0x10000000;
inline constexpr std::uint64_t EXCEPTION_USER = 0x20000000;

// What the kernel calls for an exception of a class: (the table given at registration,
// exception number, argument, address of a result word, 0, 0). A handler leaves by
// _SL_RetException; returning counts as _SL_RetException(result, *result_word).
using ExceptionHandler = std::uint64_t (*)(void* table, std::uint64_t number, std::uint64_t argument,
                                           std::uint64_t* result_word, std::uint64_t, std::uint64_t);

// Entry of a kernel thread. Returning from it ends the thread.
using ThreadEntry = void (*)(void* argument);

Handle _SL_CreateMsgPort(std::uint64_t, std::uint64_t);
Handle _SL_CreateHandle(std::uint64_t, Handle object, std::uint64_t flags);
Handle _SL_CreateMsgPipe(std::uint64_t, Handle port_a, Handle port_b, std::uint64_t, std::uint64_t);
Status _SL_SendMsg(Handle port, std::uint64_t word1, std::uint64_t type, std::uint64_t word2,
                   std::int64_t timeout);
Status _SL_RecvMsg(Handle port, std::uint64_t* word1, std::uint64_t* type, std::uint64_t* word2,
                   std::int64_t timeout);
Status _SL_RecvMsgPtr(Handle port, Message* message, std::int64_t timeout);
std::int64_t _SL_GetState(std::uint64_t selector);
Status _SL_SetState(std::uint64_t selector, std::uint64_t value);
Status _SL_GetObjectInfo(Handle object, std::uint64_t selector, std::uint64_t* out);
Status _SL_ControlObject(Handle object, std::uint64_t code, std::uint64_t a, std::uint64_t b,
                         std::uint64_t c, std::uint64_t d);
Status _SL_DeleteObject(Handle object, std::uint64_t flags);
Handle _SL_CreateThread(std::uint64_t, ThreadEntry entry, void* argument, std::uint64_t priority,
                        void* stack_top);
Handle _SL_CreateSemaphore(std::uint64_t, std::uint64_t, std::uint64_t, std::uint64_t);
Status _SL_WaitSemaphore(Handle semaphore, std::uint64_t count, std::int64_t timeout);
Status _SL_SignalSemaphore(Handle semaphore, std::uint64_t count);
Handle _SL_CreateEvent(std::uint64_t, std::uint64_t mode);
Status _SL_WaitForEventPtr(Handle event, Message* record, std::int64_t timeout);
Status _SL_SetEvent(Handle event, std::uint64_t, std::uint64_t, std::uint64_t);
Status _SL_ResetEvent(Handle event, std::uint64_t);
Handle _SL_CreateMemo(std::uint64_t, std::uint64_t, std::uint64_t size, std::uint64_t);
void* _SL_AllocView(std::uint64_t, Handle memo, void* address, std::uint64_t, std::uint64_t, std::uint64_t);
Handle _SL_GetAddressMemo(std::uint64_t, const void* address, std::uint64_t mode);
Handle _SL_GetAddressView(std::uint64_t, const void* address, std::uint64_t mode);
void* _SL_VirtualAlloc(std::uint64_t, void* address, std::uint64_t size, std::uint64_t);
Status _SL_VirtualFree(std::uint64_t, void* address, std::uint64_t);
Status _SL_CreateStore(Handle task, std::uint64_t index, std::uint64_t value, std::uint64_t);
Status _SL_GetStore(std::uint64_t, std::uint64_t index, std::uint64_t* out);
Handle _SL_CreateWatchObject(Handle task, Handle port, Handle watched, std::uint64_t flags);
Status _SL_SetExceptionHandler(std::uint64_t, std::uint64_t exception_class, ExceptionHandler handler,
                               void* table);
[[noreturn]] void _SL_RetException(std::uint64_t status, std::uint64_t word);

} // namespace orlix
