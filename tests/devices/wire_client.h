// A bare client of the device wire protocol for the device tests and benchmarks: it speaks the
// kernel messages directly (open, create, begin, abort, delete, close), so that the tests see
// exactly what a device sends back. Test code only.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/device.h"
#include "platform/ioreq.h"
#include "platform/kernel.h"

namespace devtest {

inline orlix::Handle make_port() { return orlix::_SL_CreateMsgPort(0, 0); }

// Makes the calling thread and the task known to the kernel, so that object counts taken
// afterwards don't include them.
inline void warm_up()
{
    orlix::_SL_GetState(orlix::STATE_TASK);
    orlix::_SL_DeleteObject(make_port(), orlix::DELETE_OBJECT);
}

// The next message on a port, or a message of type 0 when the wait ends without one.
inline orlix::Message receive(orlix::Handle port, std::int64_t timeout_ms = 5000)
{
    orlix::Message m{};
    for (;;) {
        orlix::Status s = orlix::_SL_RecvMsgPtr(port, &m, timeout_ms);
        if (s == orlix::STATUS_REPEAT)
            continue;
        if (s != orlix::STATUS_DONE)
            return orlix::Message{0, 0, 0};
        return m;
    }
}

inline orlix::Device* open_device(orlix::Handle service_port, orlix::Handle reply)
{
    orlix::Handle task = orlix::_SL_GetState(orlix::STATE_TASK);
    if (orlix::_SL_GetState(orlix::STATE_TASKS_AS_HANDLES) != 0)
        task = orlix::_SL_CreateHandle(0, task, 0xc0024);
    orlix::_SL_SendMsg(service_port, static_cast<std::uint64_t>(reply), orlix::MSG_DEVICE_OPEN,
                       static_cast<std::uint64_t>(task), -1);
    orlix::Message m = receive(reply);
    if (m.type != orlix::MSG_DEVICE_OPENED)
        return nullptr;
    return reinterpret_cast<orlix::Device*>(m.word2);
}

inline bool close_device(orlix::Device* device, orlix::Handle reply)
{
    orlix::_SL_SendMsg(device->request_port, 0, orlix::MSG_DEVICE_CLOSE, static_cast<std::uint64_t>(reply), -1);
    return receive(reply).type == orlix::MSG_DEVICE_CLOSED;
}

inline orlix::IOreq* create_block(orlix::Device* device, std::uint64_t size, orlix::Handle reply)
{
    orlix::_SL_SendMsg(device->request_port, reinterpret_cast<std::uint64_t>(device), orlix::MSG_IOREQ_CREATE,
                       size, -1);
    orlix::Message m = receive(device->create_reply_port);
    if (m.type != orlix::MSG_IOREQ_CREATED || m.word2 == 0)
        return nullptr;
    auto* req = reinterpret_cast<orlix::IOreq*>(m.word2);
    req->reply_port = reply;
    return req;
}

inline bool delete_block(orlix::IOreq* req)
{
    orlix::Device* device = req->device;
    orlix::_SL_SendMsg(device->request_port, reinterpret_cast<std::uint64_t>(device), orlix::MSG_IOREQ_DELETE,
                       req->id, -1);
    return receive(device->create_reply_port).type == orlix::MSG_IOREQ_DELETED;
}

inline void begin(orlix::IOreq* req)
{
    orlix::_SL_SendMsg(req->device->request_port, static_cast<std::uint64_t>(req->reply_port), orlix::MSG_IO_BEGIN,
                       req->id, -1);
}

inline void abort(orlix::IOreq* req)
{
    orlix::_SL_SendMsg(req->device->request_port, static_cast<std::uint64_t>(req->reply_port), orlix::MSG_IO_ABORT,
                       req->id, -1);
}

// Runs the command and waits for its completion: the completion's type.
inline std::uint64_t sync(orlix::IOreq* req, std::uint32_t command, void* params)
{
    req->command = command;
    req->params = params;
    begin(req);
    return receive(req->reply_port, 20000).type;
}

} // namespace devtest
