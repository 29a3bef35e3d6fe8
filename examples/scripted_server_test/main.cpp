/// Testing code that calls a server, without that server: a scripted one answers, refuses, stays silent and sends
/// callbacks as the test says. Everything runs in this process, without a bus.

#include <nelo_rpc/nelo_rpc.h>
#include <nelo_rpc/testing/CScriptedServer.h>

#include <chrono>
#include <future>
#include <iostream>
#include <string>

namespace
{

class CThermostatProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThermostatProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thermostat") {}

    nelo_rpc::CProxyFunction<bool(double)> SetTarget{*this, "SetTarget"};
    nelo_rpc::CProxyCallback<double, std::string> OnChanged{*this, "OnChanged"};
};

/// The code under test: an application's class that uses a thermostat, and has to live with one that fails.
class CNightMode
{
public:
    explicit CNightMode(nelo_rpc::CRpcClient& client) : m_thermostat(client)
    {
        m_thermostat.OnChanged.Subscribe([this](double celsius, std::string const&) { m_seen.set_value(celsius); });
    }
    ~CNightMode() { m_thermostat.UnsetCallbacks(); } // the handler uses a member
    CNightMode(CNightMode const&) = delete;
    CNightMode& operator=(CNightMode const&) = delete;

    std::string Enter()
    {
        auto const accepted = m_thermostat.SetTarget.TryCall(16.0);
        if (!accepted)
        {
            return "no answer";
        }
        return *accepted ? "night" : "not now";
    }

    int GetActorId() { return m_thermostat.GetId(); }
    std::future<double> GetSeen() { return m_seen.get_future(); }

private:
    CThermostatProxy m_thermostat;
    std::promise<double> m_seen;
};

bool g_passed = true;

template <class T>
void expectEqual(char const* what, T const& expected, T const& seen)
{
    bool const same = expected == seen;
    std::cout << (same ? "ok:     " : "FAILED: ") << what << ": expected " << expected << ", saw " << seen << std::endl;
    g_passed = g_passed && same;
}

} // namespace

int main()
{
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Fatal); // a test run is not news for the system log

    nelo_rpc::CLocalBus bus;
    nelo_rpc::CLocalPort serverPort(bus, "org.example.climate", true);
    nelo_rpc::test::CScriptedServer server(serverPort);
    nelo_rpc::CLocalPort clientPort(bus, "client", "org.example.climate", false);
    nelo_rpc::CRpcClient client(clientPort);
    {
        CNightMode mode(client);

        server.Answer("SetTarget", [](double celsius) { return celsius < 18.0; });
        expectEqual("the thermostat accepts", std::string("night"), mode.Enter());
        auto const calls = server.GetCalls("SetTarget");
        expectEqual("the temperature of the night", 16.0, nelo_rpc::types::unpackAt<double>(calls.at(0).args, 0));

        server.Answer("SetTarget", [](double) { return false; });
        expectEqual("the thermostat does not accept", std::string("not now"), mode.Enter());

        server.Refuse("SetTarget", nelo_rpc::refusal::ACCESS_DENIED, "not you");
        expectEqual("the server refuses the call", std::string("no answer"), mode.Enter());

        client.SetTimeoutMs(50);
        server.StaySilent("SetTarget");
        expectEqual("the server does not answer", std::string("no answer"), mode.Enter());
        client.SetTimeoutMs(-1);

        std::future<double> seen = mode.GetSeen();
        server.Send(mode.GetActorId(), "OnChanged", 17.5, std::string("somebody turned the knob"));
        bool const came = seen.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        expectEqual("the callback arrives", 17.5, came ? seen.get() : 0.0);
    }
    expectEqual("no actor is left", std::size_t(0), server.GetActorIds().size());

    clientPort.SetCallbackListener({}); // before the client goes: the port goes on delivering
    return g_passed ? 0 : 1;
}
