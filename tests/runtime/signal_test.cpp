// Signals in one process: the queue's order and counting, the table words and their results, the
// record form with its flags, the signal exception's road by where the thread is, stop and
// continue, and the exception table. Signals that end the process are tested by programs.
#include <gtest/gtest.h>

#include "platform/kernel.h"
#include "runtime/context.h"
#include "runtime/signal.h"
#include "runtime/thread.h"

namespace orlix {
int* __get_errno_ptr();
}

using namespace orlix;

namespace {

int delivered[8];
int delivered_count;

void note(int signal)
{
    if (delivered_count < 8)
        delivered[delivered_count++] = signal;
    *__get_errno_ptr() = 99; // handlers may change errno; the caller's survives
}

class SignalTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        context_ = g_libc_context;
        libc_init_exception(context_);
        libc_install_sighandlers(context_);
        ASSERT_NE(context_->signal_table, nullptr);
        self_ = __pthread_self();
        __sigqueue_init(&self_->signal_queue);
        delivered_count = 0;
    }
    void TearDown() override
    {
        for (std::uintptr_t& word : context_->signal_table->words)
            word = SIGNAL_WORD_DEFAULT;
        __sigqueue_init(&self_->signal_queue);
    }
    std::uint64_t raise_here(int signal)
    {
        std::uint64_t word = 0;
        return _libc_ex_signal(context_, EXCEPTION_SIGNAL, static_cast<std::uint64_t>(signal), &word, 0, 0);
    }
    LibcContext* context_ = nullptr;
    ThreadRecord* self_ = nullptr;
};

} // namespace

TEST_F(SignalTest, QueueTakesLowerFirstCountsLaterOnesAndSkipsBlocked)
{
    SignalQueue& q = self_->signal_queue;
    __sigqueue_add(&q, 5);
    __sigqueue_add(&q, 3);
    __sigqueue_add(&q, 5); // a standard signal is queued once
    __sigqueue_add(&q, 40);
    __sigqueue_add(&q, 40); // later ones are counted
    __sigqueue_add(&q, 0);
    __sigqueue_add(&q, 65);
    EXPECT_EQ(q.pending, 4u);
    __sigsetSET(&q.mask, 3 - 1);
    EXPECT_EQ(__sigqueue_get_next(&q), 5);
    EXPECT_EQ(__sigqueue_get_next(&q), 40);
    EXPECT_EQ(__sigqueue_get_next(&q), 40);
    EXPECT_EQ(__sigqueue_get_next(&q), -1) << "3 is blocked and stays";
    __sigset0(&q.mask);
    EXPECT_EQ(__sigqueue_get_next(&q), 3);
    EXPECT_EQ(q.pending, 0u);
}

TEST_F(SignalTest, TableWordsDecideAndResultsFollowTheInterruptSet)
{
    SignalTable* table = context_->signal_table;
    table->words[10] = reinterpret_cast<std::uintptr_t>(note);
    table->words[40] = reinterpret_cast<std::uintptr_t>(note);
    table->words[12] = SIGNAL_WORD_IGNORE;
    *__get_errno_ptr() = 7;
    EXPECT_EQ(__run_sighandler(context_, self_, 10), 1) << "a standard signal with an action ends a call";
    EXPECT_EQ(__run_sighandler(context_, self_, 40), 0) << "signals from 32 up restart it";
    EXPECT_EQ(__run_sighandler(context_, self_, 12), 0);
    EXPECT_EQ(*__get_errno_ptr(), 7);
    ASSERT_EQ(delivered_count, 2);
    EXPECT_EQ(delivered[0], 10);
    EXPECT_EQ(delivered[1], 40);
    // Signals whose default is to do nothing: nothing happens, and the process goes on.
    EXPECT_EQ(__run_sighandler(context_, self_, 17), 0);
    EXPECT_EQ(__run_sighandler(context_, self_, 16), 0);
    EXPECT_EQ(__run_sighandler(context_, self_, 30), 0);
}

