// daemon: detaching without a new process. The process number, its threads and its ports stay;
// the caller goes on where it was. System code.
#include "runtime/context.h"
#include "runtime/fd.h"
#include "runtime/files.h"
#include "runtime/stdio.h"
#include "runtime/sysvc.h"
#include "runtime/vfs.h"

namespace orlix {

namespace {

constexpr std::uint32_t TERMINAL_FLAGS = OPEN_NOCTTY | OPEN_WRITE | OPEN_READ; // 268

// Gives up the controlling terminal, if there is one to open.
int drop_terminal()
{
    int fd = open("/dev/tty", TERMINAL_FLAGS);
    if (fd < 0)
        return 0;
    ioctl(fd, IOCTL_DROP_TERMINAL, 0);
    close(fd);
    return 0;
}

} // namespace

int daemon(int nochdir, int noclose)
{
    if (GetVFSDev_try() == nullptr) {
        setsid();
        return 0;
    }
    if (nochdir == 0 && chdir("/") != 0)
        return -1;
    if (noclose != 0) {
        setsid();
        return drop_terminal();
    }
    int null = open("/dev/null", TERMINAL_FLAGS);
    if (null < 0)
        return -1;
    bool moved = true;
    for (int fd = 0; fd <= 2 && moved; ++fd)
        moved = dup2(null, fd) >= 0;
    if (null >= 3)
        close(null);
    bool streams = __fsi_open_std_streams(g_libc_context) == 0;
    if (!moved || !streams)
        return -1;
    setsid();
    return drop_terminal();
}

} // namespace orlix
