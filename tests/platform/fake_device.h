// A scriptable device service for the client's tests: a request port whose handler runs in the
// sender's thread (so the records need no lock), plain kernel ports for replies, and blocks on the
// test's own heap. Every message and every begun command is recorded to check exact sequences.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <thread>
#include <map>
#include <string>
#include <vector>

#include "host/kernel/host_kernel.h"
#include "platform/device.h"
#include "platform/kernel_wrappers.h"

namespace fake {

using namespace orlix;

// A command as the device saw it when it was begun: code and a copy of the caller's area.
struct Command {
    std::uint32_t command;
    std::vector<std::uint8_t> area;
};

class FakeDevice {
public:
    using Handler = std::function<void(FakeDevice&, IOreq*)>;

    // shared_params_size > 0 gives the device a shared channel with a parameter area of that size.
    explicit FakeDevice(std::uint64_t shared_params_size = 0)
    {
        memo_ = _SL_CreateMemo(0, 0, 4096, 0);
        record_ = static_cast<Device*>(_SL_AllocView(0, memo_, nullptr, 0, 0, 0));
        std::memset(record_, 0, sizeof *record_);
        record_->open_state = 1;
        record_->create_lock = _SL_CreateSemaphore(0, 0, 1, 0);
        _SL_SignalSemaphore(record_->create_lock, 1);
        record_->create_reply_port = _SL_CreateMsgPort(0, 0);
        record_->request_port = host::kernel::create_service_port([this](const Message& m) { on_message(m); });
        if (shared_params_size > 0) {
            MutexInit(&shared_lock_);
            IOreq* req = new_block(IOREQ_HEADER_SIZE + shared_params_size);
            req->reply_port = _SL_CreateMsgPort(0, 0);
            shared_ = {&shared_lock_, 0, req, ioreq_area(req), shared_params_size};
            record_->shared_io = &shared_;
        }
    }
    ~FakeDevice()
    {
        for (Handle task : tasks_held)
            _SL_DeleteObject(task, DELETE_HANDLE);
        if (record_->shared_io != nullptr) {
            MutexDestroy(&shared_lock_);
            DeleteMsgPort(shared_.request->reply_port);
        }
        DeleteMsgPort(record_->request_port);
        DeleteMsgPort(record_->create_reply_port);
        DeleteSemaphore(record_->create_lock);
        _SL_DeleteObject(memo_, DELETE_MEMO_WITH_VIEWS);
    }

    Device* device() { return record_; }
    Handle port() const { return record_->request_port; }
    // Replies to the port of a block's completions.
    static void reply(IOreq* req, std::uint64_t type) { _SL_SendMsg(req->reply_port, 0, type, 0, WAIT_FOREVER); }

    std::vector<std::uint64_t> types()
    {
        std::vector<std::uint64_t> out;
        for (const Message& m : messages)
            out.push_back(m.type);
        return out;
    }
    std::size_t count(std::uint64_t type) { return std::ranges::count(types(), type); }

    static constexpr std::uint64_t STRAY = 0x777; // a type no wait of the client expects

    Handler on_begin = [](FakeDevice&, IOreq* req) { reply(req, MSG_IO_DONE); };
    Handler on_abort = [](FakeDevice&, IOreq* req) { reply(req, MSG_IO_ABORTED); };
    std::uint64_t open_answer_override = ~0ull; // word2 of MSG_DEVICE_OPENED when set
    bool refuse_create = false;
    bool stray_before_answers = false; // a message of another type before every answer
    std::vector<Message> messages;
    std::vector<Command> commands;
    std::map<std::uint64_t, std::vector<std::uint64_t>> blocks; // by id
    std::vector<Handle> tasks_held; // task handles of opens not yet closed

private:
    // An answer, after a stray message of another type when the test asks for one.
    void send(Handle port, std::uint64_t type, std::uint64_t word2 = 0)
    {
        if (stray_before_answers)
            _SL_SendMsg(port, 0, STRAY, 0, -1);
        _SL_SendMsg(port, 0, type, word2, -1);
    }

    IOreq* new_block(std::uint64_t size)
    {
        std::vector<std::uint64_t> storage((size + 7) / 8, 0xa5a5a5a5a5a5a5a5); // garbage the client must clear
        auto* req = reinterpret_cast<IOreq*>(storage.data());
        req->id = next_id_++;
        req->device = record_;
        blocks[req->id] = std::move(storage);
        return req;
    }

