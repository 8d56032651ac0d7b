// A scriptable device service for the client's tests: a request port whose handler runs in the
// sender's thread, plain kernel ports for replies, and blocks on the test's own heap. Every message
// and every begun command is recorded so that tests can check exact sequences.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/kernel/host_kernel.h"
#include "platform/device.h"
#include "platform/ioreq.h"
#include "platform/kernel.h"
#include "platform/kernel_wrappers.h"

namespace fake {

// A command as the device saw it when it was begun: code and a copy of the caller's area.
struct Command {
    std::uint32_t command;
    std::vector<std::uint8_t> area;
};

class FakeDevice {
public:
    using Handler = std::function<void(FakeDevice&, orlix::IOreq*)>;

    // shared_params_size > 0 gives the device a shared channel with a parameter area of that size.
    explicit FakeDevice(std::uint64_t shared_params_size = 0)
    {
        memo_ = orlix::_SL_CreateMemo(0, 0, 4096, 0);
        record_ = static_cast<orlix::Device*>(orlix::_SL_AllocView(0, memo_, nullptr, 0, 0, 0));
        std::memset(record_, 0, sizeof *record_);
        record_->open_state = 1;
        record_->create_lock = orlix::_SL_CreateSemaphore(0, 0, 1, 0);
        orlix::_SL_SignalSemaphore(record_->create_lock, 1);
        record_->create_reply_port = orlix::_SL_CreateMsgPort(0, 0);
        record_->request_port = host::kernel::create_service_port([this](const orlix::Message& m) { on_message(m); });
        if (shared_params_size > 0) {
            orlix::MutexInit(&shared_lock_);
            shared_reply_port_ = orlix::_SL_CreateMsgPort(0, 0);
            shared_.lock = &shared_lock_;
            shared_.request = new_block(orlix::IOREQ_HEADER_SIZE + shared_params_size);
            shared_.request->reply_port = shared_reply_port_;
            shared_.params = orlix::ioreq_area(shared_.request);
            shared_.params_size = shared_params_size;
            record_->shared_io = &shared_;
        }
    }

    ~FakeDevice()
    {
        if (record_->shared_io != nullptr) {
            orlix::MutexDestroy(&shared_lock_);
            orlix::DeleteMsgPort(shared_reply_port_);
        }
        orlix::DeleteMsgPort(record_->request_port);
        orlix::DeleteMsgPort(record_->create_reply_port);
        orlix::DeleteSemaphore(record_->create_lock);
        orlix::_SL_DeleteObject(memo_, orlix::DELETE_MEMO_WITH_VIEWS);
    }

    FakeDevice(const FakeDevice&) = delete;
    FakeDevice& operator=(const FakeDevice&) = delete;

    orlix::Device* device() { return record_; }
    orlix::Handle port() const { return record_->request_port; }

    // Replies to the port of a block's completions.
    static void reply(orlix::IOreq* req, std::uint64_t type, std::uint64_t word2 = 0)
    {
        orlix::_SL_SendMsg(req->reply_port, 0, type, word2, orlix::WAIT_FOREVER);
    }

    std::vector<orlix::Message> messages()
    {
        std::lock_guard lock(mutex_);
        return messages_;
    }
    std::vector<Command> commands()
    {
        std::lock_guard lock(mutex_);
        return commands_;
    }
    std::size_t live_blocks()
    {
        std::lock_guard lock(mutex_);
        return blocks_.size();
    }
    std::size_t count(std::uint64_t type)
    {
        auto all = messages();
        return std::count_if(all.begin(), all.end(), [type](const orlix::Message& m) { return m.type == type; });
    }

    Handler on_begin = [](FakeDevice&, orlix::IOreq* req) { reply(req, orlix::MSG_IO_DONE); };
    Handler on_abort = [](FakeDevice&, orlix::IOreq* req) { reply(req, orlix::MSG_IO_ABORTED); };
    std::uint64_t open_answer_override = ~0ull; // word2 of MSG_DEVICE_OPENED when set
    bool refuse_create = false;
    bool stray_before_created = false; // a message of another type first on create_reply_port

private:
    orlix::IOreq* new_block(std::uint64_t size)
    {
        std::lock_guard lock(mutex_);
        auto storage = std::make_unique<std::uint64_t[]>((size + 7) / 8);
        std::memset(storage.get(), 0xa5, (size + 7) / 8 * 8); // garbage the client must clear
        auto* req = reinterpret_cast<orlix::IOreq*>(storage.get());
        req->id = next_id_++;
        req->device = record_;
        sizes_[req->id] = size;
        blocks_[req->id] = std::move(storage);
        return req;
    }

