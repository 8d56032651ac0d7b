// The TCP client against a fake TCP device that records every command: the status table, the
// cutting of sends into pieces, and size checks that must send nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <numeric>
#include <tuple>

#include "fake_device.h"
#include "platform/device_client.h"
#include "runtime/tcp_client.h"
#include "platform/tcp_wire.h"

// The system's errno macro can't meet the host's here; reach the thread's number directly.
namespace orlix {
int* __get_errno_ptr();
}

using namespace orlix;
using fake::FakeDevice;

namespace {

int& sys_errno() { return *__get_errno_ptr(); }

template <typename T> T at(const std::vector<std::uint8_t>& area, std::size_t offset)
{
    T value;
    std::memcpy(&value, area.data() + offset, sizeof value);
    return value;
}

// A device that takes whole sends; run number fail_run (counted from the last fail()) fails.
struct TcpFake {
    explicit TcpFake(std::uint64_t params_size) : dev(params_size)
    {
        dev.on_begin = [this](FakeDevice&, IOreq* req) {
            auto* p = static_cast<TcpTransferParams*>(req->params);
            bool failing = ++runs == fail_run;
            if (req->command == TCP_SEND)
                p->result = failing ? partial : p->length;
            if (failing) {
                req->error = fail_status;
            } else if (req->command == TCP_CREATE) {
                reinterpret_cast<TcpCreateParams*>(p)->socket = 42;
            } else if (req->command == TCP_GETNAME || req->command == TCP_GETPEER) {
                std::memset(reinterpret_cast<TcpAddressParams*>(p)->address, 0x5c, 16);
                reinterpret_cast<TcpAddressParams*>(p)->length = 16;
            }
            FakeDevice::reply(req, failing ? MSG_IO_FAILED : MSG_IO_DONE);
        };
    }
    void fail(int run, std::uint32_t status, std::uint64_t partial_count = 0)
    {
        runs = 0;
        fail_run = run;
        fail_status = status;
        partial = partial_count;
    }
    FakeDevice dev;
    int runs = 0, fail_run = 0;
    std::uint32_t fail_status = 0;
    std::uint64_t partial = 0;
};

} // namespace

TEST(TcpStatus, EveryRowOfTheTranslationTable)
{
    const std::pair<std::uint32_t, int> rows[] = {
        {2, 29},           {4, 8},            {5, 23},           {0xe0050001, 22}, {0xe0050007, 83},
        {0xe0050008, 27},  {0xe0050010, 27},  {0xe0050048, 27},  {0xe0050013, 59}, {0xe0050014, 77},
        {0xe0050055, 77},  {0xe0050016, 11},  {0xe0050039, 11},  {0xe0050045, 11}, {0xe0050035, 69},
        {0xe0050038, 18},  {0xe0050041, 51},  {0xe0050042, 49},  {0xe0050043, 81}, {0xe0050053, 81},
        {0xe0050044, 82},  {0xe0050046, 2},   {0xe0050047, 57},  {0xe0050049, 47}, {0xe0050050, 53},
        {0xe0050051, 8},   {0xe0050052, 34},  {0xe0050054, 67},  {0xbe000005, 5},  {0xbe000063, 99},
        {0xbf000005, 35},  {0xe0050002, 35},  {0, 35},           {1, 35},          {0xffffffff, 35},
    };
    for (auto [status, number] : rows) {
        EXPECT_EQ(__libci_tcpip_translate_error(status), number) << std::hex << status;
        EXPECT_EQ(td_trans_ec(status), number) << std::hex << status;
    }
}

