#pragma once

#include <optional>

namespace nelo_rpc
{

/// What the caller of one call may choose. Since 0.1.
class CCallOptions
{
public:
    /// The port's time-out: see CRpcPort::SetTimeoutMs().
    CCallOptions() = default;

    /// A time-out of the call's own, in milliseconds, for all of it: from its start to its result, the time that it
    /// waits behind other calls included. -1 stands for the bus library's default (25 seconds); with 0 no result is
    /// quick enough; a call with less is not sent.
    explicit CCallOptions(int timeoutMs) : m_timeoutMs(timeoutMs) {}

    /// The call's own time-out, or nothing if it has the port's.
    std::optional<int> GetTimeoutMs() const { return m_timeoutMs; }

private:
    std::optional<int> m_timeoutMs;
};

} // namespace nelo_rpc
