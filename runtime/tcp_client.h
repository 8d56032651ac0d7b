// The TCP device client: short socket commands over the device's shared channel, and the
// translation of device statuses into error numbers. Touches the shared channel of a TCP Device
// and the calling thread's errno; nothing else.
#pragma once

#include <cstdint>

#include "platform/device.h"

namespace orlix {

// The process's TCP device ("TCPIP_DEVICE_NAME", else "tcpip"), opened on first use and told to
// take over the parent's sockets; a device that can't be opened ends the process.
Device* GetTCPDev();

// The error number for a TCP device status (0xbennnnnn carries the number in its low 24 bits;
// anything unknown is 35, "Operation canceled"). td_trans_ec is the same function.
int __libci_tcpip_translate_error(std::uint32_t status);
int td_trans_ec(std::uint32_t status);

// Each call holds the device's shared lock across the device's answer. A parameter block that
// doesn't fit the shared area sends nothing and sets errno to 8. Other failures set errno from the
// device status.

// The new socket, or -1.
int td_sockcreat(Device* device, std::uint32_t domain, std::uint32_t type, std::uint32_t protocol);

// 1 on success, 0 on failure with errno.
int td_sockclose(Device* device, int socket);
int td_sockbind(Device* device, int socket, const void* address, std::uint32_t length);
int td_socklisten(Device* device, int socket, std::uint32_t backlog);
int td_socksetopt(Device* device, int socket, std::uint32_t level, std::uint32_t option, const void* value,
                  std::uint32_t length);
int td_inheritparsocks(Device* device, std::uint32_t flag);
// On success the address (at most *length bytes of it) and its length; on failure *length is left
// as it was.
int td_sockgetname(Device* device, int socket, void* address, std::uint32_t* length);
int td_sockgetpeer(Device* device, int socket, void* address, std::uint32_t* length);

// Sends length bytes in pieces that fit the shared area; middle pieces carry the more-data flag.
// The bytes taken, or -1 with errno if the first piece failed; a length of 0 gives -1 and leaves
// errno alone. Stops early at the first piece the device did not take whole.
std::int64_t td_send(Device* device, int socket, const void* data, std::uint64_t length, std::uint32_t flags);

} // namespace orlix
