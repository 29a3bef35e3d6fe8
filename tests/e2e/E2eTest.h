#pragma once

#include "CChildProcess.h"
#include "CGate.h"
#include "CInbox.h"
#include "CLogCapture.h"
#include "CPrivateBus.h"
#include "CTestClient.h"
#include "Eventually.h"
#include "ProbeTypes.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

/// A server process, ready to be called.
class CServerProcess
{
public:
    explicit CServerProcess(std::string const& name, std::vector<std::string> const& more = {})
        : m_process(Command(name, more))
    {
        EXPECT_TRUE(m_process.WaitForLine("ready"));
    }

    CChildProcess& Get() { return m_process; }
    CChildProcess* operator->() { return &m_process; }

    /// The objects that live there.
    int CountObjects()
    {
        m_process.WriteLine("objects");
        while (std::optional<std::string> const line = m_process.ReadLine())
        {
            if (line->rfind("objects ", 0) == 0)
            {
                return std::atoi(line->c_str() + 8);
            }
        }
        return -1;
    }

    /// Ends it in good order. @return its exit code, or -1 if it did not end by itself.
    int Stop()
    {
        m_process.WriteLine("stop");
        auto const status = m_process.Wait(seconds(40));
        return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    }

    static std::vector<std::string> Command(std::string const& name, std::vector<std::string> const& more)
    {
        std::vector<std::string> command{NELO_RPC_E2E_DIR "/ServerProgram", name};
        command.insert(command.end(), more.begin(), more.end());
        return command;
    }

private:
    CChildProcess m_process;
};

/// A client process, connected to the server.
class CClientProcess
{
public:
    explicit CClientProcess(std::string const& server)
        : m_process({NELO_RPC_E2E_DIR "/ClientProgram", CPrivateBus::UniqueName(), server})
    {
        EXPECT_TRUE(m_process.WaitForLine("ready"));
    }

    CChildProcess* operator->() { return &m_process; }

    /// Makes its probe and waits for it.
    void MakeProbe()
    {
        m_process.WriteLine(std::string("make ") + PROBE);
        auto line = m_process.ReadLine();
        while (line && line->rfind("event ", 0) == 0) // may come before the client has said that its probe is made
        {
            line = m_process.ReadLine();
        }
        EXPECT_TRUE(line && line->rfind("made ", 0) == 0) << line.value_or("nothing");
        EXPECT_NE("made 0", line.value_or("")) << "the server made none";
    }

    int Stop()
    {
        m_process.WriteLine("stop");
        auto const status = m_process.Wait(seconds(40));
        return status && WIFEXITED(*status) ? WEXITSTATUS(*status) : -1;
    }

private:
    CChildProcess m_process;
};

/// 0, 1, ..., count - 1.
inline std::vector<int> rangeOf(int count)
{
    std::vector<int> range;
    for (int i = 0; i < count; ++i)
    {
        range.push_back(i);
    }
    return range;
}

/// One bus name for the server of a test.
class CE2eTest : public ::testing::Test
{
protected:
    std::string const m_name = CPrivateBus::UniqueName();
};
