#include "E2eTest.h"

#include <signal.h>

namespace
{

/// A server with one client that lives through everything and one that is killed.
class ClientDeath : public CE2eTest
{
protected:
    /// The survivor has lost nothing, and the server has only its object left after the next callbacks.
    void ExpectOnlyTheSurvivor()
    {
        EXPECT_TRUE(eventually(
            [&] {
                // The bus notices the death, and a callback that fails then removes the actor.
                m_serverProcess->WriteLine("fire check");
                return m_serverProcess->WaitForLine("fired") && m_serverProcess.CountObjects() == 1;
            },
            seconds(30)));
        EXPECT_EQ(11, m_survivor.Add(1));
        EXPECT_TRUE(m_serverProcess->IsRunning());
    }

    void SetUp() override { ASSERT_EQ(10, m_survivor.Add(10)); }
    void TearDown() override { m_survivor.UnsetCallbacks(); }

    CServerProcess m_serverProcess{m_name};
    CTestClient m_client{m_name};
    CProbeProxy m_survivor{m_client.Get()};
    CClientProcess m_victim{m_name};
};

} // namespace

TEST_F(ClientDeath, BeforeItsFirstCallLeavesNoTrace)
{
    m_victim->Kill();

    EXPECT_EQ(1, m_serverProcess.CountObjects());
    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, BetweenCallsCostsItsActorWithTheNextCallback)
{
    m_victim.MakeProbe();
    EXPECT_EQ(2, m_serverProcess.CountObjects());
    m_victim->Kill();
    EXPECT_EQ(2, m_serverProcess.CountObjects()) << "the server has not noticed yet";

    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, AfterACallCostsItsActorWithTheNextCallback)
{
    m_victim.MakeProbe();
    m_victim->WriteLine("add 5");
    EXPECT_TRUE(m_victim->WaitForLine("result 5"));
    m_victim->Kill();

    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, InsideACallDoesNotHarmTheServer)
{
    m_victim.MakeProbe();
    m_victim->WriteLine("block 0");
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));
    m_victim->Kill();
    m_serverProcess->WriteLine("release");

    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, InsideACallThatGoesOnToSendCallbacksDoesNotHarmTheServer)
{
    m_victim.MakeProbe();
    m_victim->WriteLine("late 50");
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));
    m_victim->Kill();

    // The object is removed by the failing callback of its own function, which is still running.
    m_serverProcess->WriteLine("release");
    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, InsideAHandlerDoesNotHarmTheServer)
{
    m_victim.MakeProbe();
    m_victim->WriteLine("hold");
    m_victim->WriteLine("add 1");
    ASSERT_TRUE(m_victim->WaitForLine("result 1"));
    m_serverProcess->WriteLine("fire x");
    ASSERT_TRUE(m_victim->WaitForLine("in handler"));
    m_victim->Kill();

    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, WhileItsActorIsBeingMadeDoesNotHarmTheServer)
{
    m_victim->WriteLine(std::string("make ") + SLOW_PROBE);
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));
    m_victim->Kill();
    m_serverProcess->WriteLine("release");
    ASSERT_TRUE(m_serverProcess->WaitForLine("made SlowProbe"));

    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, WhileItCallsWithoutAPauseDoesNotHarmTheServer)
{
    m_victim.MakeProbe();
    m_victim->WriteLine("loop");
    ASSERT_TRUE(m_victim->WaitForLine("looping"));
    m_victim->Kill();

    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, WhileCallbacksStreamToItDoesNotHarmTheServer)
{
    CInbox<std::string> events;
    m_survivor.OnEvent.Subscribe([&](std::string const& text) { events.Put(text); });
    m_victim.MakeProbe();
    m_serverProcess->WriteLine("stream");
    ASSERT_TRUE(m_victim->ReadLine()) << "the stream has reached it";
    m_victim->Kill();

    EXPECT_TRUE(eventually([&] { return m_serverProcess.CountObjects() == 1; }, seconds(30)));
    std::size_t const before = events.Count();
    EXPECT_TRUE(events.WaitForCount(before + 20)) << "the survivor's stream goes on";
    m_serverProcess->WriteLine("still");
    ASSERT_TRUE(m_serverProcess->WaitForLine("still"));
    ExpectOnlyTheSurvivor();
    m_survivor.UnsetCallbacks();
}

TEST_F(ClientDeath, AgainAndAgainLeavesNothingBehind)
{
    m_serverProcess->WriteLine("stream");
    for (int i = 0; i < 8; ++i)
    {
        CClientProcess victim(m_name);
        victim.MakeProbe();
        if (i % 2 == 0)
        {
            victim->WriteLine("loop");
        }
        ASSERT_TRUE(victim->ReadLine());
        victim->Kill();
    }
    EXPECT_TRUE(eventually([&] { return m_serverProcess.CountObjects() == 1; }, seconds(30)));
    m_serverProcess->WriteLine("still");
    ASSERT_TRUE(m_serverProcess->WaitForLine("still"));

    m_victim->Kill();
    ExpectOnlyTheSurvivor();
    EXPECT_EQ(0, m_serverProcess.Stop());
}

TEST_F(ClientDeath, DoesNotKeepTheServerFromEndingInGoodOrder)
{
    m_victim.MakeProbe();
    m_victim->WriteLine("block 0");
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));
    m_victim->Kill();
    m_serverProcess->WriteLine("release");

    EXPECT_EQ(0, m_serverProcess.Stop());
}

TEST_F(ClientDeath, ByLeavingWithoutCleaningUpIsNoCrash)
{
    m_victim.MakeProbe();
    m_serverProcess->WriteLine("stream");
    m_victim->WriteLine("loop");
    ASSERT_TRUE(m_victim->WaitForLine("looping"));
    m_victim->WriteLine("exit"); // threads that call and deliver are alive at exit
    while (m_victim->ReadLine())
    {
        // A thread that nobody reads stays in its write, with a lock that the exit may wait for.
    }
    auto const status = m_victim->Wait();
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status)) << "ended by signal " << WTERMSIG(*status);
    EXPECT_EQ(0, WEXITSTATUS(*status));
    m_serverProcess->WriteLine("still");
    ASSERT_TRUE(m_serverProcess->WaitForLine("still"));
    ExpectOnlyTheSurvivor();
}

TEST_F(ClientDeath, InGoodOrderTakesItsActorWithIt)
{
    m_victim.MakeProbe();
    EXPECT_EQ(2, m_serverProcess.CountObjects());

    EXPECT_EQ(0, m_victim.Stop());
    EXPECT_EQ(1, m_serverProcess.CountObjects());
    EXPECT_EQ(11, m_survivor.Add(1));
}
