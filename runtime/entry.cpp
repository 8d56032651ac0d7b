// The entry point of a program, in a file of its own: only a program that has a main links it.
// System code.
#include "platform/start.h"
#include "runtime/process.h"
#include "runtime/start.h"

namespace orlix {

void _start(void* raw)
{
    auto* record = static_cast<StartRecord*>(raw);
    int argc = 0;
    char** argv = nullptr;
    char** envp = nullptr;
    crt_startup4(record, &argc, &argv, &envp);
    crt_cleanup(main(argc, argv, envp));
    record->exit_function();
}

} // namespace orlix
