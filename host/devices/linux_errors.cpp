// Linux error numbers to the platform's: one table of pairs, turned at compile time into an array
// indexed by the Linux number. Host code.
#include "host/devices/linux_errors.h"

#include <array>
#include <cerrno>
#include <utility>

#include "platform/error_numbers.h"

namespace host::devices {

namespace {

using namespace orlix;

// Linux's ENOTSUP is EOPNOTSUPP and EWOULDBLOCK is EAGAIN: each has one entry, the platform's
// general number (44 "Operation not supported", 47 "Resource temporarily unavailable").
constexpr std::pair<int, int> PAIRS[] = {
    {EPERM, ERR_PERM},           {ENOENT, ERR_NOENT},         {ESRCH, ERR_SRCH},
    {EINTR, ERR_INTR},           {EIO, ERR_IO},               {ENXIO, ERR_NXIO},
    {E2BIG, ERR_TOOBIG},         {ENOEXEC, ERR_NOEXEC},       {EBADF, ERR_BADF},
    {ECHILD, ERR_CHILD},         {EAGAIN, ERR_AGAIN},         {ENOMEM, ERR_NOMEM},
    {EACCES, ERR_ACCES},         {EFAULT, ERR_FAULT},         {ENOTBLK, ERR_NOTBLK},
    {EBUSY, ERR_BUSY},           {EEXIST, ERR_EXIST},         {EXDEV, ERR_XDEV},
    {ENODEV, ERR_NODEV},         {ENOTDIR, ERR_NOTDIR},       {EISDIR, ERR_ISDIR},
    {EINVAL, ERR_INVAL},         {ENFILE, ERR_NFILE},         {EMFILE, ERR_MFILE},
    {ENOTTY, ERR_NOTTY},         {ETXTBSY, ERR_TXTBSY},       {EFBIG, ERR_FBIG},
    {ENOSPC, ERR_NOSPC},         {ESPIPE, ERR_SPIPE},         {EROFS, ERR_ROFS},
    {EMLINK, ERR_MLINK},         {EPIPE, ERR_PIPE},           {EDOM, ERR_DOM},
    {ERANGE, ERR_RANGE},         {EDEADLK, ERR_DEADLK},       {ENAMETOOLONG, ERR_NAMETOOLONG},
    {ENOLCK, ERR_NOLCK},         {ENOSYS, ERR_NOSYS},         {ENOTEMPTY, ERR_NOTEMPTY},
    {ELOOP, ERR_LOOP},           {ENOMSG, ERR_NOMSG},         {EIDRM, ERR_IDRM},
    {ECHRNG, ERR_CHRNG},         {EUNATCH, ERR_UNATCH},       {EBADR, ERR_BADR},
    {EBADRQC, ERR_BADRQC},       {EBADSLT, ERR_BADSLT},       {ENODATA, ERR_NODATA},
    {ETIME, ERR_TIME},           {ENONET, ERR_NONET},         {ENOPKG, ERR_NOPKG},
    {ECOMM, ERR_COMM},           {EPROTO, ERR_PROTO},         {EBADMSG, ERR_BADMSG},
    {EOVERFLOW, ERR_OVERFLOW},   {ENOTUNIQ, ERR_NOTUNIQ},     {EBADFD, ERR_BADFD},
    {EILSEQ, ERR_ILSEQ},         {EUSERS, ERR_USERS},         {ENOTSOCK, ERR_NOTSOCK},
    {EDESTADDRREQ, ERR_DESTADDRREQ}, {EMSGSIZE, ERR_MSGSIZE}, {EPROTOTYPE, ERR_PROTOTYPE},
    {ENOPROTOOPT, ERR_NOPROTOOPT}, {EPROTONOSUPPORT, ERR_PROTONOSUPPORT},
    {ESOCKTNOSUPPORT, ERR_SOCKTNOSUPPORT}, {EOPNOTSUPP, ERR_NOTSUP},
    {EPFNOSUPPORT, ERR_PFNOSUPPORT}, {EAFNOSUPPORT, ERR_AFNOSUPPORT},
    {EADDRINUSE, ERR_ADDRINUSE}, {EADDRNOTAVAIL, ERR_ADDRNOTAVAIL}, {ENETDOWN, ERR_NETDOWN},
    {ENETUNREACH, ERR_NETUNREACH}, {ENETRESET, ERR_NETRESET}, {ECONNABORTED, ERR_CONNABORTED},
    {ECONNRESET, ERR_CONNRESET}, {ENOBUFS, ERR_NOBUFS},       {EISCONN, ERR_ISCONN},
    {ENOTCONN, ERR_NOTCONN},     {ESHUTDOWN, ERR_SHUTDOWN},   {ETIMEDOUT, ERR_TIMEDOUT},
    {ECONNREFUSED, ERR_CONNREFUSED}, {EHOSTDOWN, ERR_HOSTDOWN}, {EHOSTUNREACH, ERR_HOSTUNREACH},
    {EALREADY, ERR_ALREADY},     {EINPROGRESS, ERR_INPROGRESS}, {ESTALE, ERR_STALE},
    {EUCLEAN, ERR_UCLEAN},       {EISNAM, ERR_ISNAM},         {ENOMEDIUM, ERR_NOMEDIUM},
    {ECANCELED, ERR_CANCELED},   {ENOKEY, ERR_NOKEY},         {EKEYEXPIRED, ERR_KEYEXPIRED},
    {EKEYREVOKED, ERR_KEYREVOKED}, {EKEYREJECTED, ERR_KEYREJECTED},
};

constexpr int LINUX_ERRNO_LIMIT = 256;

constexpr std::array<signed char, LINUX_ERRNO_LIMIT> make_table()
{
    std::array<signed char, LINUX_ERRNO_LIMIT> table{};
    for (auto& t : table)
        t = -1;
    for (auto [linux_number, number] : PAIRS)
        table[static_cast<std::size_t>(linux_number)] = static_cast<signed char>(number);
    return table;
}

constexpr auto TABLE = make_table();

static_assert(TABLE[ENOENT] == ERR_NOENT && TABLE[ENOSPC] == ERR_NOSPC && TABLE[ENOTTY] == ERR_NOTTY);

} // namespace

int platform_errno(int linux_errno)
{
    if (linux_errno <= 0 || linux_errno >= LINUX_ERRNO_LIMIT || TABLE[static_cast<std::size_t>(linux_errno)] < 0)
        return ERR_IO;
    return TABLE[static_cast<std::size_t>(linux_errno)];
}

std::uint32_t carried_status(int linux_errno) { return orlix::status_of_errno(platform_errno(linux_errno)); }

} // namespace host::devices
