// The tcpip device service: sockets over Linux, with send buffering and read-ahead so that a
// 4096-byte command costs about one copy. Host code; see tcpip.cpp.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <sys/uio.h>

#include "host/devices/devices.h"
#include "host/devices/framework.h"
#include "platform/tcp_wire.h"

namespace host::devices {

class Tcpip final : public Service {
public:
    Tcpip();
    ~Tcpip() override;

    // Sockets open or still flushing before their close.
    std::size_t socket_count();

private:
    struct Chunk;
    struct Waiter;
    struct Socket;
    using SocketRef = std::shared_ptr<Socket>;

    Outcome run(Request& r) override;
    void cancel(Request& r) override;
    Outcome timed_out(Request& r) override;
    void closing(Open& open) override;
    void on_event(std::uint64_t key, std::uint32_t events) override;
    void on_wake() override;

    Outcome cmd_create(Request& r);
    Outcome cmd_close(Request& r);
    Outcome cmd_address(Request& r);
    Outcome cmd_setopt(Request& r);
    Outcome cmd_listen(Request& r);
    Outcome cmd_accept(Request& r);
    Outcome cmd_connect(Request& r);
    Outcome cmd_transfer(Request& r);

    Outcome try_accept(Socket& s, Request& r);
    Outcome try_connect(Socket& s);
    Outcome try_send(Socket& s, Request& r);
    Outcome try_receive(Socket& s, Request& r);
    Outcome resume_send(Socket& s, Request& r);
    static void set_result(Request& r);

    SocketRef lookup(std::int32_t number);
    SocketRef lookup_any(std::int32_t number);
    // Runs fn(socket) on the open socket a command names, under the socket's lock.
    template <typename F> Outcome on_open_socket(std::int32_t number, F fn);
    SocketRef add_socket(int fd, Open* owner);
    void close_socket(const SocketRef& s);
    void finish_close(const SocketRef& s, bool give_up);
    void park(Socket& s, Request& r, std::vector<Waiter>& list, bool connect);
    void unpark(Socket& s, const Request& r);
    void rearm(Socket& s);
    void watch_readers(Socket& s, Request& r);
    void unwatch(Socket& s);
    Outcome read_step(Socket& s, Request& r);
    void flush(const SocketRef& s);
    static int gather(Socket& s, iovec* iov);
    void consume(Socket& s, std::size_t n);
    void break_socket(Socket& s, int err);
    void write_out(Socket& s);
    void queue_flush(Socket& s);
    void defer_flush(Socket& s);
    void flush_deferred();

    Chunk* take_chunk();
    void give_chunk(Chunk* c);

    std::mutex table_lock_; // after a socket's lock
    std::map<std::int32_t, SocketRef> sockets_;
    std::map<std::int32_t, SocketRef> closing_; // closed by the client, flushing
    std::int32_t next_number_ = 0;

    std::mutex flush_lock_;
    std::vector<SocketRef> to_flush_;
    std::vector<SocketRef> deferred_; // remainders for the reactor's next turn
    bool tick_armed_ = false;         // a timer will flush deferred_

    std::mutex pool_lock_;
    std::vector<Chunk*> pool_;
};

} // namespace host::devices
