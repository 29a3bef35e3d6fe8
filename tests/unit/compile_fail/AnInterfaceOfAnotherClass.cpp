// EXPECT: the class does not publicly derive from the interface

#include <nelo_rpc/nelo_rpc.h>

class ILamp
{
public:
    virtual ~ILamp() = default;
    virtual bool Dim(int percent) = 0;
    virtual void Switch(bool on) = 0;
    nelo_rpc::CCallbackSender<int> OnDimmed;

    static constexpr nelo_rpc::CInterface RPC{"Lamp", nelo_rpc::SFunction<&ILamp::Dim>{"Dim"},
                                              nelo_rpc::SCallback<&ILamp::OnDimmed>{"OnDimmed"}};
};

class CLamp
{
};

void serve(nelo_rpc::CRpcHost& host)
{
    nelo_rpc::registerInterface<ILamp, CLamp>(host);
}
