// The file tree that the servers under test serve: made once in a temporary directory, shared by
// the daemon and a peer, removed at the end.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace load {

constexpr std::uint64_t BIG_SIZE = std::uint64_t{1} << 30;
constexpr int MANY_ENTRIES = 10000;
constexpr int SMALL_FILES = 1000;
constexpr std::size_t SMALL_SIZE = 4096;

inline const std::string BIG_FILE = "big.bin";
inline const std::string MANY_DIR = "many";
inline const std::string UPLOAD_FILE = "upload.bin";

// Name of the i-th small file, relative to the root.
std::string small_file(int i);

// A fresh directory under the system's temporary directory, removed with all it holds.
class TempDir {
public:
    explicit TempDir(const std::string& prefix);
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

class ServedTree {
public:
    // A temporary directory with BIG_FILE, MANY_DIR holding
    // MANY_ENTRIES empty files, SMALL_FILES files of SMALL_SIZE bytes, and an upload directory
    // owned by `upload_owner` (the account a peer writes as). Throws if the disk refuses.
    explicit ServedTree(uid_t upload_owner);

    const std::filesystem::path& root() const { return dir_.path(); }
    // The upload directory, relative to the root.
    static std::string upload_dir() { return "up"; }

private:
    TempDir dir_;
};

}  // namespace load
