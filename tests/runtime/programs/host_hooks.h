// What the test programs ask of the host platform directly, as an outside party would: raise a
// signal on a thread, count kernel objects. Plain types only, so that system code can include it.
#pragma once

#include <cstdint>

namespace test_hooks {

// Raises the signal exception (user exception 8) with the number on a kernel thread.
void raise_signal(std::int64_t thread, int signal);
// Number of live kernel objects.
std::uint64_t live_objects();

} // namespace test_hooks
