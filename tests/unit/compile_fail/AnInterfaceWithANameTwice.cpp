// EXPECT: a name in the interface's RPC is missing, twice there or reserved

#include <nelo_rpc/nelo_rpc.h>

class ILamp
{
public:
    virtual ~ILamp() = default;
    virtual void On() = 0;
    virtual void Off() = 0;

    static constexpr nelo_rpc::CInterface RPC{"Lamp", nelo_rpc::SFunction<&ILamp::On>{"On"},
                                              nelo_rpc::SFunction<&ILamp::Off>{"On"}};
};

void use(nelo_rpc::CRpcClient& client)
{
    nelo_rpc::CProxyOf<ILamp> lamp(client);
}
