// EXPECT: this type cannot travel as an argument, a result or a callback's payload
// EXPECT: specialise nelo_rpc::types::SValueTraits

#include <nelo_rpc/Values.h>

long read(nelo_rpc::types::CValueList const& list)
{
    return nelo_rpc::types::unpackAt<long>(list, 0);
}