TEST_F(SignalTest, RecordFlagsOneShotMaskAndRestart)
{
    SigactionRecord action{note, {{std::uint64_t{1} << (20 - 1), 0}}, SIGACTION_ONE_SHOT};
    ASSERT_EQ(sigaction(10, &action, nullptr), 0);
    EXPECT_EQ(__run_sighandler(context_, self_, 10), 1);
    EXPECT_EQ(context_->signal_table->words[10], SIGNAL_WORD_DEFAULT) << "good for one delivery";
    EXPECT_EQ(self_->signal_queue.mask.bits[0], 0u) << "the mask comes back after the handler";

    action.flags = SIGACTION_RESTART;
    ASSERT_EQ(sigaction(10, &action, nullptr), 0);
    self_->io_flags = IO_RESTARTABLE;
    EXPECT_EQ(__run_sighandler(context_, self_, 10), 0) << "a restartable call is restarted";
    self_->io_flags = 0;
    EXPECT_EQ(__run_sighandler(context_, self_, 10), 1);
    EXPECT_EQ(sigaction(9, &action, nullptr), -1);
    EXPECT_EQ(*__get_errno_ptr(), 11);
}

TEST_F(SignalTest, ExceptionQueuesInBlockingCallsAndRunsOtherwise)
{
    context_->signal_table->words[10] = reinterpret_cast<std::uintptr_t>(note);
    context_->signal_table->words[40] = reinterpret_cast<std::uintptr_t>(note);
    self_->io_flags = IO_IN_BLOCKING_CALL | IO_RESTARTABLE;
    EXPECT_EQ(raise_here(10), 1u) << "the wait is to end with 310";
    EXPECT_EQ(delivered_count, 0);
    EXPECT_EQ(self_->signal_queue.pending, 1u);
    EXPECT_EQ(self_->io_flags, IO_IN_BLOCKING_CALL | IO_RESTARTABLE) << "the exception's flag is gone";
    self_->io_flags = 0;
    EXPECT_EQ(__pending_sig(self_), 1) << "a handler without restart ends the call";
    EXPECT_EQ(delivered_count, 1);

    __sigsetSET(&self_->signal_queue.mask, 10 - 1);
    EXPECT_EQ(raise_here(10), 0u);
    EXPECT_EQ(delivered_count, 1) << "a blocked signal waits in the queue";
    __sigset0(&self_->signal_queue.mask);
    EXPECT_EQ(raise_here(40), 0u) << "in ordinary code it runs at once, and the queue with it";
    EXPECT_EQ(delivered_count, 3);
    EXPECT_EQ(raise_here(0), 0u);
    EXPECT_EQ(raise_here(65), 0u);
}

TEST_F(SignalTest, StopAndContinueCountOnce)
{
    __run_sighandler(context_, self_, SIGNAL_CONTINUE);
    EXPECT_EQ(context_->stop_count, 0u) << "continue on a running process";
    __run_sighandler(context_, self_, 20);
    __run_sighandler(context_, self_, 21);
    EXPECT_EQ(context_->stop_count, 1u);
    Message record{};
    EXPECT_EQ(_SL_WaitForEventPtr(context_->stop_event, &record, 0), STATUS_TIMEOUT) << "the gate is shut";
    __run_sighandler(context_, self_, SIGNAL_CONTINUE);
    EXPECT_EQ(context_->stop_count, 0u);
    EXPECT_EQ(_SL_WaitForEventPtr(context_->stop_event, &record, 0), STATUS_DONE);
}

TEST_F(SignalTest, ExceptionTableEntries)
{
    auto handler = [](void*, std::uint64_t, std::uint64_t, std::uint64_t*, std::uint64_t, std::uint64_t)
        -> std::uint64_t { return 0; };
    EXPECT_EQ(setexusrhan(16, handler, nullptr), nullptr);
    EXPECT_EQ(setexusrhan(13, nullptr, nullptr), nullptr);
    ExceptionEntry* user = context_->exception_table + EXCEPTION_ENTRIES;
    std::uint64_t word = 1;
    EXPECT_EQ(user[13].handler(user[13].context_word, 13, 0, &word, 0, 0), EXCEPTION_HANDLED);
    EXPECT_EQ(user[EXCEPTION_SIGNAL].handler, _libc_ex_signal);
    ExceptionHandler before = setexusrhan(13, handler, nullptr);
    EXPECT_NE(before, nullptr);
    EXPECT_EQ(setexusrhan(13, before, nullptr), handler);
}
