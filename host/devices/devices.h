// What the rest of the host platform (loader, tests, benchmarks) sees of the device services:
// starting them, the registry's keys, the log's output and the supervisor's record of the task.
// Host code only.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/kernel.h"

namespace host::devices {

// Sizes of the parameter area of each device's shared request: the largest parameter block a
// short command of that device may use there.
inline constexpr std::size_t REGISTRY_SHARED_AREA = 4096;
inline constexpr std::size_t TCPIP_SHARED_AREA = 4096 + 56; // one 4096-byte piece behind a send block
inline constexpr std::size_t SYSLOG_SHARED_AREA = 1024;
// sysvc's commands come on per-thread blocks; its shared area holds one of its parameter blocks.
inline constexpr std::size_t SYSVC_SHARED_AREA = 40;
// (vfs: orlix::VFS_SHARED_AREA, the largest command the runtime sends.)

// Starts the registry, tcpip, vfs, sysvc, syslog and the supervisor once, publishes the registry
// and supervisor ports (_SL_GetState 9 and 10) and registers "run/dev/tcpip", "run/dev/vfs",
// "run/dev/sysvc" and "run/dev/syslog". Later calls do nothing.
void boot();

// Service ports of the devices (valid after boot).
orlix::Handle registry_port();
orlix::Handle tcpip_port();
orlix::Handle vfs_port();
orlix::Handle sysvc_port();
orlix::Handle syslog_port();

// Makes a device known by name: "run/dev/NAME" maps to its service port.
void register_device(const std::string& name, orlix::Handle port);

// The registry's keys, for the host's own use.
void registry_set(const std::string& key, const void* data, std::size_t length);
std::optional<std::vector<std::uint8_t>> registry_get(const std::string& key);

// Where the log writes its lines (default 2, the host's standard error). Tests redirect it.
void set_log_fd(int fd);

// Number of sockets the tcpip device holds open, those still flushing before their close
// included.
std::size_t tcpip_socket_count();

// --- Supervisor --------------------------------------------------------------------------------

// The task's life as the supervisor heard it.
struct TaskRecord {
    bool started = false;            // 0xd0030001 came
    bool exit_reported = false;      // 0xd0030002 came
    std::uint64_t exit_status = 0;   // its word2
    bool ended = false;              // the watch message came
};

// The supervisor's port (valid after boot).
orlix::Handle supervisor_port();

// Waits until the task has ended (its exit status or its watch message came), at most timeout_ms
// milliseconds (-1 for ever). True if it ended.
bool supervisor_wait_end(std::int64_t timeout_ms);

TaskRecord supervisor_record();

// The host process's exit status for a task status word: the exit code of bits 8..15, or
// 128 + the signal number of bits 0..7. A task that ended without reporting gives 128 + 9.
int host_exit_status(const TaskRecord& record);

} // namespace host::devices
