// The vfs device's record locks: test, set, and set with waiting, on open-description locks of the
// host. A waiting lock is parked and tried again when this device releases something, and every
// few milliseconds for releases by other host processes. Host code.
#include <unistd.h>

#include <cerrno>

#include "host/devices/vfs.h"
#include "host/devices/vfs_support.h"

namespace host::devices {

using namespace orlix;

namespace {

constexpr std::uint32_t LOCK_TEST = 1, LOCK_SET = 2, LOCK_WAIT = 3;

// The wire's lock types in the device's order: 0 unlock, 1 read, 2 write.
constexpr short HOST_TYPE[] = {F_UNLCK, F_RDLCK, F_WRLCK};
std::uint32_t wire_type(short host) { return host == F_RDLCK ? 1 : host == F_WRLCK ? 2 : 0; }

} // namespace

Outcome Vfs::lock_now(Description& d, struct flock lock)
{
    for (;;) {
        if (::fcntl(d.fd, F_OFD_SETLK, &lock) == 0) {
            locks_changed(); // an unlock or a narrower lock may let others in
            return Outcome::ok();
        }
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EACCES)
            return Outcome::wait();
        return host_failure(errno);
    }
}

Outcome Vfs::cmd_reclock(Request& r)
{
    auto* p = params_of<VfsReclockParams>(r);
    if (!p)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    DescriptionRef d = table_.get(p->fd);
    if (!d)
        return Outcome::fail(VFS_STATUS_BAD_FD);
    if (p->type > 2 || p->whence > 2)
        return Outcome::fail(VFS_STATUS_INVALID);
    struct flock lock{};
    lock.l_type = HOST_TYPE[p->type];
    lock.l_whence = static_cast<short>(p->whence);
    lock.l_start = p->start;
    lock.l_len = p->length;
    switch (p->code) {
    case LOCK_TEST:
        if (::fcntl(d->fd, F_OFD_GETLK, &lock) != 0)
            return host_failure(errno);
        p->type = wire_type(lock.l_type);
        p->owner = 0;
        if (lock.l_type != F_UNLCK) {
            p->whence = static_cast<std::uint32_t>(lock.l_whence);
            p->start = lock.l_start;
            p->length = lock.l_len;
            p->owner = static_cast<std::uint64_t>(static_cast<std::int64_t>(lock.l_pid));
        }
        return Outcome::ok();
    case LOCK_SET: {
        Outcome o = lock_now(*d, lock);
        return o.kind == Outcome::parked ? host_failure(EAGAIN) : o;
    }
    case LOCK_WAIT: {
        Outcome o = lock_now(*d, lock);
        if (o.kind != Outcome::parked)
            return o;
        // The position counts as it is now, not as it may be when the lock is granted.
        if (lock.l_whence == SEEK_CUR) {
            off_t here = ::lseek(d->fd, 0, SEEK_CUR);
            if (here < 0)
                return host_failure(errno);
            lock.l_start += here;
            lock.l_whence = SEEK_SET;
        }
        Waiter w;
        w.description = d;
        w.is_lock = true;
        w.lock = lock;
        return park(r, std::move(w));
    }
    default:
        return Outcome::fail(VFS_STATUS_INVALID);
    }
}

} // namespace host::devices
