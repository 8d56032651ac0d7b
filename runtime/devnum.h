// Device numbers: the major number from bit 20 upward, the minor number in the low 20 bits.
// Pure functions, usable anywhere; the names stand in parentheses in the declarations so that
// the host's macros of the same names, should a test have them, cannot expand there.
#pragma once

#include <cstdint>

#include "platform/vfs_wire.h"

namespace orlix {

inline constexpr std::uint32_t DEVICE_MINOR_MASK = (std::uint32_t{1} << DEVICE_MINOR_BITS) - 1;

// A minor number wider than 20 bits is cut to them.
constexpr std::uint32_t(makedev)(unsigned major_number, unsigned minor_number)
{
    return static_cast<std::uint32_t>(major_number) << DEVICE_MINOR_BITS | (minor_number & DEVICE_MINOR_MASK);
}

constexpr unsigned(major)(std::uint32_t device) { return device >> DEVICE_MINOR_BITS; }

constexpr unsigned(minor)(std::uint32_t device) { return device & DEVICE_MINOR_MASK; }

static_assert((major)((makedev)(1, 3)) == 1 && (minor)((makedev)(1, 3)) == 3);
static_assert((makedev)(0xfff, 0xfffff) == 0xffffffff);

} // namespace orlix
