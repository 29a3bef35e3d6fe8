// EXPECT: an enumeration must fit into a signed 32-bit number to travel

#include <nelo_rpc/Values.h>

#include <cstdint>

enum class EWide : std::int64_t
{
    Top = 1LL << 40
};

auto const g_packed = nelo_rpc::types::packValue(EWide::Top);
