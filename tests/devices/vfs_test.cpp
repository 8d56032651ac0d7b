// The vfs device through its wire: path commands on the shared channel and descriptor commands on
// a thread's block, with their results and statuses; the descriptor table's numbering and the
// independence of 0-2 from the host's; parked reads and record locks; the longest rename; a
// 64 MiB read; and the statuses that host errors become.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "host/devices/devices.h"
#include "host/devices/linux_errors.h"
#include "host/devices/vfs.h"
#include "host/devices/vfs_support.h"
#include "host/kernel/host_kernel.h"
#include "platform/vfs_wire.h"
#include "tests/devices/wire_client.h"

namespace {

using namespace orlix;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t BAD_ADDRESS = 0xbe000038, TIME_EXPIRED = 0xbe000049, NO_ANSWER = ~0u;
constexpr std::size_t THREAD_BLOCK = 0x1100, DATA = 256; // as the runtime's per-thread block
constexpr std::int32_t CWD = VFS_AT_CWD;

// Completion of a command: 0 done, the status when failed, NO_ANSWER when nothing came in time.
std::uint32_t outcome(IOreq* req, std::uint64_t type)
{
    return type == MSG_IO_DONE ? 0 : type == MSG_IO_FAILED ? req->error : NO_ANSWER;
}

// One open of the device: paths on its shared channel, descriptors on one thread's block.
struct VfsClient : devtest::Open {
    IOreq* shared() { return device->shared_io->request; }
    std::uint8_t* area() { return static_cast<std::uint8_t*>(device->shared_io->params); }
    template <typename T> T* sp() { return reinterpret_cast<T*>(area()); }

    // Runs a command on the shared channel: the fixed parameters, then each path behind them with
    // its address at the offset paired with it. 0, or the status.
    using Paths = std::vector<std::pair<std::size_t, std::string>>;
    template <typename P> std::uint32_t shared_call(std::uint32_t command, const P& p, const Paths& paths = {})
    {
        *sp<P>() = p;
        std::size_t at = sizeof(P);
        for (auto& [pointer_at, path] : paths) {
            char* text = reinterpret_cast<char*>(area() + at);
            std::memcpy(text, path.c_str(), path.size() + 1);
            std::memcpy(area() + pointer_at, &text, sizeof text);
            at += path.size() + 1;
        }
        return outcome(shared(), devtest::sync(shared(), command, area()));
    }
    // Runs a command on the thread's block with the parameters given.
    template <typename P> std::uint32_t call(std::uint32_t command, const P& p)
    {
        *params<P>() = p;
        return outcome(req, run(command));
    }

    using Text = const std::string&;
    std::uint32_t mkdir(Text path, std::int32_t at = CWD)
    {
        return shared_call(VFS_MKDIR, VfsMkdirParams{{}, 0755, at}, {{0, path}});
    }
    std::uint32_t unlink(Text path, std::uint32_t flags = 0)
    {
        return shared_call(VFS_UNLINK, VfsUnlinkParams{{}, flags, CWD}, {{0, path}});
    }
    std::uint32_t rename(Text from, Text to)
    {
        return shared_call(VFS_RENAME, VfsRenameParams{{}, {}, CWD, CWD, 0, 0}, {{0, from}, {8, to}});
    }
    std::uint32_t stat(Text path, VfsStat& out, std::uint32_t flags = 0)
    {
        std::uint32_t s = shared_call(VFS_STAT, VfsStatParams{{}, nullptr, flags, CWD}, {{120, path}});
        out = sp<VfsStatParams>()->stat;
        return s;
    }
    std::uint32_t realpath(Text path, std::string& out)
    {
        std::memcpy(area(), path.c_str(), path.size() + 1);
        std::uint32_t s = outcome(shared(), devtest::sync(shared(), VFS_REALPATH, area()));
        out = reinterpret_cast<char*>(area());
        return s;
    }
    std::uint32_t open_path(Text path, std::uint32_t flags, std::int32_t& fd, std::int32_t at = CWD)
    {
        std::uint32_t s = shared_call(VFS_OPEN, VfsOpenParams{-1, 0, nullptr, flags, at, 0644, {}}, {{8, path}});
        fd = sp<VfsOpenParams>()->fd;
        return s;
    }
    std::int32_t open_path(Text path, std::uint32_t flags)
    {
        std::int32_t fd;
        return open_path(path, flags, fd) ? -1 : fd;
    }
    std::int32_t opendir(Text path)
    {
        return shared_call(VFS_OPENDIR, VfsOpendirParams{}, {{8, path}}) ? -1 : sp<VfsOpendirParams>()->fd;
    }

