// The tcpip device: the socket commands over Linux sockets. Receives are served from bytes read
// ahead; sends are buffered (tcpip_send.cpp). Host code; it meets the system only through the
// wire records of platform/tcp_wire.h.
#include "host/devices/tcpip.h"
#include "host/devices/tcpip_socket.h"

#include "host/kernel/host_kernel.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace host::devices {

using orlix::IOreq;

// Linux error numbers to the device's statuses: the client's table where it has a status, else
// the platform's own error number carried in a 0xbe status.
std::uint32_t tcp_status_of_errno(int e)
{
    auto carried = [](std::uint32_t n) { return orlix::STATUS_CARRIES_ERRNO | n; };
    switch (e) {
    case EAFNOSUPPORT: return orlix::TCP_STATUS_NO_FAMILY;
    case EPROTONOSUPPORT: return orlix::TCP_STATUS_NO_PROTOCOL;
    case ESOCKTNOSUPPORT: return carried(72);
    case EPROTOTYPE: return carried(70);
    case ENOTSOCK: return orlix::TCP_STATUS_NOT_SOCKET;
    case EBADF: return carried(26);
    case EINVAL: return orlix::TCP_STATUS_INVALID;
    case EADDRINUSE: return orlix::TCP_STATUS_ADDRESS_IN_USE;
    case EADDRNOTAVAIL: return orlix::TCP_STATUS_ADDRESS_NOT_AVAILABLE;
    case EACCES:
    case EPERM: return orlix::TCP_STATUS_PERMISSION;
    case EISCONN: return orlix::TCP_STATUS_CONNECTED;
    case EAGAIN: return orlix::TCP_STATUS_AGAIN;
    case EINPROGRESS: return orlix::TCP_STATUS_IN_PROGRESS;
    case EALREADY: return carried(52);
    case EMFILE:
    case ENFILE: return orlix::TCP_STATUS_TOO_MANY_FILES;
    case EOPNOTSUPP: return orlix::TCP_STATUS_NOT_SUPPORTED;
    case ENOTCONN: return orlix::TCP_STATUS_NOT_CONNECTED;
    case ENOMEM: return orlix::TCP_STATUS_NO_MEMORY;
    case ENOBUFS: return carried(78);
    case EMSGSIZE: return orlix::TCP_STATUS_MESSAGE_SIZE;
    case ECONNABORTED: return orlix::TCP_STATUS_ABORTED;
    case ECONNRESET: return carried(55);
    case EPIPE: return carried(5);
    case ECONNREFUSED: return carried(60);
    case ETIMEDOUT: return carried(38);
    case ENETDOWN: return carried(61);
    case ENETUNREACH: return carried(63);
    case EHOSTUNREACH: return carried(88);
    case EHOSTDOWN: return carried(93);
    case EFAULT: return STATUS_BAD_ADDRESS;
    case ENOPROTOOPT: return carried(91);
    case EDESTADDRREQ: return carried(80);
    default: return carried(20);
    }
}

namespace {

template <typename T> T* params_of(Request& r) { return reinterpret_cast<T*>(r.area(r.block->params, sizeof(T))); }

} // namespace

// --- Sockets ---------------------------------------------------------------------------------

Tcpip::Tcpip() : Service("tcpip", TCPIP_SHARED_AREA) { reactor(); }

Tcpip::~Tcpip()
{
    shutdown();
    std::lock_guard g(table_lock_);
    for (auto& [n, s] : sockets_)
        if (s->fd >= 0)
            ::close(s->fd);
    for (auto& [n, s] : closing_) {
        if (s->fd >= 0)
            ::close(s->fd);
        for (Chunk* c : s->chunks)
            delete c;
    }
    for (Chunk* c : pool_)
        delete c;
}

std::size_t Tcpip::socket_count()
{
    std::lock_guard g(table_lock_);
    return sockets_.size() + closing_.size();
}

Tcpip::SocketRef Tcpip::lookup(std::int32_t number)
{
    std::lock_guard g(table_lock_);
    auto it = sockets_.find(number);
    return it == sockets_.end() ? nullptr : it->second;
}

Tcpip::SocketRef Tcpip::add_socket(int fd, Open* owner)
{
    auto s = std::make_shared<Socket>();
    s->fd = fd;
    s->owner = owner;
    std::lock_guard g(table_lock_);
    do {
        next_number_ = next_number_ >= 0x7ffffffe ? 1 : next_number_ + 1;
    } while (sockets_.count(next_number_) || closing_.count(next_number_));
    s->number = next_number_;
    sockets_.emplace(s->number, s);
    return s;
}

