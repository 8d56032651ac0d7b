// The smallest program: prints through the runtime's printf and ends with the status given as
// its first argument.
#include <cstdlib>

#include "runtime/process.h"
#include "runtime/stdio.h"

int orlix::main(int argc, char** argv, char**)
{
    orlix::printf("hello from %s with %d arguments\n", argv[0], argc);
    return argc > 1 ? static_cast<int>(std::atol(argv[1])) : 0;
}
