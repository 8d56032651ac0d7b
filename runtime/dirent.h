// Directory streams over the VFS device. System code.
#pragma once

#include <cstdint>

namespace orlix {

// The record readdir returns; d_off is always 0 and d_reclen the name's length + 19.
struct dirent {
    std::uint64_t d_ino;
    std::uint64_t d_off;
    std::uint16_t d_reclen;
    std::uint8_t d_type;
    char d_name[256];
};

// The stream: one block with the descriptor and the record of the last read.
struct DIR {
    std::int32_t fd;
    dirent entry;
};

DIR* opendir(const char* path);
// The next entry in the stream's own record, null at the end (errno untouched) or on failure.
dirent* readdir(DIR* dir);
// 0 with *result the entry or null at the end; -1 on failure.
int readdir_r(DIR* dir, dirent* entry, dirent** result);
// Closes the descriptor and frees the stream; always 0.
int closedir(DIR* dir);

} // namespace orlix
