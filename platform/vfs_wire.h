// Wire formats of the VFS device: command codes, parameter blocks, the stat and directory-entry
// records, open flags and mode bits, and the statuses the client's translation table knows.
// Shared with the device service. Offsets are from the start of a parameter block.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/error_numbers.h"

namespace orlix {

// --- Commands --------------------------------------------------------------------------------
// On the device-wide shared channel:
inline constexpr std::uint32_t VFS_SETPRIMARY = 0xc0040001;
inline constexpr std::uint32_t VFS_INHERITFDS = 0xc0040002;
inline constexpr std::uint32_t VFS_CHDIR = 0xc0040021;
inline constexpr std::uint32_t VFS_MKDIR = 0xc0040022;
inline constexpr std::uint32_t VFS_RMDIR = 0xc0040023;
inline constexpr std::uint32_t VFS_REALPATH = 0xc0040024;
inline constexpr std::uint32_t VFS_OPENDIR = 0xc0040030;
inline constexpr std::uint32_t VFS_READDIR = 0xc0040031;
inline constexpr std::uint32_t VFS_OPEN = 0xc0040040;
inline constexpr std::uint32_t VFS_UNLINK = 0xc0040046;
inline constexpr std::uint32_t VFS_RENAME = 0xc0040049;
inline constexpr std::uint32_t VFS_STAT = 0xc0040050;
inline constexpr std::uint32_t VFS_READLINK = 0xc0040054;
// On a thread's own request:
inline constexpr std::uint32_t VFS_CLOSE = 0xc0040041;
inline constexpr std::uint32_t VFS_READ = 0xc0040042;
inline constexpr std::uint32_t VFS_WRITE = 0xc0040043;
inline constexpr std::uint32_t VFS_SEEK = 0xc0040045;
inline constexpr std::uint32_t VFS_FDTABCNTL = 0xc004004c;
inline constexpr std::uint32_t VFS_FSTAT = 0xc0040051;
inline constexpr std::uint32_t VFS_IOCTL = 0xc004005c;
inline constexpr std::uint32_t VFS_FDPATH = 0xc004005d;
inline constexpr std::uint32_t VFS_FDCNTL = 0xc0040060;
inline constexpr std::uint32_t VFS_RECLOCK = 0xc0040064;

// The directory argument of the *at commands that means the current directory.
inline constexpr std::int32_t VFS_AT_CWD = -100;
// Flag of VFS_STAT: do not follow a final symbolic link.
inline constexpr std::uint32_t VFS_STAT_NOFOLLOW = 256;
// Flag of VFS_UNLINK: remove a directory, as VFS_RMDIR does.
inline constexpr std::uint32_t VFS_UNLINK_REMOVEDIR = 512;

// Open flags, sent unchanged.
inline constexpr std::uint32_t OPEN_APPEND = 1;
inline constexpr std::uint32_t OPEN_CREATE = 2;   // only then is the mode read
inline constexpr std::uint32_t OPEN_READ = 4;
inline constexpr std::uint32_t OPEN_WRITE = 8;
inline constexpr std::uint32_t OPEN_TRUNCATE = 32;
inline constexpr std::uint32_t OPEN_NOCTTY = 256;
inline constexpr std::uint32_t OPEN_CLOEXEC = 1024;

// Mode bits: the file type in MODE_TYPE and the permission bits, the usual POSIX values.
inline constexpr std::uint32_t MODE_TYPE = 0xf000;
inline constexpr std::uint32_t MODE_FIFO = 0x1000;
inline constexpr std::uint32_t MODE_CHAR = 0x2000;
inline constexpr std::uint32_t MODE_DIR = 0x4000;
inline constexpr std::uint32_t MODE_BLOCK = 0x6000;
inline constexpr std::uint32_t MODE_REGULAR = 0x8000;
inline constexpr std::uint32_t MODE_LINK = 0xa000;
inline constexpr std::uint32_t MODE_SOCKET = 0xc000;

// Device numbers: major from bit 20 upward, minor in the low 20 bits.
inline constexpr unsigned DEVICE_MINOR_BITS = 20;

// --- Records ---------------------------------------------------------------------------------

struct VfsTime {
    std::int64_t seconds;
    std::int64_t nanoseconds;
};

// What the device reports of a file: 120 bytes, little-endian.
struct VfsStat {
    VfsTime access;
    VfsTime change;
    VfsTime modify;
    VfsTime create;        // seconds 0 when the file system keeps no creation time
    std::uint64_t size;
    std::uint64_t inode;
    std::uint64_t block_size; // the low 32 bits count
    std::uint64_t blocks;
    std::uint32_t device;
    std::uint32_t rdevice; // device of a special file
    std::uint16_t mode;
    std::uint16_t pad106;
    std::uint32_t nlink;   // the low 16 bits count
    std::uint16_t uid;
    std::uint16_t gid;
    std::uint32_t pad116;
};
static_assert(offsetof(VfsStat, change) == 16);
static_assert(offsetof(VfsStat, modify) == 32);
static_assert(offsetof(VfsStat, create) == 48);
static_assert(offsetof(VfsStat, size) == 64);
static_assert(offsetof(VfsStat, inode) == 72);
static_assert(offsetof(VfsStat, block_size) == 80);
static_assert(offsetof(VfsStat, blocks) == 88);
static_assert(offsetof(VfsStat, device) == 96);
static_assert(offsetof(VfsStat, rdevice) == 100);
static_assert(offsetof(VfsStat, mode) == 104);
static_assert(offsetof(VfsStat, nlink) == 108);
static_assert(offsetof(VfsStat, uid) == 112);
static_assert(offsetof(VfsStat, gid) == 114);
static_assert(sizeof(VfsStat) == 120);

// One directory entry: 272 bytes.
struct VfsDirEntry {
    std::uint64_t inode;
    char name[256];       // zero-terminated
    std::uint8_t type;
    std::uint8_t pad265[7];
};
static_assert(offsetof(VfsDirEntry, name) == 8);
static_assert(offsetof(VfsDirEntry, type) == 264);
static_assert(sizeof(VfsDirEntry) == 272);

// --- Parameter blocks of the shared channel ----------------------------------------------------
// Every path lies inside the block, zero-terminated, at the offset its record ends; the pointer
// field holds its address in the client's view.

struct VfsValueParams { // setprimary, inheritfds
    std::uint32_t value;
};

struct VfsPathParams { // chdir, rmdir; the path at 8
    const char* path;
};
static_assert(sizeof(VfsPathParams) == 8);

// realpath: the path at 0, which the device replaces with the resolved path.

struct VfsMkdirParams { // the path at 16
    const char* path;
    std::uint32_t mode;
    std::int32_t dirfd;
};
static_assert(offsetof(VfsMkdirParams, mode) == 8);
static_assert(offsetof(VfsMkdirParams, dirfd) == 12);
static_assert(sizeof(VfsMkdirParams) == 16);

struct VfsOpendirParams { // the path at 16
    std::int32_t fd; // out
    std::uint32_t pad4;
    const char* path;
};
static_assert(offsetof(VfsOpendirParams, path) == 8);
static_assert(sizeof(VfsOpendirParams) == 16);

struct VfsReaddirParams {
    VfsDirEntry entry;  // out
    std::uint64_t end;  // out: nonzero at the end of the directory
    std::int32_t fd;
};
static_assert(offsetof(VfsReaddirParams, end) == 272);
static_assert(offsetof(VfsReaddirParams, fd) == 280);

struct VfsOpenParams { // the path at 32
    std::int32_t fd; // out
    std::uint32_t pad4;
    const char* path;
    std::uint32_t flags;
    std::int32_t dirfd;
    std::uint16_t mode;
    std::uint16_t pad26[3];
};
static_assert(offsetof(VfsOpenParams, path) == 8);
static_assert(offsetof(VfsOpenParams, flags) == 16);
static_assert(offsetof(VfsOpenParams, dirfd) == 20);
static_assert(offsetof(VfsOpenParams, mode) == 24);
static_assert(sizeof(VfsOpenParams) == 32);

struct VfsUnlinkParams { // the path at 16
    const char* path;
    std::uint32_t flags;
    std::int32_t dirfd;
};
static_assert(offsetof(VfsUnlinkParams, flags) == 8);
static_assert(offsetof(VfsUnlinkParams, dirfd) == 12);
static_assert(sizeof(VfsUnlinkParams) == 16);

struct VfsRenameParams { // the old path at 32, the new one directly behind it
    const char* old_path;
    const char* new_path;
    std::int32_t old_dirfd;
    std::int32_t new_dirfd;
    std::uint32_t flags;
    std::uint32_t pad28;
};
static_assert(offsetof(VfsRenameParams, new_path) == 8);
static_assert(offsetof(VfsRenameParams, old_dirfd) == 16);
static_assert(offsetof(VfsRenameParams, new_dirfd) == 20);
static_assert(offsetof(VfsRenameParams, flags) == 24);
static_assert(sizeof(VfsRenameParams) == 32);

struct VfsStatParams { // the path at 136
    VfsStat stat; // out
    const char* path;
    std::uint32_t flags;
    std::int32_t dirfd;
};
static_assert(offsetof(VfsStatParams, path) == 120);
static_assert(offsetof(VfsStatParams, flags) == 128);
static_assert(offsetof(VfsStatParams, dirfd) == 132);
static_assert(sizeof(VfsStatParams) == 136);

inline constexpr std::size_t VFS_READLINK_TEXT = 4096;
struct VfsReadlinkParams { // the path at 4112
    const char* path;
    char text[VFS_READLINK_TEXT]; // out, not terminated
    std::uint32_t length;         // out
    std::int32_t dirfd;
};
static_assert(offsetof(VfsReadlinkParams, text) == 8);
static_assert(offsetof(VfsReadlinkParams, length) == 4104);
static_assert(offsetof(VfsReadlinkParams, dirfd) == 4108);
static_assert(sizeof(VfsReadlinkParams) == 4112);

// The shared parameter area holds the largest command the runtime sends: a rename of two paths
// of 4095 characters.
inline constexpr std::size_t VFS_PATH_MAX = 4096; // with the terminator
inline constexpr std::size_t VFS_SHARED_AREA = sizeof(VfsRenameParams) + 2 * VFS_PATH_MAX;

// --- Parameter blocks of a thread's request ------------------------------------------------------

struct VfsFdParams { // close
    std::int32_t fd;
};

struct VfsTransferParams { // read, write
    std::uint64_t result; // out: bytes moved; 0 going in
    void* data;
    std::uint64_t length;
    std::int32_t fd;
};
static_assert(offsetof(VfsTransferParams, data) == 8);
static_assert(offsetof(VfsTransferParams, length) == 16);
static_assert(offsetof(VfsTransferParams, fd) == 24);

struct VfsSeekParams {
    std::int32_t fd;
    std::uint32_t whence; // 0 set, 1 current, 2 end
    std::int64_t offset;
    std::int64_t position; // out
};
static_assert(offsetof(VfsSeekParams, offset) == 8);
static_assert(offsetof(VfsSeekParams, position) == 16);

struct VfsFdtabParams {
    std::uint32_t code;
    std::uint32_t zero;
    std::uint64_t value; // in and out
};
static_assert(offsetof(VfsFdtabParams, value) == 8);

struct VfsFstatParams {
    VfsStat stat; // out
    std::int32_t fd;
};
static_assert(offsetof(VfsFstatParams, fd) == 120);

struct VfsIoctlParams { // the payload at 32
    std::int32_t fd;
    std::uint32_t pad4;
    std::uint64_t request;
    std::uint64_t payload_length;
    void* payload;
};
static_assert(offsetof(VfsIoctlParams, request) == 8);
static_assert(offsetof(VfsIoctlParams, payload_length) == 16);
static_assert(offsetof(VfsIoctlParams, payload) == 24);
static_assert(sizeof(VfsIoctlParams) == 32);

struct VfsFdpathParams { // the device writes the text, zero-terminated, from offset 8 on
    std::int32_t fd;
    std::uint32_t pad4;
};
inline constexpr std::size_t VFS_FDPATH_TEXT = 8;

struct VfsFdcntlParams {
    std::int32_t fd;
    std::uint32_t code;     // 0 get status flags ... 6 duplicate onto a number
    std::uint32_t argument;
    std::uint32_t result;   // out
};
static_assert(offsetof(VfsFdcntlParams, code) == 4);
static_assert(offsetof(VfsFdcntlParams, argument) == 8);
static_assert(offsetof(VfsFdcntlParams, result) == 12);

struct VfsReclockParams {
    std::int32_t fd;
    std::uint32_t code;   // 1 test, 2 set and wait, 3 set without waiting
    std::uint32_t type;   // 0 unlock, 1 read, 2 write (the device's own order)
    std::uint32_t whence;
    std::int64_t start;
    std::int64_t length;
    std::uint64_t owner;  // out
};
static_assert(offsetof(VfsReclockParams, type) == 8);
static_assert(offsetof(VfsReclockParams, whence) == 12);
static_assert(offsetof(VfsReclockParams, start) == 16);
static_assert(offsetof(VfsReclockParams, length) == 24);
static_assert(offsetof(VfsReclockParams, owner) == 32);

// Codes of the descriptor control command.
inline constexpr std::uint32_t FDCNTL_GET_STATUS = 0;
inline constexpr std::uint32_t FDCNTL_SET_STATUS = 1;
inline constexpr std::uint32_t FDCNTL_GET_FLAGS = 2;
inline constexpr std::uint32_t FDCNTL_SET_FLAGS = 3;
inline constexpr std::uint32_t FDCNTL_DUP = 4;
inline constexpr std::uint32_t FDCNTL_DUP_CLOEXEC = 5;
inline constexpr std::uint32_t FDCNTL_DUP_TO = 6;
inline constexpr std::uint32_t FD_STATUS_APPEND = 1; // status flag
inline constexpr std::uint32_t FD_CLOEXEC_FLAG = 1;  // descriptor flag

// Requests of ioctl the device knows.
inline constexpr std::uint64_t IOCTL_IS_TERMINAL = 0x5413;   // a terminal answers it
inline constexpr std::uint64_t IOCTL_DROP_TERMINAL = 0x5422; // gives up the controlling terminal

// --- Statuses ----------------------------------------------------------------------------------
// Those the client's translation table knows; any other failure travels as 0xbe0000NN carrying
// the error number (platform/error_numbers.h).
inline constexpr std::uint32_t VFS_STATUS_BAD_COMMAND = 2;          // 29
inline constexpr std::uint32_t VFS_STATUS_TOO_LARGE = 4;            // 8
inline constexpr std::uint32_t VFS_STATUS_BUSY = 5;                 // 23
inline constexpr std::uint32_t VFS_STATUS_NO_MEMORY = 0xe0040001;   // 22
inline constexpr std::uint32_t VFS_STATUS_INVALID = 0xe0040002;     // 11
inline constexpr std::uint32_t VFS_STATUS_CANCELED = 0xe0040003;    // 35
inline constexpr std::uint32_t VFS_STATUS_BAD_UNIT = 0xe0040004;    // 32
inline constexpr std::uint32_t VFS_STATUS_NOT_DIR = 0xe0040005;     // 7
inline constexpr std::uint32_t VFS_STATUS_NOT_FILE = 0xe0040006;    // 33
inline constexpr std::uint32_t VFS_STATUS_EXISTS = 0xe0040007;      // 10
inline constexpr std::uint32_t VFS_STATUS_NOT_FOUND = 0xe0040008;   // 1
inline constexpr std::uint32_t VFS_STATUS_BAD_FD = 0xe0040009;      // 26
inline constexpr std::uint32_t VFS_STATUS_CROSS_DEVICE = 0xe0040010; // 40
inline constexpr std::uint32_t VFS_STATUS_IN_USE = 0xe0040011;      // 23
inline constexpr std::uint32_t VFS_STATUS_BAD_REQUEST = 0xe0040012; // 28
inline constexpr std::uint32_t VFS_STATUS_NO_DEVICE = 0xe0040013;   // 31
inline constexpr std::uint32_t VFS_STATUS_NAME_TOO_LONG = 0xe0040017; // 13
inline constexpr std::uint32_t VFS_STATUS_NOT_PERMITTED = 0xe0040022; // 19
inline constexpr std::uint32_t VFS_STATUS_ACCESS = 0xe0040023;      // 2
inline constexpr std::uint32_t VFS_STATUS_NOT_EMPTY = 0xe0040025;   // 17
inline constexpr std::uint32_t VFS_STATUS_IS_DIR = 0xe0040028;      // 12
inline constexpr std::uint32_t VFS_STATUS_READ_ONLY = 0xe0040029;   // 41
inline constexpr std::uint32_t VFS_STATUS_LOOP = 0xe0040030;        // 4
inline constexpr std::uint32_t VFS_STATUS_NOT_SUPPORTED = 0xe0040032; // 44
inline constexpr std::uint32_t VFS_STATUS_NO_SPACE = 0xe0040033;    // 37
inline constexpr std::uint32_t VFS_STATUS_TOO_MANY_FILES = 0xe0040035; // 14
inline constexpr std::uint32_t VFS_STATUS_IO = 0xe0040038;          // 20
inline constexpr std::uint32_t VFS_STATUS_NOT_TERMINAL = 0xe0040039; // 46
inline constexpr std::uint32_t VFS_STATUS_FILE_TOO_BIG = 0xe0040040; // 21
inline constexpr std::uint32_t VFS_STATUS_BAD_SEEK = 0xe0040041;    // 43
inline constexpr std::uint32_t VFS_STATUS_WOULD_BLOCK = 0xe0040043; // 48
inline constexpr std::uint32_t VFS_STATUS_NO_LOCKS = 0xe0040044;    // 86
inline constexpr std::uint32_t VFS_STATUS_DEADLOCK = 0xe0040045;    // 87

} // namespace orlix
