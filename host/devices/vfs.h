// The vfs device service: paths, descriptors and record locks over the host's file system, for the
// one system process of this host process. Every open of the device shares one descriptor table
// and one current directory. Host code; the commands are in vfs_paths.cpp, vfs_io.cpp and
// vfs_locks.cpp, the parked ones are finished in vfs.cpp.
//
// Choices the wire leaves to the device:
// - Descriptors 0, 1 and 2 start as the device's own duplicates of the host's, so closing or
//   replacing them never touches the host's. The append status flag of those three is kept by the
//   device, not set on the host's open file (see Description::append).
// - The current directory starts as the host's working directory; "/" is the host's "/".
// - Record locks belong to the open description, as Linux's open-description locks: two opens of
//   one file conflict even within the process, and duplicates share their locks. The owner of a
//   conflicting lock is the host's: -1 (all ones) for an open description's lock, the host
//   process id for another host process's classic lock.
// - ioctl 0x5413 gives the terminal's window size and fails on anything but a terminal; 0x5422
//   succeeds on a terminal without detaching the host from it; other requests are unknown.
#pragma once

#include <fcntl.h>

#include <cstdint>
#include <map>
#include <mutex>

#include "host/devices/framework.h"
#include "host/devices/vfs_table.h"

namespace host::devices {

// Codes of the descriptor-table control command (0xc004004c) that this device defines.
// FDTAB_HIGHEST: value out, the highest descriptor number in use, all ones when none is.
// FDTAB_CLOSE_FROM: value in, a descriptor number; closes every descriptor from it upward;
// value out, how many were open.
inline constexpr std::uint32_t FDTAB_HIGHEST = 4;
inline constexpr std::uint32_t FDTAB_CLOSE_FROM = 8;

class Vfs final : public Service {
public:
    Vfs();
    ~Vfs() override;

private:
    // A parked command: a read waiting for data or a record lock waiting for a release.
    struct Waiter {
        RequestRef request;
        std::uint64_t serial = 0;
        DescriptionRef description;
        bool is_lock = false;
        std::uint8_t* data = nullptr; // read: the bytes go here, inside the block
        std::uint64_t length = 0;
        void* params = nullptr;       // the parameter block, checked when the command began
        struct flock lock{};          // lock: what to set
    };

    Outcome run(Request& r) override;
    void cancel(Request& r) override;
    void on_event(std::uint64_t key, std::uint32_t events) override;
    void on_wake() override;

    // On the shared channel.
    Outcome cmd_value(Request& r);
    Outcome cmd_chdir(Request& r);
    Outcome cmd_mkdir(Request& r);
    Outcome cmd_rmdir(Request& r);
    Outcome cmd_realpath(Request& r);
    Outcome cmd_unlink(Request& r);
    Outcome cmd_rename(Request& r);
    Outcome cmd_stat(Request& r);
    Outcome cmd_readlink(Request& r);
    Outcome cmd_opendir(Request& r);
    Outcome cmd_readdir(Request& r);
    Outcome cmd_open(Request& r);
    // On a thread's request.
    Outcome cmd_close(Request& r);
    Outcome cmd_transfer(Request& r);
    Outcome cmd_seek(Request& r);
    Outcome cmd_fstat(Request& r);
    Outcome cmd_ioctl(Request& r);
    Outcome cmd_fdpath(Request& r);
    Outcome cmd_fdcntl(Request& r);
    Outcome cmd_fdtabcntl(Request& r);
    Outcome cmd_reclock(Request& r);

    // The host descriptor a dirfd names, kept open by hold: the current directory for -100; -1,
    // which the host refuses for a relative path, when the number is not open.
    int at_fd(std::int32_t dirfd, DescriptionRef& hold);
    // Adds a description the device opened; EMFILE's status when the table is full.
    Outcome add_descriptor(DescriptionRef d, bool cloexec, std::int32_t& out);

    // One attempt of a read (parked: no data yet) or write (never parks); result gets the bytes.
    static Outcome read_now(Description& d, std::uint8_t* data, std::uint64_t length, std::uint64_t& result);
    static Outcome write_now(Description& d, const std::uint8_t* data, std::uint64_t length, std::uint64_t& result);
    // One attempt to set a record lock (parked: another holds a conflicting one).
    Outcome lock_now(Description& d, struct flock lock);

    // Parks r (r.lock held) and asks for what will wake it.
    Outcome park(Request& r, Waiter w);
    // A copy of r's waiter; false when r waits for nothing.
    bool waiter_of(const Request& r, Waiter& out);
    // Another attempt of a parked r (r.lock held); its waiter goes when its command ends.
    Outcome resume_read(Request& r);
    Outcome resume_lock(Request& r);
    // Lets every waiting lock try again: something may have been released.
    void locks_changed();
    void retry_locks();
    void on_lock_timer();
    // With wait_lock_ held: whether a lock waits, and the timer that retries it.
    bool lock_waiting();
    void arm_lock_timer();

    DescriptorTable table_;
    std::mutex cwd_lock_;
    DescriptionRef cwd_; // an O_PATH descriptor of the current directory

    std::mutex wait_lock_; // after a request's lock
    std::map<const Request*, Waiter> waiters_;
    bool lock_timer_armed_ = false;
};

} // namespace host::devices
