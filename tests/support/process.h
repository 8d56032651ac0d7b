// For test and benchmark programs that call into the runtime without a loader: the process gets its
// context once, and each thread that calls system code gets a record, as the start-up and
// pthread_create would give them. Test code.
#pragma once

namespace orlix::test {

// Makes sure the process has a context and the calling thread a record; idempotent.
void attach_thread();

} // namespace orlix::test
