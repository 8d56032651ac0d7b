// The start of a process, piece by piece: arguments and "=" instructions cut out of an argument
// block, the environment and its edits, context slots, the saved record fields and the
// initialiser arrays.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/context.h"
#include "runtime/process.h"
#include "runtime/start.h"

namespace orlix {
int* __get_errno_ptr();
}

using namespace orlix;

namespace {

// A block of a command line and the strings behind it, each terminated, ended by an empty string.
std::string block_of(const std::string& line, const std::vector<std::string>& strings)
{
    std::string block = line + '\0';
    for (const std::string& s : strings)
        block += s + '\0';
    return block + '\0';
}

struct Cut {
    std::vector<std::string> argv;
    std::vector<std::string> env;
};

Cut cut(const std::string& line, const std::vector<std::string>& strings = {})
{
    std::string block = block_of(line, strings);
    int argc = -1;
    char** argv = nullptr;
    char** envp = nullptr;
    crt_extract_argv(block.data(), &argc, &argv, &envp);
    Cut result;
    for (int i = 0; i < argc; ++i)
        result.argv.emplace_back(argv[i]);
    EXPECT_EQ(argv[argc], nullptr);
    EXPECT_EQ(envp, argv + argc + 1);
    for (char** e = envp; *e != nullptr; ++e)
        result.env.emplace_back(*e);
    return result;
}

// The context's environment and instructions are the test's own while it runs.
class StartTest : public ::testing::Test {
protected:
    void SetUp() override { saved_ = *g_libc_context; }
    void TearDown() override
    {
        g_libc_context->environ = saved_.environ;
        g_libc_context->env_states = saved_.env_states;
        orlix::environ = saved_.environ;
        g_libc_context->iwd = saved_.iwd;
        g_libc_context->infn = saved_.infn;
        g_libc_context->outfn = saved_.outfn;
        g_libc_context->errfn = saved_.errfn;
        g_libc_context->fdinit = saved_.fdinit;
    }
    LibcContext saved_{};
};

using Strings = std::vector<std::string>;

} // namespace

TEST_F(StartTest, ArgumentsAreCutAtEveryBlankButATrailingOne)
{
    struct Row {
        const char* line;
        Strings argv;
    } rows[] = {
        {"", {}},
        {"a", {"a"}},
        {"a  b", {"a", "", "b"}},
        {"a b ", {"a", "b"}},
        {"a  ", {"a", ""}},
        {" a", {"", "a"}},
        {"a\\ b", {"a b"}},
        {"a\\\\b c", {"a\\b", "c"}},
        {"prog x\\", {"prog", "x"}}, // a lone backslash ends the line
    };
    for (const Row& row : rows)
        EXPECT_EQ(cut(row.line).argv, row.argv) << "line [" << row.line << "]";
}

TEST_F(StartTest, InstructionsAreTakenAndTheEnvironmentFollows)
{
    Cut c = cut("prog", {"A=1", "=IWD=/work", "=INFN=", "=OUTFN=/out", "=ERRFN=/err", "=FDINIT=", "=OTHER=x",
                         "B=2"});
    EXPECT_EQ(c.argv, Strings{"prog"});
    EXPECT_EQ(c.env, (Strings{"A=1", "B=2"}));
    EXPECT_STREQ(g_libc_context->iwd, "/work");
    EXPECT_EQ(g_libc_context->infn, saved_.infn) << "an empty value is no instruction";
    EXPECT_STREQ(g_libc_context->outfn, "/out");
    EXPECT_STREQ(g_libc_context->errfn, "/err");
    ASSERT_NE(g_libc_context->fdinit, nullptr);
    EXPECT_STREQ(g_libc_context->fdinit, "");
    EXPECT_TRUE(cut("p", {"=IWD=/x", "=Y"}).env.empty());
}

