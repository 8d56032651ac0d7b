// The TCP client against a fake TCP device that records every command: the status table, the
// cutting of sends into pieces, and size checks that must send nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>

#include "fake_device.h"
#include "platform/device_client.h"
#include "platform/tcp_client.h"
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

// A device that takes whole sends, except where a test says otherwise.
struct TcpFake {
    explicit TcpFake(std::uint64_t params_size) : dev(params_size)
    {
        dev.on_begin = [this](FakeDevice&, IOreq* req) {
            ++runs;
            auto* p = static_cast<TcpTransferParams*>(req->params);
            if (req->command == TCP_SEND)
                p->result = p->length;
            if (fail_run == runs) {
                req->error = fail_status;
                if (req->command == TCP_SEND)
                    p->result = partial;
                FakeDevice::reply(req, MSG_IO_FAILED);
                return;
            }
            if (req->command == TCP_CREATE)
                reinterpret_cast<TcpCreateParams*>(p)->socket = 42;
            if (req->command == TCP_GETNAME) {
                auto* a = reinterpret_cast<TcpAddressParams*>(p);
                std::memset(a->address, 0x5c, 16);
                a->length = 16;
            }
            FakeDevice::reply(req, MSG_IO_DONE);
        };
    }
    FakeDevice dev;
    int runs = 0;
    int fail_run = 0;
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
    auto cmds = tcp.dev.commands();
    ASSERT_EQ(cmds.size(), 5u);
    const std::uint64_t lengths[] = {100, 50, 100, 100, 50};
    const std::uint32_t flags[] = {0x40, 0x40, 0x40, 0x8040, 0x40};
    const std::size_t offsets[] = {0, 100, 0, 100, 200};
    for (std::size_t i = 0; i < cmds.size(); ++i) {
        EXPECT_EQ(cmds[i].command, TCP_SEND);
        EXPECT_EQ(at<std::int32_t>(cmds[i].area, 0), 9);
        EXPECT_EQ(at<std::uint64_t>(cmds[i].area, 32), lengths[i]) << i;
        EXPECT_EQ(at<std::uint32_t>(cmds[i].area, 40), flags[i]) << i;
        EXPECT_EQ(at<std::uint64_t>(cmds[i].area, 48), 0u) << "result cleared before the run";
        EXPECT_EQ(at<std::uint8_t*>(cmds[i].area, 24), static_cast<std::uint8_t*>(tcp.dev.device()->shared_io->params) + 56);
        EXPECT_EQ(0, std::memcmp(cmds[i].area.data() + 56, data.data() + offsets[i], lengths[i])) << i;
    }

    // A failing second piece counts its result field and leaves errno alone.
    sys_errno() = 1234;
    tcp.runs = 0;
    tcp.fail_run = 2;
    tcp.fail_status = 0xe0050013;
    tcp.partial = 7;
    EXPECT_EQ(td_send(tcp.dev.device(), 9, data.data(), 250, 0), 107);
    EXPECT_EQ(sys_errno(), 1234);
    // A failing first piece: -1 and the translated status.
    tcp.runs = 0;
    tcp.fail_run = 1;
    EXPECT_EQ(td_send(tcp.dev.device(), 9, data.data(), 250, 0), -1);
    EXPECT_EQ(sys_errno(), 59);

    std::size_t before = tcp.dev.commands().size();
    sys_errno() = 1234;
    EXPECT_EQ(td_send(tcp.dev.device(), 9, data.data(), 0, 0), -1);
    EXPECT_EQ(sys_errno(), 1234);
    EXPECT_EQ(tcp.dev.commands().size(), before);
    EXPECT_EQ(tcp.dev.device()->shared_io->lock->count, 0);
}

TEST(TcpCommands, SizeTestsSendNothingAndAddressesRoundTrip)
{
    TcpFake tcp(32);
    Device* d = tcp.dev.device();
    std::uint8_t address[17];
    std::memset(address, 0x33, sizeof address);

    EXPECT_EQ(td_sockbind(d, 5, address, 16), 1); // 16 + 16 fills the area exactly
    auto cmd = tcp.dev.commands().back();
    EXPECT_EQ(cmd.command, TCP_BIND);
    EXPECT_EQ(at<std::int32_t>(cmd.area, 0), 5);
    EXPECT_EQ(at<std::uint32_t>(cmd.area, 4), 16u);
    EXPECT_EQ(at<std::uint8_t*>(cmd.area, 8), static_cast<std::uint8_t*>(d->shared_io->params) + 16);
    EXPECT_EQ(0, std::memcmp(cmd.area.data() + 16, address, 16));
    sys_errno() = 0;
    EXPECT_EQ(td_sockbind(d, 5, address, 17), 0);
    EXPECT_EQ(sys_errno(), 8);
    EXPECT_EQ(tcp.dev.commands().size(), 1u);

    std::uint8_t out[20] = {};
    std::uint32_t length = 17;
    EXPECT_EQ(td_sockgetname(d, 5, out, &length), 0);
    EXPECT_EQ(length, 17u);
    length = 16;
    EXPECT_EQ(td_sockgetname(d, 5, out, &length), 1);
    EXPECT_EQ(length, 16u);
    EXPECT_EQ(out[0], 0x5c);
    EXPECT_EQ(out[16], 0); // nothing past the caller's length
    tcp.runs = 0;
    tcp.fail_run = 1;
    tcp.fail_status = 0xe0050038;
    length = 12;
    EXPECT_EQ(td_sockgetpeer(d, 5, out, &length), 0);
    EXPECT_EQ(sys_errno(), 18);
    EXPECT_EQ(length, 12u);

    tcp.fail_run = 0;
    EXPECT_EQ(td_sockcreat(d, 2, 1, 6), 42);
    EXPECT_EQ(at<std::uint32_t>(tcp.dev.commands().back().area, 8), 6u);
    EXPECT_EQ(td_socksetopt(d, 5, 6, 1, "\1\0\0\0", 4), 0); // 4 + 32 does not fit
    EXPECT_EQ(sys_errno(), 8);
    EXPECT_EQ(td_socklisten(d, 5, 32), 1);
    EXPECT_EQ(at<std::uint32_t>(tcp.dev.commands().back().area, 4), 32u);
    tcp.runs = 0;
    tcp.fail_run = 1;
    tcp.fail_status = 0xbe000014;
    EXPECT_EQ(td_sockclose(d, 5), 0);
    EXPECT_EQ(sys_errno(), 20);

    TcpFake tiny(12);
    sys_errno() = 0;
    EXPECT_EQ(td_sockcreat(tiny.dev.device(), 2, 1, 6), -1); // its size failure answers -1 too
    EXPECT_EQ(sys_errno(), 8);
    EXPECT_EQ(tiny.dev.commands().size(), 0u);
}
