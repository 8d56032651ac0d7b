// Streams over descriptors: buffered reading and writing, the standard streams, and formatted
// output through the runtime's own formatter. System code.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "platform/mutex.h"
#include "runtime/format.h"
#include "runtime/list.h"
#include "runtime/stream_mode.h"

namespace orlix {

struct LibcContext;
struct ThreadRecord;

enum class Buffering : std::uint8_t { full, line, none };

struct FILE {
    ListHead link;           // in the context's streams
    ListHead lock_link;      // in the locked_streams of the thread holding it
    int fd;
    int flags;               // stream flags of the mode
    Buffering buffering;
    bool reading;            // the buffer holds read-ahead bytes, else bytes to write
    bool error;
    bool eof;
    Mutex lock;
    ThreadRecord* owner;     // the thread that holds lock by flockfile
    char* buffer;
    std::size_t size;
    std::size_t start;       // reading: next byte; writing: unused
    std::size_t end;         // bytes in the buffer
};

inline constexpr int EOF_VALUE = -1;
inline constexpr std::size_t STREAM_BUFFER_SIZE = 4096;

// The standard streams (0, 1, 2), null for any other number.
FILE* __get_std_stream(int number);

FILE* fopen(const char* path, const char* mode);
FILE* fdopen(int fd, const char* mode);
int fclose(FILE* stream);
// Writes out what is buffered; null flushes every stream under the process lock.
int fflush(FILE* stream);
char* fgets(char* buffer, int size, FILE* stream);
int fputs(const char* text, FILE* stream);
int fputc(int c, FILE* stream);
int puts(const char* text);
std::size_t fwrite(const void* data, std::size_t size, std::size_t count, FILE* stream);
std::size_t fread(void* data, std::size_t size, std::size_t count, FILE* stream);
int setvbuf_mode(FILE* stream, Buffering buffering);
void flockfile(FILE* stream);
void funlockfile(FILE* stream);

int printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
int fprintf(FILE* stream, const char* format, ...) __attribute__((format(printf, 2, 3)));
int vfprintf(FILE* stream, const char* format, std::va_list args);

// Start-up: descriptors 0, 1, 2 opened from the context's files where they aren't open, then the
// standard streams; a failure logs and exits with status 123.
void __fsi_init_std(LibcContext* context);
// The standard streams made anew over 0, 1, 2; 0, or -1 when one can't be made.
int __fsi_open_std_streams(LibcContext* context);
// Writes out and frees a stream, leaving its descriptor open.
void __fsi_discard(FILE* stream);
// Closes every stream, one at a time.
void __fsi_fcloseall();
// Releases the streams a dying thread holds locked.
void __fsi_unlock_thread_streams(ThreadRecord* thread);

} // namespace orlix
