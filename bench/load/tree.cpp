// Making and removing the served tree.
#include "bench/load/tree.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <vector>

namespace load {
namespace {

// A mebibyte of bytes that are not all alike, the content of every file made here.
const std::vector<char>& pattern()
{
    static const std::vector<char> block = [] {
        std::vector<char> bytes(1 << 20);
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>(i * 131 + 7);
        return bytes;
    }();
    return block;
}

void write_file(const std::filesystem::path& path, std::uint64_t size)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        throw std::runtime_error("cannot create " + path.string());
    const std::vector<char>& block = pattern();
    for (std::uint64_t left = size; left > 0;) {
        std::size_t piece = left < block.size() ? static_cast<std::size_t>(left) : block.size();
        ssize_t written = ::write(fd, block.data(), piece);
        if (written <= 0) {
            ::close(fd);
            throw std::runtime_error("cannot write " + path.string());
        }
        left -= static_cast<std::uint64_t>(written);
    }
    ::close(fd);
}

std::string numbered(const char* format, int i)
{
    char name[32];
    std::snprintf(name, sizeof name, format, i);
    return name;
}

}  // namespace

std::string small_file(int i)
{
    return numbered("small/f%04d", i);
}

TempDir::TempDir(const std::string& prefix)
{
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "-XXXXXX")).string();
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("cannot make a temporary directory");
    path_ = pattern;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

ServedTree::ServedTree(uid_t upload_owner) : dir_("ftpd-load-root")
{
    namespace fs = std::filesystem;
    const fs::path& root = dir_.path();
    // A forking peer serves the root to an account that must be able to read but not write it.
    fs::permissions(root, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                               fs::perms::others_read | fs::perms::others_exec);
    write_file(root / BIG_FILE, BIG_SIZE);
    fs::create_directory(root / MANY_DIR);
    for (int i = 0; i < MANY_ENTRIES; ++i)
        write_file(root / MANY_DIR / numbered("entry-%05d", i), 0);
    fs::create_directory(root / "small");
    for (int i = 0; i < SMALL_FILES; ++i)
        write_file(root / small_file(i), SMALL_SIZE);
    fs::create_directory(root / upload_dir());
    if (::chown((root / upload_dir()).c_str(), upload_owner, static_cast<gid_t>(-1)) != 0)
        throw std::runtime_error("cannot give the upload directory to its writer");
}

}  // namespace load
