/// The client's side of an actor type that is declared once: calls are named by the members of the interface.

#include "ILamp.h"

#include <chrono>
#include <future>
#include <iostream>
#include <optional>
#include <string>

int main()
{
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    std::promise<int> dimmed; // outlives the handler that fulfils it

    nelo_rpc::CDbusPort port("org.example.switch", "org.example.light", false, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcClient client(port);
    nelo_rpc::CCallbackDelivery delivery(port);
    if (!client.IsConnected())
    {
        std::cerr << "nobody owns org.example.light on the bus\n";
        return 1;
    }

    nelo_rpc::CProxyOf<ILamp> lamp(client);
    lamp.Subscribe<&ILamp::OnDimmed>([&dimmed](int percent) { dimmed.set_value(percent); });

    lamp.Call<&ILamp::SetLabel>("the desk's lamp");
    std::optional<bool> const accepted = lamp.TryCall<&ILamp::Dim>(40);
    if (!accepted || !*accepted)
    {
        std::cerr << "the lamp was not dimmed\n";
        return 1;
    }

    std::future<int> arrived = dimmed.get_future();
    if (arrived.wait_for(std::chrono::seconds(5)) != std::future_status::ready || arrived.get() != 40)
    {
        std::cerr << "the lamp did not say so\n";
        return 1;
    }

    std::string const description = lamp.Call<&ILamp::Describe>();
    std::cout << description << std::endl;
    return description == "the desk's lamp at 40 percent" ? 0 : 1;
}
