/// A client that outlives its server: it keeps a thermostat at its target, also when the server is run anew.
///
/// A new server knows nothing of the actors of the old one. The first call of each makes it anew there, which the proxy
/// is told by OnRecreate, and that is the place to set it up again. What must not happen is that a proxy is destroyed
/// without having been called since: the new server would be asked to destroy an actor that it does not have.

#include <nelo_rpc/nelo_rpc.h>

#include <csignal>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace
{

constexpr double TARGET = 21.5;

class CThermostatProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThermostatProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thermostat")
    {
        // Runs on the delivery's thread, where calls may be made.
        OnRecreate.Subscribe([this] {
            std::cout << "the thermostat was made anew" << std::endl;
            SetTarget(TARGET);
        });
    }

    nelo_rpc::CProxyFunction<bool(double)> SetTarget{*this, "SetTarget"};
    nelo_rpc::CProxyFunction<std::string(int)> Describe{*this, "Describe"};
};

/// Waits for a moment. @return whether the program is to end.
bool isStopped(sigset_t const& stop)
{
    timespec const moment{0, 200 * 1000 * 1000};
    return sigtimedwait(&stop, nullptr, &moment) > 0;
}

/// Waits for a server that makes us a thermostat; nothing if the program is to end.
std::unique_ptr<CThermostatProxy> makeThermostat(nelo_rpc::CRpcClient& client, sigset_t const& stop)
{
    do
    {
        if (client.IsConnected())
        {
            auto thermostat = std::make_unique<CThermostatProxy>(client);
            if (thermostat->GetId() != 0)
            {
                return thermostat;
            }
        }
    } while (!isStopped(stop));
    return nullptr;
}

} // namespace

int main()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    nelo_rpc::CDbusPort port("org.example.keeper", "org.example.climate", false, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcClient client(port);
    nelo_rpc::CCallbackDelivery delivery(port);
    client.SetTimeoutMs(2000);

    std::unique_ptr<CThermostatProxy> const thermostat = makeThermostat(client, stop);
    if (thermostat == nullptr)
    {
        return 0;
    }
    thermostat->SetTarget(TARGET);

    std::string shown;
    do
    {
        std::optional<std::string> const text = thermostat->Describe.TryCall(0);
        std::string const state = text ? "it is at " + *text : "the server is away";
        if (state != shown)
        {
            std::cout << state << std::endl;
            shown = state;
        }
    } while (!isStopped(stop));

    thermostat->Describe.TryCall(0); // so that whoever is the server now has the actor that is destroyed below
    return 0;
}
