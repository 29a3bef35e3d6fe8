#pragma once

#include "CTestClient.h"
#include "Eventually.h"
#include "StressTypes.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

/// Calls without an end, answered or not: whatever goes, something is under way then.
class CRunningCalls
{
public:
    explicit CRunningCalls(std::string const& server)
        : m_thread([this, server] {
              CTestClient client(server, nelo_rpc::SPortOptions::Recommended());
              CStepperProxy stepper(client.Get());
              while (!m_stop)
              {
                  m_answers += stepper.Echo.TryCall({1, 2, 3}) ? 1 : 0;
              }
              stepper.Steps(); // before its end, so that the server knows the actor
          })
    {
    }

    ~CRunningCalls()
    {
        m_stop = true;
        m_thread.join();
    }

    bool WaitForOne() const
    {
        return eventually([&] { return m_answers > 0; }, std::chrono::seconds(30));
    }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<long> m_answers{0};
    std::thread m_thread;
};
