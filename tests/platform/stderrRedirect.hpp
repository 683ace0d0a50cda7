#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace platformtest
{

// Points standard error at `target` for the object's lifetime, so a test can
// read what the code under test wrote there.
class StderrRedirect
{
public:
    explicit StderrRedirect(const std::string& target)
    {
        std::fflush(stderr);
        saved = ::dup(STDERR_FILENO);
        const int fd = ::open(target.c_str(),
                              O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        ::dup2(fd, STDERR_FILENO);
        ::close(fd);
    }

    ~StderrRedirect()
    {
        std::fflush(stderr);
        ::dup2(saved, STDERR_FILENO);
        ::close(saved);
    }

    StderrRedirect(const StderrRedirect&) = delete;
    StderrRedirect& operator=(const StderrRedirect&) = delete;

private:
    int saved = -1;
};

} // namespace platformtest
