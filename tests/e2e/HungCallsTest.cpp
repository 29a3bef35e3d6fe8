#include "E2eTest.h"

#include <functional>

namespace
{

/// A server that gives a call little time.
class HungCalls : public CE2eTest
{
protected:
    CServerProcess m_serverProcess{m_name, {"600", "200"}};
    CTestClient m_client{m_name};
};

/// A server that kills at cancellation points.
class HungObjects : public CE2eTest
{
protected:
    /// What a client sees of a kill, whatever hung: an empty reply that came with the kill, OnKill, and then a new actor
    /// that answers.
    void ExpectAKill(std::function<nelo_rpc::types::CValueList()> const& call)
    {
        CProbeProxy probe(m_client.Get());
        CGate recreated;
        CGate killed;
        probe.OnRecreate.Subscribe([&] { recreated.Open(); });
        nelo_rpc::CProxyCallback<> onKill(*m_client.Get().GetConnectionProxy(), "OnKill");
        onKill.Subscribe([&] { killed.Open(); });
        EXPECT_EQ(5, probe.Add(5));
        auto const start = steady_clock::now();

        EXPECT_TRUE(call().empty());

        EXPECT_LT(since(start), seconds(15));
        EXPECT_TRUE(killed.Wait());
        EXPECT_FALSE(recreated.IsOpen());
        EXPECT_EQ(1, probe.Add(1));
        EXPECT_TRUE(recreated.Wait());
        EXPECT_EQ(3, probe.Add(2));
        onKill.Subscribe([] {});
        probe.UnsetCallbacks();
    }

    nelo_rpc::types::CValueList CallConnection(char const* function, nelo_rpc::types::CValueList const& arguments)
    {
        return m_client.Get().CallFunction("CClientConnection", 0, function, arguments);
    }

    CServerProcess m_serverProcess{m_name, {"600", "200", "0", "point"}};
    CTestClient m_client{m_name};
};

/// The same, for each place that a function can hang in.
class HungFunctions : public HungObjects, public ::testing::WithParamInterface<char const*>
{
};

nelo_rpc::types::CValueList listOf(std::shared_ptr<nelo_rpc::types::CValue> value)
{
    nelo_rpc::types::CValueList list;
    list[0] = std::move(value);
    return list;
}

} // namespace

TEST_F(HungObjects, AreGivenUpInTheirConstruction)
{
    ExpectAKill(
        [&] { return CallConnection("ctor", listOf(nelo_rpc::types::packValue<std::string>("HangIn:create"))); });
    EXPECT_EQ(0, m_serverProcess.Stop());
}

TEST_F(HungObjects, AreGivenUpInTheSetupOfTheirActor)
{
    ExpectAKill(
        [&] { return CallConnection("ctor", listOf(nelo_rpc::types::packValue<std::string>("HangIn:setup"))); });
    EXPECT_EQ(0, m_serverProcess.Stop());
}

TEST_F(HungObjects, AreGivenUpInTheirDestruction)
{
    auto const made = CallConnection("ctor", listOf(nelo_rpc::types::packValue<std::string>("HangIn:destroy")));
    int const id = nelo_rpc::types::unpackAt<int>(made, 0);
    ExpectAKill([&] { return CallConnection("dtor", listOf(nelo_rpc::types::packValue<int>(id))); });
    EXPECT_EQ(0, m_serverProcess.Stop());
}

TEST_P(HungFunctions, EndAndTheServerEndsInGoodOrder)
{
    CProbeProxy hanging(m_client.Get());
    ExpectAKill(
        [&] { return hanging.RemoteCall("HangIn", listOf(nelo_rpc::types::packValue<std::string>(GetParam()))); });
    hanging.Add(1); // or there is nothing to destroy

    EXPECT_EQ(0, m_serverProcess.Stop());
}

INSTANTIATE_TEST_SUITE_P(In, HungFunctions,
                         ::testing::Values("sleep", "condition", "mutex", "read", "allocation", "computation", "send",
                                           "log"),
                         [](auto const& place) { return std::string(place.param); });

TEST_F(HungCalls, EndWithoutAResult)
{
    CProbeProxy probe(m_client.Get());
    auto const start = steady_clock::now();

    EXPECT_EQ(std::nullopt, probe.Hang.TryCall());
    EXPECT_LT(since(start), seconds(15)) << "the server answers; the default time-out is 25 seconds";
    EXPECT_GE(since(start), milliseconds(350));
}

TEST_F(HungCalls, GiveTheDefaultOfTheirType)
{
    CProbeProxy probe(m_client.Get());

    EXPECT_EQ(0, probe.Hang());
}

TEST_F(HungCalls, AreReportedToTheClient)
{
    CProbeProxy probe(m_client.Get());
    CGate killed;
    nelo_rpc::CProxyCallback<>(*m_client.Get().GetConnectionProxy(), "OnKill").Subscribe([&] { killed.Open(); });
    probe.Hang();

    EXPECT_TRUE(killed.Wait());
}

TEST_F(HungCalls, LoseTheStateAndHaveTheActorMadeAnewByTheNextCall)
{
    CProbeProxy probe(m_client.Get());
    CGate recreated;
    probe.OnRecreate.Subscribe([&] { recreated.Open(); });
    EXPECT_EQ(5, probe.Add(5));
    probe.Hang();
    EXPECT_FALSE(recreated.IsOpen());

    EXPECT_EQ(1, probe.Add(1)) << "a new object";
    EXPECT_TRUE(recreated.Wait());
    EXPECT_EQ(3, probe.Add(2)) << "and no other after it";
    probe.UnsetCallbacks();
}

