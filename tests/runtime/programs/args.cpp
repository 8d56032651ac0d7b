// Prints its arguments one per line in brackets, then the values of the names given after "--env".
#include <cstring>

#include "runtime/process.h"
#include "runtime/stdio.h"

int orlix::main(int argc, char** argv, char**)
{
    int i = 0;
    for (; i < argc && std::strcmp(argv[i], "--env") != 0; ++i)
        orlix::printf("[%s]\n", argv[i]);
    for (++i; i < argc; ++i) {
        const char* value = orlix::getenv(argv[i]);
        orlix::printf("%s=%s\n", argv[i], value != nullptr ? value : "(unset)");
    }
    return 0;
}
