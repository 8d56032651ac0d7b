// Opening the process's TCP device. System code.
#include "platform/atomic.h"
#include "platform/device_client.h"
#include "runtime/context.h"
#include "runtime/process.h"
#include "runtime/tcp_client.h"

namespace orlix {

Device* GetTCPDev()
{
    if (Device* device = atomic::load(&g_tcp_device))
        return device;
    // getenv takes the process lock, which the opening holds: the name comes first.
    const char* name = getenv("TCPIP_DEVICE_NAME");
    Device* device = __ensureopendevice(&g_libc_context->lock, &g_tcp_device, name != nullptr ? name : "tcpip");
    td_inheritparsocks(device, 0);
    return device;
}

} // namespace orlix
