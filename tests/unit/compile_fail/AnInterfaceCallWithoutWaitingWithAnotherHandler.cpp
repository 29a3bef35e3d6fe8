// EXPECT: led by a handler of its optional result

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

void use(nelo_rpc::CProxyOf<ILamp>& lamp)
{
    lamp.CallAsync<&ILamp::Dim>([](std::optional<std::string> const&) {}, 40);
}
