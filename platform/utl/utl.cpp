#include "utl.hpp"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <string>
#include <string_view>

namespace
{

bool isDirectory(const std::string& path)
{
    struct stat info
    {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// A component that already exists is fine as long as it is a directory (or a
// link to one); another process may also create it between our checks.
bool makeComponent(const std::string& prefix)
{
    if (::mkdir(prefix.c_str(), 0755) == 0)
    {
        return true;
    }
    return errno == EEXIST && isDirectory(prefix);
}

// Test hook: UTL_MAKE_PATH_RAISE=<signal number> raises that signal in the
// calling process before the path is made, as a signal arriving while the
// directory is being created would.
void raiseRequestedSignal()
{
    const char* requested = std::getenv("UTL_MAKE_PATH_RAISE");
    const std::string_view number = requested != nullptr ? requested : "";
    int signal = 0;
    if (!number.empty() &&
        std::from_chars(number.data(), number.data() + number.size(), signal)
                .ec == std::errc())
    {
        // A hook of the tests: a signal it cannot raise shows there.
        static_cast<void>(::raise(signal));
    }
}

} // namespace

extern "C" int utl_make_path(const char* path)
{
    raiseRequestedSignal();
    if (path == nullptr || *path == '\0')
    {
        return -1;
    }
    try
    {
        const std::string full = path;
        for (std::size_t end = full.find('/', 1); end != std::string::npos;
             end = full.find('/', end + 1))
        {
            if (full[end - 1] != '/' && !makeComponent(full.substr(0, end)))
            {
                return -1;
            }
        }
        if (!full.ends_with('/') && !makeComponent(full))
        {
            return -1;
        }
        return isDirectory(full) ? 0 : -1;
    }
    catch (...)
    {
        return -1;
    }
}
