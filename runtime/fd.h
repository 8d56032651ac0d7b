// Descriptor calls: each one command on the calling thread's own VFS request, inside the
// blocking-call pattern. A descriptor is a number of the VFS device; the runtime keeps no table.
// All give -1 and errno on failure. System code.
#pragma once

#include <cstdint>

namespace orlix {

struct iovec {
    void* iov_base;
    std::uint64_t iov_len;
};

// The record locks of fcntl: l_type 0 read, 1 write, 2 unlock.
struct flock {
    std::int16_t l_type;
    std::int16_t l_whence;
    std::int64_t l_start;
    std::int64_t l_len;
    std::int64_t l_pid;
};

inline constexpr int IOV_MAX_VALUE = 1024;

// read, readv and write, writev move their whole size in one command; an interrupted one is
// aborted and, unless a signal handler asks to restart, fails with error 3.
std::int64_t read(int fd, void* buffer, std::uint64_t size);
std::int64_t write(int fd, const void* buffer, std::uint64_t size);
std::int64_t readv(int fd, const iovec* vector, int count);
std::int64_t writev(int fd, const iovec* vector, int count);
std::int64_t __readv(int fd, const iovec* vector, int count);
std::int64_t __writev(int fd, const iovec* vector, int count);
int close(int fd);
std::int64_t lseek64(int fd, std::int64_t offset, int whence);
int ioctl(int fd, std::uint64_t request, std::uint64_t argument);
int fcntl(int fd, int command, std::uint64_t argument = 0);
int __fdcntl(int fd, std::uint32_t code, std::uint32_t argument, std::uint32_t* out);
int __fdtabcntl(std::uint32_t code, std::uint64_t value, std::uint64_t* out);
// code 1 tests, 2 sets and waits, 3 sets without waiting.
int reclock(int fd, std::uint32_t code, flock* lock);
int dup2(int fd, int new_fd);
int isatty(int fd);

// The vector's total length; -1 for more than 1024 elements or a sum past 2^63 - 1.
std::int64_t __iov_totlen(const iovec* vector, int count);

// A place in a vector: the current element, the elements left, the offset in the current one.
struct IovCursor {
    const iovec* element;
    int left;
    std::uint64_t offset;
};
// Moves bytes from the vector to destination, and from source into the vector, until size is
// used up or no element is left; both give the bytes moved.
std::uint64_t __iov_read(IovCursor* cursor, void* destination, std::uint64_t size);
std::uint64_t __iov_write(IovCursor* cursor, const void* source, std::uint64_t size);

} // namespace orlix
