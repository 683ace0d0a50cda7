#include "textOutput.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

using namespace qvreport;
namespace fs = std::filesystem;

// What replacing `path` with `text` said, or the file's text after it.
static std::string replaced(const fs::path& path, const std::string& text)
{
    std::ostringstream err;
    bool done = replaceFile(path, err,
                            [&text](std::ostream& out) { out << text; });
    if (!done)
    {
        return err.str().substr(path.string().size());
    }
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(TextOutputTest, replacesOnlyARegularFileAndLeavesNothingBehind)
{
    auto dir = fs::path(testing::TempDir()) /
               ("replace-" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir / "directory");
    fs::create_symlink(dir / "target", dir / "link");
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    // Past the output's 8 KiB block: the octet that fills a block is kept.
    const std::string large(3 * 8192 + 1, 'x');
    EXPECT_EQ(replaced(dir / "target", "old\n"), "old\n");
    for (const char* other : {"directory", "link", "fifo"})
    {
        EXPECT_EQ(replaced(dir / other, "x"),
                  ": not a regular file, not replaced\n");
    }
    EXPECT_EQ(replaced(dir / "target", large), large);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir), {}), 4);
    fs::remove_all(dir);
}
