#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

/// Timers that run on a thread of their own, for objects that come and go on other threads.
class CTimers
{
public:
    CTimers() : m_thread([this] { Run(); }) {}
    CTimers(CTimers const&) = delete;
    CTimers& operator=(CTimers const&) = delete;

    ~CTimers()
    {
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            m_ends = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }

    /// Calls `tick` each `period` from now on. It must not use the timers.
    void Start(void const* owner, std::chrono::milliseconds period, std::function<void()> tick)
    {
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            m_timers[owner] = {Clock::now() + period, period, std::move(tick)};
        }
        m_changed.notify_all();
    }

    /// When this returns the owner's timer is not running any more.
    void Stop(void const* owner)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_timers.erase(owner);
    }

private:
    using Clock = std::chrono::steady_clock;

    struct STimer
    {
        Clock::time_point next;
        std::chrono::milliseconds period;
        std::function<void()> tick;
    };

    void Run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_ends)
        {
            auto const now = Clock::now();
            auto next = now + std::chrono::hours(1);
            for (auto& [owner, timer] : m_timers)
            {
                if (timer.next <= now)
                {
                    // Under the lock, which is what Stop() waits for. A callback may be sent here: that waits for no
                    // client, and takes no lock that is held while an object is made or destroyed.
                    timer.tick();
                    timer.next += timer.period;
                }
                next = std::min(next, timer.next);
            }
            m_changed.wait_until(lock, next);
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::map<void const*, STimer> m_timers;
    bool m_ends = false;
    std::thread m_thread; // last: it uses the others
};
