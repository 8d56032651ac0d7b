// Signals on the kernel's exceptions: the exception table of the process and its defaults, the
// signal table, the per-thread signal queue, and the stop gate. A signal that arrives while its
// thread sits in a blocking call is queued and run once the call has been unwound. System code.
#pragma once

#include <cstdint>

#include "platform/kernel.h"
#include "runtime/thread.h"

namespace orlix {

struct LibcContext;

inline constexpr int SIGNAL_MAX = 64;
inline constexpr int FIRST_COUNTED_SIGNAL = 32;

// Signal numbers the runtime itself acts on.
inline constexpr int SIGNAL_INTERRUPT = 2;
inline constexpr int SIGNAL_ABORT = 6;
inline constexpr int SIGNAL_KILL = 9;
inline constexpr int SIGNAL_TERMINATE = 15;
inline constexpr int SIGNAL_CONTINUE = 18;
inline constexpr int SIGNAL_STOP = 19;

// Exception numbers of the user class.
inline constexpr std::uint64_t EXCEPTION_SIGNAL = 8;
inline constexpr std::uint64_t EXCEPTION_DEBUG_CONSOLE = 9;
inline constexpr std::uint64_t EXCEPTION_DEBUG_BREAK = 10;
inline constexpr std::uint64_t EXCEPTION_CANCEL = 12;
// Exception number of the system class for a breakpoint.
inline constexpr std::uint64_t EXCEPTION_BREAKPOINT = 3;

// Status of a handler: 0 handled, 15 not handled.
inline constexpr std::uint64_t EXCEPTION_HANDLED = 0;
inline constexpr std::uint64_t EXCEPTION_NOT_HANDLED = 15;

inline constexpr int EXCEPTION_ENTRIES = 16;

// One entry of the exception table: the handler and its context word. The table holds the 16
// system entries, then the 16 user ones.
struct ExceptionEntry {
    ExceptionHandler handler;
    void* context_word;
};

// Flags of a signal's record.
inline constexpr std::uint32_t SIGACTION_ONE_SHOT = 0x80000000;  // good for one delivery
inline constexpr std::uint32_t SIGACTION_NO_BLOCK = 0x40000000;  // the signal isn't blocked in its handler
inline constexpr std::uint32_t SIGACTION_RESTART = 0x10000000; // restart an interrupted call

using SignalHandler = void (*)(int);

struct SigactionRecord {
    SignalHandler handler;
    SignalSet mask;
    std::uint32_t flags;
};

// Per signal 0 to 64 a word: 0 default, 1 ignore, __sigaction_anchor (use the record) or a
// handler; then a record per signal.
struct SignalTable {
    std::uintptr_t words[SIGNAL_MAX + 1];
    SigactionRecord records[SIGNAL_MAX + 1];
};

inline constexpr std::uintptr_t SIGNAL_WORD_DEFAULT = 0;
inline constexpr std::uintptr_t SIGNAL_WORD_IGNORE = 1;
// The table word that sends a signal to its record.
std::uintptr_t __sigaction_anchor();

// --- Signal sets ---------------------------------------------------------------------------------
void __sigset0(SignalSet* set);
void __sigset1(SignalSet* set); // the low 64 bits set, the high ones clear
int sigfillset(SignalSet* set);
void __sigsetSET(SignalSet* set, int bit);
void __sigsetOR(SignalSet* out, const SignalSet* a, const SignalSet* b);
bool __sigset_has(const SignalSet* set, int signal);

// --- The queue of a thread -----------------------------------------------------------------------
void __sigqueue_init(SignalQueue* queue);
void __sigqueue_add(SignalQueue* queue, int signal);
// The lowest unblocked signal queued, taken out; -1 if none.
int __sigqueue_get_next(SignalQueue* queue);

// --- Installation at start-up --------------------------------------------------------------------
void libc_init_exception(LibcContext* context);
void libc_install_sighandlers(LibcContext* context);

// Replace an entry and give the previous handler; 0 (nothing changed) for a number above 15, a
// null handler or a missing table.
ExceptionHandler setexsyshan(std::uint64_t number, ExceptionHandler handler, void* context_word);
ExceptionHandler setexusrhan(std::uint64_t number, ExceptionHandler handler, void* context_word);
void exc_enable_debugconsole(int on);
void exc_enable_gdb_break(int on);

// --- Handlers ------------------------------------------------------------------------------------
// What the kernel calls for each class: the entry of the exception's number, left through
// _SL_RetException.
std::uint64_t libc_exhan_sys(void* table, std::uint64_t number, std::uint64_t argument, std::uint64_t* word,
                             std::uint64_t fifth, std::uint64_t sixth);
std::uint64_t libc_exhan_usr(void* table, std::uint64_t number, std::uint64_t argument, std::uint64_t* word,
                             std::uint64_t fifth, std::uint64_t sixth);

// The signal exception, on the thread that got the signal. Returns 1 when the signal was queued
// for a blocking call, which then ends its wait with 310.
std::uint64_t _libc_ex_signal(void* context, std::uint64_t number, std::uint64_t signal, std::uint64_t* word,
                              std::uint64_t, std::uint64_t);

// Runs the queued signals and passes the stop gate; nonzero when the interrupted call is to end.
int __pending_sig(ThreadRecord* thread);
// Delivers one signal by its table word; the result says whether it interrupts a blocking call.
int __run_sighandler(LibcContext* context, ThreadRecord* thread, int signal);

// Registering a handler: signal() gives the previous table word as a handler (SIG_ERR-like -1 on
// a bad number, errno 11); sigaction() gives 0, or -1 with errno 11.
SignalHandler signal(int number, SignalHandler handler);
int sigaction(int number, const SigactionRecord* action, SigactionRecord* previous);

} // namespace orlix
