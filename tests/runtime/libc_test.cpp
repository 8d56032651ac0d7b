// The runtime's calendar against the host's gmtime_r, the error texts, the stream-mode tables,
// byte order, device numbers and strdup.
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <random>

#include "platform/error_numbers.h"
#include "runtime/devnum.h"
#include "runtime/inet.h"
#include "runtime/heap.h"
#include "runtime/stream_mode.h"
#include "runtime/string.h"
#include "runtime/time.h"

namespace orlix {
int* __get_errno_ptr();
}

namespace {

int& system_errno() { return *orlix::__get_errno_ptr(); }

// The host's answer is the reference, null included.
void expect_calendar_like_host(std::int64_t time)
{
    const ::time_t host_time = time;
    ::tm host{};
    const orlix::time_t our_time = time;
    orlix::tm ours{};
    const bool host_ok = ::gmtime_r(&host_time, &host) != nullptr;
    system_errno() = 0;
    const bool our_ok = orlix::gmtime_r(&our_time, &ours) == &ours;
    ASSERT_EQ(our_ok, host_ok) << "time " << time;
    if (!our_ok) {
        EXPECT_EQ(system_errno(), 8) << "time " << time;
        return;
    }
    const int host_fields[] = {host.tm_sec,  host.tm_min,  host.tm_hour, host.tm_mday, host.tm_mon,
                               host.tm_year, host.tm_wday, host.tm_yday, host.tm_isdst};
    const int our_fields[] = {ours.tm_sec,  ours.tm_min,  ours.tm_hour, ours.tm_mday, ours.tm_mon,
                              ours.tm_year, ours.tm_wday, ours.tm_yday, ours.tm_isdst};
    for (int i = 0; i < 9; ++i)
        ASSERT_EQ(our_fields[i], host_fields[i]) << "field " << i << " of time " << time;
}

// The last time whose year still fits, found with the host's function alone.
std::int64_t host_limit(bool upward)
{
    std::int64_t good = 0, bad = upward ? INT64_MAX : INT64_MIN;
    while (good != bad && good + (upward ? 1 : -1) != bad) {
        const std::int64_t middle = good / 2 + bad / 2;
        ::tm unused;
        const ::time_t probe = middle;
        (::gmtime_r(&probe, &unused) != nullptr ? good : bad) = middle;
    }
    return good;
}

TEST(Calendar, EdgesAsTheHost)
{
    constexpr std::int64_t DAY = 86400;
    const std::int64_t edges[] = {
        0, -1, 1, DAY - 1, DAY, -DAY, -DAY - 1, INT32_MAX, std::int64_t{INT32_MAX} + 1, INT32_MIN,
        std::int64_t{INT32_MIN} - 1,
        -2208988800,            // 1900-01-01, no leap day in 1900
        -2203977600,            // 1900-03-01
        951782400, 951868800,   // 2000-02-29, 2000-03-01
        4107456000, 4107542400, // 2100-02-28, 2100-03-01
        4102444799,             // 2099-12-31 23:59:59
        -30610224000,           // 1000-01-01
        -30610224001,           // 999-12-31 23:59:59
        253402300799, 253402300800, // 9999-12-31 23:59:59, 10000-01-01
        -62167219200,           // year 0 (1 BC), a leap year
        -62198755200,           // year -1
        -62162035200,           // 0000-02-29 + 1 day
        INT64_MAX, INT64_MIN, INT64_MAX - DAY, INT64_MIN + DAY,
    };
    for (std::int64_t time : edges)
        expect_calendar_like_host(time);
    for (bool upward : {true, false}) {
        const std::int64_t limit = host_limit(upward);
        for (std::int64_t step : {-DAY, std::int64_t{-1}, std::int64_t{0}, std::int64_t{1}, DAY})
            expect_calendar_like_host(limit + (upward ? step : -step));
    }
}

TEST(Calendar, SeededRandomTimesAsTheHost)
{
    const char* given = std::getenv("LIBC_TEST_SEED");
    const std::uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
    std::cout << "seed " << seed << " (LIBC_TEST_SEED repeats it)\n";
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    const std::int64_t low = host_limit(false), high = host_limit(true);
    std::uniform_int_distribution<std::int64_t> anywhere(low, high);
    std::uniform_int_distribution<std::int64_t> near(-80000000000, 300000000000); // years -565 to 11476
    for (int i = 0; i < 100000; ++i) {
        expect_calendar_like_host(anywhere(random));
        expect_calendar_like_host(near(random));
        if (HasFatalFailure())
            return;
    }
}

TEST(ErrorTexts, EveryNumberHasItsTextAndOthersAreUnknown)
{
    EXPECT_STREQ(orlix::strerror(0), "Success");
    EXPECT_STREQ(orlix::strerror(11), "Invalid argument");
    EXPECT_STREQ(orlix::strerror(22), "Not enough space");
    EXPECT_STREQ(orlix::strerror(79), "No message is available on the STREAM head read queue");
    EXPECT_STREQ(orlix::strerror(99), "Required key not available");
#define EXPECT_TEXT(number, name, text) EXPECT_STREQ(orlix::strerror(number), text) << #name;
    ORLIX_ERROR_NUMBERS(EXPECT_TEXT)
#undef EXPECT_TEXT
    for (int number : {-1, 100, 101, INT_MIN, INT_MAX})
        EXPECT_STREQ(orlix::strerror(number), "<unknown error>") << number;
}

struct ModeCase {
    const char* mode;
    int open_flags; // -1: a bad mode
    int stream_flags;
};

void expect_modes(int (*parse)(const char*, int*), std::initializer_list<ModeCase> cases)
{
    for (const ModeCase& c : cases) {
        int stream_flags = -77;
        system_errno() = 0;
        EXPECT_EQ(parse(c.mode, &stream_flags), c.open_flags) << '"' << c.mode << '"';
        EXPECT_EQ(stream_flags, c.open_flags < 0 ? -77 : c.stream_flags) << '"' << c.mode << '"';
        EXPECT_EQ(system_errno(), c.open_flags < 0 ? 11 : 0) << '"' << c.mode << '"';
    }
}

TEST(StreamModes, FileModesAsTheTable)
{
    expect_modes(orlix::__fsi_parse_mode_f,
                 {{"r", 4, 1}, {"r+", 12, 0}, {"w", 42, 98}, {"w+", 46, 96}, {"a", 11, 178}, {"a+", 15, 48},
                  {"rb", 4, 1}, {"rt", 4, 1}, {"r+b", 12, 0}, {"w+t", 46, 96}, {"rbe", 1028, 1025},
                  {"w+be", 1070, 1120}, {"ate", 1035, 1202}, {"a+be", 1039, 1072},
                  {"rb+", -1, 0}, {"re", -1, 0}, {"r+e", -1, 0}, {"", -1, 0}, {"x", -1, 0}, {"+", -1, 0},
                  {"rbb", -1, 0}, {"rtb", -1, 0}, {"rbee", -1, 0}, {"rbe+", -1, 0}, {"R", -1, 0}, {"r ", -1, 0}});
}

TEST(StreamModes, PipeModesAsTheTable)
{
    expect_modes(orlix::__fsi_parse_mode_p,
                 {{"r", 4, 513}, {"w", 8, 514}, {"re", 1028, 1537}, {"we", 1032, 1538}, {"rb", -1, 0},
                  {"r+", -1, 0}, {"a", -1, 0}, {"", -1, 0}, {"ree", -1, 0}, {"rbe", -1, 0}});
}

TEST(SmallFunctions, ByteOrderDeviceNumbersAndStrdup)
{
    const std::uint16_t short_value = orlix::htons(0x1234);
    const std::uint32_t long_value = orlix::htonl(0x12345678);
    unsigned char bytes[4];
    std::memcpy(bytes, &short_value, 2);
    EXPECT_TRUE(bytes[0] == 0x12 && bytes[1] == 0x34);
    std::memcpy(bytes, &long_value, 4);
    EXPECT_TRUE(bytes[0] == 0x12 && bytes[1] == 0x34 && bytes[2] == 0x56 && bytes[3] == 0x78);
    EXPECT_EQ(orlix::ntohs(short_value), 0x1234);
    EXPECT_EQ(orlix::ntohl(long_value), 0x12345678u);

    static_assert(orlix::makedev(1, 3) == 0x100003);
    EXPECT_EQ(orlix::major(0xfff00005), 0xfffu);
    EXPECT_EQ(orlix::minor(0xfff00005), 5u);
    EXPECT_EQ(orlix::makedev(2, 0x1fffff), 0x2fffffu); // the minor number is cut to 20 bits

    const char* texts[] = {"", "a", "notes.txt"};
    for (const char* text : texts) {
        char* copy = orlix::strdup(text);
        ASSERT_NE(copy, nullptr);
        EXPECT_NE(copy, text);
        EXPECT_STREQ(copy, text);
        orlix::free(copy);
    }
}

} // namespace
