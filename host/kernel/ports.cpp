// Message ports, message pipes and service ports. A port queues messages in arrival order; a
// pipe sends what reaches one port on to another; a service port runs its handler in the
// sender's thread instead of queueing.
#include <deque>

#include "host/kernel/host_kernel.h"
#include "host/kernel/thread.h"

namespace host::kernel {

namespace {

class Port : public Waitable {
public:
    Port() : Waitable(Kind::port) {}
    explicit Port(PortHandler handler) : Waitable(Kind::port), handler(std::move(handler)) {}

    std::deque<orlix::Message> queue;
    const PortHandler handler;
    std::weak_ptr<Port> forward; // set while a pipe leads this port's messages elsewhere
    std::shared_ptr<PortWatch> watch; // a descriptor the next waiter watches itself

private:
    void on_delete() override
    {
        {
            std::lock_guard guard(lock);
            queue.clear();
        }
        Waitable::on_delete();
    }
};

class Pipe : public Object {
public:
    Pipe(std::shared_ptr<Port> source) : Object(Kind::pipe), source_(std::move(source)) {}

private:
    void on_delete() override
    {
        std::lock_guard guard(source_->lock);
        source_->forward.reset();
    }

    std::shared_ptr<Port> source_;
};

constexpr int MAX_PIPE_HOPS = 8;

// The port behind a handle, kept alive for the caller: a device may delete its own port while it
// handles a message to it.
std::shared_ptr<Port> port_at(orlix::Handle handle)
{
    const ObjectRef* object = lookup_cached(handle);
    if (object == nullptr || (*object)->kind() != Kind::port)
        return nullptr;
    return std::static_pointer_cast<Port>(*object);
}

orlix::Status send(KThread* self, orlix::Handle handle, const orlix::Message& message)
{
    auto port = port_at(handle);
    for (int hop = 0; port && hop < MAX_PIPE_HOPS; ++hop) {
        if (port->handler) {
            HostCode host(self);
            port->handler(message);
            return orlix::STATUS_DONE;
        }
        // The waiter is woken under the lock: until it has the lock back, it can't leave its
        // wait, so its record stays alive.
        std::shared_ptr<Port> next;
        {
            std::lock_guard guard(port->lock);
            next = port->forward.lock();
            if (!next) {
                if (port->dead())
                    return orlix::STATUS_BAD_HANDLE;
                port->queue.push_back(message);
                if (KThread* waiter = port->waiters.pop())
                    waiter->parker.unpark();
                return orlix::STATUS_DONE;
            }
        }
        port = std::move(next);
    }
    return orlix::STATUS_BAD_HANDLE;
}

// Sleeps until woken; with a watch on the port, also until its descriptor is ready, and then
// takes the watch and lets the device finish its command here.
void sleep_on(Port& port, std::unique_lock<std::mutex>& lock, const Deadline& deadline)
{
    std::shared_ptr<PortWatch> watch = port.watch;
    lock.unlock();
    KThread* self = current_thread();
    if (!watch) {
        self->parker.park(deadline);
        lock.lock();
        return;
    }
    bool ready = self->parker.park_polling(watch->fd, watch->events, deadline);
    lock.lock();
    if (ready && port.watch == watch) {
        port.watch.reset();
        lock.unlock();
        watch->ready();
        lock.lock();
    }
}

orlix::Status receive(orlix::Handle handle, orlix::Message* out, const Deadline& deadline)
{
    auto port = port_at(handle);
    if (!port)
        return orlix::STATUS_BAD_HANDLE;
    if (port->handler)
        return orlix::STATUS_BAD_ARGUMENT;
    std::unique_lock lock(port->lock);
    orlix::Status status = wait_on(
        lock, port->waiters, *port, deadline, [&] { return !port->queue.empty(); },
        [&](std::unique_lock<std::mutex>& held, const Deadline& d) { sleep_on(*port, held, d); });
    if (status == orlix::STATUS_DONE) {
        *out = port->queue.front();
        port->queue.pop_front();
    } else if (port->watch) {
        // Nobody watches the descriptor now: the device takes it back.
        std::shared_ptr<PortWatch> watch = std::move(port->watch);
        lock.unlock();
        watch->unwatched();
    }
    return status;
}

} // namespace

bool watch_port(orlix::Handle handle, std::shared_ptr<PortWatch> watch)
{
    auto port = lookup_as<Port>(handle, Kind::port);
    if (!port || port->handler)
        return false;
    std::lock_guard guard(port->lock);
    if (port->watch || port->forward.lock() || port->dead())
        return false;
    port->watch = std::move(watch);
    // A thread already asleep on the port starts watching.
    if (KThread* waiter = port->waiters.pop())
        waiter->parker.unpark();
    return true;
}

void unwatch_port(orlix::Handle handle, const std::shared_ptr<PortWatch>& watch)
{
    auto port = lookup_as<Port>(handle, Kind::port);
    if (!port)
        return;
    std::lock_guard guard(port->lock);
    if (port->watch == watch)
        port->watch.reset();
}

orlix::Handle create_service_port(PortHandler handler)
{
    return host_entry([&] { return register_handle(std::make_shared<Port>(std::move(handler)), 0); });
}

} // namespace host::kernel

namespace orlix {

using namespace host::kernel;

Handle _SL_CreateMsgPort(std::uint64_t, std::uint64_t)
{
    return host_entry([] { return register_handle(std::make_shared<Port>(), 0); });
}

Handle _SL_CreateMsgPipe(std::uint64_t, Handle port_a, Handle port_b, std::uint64_t, std::uint64_t)
{
    return host_entry([port_a, port_b] {
        auto a = lookup_as<Port>(port_a, Kind::port);
        auto b = lookup_as<Port>(port_b, Kind::port);
        if (!a || !b || a == b || b->handler)
            return INVALID_HANDLE;
        {
            std::lock_guard guard(b->lock);
            b->forward = a;
        }
        return register_handle(std::make_shared<Pipe>(b), 0);
    });
}

// A send to a device's port runs the device's command here, on the host stack; exceptions that
// come meanwhile are delivered once it is over. A handler that asked for a repeat gets 310 before
// anything is sent.
Status _SL_SendMsg(Handle port, std::uint64_t word1, std::uint64_t type, std::uint64_t word2, std::int64_t)
{
    KThread* self = current_thread();
    if (enter_interruptible(self))
        return STATUS_REPEAT;
    Status status = on_host_stack(self, [&] { return send(self, port, Message{word1, type, word2}); });
    leave_kernel(self);
    return status;
}

Status _SL_RecvMsgPtr(Handle port, Message* message, std::int64_t timeout)
{
    KThread* self = current_thread();
    if (enter_interruptible(self))
        return STATUS_REPEAT;
    if (message == nullptr)
        return STATUS_BAD_ARGUMENT;
    return blocking_entry(self, true, timeout,
                          [&](const Deadline& deadline) { return receive(port, message, deadline); });
}

Status _SL_RecvMsg(Handle port, std::uint64_t* word1, std::uint64_t* type, std::uint64_t* word2,
                   std::int64_t timeout)
{
    Message message{};
    Status status = _SL_RecvMsgPtr(port, &message, timeout);
    if (status == STATUS_DONE) {
        if (word1 != nullptr)
            *word1 = message.word1;
        if (type != nullptr)
            *type = message.type;
        if (word2 != nullptr)
            *word2 = message.word2;
    }
    return status;
}

} // namespace orlix
