// Opening devices and running request blocks: every exchange with a device service goes through
// here. Touches kernel entries, the Device and IOreq records, and the mutex; nothing of the runtime.
#include "platform/device_client.h"

#include <cstring>

#include "platform/kernel_wrappers.h"

namespace orlix {

constinit Device* g_tcp_device = nullptr;
constinit Device* g_vfs_device = nullptr;
constinit Device* g_sysvc_device = nullptr;

namespace {

// Registry command block: the key text at 136, its address at 120 (the parameter block), the
// value written back at 128.
constexpr std::size_t KEY_PARAMS_OFFSET = 120;
constexpr std::size_t KEY_VALUE_OFFSET = 128;
constexpr std::size_t KEY_TEXT_OFFSET = 136;

constexpr std::uint64_t LACK_WORD = 0x216465766c61636b; // "!devlack"
constexpr std::int64_t LACK_SEND_TIMEOUT = 50;
constexpr std::int64_t DRAIN_TIMEOUT = 1;

// The kernel asks a wait to be repeated with 310 when an exception handler ran meanwhile.
Status recv_retry(Handle port, Message* message, std::int64_t timeout)
{
    Status status;
    do
        status = _SL_RecvMsgPtr(port, message, timeout);
    while (status == STATUS_REPEAT);
    return status;
}

Status wait_retry(Handle semaphore)
{
    Status status;
    do
        status = _SL_WaitSemaphore(semaphore, 1, WAIT_FOREVER);
    while (status == STATUS_REPEAT);
    return status;
}

bool empty_name(const char* name) { return name == nullptr || name[0] == '\0'; }

// The task as devices must see it: itself, or a further handle of it where the kernel wants that.
// made is set when a handle was made (the caller deletes it on failure). -1 on failure.
Handle task_for_device(bool* made)
{
    *made = false;
    std::int64_t as_handles = _SL_GetState(STATE_TASKS_AS_HANDLES);
    Handle task = _SL_GetState(STATE_TASK);
    if (as_handles == 0)
        return task;
    Handle handle = _SL_CreateHandle(0, task, HANDLE_FOR_DEVICE);
    if (handle != INVALID_HANDLE)
        *made = true;
    return handle;
}

// Sends MSG_DEVICE_OPEN already done; waits for the answer. The Device, or null.
Device* receive_opened(Handle reply_port)
{
    Message message;
    for (;;) {
        if (recv_retry(reply_port, &message, WAIT_FOREVER) != STATUS_DONE)
            return nullptr;
        if (message.type == MSG_DEVICE_OPENED)
            return reinterpret_cast<Device*>(message.word2);
    }
}

// A temporary reply port: the port, and the handle of it that travels in messages.
struct TempPort {
    Handle port;
    Handle handle;
};

bool make_temp_port(TempPort* temp, std::uint64_t flags)
{
    temp->port = _SL_CreateMsgPort(0, 0);
    if (temp->port == INVALID_HANDLE)
        return false;
    temp->handle = _SL_CreateHandle(0, temp->port, flags);
    if (temp->handle == INVALID_HANDLE) {
        DeleteMsgPort(temp->port);
        return false;
    }
    return true;
}

int completion_result(std::uint64_t type)
{
    switch (type) {
    case MSG_IO_DONE:
        return IO_DONE;
    case MSG_IO_ABORTED:
        return IO_ABORTED;
    case MSG_IO_FAILED:
        return IO_DEVICE_FAILED;
    default:
        return IO_BAD_REPLY;
    }
}

Device* open_slot_device(Mutex* lock, Device** slot, const char* name, bool required)
{
    if (MutexLock(lock) != MUTEX_OK)
        DeleteTask(0);
    Device* device = slot != nullptr ? *slot : nullptr;
    if (device == nullptr) {
        device = OpenDevice(name);
        if (device == nullptr && required) {
            Handle log_port = GetDeviceMsgPort("syslog");
            if (handle_valid(log_port))
                _SL_SendMsg(log_port, LACK_WORD, MSG_LOG_DEVICE_LACK, devlib_pack_name(name),
                            LACK_SEND_TIMEOUT);
            DeleteTask(0);
        }
        if (slot != nullptr)
            *slot = device;
    }
    MutexUnlock(lock);
    return device;
}

} // namespace

// --- Opening and closing -----------------------------------------------------------------------

bool devlib_intern_is_registry(const char* name)
{
    return name != nullptr && std::strcmp(name, REGISTRY_NAME) == 0;
}

std::uint64_t devlib_pack_name(const char* name)
{
    std::uint64_t word = 0;
    bool ended = name == nullptr;
    for (int i = 0; i < 8; ++i) {
        std::uint8_t c = ended ? 0 : static_cast<std::uint8_t>(name[i]);
        if (c == 0)
            ended = true;
        word = (word << 8) | c;
    }
    return word;
}

void devlib_close_device(Handle reply_port, Device* device)
{
    Status sent = _SL_SendMsg(device->request_port, 0, MSG_DEVICE_CLOSE,
                              static_cast<std::uint64_t>(reply_port), WAIT_FOREVER);
    // A close that never reached the device will never be answered.
    if (sent != STATUS_DONE)
        return;
    Message message;
    while (recv_retry(reply_port, &message, WAIT_FOREVER) == STATUS_DONE) {
        if (message.type == MSG_DEVICE_CLOSED)
            return;
    }
}

bool devlib_intern_getkey(Device* device, Handle reply_port, const char* prefix, const char* name,
                          std::int64_t* value)
{
    std::size_t prefix_length = std::strlen(prefix);
    std::size_t name_length = std::strlen(name);
    std::size_t key_length = prefix_length + name_length;
    IOreq* req = CreateIOreq(device, 0, 3, KEY_TEXT_OFFSET + key_length + 1, reply_port);
    if (req == nullptr)
        return false;

    auto* block = reinterpret_cast<std::uint8_t*>(req);
    char* key = reinterpret_cast<char*>(block + KEY_TEXT_OFFSET);
    std::memcpy(key, prefix, prefix_length);
    std::memcpy(key + prefix_length, name, name_length + 1);
    req->command = REG_GET_KEY;
    req->params = block + KEY_PARAMS_OFFSET;
    std::uint64_t key_address = reinterpret_cast<std::uintptr_t>(key);
    std::memcpy(block + KEY_PARAMS_OFFSET, &key_address, sizeof key_address);

    bool found = false;
    if (BeginIO(req) == IO_DONE) {
        Message message;
        for (;;) {
            if (recv_retry(reply_port, &message, WAIT_FOREVER) != STATUS_DONE)
                break;
            if (message.type == MSG_IO_DONE) {
                std::memcpy(value, block + KEY_VALUE_OFFSET, sizeof *value);
                found = true;
                break;
            }
            // An aborted or stray message is not this lookup's answer.
            if (message.type == MSG_IO_FAILED)
                break;
        }
    }
    DeleteIOreq(req);
    return found;
}

Handle devlib_get_dev_msgport(const char* name, Handle reply_port)
{
    if (empty_name(name))
        return INVALID_HANDLE;
    Handle registry_port = _SL_GetState(STATE_REGISTRY_PORT);
    if (devlib_intern_is_registry(name))
        return registry_port;

    bool made = false;
    Handle task = task_for_device(&made);
    if (task == INVALID_HANDLE)
        return INVALID_HANDLE;
    if (!handle_valid(registry_port)) {
        if (made)
            _SL_DeleteObject(task, DELETE_HANDLE);
        return INVALID_HANDLE;
    }

    _SL_SendMsg(registry_port, static_cast<std::uint64_t>(reply_port), MSG_DEVICE_OPEN,
                static_cast<std::uint64_t>(task), WAIT_FOREVER);
    Device* registry = receive_opened(reply_port);
    if (registry == nullptr) {
        if (made)
            _SL_DeleteObject(task, DELETE_HANDLE);
        return INVALID_HANDLE;
    }

    std::int64_t value = INVALID_HANDLE;
    devlib_intern_getkey(registry, reply_port, DEVICE_KEY_PREFIX, name, &value);
    devlib_close_device(reply_port, registry);
    return value;
}

Device* devlib_open_device_from_msgport(Handle port, Handle reply_port)
{
    if (!handle_valid(port))
        return nullptr;
    bool made = false;
    Handle task = task_for_device(&made);
    if (task == INVALID_HANDLE)
        return nullptr;

    Device* device = nullptr;
    if (_SL_SendMsg(port, static_cast<std::uint64_t>(reply_port), MSG_DEVICE_OPEN,
                    static_cast<std::uint64_t>(task), WAIT_FOREVER) == STATUS_DONE)
        device = receive_opened(reply_port);
    if (device == nullptr) {
        // The device never took the task handle.
        if (made)
            _SL_DeleteObject(task, DELETE_HANDLE);
        return nullptr;
    }
    if (device->open_state == 0) {
        devlib_close_device(reply_port, device);
        return nullptr;
    }
    return device;
}

Device* OpenDevice(const char* name)
{
    if (empty_name(name))
        return nullptr;
    TempPort temp;
    if (!make_temp_port(&temp, HANDLE_FOR_DEVICE))
        return nullptr;
    Device* device = nullptr;
    Handle port = devlib_get_dev_msgport(name, temp.handle);
    if (port != INVALID_HANDLE)
        device = devlib_open_device_from_msgport(port, temp.handle);
    DeleteMsgPort(temp.port);
    return device;
}

Device* OpenDeviceFromMsgPort(Handle port)
{
    if (!handle_valid(port))
        return nullptr;
    TempPort temp;
    if (!make_temp_port(&temp, HANDLE_FOR_DEVICE))
        return nullptr;
    Device* device = devlib_open_device_from_msgport(port, temp.handle);
    DeleteMsgPort(temp.port);
    return device;
}

Handle GetDeviceMsgPort(const char* name)
{
    if (empty_name(name))
        return INVALID_HANDLE;
    TempPort temp;
    if (!make_temp_port(&temp, HANDLE_FOR_DEVICE))
        return INVALID_HANDLE;
    Handle port = devlib_get_dev_msgport(name, temp.handle);
    DeleteMsgPort(temp.port);
    return port;
}

int CloseDevice(Device* device)
{
    if (device == nullptr || _SL_GetAddressMemo(0, device, 2) == INVALID_HANDLE)
        return 0;
    TempPort temp;
    if (!make_temp_port(&temp, HANDLE_FOR_CLOSE))
        return -1;
    devlib_close_device(temp.handle, device);
    DeleteMsgPort(temp.port);
    return 0;
}

Device* __ensureopendevice(Mutex* lock, Device** slot, const char* name)
{
    return open_slot_device(lock, slot, name, true);
}

Device* __tryopendevice(Mutex* lock, Device** slot, const char* name)
{
    return open_slot_device(lock, slot, name, false);
}

// --- Request blocks ----------------------------------------------------------------------------

IOreq* CreateIOreq(Device* device, std::uint32_t unit, std::uint8_t priority, std::uint64_t size,
                   Handle reply_port)
{
    if (device == nullptr || wait_retry(device->create_lock) != STATUS_DONE)
        return nullptr;
    Message message{};
    bool answered = false;
    if (SendMsgRetry(device->request_port, reinterpret_cast<std::uintptr_t>(device), MSG_IOREQ_CREATE,
                   size, WAIT_FOREVER) == STATUS_DONE) {
        for (;;) {
            message = Message{};
            if (recv_retry(device->create_reply_port, &message, WAIT_FOREVER) != STATUS_DONE)
                break;
            if (message.type == MSG_IOREQ_CREATED) {
                answered = true;
                break;
            }
        }
    }
    _SL_SignalSemaphore(device->create_lock, 1);
    if (!answered || message.word2 == 0)
        return nullptr;

    auto* req = reinterpret_cast<IOreq*>(message.word2);
    req->unit = unit;
    req->priority = priority;
    req->timeout = IOREQ_NO_TIMEOUT;
    req->command = 0;
    req->error = 0;
    req->cleared[0] = 0;
    req->cleared[1] = 0;
    req->cleared[2] = 0;
    req->reply_port = reply_port;
    return req;
}

int DeleteIOreq(IOreq* req)
{
    if (req == nullptr)
        return IO_SEND_FAILED;
    Device* device = req->device;
    if (wait_retry(device->create_lock) != STATUS_DONE)
        return IO_SEND_FAILED;
    if (SendMsgRetry(device->request_port, reinterpret_cast<std::uintptr_t>(device), MSG_IOREQ_DELETE,
                   req->id, WAIT_FOREVER) == STATUS_DONE) {
        Message message;
        while (recv_retry(device->create_reply_port, &message, WAIT_FOREVER) == STATUS_DONE) {
            if (message.type == MSG_IOREQ_DELETED)
                break;
        }
    }
    _SL_SignalSemaphore(device->create_lock, 1);
    return IO_DONE;
}

int DeleteIOreqAsync(IOreq* req)
{
    if (req == nullptr)
        return IO_SEND_FAILED;
    return SendMsgRetry(req->device->request_port, 0, MSG_IOREQ_DELETE_ASYNC, req->id, WAIT_FOREVER) ==
                   STATUS_DONE
               ? IO_DONE
               : IO_SEND_FAILED;
}

// --- Running commands --------------------------------------------------------------------------

int BeginIO(IOreq* req)
{
    if (req == nullptr)
        return IO_SEND_FAILED;
    return SendMsgRetry(req->device->request_port, static_cast<std::uint64_t>(req->reply_port),
                      MSG_IO_BEGIN, req->id, WAIT_FOREVER) == STATUS_DONE
               ? IO_DONE
               : IO_SEND_FAILED;
}

int AbortIOEx(IOreq* req, std::int64_t timeout)
{
    if (req == nullptr)
        return IO_SEND_FAILED;
    if (timeout < 0)
        timeout = 0;
    if (timeout > 0x7fffffff)
        timeout = 0x7fffffff;
    return SendMsgRetry(req->device->request_port, static_cast<std::uint64_t>(req->reply_port),
                      MSG_IO_ABORT, req->id, timeout) == STATUS_DONE
               ? IO_DONE
               : IO_SEND_FAILED;
}

int AbortIO(IOreq* req)
{
    if (req == nullptr)
        return IO_SEND_FAILED;
    return SendMsgRetry(req->device->request_port, static_cast<std::uint64_t>(req->reply_port),
                      MSG_IO_ABORT, req->id, WAIT_FOREVER) == STATUS_DONE
               ? IO_DONE
               : IO_SEND_FAILED;
}

int SyncIO(IOreq* req)
{
    if (req == nullptr)
        return IO_SEND_FAILED;
    if (BeginIO(req) != IO_DONE) {
        req->error = 1;
        return IO_SEND_FAILED;
    }
    Message message;
    for (;;) {
        if (recv_retry(req->reply_port, &message, WAIT_FOREVER) != STATUS_DONE) {
            req->error = 1;
            return IO_BAD_REPLY;
        }
        if (message.type == MSG_IO_DONE || message.type == MSG_IO_ABORTED ||
            message.type == MSG_IO_FAILED)
            return completion_result(message.type);
    }
}

int WaitIO(IOreq* req, std::int64_t timeout)
{
    if (req == nullptr)
        return IO_SEND_FAILED;
    Message message;
    Status status = recv_retry(req->reply_port, &message, timeout);
    if (status == STATUS_TIMEOUT)
        return IO_TIMED_OUT;
    if (status != STATUS_DONE)
        return IO_SEND_FAILED;
    return completion_result(message.type);
}

int SyncIOEx(IOreq* req, std::int64_t timeout, std::uint8_t abortable, std::uint8_t restart)
{
    if (req == nullptr)
        return IO_SEND_FAILED;
    Handle request_port = req->device->request_port;
    Handle reply_port = req->reply_port;

    Status status;
    for (;;) {
        status = _SL_SendMsg(request_port, static_cast<std::uint64_t>(reply_port), MSG_IO_BEGIN, req->id,
                             WAIT_FOREVER);
        if (status != STATUS_REPEAT || !restart)
            break;
    }
    if (status != STATUS_DONE) {
        req->error = 1;
        return status == STATUS_REPEAT ? IO_INTERRUPTED : IO_SEND_FAILED;
    }

    Message message;
    Status wait_status;
    for (;;) {
        wait_status = _SL_RecvMsgPtr(reply_port, &message, timeout);
        if (wait_status != STATUS_REPEAT || !restart)
            break;
    }
    if (wait_status == STATUS_DONE)
        return completion_result(message.type);
    if (!abortable || (wait_status != STATUS_TIMEOUT && wait_status != STATUS_REPEAT))
        return IO_SEND_FAILED;

    if (SendMsgRetry(request_port, static_cast<std::uint64_t>(reply_port), MSG_IO_ABORT, req->id,
                   WAIT_FOREVER) != STATUS_DONE)
        return IO_SEND_FAILED;

    // The command may still complete: it counts as done when the device reports completion and
    // acknowledges the abort, in either order.
    bool done = false;
    bool acknowledged = false;
    bool finished = false;
    while (!finished) {
        if (recv_retry(reply_port, &message, WAIT_FOREVER) != STATUS_DONE)
            break;
        if (message.type == MSG_IO_DONE) {
            if (acknowledged)
                finished = true;
            done = true;
        } else if (message.type == MSG_IO_ABORT_ACK) {
            if (done)
                finished = true;
            acknowledged = true;
        } else if (message.type == MSG_IO_ABORTED) {
            finished = done && acknowledged;
            break;
        } else if (done && acknowledged) {
            finished = true;
        }
    }

    // Leave the port empty for the block's next command.
    for (;;) {
        status = _SL_RecvMsgPtr(reply_port, &message, DRAIN_TIMEOUT);
        if (status != STATUS_DONE && status != STATUS_REPEAT)
            break;
    }

    if (finished)
        return IO_DONE;
    return wait_status == STATUS_REPEAT ? IO_INTERRUPTED : IO_TIMED_OUT;
}

} // namespace orlix
