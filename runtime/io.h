// The calling thread's own request blocks, one per device service, and the blocking-call pattern
// every descriptor and system-services call runs in: a call that waits in the kernel can be
// interrupted by a signal, which is queued and run after the call, and restarted. System code.
#pragma once

#include <cstdint>

#include "platform/atomic.h"
#include "platform/device_client.h"
#include "runtime/context.h"
#include "runtime/errno.h"
#include "runtime/signal.h"
#include "runtime/thread.h"
#include "runtime/vfs.h"

namespace orlix {

struct ioreq_cfg;

// The slot's request, made on first use (a port and a block of the configured size); null with
// errno 22 when either can't be made.
IOreq* __pthread_acq_ioreq(ThreadRecord* thread, IoSlot* slot, Device* device, const ioreq_cfg& config);
// The slot's request with room for size bytes of data: a smaller block is replaced, not copied.
// Null with errno 22 and an empty slot when the new block can't be made.
IOreq* __pthread_expand_ioreq(ThreadRecord* thread, IoSlot* slot, std::uint64_t size);
// Fill the VFS slot (error 54 when there is no VFS device) and the system-services slot (its
// failure aborts). 0 or -1.
int __init_vfs_ptio(ThreadRecord* thread, IoSlot* slot);
int __init_sysvc_ptio(ThreadRecord* thread, IoSlot* slot);

// Runs the request's command with SyncIOEx(-1, abortable, restart). 0 on success; otherwise
// error_flag is set and errno holds minus the result, or the device's error translated.
int __run_ioreq(ThreadRecord* thread, IOreq* request, std::uint8_t restart, int (*translate)(const IOreq*));

// The pattern around body(), which gives the call's result or failure (with errno set, and
// error_flag set when a run of the request failed). Marks the thread as inside a blocking call,
// runs queued signals afterwards, and runs body again when it was interrupted (error 3) and no
// handler asked the call to end.
template <typename Body> std::int64_t __blocking_call(ThreadRecord* self, std::int64_t failure, Body body)
{
    atomic::fetch_or(&self->io_flags, IO_IN_BLOCKING_CALL | IO_RESTARTABLE);
    std::int64_t result;
    for (;;) {
        self->error_flag = 0;
        result = body(failure);
        if ((atomic::load(&self->signal_queue.pending) != 0 || atomic::load(&self->context->stop_count) != 0) &&
            __pending_sig(self) != 0) {
            self->error_flag = 0;
            break;
        }
        if (!(self->error_flag && errno == ERR_INTR))
            break;
    }
    atomic::fetch_and(&self->io_flags, ~(IO_IN_BLOCKING_CALL | IO_RESTARTABLE));
    return result;
}

// One command on the calling thread's VFS request. fill(self, slot) writes the parameter block
// behind the header (and may grow the block); it returns false with errno set for a check that
// failed. done(slot) gives the result after a successful run.
template <typename Fill, typename Done>
std::int64_t __vfs_call(std::uint32_t command, std::uint8_t restart, Fill fill, Done done)
{
    ThreadRecord* self = __pthread_self();
    return __blocking_call(self, -1, [&](std::int64_t failure) -> std::int64_t {
        IoSlot* slot = &self->vfs_io;
        if (slot->request == nullptr && __init_vfs_ptio(self, slot) != 0)
            return failure;
        if (!fill(self, slot))
            return failure;
        IOreq* request = slot->request;
        request->params = ioreq_area(request);
        request->command = command;
        if (__run_ioreq(self, request, restart, __vfs_ioreq_to_errno) != 0)
            return failure;
        return done(slot);
    });
}

// The parameter block of a slot's request.
template <typename T> T* __io_params(IoSlot* slot) { return reinterpret_cast<T*>(ioreq_area(slot->request)); }

} // namespace orlix
