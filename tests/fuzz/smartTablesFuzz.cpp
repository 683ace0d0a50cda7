// The shared SMART tables file as the table stand-in reads it: the input is
// the whole file, and both tables are loaded from it. get_map must turn
// every file into a status; a crash, an escaping exception (which ends the
// process through its noexcept loader) or a sanitizer report is a finding.

#include "smartdata.hpp"

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

namespace
{

// The file is rewritten for every input: on a disk file system each
// truncation waits for the disk (about 200 runs a second instead of
// thousands), so memory-backed storage comes first.
std::string scratchRoot()
{
    if (access("/dev/shm", W_OK | X_OK) == 0)
    {
        return "/dev/shm";
    }
    const char* tmp = std::getenv("TMPDIR");
    return tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
}

// The tables file of this process, removed with its directory at exit.
class TablesFile
{
  public:
    TablesFile()
    {
        std::string pattern = scratchRoot() + "/smart-tables-fuzz.XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr)
        {
            std::perror("mkdtemp");
            std::abort();
        }
        directory = pattern;
        path = directory + "/tables.json";
        setenv("PLATFORM_SMART_TABLES", path.c_str(), 1);
    }
    TablesFile(const TablesFile&) = delete;
    TablesFile& operator=(const TablesFile&) = delete;
    ~TablesFile()
    {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    void write(const uint8_t* data, size_t size) const
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data),
                  static_cast<std::streamsize>(size));
        if (!out.flush())
        {
            std::perror("tables file");
            std::abort();
        }
    }

  private:
    std::string directory;
    std::string path;
};

const TablesFile& tablesFile()
{
    static const TablesFile file;
    return file;
}

// Reads every field of every entry, so that a record the loader built
// wrongly shows up under the sanitizers.
template <typename Record>
uint64_t touchAll(const std::map<std::string, Record>& map)
{
    uint64_t sum = 0;
    for (const auto& [key, record] : map)
    {
        sum += key.size() + record.fqdd().size();
        sum += record.objStatus() + record.protocol() + record.attributes() +
               record.lastUpdatedDateTime();
    }
    return sum;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    tablesFile();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    tablesFile().write(data, size);
    std::map<std::string, smartdatasassata_gen> sasSata;
    std::map<std::string, smartdatanvme_gen> nvme;
    const uint64_t sasSataStatus =
        DataAbstraction::smartdatasassata::get_map(sasSata);
    const uint64_t nvmeStatus = DataAbstraction::smartdatanvme::get_map(nvme);
    volatile uint64_t sink = sasSataStatus + nvmeStatus + touchAll(sasSata) +
                             touchAll(nvme);
    static_cast<void>(sink);
    return 0;
}
