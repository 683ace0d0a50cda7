// The shared SMART tables file as the table stand-in reads it: the input is
// the whole file, and both tables are loaded from it. get_map must turn
// every file into a status; a crash, an escaping exception (which ends the
// process through its noexcept loader) or a sanitizer report is a finding.

#include "smartdata.hpp"

#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

namespace
{

// The tables file of this process, rewritten for every input: a file in
// memory, as on a disk file system each truncation waits for the disk
// (about 200 runs a second instead of thousands).
int tablesFile()
{
    static const int fd = [] {
        const int made = memfd_create("smart-tables", MFD_CLOEXEC);
        if (made < 0)
        {
            std::perror("memfd_create");
            std::abort();
        }
        const std::string path = "/proc/self/fd/" + std::to_string(made);
        setenv("PLATFORM_SMART_TABLES", path.c_str(), 1);
        return made;
    }();
    return fd;
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
    if (ftruncate(tablesFile(), 0) != 0 ||
        pwrite(tablesFile(), data, size, 0) != static_cast<ssize_t>(size))
    {
        std::perror("tables file");
        std::abort();
    }
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