    orlix::IOreq* find(std::uint64_t id)
    {
        std::lock_guard lock(mutex_);
        auto it = blocks_.find(id);
        return it == blocks_.end() ? nullptr : reinterpret_cast<orlix::IOreq*>(it->second.get());
    }

    void on_message(const orlix::Message& m)
    {
        {
            std::lock_guard lock(mutex_);
            messages_.push_back(m);
        }
        switch (m.type) {
        case orlix::MSG_DEVICE_OPEN: {
            std::uint64_t answer = open_answer_override != ~0ull ? open_answer_override
                                                                 : reinterpret_cast<std::uintptr_t>(record_);
            orlix::_SL_SendMsg(static_cast<orlix::Handle>(m.word1), 0, orlix::MSG_DEVICE_OPENED, answer, -1);
            break;
        }
        case orlix::MSG_DEVICE_CLOSE:
            orlix::_SL_SendMsg(static_cast<orlix::Handle>(m.word2), 0, orlix::MSG_DEVICE_CLOSED, 0, -1);
            break;
        case orlix::MSG_IOREQ_CREATE: {
            if (stray_before_created)
                orlix::_SL_SendMsg(record_->create_reply_port, 0, orlix::MSG_IOREQ_DELETED, 0, -1);
            std::uint64_t answer = refuse_create ? 0 : reinterpret_cast<std::uintptr_t>(new_block(m.word2));
            orlix::_SL_SendMsg(record_->create_reply_port, 0, orlix::MSG_IOREQ_CREATED, answer, -1);
            break;
        }
        case orlix::MSG_IOREQ_DELETE:
        case orlix::MSG_IOREQ_DELETE_ASYNC: {
            {
                std::lock_guard lock(mutex_);
                blocks_.erase(m.word2);
            }
            if (m.type == orlix::MSG_IOREQ_DELETE)
                orlix::_SL_SendMsg(record_->create_reply_port, 0, orlix::MSG_IOREQ_DELETED, 0, -1);
            break;
        }
        case orlix::MSG_IO_BEGIN:
        case orlix::MSG_IO_ABORT: {
            orlix::IOreq* req = find(m.word2);
            if (req == nullptr)
                break;
            if (m.type == orlix::MSG_IO_ABORT) {
                on_abort(*this, req);
                break;
            }
            {
                std::lock_guard lock(mutex_);
                auto* area = orlix::ioreq_area(req);
                commands_.push_back({req->command, {area, area + (sizes_[req->id] - orlix::IOREQ_HEADER_SIZE)}});
            }
            on_begin(*this, req);
            break;
        }
        default:
            break;
        }
    }

    orlix::Handle memo_ = orlix::INVALID_HANDLE;
    orlix::Device* record_ = nullptr;
    orlix::Mutex shared_lock_{};
    orlix::Handle shared_reply_port_ = orlix::INVALID_HANDLE;
    orlix::DeviceSharedIO shared_{};

    std::mutex mutex_;
    std::uint64_t next_id_ = 1;
    std::map<std::uint64_t, std::unique_ptr<std::uint64_t[]>> blocks_;
    std::map<std::uint64_t, std::uint64_t> sizes_;
    std::vector<orlix::Message> messages_;
    std::vector<Command> commands_;
};

// A registry over a FakeDevice: answers "run/dev/<name>" lookups from a table, and is published
// as the registry port for the lifetime of the object.
class FakeRegistry {
public:
    FakeRegistry()
    {
        registry.on_begin = [this](FakeDevice&, orlix::IOreq* req) {
            std::uint8_t* block = reinterpret_cast<std::uint8_t*>(req);
            const char* key = nullptr;
            std::memcpy(&key, block + 120, sizeof key);
            if (abort_first)
                FakeDevice::reply(req, orlix::MSG_IO_ABORTED);
            auto it = keys.find(key);
            if (req->command != orlix::REG_GET_KEY || it == keys.end()) {
                req->error = 0xe0020001;
                FakeDevice::reply(req, orlix::MSG_IO_FAILED);
                return;
            }
            std::memcpy(block + 128, &it->second, 8);
            FakeDevice::reply(req, orlix::MSG_IO_DONE);
        };
        saved_ = orlix::_SL_GetState(orlix::STATE_REGISTRY_PORT);
        host::kernel::set_state(orlix::STATE_REGISTRY_PORT, registry.port());
    }
    // The real registry, if one was booted, comes back.
    ~FakeRegistry() { host::kernel::set_state(orlix::STATE_REGISTRY_PORT, saved_); }

    void add(const std::string& name, orlix::Handle port) { keys["run/dev/" + name] = port; }

    FakeDevice registry;
    std::map<std::string, std::int64_t> keys;
    bool abort_first = false;

private:
    std::int64_t saved_ = 0;
};

} // namespace fake