    std::uint32_t close_fd(std::int32_t fd) { return call(VFS_CLOSE, VfsFdParams{fd}); }
    VfsTransferParams transfer(std::int32_t fd, std::size_t n) { return {0, at(DATA), n, fd}; }
    std::uint32_t write(std::int32_t fd, Text bytes)
    {
        std::memcpy(at(DATA), bytes.data(), bytes.size());
        return call(VFS_WRITE, transfer(fd, bytes.size()));
    }
    std::uint32_t read(std::int32_t fd, std::size_t n, std::string& out)
    {
        std::uint32_t s = call(VFS_READ, transfer(fd, n));
        out.assign(reinterpret_cast<char*>(at(DATA)), params<VfsTransferParams>()->result);
        return s;
    }
    void begin_read(std::int32_t fd, std::size_t n)
    {
        *params<VfsTransferParams>() = transfer(fd, n);
        req->command = VFS_READ;
        req->params = at(IOREQ_HEADER_SIZE);
        devtest::begin(req);
    }
    std::uint32_t fdcntl(std::int32_t fd, std::uint32_t code, std::uint32_t argument, std::uint32_t& result)
    {
        std::uint32_t s = call(VFS_FDCNTL, VfsFdcntlParams{fd, code, argument, 0});
        result = params<VfsFdcntlParams>()->result;
        return s;
    }
    std::uint32_t ioctl(std::int32_t fd, std::uint64_t request)
    {
        return call(VFS_IOCTL, VfsIoctlParams{fd, 0, request, 8, at(IOREQ_HEADER_SIZE + sizeof(VfsIoctlParams))});
    }
    std::string fdpath(std::int32_t fd)
    {
        const char* text = reinterpret_cast<char*>(at(IOREQ_HEADER_SIZE + VFS_FDPATH_TEXT));
        return call(VFS_FDPATH, VfsFdpathParams{fd, 0}) ? "" : text;
    }
};

// Fills a record-lock block; the command is run or begun by the caller.
VfsReclockParams* lock_params(IOreq* block, std::int32_t fd, std::uint32_t code, std::uint32_t type,
                              std::int64_t start, std::int64_t length)
{
    auto* p = reinterpret_cast<VfsReclockParams*>(ioreq_area(block));
    *p = {fd, code, type, 0, start, length, 0};
    block->command = VFS_RECLOCK;
    block->params = p;
    return p;
}

long host_fd_count() { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); }

