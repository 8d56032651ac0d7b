// The vfs device's commands on a thread's request: close, read and write (data inside the block),
// seek, fstat, ioctl, a descriptor's path, descriptor and table control. Host code.
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <climits>
#include <cstring>
#include <string>

#include "host/devices/vfs.h"
#include "host/devices/vfs_support.h"

namespace host::devices {

using namespace orlix;

namespace {

constexpr std::uint64_t MOST_PER_CALL = std::uint64_t{1} << 30;

Outcome bad_address() { return Outcome::fail(STATUS_BAD_ADDRESS); }
Outcome bad_fd() { return Outcome::fail(VFS_STATUS_BAD_FD); }

// A write to a pipe or socket whose reader is gone fails with EPIPE; the SIGPIPE that Linux raises
// with it is taken back, so the host process never dies of it.
ssize_t write_quietly(int fd, const void* data, std::size_t length)
{
    sigset_t pipe_only, old, pending;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe_only, &old);
    sigpending(&pending);
    bool was_pending = sigismember(&pending, SIGPIPE);
    ssize_t n = ::write(fd, data, length);
    int error = errno;
    if (n < 0 && error == EPIPE && !was_pending) {
        timespec now{};
        sigtimedwait(&pipe_only, nullptr, &now);
    }
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    errno = error;
    return n;
}

// The status flags the device reports: the access mode in the open flags' bits, and append.
std::uint32_t status_flags(int host, const Description& d)
{
    int access = host & O_ACCMODE;
    std::uint32_t flags = access == O_RDWR ? OPEN_READ | OPEN_WRITE : access == O_WRONLY ? OPEN_WRITE : OPEN_READ;
    if ((host & O_APPEND) || d.append.load())
        flags |= FD_STATUS_APPEND;
    return flags;
}

} // namespace

Outcome Vfs::read_now(Description& d, std::uint8_t* data, std::uint64_t length, std::uint64_t& result)
{
    // Never O_NONBLOCK on an open file the host may share: readiness is asked first instead.
    if (length != 0 && !d.never_waits) {
        pollfd ready{d.fd, POLLIN, 0};
        int n = ::poll(&ready, 1, 0);
        if (n < 0)
            return host_failure(errno);
        if (n == 0)
            return Outcome::wait();
    }
    std::uint64_t done = 0;
    for (;;) {
        ssize_t n = ::read(d.fd, data + done, std::min(length - done, MOST_PER_CALL));
        if (n > 0) {
            done += static_cast<std::uint64_t>(n);
            if (d.regular && done < length)
                continue;
            break;
        }
        if (n == 0)
            break;
        if (errno == EINTR)
            continue;
        if (done > 0) // the bytes that came are the result; the error shows on the next read
            break;
        if (errno == EAGAIN)
            return Outcome::wait();
        return host_failure(errno);
    }
    result = done;
    return Outcome::ok();
}

Outcome Vfs::write_now(Description& d, const std::uint8_t* data, std::uint64_t length, std::uint64_t& result)
{
    std::unique_lock g(d.lock, std::defer_lock);
    if (d.shared && d.regular && d.append.load()) {
        g.lock();
        if (::lseek(d.fd, 0, SEEK_END) < 0)
            return host_failure(errno);
    }
    // Straight through: a full disk shows in this command's result, not in a later one.
    std::uint64_t done = 0;
    do {
        std::size_t piece = std::min(length - done, MOST_PER_CALL);
        ssize_t n = d.pipe_like ? write_quietly(d.fd, data + done, piece) : ::write(d.fd, data + done, piece);
        if (n > 0) {
            done += static_cast<std::uint64_t>(n);
            continue;
        }
        if (n == 0)
            break;
        if (errno == EINTR)
            continue;
        if (done > 0) // a short write; the error shows on the next one
            break;
        return host_failure(errno);
    } while (done < length);
    result = done;
    return Outcome::ok();
}

Outcome Vfs::cmd_close(Request& r)
{
    auto* p = params_of<VfsFdParams>(r);
    if (!p)
        return bad_address();
    if (!table_.close(p->fd))
        return bad_fd();
    locks_changed(); // the last close of a description releases its locks
    return Outcome::ok();
}

Outcome Vfs::cmd_transfer(Request& r)
{
    auto* p = params_of<VfsTransferParams>(r);
    if (!p)
        return bad_address();
    std::uint8_t* data = p->length ? r.area(p->data, p->length) : nullptr;
    if (p->length && !data)
        return bad_address();
    DescriptionRef d = table_.get(p->fd);
    if (!d)
        return bad_fd();
    p->result = 0;
    if (r.block->command == VFS_WRITE)
        return write_now(*d, data, p->length, p->result);
    Outcome o = read_now(*d, data, p->length, p->result);
    if (o.kind != Outcome::parked)
        return o;
    Waiter w;
    w.description = d;
    w.data = data;
    w.length = p->length;
    w.params = p;
    return park(r, std::move(w));
}

Outcome Vfs::cmd_seek(Request& r)
{
    auto* p = params_of<VfsSeekParams>(r);
    if (!p)
        return bad_address();
    if (p->whence > 2)
        return Outcome::fail(VFS_STATUS_INVALID);
    DescriptionRef d = table_.get(p->fd);
    if (!d)
        return bad_fd();
    static constexpr int WHENCE[] = {SEEK_SET, SEEK_CUR, SEEK_END};
    off_t at = ::lseek(d->fd, p->offset, WHENCE[p->whence]);
    if (at < 0)
        return host_failure(errno);
    p->position = at;
    return Outcome::ok();
}

