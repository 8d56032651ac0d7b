// The vfs device: its table and current directory at start, the dispatch of commands, and the
// commands that wait: reads finished by the reactor when data comes, record locks tried again
// when something may have been released. Host code.
#include "host/devices/vfs.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>

#include "host/devices/vfs_support.h"

namespace host::devices {

using namespace orlix;

namespace {
// How often a waiting lock looks again for a release that another host process made; releases
// made through this device wake it at once.
constexpr auto LOCK_RETRY = std::chrono::milliseconds(20);
} // namespace

Vfs::Vfs() : Service("vfs", VFS_SHARED_AREA)
{
    // The device's own duplicates of the host's 0, 1 and 2; one the host has closed stays free.
    for (int fd = 0; fd <= 2; ++fd) {
        int own = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
        if (own >= 0)
            if (DescriptionRef d = describe(own, true))
                table_.add(std::move(d), false, fd);
    }
    int here = ::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (here >= 0)
        cwd_ = describe(here);
    reactor();
}

Vfs::~Vfs() { shutdown(); }

Outcome Vfs::run(Request& r)
{
    switch (r.block->command) {
    case VFS_SETPRIMARY:
    case VFS_INHERITFDS: return cmd_value(r);
    case VFS_CHDIR: return cmd_chdir(r);
    case VFS_MKDIR: return cmd_mkdir(r);
    case VFS_RMDIR: return cmd_rmdir(r);
    case VFS_REALPATH: return cmd_realpath(r);
    case VFS_OPENDIR: return cmd_opendir(r);
    case VFS_READDIR: return cmd_readdir(r);
    case VFS_OPEN: return cmd_open(r);
    case VFS_UNLINK: return cmd_unlink(r);
    case VFS_RENAME: return cmd_rename(r);
    case VFS_STAT: return cmd_stat(r);
    case VFS_READLINK: return cmd_readlink(r);
    case VFS_CLOSE: return cmd_close(r);
    case VFS_READ:
    case VFS_WRITE: return cmd_transfer(r);
    case VFS_SEEK: return cmd_seek(r);
    case VFS_FDTABCNTL: return cmd_fdtabcntl(r);
    case VFS_FSTAT: return cmd_fstat(r);
    case VFS_IOCTL: return cmd_ioctl(r);
    case VFS_FDPATH: return cmd_fdpath(r);
    case VFS_FDCNTL: return cmd_fdcntl(r);
    case VFS_RECLOCK: return cmd_reclock(r);
    default: return Outcome::fail(STATUS_BAD_COMMAND);
    }
}

int Vfs::at_fd(std::int32_t dirfd, DescriptionRef& hold)
{
    if (dirfd == VFS_AT_CWD) {
        std::lock_guard g(cwd_lock_);
        hold = cwd_;
    } else {
        hold = table_.get(dirfd);
    }
    return hold ? hold->fd : -1;
}

Outcome Vfs::add_descriptor(DescriptionRef d, bool cloexec, std::int32_t& out)
{
    if (!d)
        return host_failure(errno);
    int fd = table_.add(std::move(d), cloexec);
    if (fd < 0)
        return host_failure(EMFILE);
    out = fd;
    return Outcome::ok();
}

// --- Parked commands ---------------------------------------------------------------------------

Outcome Vfs::park(Request& r, Waiter w)
{
    w.request = r.shared_from_this();
    w.serial = r.serial;
    DescriptionRef d = w.description;
    bool is_lock = w.is_lock;
    {
        std::lock_guard g(wait_lock_);
        waiters_[&r] = std::move(w);
        arm_lock_timer();
    }
    if (!is_lock)
        reactor().arm(d->fd, d->id, EPOLLIN);
    return Outcome::wait();
}

void Vfs::cancel(Request& r)
{
    std::lock_guard g(wait_lock_);
    waiters_.erase(&r);
}

bool Vfs::waiter_of(const Request& r, Waiter& out)
{
    std::lock_guard g(wait_lock_);
    auto it = waiters_.find(&r);
    if (it == waiters_.end())
        return false;
    out = it->second;
    return true;
}

Outcome Vfs::resume_read(Request& r)
{
    Waiter w;
    if (!waiter_of(r, w))
        return Outcome::fail(VFS_STATUS_IO);
    Outcome o = read_now(*w.description, w.data, w.length, static_cast<VfsTransferParams*>(w.params)->result);
    if (o.kind != Outcome::parked)
        cancel(r);
    return o;
}

Outcome Vfs::resume_lock(Request& r)
{
    Waiter w;
    if (!waiter_of(r, w))
        return Outcome::fail(VFS_STATUS_IO);
    Outcome o = lock_now(*w.description, w.lock);
    if (o.kind != Outcome::parked)
        cancel(r);
    return o;
}

// On the reactor thread: data (or the end) has come on a description some reads wait for.
void Vfs::on_event(std::uint64_t key, std::uint32_t)
{
    std::vector<std::pair<RequestRef, std::uint64_t>> ready;
    {
        std::lock_guard g(wait_lock_);
        for (auto& [r, w] : waiters_)
            if (!w.is_lock && w.description->id == key)
                ready.emplace_back(w.request, w.serial);
    }
    for (auto& [r, serial] : ready)
        resume(r, serial, [this](Request& q) { return resume_read(q); });
    DescriptionRef still; // held while it is armed again, so its descriptor stays open
    {
        std::lock_guard g(wait_lock_);
        for (auto& [r, w] : waiters_)
            if (!w.is_lock && w.description->id == key)
                still = w.description;
    }
    if (still)
        reactor().arm(still->fd, key, EPOLLIN);
}

bool Vfs::lock_waiting()
{
    for (auto& [r, w] : waiters_)
        if (w.is_lock)
            return true;
    return false;
}

void Vfs::locks_changed()
{
    bool waiting;
    {
        std::lock_guard g(wait_lock_);
        waiting = lock_waiting();
    }
    if (waiting)
        reactor().wake();
}

void Vfs::on_wake() { retry_locks(); }

void Vfs::retry_locks()
{
    std::vector<std::pair<RequestRef, std::uint64_t>> locks;
    {
        std::lock_guard g(wait_lock_);
        for (auto& [r, w] : waiters_)
            if (w.is_lock)
                locks.emplace_back(w.request, w.serial);
    }
    for (auto& [r, serial] : locks)
        resume(r, serial, [this](Request& q) { return resume_lock(q); });
}

void Vfs::on_lock_timer()
{
    {
        std::lock_guard g(wait_lock_);
        lock_timer_armed_ = false;
    }
    retry_locks();
    std::lock_guard g(wait_lock_);
    arm_lock_timer();
}

void Vfs::arm_lock_timer()
{
    if (lock_timer_armed_ || !lock_waiting())
        return;
    lock_timer_armed_ = true;
    reactor().add_timer(Clock::now() + LOCK_RETRY, [this] { on_lock_timer(); });
}

} // namespace host::devices
