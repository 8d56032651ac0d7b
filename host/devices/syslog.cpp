// The syslog device: every log record, and every raw report of a missing device or a thread
// alarm, becomes one line on the host's standard error, written with a single write(2).
// Host code.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "host/devices/services.h"

namespace host::devices {

namespace {
struct LogParams {
    std::uint16_t length;
    std::uint16_t pad2[3];
    const char* text;
};
static_assert(offsetof(LogParams, text) == 8);
} // namespace

std::string unpack_letters(std::uint64_t word)
{
    std::string out;
    for (int shift = 56; shift >= 0; shift -= 8) {
        char c = static_cast<char>((word >> shift) & 0xff);
        if (c != 0)
            out.push_back(c);
    }
    return out;
}

Syslog::Syslog() : Service("syslog", SYSLOG_SHARED_AREA) {}

Syslog::~Syslog() { shutdown(); }

void Syslog::write_line(const char* text, std::size_t length)
{
    std::string line(text, length);
    line.push_back('\n');
    // One write per line, so lines of several writers never mix.
    ssize_t n;
    do {
        n = ::write(fd_.load(), line.data(), line.size());
    } while (n < 0 && errno == EINTR);
}

Outcome Syslog::run(Request& r)
{
    if (r.block->command != orlix::LOG_WRITE)
        return Outcome::fail(STATUS_BAD_COMMAND);
    auto* p = reinterpret_cast<LogParams*>(r.area(r.block->params, sizeof(LogParams)));
    if (!p || (p->length && !r.inside(p->text, p->length)))
        return Outcome::fail(STATUS_BAD_ADDRESS);
    std::size_t length = p->length;
    // A record ends at its first zero byte, if any comes before its length.
    if (const void* z = std::memchr(p->text, 0, length))
        length = static_cast<std::size_t>(static_cast<const char*>(z) - p->text);
    write_line(p->text, length);
    return Outcome::ok();
}

void Syslog::raw_message(const orlix::Message& m)
{
    std::string line;
    if (m.type == orlix::MSG_LOG_DEVICE_LACK)
        line = "device lack: " + unpack_letters(m.word2);
    else if (m.type == orlix::MSG_LOG_THREAD_ALARM)
        line = "thread alarm: " + unpack_letters(m.word1) + unpack_letters(m.word2);
    else
        return;
    write_line(line.data(), line.size());
}

} // namespace host::devices