Outcome Vfs::cmd_fstat(Request& r)
{
    auto* p = params_of<VfsFstatParams>(r);
    if (!p)
        return bad_address();
    DescriptionRef d = table_.get(p->fd);
    if (!d)
        return bad_fd();
    struct statx s;
    if (::statx(d->fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &s) != 0)
        return host_failure(errno);
    p->stat = vfs_stat_of(s);
    return Outcome::ok();
}

Outcome Vfs::cmd_ioctl(Request& r)
{
    auto* p = params_of<VfsIoctlParams>(r);
    if (!p)
        return bad_address();
    DescriptionRef d = table_.get(p->fd);
    if (!d)
        return bad_fd();
    switch (p->request) {
    case IOCTL_IS_TERMINAL: {
        // The terminal's window size: read-only, so the host's terminal is left as it is.
        if (p->payload_length < sizeof(winsize))
            return Outcome::fail(VFS_STATUS_INVALID);
        std::uint8_t* payload = r.area(p->payload, sizeof(winsize));
        if (!payload)
            return bad_address();
        winsize size{};
        if (::ioctl(d->fd, TIOCGWINSZ, &size) != 0)
            return host_failure(errno);
        std::memcpy(payload, &size, sizeof size);
        return Outcome::ok();
    }
    case IOCTL_DROP_TERMINAL:
        // Giving up the controlling terminal is emulated: the host keeps its own, so that its
        // Ctrl-C still reaches the program.
        return ::isatty(d->fd) ? Outcome::ok() : host_failure(errno);
    default:
        return Outcome::fail(VFS_STATUS_BAD_COMMAND);
    }
}

Outcome Vfs::cmd_fdpath(Request& r)
{
    auto* p = params_of<VfsFdpathParams>(r);
    if (!p)
        return bad_address();
    // The text goes from offset 8 up to the end of the block.
    auto* text = reinterpret_cast<char*>(p) + VFS_FDPATH_TEXT;
    auto used = static_cast<std::size_t>(text - reinterpret_cast<char*>(r.block));
    if (used >= r.size)
        return bad_address();
    std::size_t room = r.size - used;
    DescriptionRef d = table_.get(p->fd);
    if (!d)
        return bad_fd();
    std::string link = "/proc/self/fd/" + std::to_string(d->fd);
    ssize_t n = ::readlink(link.c_str(), text, room - 1);
    if (n < 0)
        return host_failure(errno);
    if (static_cast<std::size_t>(n) == room - 1)
        return host_failure(ENAMETOOLONG);
    text[n] = '\0';
    return Outcome::ok();
}

Outcome Vfs::cmd_fdcntl(Request& r)
{
    auto* p = params_of<VfsFdcntlParams>(r);
    if (!p)
        return bad_address();
    DescriptionRef d = table_.get(p->fd);
    if (!d)
        return bad_fd();
    int argument = p->argument > INT_MAX ? INT_MAX : static_cast<int>(p->argument);
    switch (p->code) {
    case FDCNTL_GET_STATUS: {
        int host = ::fcntl(d->fd, F_GETFL);
        if (host < 0)
            return host_failure(errno);
        p->result = status_flags(host, *d);
        return Outcome::ok();
    }
    case FDCNTL_SET_STATUS: {
        bool append = (p->argument & FD_STATUS_APPEND) != 0;
        if (d->shared) {
            d->append.store(append);
            return Outcome::ok();
        }
        int host = ::fcntl(d->fd, F_GETFL);
        if (host < 0 || ::fcntl(d->fd, F_SETFL, append ? host | O_APPEND : host & ~O_APPEND) != 0)
            return host_failure(errno);
        return Outcome::ok();
    }
    case FDCNTL_GET_FLAGS: {
        bool cloexec = false;
        if (!table_.cloexec(p->fd, cloexec))
            return bad_fd();
        p->result = cloexec ? FD_CLOEXEC_FLAG : 0;
        return Outcome::ok();
    }
    case FDCNTL_SET_FLAGS:
        return table_.set_cloexec(p->fd, (p->argument & FD_CLOEXEC_FLAG) != 0) ? Outcome::ok() : bad_fd();
    case FDCNTL_DUP:
    case FDCNTL_DUP_CLOEXEC: {
        if (argument >= DescriptorTable::CAPACITY)
            return Outcome::fail(VFS_STATUS_INVALID);
        int fd = table_.add(d, p->code == FDCNTL_DUP_CLOEXEC, argument);
        if (fd < 0)
            return host_failure(EMFILE);
        p->result = static_cast<std::uint32_t>(fd);
        return Outcome::ok();
    }
    case FDCNTL_DUP_TO:
        if (!table_.dup_to(p->fd, argument))
            return bad_fd();
        p->result = static_cast<std::uint32_t>(argument);
        locks_changed(); // what the number held may have been closed
        return Outcome::ok();
    default:
        return Outcome::fail(VFS_STATUS_INVALID);
    }
}

Outcome Vfs::cmd_fdtabcntl(Request& r)
{
    auto* p = params_of<VfsFdtabParams>(r);
    if (!p)
        return bad_address();
    switch (p->code) {
    case FDTAB_HIGHEST:
        p->value = static_cast<std::uint64_t>(static_cast<std::int64_t>(table_.highest()));
        return Outcome::ok();
    case FDTAB_CLOSE_FROM:
        p->value = p->value > INT_MAX ? 0 : static_cast<std::uint64_t>(table_.close_from(static_cast<int>(p->value)));
        locks_changed();
        return Outcome::ok();
    default:
        return Outcome::fail(VFS_STATUS_INVALID);
    }
}

} // namespace host::devices