// Asks the reactor for the events the socket's waiters need (s.lock held).
void Tcpip::rearm(Socket& s)
{
    if (s.fd < 0)
        return;
    std::uint32_t want = 0;
    if (!s.readers.empty() && !s.watch)
        want |= EPOLLIN | EPOLLRDHUP;
    if (s.flush_blocked || std::any_of(s.writers.begin(), s.writers.end(), [](const Waiter& w) { return w.connect; }))
        want |= EPOLLOUT;
    if (want != 0 && want != s.armed) {
        reactor().arm(s.fd, static_cast<std::uint64_t>(s.number), want);
        s.armed = want;
    }
}

void Tcpip::park(Socket& s, Request& r, std::vector<Waiter>& list, bool connect)
{
    list.push_back({r.shared_from_this(), r.serial, connect});
    if (&list == &s.readers && s.readers.size() == 1 && !s.watch)
        watch_readers(s, r);
    rearm(s);
}

void Tcpip::unpark(Socket& s, const Request& r)
{
    auto drop = [&](std::vector<Waiter>& list) {
        list.erase(std::remove_if(list.begin(), list.end(), [&](const Waiter& w) { return w.request.get() == &r; }),
                   list.end());
    };
    drop(s.readers);
    drop(s.writers);
    if (s.readers.empty())
        unwatch(s);
}

// Lets the thread that waits for r's completion watch the socket itself (s.lock held).
void Tcpip::watch_readers(Socket& s, Request& r)
{
    auto watch = std::make_shared<host::kernel::PortWatch>();
    watch->fd = s.fd;
    watch->events = POLLIN | POLLRDHUP;
    std::weak_ptr<Socket> socket = s.shared_from_this();
    std::weak_ptr<Request> request = r.shared_from_this();
    std::uint64_t serial = r.serial;
    watch->ready = [this, socket, request, serial] {
        SocketRef sp = socket.lock();
        RequestRef rp = request.lock();
        if (sp && rp)
            resume(rp, serial, [&](Request& q) { return read_step(*sp, q); });
    };
    watch->unwatched = [this, socket] {
        if (SocketRef sp = socket.lock()) {
            std::lock_guard g(sp->lock);
            sp->watch.reset();
            rearm(*sp);
        }
    };
    if (host::kernel::watch_port(r.reply, watch)) {
        s.watch = std::move(watch);
        s.watch_port = r.reply;
    }
}

// The socket's watch is over (s.lock held).
void Tcpip::unwatch(Socket& s)
{
    if (!s.watch)
        return;
    host::kernel::unwatch_port(s.watch_port, s.watch);
    s.watch.reset();
}

// Another accept or receive for a parked reader, after its socket showed readiness.
Outcome Tcpip::read_step(Socket& s, Request& r)
{
    std::lock_guard g(s.lock);
    s.watch.reset(); // a waiter or the reactor took it to come here
    Outcome o = r.pending.command == orlix::TCP_ACCEPT ? try_accept(s, r) : try_receive(s, r);
    if (o.kind != Outcome::parked)
        unpark(s, r);
    else if (s.readers.size() == 1)
        watch_readers(s, r);
    rearm(s);
    return o;
}

// --- Commands --------------------------------------------------------------------------------

Outcome Tcpip::run(Request& r)
{
    IOreq& b = *r.block;
    r.pending.command = b.command;
    switch (b.command) {
    case orlix::TCP_CREATE: return cmd_create(r);
    case orlix::TCP_CLOSE: return cmd_close(r);
    case orlix::TCP_BIND:
    case orlix::TCP_GETNAME:
    case orlix::TCP_GETPEER: return cmd_address(r);
    case orlix::TCP_SETOPT: return cmd_setopt(r);
    case orlix::TCP_LISTEN: return cmd_listen(r);
    case orlix::TCP_ACCEPT: return cmd_accept(r);
    case orlix::TCP_CONNECT: return cmd_connect(r);
    case orlix::TCP_INHERIT:
        return params_of<orlix::TcpInheritParams>(r) ? Outcome::ok() : Outcome::fail(STATUS_BAD_ADDRESS);
    case orlix::TCP_SEND:
    case orlix::TCP_RECEIVE: return cmd_transfer(r);
    default: return Outcome::fail(STATUS_BAD_COMMAND);
    }
}