class Vfs : public ::testing::Test {
protected:
    void SetUp() override
    {
        host::devices::boot();
        devtest::warm_up();
        char name[] = "/tmp/vfs_test_XXXXXX";
        ASSERT_NE(::mkdtemp(name), nullptr);
        dir = name;
        start_objects = host::kernel::live_object_count();
        start_fds = host_fd_count();
        ASSERT_TRUE(v.open(host::devices::vfs_port(), THREAD_BLOCK));
    }
    void TearDown() override
    {
        EXPECT_TRUE(v.close());
        std::filesystem::remove_all(dir);
        EXPECT_EQ(host::kernel::live_object_count(), start_objects);
        EXPECT_EQ(host_fd_count(), start_fds) << "a descriptor was left open";
    }
    std::string path(const std::string& name) { return dir + "/" + name; }
    void host_file(const std::string& name, const std::string& bytes)
    {
        int fd = ::open(path(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        ::close(fd);
    }
    std::uint64_t next(IOreq* block, int ms = 5000) { return devtest::receive(block->reply_port, ms).type; }

    VfsClient v;
    std::string dir;
    std::uint64_t start_objects = 0;
    long start_fds = 0;
};

TEST_F(Vfs, PathCommandsDoTheirWorkAndFailWithTheirStatuses)
{
    std::string text;
    auto at0 = [](const std::string& path) { return VfsClient::Paths{{0, path}}; };
    VfsReadlinkParams readlink{nullptr, {}, 0, CWD};
    EXPECT_EQ(v.shared_call(VFS_SETPRIMARY, VfsValueParams{0}), 0u);
    EXPECT_EQ(v.shared_call(VFS_INHERITFDS, VfsValueParams{0}), 0u);
    EXPECT_EQ(v.mkdir(path("d")), 0u);
    EXPECT_EQ(v.mkdir(path("d")), VFS_STATUS_EXISTS);
    std::int32_t fd = v.open_path(path("d/f"), OPEN_CREATE | OPEN_WRITE | OPEN_TRUNCATE);
    ASSERT_GE(fd, 3);
    EXPECT_EQ(v.write(fd, "hello"), 0u);
    EXPECT_EQ(v.params<VfsTransferParams>()->result, 5u);
    EXPECT_EQ(v.close_fd(fd), 0u);
    EXPECT_EQ(std::filesystem::status(path("d/f")).permissions(), std::filesystem::perms(0644));

    EXPECT_EQ(v.shared_call(VFS_RMDIR, VfsPathParams{}, at0(path("none"))), VFS_STATUS_NOT_FOUND);
    EXPECT_EQ(v.shared_call(VFS_RMDIR, VfsPathParams{}, at0(path("d"))), VFS_STATUS_NOT_EMPTY);
    EXPECT_EQ(v.open_path(path("d"), OPEN_WRITE, fd), VFS_STATUS_IS_DIR);
    EXPECT_EQ(v.shared_call(VFS_CHDIR, VfsPathParams{}, at0(path("d/f"))), VFS_STATUS_NOT_DIR);
    EXPECT_EQ(v.realpath(path("d/none"), text), VFS_STATUS_NOT_FOUND);
    ASSERT_EQ(::symlink("d", path("l").c_str()), 0);
    EXPECT_EQ(v.realpath(path("l/../l/./f"), text), 0u);
    EXPECT_EQ(text, std::filesystem::canonical(path("d/f")).string());
    auto* link = v.sp<VfsReadlinkParams>();
    EXPECT_EQ(v.shared_call(VFS_READLINK, readlink, at0(path("l"))), 0u);
    EXPECT_EQ(std::string(link->text, link->length), "d");
    EXPECT_EQ(v.shared_call(VFS_READLINK, readlink, at0(path("d/f"))), VFS_STATUS_INVALID);

    EXPECT_EQ(v.rename(path("d/f"), path("g")), 0u);
    EXPECT_EQ(v.unlink(path("d")), VFS_STATUS_IS_DIR);
    EXPECT_EQ(v.unlink(path("g")), 0u);
    EXPECT_EQ(v.unlink(path("d"), VFS_UNLINK_REMOVEDIR), 0u);
    EXPECT_EQ(v.mkdir(path("e")), 0u);
    EXPECT_EQ(v.shared_call(VFS_RMDIR, VfsPathParams{}, at0(path("e"))), 0u);
    EXPECT_FALSE(std::filesystem::exists(path("d")) || std::filesystem::exists(path("e")));

    // Pointers that leave the block, and a command the device does not know.
    auto* outside = reinterpret_cast<const char*>(v.area() + VFS_SHARED_AREA);
    EXPECT_EQ(v.shared_call(VFS_CHDIR, VfsPathParams{outside}), BAD_ADDRESS);
    EXPECT_EQ(v.call(VFS_READ, VfsTransferParams{0, v.at(THREAD_BLOCK - 4), 8, 0}), BAD_ADDRESS);
    EXPECT_EQ(v.call(0xc0040099, VfsFdParams{0}), 2u);
}

TEST_F(Vfs, RelativePathsResolveAgainstTheDevicesOwnDirectory)
{
    std::string before, here;
    auto chdir = [&](const std::string& to) { return v.shared_call(VFS_CHDIR, VfsPathParams{}, {{0, to}}); };
    ASSERT_EQ(v.realpath(".", before), 0u);
    std::string host_cwd = std::filesystem::current_path().string();
    ASSERT_EQ(chdir(dir), 0u);
    EXPECT_EQ(v.realpath(".", here), 0u);
    EXPECT_EQ(here, std::filesystem::canonical(dir).string());
    EXPECT_EQ(std::filesystem::current_path().string(), host_cwd) << "the host's directory moved";

    EXPECT_EQ(v.mkdir("sub"), 0u);
    std::int32_t sub = v.opendir("sub"), fd;
    ASSERT_GE(sub, 0);
    EXPECT_EQ(v.mkdir("inner", sub), 0u); // against an open directory
    EXPECT_EQ(v.open_path("inner/x", OPEN_CREATE | OPEN_WRITE, fd, sub), 0u);
    EXPECT_TRUE(std::filesystem::exists(path("sub/inner/x")));
    EXPECT_EQ(v.close_fd(fd), 0u);
    EXPECT_EQ(v.fdpath(sub), std::filesystem::canonical(path("sub")).string());
    EXPECT_EQ(v.close_fd(sub), 0u);
    EXPECT_EQ(v.mkdir("y", 77), VFS_STATUS_BAD_FD);
    EXPECT_EQ(v.mkdir(path("z"), 77), 0u) << "an absolute path needs no directory";

    ASSERT_EQ(chdir(before), 0u);
}

TEST_F(Vfs, DirectoryListingGivesEveryEntryThenTheEnd)
{
    host_file("a", "1");
    ASSERT_EQ(::mkdir(path("c").c_str(), 0755), 0);
    ASSERT_EQ(::symlink("a", path("l").c_str()), 0);
    std::int32_t fd = v.opendir(dir);
    auto* p = v.sp<VfsReaddirParams>();
    auto readdir = [&](std::int32_t from) { return v.shared_call(VFS_READDIR, VfsReaddirParams{{}, 0, from}); };
    std::map<std::string, int> seen;
    for (int i = 0; i < 10 && readdir(fd) == 0 && !p->end; ++i)
        seen[p->entry.name] = p->entry.type;
    std::map<std::string, int> all{{".", DT_DIR}, {"..", DT_DIR}, {"a", DT_REG}, {"c", DT_DIR}, {"l", DT_LNK}};
    EXPECT_EQ(seen, all);
    EXPECT_EQ(readdir(fd), 0u);
    EXPECT_NE(p->end, 0u) << "the end stays the end";
    EXPECT_EQ(v.close_fd(fd), 0u);
    EXPECT_EQ(readdir(fd), VFS_STATUS_BAD_FD);
    fd = v.open_path(path("a"), OPEN_READ);
    EXPECT_EQ(readdir(fd), VFS_STATUS_NOT_DIR);
    EXPECT_EQ(v.close_fd(fd), 0u);
}

TEST_F(Vfs, StatTellsFilesDirectoriesLinksAndDevices)
{
    host_file("f", "12345");
    ASSERT_EQ(::symlink("f", path("l").c_str()), 0);
    struct statx host;
    ASSERT_EQ(::statx(AT_FDCWD, path("f").c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &host), 0);
    VfsStat s{}, through_link{}, link{}, other{};
    ASSERT_EQ(v.stat(path("f"), s), 0u);
    EXPECT_EQ(std::tuple(s.size, s.inode, s.mode, s.nlink), std::tuple(5ul, host.stx_ino, host.stx_mode, 1u));
    EXPECT_EQ(s.modify.seconds, host.stx_mtime.tv_sec);
    EXPECT_EQ(s.modify.nanoseconds, host.stx_mtime.tv_nsec);
    EXPECT_EQ(s.device, (host.stx_dev_major << 20) | host.stx_dev_minor);
    EXPECT_EQ(s.create.seconds, (host.stx_mask & STATX_BTIME) ? host.stx_btime.tv_sec : 0);
    ASSERT_EQ(v.stat(path("l"), through_link), 0u);
    EXPECT_EQ(std::pair(through_link.inode, through_link.mode & MODE_TYPE), std::pair(s.inode, MODE_REGULAR));
    ASSERT_EQ(v.stat(path("l"), link, VFS_STAT_NOFOLLOW), 0u);
    EXPECT_EQ(std::pair(link.size, link.mode & MODE_TYPE), std::pair(1ul, MODE_LINK));
    ASSERT_EQ(v.stat(dir, other), 0u);
    EXPECT_EQ(other.mode & MODE_TYPE, MODE_DIR);
    ASSERT_EQ(v.stat("/dev/null", other), 0u);
    EXPECT_EQ(std::pair(other.mode & MODE_TYPE, other.rdevice), std::pair(MODE_CHAR, (1u << 20) | 3u));
    EXPECT_EQ(v.stat(path("f"), other, 1), VFS_STATUS_INVALID);

    std::int32_t fd = v.open_path(path("l"), OPEN_READ);
    ASSERT_EQ(v.call(VFS_FSTAT, VfsFstatParams{{}, fd}), 0u);
    other = v.params<VfsFstatParams>()->stat;
    EXPECT_EQ(std::memcmp(&other, &through_link, sizeof other), 0);
    EXPECT_EQ(v.close_fd(fd), 0u);
}

TEST_F(Vfs, DescriptorsTakeTheLowestFreeNumberAndDuplicatesShareTheirFile)
{
    host_file("f", "abcdef");
    std::int32_t a = v.open_path(path("f"), OPEN_READ);
    std::int32_t b = v.open_path(path("f"), OPEN_READ | OPEN_WRITE | OPEN_CLOEXEC);
    ASSERT_GE(a, 3);
    EXPECT_EQ(b, a + 1);
    EXPECT_EQ(v.close_fd(a), 0u);
    std::int32_t c = v.open_path(path("f"), OPEN_READ | OPEN_APPEND);
    EXPECT_EQ(c, a) << "the lowest free number";

    std::uint32_t r = 0, flags = 0;
    EXPECT_EQ(v.fdcntl(b, FDCNTL_GET_FLAGS, 0, flags), 0u);
    EXPECT_EQ(flags, FD_CLOEXEC_FLAG);
    EXPECT_EQ(v.fdcntl(b, FDCNTL_GET_STATUS, 0, flags), 0u);
    EXPECT_EQ(flags, OPEN_READ | OPEN_WRITE);
    EXPECT_EQ(v.fdcntl(c, FDCNTL_GET_STATUS, 0, flags), 0u);
    EXPECT_EQ(flags, OPEN_READ | FD_STATUS_APPEND);
    EXPECT_EQ(v.fdcntl(b, FDCNTL_SET_STATUS, FD_STATUS_APPEND, r), 0u);
    EXPECT_EQ(v.write(b, "Z"), 0u);
    std::string text;
    EXPECT_EQ(v.read(c, 10, text), 0u);
    EXPECT_EQ(text, "abcdefZ") << "the append flag, set later, writes at the end";

    EXPECT_EQ(v.fdcntl(b, FDCNTL_DUP, 0, r), 0u);
    EXPECT_EQ(static_cast<std::int32_t>(r), b + 1);
    EXPECT_EQ(v.fdcntl(r, FDCNTL_GET_FLAGS, 0, flags), 0u);
    EXPECT_EQ(flags, 0u) << "a duplicate does not inherit close-on-exec";
    EXPECT_EQ(v.fdcntl(r, FDCNTL_SET_FLAGS, FD_CLOEXEC_FLAG, flags), 0u);
    EXPECT_EQ(v.fdcntl(r, FDCNTL_GET_FLAGS, 0, flags), 0u);
    EXPECT_EQ(flags, FD_CLOEXEC_FLAG);
    EXPECT_EQ(v.close_fd(r), 0u);
    EXPECT_EQ(v.fdcntl(b, FDCNTL_DUP_CLOEXEC, 100, r), 0u);
    EXPECT_EQ(r, 100u);
    EXPECT_EQ(v.fdcntl(c, FDCNTL_DUP_TO, 100, r), 0u) << "onto an open number";
    auto* seek = v.params<VfsSeekParams>();
    EXPECT_EQ(v.call(VFS_SEEK, VfsSeekParams{c, 0, 2, 0}), 0u);
    EXPECT_EQ(v.call(VFS_SEEK, VfsSeekParams{100, 1, 0, 0}), 0u);
    EXPECT_EQ(seek->position, 2) << "a duplicate shares the position";
    EXPECT_EQ(v.call(VFS_SEEK, VfsSeekParams{100, 3, 0, 0}), VFS_STATUS_INVALID);
    EXPECT_EQ(v.fdcntl(c, FDCNTL_DUP_TO, host::devices::DescriptorTable::CAPACITY, r), VFS_STATUS_BAD_FD);
    EXPECT_EQ(v.fdcntl(c, 7, 0, r), VFS_STATUS_INVALID);

    auto* table = v.params<VfsFdtabParams>();
    EXPECT_EQ(v.call(VFS_FDTABCNTL, VfsFdtabParams{host::devices::FDTAB_HIGHEST, 0, 0}), 0u);
    EXPECT_EQ(table->value, 100u);
    EXPECT_EQ(v.call(VFS_FDTABCNTL, VfsFdtabParams{host::devices::FDTAB_CLOSE_FROM, 0, std::uint64_t(b) + 1}), 0u);
    EXPECT_EQ(table->value, 1u);
    EXPECT_EQ(v.fdpath(c), std::filesystem::canonical(path("f")).string());
    EXPECT_EQ(v.close_fd(b), 0u);
    EXPECT_EQ(v.close_fd(c), 0u);
    EXPECT_EQ(v.close_fd(100), VFS_STATUS_BAD_FD);
}

TEST_F(Vfs, StandardDescriptorsAreTheDevicesOwn)
{
    auto host_link = [](int fd) { return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)); };
    auto host_one = host_link(1);
    int host_flags = ::fcntl(1, F_GETFL);
    for (std::int32_t fd : {0, 1, 2})
        EXPECT_EQ(v.fdpath(fd), host_link(fd).string());

