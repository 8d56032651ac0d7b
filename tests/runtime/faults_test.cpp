// Failure paths walked by making the kernel refuse the n-th object: pthread_create gives back
// everything it made, and the start of a process ends the task cleanly wherever it fails.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "host/kernel/host_kernel.h"
#include "platform/start.h"
#include "runtime/start.h"
#include "runtime/thread.h"

using namespace orlix;

namespace {

void* nothing(void*) { return nullptr; }

// Kernel objects of a thread that deleted itself go with its host thread, a moment later.
bool objects_back_to(std::uint64_t count)
{
    for (int i = 0; i < 500; ++i) {
        if (host::kernel::live_object_count() == count)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return false;
}

constexpr int DELETED_TASK = 128 + 9;

// A whole start-up with the n-th kernel object refused; ends the process with 0 if it got
// through. A hang ends it by the alarm.
[[noreturn]] void start_with_failure(std::uint64_t n)
{
    ::alarm(10);
    static std::string block = std::string("prog one two") + '\0' + "HOME=/" + '\0' + '\0';
    static const HeapConfig heap{1, 0, 0, 0x10000, 0x40000, 0x80000000};
    StartRecord record{};
    record.arguments = block.data();
    record.heap = &heap;
    record.size = 32;
    int argc;
    char** argv;
    char** envp;
    host::kernel::fail_object_after(n);
    crt_startup4(&record, &argc, &argv, &envp);
    host::kernel::fail_object_after(0);
    std::_Exit(argc == 3 ? 0 : 1);
}

} // namespace

TEST(Faults, PthreadCreateGivesBackWhatItMadeWhenAnObjectIsRefused)
{
    orlix::pthread_t warm;
    ASSERT_EQ(orlix::pthread_create(&warm, nullptr, nothing, nullptr), 0); // first-use objects come now
    for (int i = 0; i < 500 && __atomic_load_n(&warm->exited, __ATOMIC_ACQUIRE) == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // its host thread goes, with its object
    const std::uint64_t before = host::kernel::live_object_count();
    int refusals = 0;
    for (std::uint64_t n = 1; n < 40; ++n) {
        orlix::pthread_t thread = nullptr;
        host::kernel::fail_object_after(n);
        int result = orlix::pthread_create(&thread, nullptr, nothing, nullptr);
        host::kernel::fail_object_after(0);
        if (result == 0)
            break;
        ++refusals;
        EXPECT_EQ(result, 47) << "object " << n;
        EXPECT_TRUE(objects_back_to(before)) << "object " << n << " refused: "
                                             << host::kernel::live_object_count() - before << " left";
    }
    EXPECT_GE(refusals, 5) << "memo, gate, thread, two events and the record lock are all made";
}

TEST(FaultsDeathTest, TheStartEndsTheTaskWhereverAnObjectIsRefused)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    bool started = false;
    int walked = 0;
    for (std::uint64_t n = 1; n < 80 && !started; ++n, ++walked) {
        EXPECT_EXIT(start_with_failure(n),
                    [&](int status) {
                        if (!WIFEXITED(status))
                            return false;
                        started = WEXITSTATUS(status) == 0;
                        return started || WEXITSTATUS(status) == DELETED_TASK;
                    },
                    "")
            << "object " << n;
    }
    EXPECT_TRUE(started);
    EXPECT_GE(walked, 5);
}
