#pragma once

#include "Eventually.h"

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <string>

/// Application code that reaches no cancellation point until it is released. For one thread, which is released and has
/// ended when the object is destroyed: one that was left to itself ends with its test.
class CSpin
{
public:
    CSpin() = default;
    CSpin(CSpin const&) = delete;
    CSpin& operator=(CSpin const&) = delete;
    ~CSpin() { End(); }

    /// Keeps the calling thread busy.
    void Enter()
    {
        m_thread = static_cast<int>(::syscall(SYS_gettid));
        while (!m_released)
        {
            ::sched_yield();
        }
        m_left = true;
    }

    bool WaitUntilEntered() const
    {
        return eventually([this] { return m_thread != 0; });
    }

    void Release() { m_released = true; }

    /// Releases the thread and waits until it has ended. False if it has not within ten seconds.
    bool End()
    {
        Release();
        return eventually([this] { return m_thread == 0 || (m_left && IsGone()); });
    }

    /// Whether the thread that entered last has ended, or there was none.
    bool IsGone() const
    {
        return m_thread == 0 || ::access(("/proc/self/task/" + std::to_string(m_thread)).c_str(), F_OK) != 0;
    }

    /// The kernel's id of that thread.
    int GetThread() const { return m_thread; }

private:
    std::atomic<int> m_thread{0};
    std::atomic<bool> m_released{false};
    std::atomic<bool> m_left{false};
};