    std::uint32_t saved, r;
    ASSERT_EQ(v.fdcntl(1, FDCNTL_DUP, 3, saved), 0u);
    std::int32_t file = v.open_path(path("out"), OPEN_CREATE | OPEN_WRITE);
    ASSERT_EQ(v.fdcntl(file, FDCNTL_DUP_TO, 1, r), 0u);
    EXPECT_EQ(v.write(1, "to the file"), 0u);
    EXPECT_EQ(v.close_fd(1), 0u);
    EXPECT_EQ(host_link(1), host_one) << "the host's 1 was redirected";
    EXPECT_EQ(::fcntl(1, F_GETFD), 0) << "the host's 1 was closed";
    ASSERT_EQ(v.fdcntl(saved, FDCNTL_DUP_TO, 1, r), 0u);
    EXPECT_EQ(v.fdpath(1), host_one.string());

    // The append flag of a description shared with the host is the device's.
    std::uint32_t flags;
    EXPECT_EQ(v.fdcntl(1, FDCNTL_SET_STATUS, FD_STATUS_APPEND, r), 0u);
    EXPECT_EQ(v.fdcntl(1, FDCNTL_GET_STATUS, 0, flags), 0u);
    EXPECT_NE(flags & FD_STATUS_APPEND, 0u);
    EXPECT_EQ(::fcntl(1, F_GETFL), host_flags);
    EXPECT_EQ(v.fdcntl(1, FDCNTL_SET_STATUS, 0, r), 0u);
    for (std::int32_t fd : {static_cast<std::int32_t>(saved), file})
        EXPECT_EQ(v.close_fd(fd), 0u);
    std::ifstream in(path("out"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "to the file");
}

TEST_F(Vfs, ReadsOnAnEmptyPipeWaitUntilDataTimeOutOrAbort)
{
    ASSERT_EQ(::mkfifo(path("p").c_str(), 0600), 0);
    std::int32_t fd = v.open_path(path("p"), OPEN_READ | OPEN_WRITE);
    ASSERT_GE(fd, 0);
    int writer = ::open(path("p").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(writer, 0);

    v.begin_read(fd, 100);
    EXPECT_EQ(next(v.req, 100), 0u) << "a read without data finished";
    ASSERT_EQ(::write(writer, "hello", 5), 5);
    ASSERT_EQ(next(v.req), MSG_IO_DONE);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(v.at(DATA)), v.params<VfsTransferParams>()->result), "hello");

