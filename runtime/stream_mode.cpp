// The two tables of stream modes: for files, and for pipes.
#include "runtime/stream_mode.h"

#include <cstring>

#include "platform/vfs_wire.h"
#include "runtime/errno.h"

namespace orlix {

namespace {

constexpr int ERROR_INVALID = 11;

struct ModeRow {
    const char* letters;
    std::uint32_t open_flags;
    int stream_flags;
};

constexpr ModeRow FILE_MODES[] = {
    {"r", OPEN_READ, STREAM_NO_WRITE},
    {"r+", OPEN_READ | OPEN_WRITE, 0},
    {"w", OPEN_CREATE | OPEN_WRITE | OPEN_TRUNCATE, 98},
    {"w+", OPEN_CREATE | OPEN_READ | OPEN_WRITE | OPEN_TRUNCATE, 96},
    {"a", OPEN_APPEND | OPEN_CREATE | OPEN_WRITE, 178},
    {"a+", OPEN_APPEND | OPEN_CREATE | OPEN_READ | OPEN_WRITE, 48},
};

constexpr ModeRow PIPE_MODES[] = {
    {"r", OPEN_READ, 513},
    {"w", OPEN_WRITE, 514},
    {"re", OPEN_READ | OPEN_CLOEXEC, 1537},
    {"we", OPEN_WRITE | OPEN_CLOEXEC, 1538},
};

static_assert(STREAM_CLOSE_ON_EXEC == OPEN_CLOEXEC);

int bad_mode()
{
    errno = ERROR_INVALID;
    return -1;
}

// What may follow a file mode's letters: nothing, "t", "b", "te" or "be". The close-on-exec flag
// that the rest asks for (0 or 1024), or -1 if it is none of those.
int file_mode_suffix(const char* rest)
{
    if (*rest == '\0')
        return 0;
    if (*rest != 't' && *rest != 'b')
        return -1;
    if (rest[1] == '\0')
        return 0;
    return rest[1] == 'e' && rest[2] == '\0' ? static_cast<int>(OPEN_CLOEXEC) : -1;
}

} // namespace

int __fsi_parse_mode_f(const char* mode, int* stream_flags)
{
    for (const ModeRow& row : FILE_MODES) {
        const std::size_t length = std::strlen(row.letters);
        if (std::strncmp(mode, row.letters, length) != 0)
            continue;
        const int close_on_exec = file_mode_suffix(mode + length);
        if (close_on_exec < 0)
            continue; // "r" fails on "r+...", which the next row takes
        *stream_flags = row.stream_flags | close_on_exec;
        return static_cast<int>(row.open_flags) | close_on_exec;
    }
    return bad_mode();
}

int __fsi_parse_mode_p(const char* mode, int* stream_flags)
{
    for (const ModeRow& row : PIPE_MODES) {
        if (std::strcmp(mode, row.letters) == 0) {
            *stream_flags = row.stream_flags;
            return static_cast<int>(row.open_flags);
        }
    }
    return bad_mode();
}

} // namespace orlix
