// Byte order of the network (big-endian) and of this machine, and the dotted form of an address.
// The names stand in parentheses in the declarations so that the host's macros of the same
// names, should a test have them, cannot expand there.
#pragma once

#include <bit>
#include <cstdint>

namespace orlix {

constexpr std::uint16_t(htons)(std::uint16_t host)
{
    return std::endian::native == std::endian::big ? host : __builtin_bswap16(host);
}

constexpr std::uint32_t(htonl)(std::uint32_t host)
{
    return std::endian::native == std::endian::big ? host : __builtin_bswap32(host);
}

constexpr std::uint16_t(ntohs)(std::uint16_t network) { return (htons)(network); }

constexpr std::uint32_t(ntohl)(std::uint32_t network) { return (htonl)(network); }

// The dotted form of an IPv4 address in network order, in the calling thread's own buffer, which
// the thread's next call overwrites.
char*(inet_ntoa)(std::uint32_t address);

} // namespace orlix
