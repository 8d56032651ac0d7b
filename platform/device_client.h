// The client side of the device scheme: opening devices by name or port, creating and deleting
// request blocks, and running commands through them. Touches only kernel entries and the wire
// records of platform/device.h and platform/ioreq.h.
#pragma once

#include <cstdint>

#include "platform/device.h"
#include "platform/ioreq.h"
#include "platform/kernel.h"
#include "platform/mutex.h"

namespace orlix {

// Process-wide slots of the devices that stay open for the life of the process; null until open.
extern constinit Device* g_tcp_device;
extern constinit Device* g_vfs_device;
extern constinit Device* g_sysvc_device;

// Flags of the further handles the client makes for devices.
inline constexpr std::uint64_t HANDLE_FOR_DEVICE = 0xc0024;   // temporary reply ports, tasks
inline constexpr std::uint64_t HANDLE_FOR_CLOSE = 0x40024;    // the reply port of CloseDevice

// Registry lookups of device ports: key "run/dev/<name>", value at offset 128 of the block.
inline constexpr const char* REGISTRY_NAME = "Registry";
inline constexpr const char* DEVICE_KEY_PREFIX = "run/dev/";

// --- Opening and closing -----------------------------------------------------------------------

// The Device named, or null. Sends nothing for a null or empty name. Its temporary reply port is
// deleted in every case.
Device* OpenDevice(const char* name);

// The Device behind a port already known, or null (at once for a port of 0 or -1).
Device* OpenDeviceFromMsgPort(Handle port);

// The request port of a named device, or -1. "Registry" is answered without a lookup.
Handle GetDeviceMsgPort(const char* name);

// 0, also for null and for an address that is no memo (nothing is sent then); -1 if no reply port
// could be made, the device then staying open.
int CloseDevice(Device* device);

// The inner steps. All replies are received on reply_port, a handle the caller owns.
Device* devlib_open_device_from_msgport(Handle port, Handle reply_port);
Handle devlib_get_dev_msgport(const char* name, Handle reply_port);
// Looks up prefix + name in the registry open as device; true with *value set on success, false
// (value untouched) on failure. The request block it makes is deleted in every case.
bool devlib_intern_getkey(Device* device, Handle reply_port, const char* prefix, const char* name,
                          std::int64_t* value);
// True for exactly "Registry".
bool devlib_intern_is_registry(const char* name);
void devlib_close_device(Handle reply_port, Device* device);

// The first eight characters of name in one word, the first in the top byte, zero bytes after a
// shorter name: how a device name travels in the report of a missing device.
std::uint64_t devlib_pack_name(const char* name);

// The device of a process-wide slot (null slot: no caching), opening it under lock if need be.
// A device that can't be opened is reported to the log device and the task ends: no return.
Device* __ensureopendevice(Mutex* lock, Device** slot, const char* name);
// The same, but a failure stores and returns null.
Device* __tryopendevice(Mutex* lock, Device** slot, const char* name);

// --- Request blocks ----------------------------------------------------------------------------

// A block of size bytes (header included) on device, or null. timeout is 0xffffffff, command and
// error 0; completions of its commands go to reply_port.
IOreq* CreateIOreq(Device* device, std::uint32_t unit, std::uint8_t priority, std::uint64_t size,
                   Handle reply_port);
// 0, or -47 if the device's lock could not be taken. A broken exchange is not reported: the caller
// must treat the block as gone either way, with no command in flight.
int DeleteIOreq(IOreq* req);
// 0 or -47; sends the deletion and does not wait.
int DeleteIOreqAsync(IOreq* req);

// --- Running commands --------------------------------------------------------------------------
// Results: 0 done; 1 the device failed (status in req->error); -3 interrupted; -20 bad completion;
// -35 aborted; -47 the message could not be sent; -73 the time-out ran out.

// Starts the command; the caller waits for the completion on reply_port. 0 or -47.
int BeginIO(IOreq* req);
// Asks the device to abort the command in flight, waiting for ever (AbortIO) or up to timeout ms,
// clamped to 0..0x7fffffff, for the send. 0 or -47.
int AbortIO(IOreq* req);
int AbortIOEx(IOreq* req, std::int64_t timeout);
// Runs the command and waits for ever, passing over stray messages. On a broken exchange error
// becomes 1 (-47 send, -20 receive).
int SyncIO(IOreq* req);
// Runs the command with a bounded wait. When the wait runs out (or, with restart clear, an
// exception interrupts it) and abortable is set, the command is aborted; it still counts as done
// when the device acknowledges the abort and reports completion. -73 after a time-out, -3 after an
// interruption.
int SyncIOEx(IOreq* req, std::int64_t timeout, std::uint8_t abortable, std::uint8_t restart);
// Waits for the completion of a command begun with BeginIO. Any other message type gives -20.
int WaitIO(IOreq* req, std::int64_t timeout);

} // namespace orlix
