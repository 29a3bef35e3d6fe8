#include "ProgramSupport.h"

#include <nelo_rpc/Log.h>

#include <atomic>
#include <chrono>
#include <cstdio>

namespace
{
std::atomic<bool> g_killedAWorker{false};
} // namespace

/// Asked by the leak checker, if there is one, at the end of the program. A kill loses what the killed function owns,
/// and the objects of its client.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off()
{
    return g_killedAWorker ? 1 : 0;
}

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
            noteKill(line);
            std::fprintf(stderr, "%s\n", line.c_str());
        }
    });
}

void noteKill(std::string const& line)
{
    if (line.find("Killing thread") != std::string::npos)
    {
        g_killedAWorker = true;
    }
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
