// A signal during a blocking read. argv[1]: "interrupt" installs a handler for signal 2 that asks
// for no restart; "restart" one that does. Prints "ready", reads descriptor 0, and prints what the
// read gave and the handler's runs.
#include <cstring>

#include "runtime/errno.h"
#include "runtime/fd.h"
#include "runtime/process.h"
#include "runtime/signal.h"
#include "runtime/stdio.h"

namespace {

volatile int handled = 0;

void on_signal(int) { handled = handled + 1; }

} // namespace

int orlix::main(int argc, char** argv, char**)
{
    if (argc < 2)
        return 100;
    orlix::SigactionRecord action{on_signal, {{0, 0}}, 0};
    if (std::strcmp(argv[1], "restart") == 0)
        action.flags = orlix::SIGACTION_RESTART;
    if (orlix::sigaction(orlix::SIGNAL_INTERRUPT, &action, nullptr) != 0)
        return 101;
    orlix::printf("ready\n");
    orlix::fflush(orlix::__get_std_stream(1));
    char buffer[16];
    std::int64_t got = orlix::read(0, buffer, sizeof buffer);
    orlix::printf("read %lld errno %d handled %d\n", static_cast<long long>(got), got < 0 ? errno : 0, handled);
    return 0;
}
