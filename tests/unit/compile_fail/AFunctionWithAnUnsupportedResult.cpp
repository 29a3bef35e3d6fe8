// EXPECT: this type cannot travel as an argument, a result or a callback's payload
// EXPECT: specialise nelo_rpc::types::SValueTraits

#include <nelo_rpc/FunctionAdapters.h>

#include <vector>

auto const g_adapted = nelo_rpc::makeValueListFunction([] { return std::vector<int>(); });
