// AllocMemory/FreeMemory over the kernel's memo objects: a memo and one view of it per block.
// Touches only the kernel's memo entries.
#include "platform/memory.h"

#include "platform/kernel.h"
#include "platform/kernel_wrappers.h"

namespace orlix {

void* AllocMemory(std::uint64_t size)
{
    Handle memo = _SL_CreateMemo(0, 0, size, 0);
    if (memo == INVALID_HANDLE)
        return nullptr;
    void* view = _SL_AllocView(0, memo, nullptr, 0, 0, 0);
    if (view == nullptr) {
        DeleteMemo(memo, 0x20000);
        return nullptr;
    }
    return view;
}

void FreeMemory(void* block)
{
    Handle memo = _SL_GetAddressMemo(0, block, 2);
    if (memo == INVALID_HANDLE)
        return;
    DeleteMemo(memo, 0x20000);
}

} // namespace orlix