TEST(TcpSend, CutsIntoPiecesWithTheMoreFlagOnMiddlePiecesOnly)
{
    TcpFake tcp(56 + 100); // pieces of 100 bytes
    std::vector<std::uint8_t> data(250);
    std::iota(data.begin(), data.end(), std::uint8_t{0});

    EXPECT_EQ(td_send(tcp.dev.device(), 9, data.data(), 150, 0x40), 150);
    EXPECT_EQ(td_send(tcp.dev.device(), 9, data.data(), 250, 0x40), 250);
    auto cmds = tcp.dev.commands;
    ASSERT_EQ(cmds.size(), 5u);
    const std::uint64_t lengths[] = {100, 50, 100, 100, 50};
    const std::uint32_t flags[] = {0x40, 0x40, 0x40, 0x8040, 0x40};
    const std::size_t offsets[] = {0, 100, 0, 100, 200};
    auto* params = static_cast<std::uint8_t*>(tcp.dev.device()->shared_io->params);
    for (std::size_t i = 0; i < cmds.size(); ++i) {
        const auto& area = cmds[i].area; // the result is cleared before each run
        EXPECT_EQ(std::tuple(cmds[i].command, at<std::int32_t>(area, 0), at<std::uint8_t*>(area, 24),
                             at<std::uint64_t>(area, 32), at<std::uint32_t>(area, 40), at<std::uint64_t>(area, 48)),
                  std::tuple(TCP_SEND, 9, params + 56, lengths[i], flags[i], 0u))
            << i;
        EXPECT_EQ(0, std::memcmp(area.data() + 56, data.data() + offsets[i], lengths[i])) << i;
    }

    // A failing second piece counts its result field and leaves errno alone; a failing first
    // piece gives -1 and the translated status; nothing to send sends nothing.
    sys_errno() = 1234;
    tcp.fail(2, 0xe0050013, 7);
    EXPECT_EQ(td_send(tcp.dev.device(), 9, data.data(), 250, 0), 107);
    EXPECT_EQ(sys_errno(), 1234);
    EXPECT_EQ(td_send(tcp.dev.device(), 9, data.data(), 0, 0), -1);
    EXPECT_EQ(sys_errno(), 1234);
    EXPECT_EQ(tcp.dev.commands.size(), 7u);
    tcp.fail(1, 0xe0050013);
    EXPECT_EQ(td_send(tcp.dev.device(), 9, data.data(), 250, 0), -1);
    EXPECT_EQ(sys_errno(), 59);
    EXPECT_EQ(tcp.dev.device()->shared_io->lock->count, 0);
}

TEST(TcpCommands, SizeTestsSendNothingAndAddressesRoundTrip)
{
    TcpFake tcp(32);
    Device* d = tcp.dev.device();
    std::uint8_t address[17];
    std::memset(address, 0x33, sizeof address);

    EXPECT_EQ(td_sockbind(d, 5, address, 16), 1); // 16 + 16 fills the area exactly
    const auto& [command, area] = tcp.dev.commands.back();
    EXPECT_EQ(std::tuple(command, at<std::int32_t>(area, 0), at<std::uint32_t>(area, 4), at<std::uint8_t*>(area, 8)),
              std::tuple(TCP_BIND, 5, 16u, static_cast<std::uint8_t*>(d->shared_io->params) + 16));
    EXPECT_EQ(0, std::memcmp(area.data() + 16, address, 16));

    // Too big for the area: 0 (socket creation -1) and errno 8, and nothing goes to the device.
    TcpFake tiny(12);
    std::uint32_t length = 17;
    std::uint8_t out[20] = {};
    const std::pair<std::function<int()>, int> refused[] = {
        {[&] { return td_sockbind(d, 5, address, 17); }, 0},
        {[&] { return td_sockgetname(d, 5, out, &length); }, 0},
        {[&] { return td_socksetopt(d, 5, 6, 1, "\1\0\0\0", 4); }, 0}, // 4 + 32 does not fit
        {[&] { return td_sockcreat(tiny.dev.device(), 2, 1, 6); }, -1},
    };
    for (const auto& [call, expected] : refused) {
        sys_errno() = 0;
        EXPECT_EQ(call(), expected);
        EXPECT_EQ(sys_errno(), 8);
    }
    EXPECT_EQ(length, 17u);
    EXPECT_EQ(tcp.dev.commands.size(), 1u);
    EXPECT_EQ(tiny.dev.commands.size(), 0u);

    length = 16;
    EXPECT_EQ(td_sockgetname(d, 5, out, &length), 1);
    EXPECT_EQ(length, 16u);
    EXPECT_EQ(out[0], 0x5c);
    EXPECT_EQ(out[16], 0); // nothing past the caller's length
    tcp.fail(1, 0xe0050038);
    length = 12;
    EXPECT_EQ(td_sockgetpeer(d, 5, out, &length), 0);
    EXPECT_EQ(sys_errno(), 18);
    EXPECT_EQ(length, 12u);

    tcp.fail_run = 0;
    EXPECT_EQ(td_sockcreat(d, 2, 1, 6), 42);
    EXPECT_EQ(at<std::uint32_t>(tcp.dev.commands.back().area, 8), 6u);
}

