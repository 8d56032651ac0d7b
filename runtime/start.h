// The steps of a process's start and orderly end, each usable on its own by tests. System code.
#pragma once

#include <cstdint>

#include "platform/start.h"
#include "runtime/context.h"

namespace orlix {

// Start-up in its order: heap, context, saved record fields, arguments and environment, the
// registry entry, exceptions, signals and standard streams, the supervisor's start message,
// constructors, errno 0.
void crt_startup4(StartRecord* record, int* argc, char*** argv, char*** envp);

// Copies the record fields from offset 32 on that its size says exist into crt_args.
void crt_save_crtarg(LibcContext* context, const StartRecord* record);

// Cuts the argument block into argc, argv and the environment, and takes the "=" instructions.
// Blanks separate arguments (each starts one, a trailing one none), a backslash makes the next
// character literal. Failure ends the task.
void crt_extract_argv(const char* block, int* argc, char*** argv, char*** envp);

// Publishes the program under "run/proc/<task handle in hex>" with its name's last component.
void crt_tname(const char* name);

// environ, exceptions, signals, the random state and the standard streams.
void __libc_context_postinit(LibcContext* context);

// Tells the supervisor that start-up is finished.
void crt_init_complete();

// Runs the initialiser arrays of the loaded modules, then the program's own.
void crt_call_ctors(const StartRecord* record);

// The orderly end: exit handlers newest first, then every stream closed.
void __libc_context_cleanup(LibcContext* context);

// The end after a return from main: cleanup, the status to the supervisor, the task deleted. It
// does not return; should it, _start calls the record's exit function.
void crt_cleanup(int code);

// Registry commands on the Registry's shared channel; 1 done, 0 failed (nothing is sent when the
// name or value does not fit).
int RegCreateTmp(Device* registry, const char* path);
int RegSetKeyBin(Device* registry, const char* key, const void* data, std::uint32_t length);
int RegCreateGuard(Device* registry, const char* key, std::uint32_t value);

} // namespace orlix
