// The vfs device's descriptor table and open descriptions. Host code.
#include "host/devices/vfs_table.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace host::devices {

namespace {
std::atomic<std::uint64_t> next_id{1};
}

Description::Description(int host_fd, bool shared_with_host)
    : fd(host_fd), shared(shared_with_host), id(next_id.fetch_add(1, std::memory_order_relaxed))
{
}

Description::~Description()
{
    if (dir)
        ::closedir(dir);
    ::close(fd);
}

DescriptionRef describe(int host_fd, bool shared)
{
    struct stat st;
    if (::fstat(host_fd, &st) != 0) {
        int error = errno;
        ::close(host_fd);
        errno = error;
        return nullptr;
    }
    auto d = std::make_shared<Description>(host_fd, shared);
    d->regular = S_ISREG(st.st_mode);
    d->never_waits = d->regular || S_ISDIR(st.st_mode) || S_ISBLK(st.st_mode);
    d->pipe_like = S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode);
    return d;
}

DescriptorTable::Entry* DescriptorTable::entry(int fd)
{
    auto at = static_cast<std::size_t>(fd);
    if (fd < 0 || at >= entries_.size() || !entries_[at].description)
        return nullptr;
    return &entries_[at];
}

DescriptionRef DescriptorTable::get(int fd)
{
    std::lock_guard g(lock_);
    Entry* e = entry(fd);
    return e ? e->description : nullptr;
}

int DescriptorTable::add(DescriptionRef d, bool cloexec, int min)
{
    std::lock_guard g(lock_);
    for (int fd = std::max(min, 0); fd < CAPACITY; ++fd) {
        auto at = static_cast<std::size_t>(fd);
        if (at >= entries_.size())
            entries_.resize(at + 1);
        if (!entries_[at].description) {
            entries_[at] = {std::move(d), cloexec};
            return fd;
        }
    }
    return -1;
}

bool DescriptorTable::close(int fd)
{
    DescriptionRef gone; // released after the lock: the host close may take time
    std::lock_guard g(lock_);
    Entry* e = entry(fd);
    if (!e)
        return false;
    gone = std::move(e->description);
    return true;
}

bool DescriptorTable::dup_to(int fd, int target)
{
    DescriptionRef gone;
    std::lock_guard g(lock_);
    Entry* e = entry(fd);
    if (!e || target < 0 || target >= CAPACITY)
        return false;
    if (target == fd)
        return true;
    DescriptionRef d = e->description;
    auto at = static_cast<std::size_t>(target);
    if (at >= entries_.size())
        entries_.resize(at + 1);
    gone = std::move(entries_[at].description);
    entries_[at] = {std::move(d), false};
    return true;
}

bool DescriptorTable::cloexec(int fd, bool& out)
{
    std::lock_guard g(lock_);
    Entry* e = entry(fd);
    if (e)
        out = e->cloexec;
    return e != nullptr;
}

bool DescriptorTable::set_cloexec(int fd, bool on)
{
    std::lock_guard g(lock_);
    Entry* e = entry(fd);
    if (e)
        e->cloexec = on;
    return e != nullptr;
}

int DescriptorTable::highest()
{
    std::lock_guard g(lock_);
    for (int fd = static_cast<int>(entries_.size()) - 1; fd >= 0; --fd)
        if (entries_[static_cast<std::size_t>(fd)].description)
            return fd;
    return -1;
}

int DescriptorTable::close_from(int fd)
{
    std::vector<DescriptionRef> gone;
    std::lock_guard g(lock_);
    for (std::size_t at = static_cast<std::size_t>(std::max(fd, 0)); at < entries_.size(); ++at)
        if (entries_[at].description)
            gone.push_back(std::move(entries_[at].description));
    return static_cast<int>(gone.size());
}

} // namespace host::devices
