#include "E2eTest.h"

#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

/// A server with all that is recommended, and clients that are killed or do not know what they do.

namespace
{

class RecommendedHost : public CE2eTest
{
protected:
    void SetUp() override { ASSERT_EQ(10, m_survivor.Add(10)); }
    void TearDown() override
    {
        EXPECT_EQ(11, m_survivor.Add(1)) << "the other client has lost nothing";
        m_survivor.UnsetCallbacks();
    }

    /// Waits until the server has only the survivor's object left, without sending anything. @return how long it took.
    milliseconds WaitForTheSurvivorsObjectAlone()
    {
        auto const start = steady_clock::now();
        EXPECT_TRUE(eventually([&] { return m_serverProcess.CountObjects() == 1; }));
        return since(start);
    }

    std::size_t CountThreads()
    {
        std::filesystem::directory_iterator const tasks("/proc/" + std::to_string(m_serverProcess->GetPid()) + "/task");
        return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
    }

    CServerProcess m_serverProcess{m_name, {"1500", "250", "0", "recommended"}};
    CTestClient m_client{m_name};
    CProbeProxy m_survivor{m_client.Get()};
};

/// A proxy of a later version, as it were.
class CNewerProbeProxy : public CProbeProxy
{
public:
    using CProbeProxy::CProbeProxy;

    nelo_rpc::CProxyFunction<int(std::string)> AddText{*this, "Add"};
    nelo_rpc::CProxyFunction<int(int)> Multiply{*this, "Multiply"};
};

} // namespace

TEST_F(RecommendedHost, DestroysTheActorOfAKilledClientWithinASecond)
{
    CClientProcess victim(m_name);
    victim.MakeProbe();
    EXPECT_EQ(2, m_serverProcess.CountObjects());
    victim->Kill();

    EXPECT_GT(seconds(1), WaitForTheSurvivorsObjectAlone());
}

TEST_F(RecommendedHost, DestroysTheActorOfAClientThatIsKilledDuringACallAfterTheCall)
{
    CClientProcess victim(m_name);
    victim.MakeProbe();
    victim->WriteLine("block 0");
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));
    victim->Kill();
    EXPECT_EQ(2, m_serverProcess.CountObjects()) << "its function is running";
    m_serverProcess->WriteLine("release");

    EXPECT_GT(seconds(1), WaitForTheSurvivorsObjectAlone());
}

TEST_F(RecommendedHost, DestroysTheActorOfAClientThatIsKilledWhileItsActorIsBeingMade)
{
    CClientProcess victim(m_name);
    victim->WriteLine(std::string("make ") + SLOW_PROBE);
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));
    victim->Kill();
    m_serverProcess->WriteLine("release");
    ASSERT_TRUE(m_serverProcess->WaitForLine("made SlowProbe"));

    WaitForTheSurvivorsObjectAlone();
}

TEST_F(RecommendedHost, DestroysTheActorOfAClientThatIsKilledWhileCallbacksStreamToIt)
{
    CClientProcess victim(m_name);
    victim.MakeProbe();
    m_serverProcess->WriteLine("stream");
    ASSERT_TRUE(victim->ReadLine());
    victim->Kill();

    WaitForTheSurvivorsObjectAlone();
    m_serverProcess->WriteLine("still");
    ASSERT_TRUE(m_serverProcess->WaitForLine("still"));
}

TEST_F(RecommendedHost, KillsTheHungCallOfAClientThatIsGoneAndItsWorkerEnds)
{
    std::size_t const threads = CountThreads();
    CClientProcess victim(m_name);
    victim.MakeProbe();
    victim->WriteLine("sleep");
    ASSERT_TRUE(m_serverProcess->WaitForLine("hanging"));
    EXPECT_EQ(threads + 1, CountThreads());
    victim->Kill();

    EXPECT_TRUE(eventually([&] { return CountThreads() == threads; }, seconds(20)));
}

TEST_F(RecommendedHost, KeepsNothingOfClientsThatCallAndAreKilledAgainAndAgain)
{
    std::size_t const threads = CountThreads();
    for (int i = 0; i < 6; ++i)
    {
        CClientProcess victim(m_name);
        victim.MakeProbe();
        victim->WriteLine("loop");
        ASSERT_TRUE(victim->WaitForLine("looping"));
        victim->Kill();
    }
    WaitForTheSurvivorsObjectAlone();
    EXPECT_TRUE(eventually([&] { return CountThreads() == threads; }));
}

TEST_F(RecommendedHost, OutlivesAClientThatDestroysAnActorThatAKillHasTaken)
{
    CTestClient client(m_name);
    {
        CProbeProxy probe(client.Get());
        probe.Hang();
    }
    CProbeProxy next(client.Get());
    EXPECT_EQ(1, next.Add(1));
    next.UnsetCallbacks();
}

TEST_F(RecommendedHost, OutlivesClientsOfAnotherVersion)
{
    CLogCapture log;
    CNewerProbeProxy newer(m_client.Get());
    EXPECT_EQ(std::nullopt, newer.Multiply.TryCall(5));
    EXPECT_EQ(std::nullopt, newer.AddText.TryCall("5"));
    CProbeProxy unknown(m_client.Get(), "NewerProbe");
    EXPECT_EQ(0, unknown.GetId());

    EXPECT_EQ(1, log.Count("Dbus error: Probe has no function Multiply"));
    EXPECT_EQ(1, log.Count("Dbus error: argument 0 of Add has another type than the function takes"));
    EXPECT_EQ(1, log.Count("Dbus error: unknown type NewerProbe"));
    EXPECT_EQ(5, newer.Add(5));
    newer.UnsetCallbacks();
}

TEST_F(RecommendedHost, EndsInGoodOrderWithClientsThatAreGoneAndOnesThatAreThere)
{
    CServerProcess server(m_name + ".other", {"1500", "250", "0", "recommended"});
    CClientProcess stays(m_name + ".other");
    stays.MakeProbe();
    CClientProcess victim(m_name + ".other");
    victim.MakeProbe();
    victim->Kill();

    EXPECT_EQ(0, server.Stop());
}

// ---- for one user only ----

TEST(HostForItsOwnUser, ServesAClientOfThatUser)
{
    std::string const name = CPrivateBus::UniqueName();
    CServerProcess server(name, {"own"});
    CClientProcess client(name);
    client.MakeProbe();

    client->WriteLine("add 5");
    EXPECT_TRUE(client->WaitForLine("result 5"));
}

TEST(HostForItsOwnUser, RefusesAClientOfAnotherUser)
{
    if (::geteuid() != 0)
    {
        // The client must be of another user than the server, and an unprivileged user cannot start such a process.
        GTEST_SKIP() << "only root can start a client of another user";
    }
    std::string const name = CPrivateBus::UniqueName();
    CServerProcess server(name, {"own"});
    CChildProcess client({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                          NELO_RPC_E2E_DIR "/ClientProgram", CPrivateBus::UniqueName(), name});
    ASSERT_TRUE(client.WaitForLine("ready"));
    client.WriteLine(std::string("make ") + PROBE);

    EXPECT_TRUE(client.WaitForLine("made 0"));
    EXPECT_EQ(0, server.CountObjects());
    EXPECT_TRUE(server->IsRunning());
}
