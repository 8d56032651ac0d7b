// The environment: a null-terminated vector of "name=value" texts, first inside the block the
// loader gave, copied to the heap at the first change. System code; takes the process lock.
#include <cstring>

#include "memheap/memheap.h"
#include "platform/kernel_wrappers.h"
#include "runtime/context.h"
#include "runtime/errno.h"
#include "runtime/heap.h"
#include "runtime/process.h"

namespace orlix {

constinit char** environ = nullptr;

namespace {

// The text behind "name=" in entry, or null.
char* value_of(char* entry, const char* name, std::size_t length)
{
    if (std::strncmp(entry, name, length) != 0 || entry[length] != '=')
        return nullptr;
    return entry + length + 1;
}

std::size_t entry_count(char** vector)
{
    std::size_t count = 0;
    while (vector != nullptr && vector[count] != nullptr)
        ++count;
    return count;
}

// Moves the vector to the heap and gives every entry a state byte, 0: its text is not the heap's.
bool __libci_env_build_states_unlocked(LibcContext* context)
{
    heap_state* heap = e_getheap_of(context);
    std::size_t count = entry_count(context->environ);
    auto* vector = static_cast<char**>(nheap_alloc(heap, (count + 1) * sizeof(char*)));
    auto* states = static_cast<std::uint8_t*>(nheap_alloc(heap, count != 0 ? count : 1));
    if (vector == nullptr || states == nullptr) {
        nheap_free(heap, vector);
        nheap_free(heap, states);
        return false;
    }
    if (count != 0)
        std::memcpy(vector, context->environ, count * sizeof(char*));
    vector[count] = nullptr;
    std::memset(states, 0, count != 0 ? count : 1);
    context->environ = vector;
    context->env_states = states;
    environ = vector;
    return true;
}

// Removes entry i: the last entry and its state byte move into the gap.
void __libci_env_delete_unlocked(LibcContext* context, std::size_t i)
{
    heap_state* heap = e_getheap_of(context);
    char** vector = context->environ;
    std::uint8_t* states = context->env_states;
    std::size_t last = entry_count(vector) - 1;
    if (states[i] == 1)
        nheap_free(heap, vector[i]);
    vector[i] = vector[last];
    states[i] = states[last];
    vector[last] = nullptr;
    // Shrinking keeps at least one state byte: a release at size 0 would lose the block.
    if (auto* smaller = static_cast<char**>(nheap_realloc(heap, vector, (last + 1) * sizeof(char*))))
        vector = smaller;
    if (auto* fewer = static_cast<std::uint8_t*>(nheap_realloc(heap, states, last != 0 ? last : 1)))
        states = fewer;
    context->environ = vector;
    context->env_states = states;
    environ = vector;
}

} // namespace

char* getenv(const char* name)
{
    LibcContext* context = g_libc_context;
    if (name == nullptr)
        return nullptr;
    if (MutexLock(&context->lock) != MUTEX_OK) {
        errno = ERR_BUSY;
        return nullptr;
    }
    std::size_t length = std::strlen(name);
    char* found = nullptr;
    for (char** entry = context->environ; entry != nullptr && *entry != nullptr && found == nullptr; ++entry)
        found = value_of(*entry, name, length);
    MutexUnlock(&context->lock);
    return found;
}

int unsetenv(const char* name)
{
    if (name == nullptr || *name == '\0' || std::strchr(name, '=') != nullptr) {
        errno = ERR_INVAL;
        return -1;
    }
    LibcContext* context = g_libc_context;
    if (MutexLock(&context->lock) != MUTEX_OK) {
        errno = ERR_BUSY;
        return -1;
    }
    if (context->env_states == nullptr && !__libci_env_build_states_unlocked(context)) {
        MutexUnlock(&context->lock);
        errno = ERR_NOMEM;
        return -1;
    }
    std::size_t length = std::strlen(name);
    for (std::size_t i = 0; context->environ[i] != nullptr; ++i) {
        if (value_of(context->environ[i], name, length) != nullptr) {
            __libci_env_delete_unlocked(context, i);
            break;
        }
    }
    MutexUnlock(&context->lock);
    return 0;
}

} // namespace orlix
