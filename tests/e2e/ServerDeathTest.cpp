#include "E2eTest.h"

#include <signal.h>

namespace
{

class ServerDeath : public CE2eTest
{
protected:
    /// Calls on two threads until the object goes; what comes back must be right as long as anything does.
    class CCallers
    {
    public:
        explicit CCallers(CProbeProxy& probe)
        {
            for (int t = 0; t < 2; ++t)
            {
                m_threads.push_back(std::async(std::launch::async, [this, &probe] { return Run(probe); }));
            }
        }

        ~CCallers() { m_stop = true; }

        bool WaitForResults(int count)
        {
            int const before = m_results;
            return eventually([&] { return m_results >= before + count; }, seconds(30));
        }

        bool WaitForFailures(int count)
        {
            int const before = m_failures;
            return eventually([&] { return m_failures >= before + count; }, seconds(30));
        }

        /// Whether every result was right.
        bool Stop()
        {
            m_stop = true;
            bool right = true;
            for (auto& thread : m_threads)
            {
                bool const ended = isReady(thread, seconds(40));
                EXPECT_TRUE(ended);
                right = ended && thread.get() && right;
            }
            return right;
        }

    private:
        bool Run(CProbeProxy& probe)
        {
            bool right = true;
            for (int i = 0; !m_stop; ++i)
            {
                auto const result = probe.EchoInt.TryCall(i);
                right = right && (!result || *result == i);
                ++(result ? m_results : m_failures);
                if (!result)
                {
                    std::this_thread::sleep_for(milliseconds(5)); // nobody is there: do not fill the log
                }
            }
            return right;
        }

        std::atomic<bool> m_stop{false};
        std::atomic<int> m_results{0};
        std::atomic<int> m_failures{0};
        std::vector<std::future<bool>> m_threads;
    };
};

} // namespace

TEST_F(ServerDeath, InsideACallEndsTheCallWithoutAResult)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());
    auto call = std::async(std::launch::async, [&] { return probe.CountAndBlock.TryCall(0); });
    ASSERT_TRUE(server->WaitForLine("blocked"));
    server->Kill();

    ASSERT_TRUE(isReady(call, seconds(15))) << "the default time-out is 25 seconds";
    EXPECT_EQ(std::nullopt, call.get());
}

TEST_F(ServerDeath, WhileThreadsCallLeavesTheClientAlive)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());
    CCallers callers(probe);
    EXPECT_TRUE(callers.WaitForResults(50));
    server->Kill();

    EXPECT_TRUE(callers.WaitForFailures(5));
    EXPECT_TRUE(callers.Stop());
    EXPECT_TRUE(eventually([&] { return !client.Get().IsConnected(); }));
}

TEST_F(ServerDeath, WhileCallbacksStreamLeavesTheClientAlive)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());
    CInbox<std::string> events;
    probe.OnEvent.Subscribe([&](std::string const& text) { events.Put(text); });
    server->WriteLine("stream");
    EXPECT_TRUE(events.WaitForCount(20));
    server->Kill();

    EXPECT_EQ(std::nullopt, probe.Add.TryCall(1));
    probe.UnsetCallbacks();
}

TEST_F(ServerDeath, AndItsReturnIsMetByAnActorMadeAnew)
{
    auto server = std::make_unique<CServerProcess>(m_name);
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());
    CGate recreated;
    probe.OnRecreate.Subscribe([&] { recreated.Open(); });
    EXPECT_EQ(5, probe.Add(5));
    (*server)->Kill();
    EXPECT_EQ(std::nullopt, probe.Add.TryCall(1));
    server = std::make_unique<CServerProcess>(m_name);

    EXPECT_TRUE(client.Get().IsConnected());
    EXPECT_EQ(1, probe.Add(1)) << "a new object under the old id";
    EXPECT_TRUE(recreated.Wait());
    EXPECT_EQ(1, server->CountObjects());
    probe.UnsetCallbacks();
}

TEST_F(ServerDeath, AndItsReturnUnderThreadsThatCallGoesUnnoticedButForFailures)
{
    auto server = std::make_unique<CServerProcess>(m_name);
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());
    CCallers callers(probe);
    for (int round = 0; round < 3; ++round)
    {
        EXPECT_TRUE(callers.WaitForResults(20));
        (*server)->Kill();
        EXPECT_TRUE(callers.WaitForFailures(2));
        server = std::make_unique<CServerProcess>(m_name);
    }
    EXPECT_TRUE(callers.WaitForResults(20));
    EXPECT_TRUE(callers.Stop());
}

