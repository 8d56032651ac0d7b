// strdup on the process heap.
#include "runtime/string.h"

#include <cstring>

#include "runtime/heap.h"

namespace orlix {

char* strdup(const char* text)
{
    const std::size_t size = std::strlen(text) + 1;
    auto* copy = static_cast<char*>(orlix::malloc(size)); // sets errno 22 when it fails
    if (copy != nullptr)
        std::memcpy(copy, text, size);
    return copy;
}

} // namespace orlix
