// The device framework of the host platform: a device's service port, the record of each open,
// request blocks and their life, and the reactor thread that finishes commands that must wait.
// Host code; it meets the system only through the kernel entries and the wire records.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/device.h"
#include "platform/ioreq.h"
#include "platform/kernel.h"

namespace host::devices {

// Statuses every device uses.
inline constexpr std::uint32_t STATUS_BAD_COMMAND = 2;
inline constexpr std::uint32_t STATUS_BUSY = 5;
inline constexpr std::uint32_t STATUS_PARTIAL = 6;               // a receive ended with bytes in hand
inline constexpr std::uint32_t STATUS_BAD_ADDRESS = 0xbe000038;  // a pointer outside the block
inline constexpr std::uint32_t STATUS_TIME_EXPIRED = 0xbe000049; // the block's time-out ran out
inline constexpr std::uint32_t STATUS_NOT_FOUND = 0xbe000001;    // no such key

using Clock = std::chrono::steady_clock;

// --- The reactor -----------------------------------------------------------------------------

// One thread on an epoll set: it reports readiness of the descriptors a device watches, runs
// timers, and runs the device's wake-up work when another thread asks for it.
class Reactor {
public:
    using EventHandler = std::function<void(std::uint64_t key, std::uint32_t events)>;
    using TimerId = std::pair<Clock::time_point, std::uint64_t>;

    Reactor(EventHandler on_event, std::function<void()> on_wake);
    ~Reactor();
    Reactor(const Reactor&) = delete;
    Reactor& operator=(const Reactor&) = delete;

    // Arms fd for one report of the events (EPOLLIN, EPOLLOUT) under key; rearming replaces the
    // interest. Safe from any thread.
    void arm(int fd, std::uint64_t key, std::uint32_t events);

    // Makes the reactor run on_wake soon; a wake already pending is not repeated.
    void wake();

    // Runs fn on the reactor thread at when, unless cancelled first.
    TimerId add_timer(Clock::time_point when, std::function<void()> fn);
    void cancel_timer(const TimerId& id);

    bool on_reactor_thread() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
    void run();

    EventHandler on_event_;
    std::function<void()> on_wake_;
    int epoll_fd_ = -1;
    int wake_fd_ = -1;
    std::atomic<bool> wake_pending_{false};
    std::atomic<bool> stopping_{false};
    std::mutex timers_lock_;
    std::map<TimerId, std::function<void()>> timers_;
    std::uint64_t next_timer_ = 1;
    std::thread thread_;
};

// --- Requests and opens ----------------------------------------------------------------------

enum class RequestState { idle, running, parked, deleted };

// What a command that waits keeps of its parameter block, checked once when it began: a parked
// command never reads the block's parameters again.
struct Pending {
    std::uint32_t command = 0;
    std::int32_t socket = -1;
    std::uint8_t* data = nullptr;  // inside the block
    std::uint64_t length = 0;
    std::uint64_t done = 0;        // bytes moved so far
    std::uint32_t flags = 0;
    std::uint8_t* params = nullptr; // inside the block
};

struct Open;

// The device's side of one request block.
struct Request : std::enable_shared_from_this<Request> {
    std::mutex lock; // guards everything below and every write to the block by the device
    RequestState state = RequestState::idle;
    std::uint64_t serial = 0; // counts begins; a wake-up for an older begin is stale
    orlix::IOreq* block = nullptr;
    std::size_t size = 0;
    orlix::Handle memo = orlix::INVALID_HANDLE;
    std::uint64_t id = 0;
    Open* open = nullptr;
    orlix::Handle reply = 0; // reply port of the command in flight
    Pending pending;
    bool timer_armed = false;
    Reactor::TimerId timer{};