TEST_F(ServerDeath, MakesAProxyWithoutAnActor)
{
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());

    EXPECT_EQ(0, probe.GetId());
    EXPECT_FALSE(client.Get().IsConnected());
    EXPECT_EQ(std::nullopt, probe.Add.TryCall(1));
}

TEST_F(ServerDeath, BeforeAProxyIsDestroyedDoesNotKeepItFromGoing)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    auto probe = std::make_unique<CProbeProxy>(client.Get());
    server->Kill();

    auto const start = steady_clock::now();
    probe.reset();
    EXPECT_LT(since(start), seconds(15));
}

TEST_F(ServerDeath, InGoodOrderAnswersTheCallsThatAreQueued)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());
    auto call = std::async(std::launch::async, [&] { return probe.CountAndBlock.TryCall(0); });
    ASSERT_TRUE(server->WaitForLine("blocked"));
    server->WriteLine("release");
    server->WriteLine("stop");

    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(0, call.get());
    auto const status = server->Wait(seconds(40));
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
}

TEST_F(ServerDeath, InGoodOrderWhileClientsCallEndsEveryCall)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    CTestClient otherClient(m_name);
    CProbeProxy probe(client.Get());
    CProbeProxy otherProbe(otherClient.Get());
    CCallers callers(probe);
    CCallers otherCallers(otherProbe);
    EXPECT_TRUE(callers.WaitForResults(20));
    EXPECT_TRUE(otherCallers.WaitForResults(20));

    EXPECT_EQ(0, server.Stop());
    EXPECT_TRUE(callers.WaitForFailures(2));
    EXPECT_TRUE(otherCallers.WaitForFailures(2));
    EXPECT_TRUE(callers.Stop());
    EXPECT_TRUE(otherCallers.Stop());
}

TEST_F(ServerDeath, OfItsHostAloneWhileClientsCallLeavesTheProcessAlive)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    client.Get().SetTimeoutMs(500); // nobody answers while there is no host
    CProbeProxy probe(client.Get());
    CCallers callers(probe);
    for (int round = 0; round < 3; ++round)
    {
        EXPECT_TRUE(callers.WaitForResults(10));
        server->WriteLine("drop");
        ASSERT_TRUE(server->WaitForLine("dropped"));
        EXPECT_EQ(0, server.CountObjects());
        EXPECT_TRUE(callers.WaitForFailures(1));
        server->WriteLine("host");
        ASSERT_TRUE(server->WaitForLine("ready"));
    }
    EXPECT_TRUE(callers.WaitForResults(10)) << "the actor was made anew";
    EXPECT_TRUE(callers.Stop());
    EXPECT_EQ(1, server.CountObjects());
}

TEST_F(ServerDeath, ByLeavingWithoutCleaningUpIsNoCrash)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());
    CCallers callers(probe);
    server->WriteLine("stream");
    EXPECT_TRUE(callers.WaitForResults(20));
    server->WriteLine("exit"); // the receiver, the workers, the watchdog and the publisher are alive at exit

    auto const status = server->Wait();
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFEXITED(*status)) << "ended by signal " << WTERMSIG(*status);
    EXPECT_EQ(0, WEXITSTATUS(*status));
    EXPECT_TRUE(callers.WaitForFailures(1));
    EXPECT_TRUE(callers.Stop());
}

TEST_F(ServerDeath, WithTheBusItselfEndsEveryCall)
{
    CServerProcess server(m_name);
    CTestClient client(m_name);
    CProbeProxy probe(client.Get());
    auto call = std::async(std::launch::async, [&] { return probe.CountAndBlock.TryCall(0); });
    ASSERT_TRUE(server->WaitForLine("blocked"));
    CBusOutage const outage;

    ASSERT_TRUE(isReady(call, seconds(15)));
    EXPECT_EQ(std::nullopt, call.get());
    server->WriteLine("release");
    EXPECT_EQ(0, server.Stop()) << "the server lives on without its bus";
}
