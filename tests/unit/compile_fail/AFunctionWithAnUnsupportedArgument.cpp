// EXPECT: this type cannot travel as an argument, a result or a callback's payload
// EXPECT: specialise nelo_rpc::types::SValueTraits

#include <nelo_rpc/FunctionAdapters.h>

#include <map>

int count(std::map<int, int> const&);

auto const g_adapted = nelo_rpc::makeValueListFunction(&count);
