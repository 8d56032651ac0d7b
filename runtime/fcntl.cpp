// Descriptor control: fcntl and what it becomes (descriptor control codes, the table control,
// record locks, the path of a descriptor), and dup2. System code.
#include <cstring>

#include "runtime/fd.h"
#include "runtime/io.h"

namespace orlix {

namespace {

constexpr std::uint8_t RESTART = 1;
constexpr std::uint32_t RECLOCK_SET = 3; // the one lock code whose wait restarts

// fcntl commands.
enum : int {
    F_DUP = 0, F_SETSTATUS = 1, F_GETSTATUS = 2, F_GETFLAGS = 3, F_SETFLAGS = 4,
    F_TESTLOCK = 5, F_SETLOCK = 6, F_WAITLOCK = 7,
    F_PATH = 50, F_DUP_CLOEXEC = 51, F_TABLE_4 = 52, F_TABLE_8 = 53,
};

// The lock type: the caller's 0 read, 1 write, 2 unlock is the device's 1, 2, 0.
bool type_out(std::int16_t type, std::uint32_t* device)
{
    if (type < 0 || type > 2)
        return false;
    *device = static_cast<std::uint32_t>((type + 1) % 3);
    return true;
}

bool type_back(std::uint32_t device, std::int16_t* type)
{
    if (device > 2)
        return false;
    *type = static_cast<std::int16_t>((device + 2) % 3);
    return true;
}

int fd_path(int fd, char* out)
{
    return static_cast<int>(__vfs_call(
        VFS_FDPATH, RESTART,
        [&](ThreadRecord*, IoSlot* slot) {
            __io_params<VfsFdpathParams>(slot)->fd = fd;
            return true;
        },
        [&](IoSlot* slot) -> std::int64_t {
            const auto* text = reinterpret_cast<const char*>(__io_params<std::uint8_t>(slot) + VFS_FDPATH_TEXT);
            // The text may run to the end of the block.
            const std::uint8_t* end = slot->data + slot->data_size;
            auto room = static_cast<std::size_t>(end - reinterpret_cast<const std::uint8_t*>(text));
            const void* stop = std::memchr(text, '\0', room);
            std::size_t length = stop ? static_cast<std::size_t>(static_cast<const char*>(stop) - text) : room - 1;
            std::memcpy(out, text, length);
            out[length] = '\0';
            return 0;
        }));
}

} // namespace

int __fdcntl(int fd, std::uint32_t code, std::uint32_t argument, std::uint32_t* out)
{
    return static_cast<int>(__vfs_call(
        VFS_FDCNTL, RESTART,
        [&](ThreadRecord*, IoSlot* slot) {
            auto* p = __io_params<VfsFdcntlParams>(slot);
            p->fd = fd;
            p->code = code;
            p->argument = argument;
            p->result = 0;
            return true;
        },
        [&](IoSlot* slot) -> std::int64_t {
            if (out != nullptr)
                *out = __io_params<VfsFdcntlParams>(slot)->result;
            return 0;
        }));
}

int __fdtabcntl(std::uint32_t code, std::uint64_t value, std::uint64_t* out)
{
    return static_cast<int>(__vfs_call(
        VFS_FDTABCNTL, RESTART,
        [&](ThreadRecord*, IoSlot* slot) {
            auto* p = __io_params<VfsFdtabParams>(slot);
            p->code = code;
            p->zero = 0;
            p->value = value;
            return true;
        },
        [&](IoSlot* slot) -> std::int64_t {
            if (out != nullptr)
                *out = __io_params<VfsFdtabParams>(slot)->value;
            return 0;
        }));
}

int reclock(int fd, std::uint32_t code, flock* lock)
{
    return static_cast<int>(__vfs_call(
        VFS_RECLOCK, code == RECLOCK_SET ? 1 : 0,
        [&](ThreadRecord*, IoSlot* slot) {
            auto* p = __io_params<VfsReclockParams>(slot);
            if (!type_out(lock->l_type, &p->type) || lock->l_whence < 0 || lock->l_whence > 2) {
                errno = ERR_INVAL;
                return false;
            }
            p->fd = fd;
            p->code = code;
            p->whence = static_cast<std::uint32_t>(lock->l_whence);
            p->start = lock->l_start;
            p->length = lock->l_len;
            p->owner = 0;
            return true;
        },
        [&](IoSlot* slot) -> std::int64_t {
            auto* p = __io_params<VfsReclockParams>(slot);
            std::int16_t type;
            if (!type_back(p->type, &type) || p->whence > 2) {
                errno = ERR_INVAL;
                return -1;
            }
            lock->l_type = type;
            lock->l_whence = static_cast<std::int16_t>(p->whence);
            lock->l_start = p->start;
            lock->l_len = p->length;
            lock->l_pid = static_cast<std::int64_t>(p->owner);
            return 0;
        }));
}

int fcntl(int fd, int command, std::uint64_t argument)
{
    auto value = static_cast<std::uint32_t>(argument);
    std::uint32_t out = 0;
    std::uint64_t wide = 0;
    auto* lock = reinterpret_cast<flock*>(argument);
    switch (command) {
    case F_DUP:
        return __fdcntl(fd, FDCNTL_DUP, value, &out) == 0 ? static_cast<int>(out) : -1;
    case F_SETSTATUS:
        return __fdcntl(fd, FDCNTL_SET_STATUS, value, nullptr);
    case F_GETSTATUS:
        return __fdcntl(fd, FDCNTL_GET_STATUS, 0, &out) == 0 ? static_cast<int>(out) : -1;
    case F_GETFLAGS:
        return __fdcntl(fd, FDCNTL_GET_FLAGS, 0, &out) == 0 ? static_cast<int>(out) : -1;
    case F_SETFLAGS:
        return __fdcntl(fd, FDCNTL_SET_FLAGS, value, nullptr);
    case F_TESTLOCK:
        return reclock(fd, 1, lock);
    case F_SETLOCK:
        return reclock(fd, 3, lock);
    case F_WAITLOCK:
        return reclock(fd, 2, lock);
    case F_PATH:
        return fd_path(fd, reinterpret_cast<char*>(argument));
    case F_DUP_CLOEXEC:
        return __fdcntl(fd, FDCNTL_DUP_CLOEXEC, value, &out) == 0 ? static_cast<int>(out) : -1;
    case F_TABLE_4:
        return __fdtabcntl(4, 0, &wide) == 0 ? static_cast<int>(wide) : -1;
    case F_TABLE_8:
        return __fdtabcntl(8, static_cast<std::uint64_t>(fd), &wide);
    default:
        errno = ERR_INVAL;
        return -1;
    }
}

int dup2(int fd, int new_fd)
{
    std::uint32_t out = 0;
    if (__fdcntl(fd, FDCNTL_DUP_TO, static_cast<std::uint32_t>(new_fd), &out) != 0)
        return -1;
    return static_cast<int>(out);
}

} // namespace orlix
