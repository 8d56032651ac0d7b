// Process numbers and sessions through the system-services device. System code.
#include "runtime/sysvc.h"

#include "platform/sysvc_wire.h"
#include "runtime/io.h"
#include "runtime/process.h"

namespace orlix {

namespace {

constexpr const char* DEFAULT_SYSVC_NAME = "sysvc";
constexpr std::uint8_t RESTART = 1;

// One command on the thread's system-services request.
template <typename Fill, typename Done> int sysvc_call(std::uint32_t command, Fill fill, Done done)
{
    ThreadRecord* self = __pthread_self();
    return static_cast<int>(__blocking_call(self, -1, [&](std::int64_t failure) -> std::int64_t {
        IoSlot* slot = &self->sysvc_io;
        if (slot->request == nullptr)
            __init_sysvc_ptio(self, slot);
        IOreq* request = slot->request;
        request->params = ioreq_area(request);
        request->command = command;
        fill(ioreq_area(request));
        if (__run_ioreq(self, request, RESTART, __sysvcw_ioreq_to_errno) != 0)
            return failure;
        done(ioreq_area(request));
        return 0;
    }));
}

} // namespace

Device* GetSystemService()
{
    if (Device* device = atomic::load(&g_sysvc_device))
        return device;
    const char* name = getenv("SYSVC_DEVICE_NAME");
    return __ensureopendevice(&g_libc_context->lock, &g_sysvc_device, name != nullptr ? name : DEFAULT_SYSVC_NAME);
}

int __sysvcerr(std::uint32_t status)
{
    if ((status & 0xff000000) == STATUS_CARRIES_ERRNO)
        return static_cast<int>(status & 0xffffff);
    switch (status) {
    case SYSVC_STATUS_NO_MEMORY: return ERR_NOMEM;
    case SYSVC_STATUS_INVALID: case SYSVC_STATUS_BAD_ARGUMENT: case SYSVC_STATUS_BAD_STATE: return ERR_INVAL;
    case SYSVC_STATUS_NO_DEVICE: return ERR_NODEV;
    case SYSVC_STATUS_NO_PROCESS: return ERR_SRCH;
    case SYSVC_STATUS_NOT_PERMITTED: return ERR_PERM;
    default: return ERR_NXIO;
    }
}

int __sysvcw_ioreq_to_errno(const IOreq* request) { return __sysvcerr(request->error); }

int sysvcw_getpid(std::uint64_t pid, std::uint64_t* out)
{
    return sysvc_call(
        SYSVC_GETPID,
        [&](std::uint8_t* params) {
            auto* p = reinterpret_cast<SysvcPidParams*>(params);
            p->pid = pid;
            p->result = 0;
        },
        [&](std::uint8_t* params) { *out = reinterpret_cast<SysvcPidParams*>(params)->result; });
}

int sysvcw_getsid(std::uint64_t pid, std::uint64_t* out)
{
    return sysvc_call(
        SYSVC_GETSID,
        [&](std::uint8_t* params) {
            auto* p = reinterpret_cast<SysvcPidParams*>(params);
            p->pid = pid;
            p->result = 0;
        },
        [&](std::uint8_t* params) { *out = reinterpret_cast<SysvcPidParams*>(params)->result; });
}

int sysvcw_setsid(std::uint64_t* out)
{
    return sysvc_call(
        SYSVC_SETSID, [](std::uint8_t* params) { reinterpret_cast<SysvcSetsidParams*>(params)->session = 0; },
        [&](std::uint8_t* params) { *out = reinterpret_cast<SysvcSetsidParams*>(params)->session; });
}

std::int64_t setsid()
{
    if (_SL_GetState(STATE_SUPERVISOR_PORT) == 0) {
        errno = ERR_NXIO;
        return -1;
    }
    std::uint64_t session = 0;
    return sysvcw_setsid(&session) == 0 ? static_cast<std::int64_t>(session) : -1;
}

std::int64_t getsid(std::uint64_t pid)
{
    std::uint64_t session = 0;
    return sysvcw_getsid(pid, &session) == 0 ? static_cast<std::int64_t>(session) : -1;
}

std::int64_t getpid()
{
    LibcContext* context = g_libc_context;
    if (context->pid > 0)
        return context->pid;
    std::uint64_t pid = 0;
    if (sysvcw_getpid(0, &pid) != 0)
        abort();
    context->pid = static_cast<std::int64_t>(pid);
    return context->pid;
}

} // namespace orlix