Outcome Tcpip::cmd_create(Request& r)
{
    auto* p = params_of<orlix::TcpCreateParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    if (p->domain != orlix::AF_INET_VALUE)
        return Outcome::fail(orlix::TCP_STATUS_NO_FAMILY);
    if (p->type != orlix::SOCK_STREAM_VALUE)
        return Outcome::fail(tcp_status_of_errno(ESOCKTNOSUPPORT));
    if (p->protocol != 0 && p->protocol != orlix::IPPROTO_TCP_VALUE)
        return Outcome::fail(orlix::TCP_STATUS_NO_PROTOCOL);
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return Outcome::fail(tcp_status_of_errno(errno));
    int one = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    p->socket = add_socket(fd, r.open)->number;
    return Outcome::ok();
}

template <typename F> Outcome Tcpip::on_open_socket(std::int32_t number, F fn)
{
    SocketRef s = lookup(number);
    if (!s)
        return Outcome::fail(orlix::TCP_STATUS_NOT_SOCKET);
    std::lock_guard g(s->lock);
    if (s->closed)
        return Outcome::fail(orlix::TCP_STATUS_NOT_SOCKET);
    return fn(s.get());
}

Outcome Tcpip::cmd_close(Request& r)
{
    auto* p = params_of<orlix::TcpSocketParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    SocketRef s;
    {
        std::lock_guard g(table_lock_);
        auto it = sockets_.find(p->socket);
        if (it == sockets_.end())
            return Outcome::fail(orlix::TCP_STATUS_NOT_SOCKET);
        s = it->second;
        sockets_.erase(it);
    }
    close_socket(s);
    return Outcome::ok();
}

// Ends every command waiting on s and closes it. Bytes still buffered go out first: at once what
// the host takes, the rest by the reactor for at most the linger time, and it makes the host close.
void Tcpip::close_socket(const SocketRef& s)
{
    std::vector<Waiter> waiters;
    bool reactor_closes;
    {
        std::lock_guard g(s->lock);
        s->closed = true;
        unwatch(*s);
        waiters = std::move(s->readers);
        waiters.insert(waiters.end(), s->writers.begin(), s->writers.end());
        s->readers.clear();
        s->writers.clear();
        s->rbuf.reset();
        s->rcap = s->rstart = s->rend = 0;
        // What is left goes out now if the host takes it; a linger of 0 drops it, as on the host.
        bool drop = s->linger_on && s->linger_seconds == 0;
        if (s->buffered != 0 && !s->flush_queued && !s->broken && !drop)
            write_out(*s);
        reactor_closes = s->flush_queued;
        if (reactor_closes) {
            std::lock_guard t(table_lock_);
            closing_.emplace(s->number, s);
        } else if (s->fd >= 0) {
            for (Chunk* c : s->chunks)
                give_chunk(c);
            s->chunks.clear();
            s->buffered = 0;
            ::close(s->fd);
            s->fd = -1;
        }
    }
    // Their wait lists are already empty: nothing is left to unpark.
    for (auto& w : waiters)
        resume(w.request, w.serial, [](Request&) { return Outcome::fail(orlix::TCP_STATUS_ABORTED); });
    if (!reactor_closes)
        return;
    auto limit = s->linger_on ? std::chrono::seconds(s->linger_seconds) : CLOSE_FLUSH_LIMIT;
    std::weak_ptr<Socket> w = s;
    reactor().add_timer(Clock::now() + limit, [this, w] {
        if (SocketRef t = w.lock())
            finish_close(t, true);
    });
    {
        std::lock_guard g(flush_lock_);
        to_flush_.push_back(s);
    }
    reactor().wake();
}

// On the reactor thread: the host close of a socket the client has closed.
void Tcpip::finish_close(const SocketRef& s, bool give_up)
{
    std::lock_guard g(s->lock);
    if (s->fd < 0 || (!give_up && s->buffered != 0 && !s->broken))
        return;
    for (Chunk* c : s->chunks)
        give_chunk(c);
    s->chunks.clear();
    s->buffered = 0;
    ::close(s->fd);
    s->fd = -1;
    s->flush_queued = false;
    std::lock_guard t(table_lock_);
    closing_.erase(s->number);
}

