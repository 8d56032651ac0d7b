// Files through the runtime and the host's vfs device: a round trip through open, write, read,
// lseek64 and fstat, the growth of the thread's request block, directory listings, links, the
// error numbers and texts of failed calls, and the size tests that send nothing.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "runtime/context.h"
#include "runtime/dirent.h"
#include "runtime/fd.h"
#include "runtime/files.h"
#include "runtime/heap.h"
#include "runtime/string.h"
#include "runtime/thread.h"

namespace orlix {
int* __get_errno_ptr();
}

namespace fs = std::filesystem;

namespace {

int& err() { return *orlix::__get_errno_ptr(); }

class Files : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = fs::temp_directory_path() / ("orlix-files-" + std::to_string(::getpid()) + "-" +
                                            ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    std::string path(const std::string& name) const { return (dir_ / name).string(); }
    fs::path dir_;
};

} // namespace

TEST_F(Files, RoundTripAndTheThreadsBlockGrowsOnce)
{
    const std::string file = path("data");
    int fd = orlix::open(file.c_str(), orlix::OPEN_CREATE | orlix::OPEN_READ | orlix::OPEN_WRITE, 0640);
    ASSERT_GE(fd, 3);
    std::vector<char> out(10000), in(10000);
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = static_cast<char>(i * 7);

    orlix::IoSlot& slot = orlix::__pthread_self()->vfs_io;
    ASSERT_EQ(orlix::write(fd, out.data(), out.size()), 10000);
    orlix::IOreq* grown = slot.request;
    EXPECT_EQ(slot.data_size, 10000u) << "a transfer above 4096 bytes replaces the block";
    EXPECT_EQ(orlix::lseek64(fd, 0, 0), 0);
    ASSERT_EQ(orlix::read(fd, in.data(), in.size()), 10000);
    EXPECT_EQ(slot.request, grown) << "a second transfer of the same size keeps it";
    EXPECT_EQ(in, out);
    EXPECT_EQ(orlix::read(fd, in.data(), 0), 0);
    EXPECT_EQ(orlix::read(fd, in.data(), 10), 0) << "at the end";

    orlix::iovec halves[2] = {{in.data(), 3}, {in.data() + 3, 4}};
    EXPECT_EQ(orlix::lseek64(fd, 10, 0), 10);
    EXPECT_EQ(orlix::readv(fd, halves, 2), 7);
    EXPECT_EQ(std::memcmp(in.data(), out.data() + 10, 7), 0);

    struct orlix::stat st;
    ASSERT_EQ(orlix::fstat(fd, &st), 0);
    EXPECT_EQ(st.st_size, 10000);
    EXPECT_TRUE(orlix::is_regular(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    EXPECT_EQ(st.st_mode_short, st.st_mode);

    err() = 0;
    EXPECT_EQ(orlix::lseek64(fd, 0, 3), -1);
    EXPECT_EQ(err(), 11);
    std::vector<orlix::iovec> many(1025, orlix::iovec{in.data(), 1});
    EXPECT_EQ(orlix::readv(fd, many.data(), 1025), -1);
    EXPECT_EQ(err(), 11);
    EXPECT_EQ(orlix::lseek64(fd, 0, 2), 10000);
    EXPECT_EQ(orlix::readv(fd, many.data(), 1024), 0) << "1024 elements go, and find the end of the file";

    EXPECT_EQ(orlix::close(fd), 0);
    EXPECT_EQ(orlix::close(fd), -1);
    EXPECT_EQ(err(), 26);
}

TEST_F(Files, DirectoryListingAndItsEnd)
{
    ASSERT_EQ(orlix::mkdir(path("sub").c_str(), 0755), 0);
    for (const char* name : {"a", "b"})
        orlix::close(orlix::open(path(name).c_str(), orlix::OPEN_CREATE | orlix::OPEN_WRITE, 0644));
    orlix::DIR* dir = orlix::opendir(dir_.c_str());
    ASSERT_NE(dir, nullptr);
    std::set<std::string> names;
    err() = 12345;
    while (orlix::dirent* entry = orlix::readdir(dir)) {
        names.insert(entry->d_name);
        EXPECT_EQ(entry->d_reclen, std::strlen(entry->d_name) + 19);
    }
    EXPECT_EQ(err(), 12345) << "the end leaves errno alone";
    EXPECT_EQ(orlix::closedir(dir), 0);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", "b", "sub"}));
    EXPECT_EQ(orlix::opendir(path("a").c_str()), nullptr);
    EXPECT_EQ(err(), 7);
}

TEST_F(Files, FailedCallsReportTheirNumbersAndTexts)
{
    const std::string file = path("f");
    orlix::close(orlix::open(file.c_str(), orlix::OPEN_CREATE | orlix::OPEN_WRITE, 0644));
    ASSERT_EQ(orlix::mkdir(path("full").c_str(), 0755), 0);
    orlix::close(orlix::open(path("full/x").c_str(), orlix::OPEN_CREATE | orlix::OPEN_WRITE, 0644));
    struct orlix::stat st;
    const std::string missing = path("missing"), full = path("full"), inside_file = file + "/x";
    struct Row {
        const char* what;
        std::function<int()> call;
        int number;
        const char* text;
    } rows[] = {
        {"open", [&] { return orlix::open(missing.c_str(), orlix::OPEN_READ); }, 1, "No such file or directory"},
        {"mkdir", [&] { return orlix::mkdir(full.c_str(), 0755); }, 10, "File exists"},
        {"rmdir", [&] { return orlix::rmdir(full.c_str()); }, 17, "Directory not empty"},
        {"unlink", [&] { return orlix::unlink(full.c_str()); }, 12, "Is a directory"},
        {"stat", [&] { return orlix::stat(inside_file.c_str(), &st); }, 7, "Not a directory"},
        {"rename", [&] { return orlix::rename(missing.c_str(), full.c_str()); }, 1, "No such file or directory"},
        {"chdir", [&] { return orlix::chdir(file.c_str()); }, 7, "Not a directory"},
    };
    for (const Row& row : rows) {
        err() = 0;
        EXPECT_EQ(row.call(), -1) << row.what;
        EXPECT_EQ(err(), row.number) << row.what;
        EXPECT_STREQ(orlix::strerror(err()), row.text) << row.what;
    }
}

TEST_F(Files, LinksAndResolvedPaths)
{
    const std::string target = path("target");
    orlix::close(orlix::open(target.c_str(), orlix::OPEN_CREATE | orlix::OPEN_WRITE, 0644));
    ASSERT_EQ(::symlink("target", path("link").c_str()), 0);
    struct orlix::stat followed, own;
    ASSERT_EQ(orlix::stat(path("link").c_str(), &followed), 0);
    ASSERT_EQ(orlix::lstat(path("link").c_str(), &own), 0);
    EXPECT_TRUE(orlix::is_regular(followed.st_mode));
    EXPECT_TRUE(orlix::is_link(own.st_mode));

    char text[16];
    EXPECT_EQ(orlix::readlink(path("link").c_str(), text, 7), 6);
    EXPECT_STREQ(text, "target");
    EXPECT_EQ(orlix::readlink(path("link").c_str(), text, 6), -1) << "no room for the terminator";
    EXPECT_EQ(err(), 24);

    char* resolved = orlix::realpath(path("link").c_str(), nullptr);
    ASSERT_NE(resolved, nullptr);
    EXPECT_EQ(fs::path(resolved), fs::canonical(target));
    orlix::free(resolved);

    // 4095 characters go to the device, which finds nothing; 4096 are refused before it.
    std::string longest;
    while (longest.size() < 4094)
        longest += "/m";
    longest += "m";
    ASSERT_EQ(longest.size(), 4095u);
    err() = 0;
    EXPECT_EQ(orlix::realpath(longest.c_str(), nullptr), nullptr);
    EXPECT_EQ(err(), 1);
    EXPECT_EQ(orlix::realpath((longest + "x").c_str(), nullptr), nullptr);
    EXPECT_EQ(err(), 13);
}

TEST_F(Files, DescriptorControl)
{
    int fd = orlix::open(path("f").c_str(), orlix::OPEN_CREATE | orlix::OPEN_READ | orlix::OPEN_WRITE, 0644);
    ASSERT_GE(fd, 0);
    err() = 0;
    EXPECT_EQ(orlix::fcntl(fd, 99), -1);
    EXPECT_EQ(err(), 11);

    orlix::flock lock{3, 0, 0, 0, 0};
    EXPECT_EQ(orlix::reclock(fd, 1, &lock), -1);
    EXPECT_EQ(err(), 11);
    lock.l_type = 1; // write
    EXPECT_EQ(orlix::fcntl(fd, 6, reinterpret_cast<std::uint64_t>(&lock)), 0);
    lock.l_type = 0;
    EXPECT_EQ(orlix::fcntl(fd, 5, reinterpret_cast<std::uint64_t>(&lock)), 0);

    struct {
        std::uint32_t length;
        char* buffer;
    } record{5000, nullptr};
    char big[5000];
    record.buffer = big;
    err() = 0;
    EXPECT_EQ(orlix::ioctl(fd, 0x5301, reinterpret_cast<std::uint64_t>(&record)), -1);
    EXPECT_EQ(err(), 8) << "a payload that doesn't fit is refused before the device, and errno stays";
    EXPECT_EQ(orlix::ioctl(fd, 0x1234, 0), -1);
    EXPECT_EQ(err(), 11);
    EXPECT_EQ(orlix::isatty(fd), 0);

    int copy = orlix::dup2(fd, 40);
    EXPECT_EQ(copy, 40);
    char where[4096];
    ASSERT_EQ(orlix::fcntl(copy, 50, reinterpret_cast<std::uint64_t>(where)), 0);
    EXPECT_EQ(fs::path(where), fs::canonical(path("f")));
    int status = orlix::fcntl(copy, 2);
    ASSERT_GE(status, 0);
    EXPECT_EQ(orlix::fcntl(copy, 1, static_cast<std::uint32_t>(status) | 1), 0);
    EXPECT_EQ(orlix::fcntl(copy, 2) & 1, 1) << "the append flag";
    EXPECT_EQ(orlix::close(copy), 0);
    EXPECT_EQ(orlix::close(fd), 0);
}
