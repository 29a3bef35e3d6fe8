#include "E2eTest.h"

#include <set>

namespace
{

class ActorLife : public CE2eTest
{
protected:
    CServerProcess m_serverProcess{m_name};
    CTestClient m_client{m_name};
};

} // namespace

TEST_F(ActorLife, BeginsWithItsProxy)
{
    EXPECT_EQ(0, m_serverProcess.CountObjects());
    CProbeProxy probe(m_client.Get());

    EXPECT_GT(probe.GetId(), 0);
    EXPECT_TRUE(m_serverProcess->WaitForLine("made Probe"));
    EXPECT_EQ(1, m_serverProcess.CountObjects());
}

TEST_F(ActorLife, EndsWithItsProxyAndWithItTheObject)
{
    {
        CProbeProxy probe(m_client.Get());
        EXPECT_EQ(1, m_serverProcess.CountObjects());
    }
    EXPECT_EQ(0, m_serverProcess.CountObjects());
}

TEST_F(ActorLife, KeepsAStateOfItsOwn)
{
    CProbeProxy first(m_client.Get());
    CProbeProxy second(m_client.Get());

    EXPECT_EQ(5, first.Add(5));
    EXPECT_EQ(1, second.Add(1));
    EXPECT_EQ(8, first.Add(3));
    EXPECT_EQ(3, second.Add(2));
}

TEST_F(ActorLife, HasAnIdThatNoOtherActorOfTheServerHas)
{
    CTestClient otherClient(m_name);
    std::set<int> ids;
    for (int i = 0; i < 5; ++i)
    {
        CProbeProxy first(m_client.Get());
        CProbeProxy second(otherClient.Get());
        ids.insert(first.GetId());
        ids.insert(second.GetId());
    }

    EXPECT_EQ(10u, ids.size());
    EXPECT_GT(*ids.begin(), 0);
}

TEST_F(ActorLife, StartsAnewAfterTheLastActorOfAClientWent)
{
    for (int i = 0; i < 10; ++i)
    {
        CProbeProxy probe(m_client.Get());
        EXPECT_EQ(i, probe.Add(i));
    }
    EXPECT_EQ(0, m_serverProcess.CountObjects());
}

TEST_F(ActorLife, CanBeTakenOverByAnAttachedProxy)
{
    auto first = std::make_unique<CProbeProxy>(m_client.Get());
    first->Add(4);
    {
        CProbeProxy second(m_client.Get(), first->GetId());
        EXPECT_EQ(first->GetId(), second.GetId());
        EXPECT_EQ(6, second.Add(2)) << "the same object";
    }
    EXPECT_EQ(0, m_serverProcess.CountObjects()) << "the attached proxy took the object with it";

    // The first proxy finds its actor made anew, and its own end is then as ever.
    EXPECT_EQ(1, first->Add(1));
    first.reset();
    EXPECT_EQ(0, m_serverProcess.CountObjects());
}

TEST_F(ActorLife, HandlersHearCallbacksInTheirOrder)
{
    CProbeProxy probe(m_client.Get());
    CInbox<int> counts;
    probe.OnCount.Subscribe([&](int n) { counts.Put(n); });

    EXPECT_EQ(500, probe.CountTo(500));
    ASSERT_TRUE(counts.WaitForCount(500));
    EXPECT_EQ(rangeOf(500), counts.All());
    probe.UnsetCallbacks();
}

TEST_F(ActorLife, HandlersHearCallbacksWhileTheCallThatSendsThemRuns)
{
    CProbeProxy probe(m_client.Get());
    CInbox<int> counts;
    probe.OnCount.Subscribe([&](int n) { counts.Put(n); });
    auto call = std::async(std::launch::async, [&] { return probe.CountAndBlock.TryCall(20); });
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));

    EXPECT_TRUE(counts.WaitForCount(20));
    EXPECT_FALSE(isReady(call, milliseconds(0)));
    EXPECT_EQ(rangeOf(20), counts.All());
    m_serverProcess->WriteLine("release");
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(20, call.get());
    probe.UnsetCallbacks();
}

