#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

/// An event that happens once: threads wait for it, one of them lets it happen. Every wait has a bound.
class CGate
{
public:
    void Open()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_opened.notify_all();
    }

    /// False when the limit passed first.
    bool Wait(std::chrono::milliseconds limit = std::chrono::seconds(20)) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_opened.wait_for(lock, limit, [&] { return m_open; });
    }

    bool IsOpen() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_open;
    }

    /// For "this must not happen": whether the gate stayed shut while someone had ample time to open it.
    bool StaysShut(std::chrono::milliseconds time = std::chrono::milliseconds(200)) const { return !Wait(time); }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_opened;
    bool m_open = false;
};
