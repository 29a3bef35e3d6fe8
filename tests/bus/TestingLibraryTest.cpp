#include "BusTest.h"

#include <nelo_rpc/testing/CPrivateBus.h>
#include <nelo_rpc/testing/CScriptedServer.h>

#include <cstdlib>

// The bus of this process is a private one, so what a bus does is tried here on the facade that all tests use. These are
// about the class itself.

namespace
{

using Bus = nelo_rpc::test::CPrivateBus;

TEST(CPrivateBusOfTheLibrary, IsTheSystemBusOfItsProcess)
{
    EXPECT_EQ(CPrivateBus::Address(), std::getenv("DBUS_SYSTEM_BUS_ADDRESS"));
    EXPECT_TRUE(CDbusPort(CPrivateBus::UniqueName().c_str(), false).IsOpen());
}

TEST(CPrivateBusOfTheLibrary, SaysWhenItsDaemonDoesNotStart)
{
    std::string const before = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    Bus bus("<busconfig>nonsense");
    EXPECT_FALSE(bus.IsRunning());
    EXPECT_EQ("", bus.GetAddress());
    EXPECT_FALSE(bus.Suspend());
    EXPECT_FALSE(bus.Resume());
    EXPECT_EQ(before, std::getenv("DBUS_SYSTEM_BUS_ADDRESS"));
}

TEST(CPrivateBusOfTheLibrary, TakesAPolicyOfOnesOwn)
{
    std::string config = Bus::GetDefaultConfig();
    std::string const rule = "<policy context=\"mandatory\"><deny own=\"org.example.forbidden\"/></policy>";
    config.insert(config.find("</busconfig>"), rule);

    // In a process of its own, since this one talks to its first bus for good.
    EXPECT_EXIT(
        {
            Bus const bus(config);
            bool const isRight = bus.IsRunning() && CDbusPort("org.example.allowed", true).IsOpen() &&
                                 !CDbusPort("org.example.forbidden", true).IsOpen();
            std::_Exit(isRight ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(CPrivateBusOfTheLibrary, ComesBackAtTheSameAddressAfterACrash)
{
    std::string const address = CPrivateBus::Address();
    CDbusPort before(CPrivateBus::UniqueName().c_str(), true);
    {
        CBusOutage const outage;
        EXPECT_TRUE(eventually([&] { return !before.IsOpen(); }));
        EXPECT_FALSE(CDbusPort(CPrivateBus::UniqueName().c_str(), false).IsOpen());
    }
    EXPECT_EQ(address, CPrivateBus::Address());
    EXPECT_TRUE(CDbusPort(CPrivateBus::UniqueName().c_str(), false).IsOpen());
}

TEST(CScriptedServerOnABus, AnswersAndStaysSilentAsTheTestSays)
{
    CLogCapture const log;
    std::string const name = CPrivateBus::UniqueName();
    CDbusPort serverPort(name.c_str(), true, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::test::CScriptedServer server(serverPort);
    server.Answer("Add", [](int a, int b) { return a + b; });
    server.StaySilent("Wait");

    CDbusPort clientPort(CPrivateBus::UniqueName().c_str(), name.c_str(), false);
    nelo_rpc::CRpcClient client(clientPort);
    nelo_rpc::CActorProxy proxy(&client, "Thing");
    nelo_rpc::CProxyFunction<int(int, int)> const add(proxy, "Add");
    nelo_rpc::CProxyFunction<int()> const wait(proxy, "Wait");

    EXPECT_EQ(1, proxy.GetId());
    EXPECT_EQ(std::optional<int>(5), add.TryCall(2, 3));
    client.SetTimeoutMs(50);
    EXPECT_EQ(std::nullopt, wait.TryCall());
    client.SetTimeoutMs(-1);
    EXPECT_EQ(std::optional<int>(7), add.TryCall(3, 4));
}

} // namespace