    v.req->timeout = 100;
    auto start = Clock::now();
    v.begin_read(fd, 100);
    ASSERT_EQ(next(v.req), MSG_IO_FAILED);
    EXPECT_EQ(v.req->error, TIME_EXPIRED);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(90));
    v.req->timeout = IOREQ_NO_TIMEOUT;

    v.begin_read(fd, 100);
    EXPECT_EQ(next(v.req, 50), 0u);
    devtest::abort(v.req);
    EXPECT_EQ(next(v.req), MSG_IO_ABORT_ACK);
    EXPECT_EQ(next(v.req), MSG_IO_ABORTED);
    ASSERT_EQ(::write(writer, "after", 5), 5);
    std::string text;
    EXPECT_EQ(v.read(fd, 100, text), 0u);
    EXPECT_EQ(text, "after") << "the aborted read took nothing";

    // What a pipe is not: seekable, a terminal.
    EXPECT_EQ(v.call(VFS_SEEK, VfsSeekParams{fd, 0, 0, 0}), VFS_STATUS_BAD_SEEK);
    EXPECT_EQ(v.ioctl(fd, IOCTL_IS_TERMINAL), VFS_STATUS_NOT_TERMINAL);
    EXPECT_EQ(v.ioctl(fd, IOCTL_DROP_TERMINAL), VFS_STATUS_NOT_TERMINAL);
    EXPECT_EQ(v.ioctl(fd, 0x5401), VFS_STATUS_BAD_COMMAND);
    ::close(writer);
    EXPECT_EQ(v.close_fd(fd), 0u);
}

