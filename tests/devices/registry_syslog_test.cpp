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

// One open of a device with a block whose parameters sit at offset 120.
struct Open {
    orlix::Handle reply = devtest::make_port();
    orlix::Device* device = nullptr;
    orlix::IOreq* req = nullptr;
    explicit Open(orlix::Handle port)
    {
        device = devtest::open_device(port, reply);
        if (device)
            req = devtest::create_block(device, 1024, reply);
    }
    ~Open()
    {
        if (req)
            devtest::delete_block(req);
        if (device)
            devtest::close_device(device, reply);
        orlix::_SL_DeleteObject(reply, orlix::DELETE_OBJECT);
    }
    std::uint8_t* at(std::size_t offset) { return reinterpret_cast<std::uint8_t*>(req) + offset; }
    template <typename T> void put(std::size_t offset, T value) { std::memcpy(at(offset), &value, sizeof value); }
    // Writes text at offset with its terminator; returns its address.
    void* text(std::size_t offset, const std::string& s)
    {
        std::memcpy(at(offset), s.c_str(), s.size() + 1);
        return at(offset);
    }
    std::uint64_t run(std::uint32_t command) { return devtest::sync(req, command, at(120)); }
    // Looks up a key the way the system's client does: key pointer at 120, value back at 128.
    std::uint64_t lookup(const std::string& key, std::uint64_t& value)
    {
        put(120, text(136, key));
        put<std::uint64_t>(128, 0);
        std::uint64_t type = run(orlix::REG_GET_KEY);
        std::memcpy(&value, at(128), 8);
        return type;
    }
};

class Devices : public ::testing::Test {
protected:
    void SetUp() override
    {
        host::devices::boot();
        devtest::warm_up();
        start_objects = host::kernel::live_object_count();
    }
    void TearDown() override { EXPECT_EQ(host::kernel::live_object_count(), start_objects); }
    std::uint64_t start_objects = 0;
};

TEST_F(Devices, RegistryAnswersDeviceLookupsAndTakesRegistration)
{
    host::devices::boot(); // a second boot changes nothing
    orlix::Handle port = orlix::_SL_GetState(orlix::STATE_REGISTRY_PORT);
    ASSERT_EQ(port, host::devices::registry_port());
    {
        Open reg(port);
        ASSERT_NE(reg.req, nullptr);
        std::uint64_t value = 0;
        EXPECT_EQ(reg.lookup("run/dev/tcpip", value), orlix::MSG_IO_DONE);
        EXPECT_EQ(static_cast<orlix::Handle>(value), host::devices::tcpip_port());
        EXPECT_EQ(reg.lookup("run/dev/syslog", value), orlix::MSG_IO_DONE);
        EXPECT_EQ(static_cast<orlix::Handle>(value), host::devices::syslog_port());
        EXPECT_EQ(reg.lookup("run/dev/nosuch", value), orlix::MSG_IO_FAILED);
        EXPECT_NE(reg.req->error, 0u);
        // A key pointer outside the block, or a key without its terminator inside it.
        static char outside[] = "run/dev/tcpip";
        reg.put(120, static_cast<void*>(outside));
        EXPECT_EQ(reg.run(orlix::REG_GET_KEY), orlix::MSG_IO_FAILED);
        EXPECT_EQ(reg.req->error, 0xbe000038u);
        std::memset(reg.at(1000), 'k', 24);
        reg.put(120, static_cast<void*>(reg.at(1000)));
        EXPECT_EQ(reg.run(orlix::REG_GET_KEY), orlix::MSG_IO_FAILED);
        EXPECT_EQ(reg.req->error, 0xbe000038u);

        // The program's registration: folders, the key with its bytes, the guard.
        reg.put(120, reg.text(128, "run/"));
        EXPECT_EQ(reg.run(orlix::REG_CREATE_TMP), orlix::MSG_IO_DONE);
        // Key at 24 of the parameters, the data directly behind it without a terminator.
        const std::string key = "run/proc/00000000000000AB";
        reg.put(120, static_cast<void*>(reg.at(144)));
        reg.put(128, static_cast<void*>(reg.at(144 + key.size())));
        reg.put<std::uint32_t>(136, 4);
        std::memcpy(reg.at(144), key.data(), key.size());
        std::memcpy(reg.at(144 + key.size()), "ftpd", 5);
        EXPECT_EQ(reg.run(orlix::REG_SET_KEY_BIN), orlix::MSG_IO_DONE);
        auto stored = host::devices::registry_get(key);
        ASSERT_TRUE(stored.has_value());
        EXPECT_EQ(std::string(stored->begin(), stored->end()), "ftpd");
        reg.put(120, reg.text(136, key));
        reg.put<std::uint32_t>(128, 1);
        EXPECT_EQ(reg.run(orlix::REG_CREATE_GUARD), orlix::MSG_IO_DONE);
        // Data running past the block.
        reg.put(120, reg.text(400, key));
        reg.put(128, static_cast<void*>(reg.at(1000)));
        reg.put<std::uint32_t>(136, 100);
        EXPECT_EQ(reg.run(orlix::REG_SET_KEY_BIN), orlix::MSG_IO_FAILED);

        // A device registered later is found the same way.
        host::devices::register_device("vfs", 4242);
        EXPECT_EQ(reg.lookup("run/dev/vfs", value), orlix::MSG_IO_DONE);
        EXPECT_EQ(value, 4242u);
    }
}

