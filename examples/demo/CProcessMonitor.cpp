#include "CProcessMonitor.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace
{

std::string pathOf(int pid, char const* file)
{
    return "/proc/" + std::to_string(pid) + "/" + file;
}

bool isNumber(std::string const& text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

} // namespace

int CProcessMonitor::CountProcesses()
{
    ++m_questions;
    int count = 0;
    std::error_code error;
    for (auto const& entry : std::filesystem::directory_iterator("/proc", error))
    {
        count += isNumber(entry.path().filename().string()) ? 1 : 0;
    }
    return count;
}

double CProcessMonitor::LoadAverage()
{
    ++m_questions;
    double load = -1.0;
    std::ifstream("/proc/loadavg") >> load;
    return load;
}

unsigned int CProcessMonitor::MemoryKb(int pid)
{
    ++m_questions;
    std::ifstream status(pathOf(pid, "status"));
    for (std::string word; status >> word;)
    {
        unsigned int kilobytes = 0;
        if (word == "VmRSS:" && status >> kilobytes)
        {
            return kilobytes;
        }
    }
    return 0;
}

std::string CProcessMonitor::NameOf(int pid)
{
    ++m_questions;
    std::string name;
    std::ifstream file(pathOf(pid, "comm"));
    std::getline(file, name);
    return name;
}

EProcessState CProcessMonitor::StateOf(int pid)
{
    ++m_questions;
    std::ifstream file(pathOf(pid, "stat"));
    std::string const text{std::istreambuf_iterator<char>(file), {}};

    // The state follows the name, which stands in brackets and may hold brackets and spaces itself.
    std::size_t const end = text.rfind(") ");
    if (end == std::string::npos || end + 2 >= text.size())
    {
        return EProcessState::Gone;
    }
    switch (text[end + 2])
    {
    case 'R':
        return EProcessState::Running;
    case 'S':
        return EProcessState::Sleeping;
    case 'D':
        return EProcessState::Sleeping;
    case 'T':
        return EProcessState::Stopped;
    case 'Z':
        return EProcessState::Zombie;
    default:
        return EProcessState::Other;
    }
}

std::vector<std::uint8_t> CProcessMonitor::CommandLine(int pid)
{
    ++m_questions;
    std::ifstream file(pathOf(pid, "cmdline"), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool CProcessMonitor::WaitForExit(int pid)
{
    ++m_questions;
    timespec const pause{0, 20 * 1000 * 1000};
    while (::kill(pid, 0) == 0 || errno == EPERM)
    {
        ::nanosleep(&pause, nullptr);
    }
    return true;
}

nelo_rpc::types::CValueList CProcessMonitor::Snapshot(nelo_rpc::types::CValueList const&)
{
    int const processes = CountProcesses();
    double const load = LoadAverage();

    nelo_rpc::types::CValueList answer;
    answer[0] = nelo_rpc::types::packValue(processes);
    answer[1] = nelo_rpc::types::packValue(load);
    answer[2] = nelo_rpc::types::packValue(std::to_string(processes) + " processes, load " + std::to_string(load));
    return answer;
}
