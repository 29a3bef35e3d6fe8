#pragma once

#include "Eventually.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <string>

/// Application code that does not come back, for a kill to end.
class CHang
{
public:
    /// Blocks the calling thread. Destroys nothing and holds no lock, so it may be cancelled anywhere.
    void Enter()
    {
        m_thread = static_cast<int>(::syscall(SYS_gettid));
        Sleep();
        m_cameBack = true;
    }

    /// Whether a thread is in it, and asleep: not on its way through code that must not be interrupted.
    bool WaitUntilEntered() const
    {
        return eventually([this] { return m_thread != 0 && IsAsleep(m_thread); });
    }

    /// The kernel's id of the thread that entered last.
    int GetThread() const { return m_thread; }

    /// Whether that thread has ended.
    bool IsGone() const { return ::access(("/proc/self/task/" + std::to_string(m_thread)).c_str(), F_OK) != 0; }

    /// Whether it was left other than by cancellation.
    bool CameBack() const { return m_cameBack; }

    /// Blocks the calling thread for a minute. Called so that the compiler cannot tell that nothing is thrown here: it
    /// would leave out what callers need to be unwound.
    static void Sleep()
    {
        void (*volatile const sleep)() = &SleepUninstrumented;
        sleep();
    }

private:
    /// AddressSanitizer does not notice when a cancellation takes an instrumented frame away, and ThreadSanitizer takes
    /// no notice of what a thread does after it was cancelled in a blocking call of the C library.
    __attribute__((noinline, no_sanitize("address", "undefined"))) static void SleepUninstrumented()
    {
        timespec const time{60, 0};
        ::syscall(SYS_nanosleep, &time, nullptr);
    }

    static bool IsAsleep(int thread)
    {
        std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
        std::string text;
        std::getline(stat, text);
        auto const name = text.rfind(") ");
        return name != std::string::npos && text.compare(name + 2, 1, "S") == 0;
    }

    std::atomic<int> m_thread{0};
    std::atomic<bool> m_cameBack{false};
};
