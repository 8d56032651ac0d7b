// Thin wrappers over the kernel entries that several layers share.
#pragma once

#include "platform/kernel.h"

namespace orlix {

// A port and a further handle of it with flags | 32. Returns that handle, or -1; the port is
// deleted again if the handle can't be made.
Handle CreateSharedMsgPort(std::uint64_t a, std::uint64_t b, std::uint64_t owner, std::uint64_t flags);

// _SL_SendMsg repeated while it returns 310, as every send of the system is.
Status SendMsgRetry(Handle port, std::uint64_t word1, std::uint64_t type, std::uint64_t word2, std::int64_t timeout);

// Ends the calling task; does not return.
[[noreturn]] void DeleteTask(std::uint64_t code);

Status DeleteMsgPort(Handle port);
Status DeleteSemaphore(Handle semaphore);
Status DeleteEvent(Handle event);

// Deletes a memo; only the bits 0x30000 of flags are kept.
Status DeleteMemo(Handle memo, std::uint64_t flags);

} // namespace orlix
