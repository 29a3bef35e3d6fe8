// EXPECT: a function of an interface cannot return a pointer: text is a std::string

#include <nelo_rpc/nelo_rpc.h>

class ILamp
{
public:
    virtual ~ILamp() = default;
    virtual char const* GetLabel() = 0;
};

nelo_rpc::SFunction<&ILamp::GetLabel>::Signature* g_signature;
