// The sending half of the tcpip device. A send is copied into the socket's buffer; the sender
// writes the buffer to the host itself once it holds a good piece (or at once, on a socket that
// answers what it receives), and a short remainder waits for the reactor's next turn, so that a
// stream of small sends costs neither a write each nor a wake-up each. A host socket that is full
// hands the writing to the reactor until it has room again. Host code.
#include "host/devices/tcpip.h"
#include "host/devices/tcpip_socket.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace host::devices {

Tcpip::Chunk* Tcpip::take_chunk()
{
    {
        std::lock_guard g(pool_lock_);
        if (!pool_.empty()) {
            Chunk* c = pool_.back();
            pool_.pop_back();
            c->start = c->end = 0;
            return c;
        }
    }
    return new Chunk;
}

void Tcpip::give_chunk(Chunk* c)
{
    {
        std::lock_guard g(pool_lock_);
        if (pool_.size() < POOL_KEEP) {
            pool_.push_back(c);
            return;
        }
    }
    delete c;
}

void Tcpip::set_result(Request& r)
{
    reinterpret_cast<orlix::TcpTransferParams*>(r.pending.params)->result = r.pending.done;
}

// The buffered bytes as iovecs, oldest first (s.lock held).
int Tcpip::gather(Socket& s, iovec* iov)
{
    int count = 0;
    for (Chunk* c : s.chunks) {
        if (count == FLUSH_IOVECS)
            break;
        if (c->end > c->start)
            iov[count++] = {c->bytes + c->start, c->end - c->start};
    }
    return count;
}

// Drops n written bytes from the front of the buffer (s.lock held).
void Tcpip::consume(Socket& s, std::size_t n)
{
    s.buffered -= n;
    while (n > 0) {
        Chunk* c = s.chunks.front();
        std::size_t k = std::min(n, c->end - c->start);
        c->start += k;
        n -= k;
        if (c->start == CHUNK_SIZE) {
            give_chunk(c);
            s.chunks.erase(s.chunks.begin());
        }
    }
    if (s.buffered == 0) { // an idle socket holds no buffer
        for (Chunk* c : s.chunks)
            give_chunk(c);
        s.chunks.clear();
    }
}

// A write failed on the host: nothing more goes out, and the next command hears why (s.lock held).
void Tcpip::break_socket(Socket& s, int err)
{
    s.broken = true;
    s.pending_error = tcp_status_of_errno(err);
    for (Chunk* c : s.chunks)
        give_chunk(c);
    s.chunks.clear();
    s.buffered = 0;
}

// Writes the buffer from the calling thread (s.lock held, the reactor not writing). When the host
// socket is full the reactor takes the writing over and goes on when it has room.
void Tcpip::write_out(Socket& s)
{
    iovec iov[FLUSH_IOVECS];
    while (s.buffered != 0) {
        msghdr mh{};
        mh.msg_iov = iov;
        mh.msg_iovlen = static_cast<std::size_t>(gather(s, iov));
        ssize_t n = ::sendmsg(s.fd, &mh, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            consume(s, static_cast<std::size_t>(n));
        } else if (n == 0 || errno == EAGAIN || errno == EWOULDBLOCK) {
            s.flush_queued = true;
            s.flush_blocked = true;
            rearm(s);
            return;
        } else if (errno != EINTR) {
            break_socket(s, errno);
            return;
        }
    }
}

// Hands the writing to the reactor now (s.lock held).
void Tcpip::queue_flush(Socket& s)
{
    s.flush_queued = true;
    {
        std::lock_guard g(flush_lock_);
        to_flush_.push_back(s.shared_from_this());
    }
    reactor().wake();
}

// Leaves a short remainder for the reactor's next turn, a moment away (s.lock held): the sender
// is likely to add to it first.
void Tcpip::defer_flush(Socket& s)
{
    if (s.deferred)
        return;
    s.deferred = true;
    bool arm;
    {
        std::lock_guard g(flush_lock_);
        deferred_.push_back(s.shared_from_this());
        arm = !tick_armed_;
        tick_armed_ = true;
    }
    if (arm)
        reactor().add_timer(Clock::now() + DEFER_FLUSH, [this] { flush_deferred(); });
}

// On the reactor thread: the remainders that no sender has written since they were left.
void Tcpip::flush_deferred()
{
    std::vector<SocketRef> due;
    {
        std::lock_guard g(flush_lock_);
        due.swap(deferred_);
        tick_armed_ = false;
    }
    for (auto& s : due) {
        bool take;
        {
            std::lock_guard g(s->lock);
            s->deferred = false;
            take = s->fd >= 0 && !s->closed && s->buffered != 0 && !s->flush_queued;
            if (take)
                s->flush_queued = true;
        }
        if (take)
            flush(s);
    }
}

