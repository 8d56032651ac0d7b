// Registry lookups and registration, syslog lines, and the supervisor's record of the task, all
// through the kernel messages the system's client sends.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "host/devices/devices.h"
#include "host/kernel/host_kernel.h"
#include "tests/devices/wire_client.h"

namespace {

using orlix::MSG_IO_DONE;
using orlix::MSG_IO_FAILED;

// An open with a 1024-byte block, text helpers, and the object count checked at the end.
class Devices : public ::testing::Test, protected devtest::Open {
protected:
    void SetUp() override
    {
        host::devices::boot();
        devtest::warm_up();
        start_objects = host::kernel::live_object_count();
    }
    void TearDown() override
    {
        if (reply != orlix::INVALID_HANDLE) {
            EXPECT_TRUE(close());
        }
        EXPECT_EQ(host::kernel::live_object_count(), start_objects);
    }
    // Writes text at offset with its terminator; returns its address.
    void* text(std::size_t offset, const std::string& s)
    {
        std::memcpy(at(offset), s.c_str(), s.size() + 1);
        return at(offset);
    }
    // Looks up a key the way the system's client does: key pointer at 120, value back at 128.
    std::uint64_t lookup(const std::string& key, std::uint64_t& value)
    {
        put(120, text(136, key));
        put<std::uint64_t>(128, 0);
        std::uint64_t type = run(orlix::REG_GET_KEY);
        std::memcpy(&value, at(128), 8);
        return type;
    }
    std::uint64_t start_objects = 0;
};

TEST_F(Devices, RegistryAnswersDeviceLookupsAndTakesRegistration)
{
    host::devices::boot(); // a second boot changes nothing
    ASSERT_EQ(orlix::_SL_GetState(orlix::STATE_REGISTRY_PORT), host::devices::registry_port());
    ASSERT_TRUE(open(host::devices::registry_port(), 1024));
    std::uint64_t value = 0;
    using host::devices::syslog_port, host::devices::tcpip_port;
    for (auto [name, port] : {std::pair("run/dev/tcpip", tcpip_port()), {"run/dev/syslog", syslog_port()}}) {
        EXPECT_EQ(lookup(name, value), MSG_IO_DONE);
        EXPECT_EQ(static_cast<orlix::Handle>(value), port);
    }
    EXPECT_EQ(lookup("run/dev/nosuch", value), MSG_IO_FAILED);
    EXPECT_NE(req->error, 0u);
    // A key pointer outside the block, or a key without its terminator inside it.
    static char outside[] = "run/dev/tcpip";
    std::memset(at(1000), 'k', 24);
    for (void* key : {static_cast<void*>(outside), static_cast<void*>(at(1000))}) {
        put(120, key);
        EXPECT_EQ(run(orlix::REG_GET_KEY), MSG_IO_FAILED);
        EXPECT_EQ(req->error, 0xbe000038u);
    }

    // The program's registration: folders, the key with its bytes, the guard.
    put(120, text(128, "run/"));
    EXPECT_EQ(run(orlix::REG_CREATE_TMP), MSG_IO_DONE);
    // Key at 24 of the parameters, the data directly behind it without a terminator.
    const std::string key = "run/proc/00000000000000AB";
    put(120, static_cast<void*>(at(144)));
    put(128, static_cast<void*>(at(144 + key.size())));
    put<std::uint32_t>(136, 4);
    std::memcpy(at(144), (key + "ftpd").c_str(), key.size() + 5);
    EXPECT_EQ(run(orlix::REG_SET_KEY_BIN), MSG_IO_DONE);
    auto stored = host::devices::registry_get(key);
    ASSERT_TRUE(stored.has_value());
    EXPECT_EQ(std::string(stored->begin(), stored->end()), "ftpd");
    put(120, text(136, key));
    put<std::uint32_t>(128, 1);
    EXPECT_EQ(run(orlix::REG_CREATE_GUARD), MSG_IO_DONE);
    // Data running past the block.
    put(120, text(400, key));
    put(128, static_cast<void*>(at(1000)));
    put<std::uint32_t>(136, 100);
    EXPECT_EQ(run(orlix::REG_SET_KEY_BIN), MSG_IO_FAILED);

    // A device registered later is found the same way.
    host::devices::register_device("vfs", 4242);
    EXPECT_EQ(lookup("run/dev/vfs", value), MSG_IO_DONE);
    EXPECT_EQ(value, 4242u);
}

TEST_F(Devices, SyslogWritesEachRecordAndReportAsOneLine)
{
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    host::devices::set_log_fd(fds[1]);
    ASSERT_TRUE(open(host::devices::syslog_port(), 1024));
    const std::string line = "ftpd[12]: Starting FTP daemon.";
    // The length bounds the record: the second run writes only "ftpd". Text past the block's end
    // is refused.
    put(128, text(136, line));
    for (auto [length, result] : {std::pair(line.size(), MSG_IO_DONE), {4, MSG_IO_DONE}, {1000, MSG_IO_FAILED}}) {
        put<std::uint16_t>(120, static_cast<std::uint16_t>(length));
        EXPECT_EQ(run(orlix::LOG_WRITE), result) << length;
    }
    EXPECT_EQ(req->error, 0xbe000038u);
    // The raw reports of a missing device and of a thread alarm.
    orlix::_SL_SendMsg(host::devices::syslog_port(), 0x216465766c61636b, orlix::MSG_LOG_DEVICE_LACK,
                       0x7463706970000000, 50);
    orlix::_SL_SendMsg(host::devices::syslog_port(), 0x414c41524d2d5448, orlix::MSG_LOG_THREAD_ALARM,
                       0x524541442d303031, 50);
    host::devices::set_log_fd(2);
    char buffer[512];
    ssize_t n = ::read(fds[0], buffer, sizeof buffer);
    ASSERT_GT(n, 0);
    EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(n)),
              "ftpd[12]: Starting FTP daemon.\nftpd\ndevice lack: tcpip\nthread alarm: ALARM-THREAD-001\n");
    ::close(fds[0]);
    ::close(fds[1]);
}

TEST_F(Devices, SupervisorRecordsStartAndExitStatus)
{
    const std::pair<host::devices::TaskRecord, int> statuses[] = {
        {{true, true, 3 << 8, false}, 3},
        {{true, true, 15, false}, 128 + 15},
        {{true, true, 0, true}, 0},
        {{true, false, 0, true}, 128 + 9},
    };
    for (const auto& [record, status] : statuses)
        EXPECT_EQ(host::devices::host_exit_status(record), status);

    orlix::Handle port = orlix::_SL_GetState(orlix::STATE_SUPERVISOR_PORT);
    ASSERT_EQ(port, host::devices::supervisor_port());
    if (!host::devices::supervisor_record().exit_reported) { // the record lives as long as the process
        EXPECT_FALSE(host::devices::supervisor_wait_end(20));
    }
    orlix::_SL_SendMsg(port, 77, orlix::MSG_SUPERVISOR_STARTED, 0, -1);
    orlix::_SL_SendMsg(port, 77, orlix::MSG_SUPERVISOR_EXIT, 2 << 8, -1);
    ASSERT_TRUE(host::devices::supervisor_wait_end(2000));
    host::devices::TaskRecord r = host::devices::supervisor_record();
    EXPECT_TRUE(r.started && r.exit_reported);
    EXPECT_EQ(host::devices::host_exit_status(r), 2);
}

} // namespace
