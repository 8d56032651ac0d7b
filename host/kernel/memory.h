// Memos, views and address-space reservations.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/kernel.h"

namespace host::kernel {

orlix::Handle create_memo(std::uint64_t size);
void* alloc_view(orlix::Handle memo, void* address);
orlix::Handle memo_at(const void* address);
void* reserve(std::uint64_t size);
orlix::Status release_reservation(void* address);

// A thread runs on a system stack in [base, base + size) from enter to leave; memory released
// under it meanwhile goes only when it has left.
void enter_system_stack(const void* base, std::size_t size);
void leave_system_stack(const void* base);

// Base and size of the view that holds an address; false when none does.
bool view_bounds(const void* address, void** base, std::size_t* size);

} // namespace host::kernel
