// What the vfs device's commands share: its statuses for host errors, the stat record from the
// host's statx, and the checked view of a command's parameter block. Host code.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include "host/devices/framework.h"
#include "platform/vfs_wire.h"

namespace host::devices {

// The status for a platform error number: the one the client's table turns back into that number,
// else 0xbe0000NN carrying it.
std::uint32_t vfs_status_of_number(int number);

// The status for a Linux errno value.
std::uint32_t vfs_status(int linux_errno);

// The device's record of a file from the host's: device numbers split at bit 20, the creation
// time 0 when the host's file system keeps none.
orlix::VfsStat vfs_stat_of(const struct statx& s);

// The command's parameter block when the whole of it lies inside the request block, else null.
template <typename T> T* params_of(Request& r)
{
    return reinterpret_cast<T*>(r.area(r.block->params, sizeof(T)));
}

// The outcome of a host call that failed with errno.
inline Outcome host_failure(int linux_errno) { return Outcome::fail(vfs_status(linux_errno)); }

} // namespace host::devices