TEST_F(StartTest, EnvironmentLookupAndRemoval)
{
    std::string block = block_of("p", {"PATH=/bin", "PA=short", "X=1", "PATH=/second", "Y=2", "Z=3"});
    int argc;
    char** argv;
    char** envp;
    crt_extract_argv(block.data(), &argc, &argv, &envp);
    orlix::environ = g_libc_context->environ;

    EXPECT_STREQ(orlix::getenv("PA"), "short") << "a name that is a prefix of another must not match it";
    EXPECT_STREQ(orlix::getenv("PATH"), "/bin");
    EXPECT_EQ(orlix::getenv("P"), nullptr);
    EXPECT_EQ(orlix::getenv(""), nullptr);

    int& err = *__get_errno_ptr();
    for (const char* bad : {static_cast<const char*>(nullptr), "", "A=B"}) {
        err = 0;
        EXPECT_EQ(orlix::unsetenv(bad), -1);
        EXPECT_EQ(err, 11);
    }
    EXPECT_EQ(g_libc_context->env_states, nullptr) << "a refused call changes nothing";

    EXPECT_EQ(orlix::unsetenv("NOT_SET"), 0);
    ASSERT_NE(g_libc_context->env_states, nullptr) << "the first call moves the vector to the heap";
    EXPECT_EQ(orlix::environ, g_libc_context->environ);

    // Only the first PATH goes, and the last entry moves into its place.
    EXPECT_EQ(orlix::unsetenv("PATH"), 0);
    Strings now;
    for (char** e = orlix::environ; *e != nullptr; ++e)
        now.emplace_back(*e);
    EXPECT_EQ(now, (Strings{"Z=3", "PA=short", "X=1", "PATH=/second", "Y=2"}));
    EXPECT_STREQ(orlix::getenv("PATH"), "/second");
}

TEST_F(StartTest, ContextSlotsAreMadeOnceAndInitialisedOnce)
{
    EXPECT_EQ(lc_getcontextslot(8, 16, nullptr, nullptr), nullptr);
    static int runs;
    runs = 0;
    auto init = [](void* block, std::uint64_t size) {
        ++runs;
        static_cast<unsigned char*>(block)[size - 1] = 0x5a;
    };
    Mutex* lock = nullptr;
    auto* block = static_cast<unsigned char*>(lc_getcontextslot(7, 64, &lock, init));
    ASSERT_NE(block, nullptr);
    EXPECT_NE(lock, nullptr);
    EXPECT_EQ(block[63], 0x5a);
    EXPECT_EQ(block[0], 0);
    Mutex* again = nullptr;
    EXPECT_EQ(lc_getcontextslot(7, 64, &again, init), block);
    EXPECT_EQ(again, lock);
    EXPECT_EQ(runs, 1);
}

namespace {
int constructed[3];
int order;
void first_module_init() { constructed[0] = ++order; }
void program_init_a() { constructed[1] = ++order; }
void program_init_b() { constructed[2] = ++order; }
} // namespace

TEST_F(StartTest, SavedFieldsAndInitialisersFollowTheRecordSize)
{
    // Arrays addressed relative to a load base of 0.
    static void (*module_array[])() = {first_module_init};
    static void (*program_array[])() = {program_init_a, program_init_b};
    const std::uint64_t module_table[] = {DYNAMIC_INIT_ARRAY, reinterpret_cast<std::uint64_t>(module_array),
                                          DYNAMIC_INIT_ARRAY_SIZE, sizeof module_array, 0, 0};
    const std::uint64_t program_table[] = {DYNAMIC_INIT_ARRAY_SIZE, sizeof program_array, DYNAMIC_INIT_ARRAY,
                                           reinterpret_cast<std::uint64_t>(program_array), 0, 0};
    ModuleRecord ignored{nullptr, 40, 0, module_table, 0, 0};
    ModuleRecord module{&ignored, 48, 0, module_table, 0, 0};

    StartRecord record{};
    record.dynamic = program_table;
    record.modules = &module;
    record.word40 = 40;
    record.word64 = 64;
    record.word80 = 80;

    record.size = 48; // the program's table exists, not its load base: nothing runs
    crt_call_ctors(&record);
    EXPECT_EQ(order, 0);

    record.size = 57;
    crt_call_ctors(&record);
    EXPECT_EQ(constructed[0], 1) << "the module of size 40 does not count, the other one runs first";
    EXPECT_EQ(constructed[1], 2);
    EXPECT_EQ(constructed[2], 3);

    LibcContext context{};
    record.size = 72;
    crt_save_crtarg(&context, &record);
    EXPECT_EQ(context.crt_args[0], reinterpret_cast<std::uint64_t>(program_table));
    EXPECT_EQ(context.crt_args[1], 40u);
    EXPECT_EQ(context.crt_args[3], 64u);
    EXPECT_EQ(context.crt_args[5], 0u) << "offset 80 needs a size of 81";
    LibcContext big{};
    record.size = 3584;
    crt_save_crtarg(&big, &record);
    EXPECT_EQ(big.crt_args[0], 0u) << "a size above 3583 names no field";
}
