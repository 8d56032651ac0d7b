// The VFS device client: opening the process's VFS device, the path operations on its shared
// channel, the translation of its statuses into error numbers, and the description of the
// per-thread request blocks. System code.
#pragma once

#include <cstdint>

#include "platform/device.h"
#include "platform/vfs_wire.h"

namespace orlix {

struct stat;

// How a per-thread request block is made: size ((params + 0x87) rounded down to 16) + data, the
// data part at that rounded offset.
struct ioreq_cfg {
    std::uint32_t unit;
    std::uint64_t params_size;
    std::uint64_t data_size;
};
inline constexpr ioreq_cfg VFS_IOREQ_CFG{0, 0x80, 0x1000};
inline constexpr ioreq_cfg SYSVC_IOREQ_CFG{0, 0x28, 0x100};

// The device name: "VFS_DEVICE_NAME" from the environment, else "vfs".
const char* GetVFSName();
// The process's VFS device, opened on first use; GetVFSDev ends the process if it can't be
// opened, GetVFSDev_try returns null. The first open sends, in order, set primary, inherit
// descriptors and, with an initial working directory, chdir.
Device* GetVFSDev();
Device* GetVFSDev_try();

// The error number of a device status, and of a request's error field.
int __libci_vfs_translate_error(std::uint32_t status);
int vfs_trans_ec(std::uint32_t status);
int __vfs_ioreq_to_errno(const IOreq* request);

// Path operations on the shared channel: 1 done, 0 failed with errno (13 and nothing sent when the
// path doesn't fit the parameter area).
int vfs_setprimary(Device* device, std::uint32_t value);
int vfs_inheritfds(Device* device, std::uint32_t value);
int vfs_chdir(Device* device, const char* path);
int vfs_mkdir(Device* device, int dirfd, const char* path, std::uint32_t mode);
int vfs_rmdir(Device* device, const char* path);
int vfs_unlink(Device* device, int dirfd, const char* path, std::uint32_t flags);
int vfs_rename(Device* device, int olddir, const char* old_path, int newdir, const char* new_path,
               std::uint32_t flags);
int vfs_stat(Device* device, int dirfd, const char* path, VfsStat* out, std::uint32_t flags);
// 1 and the entry with its end word, or 0.
int vfs_readdir(Device* device, int fd, VfsDirEntry* entry, std::uint64_t* end);
// 0 with the resolved path in out (4096 bytes), or -1; a path over 4095 characters gets error 13.
int vfs_realpath(Device* device, const char* path, char* out);
// The descriptor, or -1. vfs_opendir leaves errno alone for a path that doesn't fit; vfs_fopen_sta
// leaves it alone always.
int vfs_opendir(Device* device, const char* path);
int vfs_fopen(Device* device, int dirfd, const char* path, std::uint32_t flags, std::uint16_t mode);
int vfs_fopen_sta(Device* device, int dirfd, const char* path, std::uint32_t flags, std::uint16_t mode);
// The link's length with the text and a terminator in out, or -1 (error 24 when the length is
// not below size).
std::int64_t vfs_readlink(Device* device, int dirfd, const char* path, char* out, std::uint64_t size);

// Field by field into the runtime's stat record, which the caller has cleared.
void __fsi_stat_vfs_to_libc(const VfsStat* in, struct stat* out);

} // namespace orlix
