// The host program's main(): boots the kernel and the device services, hands the program its
// start record on a first thread of its own, turns SIGINT and SIGTERM into the system's signal
// exception, and exits the host process with the status the supervisor heard. Host code.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <string>
#include <thread>

#include "host/devices/devices.h"
#include "host/kernel/host_kernel.h"
#include "platform/kernel.h"
#include "platform/start.h"

extern char** environ;

namespace host::loader {

namespace {

constexpr std::uint64_t FIRST_STACK_SIZE = std::uint64_t{1} << 20;
constexpr std::uint64_t FIRST_PRIORITY = 64;
constexpr std::uint64_t SIGNAL_EXCEPTION = 8;

// The command line: arguments joined by blanks, their blanks and backslashes escaped. A trailing
// empty argument needs one more blank: a blank that ends the line starts no argument.
std::string command_line(int argc, char** argv)
{
    std::string line;
    for (int i = 0; i < argc; ++i) {
        if (i > 0)
            line += ' ';
        for (const char* p = argv[i]; *p != '\0'; ++p) {
            if (*p == ' ' || *p == '\\')
                line += '\\';
            line += *p;
        }
    }
    if (argc > 1 && argv[argc - 1][0] == '\0')
        line += ' ';
    return line;
}

// The argument block: the command line, the environment, the initial working directory, an
// empty string.
std::string argument_block(int argc, char** argv)
{
    std::string block = command_line(argc, argv);
    block += '\0';
    for (char** entry = environ; *entry != nullptr; ++entry)
        if ((*entry)[0] != '=') {
            block += *entry;
            block += '\0';
        }
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) != nullptr) {
        block += "=IWD=";
        block += cwd;
        block += '\0';
    }
    block += '\0';
    return block;
}

[[noreturn]] void exit_with_task_status()
{
    std::fflush(nullptr);
    _exit(host::devices::host_exit_status(host::devices::supervisor_record()));
}

// A stack for the first thread, in a memo as the system's own stacks are.
void* first_stack_top()
{
    orlix::Handle memo = orlix::_SL_CreateMemo(0, 0, FIRST_STACK_SIZE, 0);
    void* base = memo == orlix::INVALID_HANDLE ? nullptr : orlix::_SL_AllocView(0, memo, nullptr, 0, 0, 0);
    if (base == nullptr) {
        std::fputs("loader: no memory for the first thread's stack\n", stderr);
        _exit(127);
    }
    return static_cast<char*>(base) + FIRST_STACK_SIZE;
}

// Takes SIGINT and SIGTERM, which every other thread blocks, and raises them on the first thread.
void forward_signals(sigset_t set, orlix::Handle first_thread)
{
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) == 0)
            host::kernel::raise_exception(first_thread, orlix::EXCEPTION_USER, SIGNAL_EXCEPTION,
                                          static_cast<std::uint64_t>(signal));
    }
}

} // namespace

int run(int argc, char** argv)
{
    // An ignored signal is dropped even while blocked: a shell that started us in the background
    // may have had SIGINT ignored.
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    host::devices::boot();
    host::kernel::set_task_end_hook(exit_with_task_status);

    static std::string block = argument_block(argc, argv);
    static const orlix::HeapConfig heap{1, 0, 0, 0x10000, 0x40000, 0x80000000};
    static const std::uint64_t no_dynamic[2] = {0, 0};
    static orlix::StartRecord record{};
    record.arguments = block.data();
    record.heap = &heap;
    record.exit_function = [] { exit_with_task_status(); };
    record.size = sizeof record;
    record.dynamic = no_dynamic;

    orlix::Handle first = orlix::_SL_CreateThread(0, orlix::_start, &record, FIRST_PRIORITY, first_stack_top());
    if (first == orlix::INVALID_HANDLE) {
        std::fputs("loader: the first thread could not be made\n", stderr);
        return 127;
    }
    std::thread(forward_signals, set, first).detach();
    host::devices::supervisor_wait_end(-1);
    exit_with_task_status();
}

} // namespace host::loader

int main(int argc, char** argv) { return host::loader::run(argc, argv); }
