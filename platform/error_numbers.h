// The system's error numbers: one list gives each number its name and its text. Devices carry a
// number in a status of the form 0xbe0000NN, so host device services include this header too;
// the names are prefixed so that they never meet the host's E* macros.
#pragma once

#include <cstdint>

// X(number, name, text)
#define ORLIX_ERROR_NUMBERS(X)                                                   \
    X(0, SUCCESS, "Success")                                                     \
    X(1, NOENT, "No such file or directory")                                     \
    X(2, ACCES, "Permission denied")                                             \
    X(3, INTR, "Interrupted function call")                                      \
    X(4, LOOP, "Too many levels of symbolic links")                              \
    X(5, PIPE, "Broken pipe")                                                    \
    X(6, ILSEQ, "Illegal byte sequence")                                         \
    X(7, NOTDIR, "Not a directory")                                              \
    X(8, OVERFLOW, "Value too large to be stored in data type")                  \
    X(9, DOM, "Mathematics argument out of domain of function")                  \
    X(10, EXIST, "File exists")                                                  \
    X(11, INVAL, "Invalid argument")                                             \
    X(12, ISDIR, "Is a directory")                                               \
    X(13, NAMETOOLONG, "Filename too long")                                      \
    X(14, NFILE, "Too many open files in system")                                \
    X(15, NOEXEC, "Exec format error")                                           \
    X(16, NOPKG, "Package not installed")                                        \
    X(17, NOTEMPTY, "Directory not empty")                                       \
    X(18, NOTSOCK, "Not a socket")                                               \
    X(19, PERM, "Operation not permitted")                                       \
    X(20, IO, "Input/output error")                                              \
    X(21, FBIG, "File too large")                                                \
    X(22, NOMEM, "Not enough space")                                             \
    X(23, BUSY, "Device or resource busy")                                       \
    X(24, RANGE, "Result too large")                                             \
    X(25, BADSLT, "Invalid slot")                                                \
    X(26, BADF, "Bad file descriptor")                                           \
    X(27, BADFD, "File descriptor in bad state")                                 \
    X(28, BADR, "Invalid request descriptor")                                    \
    X(29, BADRQC, "Invalid request code")                                        \
    X(30, COMM, "Communication error on send")                                   \
    X(31, NODEV, "No such device")                                               \
    X(32, BADUNIT, "Bad unit number")                                            \
    X(33, NOTFILE, "Not a file")                                                 \
    X(34, MFILE, "Too many open files")                                          \
    X(35, CANCELED, "Operation canceled")                                        \
    X(36, NOMEDIUM, "No medium found")                                           \
    X(37, NOSPC, "No space left on device")                                      \
    X(38, TIMEDOUT, "Connection timed out")                                      \
    X(39, UNATCH, "Protocol driver not attached")                                \
    X(40, XDEV, "Improper link")                                                 \
    X(41, ROFS, "Read-only filesystem")                                          \
    X(42, USERS, "Too many users")                                               \
    X(43, SPIPE, "Invalid seek")                                                 \
    X(44, NOTSUP, "Operation not supported")                                     \
    X(45, SRCH, "No such process")                                               \
    X(46, NOTTY, "Inappropriate I/O control operation")                          \
    X(47, AGAIN, "Resource temporarily unavailable")                             \
    X(48, WOULDBLOCK, "Operation would block")                                   \
    X(49, MSGSIZE, "Message too large")                                          \
    X(50, TOOBIG, "Argument list too long")                                      \
    X(51, BADMSG, "Bad message")                                                 \
    X(52, ALREADY, "Connection already in progress")                             \
    X(53, INPROGRESS, "Operation in progress")                                   \
    X(54, NXIO, "No such device or address")                                     \
    X(55, CONNRESET, "Connection reset")                                         \
    X(56, FAULT, "Bad address")                                                  \
    X(57, ISCONN, "Socket is connected")                                         \
    X(58, CHRNG, "Channel number out of range")                                  \
    X(59, CONNABORTED, "Connection aborted")                                     \
    X(60, CONNREFUSED, "Connection refused")                                     \
    X(61, NETDOWN, "Network is down")                                            \
    X(62, NETRESET, "Connection aborted by network")                             \
    X(63, NETUNREACH, "Network unreachable")                                     \
    X(64, NONET, "Machine is not on the network")                                \
    X(65, NOTBLK, "Block device required")                                       \
    X(66, NOTUNIQ, "Name not unique on network")                                 \
    X(67, OPNOTSUPP, "Operation not supported on socket")                        \
    X(68, PROTO, "Protocol error")                                               \
    X(69, PROTONOSUPPORT, "Protocol not supported")                              \
    X(70, PROTOTYPE, "Protocol wrong type for socket")                           \
    X(71, SHUTDOWN, "Cannot send after transport endpoint shutdown")             \
    X(72, SOCKTNOSUPPORT, "Socket type not supported")                           \
    X(73, TIME, "Time expired")                                                  \
    X(74, STALE, "Stale file handle")                                            \
    X(75, TXTBSY, "Text file busy")                                              \
    X(76, UCLEAN, "Structure needs cleaning")                                    \
    X(77, NOTCONN, "The socket is not connected")                                \
    X(78, NOBUFS, "No buffer space available")                                   \
    X(79, NODATA, "No message is available on the STREAM head read queue")       \
    X(80, DESTADDRREQ, "Destination address required")                           \
    X(81, ADDRINUSE, "Address already in use")                                   \
    X(82, ADDRNOTAVAIL, "Address not available")                                 \
    X(83, AFNOSUPPORT, "Address family not supported")                           \
    X(84, PFNOSUPPORT, "Protocol family not supported")                          \
    X(85, NOSYS, "Function not supported")                                       \
    X(86, NOLCK, "No locks available")                                           \
    X(87, DEADLK, "Resource deadlock avoided")                                   \
    X(88, HOSTUNREACH, "Host is unreachable")                                    \
    X(89, CHILD, "No child processes")                                           \
    X(90, NOMSG, "No message of the desired type")                               \
    X(91, NOPROTOOPT, "Protocol not available")                                  \
    X(92, MLINK, "Too many links")                                               \
    X(93, HOSTDOWN, "Host is down")                                              \
    X(94, IDRM, "Identifier removed")                                            \
    X(95, ISNAM, "Is a named type file")                                         \
    X(96, KEYEXPIRED, "Key has expired")                                         \
    X(97, KEYREJECTED, "Key was rejected by service")                            \
    X(98, KEYREVOKED, "Key has been revoked")                                    \
    X(99, NOKEY, "Required key not available")

namespace orlix {

enum ErrorNumber : int {
#define ORLIX_ERROR_ENUM(number, name, text) ERR_##name = number,
    ORLIX_ERROR_NUMBERS(ORLIX_ERROR_ENUM)
#undef ORLIX_ERROR_ENUM
};

inline constexpr int ERROR_NUMBER_COUNT = 100;

// A device status that carries an error number in its low 24 bits.
inline constexpr std::uint32_t STATUS_CARRIES_ERRNO = 0xbe000000;
inline constexpr std::uint32_t status_of_errno(int number)
{
    return STATUS_CARRIES_ERRNO | (static_cast<std::uint32_t>(number) & 0xffffff);
}

} // namespace orlix