    // True when [p, p + n) lies inside the block.
    bool inside(const void* p, std::size_t n) const;
    // The block's own copy of bytes [p, p + n) when they lie inside it, else null.
    std::uint8_t* area(const void* p, std::size_t n) const;
};
using RequestRef = std::shared_ptr<Request>;

class Service;

// One open of a device: the Device record the client sees and every block made through it.
struct Open {
    Service* service = nullptr;
    orlix::Handle port = orlix::INVALID_HANDLE;  // this open's request port
    orlix::Handle memo = orlix::INVALID_HANDLE;  // Device, DeviceSharedIO and the Mutex
    orlix::Device* device = nullptr;
    orlix::Handle shared_reply = orlix::INVALID_HANDLE; // reply port of the shared request
    orlix::Handle task = 0;
    bool owns_task = false;
    RequestRef shared;

    std::mutex lock; // guards the table
    struct Slot {
        RequestRef request;
        std::uint32_t generation = 0;
    };
    std::vector<Slot> slots;
    std::vector<std::uint32_t> free_slots;
};

// The result of running a command.
struct Outcome {
    enum Kind { done, failed, parked } kind;
    std::uint32_t status = 0;
    static Outcome ok() { return {done, 0}; }
    static Outcome fail(std::uint32_t s) { return {failed, s}; }
    static Outcome wait() { return {parked, 0}; }
};

// A device service. Subclasses run commands; this class owns the ports, the Device records, the
// request blocks and the state machine of a command: begin, completion, abort, time-out, delete.
class Service {
public:
    // params_size: the size of the caller area of the shared request.
    Service(std::string name, std::size_t params_size);
    virtual ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    const std::string& name() const { return name_; }
    // The port the registry maps the device's name to; MSG_DEVICE_OPEN goes here.
    orlix::Handle port() const { return port_; }

protected:
    // Runs the command of r (r.lock held, state running). parked: the device has put r on a
    // wait list and will finish it through resume(); it must then be ready for cancel().
    virtual Outcome run(Request& r) = 0;
    // Takes a parked r off the device's wait lists (r.lock held).
    virtual void cancel(Request&) {}
    // The block's time-out ran out for a parked r (r.lock held), already off the timer list; the
    // device takes it off its wait lists and says how it ends.
    virtual Outcome timed_out(Request& r);
    // A message to the service port that is not an open.
    virtual void raw_message(const orlix::Message&) {}
    // The last of an open is going: the device drops what it holds for it.
    virtual void closing(Open&) {}

    // Continues a parked request from a wake-up: if r is still parked for the begin serial,
    // step(r) runs under r.lock and its outcome, unless parked again, completes r.
    void resume(const RequestRef& r, std::uint64_t serial, const std::function<Outcome(Request&)>& step);

    // The reactor of the service, made on first use; devices that wait need one.
    Reactor& reactor();
    virtual void on_event(std::uint64_t, std::uint32_t) {}
    virtual void on_wake() {}

    // The request of an open known by its id; null for a stale or forged id.
    RequestRef find(Open& open, std::uint64_t id);

    // Closes every open and stops the reactor; a device's destructor calls it first.
    void shutdown();

private:
    void handle_service(const orlix::Message& m);
    void handle_open_port(Open* open, const orlix::Message& m);
    void do_open(const orlix::Message& m);
    void do_close(Open* open, orlix::Handle reply);
    void do_create(Open* open, const orlix::Message& m);
    void do_delete(Open* open, std::uint64_t id, bool answer);
    void do_begin(Open* open, const orlix::Message& m);
    void do_abort(Open* open, const orlix::Message& m);
    RequestRef make_request(Open& open, std::size_t size);
    void release_request(Open& open, const RequestRef& r);
    void arm_timer(const RequestRef& r);
    void on_timer(const std::weak_ptr<Request>& w, std::uint64_t serial);
    void complete_locked(Request& r, Outcome outcome);

    std::string name_;
    std::size_t params_size_;
    orlix::Handle port_ = orlix::INVALID_HANDLE;
    std::mutex opens_lock_;
    std::map<orlix::Device*, std::shared_ptr<Open>> opens_;
    std::once_flag reactor_once_;
    std::unique_ptr<Reactor> reactor_;
};

// Sends a message to a port, repeating while the kernel asks to.
void post(orlix::Handle port, std::uint64_t word1, std::uint64_t type, std::uint64_t word2);

} // namespace host::devices
