// A process's life as a program sees it: its entry, its environment, its exit handlers and its
// end. System code.
#pragma once

#include <cstdint>

namespace orlix {

// The program's own entry, called by the start-up with the arguments and the environment.
int main(int argc, char** argv, char** envp);

// The environment, null-terminated.
extern constinit char** environ;

// The text behind "name=" of the first entry for name, or null. Takes the process lock.
char* getenv(const char* name);
// Removes the first entry for name; 0, or -1 with errno 11 (null, empty or holding "="),
// 22 (no memory) or 23 (lock failure). The last entry moves into the gap.
int unsetenv(const char* name);

// 0, or -1 on failure (a null function, no memory for a new block).
int atexit(void (*function)());
int __cxa_atexit(void (*function)(void*), void* argument);

// Every end runs the exit handlers newest first and closes all streams, but abort.
[[noreturn]] void exit(int code);
[[noreturn]] void _exit(int code);
[[noreturn]] void _Exit(int code);
[[noreturn]] void abort();

// The process number, cached; a failure to learn it aborts.
std::int64_t getpid();

// Status words to the supervisor: exit code in bits 8 to 15, or a signal number in bits 0 to 7.
[[noreturn]] void __terminate_proc(std::uint64_t status);

} // namespace orlix
