// The test programs' direct line to the host platform. Host code.
#include "tests/runtime/programs/host_hooks.h"

#include "host/kernel/host_kernel.h"

namespace test_hooks {

void raise_signal(std::int64_t thread, int signal)
{
    host::kernel::raise_exception(thread, orlix::EXCEPTION_USER, 8, static_cast<std::uint64_t>(signal));
}

std::uint64_t live_objects() { return host::kernel::live_object_count(); }

} // namespace test_hooks
