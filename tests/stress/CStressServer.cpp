#include "CStressServer.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdlib>

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

std::vector<std::string> commandFor(std::string const& name, std::vector<std::string> const& options)
{
    std::vector<std::string> command{NELO_RPC_STRESS_DIR "/StressServerProgram", name};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

} // namespace

CStressServer::CStressServer(std::string const& name, std::vector<std::string> const& options)
    : m_process(commandFor(name, options))
{
    EXPECT_TRUE(m_process.WaitForLine("ready", seconds(60))) << "the server does not start";
}

bool CStressServer::IsRunning()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_process.IsRunning();
}

int CStressServer::CountObjects()
{
    return Ask("objects");
}

int CStressServer::CountDisorder()
{
    return Ask("disorder");
}

int CStressServer::CountFloods()
{
    return Ask("floods");
}

void CStressServer::Tell(std::string const& line)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_process.WriteLine(line);
}

bool CStressServer::TellAndWait(std::string const& line, std::string const& answer)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_process.WriteLine(line);
    auto said = ReadLine(seconds(60));
    while (said && *said != answer)
    {
        said = ReadLine(seconds(60));
    }
    return said.has_value();
}

std::optional<int> CStressServer::WaitForEnd(milliseconds limit)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_process.Wait(limit);
}

bool CStressServer::Stop()
{
    Tell("stop");
    auto const status = WaitForEnd(seconds(60));
    return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
}

void CStressServer::Kill()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_process.Kill();
}

std::vector<std::string> CStressServer::FatalLines()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    while (ReadLine(milliseconds(0)))
    {
    }
    return m_fatalLines;
}

int CStressServer::Ask(std::string const& what)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_process.WriteLine(what);
    while (auto const line = ReadLine(seconds(30)))
    {
        if (line->rfind(what + " ", 0) == 0)
        {
            return std::atoi(line->c_str() + what.size());
        }
    }
    return -1;
}

std::optional<std::string> CStressServer::ReadLine(milliseconds limit)
{
    auto line = m_process.ReadLine(limit);
    if (line && line->rfind("fatal ", 0) == 0)
    {
        m_fatalLines.push_back(*line);
    }
    return line;
}
