#pragma once

#include <chrono>
#include <optional>
#include <vector>

/// Waits of commands that go on until they are interrupted. Make it before anything starts a thread.
class CWait
{
public:
    enum class EEnd
    {
        Readable,
        Interrupted, ///< SIGINT or SIGTERM
        TimedOut
    };

    CWait();
    CWait(CWait const&) = delete;
    CWait& operator=(CWait const&) = delete;
    ~CWait();

    /// Waits until one of the descriptors is readable; without a limit for ever.
    EEnd For(std::vector<int> const& fds, std::optional<std::chrono::milliseconds> limit) const;

private:
    int m_signals;
};