TEST_F(ActorLife, HandlersHearWhatTheApplicationSendsOutsideOfCalls)
{
    CProbeProxy first(m_client.Get());
    CProbeProxy second(m_client.Get());
    CInbox<std::string> events;
    first.OnEvent.Subscribe([&](std::string const& text) { events.Put("first " + text); });
    second.OnEvent.Subscribe([&](std::string const& text) { events.Put("second " + text); });
    m_serverProcess->WriteLine("fire hello");

    ASSERT_TRUE(events.WaitForCount(2));
    auto all = events.All();
    std::sort(all.begin(), all.end());
    EXPECT_EQ((std::vector<std::string>{"first hello", "second hello"}), all);
    first.UnsetCallbacks();
    second.UnsetCallbacks();
}

TEST_F(ActorLife, HandlersAreOnlyThoseOfTheActorThatSends)
{
    CProbeProxy sender(m_client.Get());
    CProbeProxy other(m_client.Get());
    CInbox<int> counts;
    other.OnCount.Subscribe([&](int) { counts.Put(-1); });
    sender.OnCount.Subscribe([&](int n) { counts.Put(n); });
    sender.CountTo(3);

    ASSERT_TRUE(counts.WaitForCount(3));
    EXPECT_EQ(rangeOf(3), counts.All());
    sender.UnsetCallbacks();
    other.UnsetCallbacks();
}

TEST_F(ActorLife, ACallbackWithoutAHandlerIsLoggedAndDropped)
{
    CLogCapture log;
    CProbeProxy probe(m_client.Get());
    probe.CountTo(1);

    EXPECT_TRUE(log.WaitFor("CActorProxy::OnCallback Callback with name = OnCount is not registered"));
    EXPECT_EQ(2, probe.EchoInt(2));
}

TEST_F(ActorLife, AHandlerMayCallItsOwnActor)
{
    CProbeProxy probe(m_client.Get());
    CInbox<int> sums;
    probe.OnCount.Subscribe([&](int n) { sums.Put(probe.Add(n)); });
    probe.CountTo(4);

    ASSERT_TRUE(sums.WaitForCount(4));
    EXPECT_EQ((std::vector<int>{0, 1, 3, 6}), sums.All());
    probe.UnsetCallbacks();
}

TEST_F(ActorLife, AHandlerMayMakeAndDestroyAnActor)
{
    CProbeProxy probe(m_client.Get());
    CInbox<int> results;
    probe.OnCount.Subscribe([&](int n) {
        CProbeProxy temporary(m_client.Get());
        results.Put(temporary.Add(n));
    });
    probe.CountTo(3);

    ASSERT_TRUE(results.WaitForCount(3));
    EXPECT_EQ(rangeOf(3), results.All());
    probe.UnsetCallbacks();
    EXPECT_EQ(1, m_serverProcess.CountObjects());
}

TEST_F(ActorLife, AHandlerMayDestroyAnotherProxy)
{
    CProbeProxy probe(m_client.Get());
    auto other = std::make_unique<CProbeProxy>(m_client.Get());
    CGate destroyed;
    probe.OnCount.Subscribe([&](int) {
        other.reset();
        destroyed.Open();
    });
    probe.CountTo(1);

    ASSERT_TRUE(destroyed.Wait());
    EXPECT_EQ(1, m_serverProcess.CountObjects());
    probe.UnsetCallbacks();
}

TEST_F(ActorLife, AHandlerMayDestroyItsOwnProxy)
{
    auto probe = std::make_unique<CProbeProxy>(m_client.Get());
    CGate destroyed;
    probe->OnCount.Subscribe([&](int) {
        probe.reset();
        destroyed.Open();
    });
    probe->CountTo(1);

    ASSERT_TRUE(destroyed.Wait());
    EXPECT_EQ(0, m_serverProcess.CountObjects());
}

