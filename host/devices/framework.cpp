// The device framework: opens, request blocks in kernel memos, the state machine of a command
// (begin, completion, abort, time-out, delete) and the reactor thread. Host code; it touches the
// kernel only through its entries and host_kernel.h.
#include "host/devices/framework.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>

#include "host/kernel/host_kernel.h"

namespace host::devices {

using orlix::Handle;
using orlix::Message;

void post(Handle port, std::uint64_t word1, std::uint64_t type, std::uint64_t word2)
{
    while (orlix::_SL_SendMsg(port, word1, type, word2, orlix::WAIT_FOREVER) == orlix::STATUS_REPEAT) {
    }
}

namespace {

// A kernel memo with its view: zeroed memory the client can address.
struct Shared {
    Handle memo = orlix::INVALID_HANDLE;
    std::uint8_t* base = nullptr;
};

Shared make_shared_memory(std::size_t size)
{
    Shared s;
    s.memo = orlix::_SL_CreateMemo(0, 0, size, 0);
    if (s.memo == orlix::INVALID_HANDLE)
        return {};
    s.base = static_cast<std::uint8_t*>(orlix::_SL_AllocView(0, s.memo, nullptr, 0, 0, 0));
    if (s.base == nullptr) {
        orlix::_SL_DeleteObject(s.memo, orlix::DELETE_OBJECT);
        return {};
    }
    std::memset(s.base, 0, size);
    return s;
}

void delete_object(Handle h, std::uint64_t flags = orlix::DELETE_OBJECT)
{
    if (orlix::handle_valid(h))
        orlix::_SL_DeleteObject(h, flags);
}

// Id of a request: the slot plus one in the low half, the slot's generation in the high half, so
// that an id of a deleted block never names its successor.
std::uint64_t make_id(std::uint32_t slot, std::uint32_t generation)
{
    return (std::uint64_t{generation} << 32) | (std::uint64_t{slot} + 1);
}

} // namespace

// --- Request ---------------------------------------------------------------------------------

bool Request::inside(const void* p, std::size_t n) const
{
    auto begin = reinterpret_cast<std::uintptr_t>(block);
    auto at = reinterpret_cast<std::uintptr_t>(p);
    return at >= begin && at - begin <= size && n <= size - (at - begin);
}

std::uint8_t* Request::area(const void* p, std::size_t n) const
{
    return inside(p, n) ? static_cast<std::uint8_t*>(const_cast<void*>(p)) : nullptr;
}

// --- Reactor ---------------------------------------------------------------------------------

namespace {
constexpr std::uint64_t WAKE_KEY = ~std::uint64_t{0};
}

Reactor::Reactor(EventHandler on_event, std::function<void()> on_wake)
    : on_event_(std::move(on_event)), on_wake_(std::move(on_wake))
{
    epoll_fd_ = ::epoll_create1(EPOLL_CLOEXEC);
    wake_fd_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = WAKE_KEY;
    ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &ev);
    // The thread becomes a kernel thread before the constructor returns, so that counts of
    // kernel objects taken afterwards are stable.
    std::promise<void> started;
    thread_ = std::thread([this, &started] {
        orlix::_SL_GetState(orlix::STATE_THREAD);
        started.set_value();
        run();
    });
    started.get_future().wait();
}

Reactor::~Reactor()
{
    stopping_.store(true);
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
    thread_.join();
    ::close(wake_fd_);
    ::close(epoll_fd_);
}

void Reactor::arm(int fd, std::uint64_t key, std::uint32_t events)
{
    epoll_event ev{};
    ev.events = events | EPOLLONESHOT;
    ev.data.u64 = key;
    if (::epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &ev) != 0 && errno == ENOENT)
        ::epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev);
}

void Reactor::wake()
{
    if (wake_pending_.exchange(true, std::memory_order_acq_rel))
        return;
    std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
}

