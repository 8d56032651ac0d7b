// The vfs device's descriptor table: the system process's descriptor numbers, each naming an open
// description that holds one host descriptor. Duplicates share the description, as on POSIX. Host
// code.
#pragma once

#include <dirent.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace host::devices {

// One open of a file: the host descriptor and what the device keeps of it. The host descriptor
// closes with the last reference, so a parked read keeps it open past a close of its number.
struct Description {
    Description(int host_fd, bool shared);
    ~Description();
    Description(const Description&) = delete;
    Description& operator=(const Description&) = delete;

    const int fd;              // the host descriptor, owned
    const bool shared;         // shares its open file with the host's own 0, 1 or 2
    const std::uint64_t id;    // the reactor's key for it; never reused
    bool regular = false;      // a regular file
    bool never_waits = false;  // regular file, directory or block device: no readiness to wait for
    bool pipe_like = false;    // FIFO or socket: a write may meet a closed reader
    // The append status flag of a shared description: kept here, never set on the host's open
    // file, and applied by seeking to the end before each write to a regular file.
    std::atomic<bool> append{false};

    std::mutex lock; // the directory stream and the seek of an emulated append
    DIR* dir = nullptr;
};
using DescriptionRef = std::shared_ptr<Description>;

// The description of a host descriptor the device now owns; null, with the descriptor closed and
// errno set, when the host cannot describe it.
DescriptionRef describe(int host_fd, bool shared = false);

class DescriptorTable {
public:
    static constexpr int CAPACITY = 4096;

    DescriptionRef get(int fd);
    // The lowest free number not below min, or -1 when there is none.
    int add(DescriptionRef d, bool cloexec, int min = 0);
    // Takes the number out; false when it was not open.
    bool close(int fd);
    // Makes target a duplicate of fd, closing what target held; false when fd is not open or
    // target is out of range.
    bool dup_to(int fd, int target);
    bool cloexec(int fd, bool& out);
    bool set_cloexec(int fd, bool on);
    // The highest number in use, or -1.
    int highest();
    // Closes every number from fd upward; how many were open.
    int close_from(int fd);

private:
    struct Entry {
        DescriptionRef description;
        bool cloexec = false;
    };
    Entry* entry(int fd); // lock_ held; null when fd is not open

    std::mutex lock_;
    std::vector<Entry> entries_;
};

} // namespace host::devices