TEST_F(ActorLife, AHandlerMayReplaceItself)
{
    CProbeProxy probe(m_client.Get());
    CInbox<std::string> heard;
    probe.OnCount.Subscribe([&](int n) {
        heard.Put("first " + std::to_string(n));
        probe.OnCount.Subscribe([&](int m) { heard.Put("second " + std::to_string(m)); });
    });
    probe.CountTo(3);

    ASSERT_TRUE(heard.WaitForCount(3));
    EXPECT_EQ((std::vector<std::string>{"first 0", "second 1", "second 2"}), heard.All());
    probe.UnsetCallbacks();
}

TEST_F(ActorLife, ProxiesComeAndGoWhileCallbacksArrive)
{
    m_serverProcess->WriteLine("stream");
    CInbox<int> heard;
    CProbeProxy lasting(m_client.Get());
    lasting.OnEvent.Subscribe([&](std::string const&) { heard.Put(1); });
    for (int i = 0; i < 30; ++i)
    {
        CProbeProxy probe(m_client.Get());
        std::atomic<int> own{
            0}; // destroyed right after the proxy: a handler that still ran would be seen by a sanitizer
        probe.OnEvent.Subscribe([&](std::string const&) { ++own; });
        EXPECT_EQ(i, probe.Add(i));
        probe.UnsetCallbacks();
    }

    EXPECT_TRUE(heard.WaitForCount(20));
    m_serverProcess->WriteLine("still");
    EXPECT_TRUE(m_serverProcess->WaitForLine("still"));
    lasting.UnsetCallbacks();
}

TEST_F(ActorLife, NoHandlerRunsAfterItsProxyUnsetItsCallbacks)
{
    CProbeProxy probe(m_client.Get());
    CGate entered;
    CGate leave;
    std::atomic<int> runs{0};
    probe.OnCount.Subscribe([&](int) {
        ++runs;
        entered.Open();
        leave.Wait();
    });
    probe.CountTo(5);
    ASSERT_TRUE(entered.Wait());
    auto unset = std::async(std::launch::async, [&] { probe.UnsetCallbacks(); });

    EXPECT_FALSE(isReady(unset, milliseconds(200))) << "a handler is running";
    leave.Open();
    ASSERT_TRUE(isReady(unset));
    EXPECT_EQ(1, runs);
    EXPECT_EQ(2, probe.EchoInt(2));
    EXPECT_EQ(1, runs);
}

TEST_F(ActorLife, OfOneClientDoesNotWaitForTheCallsOfAnother)
{
    CTestClient otherClient(m_name);
    CProbeProxy blocked(m_client.Get());
    CProbeProxy free(otherClient.Get());
    auto call = std::async(std::launch::async, [&] { return blocked.CountAndBlock.TryCall(0); });
    ASSERT_TRUE(m_serverProcess->WaitForLine("blocked"));

    EXPECT_EQ(4, free.Add(4));
    EXPECT_FALSE(isReady(call, milliseconds(0)));
    m_serverProcess->WriteLine("release");
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(0, call.get());
}

TEST_F(ActorLife, OfManyClientsInParallelIsUndisturbed)
{
    constexpr int CLIENTS = 6;
    constexpr int ROUNDS = 10;
    std::vector<std::future<bool>> clients;
    for (int c = 0; c < CLIENTS; ++c)
    {
        clients.push_back(std::async(std::launch::async, [this] {
            CTestClient client(m_name);
            bool right = true;
            for (int round = 0; round < ROUNDS; ++round)
            {
                CProbeProxy probe(client.Get());
                CInbox<int> counts;
                probe.OnCount.Subscribe([&](int n) { counts.Put(n); });
                right = right && probe.Add(1) == 1 && probe.Add(1) == 2;
                right = right && probe.CountTo(10) == 10 && counts.WaitForCount(10);
                right = right && counts.All() == rangeOf(10);
                probe.UnsetCallbacks();
            }
            return right;
        }));
    }
    for (auto& client : clients)
    {
        ASSERT_TRUE(isReady(client, seconds(90)));
        EXPECT_TRUE(client.get());
    }
    EXPECT_EQ(0, m_serverProcess.CountObjects());
}

TEST_F(ActorLife, IsServedByAServerThatEndsInGoodOrder)
{
    CProbeProxy probe(m_client.Get());
    probe.Add(1);

    EXPECT_EQ(0, m_serverProcess.Stop());
}
