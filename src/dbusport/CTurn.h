#pragma once

#include "Deadline.h"

#include <condition_variable>
#include <mutex>

namespace nelo_rpc
{

/// Lets one thread at a time have something. Not a std::timed_mutex, of which ThreadSanitizer knows nothing.
class CTurn
{
public:
    void lock() // named as the standard library's locks want it
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_free.wait(lock, [this] { return !m_taken; });
        m_taken = true;
    }

    bool try_lock_until(Deadline deadline)
    {
        if (deadline == Deadline::max())
        {
            lock();
            return true;
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        bool const isFree = m_free.wait_until(lock, deadline, [this] { return !m_taken; });
        m_taken = m_taken || isFree;
        return isFree;
    }

    void unlock()
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_taken = false;
        m_free.notify_one();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_free;
    bool m_taken = false;
};

} // namespace nelo_rpc