void Tcpip::closing(Open& open)
{
    std::vector<SocketRef> mine;
    {
        std::lock_guard g(table_lock_);
        for (auto it = sockets_.begin(); it != sockets_.end();) {
            if (it->second->owner == &open) {
                mine.push_back(it->second);
                it = sockets_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& s : mine)
        close_socket(s);
}

Outcome Tcpip::cmd_address(Request& r)
{
    auto* p = params_of<orlix::TcpAddressParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    std::uint32_t length = p->length;
    std::uint8_t* bytes = length ? r.area(p->address, length) : nullptr;
    if (length && !bytes)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    return on_open_socket(p->socket, [&](Socket* s) {
        if (r.pending.command == orlix::TCP_BIND) {
            if (length < sizeof(sockaddr_in))
                return Outcome::fail(orlix::TCP_STATUS_INVALID);
            sockaddr_in sa;
            std::memcpy(&sa, bytes, sizeof sa);
            if (sa.sin_family != orlix::AF_INET_VALUE)
                return Outcome::fail(orlix::TCP_STATUS_NO_FAMILY);
            sa.sin_family = AF_INET;
            if (::bind(s->fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0)
                return Outcome::fail(tcp_status_of_errno(errno));
            return Outcome::ok();
        }
        sockaddr_in sa{};
        socklen_t sl = sizeof sa;
        int rc = r.pending.command == orlix::TCP_GETNAME ? ::getsockname(s->fd, reinterpret_cast<sockaddr*>(&sa), &sl)
                                                          : ::getpeername(s->fd, reinterpret_cast<sockaddr*>(&sa), &sl);
        if (rc != 0)
            return Outcome::fail(tcp_status_of_errno(errno));
        orlix::sockaddr_in out{};
        out.sin_family = orlix::AF_INET_VALUE;
        out.sin_port = sa.sin_port;
        out.sin_addr = sa.sin_addr.s_addr;
        std::memcpy(bytes, &out, std::min<std::size_t>(length, sizeof out));
        p->length = sizeof out;
        return Outcome::ok();
    });
}

Outcome Tcpip::cmd_setopt(Request& r)
{
    auto* p = params_of<orlix::TcpSetOptParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    std::uint32_t length = p->value_length;
    std::uint8_t* value = length ? r.area(p->value, length) : nullptr;
    if (length && !value)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    return on_open_socket(p->socket, [&](Socket* s) {
        if (p->level == orlix::SOL_SOCKET_VALUE && p->option == orlix::SO_LINGER_VALUE) {
            // Kept by the device: the host close must never block, so the linger time only bounds
            // the background flush of a closed socket.
            if (length < 8)
                return Outcome::fail(orlix::TCP_STATUS_INVALID);
            std::uint32_t words[2];
            std::memcpy(words, value, sizeof words);
            s->linger_on = words[0] != 0;
            s->linger_seconds = words[1];
            return Outcome::ok();
        }
        int level;
        if (p->level == orlix::SOL_SOCKET_VALUE)
            level = SOL_SOCKET;
        else if (p->level == orlix::IPPROTO_TCP_VALUE)
            level = IPPROTO_TCP;
        else
            return Outcome::fail(tcp_status_of_errno(ENOPROTOOPT));
        if (::setsockopt(s->fd, level, static_cast<int>(p->option), value, length) != 0)
            return Outcome::fail(tcp_status_of_errno(errno));
        return Outcome::ok();
    });
}

Outcome Tcpip::cmd_listen(Request& r)
{
    auto* p = params_of<orlix::TcpListenParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    return on_open_socket(p->socket, [&](Socket* s) {
        int backlog = static_cast<int>(std::min<std::uint32_t>(p->backlog, 4096));
        if (::listen(s->fd, std::max(backlog, LISTEN_QUEUE_MIN)) != 0)
            return Outcome::fail(tcp_status_of_errno(errno));
        return Outcome::ok();
    });
}

Outcome Tcpip::cmd_accept(Request& r)
{
    auto* p = params_of<orlix::TcpAcceptParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    if (p->length && !r.area(p->address, p->length))
        return Outcome::fail(STATUS_BAD_ADDRESS);
    r.pending.socket = p->socket;
    r.pending.params = reinterpret_cast<std::uint8_t*>(p);
    r.pending.data = static_cast<std::uint8_t*>(p->address);
    r.pending.length = p->length;
    return on_open_socket(p->socket, [&](Socket* s) {
        Outcome o = try_accept(*s, r);
        if (o.kind == Outcome::parked)
            park(*s, r, s->readers, false);
        return o;
    });
}

// One accept attempt (s.lock held).
Outcome Tcpip::try_accept(Socket& s, Request& r)
{
    if (s.closed)
        return Outcome::fail(orlix::TCP_STATUS_ABORTED);
    sockaddr_in sa{};
    socklen_t sl = sizeof sa;
    int fd = ::accept4(s.fd, reinterpret_cast<sockaddr*>(&sa), &sl, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED || errno == EINTR)
            return Outcome::wait();
        return Outcome::fail(tcp_status_of_errno(errno));
    }
    SocketRef n = add_socket(fd, s.owner);
    n->connected = true;
    auto* p = reinterpret_cast<orlix::TcpAcceptParams*>(r.pending.params);
    p->new_socket = n->number;
    if (r.pending.length) {
        orlix::sockaddr_in out{};
        out.sin_family = orlix::AF_INET_VALUE;
        out.sin_port = sa.sin_port;
        out.sin_addr = sa.sin_addr.s_addr;
        std::memcpy(r.pending.data, &out, std::min<std::size_t>(r.pending.length, sizeof out));
        p->length = sizeof out;
    }
    return Outcome::ok();
}

Outcome Tcpip::cmd_connect(Request& r)
{
    auto* p = params_of<orlix::TcpConnectParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    if (p->length < sizeof(orlix::sockaddr_in))
        return Outcome::fail(orlix::TCP_STATUS_INVALID);
    std::uint8_t* bytes = r.area(p->address, p->length);
    if (!bytes)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    sockaddr_in sa;
    std::memcpy(&sa, bytes, sizeof sa);
    if (sa.sin_family != orlix::AF_INET_VALUE)
        return Outcome::fail(orlix::TCP_STATUS_NO_FAMILY);
    sa.sin_family = AF_INET;
    r.pending.socket = p->socket;
    return on_open_socket(p->socket, [&](Socket* s) {
        // Asked here: the host's first connect after one finished in the background says 0.
        if (s->connected)
            return Outcome::fail(orlix::TCP_STATUS_CONNECTED);
        if (::connect(s->fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
            s->connected = true;
            return Outcome::ok();
        }
        if (errno != EINPROGRESS)
            return Outcome::fail(tcp_status_of_errno(errno));
        park(*s, r, s->writers, true);
        return Outcome::wait();
    });
}

// The end of a connection in progress (s.lock held): wait, or its outcome.
Outcome Tcpip::try_connect(Socket& s)
{
    if (s.closed)
        return Outcome::fail(orlix::TCP_STATUS_ABORTED);
    int err = 0;
    socklen_t sl = sizeof err;
    if (::getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &err, &sl) != 0)
        err = errno;
    if (err == 0) {
        sockaddr_in sa{};
        socklen_t al = sizeof sa;
        if (::getpeername(s.fd, reinterpret_cast<sockaddr*>(&sa), &al) != 0)
            return Outcome::wait(); // not connected yet
        s.connected = true;
        return Outcome::ok();
    }
    if (err == EINPROGRESS || err == EALREADY)
        return Outcome::wait();
    return Outcome::fail(tcp_status_of_errno(err));
}

Outcome Tcpip::cmd_transfer(Request& r)
{
    auto* p = params_of<orlix::TcpTransferParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    std::uint64_t length = p->length;
    if (length > r.size)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    std::uint8_t* data = length ? r.area(p->data, length) : nullptr;
    if (length && !data)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    r.pending.socket = p->socket;
    r.pending.params = reinterpret_cast<std::uint8_t*>(p);
    r.pending.data = data;
    r.pending.length = length;
    r.pending.flags = p->flags;
    p->result = 0;
    return on_open_socket(p->socket, [&](Socket* s) {
        if (s->pending_error) {
            std::uint32_t e = s->pending_error;
            s->pending_error = 0;
            return Outcome::fail(e);
        }
        bool send = r.pending.command == orlix::TCP_SEND;
        Outcome o = send ? try_send(*s, r) : try_receive(*s, r);
        if (o.kind == Outcome::parked)
            park(*s, r, send ? s->writers : s->readers, false);
        return o;
    });
}

Tcpip::SocketRef Tcpip::lookup_any(std::int32_t number)
{
    std::lock_guard g(table_lock_);
    auto it = sockets_.find(number);
    if (it != sockets_.end())
        return it->second;
    auto c = closing_.find(number);
    return c == closing_.end() ? nullptr : c->second;
}

// Serves a receive from the bytes read ahead, reading more from the host when there are none
// (s.lock held).
Outcome Tcpip::try_receive(Socket& s, Request& r)
{
    Pending& p = r.pending;
    if (s.closed)
        return Outcome::fail(orlix::TCP_STATUS_ABORTED);
    bool all = (p.flags & orlix::MSG_WAITALL_VALUE) != 0;
    // A receive takes all that has come, up to its length: when the bytes read ahead run out
    // before that, the host is asked once more, as its own receive would find them.
    bool asked = false;
    for (;;) {
        if (s.rend > s.rstart) {
            std::size_t n = std::min<std::uint64_t>(s.rend - s.rstart, p.length - p.done);
            std::memcpy(p.data + p.done, s.rbuf.get() + s.rstart, n);
            s.rstart += n;
            p.done += n;
            if (s.rstart == s.rend) {
                s.rstart = s.rend = 0;
                if (s.rcap != s.rnext || s.rnext == RECV_MIN) { // resize, or hold nothing while idle
                    s.rbuf.reset();
                    s.rcap = 0;
                }
            }
        }
        if (p.done == p.length || (p.done > 0 && !all && asked)) {
            set_result(r);
            return Outcome::ok();
        }
        if (s.eof) {
            set_result(r);
            return Outcome::ok();
        }
        if (!s.rbuf) {
            s.rcap = s.rnext;
            s.rbuf.reset(new std::uint8_t[s.rcap]);
        }
        ssize_t n = ::recv(s.fd, s.rbuf.get(), s.rcap, MSG_DONTWAIT);
        asked = true;
        if (n > 0) {
            s.answers = true;
            s.rstart = 0;
            s.rend = static_cast<std::size_t>(n);
            if (s.rend == s.rcap)
                s.rnext = std::min(s.rcap * 2, RECV_MAX);
            else if (s.rend < s.rcap / 4)
                s.rnext = std::max(s.rcap / 2, RECV_MIN);
            continue;
        }
        if (n == 0) {
            s.eof = true;
            continue;
        }
        if ((errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) && p.done > 0 && !all) {
            set_result(r);
            return Outcome::ok();
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
            // The peer may wait for what this side still holds before it says anything.
            if (s.buffered != 0 && !s.flush_queued && s.writers.empty())
                write_out(s);
            set_result(r);
            return Outcome::wait();
        }
        std::uint32_t status = tcp_status_of_errno(errno);
        if (p.done > 0) { // hand over what came; the error waits for the next command
            s.pending_error = status;
            set_result(r);
            return Outcome::ok();
        }
        return Outcome::fail(status);
    }
}

void Tcpip::cancel(Request& r)
{
    if (SocketRef s = lookup_any(r.pending.socket)) {
        std::lock_guard g(s->lock);
        unpark(*s, r);
    }
}

Outcome Tcpip::timed_out(Request& r)
{
    cancel(r);
    std::uint32_t c = r.pending.command;
    if ((c == orlix::TCP_RECEIVE || c == orlix::TCP_SEND) && r.pending.done > 0) {
        set_result(r);
        return Outcome::fail(STATUS_PARTIAL);
    }
    return Outcome::fail(STATUS_TIME_EXPIRED);
}

// --- The reactor's side --------------------------------------------------------------------

void Tcpip::on_event(std::uint64_t key, std::uint32_t events)
{
    SocketRef s = lookup_any(static_cast<std::int32_t>(key));
    if (!s)
        return;
    std::vector<Waiter> readers, writers;
    bool do_flush = false;
    {
        std::lock_guard g(s->lock);
        s->armed = 0;
        if (events & (EPOLLOUT | EPOLLERR | EPOLLHUP)) {
            if (s->flush_blocked) {
                s->flush_blocked = false;
                do_flush = true;
            }
            for (auto& w : s->writers)
                if (w.connect)
                    writers.push_back(w);
        }
        if (events & (EPOLLIN | EPOLLERR | EPOLLHUP | EPOLLRDHUP))
            readers = s->readers;
    }
    if (do_flush)
        flush(s);
    for (auto& w : writers)
        resume(w.request, w.serial, [&](Request& q) {
                std::lock_guard g(s->lock);
                Outcome o = try_connect(*s);
                if (o.kind != Outcome::parked)
                    unpark(*s, q);
                return o;
            });
    for (auto& w : readers)
        resume(w.request, w.serial, [&](Request& q) { return read_step(*s, q); });
    std::lock_guard g(s->lock);
    rearm(*s);
}

} // namespace host::devices
