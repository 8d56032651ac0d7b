// The mode text of a stream, turned into the open flags of the VFS device (platform/vfs_wire.h)
// and the stream's own flags. Pure functions; a bad mode sets errno.
#pragma once

namespace orlix {

// Bits of the stream flags that the parsers give meaning to; the others belong to the stream layer.
inline constexpr int STREAM_NO_WRITE = 1;
inline constexpr int STREAM_NO_READ = 2;
inline constexpr int STREAM_APPEND = 16;
inline constexpr int STREAM_CLOSE_ON_EXEC = 1024; // the same bit as the open flag

// For fopen and fdopen: "r", "r+", "w", "w+", "a" or "a+", then optionally one "t" or "b", then,
// only behind that, optionally "e" for close on exec. Returns the open flags and writes
// *stream_flags; -1 with errno 11 for any other mode, *stream_flags left alone.
int __fsi_parse_mode_f(const char* mode, int* stream_flags);

// For pipes: "r", "w", "re" or "we" only; otherwise as above.
int __fsi_parse_mode_p(const char* mode, int* stream_flags);

} // namespace orlix
