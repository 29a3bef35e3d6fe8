#pragma once

#include <chrono>
#include <functional>
#include <thread>

/// Waits for a condition that announces itself by no event, such as a name leaving the bus.
/// Where there is an event (a log line, a promise), wait for that instead.
///
/// @return whether the condition held within the limit; it is tried at least once.
inline bool eventually(std::function<bool()> const& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(10))
{
    auto const end = std::chrono::steady_clock::now() + limit;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() >= end)
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}
