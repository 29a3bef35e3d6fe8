#include "CFakePort.h"
#include "CGate.h"
#include "CInbox.h"
#include "CLogCapture.h"
#include "CThingServer.h"
#include "Eventually.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace nelo_rpc;
using namespace std::chrono_literals;
using log::ELevel;

namespace
{
constexpr int PEER = 4;
constexpr int STAYER = 5;

constexpr char const* LEFT = "CRpcHost client of connectionId=4 has left, destroying its actors";
constexpr char const* WORKER_ENDS = "CLoopThread::Thread with id=";

SHostOptions destroying()
{
    SHostOptions options = CThingServer::ShortLimits();
    options.orphans = EOrphans::Destroy;
    return options;
}

/// A host that destroys the actors of clients that leave, with one client that stays and has an actor.
class HostOrphans : public ::testing::Test
{
protected:
    bool WaitForDestroyed(std::size_t count)
    {
        return eventually([&] { return m_server.Destroyed().size() >= count; });
    }

    void ExpectStayerServed()
    {
        EXPECT_EQ(types::toString(listOf(++m_sum)),
                  CThingServer::TextOf(*m_server.Call(STAYER, m_stayersActor, "Add", 1)));
    }

    int CountRuns(std::string const& function)
    {
        auto const events = m_server.port.Events();
        return static_cast<int>(std::count(events.begin(), events.end(), "run " + function));
    }

    CLogCapture m_log; // before the server, so that it hears of all threads
    CThingServer m_server{destroying()};
    int const m_stayersActor = m_server.Ctor(STAYER);
    int m_sum = 0;
};
} // namespace

TEST_F(HostOrphans, AreDestroyedWithTheirObjectsOnTheirWorkerWhichEnds)
{
    CClientConnection* const connection = &m_server.host->GetOrCreateClientConnection(PEER);
    m_server.Ctor(PEER);
    m_server.Ctor(PEER, "Other");
    m_server.Ctor(PEER);
    int worker = 0;
    m_server.run = [&](CThing&) { worker = static_cast<int>(::gettid()); };
    ASSERT_TRUE(m_server.Call(PEER, m_server.LastActor()->GetId(), "Run")->Wait());

    m_server.port.Leave(PEER);

    EXPECT_TRUE(m_log.WaitFor(WORKER_ENDS + std::to_string(worker) + " finishes"));
    EXPECT_EQ((std::vector<int>{2, 3}), m_server.Destroyed());
    EXPECT_EQ((std::vector<int>{worker, worker}), m_server.DestroyedOn());
    EXPECT_EQ(1, m_log.Count(LEFT));
    EXPECT_EQ(connection, &m_server.host->GetOrCreateClientConnection(PEER)) << "it keeps its entry";
    ExpectStayerServed();
}

TEST_F(HostOrphans, AreThoseOfTheClientThatLeavesAlone)
{
    m_server.Ctor(PEER);
    m_server.port.Leave(99);
    m_server.port.Leave(STAYER);

    ASSERT_TRUE(WaitForDestroyed(1));
    m_server.Ctor(PEER);
    EXPECT_EQ(std::vector<int>{1}, m_server.Destroyed());
    EXPECT_EQ(1, m_log.Count("has left"));
}

TEST_F(HostOrphans, OfAClientThatHasDestroyedItsActorsAreNoneAndLeaveNoWorker)
{
    m_server.Dtor(PEER, m_server.Ctor(PEER));
    ASSERT_TRUE(m_log.WaitFor(" finishes"));
    m_server.port.Leave(PEER);

    EXPECT_TRUE(m_log.WaitFor(" finishes", 2));
    EXPECT_EQ(std::vector<int>{2}, m_server.Destroyed());
}

TEST_F(HostOrphans, WaitForTheCallThatIsCarriedOut)
{
    int const id = m_server.Ctor(PEER);
    auto const call = m_server.Call(PEER, id, "Block");
    ASSERT_TRUE(m_server.blocked.Wait());
    m_server.port.Leave(PEER);
    EXPECT_TRUE(m_server.Destroyed().empty());
    m_server.release.Open();

    EXPECT_TRUE(WaitForDestroyed(1));
    EXPECT_EQ(1, call->Count());
    ExpectStayerServed();
}

TEST_F(HostOrphans, DoNotComeOfCallsThatAreQueuedWhenTheirClientLeaves)
{
    int const id = m_server.Ctor(PEER);
    auto const blocked = m_server.Call(PEER, id, "Block");
    ASSERT_TRUE(m_server.blocked.Wait());
    std::vector<std::shared_ptr<CFakePort::CReply>> queued;
    queued.push_back(m_server.Call(PEER, id, "Add", 1));
    queued.push_back(m_server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), PEER));
    queued.push_back(m_server.Call(PEER, 77, "Add", 1));
    m_server.port.Leave(PEER);
    m_server.release.Open();

    ASSERT_TRUE(m_log.WaitFor(" finishes"));
    for (auto const& reply : queued)
    {
        EXPECT_EQ("{}", CThingServer::TextOf(*reply));
        EXPECT_EQ(1, reply->Count());
    }
    EXPECT_EQ(0, CountRuns("Add"));
    EXPECT_EQ(2, m_server.MadeCount());
    EXPECT_EQ(std::vector<int>{2}, m_server.Destroyed());
}

