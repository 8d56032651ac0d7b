// inet_ntoa: the dotted form of an IPv4 address, in the calling thread's own buffer. System code.
#include "runtime/inet.h"

#include "runtime/format.h"
#include "runtime/thread.h"

namespace orlix {

char*(inet_ntoa)(std::uint32_t address)
{
    char* buffer = __pthread_self()->inet_buffer;
    auto bytes = reinterpret_cast<const unsigned char*>(&address);
    snprintf(buffer, sizeof(ThreadRecord::inet_buffer), "%u.%u.%u.%u", bytes[0], bytes[1], bytes[2], bytes[3]);
    return buffer;
}

} // namespace orlix