// Takes what fits of the send into the buffer (s.lock held); done when all is taken.
Outcome Tcpip::try_send(Socket& s, Request& r)
{
    Pending& p = r.pending;
    if (s.closed)
        return Outcome::fail(orlix::TCP_STATUS_ABORTED);
    if (s.broken)
        return Outcome::fail(STATUS_PIPE);
    if (!s.connected)
        return Outcome::fail(orlix::TCP_STATUS_NOT_CONNECTED);
    // A short reply on a socket that answers what it receives (a control connection) goes
    // straight out when nothing is buffered before it: no copy.
    if (s.answers && s.chunks.empty() && !s.flush_queued && p.length - p.done <= SHORT_SEND) {
        ssize_t n = ::send(s.fd, p.data + p.done, p.length - p.done, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0)
            p.done += static_cast<std::uint64_t>(n);
        else if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)
            return Outcome::fail(tcp_status_of_errno(errno));
    }
    while (p.done < p.length && s.buffered < SEND_LIMIT) {
        if (s.chunks.empty() || s.chunks.back()->end == CHUNK_SIZE)
            s.chunks.push_back(take_chunk());
        Chunk* c = s.chunks.back();
        std::size_t n = std::min<std::uint64_t>({CHUNK_SIZE - c->end, p.length - p.done, SEND_LIMIT - s.buffered});
        std::memcpy(c->bytes + c->end, p.data + p.done, n);
        c->end += n;
        p.done += n;
        s.buffered += n;
    }
    set_result(r);
    if (s.buffered == 0 || s.flush_queued)
        return p.done == p.length ? Outcome::ok() : Outcome::wait();
    // A good piece of a stream of large sends is written by the reactor while the sender makes
    // the next one; other senders waiting for room are resumed by the reactor's writing only.
    if (!s.writers.empty() || (!s.answers && s.buffered >= WRITE_AT && p.length >= SHORT_SEND)) {
        queue_flush(s);
    } else if (s.answers || s.buffered >= WRITE_AT) {
        write_out(s);
        if (s.broken) {
            std::uint32_t e = s.pending_error;
            s.pending_error = 0;
            return Outcome::fail(e);
        }
    } else {
        defer_flush(s);
    }
    return p.done == p.length ? Outcome::ok() : Outcome::wait();
}

Outcome Tcpip::resume_send(Socket& s, Request& r)
{
    std::lock_guard g(s.lock);
    if (s.pending_error && s.broken) {
        unpark(s, r);
        set_result(r);
        std::uint32_t e = s.pending_error;
        s.pending_error = 0;
        return Outcome::fail(e);
    }
    Outcome o = try_send(s, r);
    if (o.kind != Outcome::parked)
        unpark(s, r);
    return o;
}

void Tcpip::on_wake()
{
    std::vector<SocketRef> work;
    {
        std::lock_guard g(flush_lock_);
        work.swap(to_flush_);
    }
    for (auto& s : work)
        flush(s);
}

// On the reactor thread: writes the socket's buffered bytes to the host in large pieces until
// none are left or the host socket is full. The reactor writes only while flush_queued is set,
// and then no sender does.
void Tcpip::flush(const SocketRef& s)
{
    iovec iov[FLUSH_IOVECS];
    for (int round = 0;; ++round) {
        if (round == FLUSH_ROUNDS) {
            // Others wait too: go to the back of the queue, still owning the writing.
            {
                std::lock_guard g(flush_lock_);
                to_flush_.push_back(s);
            }
            reactor().wake();
            return;
        }
        int count = 0;
        {
            std::lock_guard g(s->lock);
            if (s->fd < 0)
                return;
            if (s->buffered == 0 || s->broken || s->flush_blocked) {
                if (!s->flush_blocked)
                    s->flush_queued = false;
                bool done_closing = s->closed && !s->flush_blocked;
                if (!done_closing)
                    return;
            } else {
                count = gather(*s, iov);
            }
        }
        if (count == 0) { // a closed socket whose bytes are out
            finish_close(s, false);
            return;
        }
        msghdr mh{};
        mh.msg_iov = iov;
        mh.msg_iovlen = static_cast<std::size_t>(count);
        ssize_t n = ::sendmsg(s->fd, &mh, MSG_NOSIGNAL | MSG_DONTWAIT);
        int err = n < 0 ? errno : 0;
        std::vector<Waiter> writers;
        {
            std::lock_guard g(s->lock);
            if (n > 0) {
                consume(*s, static_cast<std::size_t>(n));
            } else if (err == EAGAIN || err == EWOULDBLOCK) {
                s->flush_blocked = true;
                rearm(*s);
                return;
            } else if (err != EINTR) {
                break_socket(*s, err);
            }
            for (auto& w : s->writers)
                if (!w.connect)
                    writers.push_back(w);
        }
        for (auto& w : writers)
            resume(w.request, w.serial, [&](Request& q) { return resume_send(*s, q); });
    }
}

} // namespace host::devices
