/// Testing a server and its client on a bus of the test's own: what needs a real bus, without the system's one. Here a
/// policy is tried, a server that ends, and a bus that does.

#include <nelo_rpc/nelo_rpc.h>
#include <nelo_rpc/testing/CPrivateBus.h>

#include <iostream>
#include <optional>
#include <string>

namespace
{

constexpr char const* SERVER = "org.example.counters";

class CCounter
{
public:
    int Add(int n) { return m_count += n; }

private:
    int m_count = 0;
};

void registerTypes(nelo_rpc::CRpcHost& host)
{
    host.RegisterActorType<CCounter>("Counter", [](nelo_rpc::CActor& actor, CCounter& counter) {
        actor.AddFunction("Add", counter, &CCounter::Add);
    });
}

bool g_passed = true;

void expect(char const* what, bool holds)
{
    std::cout << (holds ? "ok:     " : "FAILED: ") << what << std::endl;
    g_passed = g_passed && holds;
}

/// The bus lets everybody do everything, unless a test says otherwise.
std::string configWithPolicy()
{
    std::string config = nelo_rpc::test::CPrivateBus::GetDefaultConfig();
    std::string const policy = R"(<policy context="mandatory"><deny own="org.example.forbidden"/></policy>)";
    return config.insert(config.find("</busconfig>"), policy);
}

} // namespace

int main()
{
    nelo_rpc::test::CPrivateBus bus(configWithPolicy()); // before anything has a thread or looks for a bus
    if (!bus.IsRunning())
    {
        return 1;
    }
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Fatal); // a test run is not news for the system log

    nelo_rpc::CDbusPort clientPort("client", SERVER, false, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcClient client(clientPort);
    expect("nobody is there yet", !client.IsConnected());
    {
        nelo_rpc::CDbusPort port(SERVER, true, nelo_rpc::SPortOptions::Recommended());
        nelo_rpc::CRpcHost host(port, nelo_rpc::SHostOptions::Recommended(), &registerTypes);
        nelo_rpc::CActorProxy counter(&client, "Counter");
        nelo_rpc::CProxyFunction<int(int)> const add(counter, "Add");
        expect("a counter counts", add.TryCall(3) == 3 && add.TryCall(4) == 7);
    }
    expect("the server has gone", !client.IsConnected());

    nelo_rpc::CDbusPort forbidden("org.example.forbidden", true);
    expect("the policy keeps a name from everybody", !forbidden.IsOpen());

    bus.Kill();
    expect("without a bus nobody is there", !client.IsConnected() && !clientPort.IsOpen());
    expect("a new bus has the same address", bus.Start());
    expect("a new port finds it", nelo_rpc::CDbusPort("newcomer", false).IsOpen());
    return g_passed ? 0 : 1;
}