TEST_F(Devices, SyslogWritesEachRecordAndReportAsOneLine)
{
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    host::devices::set_log_fd(fds[1]);
    {
        Open log(host::devices::syslog_port());
        ASSERT_NE(log.req, nullptr);
        const std::string line = "ftpd[12]: Starting FTP daemon.";
        log.put<std::uint16_t>(120, static_cast<std::uint16_t>(line.size()));
        log.put(128, log.text(136, line));
        EXPECT_EQ(log.run(orlix::LOG_WRITE), orlix::MSG_IO_DONE);
        // The length bounds the record: the rest of the text is not written.
        log.put<std::uint16_t>(120, 4);
        EXPECT_EQ(log.run(orlix::LOG_WRITE), orlix::MSG_IO_DONE);
        // Text past the block's end is refused.
        log.put<std::uint16_t>(120, 200);
        log.put(128, static_cast<void*>(log.at(900)));
        EXPECT_EQ(log.run(orlix::LOG_WRITE), orlix::MSG_IO_FAILED);
        EXPECT_EQ(log.req->error, 0xbe000038u);
    }
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
    EXPECT_EQ(host::devices::host_exit_status({true, true, 3 << 8, false}), 3);
    EXPECT_EQ(host::devices::host_exit_status({true, true, 15, false}), 128 + 15);
    EXPECT_EQ(host::devices::host_exit_status({true, true, 0, true}), 0);
    EXPECT_EQ(host::devices::host_exit_status({true, false, 0, true}), 128 + 9);

    orlix::Handle port = orlix::_SL_GetState(orlix::STATE_SUPERVISOR_PORT);
    ASSERT_EQ(port, host::devices::supervisor_port());
    if (!host::devices::supervisor_record().exit_reported) { // the record lives as long as the process
        EXPECT_FALSE(host::devices::supervisor_wait_end(20));
    }
    orlix::_SL_SendMsg(port, 77, orlix::MSG_SUPERVISOR_STARTED, 0, -1);
    orlix::_SL_SendMsg(port, 77, orlix::MSG_SUPERVISOR_EXIT, 2 << 8, -1);
    ASSERT_TRUE(host::devices::supervisor_wait_end(2000));
    host::devices::TaskRecord r = host::devices::supervisor_record();
    EXPECT_TRUE(r.started);
    EXPECT_TRUE(r.exit_reported);
    EXPECT_EQ(host::devices::host_exit_status(r), 2);
}

} // namespace
