#include "utl.hpp"

#include "tempDir.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

namespace
{

namespace fs = std::filesystem;
using testsupport::TempDir;

TEST(UtlMakePath, CreatesMissingDirectoriesOrRefuses)
{
    // Directories made beforehand next to file "f", path, success.
    const std::vector<std::tuple<std::string, std::string, bool>> cases{
        {"", "a/b/c", true},  {"", "a//b///c/", true}, {"a/b/c", "a/b/c", true},
        {"a", "a/b/c", true}, {"", "f/x", false},      {"", "f", false},
    };
    for (const auto& [existing, path, succeeds] : cases)
    {
        SCOPED_TRACE(path);
        const TempDir root;
        fs::create_directories(root.file(existing));
        root.write("f", "x");
        const std::string full = root.file(path);
        EXPECT_EQ(utl_make_path(full.c_str()), succeeds ? 0 : -1);
        std::error_code ignored;
        EXPECT_EQ(fs::is_directory(full, ignored), succeeds);
    }
    EXPECT_EQ(utl_make_path(nullptr), -1);
    EXPECT_EQ(utl_make_path(""), -1);
}

// Root would bypass the permission check; nobody does not.
TEST(UtlMakePath, UnwritableParent)
{
    const TempDir root;
    fs::permissions(root.path(), fs::perms(0755));
    const std::string locked = root.file("locked");
    fs::create_directories(locked + "/present");
    fs::permissions(locked, fs::perms(0555));
    ASSERT_EQ(::seteuid(::getuid() == 0 ? 65534 : ::getuid()), 0);
    EXPECT_EQ(utl_make_path((locked + "/new/x").c_str()), -1);
    // Components that already exist need no write permission.
    EXPECT_EQ(utl_make_path((locked + "/present/").c_str()), 0);
    ASSERT_EQ(::seteuid(::getuid()), 0);
    EXPECT_FALSE(fs::exists(locked + "/new"));
    fs::permissions(locked, fs::perms(0755));
}

} // namespace
