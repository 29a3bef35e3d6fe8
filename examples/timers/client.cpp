/// Two clocks that tick at the same time, each at its own pace.

#include <nelo_rpc/nelo_rpc.h>

#include <chrono>
#include <future>
#include <iostream>

namespace
{

class CClockProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CClockProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Clock") {}

    nelo_rpc::CProxyFunction<bool(int)> Start{*this, "Start"};
    nelo_rpc::CProxyCallback<int> OnTick{*this, "OnTick"};
};

/// Fulfils the promise with the tick that is waited for.
void tell(CClockProxy& clock, char const* name, int wanted, std::promise<void>& done)
{
    clock.OnTick.Subscribe([=, &done](int tick) {
        std::cout << name << " " << tick << std::endl;
        if (tick == wanted)
        {
            done.set_value();
        }
    });
}

bool came(std::promise<void>& done)
{
    return done.get_future().wait_for(std::chrono::seconds(10)) == std::future_status::ready;
}

} // namespace

int main()
{
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    std::promise<void> quickDone;
    std::promise<void> slowDone;

    nelo_rpc::CDbusPort port("org.example.watcher", "org.example.clocks", false, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcClient client(port);
    nelo_rpc::CCallbackDelivery delivery(port);
    if (!client.IsConnected())
    {
        std::cerr << "nobody owns org.example.clocks on the bus\n";
        return 1;
    }

    CClockProxy quick(client);
    CClockProxy slow(client);
    tell(quick, "quick", 5, quickDone);
    tell(slow, "slow", 2, slowDone);
    if (!quick.Start(20) || !slow.Start(50))
    {
        std::cerr << "the clocks do not start\n";
        return 1;
    }
    if (!came(quickDone) || !came(slowDone))
    {
        std::cerr << "the clocks have stopped\n";
        return 1;
    }
    return 0;
}
