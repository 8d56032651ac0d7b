// The lines of the listings, to the byte: a LIST line from a stat record, the facts of an MLSD
// line, and MLSD's time stamps. Pure formatting, in UTC. System code.
#include <cstring>

#include "daemon/listing.h"
#include "runtime/devnum.h"
#include "runtime/format.h"
#include "runtime/time.h"

namespace orlix {

const char* const month[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

namespace {

constexpr std::uint32_t SPECIAL_DEVICE_MASK = 0xb000;
constexpr std::uint32_t WRITE_BY_OWNER = 0x80;
constexpr std::uint32_t SEARCH_BY_OWNER = 0x40;
constexpr std::uint32_t READ_BY_OWNER = 0x100;

char type_character(std::uint32_t mode)
{
    switch (mode & MODE_TYPE) {
    case MODE_FIFO: return 'p';
    case MODE_CHAR: return 'c';
    case MODE_DIR: return 'd';
    case MODE_BLOCK: return 'b';
    case MODE_REGULAR: return '-';
    case MODE_LINK: return 'l';
    case MODE_SOCKET: return 's';
    default: return '?';
    }
}

const char* mlsd_type(std::uint32_t mode)
{
    switch (mode & MODE_TYPE) {
    case MODE_REGULAR: return "file";
    case MODE_DIR: return "dir";
    case MODE_LINK: return "OS.unix=slink:";
    case MODE_CHAR: return "OS.unix=char";
    case MODE_BLOCK: return "OS.unix=block";
    case MODE_FIFO: return "OS.unix=fifo";
    case MODE_SOCKET: return "OS.unix=socket";
    default: return "OS.unix=?";
    }
}

char* append(char* out, const char* text)
{
    std::size_t length = std::strlen(text);
    std::memcpy(out, text, length);
    return out + length;
}

} // namespace

char* ftpd_format_list(char* out, const struct stat* st, const char* name)
{
    std::uint32_t mode = st->st_mode;
    *out++ = type_character(mode);
    const char letters[] = "rwx";
    for (int bit = 8; bit >= 0; --bit)
        *out++ = (mode >> bit) & 1 ? letters[(8 - bit) % 3] : '-';
    // Owners are 16 bits taken as signed: 65534 prints as a number above four thousand million.
    out += sprintf(out, " 1 %-8u %-8u ", static_cast<unsigned>(static_cast<int>(st->st_uid)),
                   static_cast<unsigned>(static_cast<int>(st->st_gid)));
    if ((mode & SPECIAL_DEVICE_MASK) == MODE_CHAR)
        out += sprintf(out, "%7u,%7u", (major)(static_cast<std::uint32_t>(st->st_rdev)),
                       (minor)(static_cast<std::uint32_t>(st->st_rdev)));
    else
        out += sprintf(out, "%15llu", static_cast<unsigned long long>(st->st_size));
    tm broken{};
    time_t seconds = st->st_mtim.tv_sec;
    gmtime_r(&seconds, &broken);
    out += sprintf(out, " %s %2u %u ", month[broken.tm_mon], static_cast<unsigned>(broken.tm_mday),
                   static_cast<unsigned>(broken.tm_year + 1900));
    return append(out, name);
}

char* _ftpd_append_timeval(char* out, std::int64_t seconds, std::int64_t nanoseconds)
{
    tm broken{};
    time_t time = seconds;
    gmtime_r(&time, &broken);
    int year = (broken.tm_year + 1900) % 10000;
    if (year < 1000)
        year = 1000;
    out += sprintf(out, "%04d%02d%02d%02d%02d%02d", year, broken.tm_mon + 1, broken.tm_mday, broken.tm_hour,
                   broken.tm_min, broken.tm_sec);
    std::int64_t ms = nanoseconds / 1000000;
    if (ms != 0)
        out += sprintf(out, ".%03d", static_cast<int>(ms));
    return out;
}

char* ftpd_format_mlsd(char* out, const struct stat* own, const char* name, const char* target,
                       const struct stat* target_st, bool write_right)
{
    out = append(out, "Type=");
    if (std::strcmp(name, ".") == 0) {
        out = append(out, "cdir");
    } else if (std::strcmp(name, "..") == 0) {
        out = append(out, "pdir");
    } else {
        out = append(out, mlsd_type(own->st_mode));
        if (is_link(own->st_mode) && target != nullptr)
            out = append(out, target);
    }
    out = append(out, ";Modify=");
    out = _ftpd_append_timeval(out, own->st_mtim.tv_sec, own->st_mtim.tv_nsec);
    if (own->st_birthtim.tv_sec != 0) {
        out = append(out, ";Create=");
        out = _ftpd_append_timeval(out, own->st_birthtim.tv_sec, own->st_birthtim.tv_nsec);
    }
    out = append(out, ";Perm=");
    if (write_right && (own->st_mode & WRITE_BY_OWNER))
        out = append(out, is_dir(own->st_mode) ? "cmpdf" : is_regular(own->st_mode) ? "wdf" : "df");
    const struct stat* counted = is_link(own->st_mode) ? target_st : own;
    if (counted != nullptr) {
        if (is_dir(counted->st_mode) && (counted->st_mode & SEARCH_BY_OWNER))
            out = append(out, "el");
        else if (is_regular(counted->st_mode) && (counted->st_mode & READ_BY_OWNER))
            out = append(out, "r");
    }
    out += sprintf(out, ";Size=%llu; ", static_cast<unsigned long long>(own->st_size));
    return out;
}

} // namespace orlix
