// EXPECT: a function of an interface cannot change its arguments

#include <nelo_rpc/nelo_rpc.h>

class ILamp
{
public:
    virtual ~ILamp() = default;
    virtual void Read(int& percent) = 0;
};

nelo_rpc::SFunction<&ILamp::Read>::Signature* g_signature;
