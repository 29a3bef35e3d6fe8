#include <nelo_rpc/nelo_rpc.h>

#include <chrono>
#include <future>
#include <iostream>
#include <optional>
#include <string>

/// Making one makes a thermostat in the server; destroying it destroys that thermostat.
class CThermostatProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThermostatProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thermostat") {}

    nelo_rpc::CProxyFunction<bool(double)> SetTarget{*this, "SetTarget"};
    nelo_rpc::CProxyFunction<std::string(int)> Describe{*this, "Describe"};
    nelo_rpc::CProxyFunction<int(int, int)> Sum{*this, "Sum"};
    nelo_rpc::CProxyCallback<double, std::string> OnChanged{*this, "OnChanged"};
};

int main()
{
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    std::promise<double> changed; // outlives the handler that fulfils it

    nelo_rpc::CDbusPort port("org.example.panel", "org.example.climate", false);
    nelo_rpc::CRpcClient client(port);
    nelo_rpc::CCallbackDelivery delivery(port); // the thread that runs the handlers
    if (!client.IsConnected())
    {
        std::cerr << "nobody owns org.example.climate on the bus\n";
        return 1;
    }

    CThermostatProxy thermostat(client);
    thermostat.OnChanged.Subscribe([&changed](double celsius, std::string const& why) {
        std::cout << "changed to " << celsius << ": " << why << std::endl;
        changed.set_value(celsius);
    });

    std::cout << "2 + 3 = " << thermostat.Sum(2, 3) << std::endl;

    // A plain call gives false, 0 or an empty text when no reply came; TryCall tells the two apart.
    std::optional<bool> const accepted = thermostat.SetTarget.TryCall(21.5);
    if (!accepted)
    {
        std::cerr << "no reply\n";
        return 1;
    }
    if (!*accepted || changed.get_future().wait_for(std::chrono::seconds(5)) != std::future_status::ready)
    {
        std::cerr << "the thermostat did not change\n";
        return 1;
    }

    std::cout << thermostat.Describe(1) << std::endl;
    return 0;
}
