#include "ProcessCost.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace bench
{

namespace
{

/// The number behind "<key>:" in a status file of the kernel's.
long numberBehind(std::filesystem::path const& file, std::string const& key)
{
    std::ifstream status(file);
    for (std::string word; status >> word;)
    {
        long number = 0;
        if (word == key + ":" && status >> number)
        {
            return number;
        }
    }
    return 0;
}

} // namespace

SProcessCost costOf(int pid)
{
    SProcessCost cost;
    std::filesystem::path const process = "/proc/" + std::to_string(pid);
    std::error_code ended;
    for (auto const& task : std::filesystem::directory_iterator(process / "task", ended))
    {
        double nanoseconds = 0;
        std::ifstream(task.path() / "schedstat") >> nanoseconds;
        cost.cpuMicroseconds += nanoseconds / 1000;
        cost.contextSwitches += numberBehind(task.path() / "status", "voluntary_ctxt_switches") +
                                numberBehind(task.path() / "status", "nonvoluntary_ctxt_switches");
    }
    cost.residentKibibytes = numberBehind(process / "status", "VmRSS");
    return cost;
}

} // namespace bench