TEST(TcpCommands, EveryBlockAndResultOnSuccessAndOnFailure)
{
    TcpFake tcp(64);
    Device* d = tcp.dev.device();
    auto* params = static_cast<std::uint8_t*>(d->shared_io->params);
    const std::uint32_t value[2] = {1, 10};
    std::uint8_t out[16] = {};
    std::uint32_t length = 8;
    using Area = std::vector<std::uint8_t>;
    struct Row {
        const char* name;
        std::function<int()> call;
        std::uint32_t command;
        int success, failure;
        std::function<void(const Area&)> check;
    };
    const Row rows[] = {
        {"create", [&] { return td_sockcreat(d, 2, 1, 6); }, TCP_CREATE, 42, -1,
         [](const Area& a) { EXPECT_EQ(std::tuple(at<std::uint32_t>(a, 0), at<std::uint32_t>(a, 4), at<std::uint32_t>(a, 8)), std::tuple(2u, 1u, 6u)); }},
        {"close", [&] { return td_sockclose(d, 7); }, TCP_CLOSE, 1, 0,
         [](const Area& a) { EXPECT_EQ(at<std::int32_t>(a, 0), 7); }},
        {"listen", [&] { return td_socklisten(d, 7, 16); }, TCP_LISTEN, 1, 0,
         [](const Area& a) { EXPECT_EQ(std::pair(at<std::int32_t>(a, 0), at<std::uint32_t>(a, 4)), std::pair(7, 16u)); }},
        {"setopt", [&] { return td_socksetopt(d, 7, 1, 13, value, 8); }, TCP_SETOPT, 1, 0,
         [&](const Area& a) {
             EXPECT_EQ(std::tuple(at<std::int32_t>(a, 0), at<std::uint32_t>(a, 4), at<std::uint32_t>(a, 8),
                                  at<std::uint8_t*>(a, 16), at<std::uint32_t>(a, 24)),
                       std::tuple(7, 1u, 13u, params + 32, 8u));
             EXPECT_EQ(std::pair(at<std::uint32_t>(a, 32), at<std::uint32_t>(a, 36)), std::pair(1u, 10u));
         }},
        {"inherit", [&] { return td_inheritparsocks(d, 0); }, TCP_INHERIT, 1, 0,
         [](const Area& a) { EXPECT_EQ(at<std::uint32_t>(a, 0), 0u); }},
        {"getname", [&] { return td_sockgetname(d, 7, out, &length); }, TCP_GETNAME, 1, 0,
         [&](const Area& a) {
             EXPECT_EQ(std::tuple(at<std::int32_t>(a, 0), at<std::uint32_t>(a, 4), at<std::uint8_t*>(a, 8)),
                       std::tuple(7, 8u, params + 16));
         }},
    };
    for (const Row& row : rows) {
        tcp.fail_run = 0;
        length = 8;
        std::memset(out, 0, sizeof out);
        EXPECT_EQ(row.call(), row.success) << row.name;
        ASSERT_FALSE(tcp.dev.commands.empty());
        EXPECT_EQ(tcp.dev.commands.back().command, row.command) << row.name;
        row.check(tcp.dev.commands.back().area);
        // The same call failing: its failure result and the translated status.
        tcp.fail(1, 0xe0050014);
        sys_errno() = 0;
        length = 8;
        EXPECT_EQ(row.call(), row.failure) << row.name;
        EXPECT_EQ(sys_errno(), 77) << row.name;
    }
    // The address query copied no more than the caller's length, and gave back the full one; its
    // failure above left the length alone.
    EXPECT_EQ(length, 8u);
    tcp.fail_run = 0;
    EXPECT_EQ(td_sockgetpeer(d, 7, out, &length), 1);
    EXPECT_EQ(tcp.dev.commands.back().command, TCP_GETPEER);
    EXPECT_EQ(std::pair(out[7], out[8]), std::pair(std::uint8_t{0x5c}, std::uint8_t{0}));
    EXPECT_EQ(length, 16u);
    EXPECT_EQ(d->shared_io->lock->count, 0);
}
