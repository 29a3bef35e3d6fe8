// A test of somebody else's, with what is installed for tests.

#include <nelo_rpc/nelo_rpc.h>
#include <nelo_rpc/testing/CPrivateBus.h>
#include <nelo_rpc/testing/CScriptedServer.h>

#include <cstdio>

int main()
{
    nelo_rpc::test::CPrivateBus const bus;
    nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel, std::string const&) {});
    nelo_rpc::CDbusPort serverPort("org.example.server", true, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::test::CScriptedServer server(serverPort);
    server.Answer("Sum", [](int a, int b) { return a + b; });

    nelo_rpc::CDbusPort clientPort("org.example.client", "org.example.server", false);
    nelo_rpc::CRpcClient client(clientPort);
    nelo_rpc::CActorProxy proxy(&client, "Calculator");
    nelo_rpc::CProxyFunction<int(int, int)> const sum(proxy, "Sum");
    if (!bus.IsRunning() || sum.TryCall(40, 2) != 42)
    {
        return 1;
    }
    std::puts("consumer works");
}
