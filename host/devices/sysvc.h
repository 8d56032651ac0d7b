// The sysvc device service: process numbers and sessions of the one system process that this host
// process runs. Sessions are emulated: the host's own session and terminal are never changed, so a
// Ctrl-C at the host's terminal still reaches the program. Host code.
#pragma once

#include <cstdint>
#include <mutex>

#include "host/devices/framework.h"

namespace host::devices {

class Sysvc final : public Service {
public:
    Sysvc();
    ~Sysvc() override;

private:
    Outcome run(Request& r) override;

    const std::uint64_t pid_;  // the host's process id is the process number
    std::mutex lock_;
    std::uint64_t session_;    // the host's session at first, the process number after setsid
};

} // namespace host::devices
