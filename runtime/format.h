// The system's formatter: one engine behind sprintf and its relatives, writing to a sink so that
// streams can sit on it too. Integers, characters, strings and pointers; no floating point.
// Touches nothing but the sink, the arguments and, on failure, errno.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace orlix {

// Where formatted text goes. put receives the text in pieces, in order, none of them empty; a
// piece is not terminated and may hold a zero byte (from "%c" of 0). A sink that needs more state
// embeds this record as its base.
struct FormatSink {
    void (*put)(FormatSink* sink, const char* text, std::size_t length);
};

// Formats into the sink: conversions d i u o x X c s p %, flags - 0 + blank #, width and
// precision (also *), lengths hh h l ll z j t. As the host's library does, an unknown conversion
// is copied out as written, a null "%s" prints "(null)" (nothing under a precision below 6) and a
// null "%p" "(nil)". Returns the number of characters produced, or -1 with errno 11 for a
// directive cut off by the end of the format and with errno 8 when the count would not fit an
// int; the text before the failing directive has then reached the sink. Reads a copy of args.
int __vformat(FormatSink* sink, const char* format, std::va_list args);

// C99 results: the length the whole text has, also when snprintf cuts it; with size > 0 the
// output is always terminated, with size 0 nothing is written (out may then be null).
int sprintf(char* out, const char* format, ...) __attribute__((format(printf, 2, 3)));
int snprintf(char* out, std::size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));
int vsprintf(char* out, const char* format, std::va_list args) __attribute__((format(printf, 2, 0)));
int vsnprintf(char* out, std::size_t size, const char* format, std::va_list args)
    __attribute__((format(printf, 3, 0)));

} // namespace orlix
