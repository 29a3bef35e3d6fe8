// EXPECT: this type cannot travel as an argument, a result or a callback's payload
// EXPECT: specialise nelo_rpc::types::SValueTraits

#include <nelo_rpc/Values.h>

struct SPoint
{
    int x;
    int y;
};

auto const g_packed = nelo_rpc::types::packValue(SPoint{1, 2});