Reactor::TimerId Reactor::add_timer(Clock::time_point when, std::function<void()> fn)
{
    TimerId id;
    bool earliest;
    {
        std::lock_guard g(timers_lock_);
        id = {when, next_timer_++};
        timers_.emplace(id, std::move(fn));
        earliest = timers_.begin()->first == id;
    }
    // The reactor may sleep past the new deadline: let it look again.
    if (earliest && !on_reactor_thread()) {
        std::uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(wake_fd_, &one, sizeof one);
    }
    return id;
}

void Reactor::cancel_timer(const TimerId& id)
{
    std::lock_guard g(timers_lock_);
    timers_.erase(id);
}

void Reactor::run()
{
    constexpr int MAX_EVENTS = 64;
    epoll_event events[MAX_EVENTS];
    while (!stopping_.load()) {
        int wait_ms = -1;
        std::vector<std::function<void()>> due;
        {
            std::lock_guard g(timers_lock_);
            auto now = Clock::now();
            while (!timers_.empty() && timers_.begin()->first.first <= now) {
                due.push_back(std::move(timers_.begin()->second));
                timers_.erase(timers_.begin());
            }
            if (!timers_.empty()) {
                auto left = std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first.first - now);
                wait_ms = static_cast<int>(std::min<std::int64_t>(left.count(), 60'000));
            }
        }
        for (auto& fn : due)
            fn();
        if (!due.empty())
            continue;
        int n = ::epoll_wait(epoll_fd_, events, MAX_EVENTS, wait_ms);
        for (int i = 0; i < n; ++i) {
            if (events[i].data.u64 == WAKE_KEY) {
                std::uint64_t count;
                [[maybe_unused]] ssize_t r = ::read(wake_fd_, &count, sizeof count);
                if (stopping_.load())
                    return;
                wake_pending_.store(false, std::memory_order_release);
                on_wake_();
            } else {
                on_event_(events[i].data.u64, events[i].events);
            }
        }
    }
}

// --- Service ---------------------------------------------------------------------------------

Service::Service(std::string name, std::size_t params_size) : name_(std::move(name)), params_size_(params_size)
{
    port_ = host::kernel::create_service_port([this](const Message& m) { handle_service(m); });
}

Service::~Service() { delete_object(port_); }

void Service::shutdown()
{
    std::vector<std::shared_ptr<Open>> opens;
    {
        std::lock_guard g(opens_lock_);
        for (auto& [device, open] : opens_)
            opens.push_back(open);
    }
    for (auto& open : opens)
        do_close(open.get(), 0);
    reactor_.reset();
}

Reactor& Service::reactor()
{
    std::call_once(reactor_once_, [this] {
        reactor_ = std::make_unique<Reactor>([this](std::uint64_t key, std::uint32_t ev) { on_event(key, ev); },
                                             [this] { on_wake(); });
    });
    return *reactor_;
}

void Service::handle_service(const Message& m)
{
    if (m.type == orlix::MSG_DEVICE_OPEN)
        do_open(m);
    else
        raw_message(m);
}

void Service::handle_open_port(Open* open, const Message& m)
{
    switch (m.type) {
    case orlix::MSG_IO_BEGIN:
        do_begin(open, m);
        break;
    case orlix::MSG_IO_ABORT:
        do_abort(open, m);
        break;
    case orlix::MSG_IOREQ_CREATE:
        do_create(open, m);
        break;
    case orlix::MSG_IOREQ_DELETE:
        do_delete(open, m.word2, true);
        break;
    case orlix::MSG_IOREQ_DELETE_ASYNC:
        do_delete(open, m.word2, false);
        break;
    case orlix::MSG_DEVICE_CLOSE:
        do_close(open, static_cast<Handle>(m.word2));
        break;
    case orlix::MSG_DEVICE_OPEN:
        do_open(m);
        break;
    default:
        raw_message(m);
        break;
    }
}

// Layout of an open's memo: the Device, its DeviceSharedIO, the Mutex of that channel.
namespace {
constexpr std::size_t OPEN_SHARED_IO = 208;
constexpr std::size_t OPEN_MUTEX = 256;
constexpr std::size_t OPEN_MEMO_SIZE = 512;
static_assert(OPEN_SHARED_IO >= sizeof(orlix::Device));
static_assert(OPEN_MUTEX >= OPEN_SHARED_IO + sizeof(orlix::DeviceSharedIO));
} // namespace

void Service::do_open(const Message& m)
{
    auto reply = static_cast<Handle>(m.word1);
    auto open = std::make_shared<Open>();
    open->service = this;
    open->task = static_cast<Handle>(m.word2);
    open->owns_task = orlix::_SL_GetState(orlix::STATE_TASKS_AS_HANDLES) != 0;

    Shared mem = make_shared_memory(OPEN_MEMO_SIZE);
    Handle create_lock = orlix::_SL_CreateSemaphore(0, 0, 1, 0);
    Handle create_reply = orlix::_SL_CreateMsgPort(0, 0);
    Handle shared_reply = orlix::_SL_CreateMsgPort(0, 0);
    Handle mutex_sem = orlix::_SL_CreateSemaphore(0, 0, 1, 0);
    // The port's handler keeps the open alive while a message to it is being handled.
    Handle port = host::kernel::create_service_port(
        [this, open](const Message& msg) { handle_open_port(open.get(), msg); });
    RequestRef shared = mem.base ? make_request(*open, orlix::IOREQ_HEADER_SIZE + params_size_) : nullptr;
    if (!mem.base || create_lock == orlix::INVALID_HANDLE || create_reply == orlix::INVALID_HANDLE ||
        shared_reply == orlix::INVALID_HANDLE || mutex_sem == orlix::INVALID_HANDLE ||
        port == orlix::INVALID_HANDLE || !shared) {
        if (shared)
            release_request(*open, shared);
        for (Handle h : {create_lock, create_reply, shared_reply, mutex_sem, port})
            delete_object(h);
        delete_object(mem.memo, orlix::DELETE_MEMO_WITH_VIEWS);
        if (open->owns_task)
            delete_object(open->task, orlix::DELETE_HANDLE);
        post(reply, 0, orlix::MSG_DEVICE_OPENED, 0);
        return;
    }
    orlix::_SL_SignalSemaphore(create_lock, 1); // a binary lock, free at first

    auto* device = reinterpret_cast<orlix::Device*>(mem.base);
    auto* io = reinterpret_cast<orlix::DeviceSharedIO*>(mem.base + OPEN_SHARED_IO);
    auto* mutex = reinterpret_cast<orlix::Mutex*>(mem.base + OPEN_MUTEX);
    mutex->count = 0;
    mutex->semaphore = mutex_sem;
    device->open_state = 1;
    device->create_lock = create_lock;
    device->request_port = port;
    device->create_reply_port = create_reply;
    device->shared_io = io;
    io->lock = mutex;
    io->request = shared->block;
    io->params = orlix::ioreq_area(shared->block);
    io->params_size = params_size_;
    shared->block->device = device;
    shared->block->reply_port = shared_reply;
    shared->block->params = io->params;
    open->shared_reply = shared_reply;

    open->port = port;
    open->memo = mem.memo;
    open->device = device;
    open->shared = shared;
    {
        std::lock_guard g(opens_lock_);
        opens_.emplace(device, std::move(open));
    }
    post(reply, 0, orlix::MSG_DEVICE_OPENED, reinterpret_cast<std::uint64_t>(device));
}

void Service::do_close(Open* open, Handle reply)
{
    std::shared_ptr<Open> owned;
    {
        std::lock_guard g(opens_lock_);
        auto it = opens_.find(open->device);
        if (it == opens_.end() || it->second.get() != open)
            return;
        owned = std::move(it->second);
        opens_.erase(it);
    }
    std::vector<RequestRef> requests;
    {
        std::lock_guard g(open->lock);
        for (auto& slot : open->slots)
            if (slot.request)
                requests.push_back(slot.request);
    }
    for (auto& r : requests)
        release_request(*open, r);
    closing(*open);
    orlix::Device* device = open->device;
    delete_object(device->shared_io->lock->semaphore);
    delete_object(open->shared_reply);
    delete_object(device->create_lock);
    delete_object(device->create_reply_port);
    if (open->owns_task)
        delete_object(open->task, orlix::DELETE_HANDLE);
    Handle port = open->port;
    delete_object(open->memo, orlix::DELETE_MEMO_WITH_VIEWS);
    if (reply != 0)
        post(reply, 0, orlix::MSG_DEVICE_CLOSED, 0);
    // The port last: this may be running inside its own handler.
    delete_object(port);
}

RequestRef Service::make_request(Open& open, std::size_t size)
{
    Shared mem = make_shared_memory(size);
    if (!mem.base)
        return nullptr;
    auto r = std::make_shared<Request>();
    r->block = reinterpret_cast<orlix::IOreq*>(mem.base);
    r->size = size;
    r->memo = mem.memo;
    r->open = &open;
    std::lock_guard g(open.lock);
    std::uint32_t slot;
    if (!open.free_slots.empty()) {
        slot = open.free_slots.back();
        open.free_slots.pop_back();
    } else {
        slot = static_cast<std::uint32_t>(open.slots.size());
        open.slots.emplace_back();
    }
    auto& s = open.slots[slot];
    s.generation++;
    s.request = r;
    r->id = make_id(slot, s.generation);
    r->block->id = r->id;
    r->block->device = open.device;
    r->block->timeout = orlix::IOREQ_NO_TIMEOUT;
    r->block->priority = 3;
    return r;
}

RequestRef Service::find(Open& open, std::uint64_t id)
{
    auto slot = static_cast<std::uint32_t>(id & 0xffffffffu);
    auto generation = static_cast<std::uint32_t>(id >> 32);
    std::lock_guard g(open.lock);
    if (slot == 0 || slot > open.slots.size())
        return nullptr;
    auto& s = open.slots[slot - 1];
    if (s.generation != generation || !s.request)
        return nullptr;
    return s.request;
}

// Takes r out of the table, ends what it has in flight without a message, and frees the block.
void Service::release_request(Open& open, const RequestRef& r)
{
    {
        std::lock_guard g(open.lock);
        auto slot = static_cast<std::uint32_t>((r->id & 0xffffffffu) - 1);
        if (slot < open.slots.size() && open.slots[slot].request == r) {
            open.slots[slot].request.reset();
            open.free_slots.push_back(slot);
        }
    }
    std::lock_guard g(r->lock);
    if (r->state == RequestState::parked) {
        cancel(*r);
        if (r->timer_armed)
            reactor().cancel_timer(r->timer);
        r->timer_armed = false;
    }
    r->state = RequestState::deleted;
    delete_object(r->memo, orlix::DELETE_MEMO_WITH_VIEWS);
    r->memo = orlix::INVALID_HANDLE;
    r->block = nullptr;
    r->size = 0;
}

void Service::do_create(Open* open, const Message& m)
{
    Handle reply = open->device->create_reply_port;
    std::uint64_t size = m.word2;
    // A block grows to whatever the caller asks: only memory the kernel can't give refuses it.
    if (m.word1 != reinterpret_cast<std::uint64_t>(open->device) || size < orlix::IOREQ_HEADER_SIZE) {
        post(reply, 0, orlix::MSG_IOREQ_CREATED, 0);
        return;
    }
    RequestRef r = make_request(*open, size);
    post(reply, 0, orlix::MSG_IOREQ_CREATED, r ? reinterpret_cast<std::uint64_t>(r->block) : 0);
}

void Service::do_delete(Open* open, std::uint64_t id, bool answer)
{
    RequestRef r = find(*open, id);
    // The shared request lives as long as its open.
    if (r && r != open->shared)
        release_request(*open, r);
    if (answer)
        post(open->device->create_reply_port, 0, orlix::MSG_IOREQ_DELETED, 0);
}

void Service::complete_locked(Request& r, Outcome outcome)
{
    r.state = RequestState::idle;
    if (r.timer_armed) {
        reactor().cancel_timer(r.timer);
        r.timer_armed = false;
    }
    if (outcome.kind == Outcome::done) {
        post(r.reply, 0, orlix::MSG_IO_DONE, 0);
    } else {
        r.block->error = outcome.status;
        post(r.reply, 0, orlix::MSG_IO_FAILED, 0);
    }
}

void Service::do_begin(Open* open, const Message& m)
{
    auto reply = static_cast<Handle>(m.word1);
    RequestRef r = find(*open, m.word2);
    if (!r) {
        post(reply, 0, orlix::MSG_IO_FAILED, 0);
        return;
    }
    std::unique_lock g(r->lock);
    if (r->state != RequestState::idle) {
        if (r->state == RequestState::deleted) {
            post(reply, 0, orlix::MSG_IO_FAILED, 0);
            return;
        }
        r->block->error = STATUS_BUSY;
        post(reply, 0, orlix::MSG_IO_FAILED, 0);
        return;
    }
    r->state = RequestState::running;
    r->serial++;
    r->reply = reply;
    r->pending = Pending{};
    Outcome outcome = run(*r);
    if (outcome.kind == Outcome::parked) {
        r->state = RequestState::parked;
        arm_timer(r);
        return;
    }
    complete_locked(*r, outcome);
}

void Service::arm_timer(const RequestRef& r)
{
    std::uint32_t ms = r->block->timeout;
    if (ms == orlix::IOREQ_NO_TIMEOUT)
        return;
    std::weak_ptr<Request> w = r;
    std::uint64_t serial = r->serial;
    r->timer = reactor().add_timer(Clock::now() + std::chrono::milliseconds(ms), [this, w, serial] { on_timer(w, serial); });
    r->timer_armed = true;
}

void Service::on_timer(const std::weak_ptr<Request>& w, std::uint64_t serial)
{
    RequestRef r = w.lock();
    if (!r)
        return;
    std::lock_guard g(r->lock);
    if (r->state != RequestState::parked || r->serial != serial)
        return;
    r->timer_armed = false;
    Outcome outcome = timed_out(*r);
    complete_locked(*r, outcome.kind == Outcome::parked ? Outcome::fail(STATUS_TIME_EXPIRED) : outcome);
}

Outcome Service::timed_out(Request& r)
{
    cancel(r);
    return Outcome::fail(STATUS_TIME_EXPIRED);
}

void Service::resume(const RequestRef& r, std::uint64_t serial, const std::function<Outcome(Request&)>& step)
{
    std::lock_guard g(r->lock);
    if (r->state != RequestState::parked || r->serial != serial)
        return;
    Outcome outcome = step(*r);
    if (outcome.kind != Outcome::parked)
        complete_locked(*r, outcome);
}

void Service::do_abort(Open* open, const Message& m)
{
    auto reply = static_cast<Handle>(m.word1);
    RequestRef r = find(*open, m.word2);
    if (!r) {
        post(reply, 0, orlix::MSG_IO_ABORT_ACK, 0);
        post(reply, 0, orlix::MSG_IO_ABORTED, 0);
        return;
    }
    std::lock_guard g(r->lock);
    post(reply, 0, orlix::MSG_IO_ABORT_ACK, 0);
    if (r->state == RequestState::parked) {
        cancel(*r);
        if (r->timer_armed) {
            reactor().cancel_timer(r->timer);
            r->timer_armed = false;
        }
        r->state = RequestState::idle;
        post(r->reply, 0, orlix::MSG_IO_ABORTED, 0);
        return;
    }
    // Nothing is in flight: the command already ended (or never began). The client that sent the
    // abort may have missed that end, so the abort is still answered in full.
    post(reply, 0, orlix::MSG_IO_ABORTED, 0);
}

} // namespace host::devices