TEST_F(Vfs, AWaitingRecordLockIsGrantedWhenAnotherOpenReleasesIt)
{
    host_file("f", std::string(100, 'x'));
    std::int32_t a = v.open_path(path("f"), OPEN_READ | OPEN_WRITE);
    std::int32_t b = v.open_path(path("f"), OPEN_READ | OPEN_WRITE);
    Handle reply = devtest::make_port();
    IOreq* other = devtest::create_block(v.device, THREAD_BLOCK, reply);
    ASSERT_NE(other, nullptr);
    auto run = [](IOreq* block) { return outcome(block, devtest::sync(block, block->command, block->params)); };

    lock_params(v.req, a, 2, 2, 0, 10);
    ASSERT_EQ(run(v.req), 0u);
    VfsReclockParams* p = lock_params(other, b, 1, 1, 5, 1);
    ASSERT_EQ(run(other), 0u);
    EXPECT_EQ(std::tuple(p->type, p->start, p->length, p->owner), std::tuple(2u, 0l, 10l, ~0ul)) << "the holder";
    lock_params(other, b, 1, 1, 10, 5);
    ASSERT_EQ(run(other), 0u);
    EXPECT_EQ(p->type, 0u) << "no conflict behind the lock";
    lock_params(other, b, 2, 1, 5, 1);
    EXPECT_EQ(run(other), host::devices::carried_status(EAGAIN));

    lock_params(other, b, 3, 2, 0, 0);
    devtest::begin(other);
    EXPECT_EQ(next(other, 60), 0u) << "granted while another holds a conflicting lock";
    lock_params(v.req, a, 2, 0, 0, 10);
    ASSERT_EQ(run(v.req), 0u);
    EXPECT_EQ(next(other), MSG_IO_DONE) << "not granted after the release";

    // Now a waits, and gives up.
    lock_params(v.req, a, 3, 1, 50, 1);
    devtest::begin(v.req);
    EXPECT_EQ(next(v.req, 60), 0u);
    devtest::abort(v.req);
    EXPECT_EQ(next(v.req), MSG_IO_ABORT_ACK);
    EXPECT_EQ(next(v.req), MSG_IO_ABORTED);
    lock_params(v.req, a, 2, 3, 0, 1);
    EXPECT_EQ(run(v.req), VFS_STATUS_INVALID);
    lock_params(v.req, a, 4, 1, 0, 1);
    EXPECT_EQ(run(v.req), VFS_STATUS_INVALID);

    EXPECT_TRUE(devtest::delete_block(other));
    _SL_DeleteObject(reply, DELETE_OBJECT);
    EXPECT_EQ(v.close_fd(a), 0u);
    EXPECT_EQ(v.close_fd(b), 0u);
}

