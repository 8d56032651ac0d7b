// The POSIX file calls on paths and descriptors, and the runtime's stat record. Paths go to the
// VFS device's shared channel; descriptor calls to the calling thread's own request. All give -1
// (or null) and errno on failure. System code.
#pragma once

#include <cstdint>

#include "platform/vfs_wire.h"

namespace orlix {

struct timespec {
    std::int64_t tv_sec;
    std::int64_t tv_nsec;
};

// What stat, lstat and fstat report. The mode stands twice, as 16 and as 32 bits.
struct stat {
    std::uint64_t st_dev;
    std::uint64_t st_ino;
    std::uint16_t st_mode_short;
    std::uint32_t st_mode;
    std::uint16_t st_nlink;    // the low 16 bits of the link count
    std::int16_t st_uid;       // 16 bits, signed
    std::int16_t st_gid;
    std::uint64_t st_rdev;
    std::int64_t st_size;
    std::uint32_t st_blksize;
    std::uint64_t st_blocks;
    timespec st_atim;
    timespec st_mtim;
    timespec st_ctim;
    timespec st_birthtim;      // seconds 0 when the file system keeps no creation time
};

inline constexpr int AT_FDCWD_VALUE = VFS_AT_CWD;
inline constexpr std::uint32_t AT_SYMLINK_NOFOLLOW_VALUE = VFS_STAT_NOFOLLOW;

inline bool is_dir(std::uint32_t mode) { return (mode & MODE_TYPE) == MODE_DIR; }
inline bool is_regular(std::uint32_t mode) { return (mode & MODE_TYPE) == MODE_REGULAR; }
inline bool is_link(std::uint32_t mode) { return (mode & MODE_TYPE) == MODE_LINK; }

int stat(const char* path, struct stat* buf);
int lstat(const char* path, struct stat* buf);
int fstatat(int dirfd, const char* path, struct stat* buf, std::uint32_t flags);
int fstat(int fd, struct stat* buf);

// mode is read only when flags hold OPEN_CREATE. openat alone fails with error 31 when there is
// no VFS device (the others end the process).
int open(const char* path, std::uint32_t flags, std::uint32_t mode = 0);
int openat(int dirfd, const char* path, std::uint32_t flags, std::uint32_t mode = 0);

int mkdir(const char* path, std::uint32_t mode);
int mkdirat(int dirfd, const char* path, std::uint32_t mode);
int unlink(const char* path);
int unlinkat(int dirfd, const char* path, std::uint32_t flags);
int rename(const char* old_path, const char* new_path);
int renameat(int olddir, const char* old_path, int newdir, const char* new_path);
int rmdir(const char* path);
int chdir(const char* path);
// The link's length; the text is terminated in buf.
std::int64_t readlink(const char* path, char* buf, std::uint64_t size);
std::int64_t readlinkat(int dirfd, const char* path, char* buf, std::uint64_t size);
// The resolved path in out, or in a 4096-byte block of the heap when out is null.
char* realpath(const char* path, char* out);

inline constexpr std::uint64_t PATH_MAX_VALUE = 4096;

} // namespace orlix
