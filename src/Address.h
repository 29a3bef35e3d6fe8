#pragma once

#include <nelo_rpc/CValueList.h>

namespace nelo_rpc::protocol
{

/// What a list lacks to say who is called, or calls back, and under which name; null if it lacks nothing. Those who
/// trust their peers read it without asking.
char const* whyNotAddressed(types::CValueList const& list, bool isCall);

} // namespace nelo_rpc::protocol
