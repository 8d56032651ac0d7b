// Reading, writing, seeking, closing and fstat of descriptors on the thread's own VFS request.
// The data goes through the request block once; the block grows to the largest transfer the
// thread has made. System code.
#include "runtime/fd.h"

#include <cstring>

#include "runtime/files.h"
#include "runtime/io.h"

namespace orlix {

namespace {

constexpr std::uint8_t NO_RESTART = 0;
constexpr std::uint8_t RESTART = 1;

// The data part with room for size bytes, or false (errno 22).
bool room_for(ThreadRecord* self, IoSlot* slot, std::uint64_t size)
{
    return slot->data_size >= size || __pthread_expand_ioreq(self, slot, size) != nullptr;
}

// The whole length of a vector that is valid and fits the data part, or -1 with errno set.
std::int64_t vector_length(ThreadRecord* self, IoSlot* slot, const iovec* vector, int count)
{
    std::int64_t total = __iov_totlen(vector, count);
    if (total < 0) {
        errno = ERR_INVAL;
        return -1;
    }
    return room_for(self, slot, static_cast<std::uint64_t>(total)) ? total : -1;
}

void fill_transfer(IoSlot* slot, int fd, std::uint64_t length)
{
    auto* p = __io_params<VfsTransferParams>(slot);
    p->result = 0;
    p->data = slot->data;
    p->length = length;
    p->fd = fd;
}

} // namespace

std::int64_t __iov_totlen(const iovec* vector, int count)
{
    if (count > IOV_MAX_VALUE || count < 0)
        return -1;
    std::uint64_t total = 0;
    for (int i = 0; i < count; ++i) {
        if (vector[i].iov_len > static_cast<std::uint64_t>(INT64_MAX) - total)
            return -1;
        total += vector[i].iov_len;
    }
    return static_cast<std::int64_t>(total);
}

std::uint64_t __iov_read(IovCursor* cursor, void* destination, std::uint64_t size)
{
    auto* out = static_cast<std::uint8_t*>(destination);
    std::uint64_t moved = 0;
    while (moved < size && cursor->left > 0) {
        const iovec& element = *cursor->element;
        std::uint64_t take = element.iov_len - cursor->offset;
        if (take > size - moved)
            take = size - moved;
        std::memcpy(out + moved, static_cast<const std::uint8_t*>(element.iov_base) + cursor->offset, take);
        moved += take;
        cursor->offset += take;
        if (cursor->offset == element.iov_len) {
            ++cursor->element;
            --cursor->left;
            cursor->offset = 0;
        }
    }
    return moved;
}

std::uint64_t __iov_write(IovCursor* cursor, const void* source, std::uint64_t size)
{
    auto* in = static_cast<const std::uint8_t*>(source);
    std::uint64_t moved = 0;
    while (moved < size && cursor->left > 0) {
        const iovec& element = *cursor->element;
        std::uint64_t put = element.iov_len - cursor->offset;
        if (put > size - moved)
            put = size - moved;
        std::memcpy(static_cast<std::uint8_t*>(element.iov_base) + cursor->offset, in + moved, put);
        moved += put;
        cursor->offset += put;
        if (cursor->offset == element.iov_len) {
            ++cursor->element;
            --cursor->left;
            cursor->offset = 0;
        }
    }
    return moved;
}

std::int64_t __readv(int fd, const iovec* vector, int count)
{
    return __vfs_call(
        VFS_READ, NO_RESTART,
        [&](ThreadRecord* self, IoSlot* slot) {
            std::int64_t total = vector_length(self, slot, vector, count);
            if (total < 0)
                return false;
            fill_transfer(slot, fd, static_cast<std::uint64_t>(total));
            return true;
        },
        [&](IoSlot* slot) -> std::int64_t {
            std::uint64_t bytes = __io_params<VfsTransferParams>(slot)->result;
            IovCursor cursor{vector, count, 0};
            __iov_write(&cursor, slot->data, bytes);
            return static_cast<std::int64_t>(bytes);
        });
}

std::int64_t __writev(int fd, const iovec* vector, int count)
{
    return __vfs_call(
        VFS_WRITE, NO_RESTART,
        [&](ThreadRecord* self, IoSlot* slot) {
            std::int64_t total = vector_length(self, slot, vector, count);
            if (total < 0)
                return false;
            IovCursor cursor{vector, count, 0};
            __iov_read(&cursor, slot->data, static_cast<std::uint64_t>(total));
            fill_transfer(slot, fd, static_cast<std::uint64_t>(total));
            return true;
        },
        [](IoSlot* slot) { return static_cast<std::int64_t>(__io_params<VfsTransferParams>(slot)->result); });
}

std::int64_t readv(int fd, const iovec* vector, int count) { return __readv(fd, vector, count); }

std::int64_t writev(int fd, const iovec* vector, int count) { return __writev(fd, vector, count); }

std::int64_t read(int fd, void* buffer, std::uint64_t size)
{
    iovec one{buffer, size};
    return __readv(fd, &one, 1);
}

std::int64_t write(int fd, const void* buffer, std::uint64_t size)
{
    iovec one{const_cast<void*>(buffer), size};
    return __writev(fd, &one, 1);
}

int close(int fd)
{
    return static_cast<int>(__vfs_call(
        VFS_CLOSE, RESTART,
        [&](ThreadRecord*, IoSlot* slot) {
            __io_params<VfsFdParams>(slot)->fd = fd;
            return true;
        },
        [](IoSlot*) -> std::int64_t { return 0; }));
}

std::int64_t lseek64(int fd, std::int64_t offset, int whence)
{
    return __vfs_call(
        VFS_SEEK, RESTART,
        [&](ThreadRecord*, IoSlot* slot) {
            if (whence < 0 || whence > 2) {
                errno = ERR_INVAL;
                return false;
            }
            auto* p = __io_params<VfsSeekParams>(slot);
            p->fd = fd;
            p->whence = static_cast<std::uint32_t>(whence);
            p->offset = offset;
            p->position = 0;
            return true;
        },
        [](IoSlot* slot) { return __io_params<VfsSeekParams>(slot)->position; });
}

int fstat(int fd, struct stat* buf)
{
    std::memset(buf, 0, sizeof *buf);
    return static_cast<int>(__vfs_call(
        VFS_FSTAT, RESTART,
        [&](ThreadRecord*, IoSlot* slot) {
            __io_params<VfsFstatParams>(slot)->fd = fd;
            return true;
        },
        [&](IoSlot* slot) -> std::int64_t {
            __fsi_stat_vfs_to_libc(&__io_params<VfsFstatParams>(slot)->stat, buf);
            return 0;
        }));
}

} // namespace orlix
