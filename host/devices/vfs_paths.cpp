// The vfs device's commands on the shared channel: the path operations, resolved against the
// device's own current directory with the host's *at calls, and directory streams. Host code.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "host/devices/services.h"
#include "host/devices/vfs.h"
#include "host/devices/vfs_support.h"

namespace host::devices {

using namespace orlix;

namespace {

Outcome bad_address() { return Outcome::fail(STATUS_BAD_ADDRESS); }

Outcome done_or_failed(int rc) { return rc == 0 ? Outcome::ok() : host_failure(errno); }

// The host's open flags for the platform's.
int host_open_flags(std::uint32_t flags)
{
    bool read = flags & OPEN_READ, write = flags & OPEN_WRITE;
    int host = (read && write ? O_RDWR : write ? O_WRONLY : O_RDONLY) | O_CLOEXEC | O_NOCTTY;
    if (flags & OPEN_APPEND)
        host |= O_APPEND;
    if (flags & OPEN_CREATE)
        host |= O_CREAT;
    if (flags & OPEN_TRUNCATE)
        host |= O_TRUNC;
    return host;
}

// The canonical path of what an O_PATH descriptor names, as the host's proc file system tells it.
ssize_t canonical_path(int fd, char* out, std::size_t room)
{
    std::string link = "/proc/self/fd/" + std::to_string(fd);
    return ::readlink(link.c_str(), out, room);
}

} // namespace

Outcome Vfs::cmd_value(Request& r) { return params_of<VfsValueParams>(r) ? Outcome::ok() : bad_address(); }

Outcome Vfs::cmd_chdir(Request& r)
{
    auto* p = params_of<VfsPathParams>(r);
    std::string path;
    if (!p || !string_in_block(r, p->path, path))
        return bad_address();
    DescriptionRef hold;
    int fd = ::openat(at_fd(VFS_AT_CWD, hold), path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return host_failure(errno);
    // Entering asks for search permission, which an O_PATH open alone does not: looking up "."
    // inside the directory does.
    int entered = ::openat(fd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC);
    int error = errno;
    ::close(fd);
    if (entered < 0)
        return host_failure(error);
    DescriptionRef d = describe(entered);
    if (!d)
        return host_failure(errno);
    std::lock_guard g(cwd_lock_);
    cwd_.swap(d);
    return Outcome::ok();
}

Outcome Vfs::cmd_mkdir(Request& r)
{
    auto* p = params_of<VfsMkdirParams>(r);
    std::string path;
    if (!p || !string_in_block(r, p->path, path))
        return bad_address();
    DescriptionRef hold;
    return done_or_failed(::mkdirat(at_fd(p->dirfd, hold), path.c_str(), p->mode & 07777));
}

Outcome Vfs::cmd_rmdir(Request& r)
{
    auto* p = params_of<VfsPathParams>(r);
    std::string path;
    if (!p || !string_in_block(r, p->path, path))
        return bad_address();
    DescriptionRef hold;
    return done_or_failed(::unlinkat(at_fd(VFS_AT_CWD, hold), path.c_str(), AT_REMOVEDIR));
}

Outcome Vfs::cmd_unlink(Request& r)
{
    auto* p = params_of<VfsUnlinkParams>(r);
    std::string path;
    if (!p || !string_in_block(r, p->path, path))
        return bad_address();
    if ((p->flags & ~VFS_UNLINK_REMOVEDIR) != 0)
        return Outcome::fail(VFS_STATUS_INVALID);
    DescriptionRef hold;
    int flags = (p->flags & VFS_UNLINK_REMOVEDIR) ? AT_REMOVEDIR : 0;
    return done_or_failed(::unlinkat(at_fd(p->dirfd, hold), path.c_str(), flags));
}

Outcome Vfs::cmd_rename(Request& r)
{
    auto* p = params_of<VfsRenameParams>(r);
    std::string from, to;
    if (!p || !string_in_block(r, p->old_path, from) || !string_in_block(r, p->new_path, to))
        return bad_address();
    if (p->flags != 0)
        return Outcome::fail(VFS_STATUS_INVALID);
    DescriptionRef hold_from, hold_to;
    int at_from = at_fd(p->old_dirfd, hold_from), at_to = at_fd(p->new_dirfd, hold_to);
    return done_or_failed(::renameat(at_from, from.c_str(), at_to, to.c_str()));
}

Outcome Vfs::cmd_realpath(Request& r)
{
    auto* text = reinterpret_cast<char*>(r.area(r.block->params, 1));
    std::string path;
    if (!text || !string_in_block(r, text, path))
        return bad_address();
    DescriptionRef hold;
    int fd = ::openat(at_fd(VFS_AT_CWD, hold), path.c_str(), O_PATH | O_CLOEXEC);
    if (fd < 0)
        return host_failure(errno);
    std::size_t room = r.size - static_cast<std::size_t>(reinterpret_cast<std::uint8_t*>(text) -
                                                         reinterpret_cast<std::uint8_t*>(r.block));
    ssize_t n = canonical_path(fd, text, room - 1);
    int error = errno;
    ::close(fd);
    if (n < 0)
        return host_failure(error);
    if (static_cast<std::size_t>(n) == room - 1)
        return host_failure(ENAMETOOLONG);
    text[n] = '\0';
    return Outcome::ok();
}

Outcome Vfs::cmd_stat(Request& r)
{
    auto* p = params_of<VfsStatParams>(r);
    std::string path;
    if (!p || !string_in_block(r, p->path, path))
        return bad_address();
    if ((p->flags & ~VFS_STAT_NOFOLLOW) != 0)
        return Outcome::fail(VFS_STATUS_INVALID);
    DescriptionRef hold;
    int flags = (p->flags & VFS_STAT_NOFOLLOW) ? AT_SYMLINK_NOFOLLOW : 0;
    struct statx s;
    if (::statx(at_fd(p->dirfd, hold), path.c_str(), flags, STATX_BASIC_STATS | STATX_BTIME, &s) != 0)
        return host_failure(errno);
    p->stat = vfs_stat_of(s);
    return Outcome::ok();
}

Outcome Vfs::cmd_readlink(Request& r)
{
    auto* p = params_of<VfsReadlinkParams>(r);
    std::string path;
    if (!p || !string_in_block(r, p->path, path))
        return bad_address();
    DescriptionRef hold;
    ssize_t n = ::readlinkat(at_fd(p->dirfd, hold), path.c_str(), p->text, sizeof p->text);
    if (n < 0)
        return host_failure(errno);
    p->length = static_cast<std::uint32_t>(n);
    return Outcome::ok();
}

Outcome Vfs::cmd_open(Request& r)
{
    auto* p = params_of<VfsOpenParams>(r);
    std::string path;
    if (!p || !string_in_block(r, p->path, path))
        return bad_address();
    mode_t mode = (p->flags & OPEN_CREATE) ? (p->mode & 07777) : 0;
    DescriptionRef hold;
    int fd = ::openat(at_fd(p->dirfd, hold), path.c_str(), host_open_flags(p->flags), mode);
    if (fd < 0)
        return host_failure(errno);
    return add_descriptor(describe(fd), (p->flags & OPEN_CLOEXEC) != 0, p->fd);
}

Outcome Vfs::cmd_opendir(Request& r)
{
    auto* p = params_of<VfsOpendirParams>(r);
    std::string path;
    if (!p || !string_in_block(r, p->path, path))
        return bad_address();
    DescriptionRef hold;
    int fd = ::openat(at_fd(VFS_AT_CWD, hold), path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return host_failure(errno);
    return add_descriptor(describe(fd), false, p->fd);
}

Outcome Vfs::cmd_readdir(Request& r)
{
    auto* p = params_of<VfsReaddirParams>(r);
    if (!p)
        return bad_address();
    DescriptionRef d = table_.get(p->fd);
    if (!d)
        return Outcome::fail(VFS_STATUS_BAD_FD);
    std::lock_guard g(d->lock);
    if (!d->dir) {
        // The stream reads through a duplicate, which shares the description's position.
        int own = ::fcntl(d->fd, F_DUPFD_CLOEXEC, 0);
        d->dir = own < 0 ? nullptr : ::fdopendir(own);
        if (!d->dir) {
            int error = errno;
            if (own >= 0)
                ::close(own);
            return host_failure(error);
        }
    }
    errno = 0;
    dirent* e = ::readdir(d->dir);
    p->entry = {};
    if (!e) {
        if (errno != 0)
            return host_failure(errno);
        p->end = 1;
        return Outcome::ok();
    }
    p->end = 0;
    p->entry.inode = e->d_ino;
    std::memcpy(p->entry.name, e->d_name, std::min(std::strlen(e->d_name), sizeof p->entry.name - 1));
    p->entry.type = e->d_type;
    return Outcome::ok();
}

} // namespace host::devices
