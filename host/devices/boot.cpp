// Starting the device services once and the host's view of them: the singletons of Registry,
// tcpip, vfs, sysvc and syslog, the published registry and supervisor ports, the device names. Host code.
#include <mutex>

#include "host/devices/devices.h"
#include "host/devices/services.h"
#include "host/devices/sysvc.h"
#include "host/devices/tcpip.h"
#include "host/devices/vfs.h"
#include "host/kernel/host_kernel.h"

namespace host::devices {

orlix::Handle start_supervisor();

namespace {

// The services live as long as the process: kernel threads may use them until the very end.
struct Devices {
    Registry* registry = nullptr;
    Tcpip* tcpip = nullptr;
    Vfs* vfs = nullptr;
    Sysvc* sysvc = nullptr;
    Syslog* syslog = nullptr;
};

Devices& devices()
{
    static Devices d;
    return d;
}

std::once_flag booted;

} // namespace

void boot()
{
    std::call_once(booted, [] {
        Devices& d = devices();
        d.registry = new Registry;
        d.tcpip = new Tcpip;
        d.vfs = new Vfs;
        d.sysvc = new Sysvc;
        d.syslog = new Syslog;
        host::kernel::set_state(orlix::STATE_REGISTRY_PORT, d.registry->port());
        host::kernel::set_state(orlix::STATE_SUPERVISOR_PORT, start_supervisor());
        register_device("tcpip", d.tcpip->port());
        register_device("vfs", d.vfs->port());
        register_device("sysvc", d.sysvc->port());
        register_device("syslog", d.syslog->port());
    });
}

orlix::Handle registry_port() { return devices().registry->port(); }
orlix::Handle tcpip_port() { return devices().tcpip->port(); }
orlix::Handle vfs_port() { return devices().vfs->port(); }
orlix::Handle sysvc_port() { return devices().sysvc->port(); }
orlix::Handle syslog_port() { return devices().syslog->port(); }

void register_device(const std::string& name, orlix::Handle port)
{
    std::int64_t value = port;
    registry_set("run/dev/" + name, &value, sizeof value);
}

void registry_set(const std::string& key, const void* data, std::size_t length)
{
    devices().registry->set(key, data, length);
}

std::optional<std::vector<std::uint8_t>> registry_get(const std::string& key)
{
    std::vector<std::uint8_t> out;
    if (!devices().registry->get(key, out))
        return std::nullopt;
    return out;
}

void set_log_fd(int fd) { devices().syslog->set_fd(fd); }

std::size_t tcpip_socket_count() { return devices().tcpip->socket_count(); }

} // namespace host::devices
