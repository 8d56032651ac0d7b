// The system's formatter against the host's snprintf, case by case: the results, the bytes
// written and the bytes left alone behind them must all be the same.
#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "runtime/format.h"

// The cases truncate, pass null strings and break the rules of formats on purpose.
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-overflow"
#pragma GCC diagnostic ignored "-Wformat-truncation"

namespace orlix {
int* __get_errno_ptr();
}

namespace {

constexpr std::size_t BUFFER = 96;

// Formats with both into buffers of size bytes filled with a marker, and compares the results
// and the whole buffers, so that a byte too many is seen as well as a wrong one.
template <typename... Args> void expect_like_host(std::size_t size, const char* format, Args... args)
{
    char host[BUFFER], ours[BUFFER];
    std::memset(host, '#', BUFFER);
    std::memset(ours, '#', BUFFER);
    const int host_length = std::snprintf(size == 0 ? nullptr : host, size, format, args...);
    const int our_length = orlix::snprintf(size == 0 ? nullptr : ours, size, format, args...);
    EXPECT_EQ(our_length, host_length) << "format \"" << format << "\", size " << size;
    EXPECT_EQ(std::string(ours, BUFFER), std::string(host, BUFFER))
        << "format \"" << format << "\", size " << size;
}

template <typename... Args> void expect_like_host(const char* format, Args... args)
{
    expect_like_host(BUFFER, format, args...);
}

TEST(Format, ListingAndReplyFormatsAsTheHost)
{
    expect_like_host("%-8u %-8u %15llu", 1000u, 4294967294u, 5120ULL);
    expect_like_host("%-8u|%15llu|", 123456789u, 18446744073709551615ULL); // both overflow their fields
    expect_like_host("%7u,%7u", 1u, 3u);
    expect_like_host("%s %2u %u", "Mar", 7u, 2026u);
    expect_like_host("%s %2u %u", "Dec", 31u, 999u);
    expect_like_host("213 %lli\r\n", 0LL);
    expect_like_host("213 %lli\r\n", static_cast<long long>(INT64_MIN));
    expect_like_host("[%llu]", 18446744073709551615ULL);
    expect_like_host("[0x%lx]", 0x7f00deadbeefUL);
    expect_like_host("RecvMsg returned 0x%X", 0xbe00002fu);
    expect_like_host("227 Entering Passive Mode (%u,%u,%u,%u,%u,%u).\r\n", 127u, 0u, 0u, 1u, 195u, 80u);
    expect_like_host("200 Type set to %c\r\n", 'I');
    expect_like_host("550 %s: %s\r\n", "a b", "No such file or directory");
    expect_like_host("100%% of %d%%", 3);
}

TEST(Format, IntegersWithFlagsWidthsAndPrecisions)
{
    for (int value : {0, 7, -7, 42, INT_MAX, INT_MIN}) {
        for (const char* format : {"%d", "%i", "%5d", "%-5d|", "%05d", "%+d", "% d", "%+ d", "%.0d", "%.3d",
                                   "%8.3d|", "%-8.3d|", "%08.3d", "%+05d", "%-+05d|", "% 05d"})
            expect_like_host(format, value);
        for (const char* format : {"%u", "%o", "%x", "%X", "%#o", "%#x", "%#X", "%#.0o", "%#8x", "%#08x",
                                   "%-#8o|", "%+u", "% u", "%.0x", "%012.5u"})
            expect_like_host(format, static_cast<unsigned>(value));
    }
    expect_like_host("%*d|%-*d|%*d", 6, 42, 6, 42, -6, 42); // a negative width means '-'
    expect_like_host("%.*d|%.*d|%0*.*d", 4, 7, -1, 7, 6, 2, 7);
}

TEST(Format, LengthModifiersTakeAndCutTheRightWidth)
{
    expect_like_host("%hhd %hhu %hhx", 300, -1, 0x1ff);
    expect_like_host("%hd %hu %hi", 70000, 70000, -32769);
    expect_like_host("%ld %lu %lx", LONG_MIN, ULONG_MAX, 0xfedcba9876543210UL);
    const long long smallest = INT64_MIN;
    const unsigned long long largest = UINT64_MAX;
    expect_like_host("%lld %llu %llo %llX", smallest, largest, largest, 0x0123456789abcdefULL);
    expect_like_host("%zu %zd %zx", SIZE_MAX, static_cast<std::ptrdiff_t>(-5), std::size_t{48879});
    expect_like_host("%jd %ju %td %tu", INTMAX_MIN, UINTMAX_MAX, PTRDIFF_MIN, std::size_t{PTRDIFF_MAX});
    expect_like_host("%d|%lld|%d", 1, 2LL, 3); // arguments of mixed widths stay in step
}

TEST(Format, CharactersStringsPointersAndUnknownConversions)
{
    const char unterminated[3] = {'a', 'b', 'c'}; // a precision must stop the reading
    expect_like_host("%c|%3c|%-3c|%05c|%c", 'A', 'b', 'c', 'd', 0); // %c of 0 writes a zero byte
    expect_like_host("%s|%.3s|%10.2s|%-10s|%.*s|%05s", "hello", "hello", "hello", "hi", 2, "abc", "z");
    expect_like_host("%.3s|%s|%.5s|%.6s|%8s", unterminated, "", static_cast<const char*>(nullptr),
                     static_cast<const char*>(nullptr), static_cast<const char*>(nullptr));
    const void* pointer = reinterpret_cast<const void*>(std::uintptr_t{0x7ffc1234});
    expect_like_host("%p|%20p|%-20p|%020p|%.12p|%+p", pointer, pointer, pointer, pointer, pointer, pointer);
    expect_like_host("%p|%10p|%-10p|", nullptr, nullptr, nullptr);
    expect_like_host("%y|%-5y|%5%|%d", 9); // unknown: copied out, taking no argument
}

TEST(Format, TruncationKeepsTheWholeLengthAndTerminates)
{
    for (std::size_t size : {0, 1, 2, 5, 12, 13, 14})
        expect_like_host(size, "%s=%d", "counter", -12345);
    expect_like_host(4, "%15llu", 5120ULL);
    expect_like_host(3, "%c%c%c", 'x', 0, 'y');
}

TEST(Format, BadDirectivesFailWithTheirErrorNumber)
{
    int& error = *orlix::__get_errno_ptr();
    char out[16];
    error = 0;
    EXPECT_EQ(orlix::snprintf(out, sizeof out, "%d%", 5), -1); // cut off by the end of the format
    EXPECT_EQ(error, 11);
    error = 0;
    EXPECT_EQ(orlix::snprintf(out, sizeof out, "%2147483648d", 5), -1); // wider than an int can count
    EXPECT_EQ(error, 8);
}

// A sink that keeps what it is given, to compare with the buffer functions.
struct StringSink : orlix::FormatSink {
    std::string text;
    int pieces = 0;
};

int format_to(StringSink* sink, const char* format, ...)
{
    std::va_list args;
    va_start(args, format);
    const int length = orlix::__vformat(sink, format, args);
    va_end(args);
    return length;
}

TEST(Format, SinkAndSprintfSeeTheSameText)
{
    StringSink sink;
    sink.put = [](orlix::FormatSink* base, const char* text, std::size_t length) {
        auto* self = static_cast<StringSink*>(base);
        self->text.append(text, length);
        ++self->pieces;
    };
    const char* format = "%-40s|%30lld|%c";
    const int length = format_to(&sink, format, "name", static_cast<long long>(INT64_MIN), 0);
    char out[BUFFER];
    EXPECT_EQ(orlix::sprintf(out, format, "name", static_cast<long long>(INT64_MIN), 0), length);
    EXPECT_EQ(sink.text, std::string(out, static_cast<std::size_t>(length)));
    EXPECT_EQ(out[length], '\0');
    EXPECT_GT(sink.pieces, 3); // the engine hands text on in pieces, without a buffer of its own
}

} // namespace
