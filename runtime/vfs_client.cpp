// Opening the process's VFS device and what follows the first open, the translation of the
// device's statuses, and the stat record's conversion. System code.
#include "platform/atomic.h"
#include "platform/device_client.h"
#include "runtime/context.h"
#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/vfs.h"

namespace orlix {

namespace {

constexpr const char* DEFAULT_VFS_NAME = "vfs";

// Set by the thread that runs the steps after the first open.
constinit std::uint32_t first_open_done = 0;

// After the first open: the device learns it is the primary one and takes over the parent's
// descriptors, then the process moves to its initial working directory. Results are ignored.
void after_first_open(Device* device)
{
    std::uint32_t expected = 0;
    if (!atomic::compare_exchange(&first_open_done, &expected, std::uint32_t{1}))
        return;
    const char* iwd = g_libc_context->iwd;
    if (iwd == nullptr)
        iwd = getenv("IWD");
    vfs_setprimary(device, 0);
    vfs_inheritfds(device, 0);
    if (iwd != nullptr)
        chdir(iwd);
}

Device* open_vfs(bool required)
{
    if (Device* device = atomic::load(&g_vfs_device))
        return device;
    // getenv takes the process lock, which the opening holds: the name comes first.
    const char* name = GetVFSName();
    Mutex* lock = &g_libc_context->lock;
    Device* device = required ? __ensureopendevice(lock, &g_vfs_device, name)
                              : __tryopendevice(lock, &g_vfs_device, name);
    if (device != nullptr)
        after_first_open(device);
    return device;
}

} // namespace

const char* GetVFSName()
{
    const char* name = getenv("VFS_DEVICE_NAME");
    return name != nullptr ? name : DEFAULT_VFS_NAME;
}

Device* GetVFSDev() { return open_vfs(true); }

Device* GetVFSDev_try() { return open_vfs(false); }

int __libci_vfs_translate_error(std::uint32_t status)
{
    if ((status & 0xff000000) == STATUS_CARRIES_ERRNO)
        return static_cast<int>(status & 0xffffff);
    switch (status) {
    case VFS_STATUS_BAD_COMMAND: return ERR_BADRQC;
    case VFS_STATUS_TOO_LARGE: return ERR_OVERFLOW;
    case VFS_STATUS_BUSY: case VFS_STATUS_IN_USE: case 0xe0040024: case 0xe0040026: case 0xe0040034:
    case 0xe0040042:
        return ERR_BUSY;
    case VFS_STATUS_NO_MEMORY: return ERR_NOMEM;
    case VFS_STATUS_INVALID: case 0xe0040015: return ERR_INVAL;
    case VFS_STATUS_CANCELED: case 0xe0040027: return ERR_CANCELED;
    case VFS_STATUS_BAD_UNIT: return ERR_BADUNIT;
    case VFS_STATUS_NOT_DIR: return ERR_NOTDIR;
    case VFS_STATUS_NOT_FILE: return ERR_NOTFILE;
    case VFS_STATUS_EXISTS: return ERR_EXIST;
    case VFS_STATUS_NOT_FOUND: case 0xe00e0002: return ERR_NOENT;
    case VFS_STATUS_BAD_FD: return ERR_BADF;
    case VFS_STATUS_CROSS_DEVICE: case 0xe0040016: return ERR_XDEV;
    case VFS_STATUS_BAD_REQUEST: return ERR_BADR;
    case VFS_STATUS_NO_DEVICE: return ERR_NODEV;
    case VFS_STATUS_NAME_TOO_LONG: case 0xe0040031: return ERR_NAMETOOLONG;
    case 0xe0040018: case 0xe0040019: case 0xe0040020: case 0xe0040021: return ERR_BADSLT;
    case VFS_STATUS_NOT_PERMITTED: case 0xe0040037: return ERR_PERM;
    case VFS_STATUS_ACCESS: return ERR_ACCES;
    case VFS_STATUS_NOT_EMPTY: return ERR_NOTEMPTY;
    case VFS_STATUS_IS_DIR: return ERR_ISDIR;
    case VFS_STATUS_READ_ONLY: return ERR_ROFS;
    case VFS_STATUS_LOOP: return ERR_LOOP;
    case VFS_STATUS_NOT_SUPPORTED: return ERR_NOTSUP;
    case VFS_STATUS_NO_SPACE: return ERR_NOSPC;
    case VFS_STATUS_TOO_MANY_FILES: case 0xe0040036: return ERR_NFILE;
    case VFS_STATUS_IO: return ERR_IO;
    case VFS_STATUS_NOT_TERMINAL: return ERR_NOTTY;
    case VFS_STATUS_FILE_TOO_BIG: return ERR_FBIG;
    case VFS_STATUS_BAD_SEEK: return ERR_SPIPE;
    case VFS_STATUS_WOULD_BLOCK: return ERR_WOULDBLOCK;
    case VFS_STATUS_NO_LOCKS: return ERR_NOLCK;
    case VFS_STATUS_DEADLOCK: return ERR_DEADLK;
    default: return ERR_CANCELED;
    }
}

int vfs_trans_ec(std::uint32_t status) { return __libci_vfs_translate_error(status); }

int __vfs_ioreq_to_errno(const IOreq* request) { return __libci_vfs_translate_error(request->error); }

void __fsi_stat_vfs_to_libc(const VfsStat* in, struct stat* out)
{
    out->st_atim = timespec{in->access.seconds, in->access.nanoseconds};
    out->st_ctim = timespec{in->change.seconds, in->change.nanoseconds};
    out->st_mtim = timespec{in->modify.seconds, in->modify.nanoseconds};
    out->st_birthtim = timespec{in->create.seconds, in->create.nanoseconds};
    out->st_size = static_cast<std::int64_t>(in->size);
    out->st_ino = in->inode;
    out->st_blksize = static_cast<std::uint32_t>(in->block_size);
    out->st_blocks = in->blocks;
    out->st_dev = in->device;
    out->st_rdev = in->rdevice;
    out->st_mode_short = in->mode;
    out->st_mode = in->mode;
    out->st_nlink = static_cast<std::uint16_t>(in->nlink);
    out->st_uid = static_cast<std::int16_t>(in->uid);
    out->st_gid = static_cast<std::int16_t>(in->gid);
}

} // namespace orlix
