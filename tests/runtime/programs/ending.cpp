// The ways a process ends. argv[1] names one: "return N", "exit N", "_exit N", "abort", or "wait"
// (blocks in a read of descriptor 0 until a signal ends it). Before that, 33 exit handlers are
// registered, which print their numbers as they run.
#include <cstdlib>
#include <cstring>

#include "runtime/fd.h"
#include "runtime/process.h"
#include "runtime/stdio.h"

namespace {

int next_handler = 0;
int handler_numbers[33];

void report(void* number) { orlix::printf("handler %d\n", *static_cast<int*>(number)); }

} // namespace

int orlix::main(int argc, char** argv, char**)
{
    if (argc < 2)
        return 100;
    for (int i = 0; i < 33; ++i) {
        handler_numbers[i] = next_handler++;
        if (orlix::__cxa_atexit(report, &handler_numbers[i]) != 0)
            return 101;
    }
    int code = argc > 2 ? static_cast<int>(std::atol(argv[2])) : 0;
    if (std::strcmp(argv[1], "return") == 0)
        return code;
    if (std::strcmp(argv[1], "exit") == 0)
        orlix::exit(code);
    if (std::strcmp(argv[1], "_exit") == 0)
        orlix::_exit(code);
    if (std::strcmp(argv[1], "abort") == 0)
        orlix::abort();
    if (std::strcmp(argv[1], "wait") == 0) {
        orlix::printf("ready\n");
        orlix::fflush(orlix::__get_std_stream(1));
        char byte;
        for (;;)
            orlix::read(0, &byte, 1);
    }
    return 102;
}
