// daemon(0, 0): prints "detaching", detaches, and reports by its status: 0 when the working
// directory is "/", descriptors 0 to 2 lead to a character device and the process leads its own
// session; with no VFS device only the session is asked for.
#include "runtime/files.h"
#include "runtime/process.h"
#include "runtime/stdio.h"
#include "runtime/sysvc.h"
#include "runtime/vfs.h"

int orlix::main(int, char**, char**)
{
    orlix::printf("detaching\n");
    orlix::fflush(orlix::__get_std_stream(1));
    bool have_vfs = orlix::GetVFSDev_try() != nullptr;
    if (orlix::daemon(0, 0) != 0)
        return 1;
    int failures = 0;
    if (have_vfs) {
        char where[4096];
        if (orlix::realpath(".", where) == nullptr || where[0] != '/' || where[1] != '\0')
            failures |= 2;
        for (int fd = 0; fd <= 2; ++fd) {
            struct orlix::stat st;
            if (orlix::fstat(fd, &st) != 0 || (st.st_mode & orlix::MODE_TYPE) != orlix::MODE_CHAR)
                failures |= 4;
        }
        if (orlix::printf("gone\n") < 0)
            failures |= 8;
        orlix::fflush(orlix::__get_std_stream(1));
    }
    if (orlix::getsid(0) != orlix::getpid())
        failures |= 16;
    return failures;
}