TEST_F(Vfs, TheSharedAreaHoldsARenameOfTwoLongestPaths)
{
    EXPECT_EQ(v.device->shared_io->params_size, VFS_SHARED_AREA);
    // Directories of 200 letters down to where one last name of at most 255 makes 4095.
    std::string deep = dir;
    while (deep.size() < VFS_PATH_MAX - 256) {
        deep += "/" + std::string(200, 'd');
        ASSERT_EQ(::mkdir(deep.c_str(), 0755), 0) << deep.size();
    }
    std::string from = deep + "/" + std::string(VFS_PATH_MAX - 2 - deep.size(), 'a');
    std::string to = deep + "/" + std::string(VFS_PATH_MAX - 2 - deep.size(), 'b');
    ASSERT_EQ(std::pair(from.size(), to.size()), std::pair(VFS_PATH_MAX - 1, VFS_PATH_MAX - 1));
    int fd = ::open(from.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ::close(fd);
    EXPECT_EQ(v.rename(from, to), 0u);
    EXPECT_TRUE(std::filesystem::exists(to));
    EXPECT_FALSE(std::filesystem::exists(from));
}

TEST_F(Vfs, AReadOf64MiBFillsOneBlock)
{
    constexpr std::size_t SIZE = std::size_t{64} << 20;
    host_file("big", "first");
    ASSERT_EQ(::truncate(path("big").c_str(), SIZE), 0);
    int hfd = ::open(path("big").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_EQ(::pwrite(hfd, "last", 4, SIZE - 4), 4);
    ::close(hfd);
    Handle reply = devtest::make_port();
    IOreq* big = devtest::create_block(v.device, DATA + SIZE, reply);
    if (!big)
        _SL_DeleteObject(reply, DELETE_OBJECT);
    ASSERT_NE(big, nullptr) << "the device refused a block of 64 MiB";
    std::int32_t fd = v.open_path(path("big"), OPEN_READ);
    auto* p = reinterpret_cast<VfsTransferParams*>(ioreq_area(big));
    *p = {0, reinterpret_cast<std::uint8_t*>(big) + DATA, SIZE, fd};
    EXPECT_EQ(outcome(big, devtest::sync(big, VFS_READ, p)), 0u);
    EXPECT_EQ(p->result, SIZE);
    const char* data = reinterpret_cast<const char*>(big) + DATA;
    EXPECT_EQ(std::string(data, 5) + std::string(data + SIZE - 4, 4), "firstlast");
    EXPECT_TRUE(devtest::delete_block(big));
    _SL_DeleteObject(reply, DELETE_OBJECT);
    EXPECT_EQ(v.close_fd(fd), 0u);
}

TEST_F(Vfs, WritesGoThroughAtOnceAndSpecialFilesAnswer)
{
    ASSERT_EQ(::symlink("/dev/full", path("full").c_str()), 0);
    std::int32_t full = v.open_path(path("full"), OPEN_CREATE | OPEN_WRITE | OPEN_TRUNCATE);
    ASSERT_GE(full, 0);
    EXPECT_EQ(v.write(full, std::string(4096, 'x')), VFS_STATUS_NO_SPACE);
    std::int32_t null = v.open_path("/dev/null", OPEN_READ | OPEN_WRITE | OPEN_NOCTTY);
    EXPECT_EQ(v.write(null, "gone"), 0u);
    std::string text = "unchanged";
    EXPECT_EQ(v.read(null, 10, text), 0u);
    EXPECT_EQ(text, "");
    EXPECT_EQ(v.ioctl(null, IOCTL_IS_TERMINAL), VFS_STATUS_NOT_TERMINAL);

    // /dev/tty answers as the host's does: opened only with a controlling terminal.
    int host_tty = ::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC), host_error = errno;
    std::int32_t tty;
    std::uint32_t s = v.open_path("/dev/tty", OPEN_READ | OPEN_WRITE | OPEN_NOCTTY, tty);
    if (host_tty < 0) {
        EXPECT_EQ(s, host::devices::vfs_status(host_error));
    } else {
        ASSERT_EQ(s, 0u);
        EXPECT_EQ(v.ioctl(tty, IOCTL_IS_TERMINAL), 0u);
        EXPECT_EQ(v.ioctl(tty, IOCTL_DROP_TERMINAL), 0u);
        EXPECT_EQ(v.close_fd(tty), 0u);
        ::close(host_tty);
    }
    EXPECT_EQ(v.close_fd(full), 0u);
    EXPECT_EQ(v.close_fd(null), 0u);
}

// The client's table (status to error number) that every VFS status must read right through.
int client_number(std::uint32_t status)
{
    static const std::map<std::uint32_t, int> table = {
        {2, 29}, {4, 8}, {5, 23}, {0xe0040011, 23}, {0xe0040001, 22}, {0xe0040002, 11}, {0xe0040003, 35},
        {0xe0040004, 32}, {0xe0040005, 7}, {0xe0040006, 33}, {0xe0040007, 10}, {0xe0040008, 1},
        {0xe0040009, 26}, {0xe0040010, 40}, {0xe0040012, 28}, {0xe0040013, 31}, {0xe0040017, 13},
        {0xe0040022, 19}, {0xe0040023, 2}, {0xe0040025, 17}, {0xe0040028, 12}, {0xe0040029, 41},
        {0xe0040030, 4}, {0xe0040032, 44}, {0xe0040033, 37}, {0xe0040035, 14}, {0xe0040038, 20},
        {0xe0040039, 46}, {0xe0040040, 21}, {0xe0040041, 43}, {0xe0040043, 48}, {0xe0040044, 86},
        {0xe0040045, 87}};
    if ((status >> 24) == 0xbe)
        return static_cast<int>(status & 0xffffff);
    auto it = table.find(status);
    return it == table.end() ? 35 : it->second;
}

TEST(VfsStatuses, HostErrorsReadRightThroughTheClientsTable)
{
    using host::devices::vfs_status;
    for (int number = 0; number < ERROR_NUMBER_COUNT; ++number)
        EXPECT_EQ(client_number(host::devices::vfs_status_of_number(number)), number) << number;
    const std::pair<int, std::uint32_t> named[] = {
        {ENOENT, 0xe0040008}, {EACCES, 0xe0040023}, {ENOTEMPTY, 0xe0040025}, {EEXIST, 0xe0040007},
        {ENOTDIR, 0xe0040005}, {EISDIR, 0xe0040028}, {ENOSPC, 0xe0040033}, {EROFS, 0xe0040029},
        {ELOOP, 0xe0040030}, {ENAMETOOLONG, 0xe0040017}, {EBADF, 0xe0040009}, {EXDEV, 0xe0040010},
        {EPERM, 0xe0040022}, {ESPIPE, 0xe0040041}, {ENOTTY, 0xe0040039}, {EFBIG, 0xe0040040},
        {EIO, 0xe0040038}, {EMFILE, 0xbe000022}, {EPIPE, 0xbe000005}, {EAGAIN, 0xbe00002f}};
    for (auto [linux_errno, status] : named)
        EXPECT_EQ(vfs_status(linux_errno), status) << linux_errno;
    EXPECT_EQ(host::devices::platform_errno(EOPNOTSUPP), ERR_NOTSUP);
    EXPECT_EQ(host::devices::platform_errno(ENXIO), ERR_NXIO);
    EXPECT_EQ(host::devices::platform_errno(0), ERR_IO) << "unknown numbers are I/O errors";
    EXPECT_EQ(host::devices::platform_errno(4000), ERR_IO);
}

} // namespace
