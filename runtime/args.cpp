// Arguments and environment out of the loader's block: a command line whose blanks separate
// arguments and whose backslashes make the next character literal, then "name=value" strings and
// "=" instructions, ended by an empty string. System code.
#include <cstring>

#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/start.h"

namespace orlix {

namespace {

struct Counts {
    int argc;
    std::size_t environment;
    std::size_t block_size; // the whole block, its closing empty string included
};

// Pass one. Every blank starts a new argument, but a blank that ends the line starts none; a lone
// backslash at the end ends the line.
Counts count_block(const char* block)
{
    Counts counts{0, 0, 0};
    const char* p = block;
    if (*p != '\0') {
        counts.argc = 1;
        for (; *p != '\0'; ++p) {
            if (*p == '\\') {
                if (p[1] == '\0')
                    break;
                ++p;
            } else if (*p == ' ' && p[1] != '\0') {
                ++counts.argc;
            }
        }
        p += std::strlen(p);
    }
    ++p;
    while (*p != '\0') {
        if (*p != '=')
            ++counts.environment;
        p += std::strlen(p) + 1;
    }
    counts.block_size = static_cast<std::size_t>(p - block) + 1;
    return counts;
}

// Pass two, in place on the copy: backslashes removed, each argument terminated.
void cut_line(char* line, char** argv)
{
    if (*line == '\0')
        return;
    char* read = line;
    char* write = line;
    int argc = 0;
    argv[argc++] = write;
    for (;;) {
        char c = *read;
        if (c == '\\') {
            if (read[1] == '\0')
                break;
            *write++ = read[1];
            read += 2;
        } else if (c == ' ') {
            *write++ = '\0';
            ++read;
            if (*read == '\0')
                break;
            argv[argc++] = write;
        } else if (c == '\0') {
            break;
        } else {
            *write++ = c;
            ++read;
        }
    }
    *write = '\0';
}

// An instruction to the runtime: "=NAME=value".
void take_instruction(LibcContext* context, char* text)
{
    struct Instruction {
        const char* prefix;
        char** field;
        bool needs_value;
    };
    const Instruction instructions[] = {
        {"=IWD=", &context->iwd, true},     {"=INFN=", &context->infn, true},
        {"=OUTFN=", &context->outfn, true}, {"=ERRFN=", &context->errfn, true},
        {"=FDINIT=", &context->fdinit, false},
    };
    for (const Instruction& instruction : instructions) {
        std::size_t length = std::strlen(instruction.prefix);
        if (std::strncmp(text, instruction.prefix, length) != 0)
            continue;
        char* value = text + length;
        if (!instruction.needs_value || *value != '\0')
            *instruction.field = value;
        return;
    }
}

} // namespace

void crt_extract_argv(const char* block, int* argc, char*** argv, char*** envp)
{
    LibcContext* context = g_libc_context;
    Counts counts = count_block(block);
    std::size_t table_size = (static_cast<std::size_t>(counts.argc) + counts.environment + 2) * sizeof(char*);

    Handle memo = _SL_CreateMemo(0, 0, table_size + counts.block_size, 0);
    if (memo == INVALID_HANDLE)
        DeleteTask(0);
    auto* table = static_cast<char**>(_SL_AllocView(0, memo, nullptr, 0, 0, 0));
    if (table == nullptr)
        DeleteTask(0);
    char* copy = reinterpret_cast<char*>(table) + table_size;
    std::memcpy(copy, block, counts.block_size);

    char* strings = copy + std::strlen(copy) + 1;
    cut_line(copy, table);
    table[counts.argc] = nullptr;
    char** environment = table + counts.argc + 1;
    std::size_t n = 0;
    for (char* s = strings; *s != '\0'; s += std::strlen(s) + 1) {
        if (*s == '=')
            take_instruction(context, s);
        else
            environment[n++] = s;
    }
    environment[n] = nullptr;

    context->environ = environment;
    *argc = counts.argc;
    *argv = table;
    *envp = environment;
}

} // namespace orlix
