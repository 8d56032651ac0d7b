// Wire formats of the system-services device: process numbers and sessions. Shared with the
// device service; offsets are from the start of the parameter block.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlix {

inline constexpr std::uint32_t SYSVC_GETPID = 0xc0030013;
inline constexpr std::uint32_t SYSVC_GETSID = 0xc0030018;
inline constexpr std::uint32_t SYSVC_SETSID = 0xc0030019;

struct SysvcPidParams { // getpid, getsid
    std::uint64_t pid;    // 0: the caller's process
    std::uint64_t result; // out: process number, or session
};
static_assert(offsetof(SysvcPidParams, result) == 8);

struct SysvcSetsidParams {
    std::uint64_t session; // out
};

// Statuses the client's translation table knows; others carry an error number as 0xbe0000NN.
inline constexpr std::uint32_t SYSVC_STATUS_NO_MEMORY = 0xe0030001;  // 22
inline constexpr std::uint32_t SYSVC_STATUS_INVALID = 0xe0030002;    // 11
inline constexpr std::uint32_t SYSVC_STATUS_NO_DEVICE = 0xe0030003;  // 31
inline constexpr std::uint32_t SYSVC_STATUS_BAD_ARGUMENT = 0xe0030004; // 11
inline constexpr std::uint32_t SYSVC_STATUS_BAD_STATE = 0xe0030005;  // 11
inline constexpr std::uint32_t SYSVC_STATUS_NO_PROCESS = 0xe0030006; // 45
inline constexpr std::uint32_t SYSVC_STATUS_NOT_PERMITTED = 0xe0030007; // 19

} // namespace orlix
