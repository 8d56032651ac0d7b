// Thin wrappers over the kernel entries.
#include "platform/kernel_wrappers.h"

namespace orlix {

Handle CreateSharedMsgPort(std::uint64_t a, std::uint64_t b, std::uint64_t owner, std::uint64_t flags)
{
    (void)owner;
    Handle port = _SL_CreateMsgPort(a, b);
    if (port == INVALID_HANDLE)
        return INVALID_HANDLE;
    Handle shared = _SL_CreateHandle(0, port, flags | 32);
    if (shared == INVALID_HANDLE) {
        DeleteMsgPort(port);
        return INVALID_HANDLE;
    }
    return shared;
}

Status SendMsgRetry(Handle port, std::uint64_t word1, std::uint64_t type, std::uint64_t word2, std::int64_t timeout)
{
    Status status;
    do
        status = _SL_SendMsg(port, word1, type, word2, timeout);
    while (status == STATUS_REPEAT);
    return status;
}

void DeleteTask(std::uint64_t code)
{
    (void)code;
    for (;;)
        _SL_DeleteObject(_SL_GetState(STATE_TASK), DELETE_OBJECT);
}

Status DeleteMsgPort(Handle port) { return _SL_DeleteObject(port, DELETE_OBJECT); }
Status DeleteSemaphore(Handle semaphore) { return _SL_DeleteObject(semaphore, DELETE_OBJECT); }
Status DeleteEvent(Handle event) { return _SL_DeleteObject(event, DELETE_OBJECT); }

Status DeleteMemo(Handle memo, std::uint64_t flags)
{
    return _SL_DeleteObject(memo, DELETE_OBJECT | (flags & 0x30000));
}

} // namespace orlix
