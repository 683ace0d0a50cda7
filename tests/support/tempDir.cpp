#include "tempDir.hpp"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace testsupport
{

TempDir::TempDir()
{
    const char* base = std::getenv("TMPDIR");
    std::string pattern =
        std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
        "/qvtest-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr)
    {
        throw std::runtime_error("mkdtemp failed for " + pattern);
    }
    dirPath = buffer.data();
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(dirPath, ignored);
}

std::string TempDir::file(const std::string& name) const
{
    return dirPath + "/" + name;
}

std::string TempDir::write(const std::string& name,
                           const std::string& content) const
{
    std::string target = file(name);
    std::filesystem::create_directories(
        std::filesystem::path(target).parent_path());
    std::ofstream out(target, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out.flush())
    {
        throw std::runtime_error("cannot write " + target);
    }
    return target;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

} // namespace testsupport
