// The listing formats, apart from the command that sends them so that they can be checked on
// made-up records. System code.
#pragma once

#include <cstdint>

#include "runtime/files.h"

namespace orlix {

extern const char* const month[12];

// The LIST line of an entry up to its name included: type, permissions, " 1 ", owner, group,
// size or device numbers, UTC date with the year. Returns the end; nothing is terminated.
char* ftpd_format_list(char* out, const struct stat* st, const char* name);

// The facts of an MLSD line, each ended by ";", and the blank after the last. target and its
// stat record are those of a symbolic link's target when they could be read, else null.
char* ftpd_format_mlsd(char* out, const struct stat* own, const char* name, const char* target,
                       const struct stat* target_st, bool write_right);

} // namespace orlix
