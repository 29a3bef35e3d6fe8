#pragma once

#include "Contender.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

namespace bench
{

/// The calls of one EchoInFlight(). It has a place for each call that is open at a time; as soon as a place's call is
/// answered, the place makes the next one. Answers may come on any thread.
class CInFlight
{
public:
    struct SPlace
    {
        CInFlight& calls;
        int value; // of the call that is open
    };
    using StartFunction = std::function<void(SPlace& place)>;

    /// @param start  calls EchoInt with the place's value, does not wait, and has the answer given to Answer().
    CInFlight(int calls, int window, StartFunction start)
        : m_calls(calls), m_start(std::move(start)), m_places(static_cast<std::size_t>(window), SPlace{*this, 0})
    {
    }

    CInFlight(CInFlight const&) = delete;
    CInFlight& operator=(CInFlight const&) = delete;

    void Start()
    {
        for (SPlace& place : m_places)
        {
            StartNext(place);
        }
    }

    void Answer(SPlace& place, int answer)
    {
        if (answer != place.value)
        {
            fail("a wrong answer");
        }
        StartNext(place);
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (++m_answered == m_calls)
        {
            m_last.notify_one();
        }
    }

    /// For who has to dispatch meanwhile.
    bool IsDone() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_answered == m_calls;
    }

    void Wait()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_last.wait(lock, [this] { return m_answered == m_calls; });
    }

private:
    void StartNext(SPlace& place)
    {
        int const value = ++m_started;
        if (value <= m_calls)
        {
            place.value = value;
            m_start(place);
        }
    }

    int const m_calls;
    StartFunction const m_start;
    std::vector<SPlace> m_places;
    std::atomic<int> m_started{0};
    mutable std::mutex m_mutex;
    std::condition_variable m_last;
    int m_answered = 0;
};

} // namespace bench
