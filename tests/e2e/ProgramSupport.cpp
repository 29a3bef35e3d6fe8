#include "ProgramSupport.h"

#include <nelo_rpc/Log.h>

#include <chrono>
#include <cstdio>

void say(std::string const& line)
{
    static std::mutex& mutex = *new std::mutex; // never destroyed: threads may be alive at exit
    std::lock_guard<std::mutex> lock(mutex);
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

void sendErrorsToStderr()
{
    nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel level, std::string const& line) {
        if (level >= nelo_rpc::log::ELevel::Error)
        {
            std::fprintf(stderr, "%s\n", line.c_str());
        }
    });
}

void spinForEver()
{
    for (volatile int i = 0;; i = 1 - i)
    {
    }
}

void CDoor::Wait()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    int const round = m_round;
    say("blocked");
    m_released.wait_for(lock, std::chrono::seconds(60), [&] { return m_round != round; });
}

void CDoor::Release()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_round;
    m_released.notify_all();
}
