// EXPECT: this type cannot travel as an argument, a result or a callback's payload

#include <nelo_rpc/nelo_rpc.h>

class ILamp
{
public:
    virtual ~ILamp() = default;
    virtual void Blink(std::map<int, int> const& pattern) = 0;
};

nelo_rpc::SFunction<&ILamp::Blink>::Signature* g_signature;
