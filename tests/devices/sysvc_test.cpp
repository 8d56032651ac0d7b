// The sysvc device through its wire: process numbers and emulated sessions on a per-thread block,
// and its refusals. The host's own session never changes.
#include <gtest/gtest.h>

#include <unistd.h>

#include "host/devices/devices.h"
#include "host/kernel/host_kernel.h"
#include "platform/sysvc_wire.h"
#include "tests/devices/wire_client.h"

namespace {

using namespace orlix;

constexpr std::size_t BLOCK = 160 + 256; // as the runtime's: 40 bytes of parameters, 256 of data

class Sysvc : public ::testing::Test {
protected:
    void SetUp() override
    {
        host::devices::boot();
        devtest::warm_up();
        start_objects = host::kernel::live_object_count();
        ASSERT_TRUE(s.open(host::devices::sysvc_port(), BLOCK));
    }
    void TearDown() override
    {
        EXPECT_TRUE(s.close());
        EXPECT_EQ(host::kernel::live_object_count(), start_objects);
    }
    // Runs a command with the pid given: 0 when done, else the status; the result in out.
    std::uint32_t call(std::uint32_t command, std::uint64_t pid, std::uint64_t& out)
    {
        *s.params<SysvcPidParams>() = {pid, 0};
        std::uint64_t type = s.run(command);
        out = command == SYSVC_SETSID ? s.params<SysvcSetsidParams>()->session : s.params<SysvcPidParams>()->result;
        return type == MSG_IO_DONE ? 0 : type == MSG_IO_FAILED ? s.req->error : ~0u;
    }

    devtest::Open s;
    std::uint64_t start_objects = 0;
};

TEST_F(Sysvc, ProcessNumbersAreTheHostsAndOthersAreUnknown)
{
    const auto pid = static_cast<std::uint64_t>(::getpid());
    std::uint64_t out = 0;
    EXPECT_EQ(call(SYSVC_GETPID, 0, out), 0u);
    EXPECT_EQ(out, pid);
    EXPECT_EQ(call(SYSVC_GETPID, pid, out), 0u);
    EXPECT_EQ(out, pid);
    EXPECT_EQ(call(SYSVC_GETPID, pid + 1, out), SYSVC_STATUS_NO_PROCESS);
    EXPECT_EQ(call(SYSVC_GETSID, pid + 1, out), SYSVC_STATUS_NO_PROCESS);
    EXPECT_EQ(call(0xc0030099, 0, out), 2u);
    s.req->params = s.at(BLOCK - 8); // the result would lie outside the block
    s.req->command = SYSVC_GETPID;
    devtest::begin(s.req);
    devtest::receive(s.reply);
    EXPECT_EQ(s.req->error, 0xbe000038u);
}

TEST_F(Sysvc, SetsidLeadsANewSessionOnceWithoutTouchingTheHosts)
{
    const auto pid = static_cast<std::uint64_t>(::getpid());
    const pid_t host_session = ::getsid(0);
    std::uint64_t session = 0, out = 0;
    ASSERT_EQ(call(SYSVC_GETSID, 0, session), 0u);
    // Before any setsid of this process the session is the host's.
    EXPECT_TRUE(session == pid || session == static_cast<std::uint64_t>(host_session)) << session;
    if (session != pid) {
        EXPECT_EQ(call(SYSVC_SETSID, 0, out), 0u);
        EXPECT_EQ(out, pid);
    }
    EXPECT_EQ(call(SYSVC_SETSID, 0, out), SYSVC_STATUS_NOT_PERMITTED) << "already the leader";
    EXPECT_EQ(call(SYSVC_GETSID, pid, out), 0u);
    EXPECT_EQ(out, pid);
    EXPECT_EQ(::getsid(0), host_session) << "the host's session changed";
}

} // namespace
