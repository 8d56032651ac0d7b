// The daemon's pure parts on made-up input: path building and confinement, the listing formats,
// the pattern matcher, the number parser of PORT and LPRT, and the user line format.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "daemon/ftpd.h"
#include "daemon/listing.h"
#include "runtime/heap.h"

using namespace orlix;
namespace fs = std::filesystem;

namespace {

// A session with its path block, served from root.
struct PathSession {
    explicit PathSession(const std::string& root_text)
    {
        root = root_text;
        server.root = root.data();
        server.root_length = static_cast<std::uint32_t>(root.size());
        session.server = &server;
        session.cwd = block;
        session.path_scratch = block + PATH_BUFFER;
        session.resolved_path = block + 2 * PATH_BUFFER;
        session.list_scratch = block + 3 * PATH_BUFFER;
        std::strcpy(session.cwd, "/");
        session.root_realpath = realpath_of(root.empty() ? "/" : root);
    }
    ~PathSession() { std::free(session.root_realpath); }
    static char* realpath_of(const std::string& path) { return ::realpath(path.c_str(), nullptr); }

    std::string built(const char* argument)
    {
        char out[BUILT_PATH_LIMIT + 1];
        char* result = ftpd_build_path(&session, out, out + BUILT_PATH_LIMIT, argument);
        return result != nullptr ? result : "(null)";
    }
    std::string effective(const char* virtual_path)
    {
        char* result = ftpd_effective_path(&session, virtual_path);
        std::string text = result != nullptr ? result : "(null)";
        orlix::free(result);
        return text;
    }

    std::string root;
    FtpdServer server{};
    FtpdSession session{};
    char block[PATH_BLOCK_SIZE];
};

struct orlix::stat record(std::uint32_t mode, std::int64_t size, std::int64_t mtime)
{
    struct orlix::stat st{};
    st.st_mode = mode;
    st.st_size = size;
    st.st_mtim = {mtime, 0};
    return st;
}

std::string list_line(const struct orlix::stat& st, const char* name)
{
    char out[512];
    char* end = ftpd_format_list(out, &st, name);
    return std::string(out, end);
}

std::string facts(const struct orlix::stat& st, const char* name, bool write, const char* target = nullptr,
                  const struct orlix::stat* target_st = nullptr)
{
    char out[512];
    char* end = ftpd_format_mlsd(out, &st, name, target, target_st, write);
    return std::string(out, end);
}

} // namespace

