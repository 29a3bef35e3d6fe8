/// Calls that nobody waits for where they are made, and calls that say how they ended: a client of the thermostat.

#include <nelo_rpc/nelo_rpc.h>

#include <chrono>
#include <future>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

namespace
{

class CThermostatProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThermostatProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thermostat") {}

    nelo_rpc::CProxyFunction<std::string(int)> Describe{*this, "Describe"};
    nelo_rpc::CProxyFunction<int(int, int)> Sum{*this, "Sum"};
};

/// The sum of some sums, all of which are under way at the same time; nothing if one of them failed.
std::optional<int> sumUp(CThermostatProxy& thermostat, int calls)
{
    std::vector<std::future<std::optional<int>>> sums;
    sums.reserve(static_cast<std::size_t>(calls));
    for (int i = 0; i < calls; ++i)
    {
        sums.push_back(thermostat.Sum.CallAsync(i, i));
    }

    int total = 0;
    for (auto& sum : sums)
    {
        std::optional<int> const value = sum.get();
        if (!value)
        {
            return std::nullopt;
        }
        total += *value;
    }
    return total;
}

} // namespace

int main()
{
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    std::promise<std::string> described; // outlives the handler that fulfils it

    nelo_rpc::CDbusPort port("org.example.panel", "org.example.climate", false, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcClient client(port);
    nelo_rpc::CCallbackDelivery delivery(port); // its thread runs the handlers of results, too
    CThermostatProxy thermostat(client);

    // With a handler. It runs also when there is no result, and when the proxy is destroyed before one came.
    thermostat.Describe.CallAsync(
        [&described](std::optional<std::string> const& text) {
            described.set_value(text.value_or("nothing is known"));
        },
        0);

    // With futures.
    std::optional<int> const total = sumUp(thermostat, 20);
    std::cout << "the sum of twenty sums is " << total.value_or(-1) << std::endl;
    std::cout << described.get_future().get() << std::endl;

    // Waiting, for half a second at most, and asking why when nothing came.
    auto const sum = thermostat.Sum.TryCallFunction(nelo_rpc::CCallOptions(500), 2, 3);
    std::cout << "2 + 3: " << toString(sum.GetStatus()) << " " << sum.GetReason() << std::endl;

    nelo_rpc::CProxyFunction<int()> const unknown(thermostat, "NoSuchFunction");
    auto const refused = unknown.TryCallFunction();
    std::cout << "no such function: " << toString(refused.GetStatus()) << ": " << refused.GetReason() << std::endl;

    return total == 380 && sum.GetValue() == 5 && !refused.IsOk() ? 0 : 1;
}
