// Stand-in for the process heap until the runtime's context exists: one kernel memo per block,
// its size kept in a 16-byte head.
#include "runtime/malloc.h"

#include <cstdint>
#include <cstring>

#include "platform/kernel.h"
#include "platform/kernel_wrappers.h"
#include "runtime/errno.h"

namespace orlix {

namespace {
constexpr std::size_t HEAD = 16;
constexpr int ERROR_NO_SPACE = 22;
constexpr int ERROR_INVALID = 11;

std::size_t block_size(void* block) { return *reinterpret_cast<std::size_t*>(static_cast<char*>(block) - HEAD); }
} // namespace

void* malloc(std::size_t size)
{
    if (size > SIZE_MAX - HEAD) {
        errno = ERROR_NO_SPACE;
        return nullptr;
    }
    Handle memo = _SL_CreateMemo(0, 0, size + HEAD, 0);
    void* view = memo == INVALID_HANDLE ? nullptr : _SL_AllocView(0, memo, nullptr, 0, 0, 0);
    if (view == nullptr) {
        if (memo != INVALID_HANDLE)
            DeleteMemo(memo, 0x20000);
        errno = ERROR_NO_SPACE;
        return nullptr;
    }
    *static_cast<std::size_t*>(view) = size;
    return static_cast<char*>(view) + HEAD;
}

void free(void* block)
{
    if (block == nullptr)
        return;
    Handle memo = _SL_GetAddressMemo(0, static_cast<char*>(block) - HEAD, 2);
    if (memo != INVALID_HANDLE)
        DeleteMemo(memo, 0x20000);
}

void* calloc(std::size_t count, std::size_t size)
{
    if (size == 0 || count >= SIZE_MAX / size) {
        errno = ERROR_INVALID;
        return nullptr;
    }
    void* block = malloc(count * size);
    if (block != nullptr)
        std::memset(block, 0, count * size);
    return block;
}

void* realloc(void* block, std::size_t size)
{
    if (block == nullptr)
        return malloc(size);
    if (size == 0) {
        free(block);
        errno = ERROR_NO_SPACE;
        return nullptr;
    }
    void* moved = malloc(size);
    if (moved == nullptr)
        return nullptr;
    std::size_t old = block_size(block);
    std::memcpy(moved, block, old < size ? old : size);
    free(block);
    return moved;
}

} // namespace orlix
