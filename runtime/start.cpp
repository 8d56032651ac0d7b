// The start of a process: the entry point the loader calls, the start-up in its order, the
// fields of the start record kept, and the initialiser arrays of the modules. System code.
#include "runtime/start.h"

#include "runtime/context.h"
#include "runtime/errno.h"
#include "runtime/process.h"
#include "runtime/signal.h"
#include "runtime/stdio.h"

namespace orlix {

namespace {

constexpr std::uint64_t DEFAULT_INITIAL_SIZE = 0x10000;
constexpr std::uint64_t DEFAULT_GROW_SIZE = 0x40000;
constexpr std::uint64_t DEFAULT_MAX_HEAP_SIZE = 0x80000000;
constexpr std::uint64_t RECORD_SIZE_LIMIT = 3583;
constexpr std::uint64_t MODULE_SIZE_MIN = 41;

// A field of the start record at offset exists when the size reaches `needs`.
bool has_field(const StartRecord* record, std::uint64_t needs)
{
    return record->size >= needs && record->size <= RECORD_SIZE_LIMIT;
}

// Calls the initialiser array a dynamic table names, if both its tags are set.
void call_initialisers(const std::uint64_t* dynamic, std::uint64_t load_base)
{
    if (dynamic == nullptr)
        return;
    std::uint64_t array = 0;
    std::uint64_t size = 0;
    for (const std::uint64_t* entry = dynamic; entry[0] != 0; entry += 2) {
        if (entry[0] == DYNAMIC_INIT_ARRAY)
            array = entry[1];
        else if (entry[0] == DYNAMIC_INIT_ARRAY_SIZE)
            size = entry[1];
    }
    if (array == 0 || size == 0)
        return;
    auto* functions = reinterpret_cast<void (**)()>(load_base + array);
    for (std::uint64_t i = 0; i < size / sizeof(std::uint64_t); ++i)
        functions[i]();
}

} // namespace

void crt_save_crtarg(LibcContext* context, const StartRecord* record)
{
    struct Field {
        std::uint64_t value;
        std::uint64_t needs;
    };
    const Field fields[] = {
        {reinterpret_cast<std::uint64_t>(record->dynamic), 33}, {record->word40, 49}, {record->load_base, 49},
        {record->word64, 65}, {record->word72, 73}, {record->word80, 81},
    };
    for (std::size_t i = 0; i < sizeof fields / sizeof fields[0]; ++i)
        if (has_field(record, fields[i].needs))
            context->crt_args[i] = fields[i].value;
}

void crt_call_ctors(const StartRecord* record)
{
    if (has_field(record, 57)) {
        for (const ModuleRecord* module = record->modules; module != nullptr; module = module->next)
            if (module->size >= MODULE_SIZE_MIN && module->size <= RECORD_SIZE_LIMIT)
                call_initialisers(module->dynamic, module->load_base);
    }
    if (has_field(record, 49))
        call_initialisers(record->dynamic, record->load_base);
}

void __libc_context_postinit(LibcContext* context)
{
    environ = context->environ;
    libc_init_exception(context);
    libc_install_sighandlers(context);
    context->random_state = (std::uint64_t{context->seed48[2]} << 32) | (std::uint64_t{context->seed48[1]} << 16) |
                            context->seed48[0];
    __fsi_init_std(context);
}

void crt_startup4(StartRecord* record, int* argc, char*** argv, char*** envp)
{
    std::uint64_t initial_size = DEFAULT_INITIAL_SIZE;
    std::uint64_t grow_size = DEFAULT_GROW_SIZE;
    std::uint64_t max_heap_size = DEFAULT_MAX_HEAP_SIZE;
    if (record->heap != nullptr && record->heap->enabled != 0) {
        initial_size = record->heap->initial_size;
        grow_size = record->heap->grow_size;
        max_heap_size = record->heap->max_heap_size;
    }
    LibcContext* context = __initcontext(initial_size, grow_size, max_heap_size);
    g_libc_context = context;
    crt_save_crtarg(context, record);
    crt_extract_argv(record->arguments, argc, argv, envp);
    crt_tname((*argv)[0]);
    __libc_context_postinit(context);
    crt_init_complete();
    crt_call_ctors(record);
    errno = 0;
}

} // namespace orlix
