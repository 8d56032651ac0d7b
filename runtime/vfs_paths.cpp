// The path operations of the VFS device, each one command on the device-wide shared channel:
// the channel's lock is held from before the parameters are written until the results are
// copied out. System code.
#include <cstring>

#include "platform/device_client.h"
#include "platform/kernel_wrappers.h"
#include "runtime/errno.h"
#include "runtime/vfs.h"

namespace orlix {

namespace {

constexpr std::size_t REALPATH_LIMIT = 4095;

// The channel's lock; failing it ends the process.
class SharedChannel {
public:
    explicit SharedChannel(Device* device) : io_(device->shared_io)
    {
        if (MutexLock(io_->lock) != MUTEX_OK)
            DeleteTask(0);
        io_->request->params = io_->params;
    }
    ~SharedChannel()
    {
        if (MutexUnlock(io_->lock) != MUTEX_OK)
            DeleteTask(0);
    }
    SharedChannel(const SharedChannel&) = delete;
    SharedChannel& operator=(const SharedChannel&) = delete;

    template <typename T> T* params() { return static_cast<T*>(io_->params); }
    std::uint8_t* at(std::size_t offset) { return static_cast<std::uint8_t*>(io_->params) + offset; }

    // Room for a path behind a fixed part; with none, error 13.
    bool fits(std::size_t fixed, const char* path)
    {
        if (fixed < io_->params_size && std::strlen(path) + 1 <= io_->params_size - fixed)
            return true;
        errno = ERR_NAMETOOLONG;
        return false;
    }

    // The path copied behind the fixed part; its address in the block.
    const char* put_path(std::size_t fixed, const char* path)
    {
        char* text = reinterpret_cast<char*>(at(fixed));
        std::strcpy(text, path);
        return text;
    }

    // Runs the command; on failure errno is set from the request's status.
    bool run(std::uint32_t command)
    {
        io_->request->command = command;
        if (SyncIO(io_->request) == IO_DONE)
            return true;
        errno = __vfs_ioreq_to_errno(io_->request);
        return false;
    }

    std::uint64_t params_size() const { return io_->params_size; }

private:
    DeviceSharedIO* io_;
};

int value_command(Device* device, std::uint32_t command, std::uint32_t value)
{
    SharedChannel channel(device);
    channel.params<VfsValueParams>()->value = value;
    return channel.run(command) ? 1 : 0;
}

int path_command(Device* device, std::uint32_t command, const char* path)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(VfsPathParams), path))
        return 0;
    channel.params<VfsPathParams>()->path = channel.put_path(sizeof(VfsPathParams), path);
    return channel.run(command) ? 1 : 0;
}

// Opens a file; errno is left alone when report is clear.
int open_command(Device* device, int dirfd, const char* path, std::uint32_t flags, std::uint16_t mode, bool report)
{
    int saved = errno;
    int fd = -1;
    {
        SharedChannel channel(device);
        if (channel.fits(sizeof(VfsOpenParams), path)) {
            auto* p = channel.params<VfsOpenParams>();
            p->fd = -1;
            p->flags = flags;
            p->dirfd = dirfd;
            p->mode = mode;
            p->path = channel.put_path(sizeof(VfsOpenParams), path);
            if (channel.run(VFS_OPEN))
                fd = p->fd;
        }
    }
    if (!report)
        errno = saved;
    return fd;
}

} // namespace

int vfs_setprimary(Device* device, std::uint32_t value) { return value_command(device, VFS_SETPRIMARY, value); }

int vfs_inheritfds(Device* device, std::uint32_t value) { return value_command(device, VFS_INHERITFDS, value); }

int vfs_chdir(Device* device, const char* path) { return path_command(device, VFS_CHDIR, path); }

int vfs_rmdir(Device* device, const char* path) { return path_command(device, VFS_RMDIR, path); }

int vfs_mkdir(Device* device, int dirfd, const char* path, std::uint32_t mode)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(VfsMkdirParams), path))
        return 0;
    auto* p = channel.params<VfsMkdirParams>();
    p->mode = mode;
    p->dirfd = dirfd;
    p->path = channel.put_path(sizeof(VfsMkdirParams), path);
    return channel.run(VFS_MKDIR) ? 1 : 0;
}