TEST(Paths, BuildingJoinsComponentsAndKeepsDotsAsText)
{
    PathSession s("/tmp");
    std::strcpy(s.session.cwd, "/x");
    struct Row {
        const char* argument;
        const char* result;
    } rows[] = {
        {"y", "/x/y"}, {"y/z/", "/x/y/z"}, {"y//z", "/x/y/z"}, {"/y", "/y"}, {"//", "/"},
        {"..", "/x/.."}, {"../y", "/x/../y"}, {"a\\b", "/x/a\\b"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(s.built(row.argument), row.result) << row.argument;

    // Below "/" a component may take 4092 bytes (the "/" it would need is counted): one more is
    // refused. Below a longer directory a built path reaches 4094 bytes.
    std::strcpy(s.session.cwd, "/");
    std::string fits = "/" + std::string(4092, 'a');
    EXPECT_TRUE(s.built(fits.c_str()) == fits);
    EXPECT_TRUE(s.built((fits + "a").c_str()) == "(null)");
    std::strcpy(s.session.cwd, "/x");
    fits = std::string(4091, 'a');
    EXPECT_EQ(s.built(fits.c_str()).size(), 4094u);
}

TEST(Paths, EffectivePathsStayUnderTheRootByAPrefixTest)
{
    fs::path base = fs::temp_directory_path() / ("orlix-paths-" + std::to_string(::getpid()));
    fs::remove_all(base);
    fs::create_directories(base / "srv/ftp/a");
    fs::create_directories(base / "srv/ftp-sibling");
    fs::create_symlink(base / "srv", base / "srv/ftp/out");
    std::string root = (base / "srv/ftp").string();
    PathSession s(root);
    struct Row {
        const char* path;
        std::string result;
    } rows[] = {
        {"/", root + "/"},
        {"/a", root + "/a"},
        {"/a/b", root + "/a/b"},
        {"/..", root + "/.."},               // a ".." in last position is not resolved
        {"/../x", "(null)"},                 // its directory part lies outside
        {"/out/x", "(null)"},                // so does a link's in the directory part
        {"/out", root + "/out"},             // a link in last position is left to the operation
        {"/missing/x", "(null)"},            // the directory part must exist
        {"/a\\b", root + "/a/b"},            // the last backslash splits, and "/" takes its place
        {"/../ftp-sibling/f", root + "-sibling/f"}, // the bare prefix test lets a sibling through
    };
    for (const Row& row : rows)
        EXPECT_EQ(s.effective(row.path), row.result) << row.path;

    std::strcpy(s.session.cwd, "/a");
    EXPECT_EQ(s.effective(nullptr), root + "/a");

    PathSession whole("");
    EXPECT_EQ(whole.effective(root.c_str()), root) << "ROOT \"/\" lets every path through";
    fs::remove_all(base);
}

TEST(Listings, ListLinesToTheByte)
{
    const std::int64_t day = 86400;
    struct orlix::stat file = record(MODE_REGULAR | 0644, 5120, 20519 * day + 3600);
    file.st_uid = 1000;
    file.st_gid = 100;
    EXPECT_EQ(list_line(file, "notes.txt"), "-rw-r--r-- 1 1000     100                 5120 Mar  7 2026 notes.txt");

    struct orlix::stat device = record(MODE_CHAR | 0666, 0, 0);
    device.st_rdev = (1u << 20) | 3;
    EXPECT_EQ(list_line(device, "null"), "crw-rw-rw- 1 0        0              1,      3 Jan  1 1970 null");
    struct orlix::stat block = record(MODE_BLOCK | 0660, 0, 0);
    block.st_rdev = (8u << 20) | 1;
    EXPECT_EQ(list_line(block, "sda1"), "brw-rw---- 1 0        0              8,      1 Jan  1 1970 sda1");

    struct orlix::stat owned = record(MODE_DIR | 0755, 1234567890123456, 0);
    owned.st_uid = static_cast<std::int16_t>(65534);
    owned.st_gid = 32767;
    EXPECT_EQ(list_line(owned, "d"), "drwxr-xr-x 1 4294967294 32767    1234567890123456 Jan  1 1970 d");

    const char types[] = {'p', 'c', 'd', 'b', '-', 'l', 's', '?'};
    const std::uint32_t modes[] = {MODE_FIFO, MODE_CHAR, MODE_DIR, MODE_BLOCK, MODE_REGULAR, MODE_LINK, MODE_SOCKET, 0};
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(list_line(record(modes[i] | 07777, 0, 0), "x")[0], types[i]) << modes[i];
    EXPECT_EQ(list_line(record(MODE_REGULAR | 07777, 0, 0), "x").substr(1, 9), "rwxrwxrwx")
        << "set-id and sticky bits are not shown";

    // Years in full, before 1000 and after 9999.
    EXPECT_NE(list_line(record(MODE_REGULAR, 0, -62135596800 + 500 * 365 * day), "x").find(" 500 x"),
              std::string::npos);
    EXPECT_NE(list_line(record(MODE_REGULAR, 0, 253402300800 + day), "x").find(" Jan  2 10000 x"), std::string::npos);
}

TEST(Listings, MlsdFactsAndTimes)
{
    const std::int64_t modified = 1772875800; // 2026-03-07 09:30:00
    struct orlix::stat file = record(MODE_REGULAR | 0644, 5120, modified);
    EXPECT_EQ(facts(file, "notes.txt", true), "Type=file;Modify=20260307093000;Perm=wdfr;Size=5120; ");
    file.st_mtim.tv_nsec = 250000000;
    file.st_birthtim = {1735787045, 0}; // 2025-01-02 03:04:05
    EXPECT_EQ(facts(file, "notes.txt", false),
              "Type=file;Modify=20260307093000.250;Create=20250102030405;Perm=r;Size=5120; ");

    struct orlix::stat dir = record(MODE_DIR | 0755, 4096, 1767225599); // 2025-12-31 23:59:59
    EXPECT_EQ(facts(dir, "pub", true), "Type=dir;Modify=20251231235959;Perm=cmpdfel;Size=4096; ");
    EXPECT_EQ(facts(dir, ".", false), "Type=cdir;Modify=20251231235959;Perm=el;Size=4096; ");
    EXPECT_EQ(facts(dir, "..", false).substr(0, 10), "Type=pdir;");
    EXPECT_EQ(facts(record(MODE_DIR | 0600, 0, 0), "x", false), "Type=dir;Modify=19700101000000;Perm=;Size=0; ");

    struct orlix::stat link = record(MODE_LINK | 0777, 2, 1768478400); // 2026-01-15 12:00:00
    struct orlix::stat target = record(MODE_REGULAR | 0644, 99, 0);
    EXPECT_EQ(facts(link, "latest", true, "v2", &target), "Type=OS.unix=slink:v2;Modify=20260115120000;Perm=dfr;Size=2; ");
    EXPECT_EQ(facts(link, "dangling", true), "Type=OS.unix=slink:;Modify=20260115120000;Perm=df;Size=2; ");

    char out[64];
    auto stamp = [&](std::int64_t seconds, std::int64_t nanoseconds) {
        return std::string(out, _ftpd_append_timeval(out, seconds, nanoseconds));
    };
    EXPECT_EQ(stamp(0, 999000000), "19700101000000.999");
    EXPECT_EQ(stamp(0, 1000000), "19700101000000.001");
    EXPECT_EQ(stamp(0, 999999), "19700101000000");
    EXPECT_EQ(stamp(-62135596800 + 500LL * 365 * 86400, 0).substr(0, 4), "1000") << "years below 1000 are raised";
    EXPECT_EQ(stamp(253402300800, 0).substr(0, 8), "10000101") << "10000 is folded modulo 10000, then raised";
}

TEST(Listings, PatternMatcherWalksWithoutBacktracking)
{
    struct Row {
        const char* pattern;
        const char* name;
        bool match;
    } rows[] = {
        {"", "", true},         {"*", "a", true},       {"*.txt", "a.txt", true}, {"*.txt", ".txt", false},
        {"a*", "a", false},     {"a*c", "abc", true},   {"a*c", "abcbc", false},  {"A*", "abc", false},
        {"", "a", false},       {"abc", "abc", true},   {"*", "", false},
    };
    for (const Row& row : rows)
        EXPECT_EQ(ftpd_pattern_match(row.pattern, row.name), row.match) << row.pattern << " ~ " << row.name;
}

TEST(Commands, NumbersOfPortAndLprtAndTheUserFormat)
{
    char text[] = "300,x,-1,4294967295,7";
    char* cursor = text;
    EXPECT_EQ(ftpd_parse_numcom(&cursor), 300);
    EXPECT_EQ(ftpd_parse_numcom(&cursor), 0) << "no number reads as 0";
    EXPECT_EQ(ftpd_parse_numcom(&cursor), -1);
    EXPECT_EQ(ftpd_parse_numcom(&cursor), -1) << "cut to 32 bits and signed";
    EXPECT_EQ(ftpd_parse_numcom(&cursor), 7);
    EXPECT_EQ(cursor, nullptr);
    EXPECT_EQ(ftpd_parse_numcom(&cursor), -1);

    FtpdUser user;
    const std::string name31(31, 'n');
    const std::string pass31(31, 'p');
    EXPECT_EQ(ftpd_parse_user((name31 + ",rw," + pass31).c_str(), &user), 0);
    EXPECT_EQ(user.name, name31);
    EXPECT_EQ(user.rights, 3u);
    EXPECT_EQ(std::string(user.password), pass31);
    EXPECT_EQ(ftpd_parse_user(",ro,with, comma and blank ", &user), 0);
    EXPECT_STREQ(user.name, "");
    EXPECT_EQ(user.rights, 1u);
    EXPECT_STREQ(user.password, "with, comma and blank ");
    EXPECT_EQ(ftpd_parse_user("", &user), 1);
    EXPECT_EQ(ftpd_parse_user("nocomma", &user), 1);
    EXPECT_EQ(ftpd_parse_user((name31 + "n,ro,x").c_str(), &user), 1);
    EXPECT_EQ(ftpd_parse_user("a,rx,p", &user), 3);
    EXPECT_EQ(ftpd_parse_user("a,ro", &user), 3);
    EXPECT_EQ(ftpd_parse_user(("a,ro," + pass31 + "p").c_str(), &user), 4);
}