TEST_F(HungCalls, DoNotDestroyTheObjectThatMayStillBeInUse)
{
    auto probe = std::make_unique<CProbeProxy>(m_client.Get());
    probe->Hang();

    EXPECT_EQ(1, m_serverProcess.CountObjects());
    probe->Add(1);
    EXPECT_EQ(2, m_serverProcess.CountObjects()) << "the new one beside it";
    probe.reset();
    EXPECT_EQ(1, m_serverProcess.CountObjects());
}

TEST_F(HungCalls, AreKilledWithoutACancellationPointToo)
{
    CProbeProxy probe(m_client.Get());

    EXPECT_EQ(std::nullopt, probe.Spin.TryCall());
    EXPECT_EQ(1, probe.Add(1));
}

TEST_F(HungCalls, AreKilledBetweenTheCallbacksThatTheySend)
{
    // Inside a callback's sending the worker holds locks of the library and of the bus library.
    CProbeProxy probe(m_client.Get());
    CTestClient otherClient(m_name);
    CProbeProxy other(otherClient.Get());
    for (int i = 1; i <= 3; ++i)
    {
        std::atomic<int> received{0};
        probe.OnCount.Subscribe([&](int) { ++received; });
        EXPECT_EQ(std::nullopt, probe.Flood.TryCall());
        EXPECT_GT(received, 0);
        probe.OnCount.Subscribe([](int) {});
        EXPECT_EQ(1, probe.Add(1));
        EXPECT_EQ(i, other.Add(1)) << "no lock was left held";
    }
}

TEST_F(HungCalls, CostTheOtherActorsOfTheirClientTheirStateToo)
{
    CProbeProxy hanging(m_client.Get());
    CProbeProxy other(m_client.Get());
    CGate recreated;
    other.OnRecreate.Subscribe([&] { recreated.Open(); });
    EXPECT_EQ(7, other.Add(7));
    hanging.Hang();

    EXPECT_EQ(1, other.Add(1));
    EXPECT_TRUE(recreated.Wait());
    other.UnsetCallbacks();
}

TEST_F(HungCalls, LeaveOtherClientsAlone)
{
    CTestClient otherClient(m_name);
    CProbeProxy other(otherClient.Get());
    CProbeProxy hanging(m_client.Get());
    EXPECT_EQ(7, other.Add(7));
    auto hung = std::async(std::launch::async, [&] { return hanging.Hang.TryCall(); });
    ASSERT_TRUE(m_serverProcess->WaitForLine("hanging"));

    EXPECT_EQ(8, other.Add(1)) << "while the other hangs";
    ASSERT_TRUE(isReady(hung));
    EXPECT_EQ(std::nullopt, hung.get());
    EXPECT_EQ(9, other.Add(1)) << "and after";
}

TEST_F(HungCalls, MayComeAgainAndAgain)
{
    CProbeProxy probe(m_client.Get());
    for (int i = 0; i < 4; ++i)
    {
        EXPECT_EQ(std::nullopt, i % 2 == 0 ? probe.Hang.TryCall() : probe.Spin.TryCall());
        EXPECT_EQ(1, probe.Add(1));
    }
}

TEST_F(HungCalls, OfSeveralClientsAtOnceAreAllKilled)
{
    CTestClient second(m_name);
    CTestClient third(m_name);
    std::vector<std::future<bool>> clients;
    for (CTestClient* client : {&m_client, &second, &third})
    {
        clients.push_back(std::async(std::launch::async, [client] {
            CProbeProxy probe(client->Get());
            return !probe.Hang.TryCall() && probe.Add(2) == 2;
        }));
    }
    for (auto& client : clients)
    {
        ASSERT_TRUE(isReady(client, seconds(60)));
        EXPECT_TRUE(client.get());
    }
}

TEST_F(HungCalls, WhoseProxyIsDestroyedAfterwardsLeaveTheServerAlive)
{
    {
        CProbeProxy probe(m_client.Get());
        probe.Hang();
        probe.Add(1);
    }
    CProbeProxy next(m_client.Get());
    EXPECT_EQ(2, next.Add(2));
}

TEST_F(HungCalls, AreWaitedForByAServerThatEnds)
{
    CProbeProxy probe(m_client.Get());
    auto hung = std::async(std::launch::async, [&] { return probe.Hang.TryCall(); });
    ASSERT_TRUE(m_serverProcess->WaitForLine("hanging"));

    EXPECT_EQ(0, m_serverProcess.Stop());
    ASSERT_TRUE(isReady(hung));
    EXPECT_EQ(std::nullopt, hung.get());
}

TEST_F(HungCalls, AreForgottenWhenTheClientIsGone)
{
    CClientProcess client(m_name);
    client.MakeProbe();
    client->WriteLine("block 0");
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));
    client->Kill();

    // The server kills the blocked call in its own time and has nobody to tell.
    CProbeProxy probe(m_client.Get());
    EXPECT_EQ(std::nullopt, probe.Hang.TryCall());
    EXPECT_EQ(1, probe.Add(1));
}
