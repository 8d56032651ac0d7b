// The process heap: made once for racing first calls, and the allocation functions' results and
// error numbers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <thread>

#include "memheap/memheap.h"
#include "runtime/context.h"
#include "runtime/heap.h"

namespace orlix {
int* __get_errno_ptr();
}

using namespace orlix;

TEST(ProcessHeap, MadeOnceForRacingFirstCalls)
{
    // A context of its own whose heap doesn't exist yet.
    auto* context = new LibcContext{};
    ASSERT_EQ(MutexInit(&context->lock), 0);
    context->initial_size = 0x10000;
    context->grow_size = 0x40000;
    context->max_heap_size = 0x80000000;
    heap_state* made[2] = {};
    std::thread t1([&] { made[0] = e_getheap_of(context); }), t2([&] { made[1] = e_getheap_of(context); });
    t1.join();
    t2.join();
    ASSERT_NE(made[0], nullptr);
    EXPECT_EQ(made[0], made[1]);
    EXPECT_EQ(context->heap, made[0]);
    EXPECT_NE(made[0], e_getheap());
    nheap_delete(made[0]);
    MutexDestroy(&context->lock);
    delete context;
}

TEST(ProcessHeap, ResultsAndErrorNumbers)
{
    int& err = *__get_errno_ptr();
    auto expect_errno = [&](void* result, int number, const char* what) {
        EXPECT_TRUE(result == nullptr && err == number) << what << ": errno " << err;
        err = 0;
    };
    void* zero = orlix::malloc(0);
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(e_msize(zero), 32u);
    err = 0;
    expect_errno(orlix::realloc(zero, 0), 22, "realloc to 0 releases");
    expect_errno(orlix::malloc(~std::size_t{0} - 4), 22, "malloc whose rounding wraps");
    expect_errno(orlix::malloc(std::size_t{1} << 40), 22, "malloc beyond the 2 GiB limit");
    expect_errno(orlix::calloc(std::size_t{1} << 33, std::size_t{1} << 31), 11, "calloc overflow");
    expect_errno(orlix::calloc(5, 0), 11, "calloc of size 0");
    expect_errno(orlix::calloc(std::size_t{1} << 20, 4096), 22, "calloc of 4 GiB");

    // calloc clears what an earlier block left behind; a count of 0 is a zero-byte block.
    auto* dirty = static_cast<unsigned char*>(orlix::malloc(1000));
    std::memset(dirty, 0xee, 1000);
    orlix::free(dirty);
    auto* clean = static_cast<unsigned char*>(orlix::calloc(10, 100));
    ASSERT_EQ(clean, dirty);
    EXPECT_EQ(std::count(clean, clean + 1000, 0), 1000);
    void* empty = orlix::calloc(0, 8);
    EXPECT_EQ(e_msize(empty), 32u);
    expect_errno(orlix::realloc(clean, ~std::size_t{0} - 4), 22, "realloc that can't");
    orlix::free(clean), orlix::free(empty), orlix::free(nullptr);
}
