// A thread's own request blocks: made on first use, grown to the largest transfer the thread has
// made, released at its end. System code.
#include "runtime/io.h"

#include "platform/kernel_wrappers.h"
#include "runtime/process.h"
#include "runtime/sysvc.h"

namespace orlix {

namespace {

constexpr std::uint64_t REPLY_PORT_FLAGS = 0x40004;
constexpr std::uint8_t REQUEST_PRIORITY = 3;

// Where the data part of a block starts: the parameter part behind the header, rounded.
std::uint64_t data_offset(std::uint64_t params_size) { return (params_size + 0x87) & ~std::uint64_t{15}; }

void empty_slot(IoSlot* slot)
{
    if (handle_valid(slot->reply_port))
        _SL_DeleteObject(slot->reply_port, DELETE_OBJECT);
    *slot = IoSlot{};
}

} // namespace

int __run_ioreq(ThreadRecord* thread, IOreq* request, std::uint8_t restart, int (*translate)(const IOreq*))
{
    int result = SyncIOEx(request, WAIT_FOREVER, 1, restart);
    if (result == IO_DONE)
        return 0;
    thread->error_flag = 1;
    errno = result < 1 ? -result : translate(request);
    return result;
}

IOreq* __pthread_acq_ioreq(ThreadRecord* thread, IoSlot* slot, Device* device, const ioreq_cfg& config)
{
    if (slot->request != nullptr)
        return slot->request;
    __blocking_call(thread, 0, [&](std::int64_t) -> std::int64_t {
        slot->reply_port = CreateSharedMsgPort(0, 0, 0, REPLY_PORT_FLAGS);
        if (slot->reply_port == INVALID_HANDLE) {
            slot->reply_port = 0;
            errno = ERR_NOMEM;
            return 0;
        }
        std::uint64_t offset = data_offset(config.params_size);
        IOreq* request = CreateIOreq(device, config.unit, REQUEST_PRIORITY, offset + config.data_size, slot->reply_port);
        if (request == nullptr) {
            empty_slot(slot);
            errno = ERR_NOMEM;
            return 0;
        }
        slot->request = request;
        slot->data = reinterpret_cast<std::uint8_t*>(request) + offset;
        slot->data_size = config.data_size;
        return 0;
    });
    return slot->request;
}

IOreq* __pthread_expand_ioreq(ThreadRecord* thread, IoSlot* slot, std::uint64_t size)
{
    if (slot->data_size >= size)
        return slot->request;
    __blocking_call(thread, 0, [&](std::int64_t) -> std::int64_t {
        IOreq* old = slot->request;
        std::uint32_t unit = old->unit;
        Device* device = old->device;
        auto offset = static_cast<std::uint64_t>(slot->data - reinterpret_cast<std::uint8_t*>(old));
        DeleteIOreq(old);
        IOreq* request = CreateIOreq(device, unit, REQUEST_PRIORITY, size + offset, slot->reply_port);
        if (request == nullptr) {
            empty_slot(slot);
            errno = ERR_NOMEM;
            return 0;
        }
        slot->request = request;
        slot->data = reinterpret_cast<std::uint8_t*>(request) + offset;
        slot->data_size = size;
        return 0;
    });
    return slot->request;
}

int __init_vfs_ptio(ThreadRecord* thread, IoSlot* slot)
{
    Device* device = GetVFSDev_try();
    if (device == nullptr) {
        errno = ERR_NXIO;
        return -1;
    }
    return __pthread_acq_ioreq(thread, slot, device, VFS_IOREQ_CFG) != nullptr ? 0 : -1;
}

int __init_sysvc_ptio(ThreadRecord* thread, IoSlot* slot)
{
    if (__pthread_acq_ioreq(thread, slot, GetSystemService(), SYSVC_IOREQ_CFG) == nullptr)
        abort();
    return 0;
}

} // namespace orlix
