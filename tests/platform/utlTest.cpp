#include "utl.hpp"

#include "tempDir.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using testsupport::TempDir;

// What a case finds in the scratch directory before the call.
struct Layout
{
    std::vector<std::string> dirs{};
    std::vector<std::string> files{};
    std::vector<std::pair<std::string, std::string>> links{}; // name, target
};

void build(const TempDir& root, const Layout& layout)
{
    for (const auto& d : layout.dirs)
    {
        fs::create_directories(root.file(d));
    }
    for (const auto& f : layout.files)
    {
        root.write(f, "x");
    }
    for (const auto& [name, target] : layout.links)
    {
        fs::create_symlink(target, root.file(name));
    }
}

bool isDirectory(const std::string& path)
{
    std::error_code ignored;
    return fs::is_directory(path, ignored);
}

struct MakePathCase
{
    const char* name;
    Layout before;
    std::string path; // relative to the scratch directory
    bool succeeds;
};

TEST(UtlMakePath, CreatesOrRefuses)
{
    const std::string longName(300, 'n');
    const std::vector<MakePathCase> cases{
        {"nested", {}, "a/b/c", true},
        {"trailingSlash", {}, "a/b/c/", true},
        {"repeatedSlashes", {}, "a//b///c//", true},
        {"dotComponents", {{"a"}}, "a/./b/../c", true},
        {"existing", {{"a/b/c"}}, "a/b/c", true},
        {"partlyExisting", {{"a"}}, "a/b/c", true},
        {"throughLinkToDirectory", {{"d"}, {}, {{"l", "d"}}}, "l/x/y", true},
        {"fileAsParent", {{"a"}, {"a/f"}}, "a/f/x", false},
        {"fileAsLast", {{"a"}, {"a/f"}}, "a/f", false},
        {"fileAsLastWithSlash", {{"a"}, {"a/f"}}, "a/f/", false},
        {"danglingLink", {{}, {}, {{"l", "missing"}}}, "l/x", false},
        {"nameTooLong", {}, "a/" + longName + "/b", false},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        TempDir root;
        build(root, c.before);
        const std::string full = root.file(c.path);
        const int result = utl_make_path(full.c_str());
        if (c.succeeds)
        {
            EXPECT_EQ(result, 0);
            EXPECT_TRUE(isDirectory(full));
        }
        else
        {
            EXPECT_NE(result, 0);
            EXPECT_FALSE(isDirectory(full));
        }
    }
}

TEST(UtlMakePath, RejectsMissingPath)
{
    EXPECT_NE(utl_make_path(nullptr), 0);
    EXPECT_NE(utl_make_path(""), 0);
}

TEST(UtlMakePath, RootAlwaysExists)
{
    EXPECT_EQ(utl_make_path("/"), 0);
}

TEST(UtlMakePath, NewDirectoriesGetMode0755)
{
    TempDir root;
    const mode_t savedMask = ::umask(0);
    const int result = utl_make_path(root.file("p/q/r").c_str());
    ::umask(savedMask);
    ASSERT_EQ(result, 0);
    for (const char* d : {"p", "p/q", "p/q/r"})
    {
        SCOPED_TRACE(d);
        struct stat info
        {};
        ASSERT_EQ(::stat(root.file(d).c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0755U);
    }
}

// Runs `body` in a child that has no right to bypass permissions (root
// drops to nobody), returning the child's exit code.
int runUnprivileged(const std::function<int()>& body)
{
    const pid_t pid = ::fork();
    if (pid == 0)
    {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))
        {
            ::_exit(100);
        }
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
}

TEST(UtlMakePath, UnwritableParent)
{
    TempDir root;
    fs::permissions(root.path(), fs::perms(0755));
    const std::string locked = root.file("locked");
    ASSERT_EQ(::mkdir(locked.c_str(), 0555), 0);
    ASSERT_EQ(::mkdir((locked + "/present").c_str(), 0755), 0);
    ::chmod(locked.c_str(), 0555);

    const std::string missing = locked + "/new/deeper";
    EXPECT_EQ(runUnprivileged(
                  [&] { return utl_make_path(missing.c_str()) != 0 ? 0 : 1; }),
              0);
    EXPECT_FALSE(fs::exists(locked + "/new"));

    // Components that already exist need no write permission.
    const std::string present = locked + "/present/";
    EXPECT_EQ(runUnprivileged(
                  [&] { return utl_make_path(present.c_str()) == 0 ? 0 : 1; }),
              0);
    fs::permissions(locked, fs::perms(0755));
}

} // namespace