    void on_message(const Message& m)
    {
        messages.push_back(m);
        auto it = blocks.find(m.word2);
        auto* req = it == blocks.end() ? nullptr : reinterpret_cast<IOreq*>(it->second.data());
        if (req != nullptr && m.type == MSG_IO_BEGIN) {
            auto* end = reinterpret_cast<std::uint8_t*>(it->second.data() + it->second.size());
            commands.push_back({req->command, {ioreq_area(req), end}});
        }
        if (m.type == MSG_IOREQ_DELETE || m.type == MSG_IOREQ_DELETE_ASYNC)
            blocks.erase(m.word2);
        switch (m.type) {
        case MSG_DEVICE_OPEN:
            // An open that is answered with a device keeps the task handle until its close.
            if (open_answer_override != 0)
                tasks_held.push_back(static_cast<Handle>(m.word2));
            send(static_cast<Handle>(m.word1), MSG_DEVICE_OPENED,
                 open_answer_override != ~0ull ? open_answer_override : reinterpret_cast<std::uintptr_t>(record_));
            break;
        case MSG_DEVICE_CLOSE:
            if (!tasks_held.empty()) {
                _SL_DeleteObject(tasks_held.front(), DELETE_HANDLE);
                tasks_held.erase(tasks_held.begin());
            }
            send(static_cast<Handle>(m.word2), MSG_DEVICE_CLOSED);
            break;
        case MSG_IOREQ_CREATE:
            send(record_->create_reply_port, MSG_IOREQ_CREATED,
                 refuse_create ? 0 : reinterpret_cast<std::uintptr_t>(new_block(m.word2)));
            break;
        case MSG_IOREQ_DELETE: send(record_->create_reply_port, MSG_IOREQ_DELETED); break;
        case MSG_IO_BEGIN:
        case MSG_IO_ABORT:
            if (req != nullptr)
                (m.type == MSG_IO_BEGIN ? on_begin : on_abort)(*this, req);
            break;
        default: break;
        }
    }

    Handle memo_ = INVALID_HANDLE;
    Device* record_ = nullptr;
    Mutex shared_lock_{};
    DeviceSharedIO shared_{};
    std::uint64_t next_id_ = 1;
};

// A registry over a FakeDevice: answers "run/dev/<name>" lookups from a table, and is published
// as the registry port for the lifetime of the object (the real one, if booted, comes back).
struct FakeRegistry {
    FakeRegistry() : saved(_SL_GetState(STATE_REGISTRY_PORT))
    {
        registry.on_begin = [this](FakeDevice&, IOreq* req) {
            auto* block = reinterpret_cast<std::uint8_t*>(req);
            const char* key = nullptr;
            std::memcpy(&key, block + 120, sizeof key);
            if (abort_first)
                FakeDevice::reply(req, MSG_IO_ABORTED);
            if (registry.stray_before_answers)
                FakeDevice::reply(req, FakeDevice::STRAY);
            auto it = keys.find(key);
            if (req->command != REG_GET_KEY || it == keys.end()) {
                req->error = 0xe0020001;
                return FakeDevice::reply(req, MSG_IO_FAILED);
            }
            std::memcpy(block + 128, &it->second, 8);
            FakeDevice::reply(req, MSG_IO_DONE);
        };
        host::kernel::set_state(STATE_REGISTRY_PORT, registry.port());
    }
    ~FakeRegistry() { host::kernel::set_state(STATE_REGISTRY_PORT, saved); }
    void add(const std::string& name, Handle port) { keys["run/dev/" + name] = port; }

    std::int64_t saved;
    FakeDevice registry;
    std::map<std::string, std::int64_t> keys;
    bool abort_first = false;
};

// Runs fn on a thread of its own and gives its result. A call that has not returned within the
// bound is a hang: the program stops with a message rather than wait for ever.
template <typename F> auto bounded(const char* what, F fn, int ms = 5000)
{
    std::packaged_task<decltype(fn())()> task(fn);
    auto result = task.get_future();
    std::thread runner(std::move(task));
    if (result.wait_for(std::chrono::milliseconds(ms)) != std::future_status::ready) {
        std::fprintf(stderr, "%s did not return within %d ms\n", what, ms);
        std::fflush(stderr);
        std::_Exit(1);
    }
    runner.join();
    return result.get();
}

} // namespace fake
