// The POSIX path calls: thin fronts on the VFS device's path operations, each taking the device
// first so that the first file operation of a process opens it. System code.
#include "runtime/files.h"

#include <cstring>

#include "runtime/errno.h"
#include "runtime/heap.h"
#include "runtime/vfs.h"

namespace orlix {

namespace {

int as_posix(int done) { return done == 1 ? 0 : -1; }

} // namespace

int fstatat(int dirfd, const char* path, struct stat* buf, std::uint32_t flags)
{
    Device* device = GetVFSDev();
    std::memset(buf, 0, sizeof *buf);
    VfsStat record{};
    if (vfs_stat(device, dirfd, path, &record, flags) != 1)
        return -1;
    __fsi_stat_vfs_to_libc(&record, buf);
    return 0;
}

int stat(const char* path, struct stat* buf) { return fstatat(AT_FDCWD_VALUE, path, buf, 0); }

int lstat(const char* path, struct stat* buf) { return fstatat(AT_FDCWD_VALUE, path, buf, AT_SYMLINK_NOFOLLOW_VALUE); }

int openat(int dirfd, const char* path, std::uint32_t flags, std::uint32_t mode)
{
    if (path == nullptr) {
        errno = ERR_FAULT;
        return -1;
    }
    Device* device = GetVFSDev_try();
    if (device == nullptr) {
        errno = ERR_NODEV;
        return -1;
    }
    std::uint16_t created = (flags & OPEN_CREATE) ? static_cast<std::uint16_t>(mode) : 0;
    return vfs_fopen(device, dirfd, path, flags, created);
}

int open(const char* path, std::uint32_t flags, std::uint32_t mode) { return openat(AT_FDCWD_VALUE, path, flags, mode); }

int mkdirat(int dirfd, const char* path, std::uint32_t mode)
{
    return as_posix(vfs_mkdir(GetVFSDev(), dirfd, path, mode));
}

int mkdir(const char* path, std::uint32_t mode) { return mkdirat(AT_FDCWD_VALUE, path, mode); }

int unlinkat(int dirfd, const char* path, std::uint32_t flags)
{
    return as_posix(vfs_unlink(GetVFSDev(), dirfd, path, flags));
}

int unlink(const char* path) { return unlinkat(AT_FDCWD_VALUE, path, 0); }

int renameat(int olddir, const char* old_path, int newdir, const char* new_path)
{
    return as_posix(vfs_rename(GetVFSDev(), olddir, old_path, newdir, new_path, 0));
}

int rename(const char* old_path, const char* new_path)
{
    return renameat(AT_FDCWD_VALUE, old_path, AT_FDCWD_VALUE, new_path);
}

int rmdir(const char* path) { return as_posix(vfs_rmdir(GetVFSDev(), path)); }

int chdir(const char* path) { return as_posix(vfs_chdir(GetVFSDev(), path)); }

std::int64_t readlinkat(int dirfd, const char* path, char* buf, std::uint64_t size)
{
    return vfs_readlink(GetVFSDev(), dirfd, path, buf, size);
}

std::int64_t readlink(const char* path, char* buf, std::uint64_t size)
{
    return readlinkat(AT_FDCWD_VALUE, path, buf, size);
}

char* realpath(const char* path, char* out)
{
    Device* device = GetVFSDev();
    char* result = out;
    if (result == nullptr) {
        result = static_cast<char*>(malloc(PATH_MAX_VALUE));
        if (result == nullptr)
            return nullptr;
    }
    if (vfs_realpath(device, path, result) != 0) {
        if (out == nullptr)
            free(result);
        return nullptr;
    }
    return result;
}

} // namespace orlix
