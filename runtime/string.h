// String functions of the system's own: those that allocate on the process heap or know the
// system's error numbers. The host's pure mem* and str* functions serve the rest.
#pragma once

namespace orlix {

// The text of an error number (platform/error_numbers.h); "<unknown error>" for a number below 0
// or above 99. The text is constant and shared: the caller must not change it.
const char* strerror(int number);

// A copy of text on the process heap, released with orlix::free; null with errno 22 when the
// heap has no room.
char* strdup(const char* text);

} // namespace orlix
