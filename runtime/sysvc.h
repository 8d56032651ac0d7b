// The system-services device: process numbers and sessions, each one command on the calling
// thread's own request in the blocking-call pattern; and detaching a process. System code.
#pragma once

#include <cstdint>

#include "platform/device.h"
#include "platform/ioreq.h"

namespace orlix {

// The process's system-services device ("SYSVC_DEVICE_NAME", else "sysvc"), opened on first use;
// a failure ends the process.
Device* GetSystemService();

// The error number of a device status, and of a request's error field.
int __sysvcerr(std::uint32_t status);
int __sysvcw_ioreq_to_errno(const IOreq* request);

// 0 with the answer in out, or -1 with errno.
int sysvcw_getpid(std::uint64_t pid, std::uint64_t* out);
int sysvcw_getsid(std::uint64_t pid, std::uint64_t* out);
int sysvcw_setsid(std::uint64_t* out);

// The session number, or -1 with errno (54 for a process without a supervisor).
std::int64_t setsid();
std::int64_t getsid(std::uint64_t pid);

// Detaches the process from its terminal without a new process: working directory "/", 0, 1, 2
// onto "/dev/null", a session of its own, the controlling terminal given up. 0 or -1.
int daemon(int nochdir, int noclose);

} // namespace orlix
