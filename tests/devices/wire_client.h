// A bare client of the device wire protocol for the device tests and benchmarks: it speaks the
// kernel messages directly (open, create, begin, abort, delete, close), so that the tests see
// exactly what a device sends back. Test code only.
#pragma once

#include <cstdint>
#include <cstring>

#include "platform/device.h"
#include "platform/ioreq.h"
#include "platform/kernel.h"

namespace devtest {

using namespace orlix;

inline Handle make_port() { return _SL_CreateMsgPort(0, 0); }

// Makes the calling thread and the task known to the kernel, so that object counts taken
// afterwards don't include them.
inline void warm_up()
{
    _SL_GetState(STATE_TASK);
    _SL_DeleteObject(make_port(), DELETE_OBJECT);
}

// The next message on a port, or a message of type 0 when the wait ends without one.
inline Message receive(Handle port, std::int64_t timeout_ms = 5000)
{
    Message m{};
    Status s;
    while ((s = _SL_RecvMsgPtr(port, &m, timeout_ms)) == STATUS_REPEAT) {
    }
    return s == STATUS_DONE ? m : Message{0, 0, 0};
}

inline Device* open_device(Handle service_port, Handle reply)
{
    Handle task = _SL_GetState(STATE_TASK);
    if (_SL_GetState(STATE_TASKS_AS_HANDLES) != 0)
        task = _SL_CreateHandle(0, task, 0xc0024);
    _SL_SendMsg(service_port, static_cast<std::uint64_t>(reply), MSG_DEVICE_OPEN, static_cast<std::uint64_t>(task), -1);
    Message m = receive(reply);
    return m.type == MSG_DEVICE_OPENED ? reinterpret_cast<Device*>(m.word2) : nullptr;
}

inline bool close_device(Device* device, Handle reply)
{
    _SL_SendMsg(device->request_port, 0, MSG_DEVICE_CLOSE, static_cast<std::uint64_t>(reply), -1);
    return receive(reply).type == MSG_DEVICE_CLOSED;
}

inline IOreq* create_block(Device* device, std::uint64_t size, Handle reply)
{
    _SL_SendMsg(device->request_port, reinterpret_cast<std::uint64_t>(device), MSG_IOREQ_CREATE, size, -1);
    Message m = receive(device->create_reply_port);
    if (m.type != MSG_IOREQ_CREATED || m.word2 == 0)
        return nullptr;
    auto* req = reinterpret_cast<IOreq*>(m.word2);
    req->reply_port = reply;
    return req;
}

// The block is gone once the message is sent: nothing of it is read afterwards.
inline bool delete_block(IOreq* req)
{
    Device* device = req->device;
    _SL_SendMsg(device->request_port, reinterpret_cast<std::uint64_t>(device), MSG_IOREQ_DELETE, req->id, -1);
    return receive(device->create_reply_port).type == MSG_IOREQ_DELETED;
}

// Begins (MSG_IO_BEGIN) or aborts (MSG_IO_ABORT) the block's command.
inline void send_io(IOreq* req, std::uint64_t type)
{
    _SL_SendMsg(req->device->request_port, static_cast<std::uint64_t>(req->reply_port), type, req->id, -1);
}
inline void begin(IOreq* req) { send_io(req, MSG_IO_BEGIN); }
inline void abort(IOreq* req) { send_io(req, MSG_IO_ABORT); }

// Runs the command and waits for its completion: the completion's type.
inline std::uint64_t sync(IOreq* req, std::uint32_t command, void* params)
{
    req->command = command;
    req->params = params;
    begin(req);
    return receive(req->reply_port, 20000).type;
}

// One open of a device with one block, parameters at 120, for the tests' own commands.
struct Open {
    Handle reply = INVALID_HANDLE;
    Device* device = nullptr;
    IOreq* req = nullptr;

    bool open(Handle service_port, std::uint64_t size)
    {
        reply = make_port();
        device = open_device(service_port, reply);
        req = device ? create_block(device, size, reply) : nullptr;
        return req != nullptr;
    }
    // True when the device acknowledged both the delete and the close.
    bool close()
    {
        bool ok = (!req || delete_block(req)) && (!device || close_device(device, reply));
        _SL_DeleteObject(reply, DELETE_OBJECT);
        return ok;
    }
    std::uint8_t* at(std::size_t offset) { return reinterpret_cast<std::uint8_t*>(req) + offset; }
    template <typename T> T* params() { return reinterpret_cast<T*>(at(IOREQ_HEADER_SIZE)); }
    template <typename T> void put(std::size_t offset, T value) { std::memcpy(at(offset), &value, sizeof value); }
    std::uint64_t run(std::uint32_t command) { return sync(req, command, at(IOREQ_HEADER_SIZE)); }
};

} // namespace devtest
