// The log: lines to the syslog device over one request block that the whole process shares,
// each headed by the identity, optionally the process number, a colon and a blank. System code.
#pragma once

#include <cstdarg>
#include <cstdint>

#include "platform/device.h"
#include "platform/ioreq.h"

namespace orlix {

inline constexpr int LOG_ERR_LEVEL = 3;
inline constexpr int LOG_INFO_LEVEL = 6;
inline constexpr int LOG_PID_OPTION = 1;
inline constexpr int LOG_NDELAY_OPTION = 4; // the opening of the device waits for the first line

inline constexpr std::size_t SYSLOG_IDENT_SIZE = 32;
inline constexpr std::size_t SYSLOG_TEXT_MAX = 511;
inline constexpr std::uint64_t SYSLOG_BLOCK_SIZE = 656;

// Context slot 4.
struct SyslogState {
    char ident[SYSLOG_IDENT_SIZE];
    std::uint64_t ident_length;
    std::int64_t pid;         // read when the device is opened
    std::uint32_t options;
    std::uint32_t facility;   // stored, not sent
    std::uint32_t log_mask;   // stored, not used
    Device* device;
    IOreq* request;
    Handle port;
};

// The log record: the text's length and address, then the text.
struct SyslogRecord {
    std::uint16_t length;
    std::uint16_t pad2[3];
    const char* text;
    char bytes[SYSLOG_TEXT_MAX];
};
static_assert(offsetof(SyslogRecord, text) == 8);
static_assert(offsetof(SyslogRecord, bytes) == 16);

// The slot's initialiser: ident "[0x<task handle>]", facility 1, mask 0xff.
void __init_syslog(void* block, std::uint64_t size);
// Opens the device, its port and request unless they exist; false on failure.
bool __openlog_impl_unlocked(SyslogState* state);

void __openlog(const char* ident, int options, int facility);
void __vsyslog(int priority, const char* format, std::va_list args);

void openlog(const char* ident, int options, int facility);
void syslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));
void vsyslog(int priority, const char* format, std::va_list args);

} // namespace orlix
