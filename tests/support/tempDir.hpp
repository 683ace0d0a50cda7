#pragma once

#include <string>

namespace testsupport
{

// A fresh directory under $TMPDIR (or /tmp), removed with its content when
// the object goes away.
class TempDir
{
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const
    {
        return dirPath;
    }

    // Absolute path of `name` inside the directory.
    std::string file(const std::string& name) const;

    // Writes `content` to `name` inside the directory; returns its path.
    std::string write(const std::string& name,
                      const std::string& content) const;

private:
    std::string dirPath;
};

// Whole content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);

} // namespace testsupport
