// The vfs device's statuses for host errors and its stat record from the host's. Host code.
#include "host/devices/vfs_support.h"

#include "host/devices/linux_errors.h"

namespace host::devices {

using namespace orlix;

std::uint32_t vfs_status_of_number(int number)
{
    switch (number) {
    case ERR_BADRQC: return VFS_STATUS_BAD_COMMAND;
    case ERR_OVERFLOW: return VFS_STATUS_TOO_LARGE;
    case ERR_BUSY: return VFS_STATUS_IN_USE;
    case ERR_NOMEM: return VFS_STATUS_NO_MEMORY;
    case ERR_INVAL: return VFS_STATUS_INVALID;
    case ERR_CANCELED: return VFS_STATUS_CANCELED;
    case ERR_BADUNIT: return VFS_STATUS_BAD_UNIT;
    case ERR_NOTDIR: return VFS_STATUS_NOT_DIR;
    case ERR_NOTFILE: return VFS_STATUS_NOT_FILE;
    case ERR_EXIST: return VFS_STATUS_EXISTS;
    case ERR_NOENT: return VFS_STATUS_NOT_FOUND;
    case ERR_BADF: return VFS_STATUS_BAD_FD;
    case ERR_XDEV: return VFS_STATUS_CROSS_DEVICE;
    case ERR_BADR: return VFS_STATUS_BAD_REQUEST;
    case ERR_NODEV: return VFS_STATUS_NO_DEVICE;
    case ERR_NAMETOOLONG: return VFS_STATUS_NAME_TOO_LONG;
    case ERR_PERM: return VFS_STATUS_NOT_PERMITTED;
    case ERR_ACCES: return VFS_STATUS_ACCESS;
    case ERR_NOTEMPTY: return VFS_STATUS_NOT_EMPTY;
    case ERR_ISDIR: return VFS_STATUS_IS_DIR;
    case ERR_ROFS: return VFS_STATUS_READ_ONLY;
    case ERR_LOOP: return VFS_STATUS_LOOP;
    case ERR_NOTSUP: return VFS_STATUS_NOT_SUPPORTED;
    case ERR_NOSPC: return VFS_STATUS_NO_SPACE;
    case ERR_NFILE: return VFS_STATUS_TOO_MANY_FILES;
    case ERR_IO: return VFS_STATUS_IO;
    case ERR_NOTTY: return VFS_STATUS_NOT_TERMINAL;
    case ERR_FBIG: return VFS_STATUS_FILE_TOO_BIG;
    case ERR_SPIPE: return VFS_STATUS_BAD_SEEK;
    case ERR_WOULDBLOCK: return VFS_STATUS_WOULD_BLOCK;
    case ERR_NOLCK: return VFS_STATUS_NO_LOCKS;
    case ERR_DEADLK: return VFS_STATUS_DEADLOCK;
    default: return status_of_errno(number);
    }
}

std::uint32_t vfs_status(int linux_errno) { return vfs_status_of_number(platform_errno(linux_errno)); }

namespace {

VfsTime time_of(const statx_timestamp& t) { return {t.tv_sec, t.tv_nsec}; }

std::uint32_t device_number(std::uint32_t major, std::uint32_t minor)
{
    return (major << DEVICE_MINOR_BITS) | (minor & ((1u << DEVICE_MINOR_BITS) - 1));
}

} // namespace

VfsStat vfs_stat_of(const struct statx& s)
{
    VfsStat v{};
    v.access = time_of(s.stx_atime);
    v.change = time_of(s.stx_ctime);
    v.modify = time_of(s.stx_mtime);
    if (s.stx_mask & STATX_BTIME)
        v.create = time_of(s.stx_btime);
    v.size = s.stx_size;
    v.inode = s.stx_ino;
    v.block_size = s.stx_blksize;
    v.blocks = s.stx_blocks;
    v.device = device_number(s.stx_dev_major, s.stx_dev_minor);
    v.rdevice = device_number(s.stx_rdev_major, s.stx_rdev_minor);
    v.mode = s.stx_mode;
    v.nlink = s.stx_nlink;
    v.uid = static_cast<std::uint16_t>(s.stx_uid);
    v.gid = static_cast<std::uint16_t>(s.stx_gid);
    return v;
}

} // namespace host::devices
