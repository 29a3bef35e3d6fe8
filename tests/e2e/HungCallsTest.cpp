#include "E2eTest.h"

namespace
{

/// A server that gives a call little time.
class HungCalls : public CE2eTest
{
protected:
    CServerProcess m_serverProcess{m_name, {"600", "200"}};
    CTestClient m_client{m_name};
};

} // namespace

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
