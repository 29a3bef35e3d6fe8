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

    /// None is for ever.
    using Moment = std::optional<std::chrono::steady_clock::time_point>;
    static Moment After(std::optional<std::chrono::milliseconds> limit);

    CWait();
    CWait(CWait const&) = delete;
    CWait& operator=(CWait const&) = delete;
    ~CWait();

    /// Waits until one of the descriptors is readable. Once the moment has come that is no matter any more: what is
    /// read there may be nothing that was waited for, and there may be more of it for ever.
    EEnd Until(std::vector<int> const& fds, Moment moment) const;

private:
    int m_signals;
};
