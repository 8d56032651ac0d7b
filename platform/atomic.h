// Atomic operations for system code, over the compiler's builtins: <atomic> would bring the
// host's errno and thread headers along.
#pragma once

#include <cstdint>

namespace orlix::atomic {

template <typename T> inline T load(const T* p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
template <typename T> inline T load_relaxed(const T* p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
template <typename T> inline void store(T* p, T v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
template <typename T> inline T exchange(T* p, T v) { return __atomic_exchange_n(p, v, __ATOMIC_ACQ_REL); }

// Both return the new value.
template <typename T> inline T add(T* p, T v) { return __atomic_add_fetch(p, v, __ATOMIC_ACQ_REL); }
template <typename T> inline T sub(T* p, T v) { return __atomic_sub_fetch(p, v, __ATOMIC_ACQ_REL); }

// Both return the old value.
template <typename T> inline T fetch_or(T* p, T v) { return __atomic_fetch_or(p, v, __ATOMIC_ACQ_REL); }
template <typename T> inline T fetch_and(T* p, T v) { return __atomic_fetch_and(p, v, __ATOMIC_ACQ_REL); }

// True when *p held expected and now holds desired; otherwise expected takes the value seen.
template <typename T> inline bool compare_exchange(T* p, T* expected, T desired)
{
    return __atomic_compare_exchange_n(p, expected, desired, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Tells the processor that the thread is spinning.
inline void cpu_relax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

} // namespace orlix::atomic