TEST_F(HostOrphans, IncludeAnActorThatIsBeingMadeWhenItsClientLeaves)
{
    CGate isBeingMade;
    m_server.onSetup = [&](CActor&) {
        isBeingMade.Open();
        m_server.release.Wait();
    };
    auto const reply = m_server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), PEER);
    ASSERT_TRUE(isBeingMade.Wait());
    m_server.port.Leave(PEER);
    m_server.release.Open();

    ASSERT_TRUE(m_log.WaitFor(" finishes"));
    EXPECT_EQ(std::vector<int>{2}, m_server.Destroyed());
}

TEST_F(HostOrphans, AreLostWhenTheLastCallOfTheirClientHangs)
{
    int const id = m_server.Ctor(PEER);
    auto const hung = m_server.Call(PEER, id, "Hang");
    auto const queued = m_server.Call(PEER, 77, "Add", 1);
    ASSERT_TRUE(m_server.hang.WaitUntilEntered());
    m_server.port.SetSendResult(false); // to a client that is not there
    m_server.port.Leave(PEER);

    EXPECT_EQ("{}", CThingServer::TextOf(*hung));
    EXPECT_EQ("{}", CThingServer::TextOf(*queued));
    EXPECT_EQ(2, m_server.MadeCount());
    EXPECT_TRUE(m_server.Destroyed().empty());
    EXPECT_TRUE(eventually([&] { return m_server.hang.IsGone(); }));
    ExpectStayerServed();
    m_server.host.reset();
    EXPECT_EQ(2, m_log.Count("with 1 registered actors (should be 1)"));
}

TEST_F(HostOrphans, AreDestroyedOnceThoughCallbacksToTheirClientFailMeanwhile)
{
    m_server.Ctor(PEER);
    m_server.Ctor(PEER);
    CThing* const thing = m_server.LastThing();
    m_server.port.OnSendCallback([](types::CValueList const&, int connectionId) { return connectionId != PEER; });
    CGate isDestroying;
    CGate hasSent;
    std::atomic<bool> isFirst{true};
    m_server.onDestroy = [&](CThing&) {
        if (isFirst.exchange(false))
        {
            isDestroying.Open();
            hasSent.Wait();
        }
    };
    m_server.port.Leave(PEER);
    ASSERT_TRUE(isDestroying.Wait());
    for (int i = 0; i < 10; ++i)
    {
        thing->OnChanged.Send(i); // the second object; the worker is busy with the first one
    }
    hasSent.Open();

    ASSERT_TRUE(m_log.WaitFor(" finishes"));
    EXPECT_EQ((std::vector<int>{2, 3}), m_server.Destroyed());
    EXPECT_EQ(0, m_log.Count("runnable: remove["));
    m_server.onDestroy = {}; // what it refers to ends here
}

TEST_F(HostOrphans, DoNotKeepAHostFromEnding)
{
    int const id = m_server.Ctor(PEER);
    auto const blocked = m_server.Call(PEER, id, "Block");
    ASSERT_TRUE(m_server.blocked.Wait());
    m_server.port.Leave(PEER);
    std::thread owner([&] { m_server.host.reset(); });
    ASSERT_TRUE(m_log.WaitFor("CRpcHost::~CRpcHost"));
    m_server.release.Open();
    owner.join();

    EXPECT_EQ((std::vector<int>{2, 1}), m_server.Destroyed());
    EXPECT_FALSE(m_server.port.IsWatched());
}

TEST_F(HostOrphans, AreDestroyedForManyClientsThatComeAndGo)
{
    for (int peer = 100; peer < 150; ++peer)
    {
        m_server.Ctor(peer);
        m_server.Ctor(peer);
        m_server.port.Leave(peer);
    }
    EXPECT_TRUE(WaitForDestroyed(100));
    EXPECT_TRUE(m_log.WaitFor(" finishes", 50));
    ExpectStayerServed();
}

// Other ports and choices

TEST(HostOrphansOnALocalPort, AreDestroyedWhenTheClientsPortEnds)
{
    CInbox<int> destroyed;
    CLocalBus bus;
    CLocalPort serverPort(bus, "org.example.server", true);
    SHostOptions options;
    options.orphans = EOrphans::Destroy;
    CRpcHost const host(serverPort, options, [&](CRpcHost& self) {
        SActorType type;
        type.create = []() -> void* { return nullptr; };
        type.destroy = [&](void*) { destroyed.Put(1); };
        type.setup = [](CActor&) {};
        self.RegisterActorType("Plain", type);
    });
    {
        CLocalPort port(bus, "client", "org.example.server", false);
        EXPECT_EQ(1U, port.CallFunction(callOf(0, "CClientConnection", "ctor", std::string("Plain")), 0).count(0));
        EXPECT_EQ(0U, destroyed.Count());
    }
    EXPECT_TRUE(destroyed.WaitForCount(1));
}

TEST(HostOrphansByDefault, StayAndNobodyIsWatched)
{
    EXPECT_EQ(EOrphans::Keep, SHostOptions().orphans);
    CThingServer server;
    server.Ctor(PEER);
    EXPECT_FALSE(server.port.IsWatched());
}

TEST(HostOrphansOfAPortThatCannotTell, StayAndAnErrorLineSaysSo)
{
    CFakePort port;
    port.SetCanWatch(false);
    CLogCapture log;
    CRpcHost const host(port, destroying());

    EXPECT_EQ(std::vector<std::string>{"CRpcHost cannot watch its clients: actors of those that leave stay"},
              log.Texts(ELevel::Error));
}