int vfs_unlink(Device* device, int dirfd, const char* path, std::uint32_t flags)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(VfsUnlinkParams), path))
        return 0;
    auto* p = channel.params<VfsUnlinkParams>();
    p->flags = flags;
    p->dirfd = dirfd;
    p->path = channel.put_path(sizeof(VfsUnlinkParams), path);
    return channel.run(VFS_UNLINK) ? 1 : 0;
}

int vfs_rename(Device* device, int olddir, const char* old_path, int newdir, const char* new_path,
               std::uint32_t flags)
{
    SharedChannel channel(device);
    std::size_t old_size = std::strlen(old_path) + 1;
    std::size_t new_size = std::strlen(new_path) + 1;
    std::size_t room = channel.params_size() > sizeof(VfsRenameParams) ? channel.params_size() - sizeof(VfsRenameParams) : 0;
    if (room <= old_size || room - old_size < new_size) {
        errno = ERR_NAMETOOLONG;
        return 0;
    }
    auto* p = channel.params<VfsRenameParams>();
    p->old_dirfd = olddir;
    p->new_dirfd = newdir;
    p->flags = flags;
    p->old_path = channel.put_path(sizeof(VfsRenameParams), old_path);
    p->new_path = channel.put_path(sizeof(VfsRenameParams) + old_size, new_path);
    return channel.run(VFS_RENAME) ? 1 : 0;
}

int vfs_stat(Device* device, int dirfd, const char* path, VfsStat* out, std::uint32_t flags)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(VfsStatParams), path))
        return 0;
    auto* p = channel.params<VfsStatParams>();
    p->flags = flags;
    p->dirfd = dirfd;
    p->path = channel.put_path(sizeof(VfsStatParams), path);
    if (!channel.run(VFS_STAT))
        return 0;
    *out = p->stat;
    return 1;
}

int vfs_readdir(Device* device, int fd, VfsDirEntry* entry, std::uint64_t* end)
{
    SharedChannel channel(device);
    auto* p = channel.params<VfsReaddirParams>();
    p->end = 0;
    p->fd = fd;
    if (!channel.run(VFS_READDIR))
        return 0;
    *entry = p->entry;
    entry->name[sizeof entry->name - 1] = '\0';
    *end = p->end;
    return 1;
}

int vfs_realpath(Device* device, const char* path, char* out)
{
    if (std::strlen(path) > REALPATH_LIMIT) {
        errno = ERR_NAMETOOLONG;
        return -1;
    }
    SharedChannel channel(device);
    char* text = reinterpret_cast<char*>(channel.at(0));
    std::strcpy(text, path);
    if (!channel.run(VFS_REALPATH))
        return -1;
    const void* end = std::memchr(text, '\0', REALPATH_LIMIT);
    std::size_t length = end != nullptr ? static_cast<std::size_t>(static_cast<const char*>(end) - text) : REALPATH_LIMIT;
    std::memcpy(out, text, length);
    out[length] = '\0';
    return 0;
}

int vfs_opendir(Device* device, const char* path)
{
    int saved = errno;
    SharedChannel channel(device);
    if (!channel.fits(sizeof(VfsOpendirParams), path)) {
        errno = saved;
        return -1;
    }
    auto* p = channel.params<VfsOpendirParams>();
    p->fd = -1;
    p->path = channel.put_path(sizeof(VfsOpendirParams), path);
    return channel.run(VFS_OPENDIR) ? p->fd : -1;
}

int vfs_fopen(Device* device, int dirfd, const char* path, std::uint32_t flags, std::uint16_t mode)
{
    return open_command(device, dirfd, path, flags, mode, true);
}

int vfs_fopen_sta(Device* device, int dirfd, const char* path, std::uint32_t flags, std::uint16_t mode)
{
    return open_command(device, dirfd, path, flags, mode, false);
}

std::int64_t vfs_readlink(Device* device, int dirfd, const char* path, char* out, std::uint64_t size)
{
    SharedChannel channel(device);
    if (!channel.fits(sizeof(VfsReadlinkParams), path))
        return -1;
    auto* p = channel.params<VfsReadlinkParams>();
    p->length = 0;
    p->dirfd = dirfd;
    p->path = channel.put_path(sizeof(VfsReadlinkParams), path);
    if (!channel.run(VFS_READLINK))
        return -1;
    std::uint64_t length = p->length;
    if (length >= size || length > VFS_READLINK_TEXT) {
        errno = ERR_RANGE;
        return -1;
    }
    std::memcpy(out, p->text, length);
    out[length] = '\0';
    return static_cast<std::int64_t>(length);
}

} // namespace orlix
