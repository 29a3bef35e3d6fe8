#include "Deadline.h"

#include <algorithm>
#include <climits>

namespace nelo_rpc
{

namespace
{

using Clock = std::chrono::steady_clock;

/// What libdbus takes -1 for.
constexpr int DEFAULT_TIMEOUT_MS = 25000;

/// libdbus's way to say never.
constexpr int NO_TIMEOUT_MS = INT_MAX;

} // namespace

Deadline deadlineIn(int timeoutMs)
{
    if (timeoutMs == NO_TIMEOUT_MS)
    {
        return Deadline::max();
    }
    return Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? DEFAULT_TIMEOUT_MS : timeoutMs);
}

int millisecondsTo(Deadline deadline)
{
    if (deadline == Deadline::max())
    {
        return -1;
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

} // namespace nelo_rpc
