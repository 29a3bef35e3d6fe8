#pragma once

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <utility>
#include <vector>

/// Values that some threads put in and a test waits for. Every wait has a bound.
template <class T>
class CInbox
{
public:
    void Put(T value)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_values.push_back(std::move(value));
        m_changed.notify_all();
    }

    /// False when there are still fewer after the limit.
    bool WaitForCount(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(20)) const
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, limit, [&] { return m_values.size() >= count; });
    }

    std::vector<T> All() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_values;
    }

    std::size_t Count() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_values.size();
    }

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<T> m_values;
};

/// Whether a future is there within the limit. Asked before get(), so that a task that hangs fails its test
/// instead of hanging it without a word.
template <class T>
bool isReady(std::future<T> const& future, std::chrono::milliseconds limit = std::chrono::seconds(20))
{
    return future.wait_for(limit) == std::future_status::ready;
}

/// The time since a moment, for bounds on how long something took.
inline std::chrono::milliseconds since(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}
