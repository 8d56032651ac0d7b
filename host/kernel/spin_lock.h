// A small spin lock for slots that are held for a few instructions only.
#pragma once

#include <atomic>

namespace host::kernel {

inline void cpu_relax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

class SpinLock {
public:
    void lock()
    {
        while (flag_.test_and_set(std::memory_order_acquire))
            while (flag_.test(std::memory_order_relaxed))
                cpu_relax();
    }
    void unlock() { flag_.clear(std::memory_order_release); }

private:
    std::atomic_flag flag_ = ATOMIC_FLAG_INIT;
};

class SpinGuard {
public:
    explicit SpinGuard(SpinLock& lock) : lock_(lock) { lock_.lock(); }
    ~SpinGuard() { lock_.unlock(); }
    SpinGuard(const SpinGuard&) = delete;
    SpinGuard& operator=(const SpinGuard&) = delete;

private:
    SpinLock& lock_;
};

} // namespace host::kernel
