// The sysvc device: getpid, getsid and setsid for the process this host process runs; any other
// process number is unknown. Host code.
#include "host/devices/sysvc.h"

#include <unistd.h>

#include "host/devices/devices.h"
#include "platform/sysvc_wire.h"

namespace host::devices {

using namespace orlix;

Sysvc::Sysvc()
    : Service("sysvc", SYSVC_SHARED_AREA), pid_(static_cast<std::uint64_t>(::getpid())),
      session_(static_cast<std::uint64_t>(::getsid(0)))
{
}

Sysvc::~Sysvc() { shutdown(); }

Outcome Sysvc::run(Request& r)
{
    std::uint32_t command = r.block->command;
    if (command != SYSVC_GETPID && command != SYSVC_GETSID && command != SYSVC_SETSID)
        return Outcome::fail(STATUS_BAD_COMMAND);
    std::size_t size = command == SYSVC_SETSID ? sizeof(SysvcSetsidParams) : sizeof(SysvcPidParams);
    std::uint8_t* params = r.area(r.block->params, size);
    if (!params)
        return Outcome::fail(STATUS_BAD_ADDRESS);
    std::lock_guard g(lock_);
    if (command == SYSVC_SETSID) {
        // A process that leads its session already cannot start another.
        if (session_ == pid_)
            return Outcome::fail(SYSVC_STATUS_NOT_PERMITTED);
        session_ = pid_;
        reinterpret_cast<SysvcSetsidParams*>(params)->session = session_;
        return Outcome::ok();
    }
    auto* p = reinterpret_cast<SysvcPidParams*>(params);
    if (p->pid != 0 && p->pid != pid_)
        return Outcome::fail(SYSVC_STATUS_NO_PROCESS);
    p->result = command == SYSVC_GETPID ? pid_ : session_;
    return Outcome::ok();
}

} // namespace host::devices
