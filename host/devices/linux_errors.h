// The one place where a Linux error number becomes the platform's own (platform/error_numbers.h),
// for every device service that reports what a host call refused. Host code.
#pragma once

#include <cstdint>

namespace host::devices {

// The platform's error number for a Linux errno value. Numbers without a counterpart read as
// ERR_IO ("Input/output error"), the failure of a device that cannot say more.
int platform_errno(int linux_errno);

// A device status carrying the platform's number for a Linux errno value: 0xbe0000NN.
std::uint32_t carried_status(int linux_errno);

} // namespace host::devices
