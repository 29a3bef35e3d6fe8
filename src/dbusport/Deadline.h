#pragma once

#include <chrono>

namespace nelo_rpc
{

using Deadline = std::chrono::steady_clock::time_point; ///< max(): never

/// The end of a time-out that begins now, as the bus library understands it: negative is 25 seconds, INT_MAX is never.
Deadline deadlineIn(int timeoutMs);

/// As poll() wants it: -1 for ever, and 0 if it has passed.
int millisecondsTo(Deadline deadline);

} // namespace nelo_rpc
