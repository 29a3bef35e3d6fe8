#include "UntrustedPeers.h"

#include <nelo_rpc/testing/CPrivateBus.h>

#include <unistd.h>

#include <cstdlib>
#include <set>

namespace
{

class CDbusPortPeers : public CBusTest
{
protected:
    CDbusPortPeers()
    {
        m_port.SetFunctionCallListener([this](CValueList const&, int id, CRpcPort::ReplyFunction const& reply) {
            m_callers.Put(id);
            reply(listOf(id));
        });
    }

    /// Lets the peer call, and gives its id.
    int Meet(CRawPeer& peer)
    {
        MessagePtr const answer = peer.Call(rawCall(m_server).get());
        EXPECT_NE(nullptr, answer);
        return m_callers.All().back();
    }

    /// Watches into the box.
    void Watch(CInbox<int>& gone)
    {
        EXPECT_TRUE(m_port.WatchPeers([&gone](int id) { gone.Put(id); }));
    }

    /// Returns when the port has handled everything that the bus sent before.
    void Settle()
    {
        CRawPeer last;
        Meet(last);
    }

    CInbox<int> m_callers;
    CInbox<int> m_gone; // what a watch fills outlives the port, too
    CInbox<int> m_goneLater;
    CDbusPort m_port{m_server.c_str(), true};
};

} // namespace

// ---- who a peer is ----

TEST_F(CDbusPortPeers, HaveTheNamesThatTheyAreSentTo)
{
    CRawPeer peer;
    EXPECT_EQ(peer.GetUniqueName(), m_port.GetPeerName(Meet(peer)));
    EXPECT_EQ("org.example.a", m_port.GetPeerName(m_port.AddConnection("org.example.a")));
}

TEST_F(CDbusPortPeers, HaveNoNameUnderAnIdThatWasNeverGiven)
{
    EXPECT_EQ("", m_port.GetPeerName(5));
    EXPECT_EQ("", m_port.GetPeerName(-1));
    EXPECT_EQ(0, m_port.AddConnection("org.example.a"));
}

TEST_F(CDbusPortPeers, AreWhoTheBusSaysTheyAre)
{
    CRawPeer peer;
    auto const credentials = m_port.GetPeerCredentials(Meet(peer));

    ASSERT_TRUE(credentials.has_value());
    EXPECT_EQ(::geteuid(), credentials->uid);
    EXPECT_EQ(::getegid(), credentials->gid);
    EXPECT_EQ(::getpid(), credentials->pid);
}

TEST_F(CDbusPortPeers, AreAskedAboutOnce)
{
    auto peer = std::make_unique<CRawPeer>();
    int const id = Meet(*peer);
    auto const first = m_port.GetPeerCredentials(id);
    ASSERT_TRUE(first.has_value());
    peer.reset();
    ASSERT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));

    auto const second = m_port.GetPeerCredentials(id); // the bus would not know any more
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ(first->pid, second->pid);
}

TEST_F(CDbusPortPeers, AreNobodyUnderAnUnknownIdOrWhenTheyWereGoneBeforeTheQuestion)
{
    EXPECT_FALSE(m_port.GetPeerCredentials(0).has_value());
    EXPECT_FALSE(m_port.GetPeerCredentials(-1).has_value());
    auto peer = std::make_unique<CRawPeer>();
    int const id = Meet(*peer);
    peer.reset();
    ASSERT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));

    EXPECT_FALSE(m_port.GetPeerCredentials(id).has_value());
}

TEST_F(CDbusPortPeers, AreAskedAboutAnewUnderAWellKnownName)
{
    std::string const name = CPrivateBus::UniqueName();
    int const id = m_port.AddConnection(name);
    EXPECT_FALSE(m_port.GetPeerCredentials(id).has_value());
    {
        CRawPeer peer;
        peer.RequestName(name);
        EXPECT_TRUE(m_port.GetPeerCredentials(id).has_value());
    }
    EXPECT_TRUE(eventually([&] { return !m_port.GetPeerCredentials(id).has_value(); }));
}

TEST_F(CDbusPortPeers, MayBeAskedAboutByTheListenerAndByOtherThreadsAtOnce)
{
    std::atomic<int> known{0};
    m_port.SetFunctionCallListener([&](CValueList const&, int id, CRpcPort::ReplyFunction const& reply) {
        known += m_port.GetPeerCredentials(id).has_value() ? 1 : 0;
        reply(listOf(id));
    });
    constexpr int PEERS = 20;
    auto const start = steady_clock::now();
    std::vector<std::unique_ptr<CRawPeer>> peers;
    std::atomic<bool> stop{false};
    std::vector<std::thread> others;
    for (int i = 0; i < 2; ++i)
    {
        others.emplace_back([&] {
            for (int id = 0; !stop; id = (id + 1) % PEERS)
            {
                m_port.GetPeerCredentials(id);
            }
        });
    }
    for (int i = 0; i < PEERS; ++i)
    {
        peers.push_back(std::make_unique<CRawPeer>());
        EXPECT_NE(nullptr, peers.back()->Call(rawCall(m_server).get()));
    }
    stop = true;
    for (std::thread& other : others)
    {
        other.join();
    }

    EXPECT_EQ(PEERS, known);
    EXPECT_LT(since(start), seconds(20));
}

TEST_F(CDbusPortPeers, MayBeAskedAboutBySynchronousPortsToo)
{
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    ASSERT_TRUE(client.GetPeerCredentials(0).has_value());
    EXPECT_EQ(::getpid(), client.GetPeerCredentials(0)->pid);

    nelo_rpc::CCallbackDelivery const delivery(client);
    ASSERT_TRUE(client.GetPeerCredentials(0).has_value());
    EXPECT_EQ(::getpid(), client.GetPeerCredentials(0)->pid);
}

// ---- peers that leave ----

TEST_F(CDbusPortPeers, ThatLeaveAreToldOfOnce)
{
    CInbox<int>& gone = m_gone;
    Watch(gone);
    auto peer = std::make_unique<CRawPeer>();
    int const id = Meet(*peer);
    EXPECT_EQ(0u, gone.Count());
    peer.reset();

    ASSERT_TRUE(gone.WaitForCount(1));
    Settle();
    auto const ids = gone.All();
    EXPECT_EQ(1, std::count(ids.begin(), ids.end(), id));
}

TEST_F(CDbusPortPeers, ThatLeaveAreToldOfUnderEachIdThatTheyWereGiven)
{
    CInbox<int>& gone = m_gone;
    Watch(gone);
    auto peer = std::make_unique<CRawPeer>();
    CRawPeer const other;
    std::string const name = peer->GetUniqueName();
    std::vector<int> ids{Meet(*peer)};
    ids.push_back(m_port.AddConnection(name));
    m_port.AddConnection(other.GetUniqueName());
    ids.push_back(m_port.AddConnection(name));
    peer.reset();

    ASSERT_TRUE(gone.WaitForCount(ids.size()));
    EXPECT_EQ(ids, gone.All());
}

TEST_F(CDbusPortPeers, ThatLeaveAreToldOfOnTheReceiverThread)
{
    CInbox<std::thread::id> threads;
    m_port.SetFunctionCallListener([&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
        threads.Put(std::this_thread::get_id());
        reply({});
    });
    m_port.WatchPeers([&](int) { threads.Put(std::this_thread::get_id()); });
    {
        CRawPeer peer;
        peer.Call(rawCall(m_server).get());
    }

    ASSERT_TRUE(threads.WaitForCount(2));
    EXPECT_EQ(threads.All()[0], threads.All()[1]);
}

TEST_F(CDbusPortPeers, ThatLeftBeforeTheWatchAreToldOf)
{
    int id = -1;
    {
        CRawPeer peer;
        id = Meet(peer);
    }
    ASSERT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));
    CInbox<int>& gone = m_gone;
    Watch(gone);

    ASSERT_TRUE(gone.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{id}, gone.All());
}

TEST_F(CDbusPortPeers, ThatLeftBeforeTheWatchAndAreHeardOfAfterItAreToldOf)
{
    // The call is in the port's queue while the watch begins, behind a listener that holds the receiver up.
    CGate entered;
    CGate leave;
    CInbox<int> ids;
    m_port.SetFunctionCallListener([&](CValueList const&, int id, CRpcPort::ReplyFunction const&) {
        ids.Put(id);
        entered.Open();
        leave.Wait();
    });
    CRawPeer first;
    first.Send(rawCall(m_server).get());
    ASSERT_TRUE(entered.Wait());
    std::string name;
    {
        CRawPeer second;
        name = second.GetUniqueName();
        second.Send(rawCall(m_server).get());
    }
    ASSERT_TRUE(eventually([&] { return first.OwnerOf(name).empty(); }));
    CInbox<int>& gone = m_gone;
    Watch(gone);
    leave.Open();

    ASSERT_TRUE(gone.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{1}, gone.All());
    EXPECT_EQ(name, m_port.GetPeerName(1));
    EXPECT_EQ((std::vector<int>{0, 1}), ids.All());
}

TEST_F(CDbusPortPeers, ThatCallAndLeaveAtOnceAreToldOf)
{
    CInbox<int>& gone = m_gone;
    Watch(gone);
    constexpr int PEERS = 30;
    for (int i = 0; i < PEERS; ++i)
    {
        CRawPeer peer;
        peer.Send(rawCall(m_server).get());
    }

    ASSERT_TRUE(m_callers.WaitForCount(PEERS));
    ASSERT_TRUE(gone.WaitForCount(PEERS));
    auto const ids = gone.All();
    EXPECT_EQ(static_cast<std::size_t>(PEERS), std::set<int>(ids.begin(), ids.end()).size());
}

TEST_F(CDbusPortPeers, ThatWereAddedAfterTheyHadLeftAreToldOf)
{
    CInbox<int>& gone = m_gone;
    Watch(gone);
    std::string name;
    {
        CRawPeer peer;
        name = peer.GetUniqueName();
    }
    CRawPeer other;
    ASSERT_TRUE(eventually([&] { return other.OwnerOf(name).empty(); }));
    int const id = m_port.AddConnection(name);

    ASSERT_TRUE(gone.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{id}, gone.All());
}

TEST_F(CDbusPortPeers, ThatAreNotKnownOrKnownByAWellKnownNameAreNotToldOf)
{
    std::string const name = CPrivateBus::UniqueName();
    m_port.AddConnection(name);
    CInbox<int>& gone = m_gone;
    Watch(gone);
    {
        CRawPeer stranger;
        stranger.RequestName(name);
    }
    auto peer = std::make_unique<CRawPeer>();
    int const id = Meet(*peer);
    peer.reset();

    ASSERT_TRUE(gone.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{id}, gone.All());
}

TEST_F(CDbusPortPeers, AreNotToldOfAfterTheWatchHasEnded)
{
    CInbox<int>& gone = m_gone;
    Watch(gone);
    auto peer = std::make_unique<CRawPeer>();
    int const id = Meet(*peer);
    EXPECT_TRUE(m_port.WatchPeers({}));
    peer.reset();
    ASSERT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));
    Settle();
    EXPECT_EQ(0u, gone.Count());

    CInbox<int>& goneLater = m_goneLater;
    Watch(goneLater); // begins with those that left meanwhile
    EXPECT_TRUE(eventually([&] {
        auto const ids = goneLater.All();
        return std::count(ids.begin(), ids.end(), id) == 1;
    }));
}

TEST_F(CDbusPortPeers, AreNotToldOfTwiceWhenAWatchReplacesAnother)
{
    CInbox<int>& gone = m_gone;
    Watch(gone);
    auto peer = std::make_unique<CRawPeer>();
    Meet(*peer);
    peer.reset();
    ASSERT_TRUE(gone.WaitForCount(1));
    CInbox<int>& goneLater = m_goneLater;
    Watch(goneLater);
    auto another = std::make_unique<CRawPeer>();
    int const id = Meet(*another);
    another.reset();

    ASSERT_TRUE(goneLater.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{id}, goneLater.All());
}

TEST_F(CDbusPortPeers, MayBeSentToAndTheWatchEndedByWhoIsTold)
{
    CGate told;
    m_port.WatchPeers([&](int id) {
        EXPECT_FALSE(m_port.SendCallback(listOf(1), id));
        EXPECT_TRUE(m_port.WatchPeers({}));
        told.Open();
    });
    {
        CRawPeer peer;
        Meet(peer);
    }

    EXPECT_TRUE(told.Wait());
    Settle();
}

TEST_F(CDbusPortPeers, LeaveNoLineOfIgnoredMessages)
{
    CInbox<int>& gone = m_gone;
    Settle(); // the bus has told the port of its own name
    CLogCapture log;
    Watch(gone);
    {
        CRawPeer peer;
        Meet(peer);
    }
    ASSERT_TRUE(gone.WaitForCount(2));
    m_port.WatchPeers({});
    Settle();

    EXPECT_EQ(0, log.Count("ignoring message from org.freedesktop.DBus"));
}

TEST_F(CDbusPortPeers, CannotSpeakForTheBus)
{
    CInbox<int>& gone = m_gone;
    Watch(gone);
    CRawPeer victim;
    int const id = Meet(victim);
    CRawPeer liar;
    MessagePtr const signal(dbus_message_new_signal(DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "NameOwnerChanged"));
    std::string const name = victim.GetUniqueName();
    char const* const owner = name.c_str();
    char const* const nobody = "";
    dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, &owner, DBUS_TYPE_STRING, &owner, DBUS_TYPE_STRING,
                             &nobody, DBUS_TYPE_INVALID);
    dbus_message_set_destination(signal.get(), m_server.c_str());
    liar.Send(signal.get());
    Meet(liar);

    EXPECT_TRUE(m_port.IsConnected(id));
    EXPECT_EQ(0u, gone.Count());
}

TEST_F(CDbusPortPeers, AreNotWatchedByAPortThatNothingReads)
{
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    EXPECT_FALSE(client.WatchPeers([](int) {}));

    CDbusPort nameless("not a name", true);
    EXPECT_FALSE(nameless.WatchPeers([](int) {}));
}

TEST_F(CDbusPortPeers, AreWatchedWithoutWaitingForTheBus)
{
    CInbox<int>& gone = m_gone;
    auto peer = std::make_unique<CRawPeer>();
    int const id = Meet(*peer);

    {
        CBusPause const pause;
        auto const before = std::chrono::steady_clock::now();
        Watch(gone);
        EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(10)); // the bus library's is 25
    }
    peer.reset();
    ASSERT_TRUE(gone.WaitForCount(1));
    EXPECT_EQ(id, gone.All().front());
}

TEST(CDbusPortPeersOfAStrictBus, AreNotWatchedWithAnErrorLineThatSaysWhy)
{
    std::string config = nelo_rpc::test::CPrivateBus::GetDefaultConfig();
    config.insert(config.find("</busconfig>"), "<limit name=\"max_match_rules_per_connection\">0</limit>");

    // In a process of its own, since this one talks to its first bus for good.
    EXPECT_EXIT(
        {
            CLogCapture const log;
            nelo_rpc::test::CPrivateBus const bus(config);
            CDbusPort server("org.example.strict", true, nelo_rpc::SPortOptions::Recommended());
            server.SetFunctionCallListener(
                [](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { reply({}); });
            bool const isWatching = server.WatchPeers([](int) {});
            auto const isSaid = [&](int times) {
                return eventually([&] {
                    return countLinesThatBegin(log, ELevel::Error, "CDbusPort::WatchPeers failed: Connection ") >=
                           times;
                });
            };
            bool const isSaidOfEach = isSaid(1) && server.WatchPeers([](int) {}) && isSaid(2);
            CRawPeer peer;
            bool const isServing = peer.Call(rawCall("org.example.strict").get()) != nullptr;
            std::_Exit(isWatching && isSaidOfEach && isServing ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(CDbusPortPeers, AreNotWatchedWithoutABus)
{
    CBusOutage const outage;
    ASSERT_TRUE(eventually([this] { return !m_port.IsOpen(); }));
    CLogCapture log;

    EXPECT_FALSE(m_port.WatchPeers([](int) {}));
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "CDbusPort::WatchPeers failed: "));
    EXPECT_FALSE(m_port.GetPeerCredentials(0).has_value());
}

TEST_F(CDbusPortPeers, AreNotAskedForByAPortThatDoesNotWatchThem)
{
    Settle();
    CLogCapture log;
    Settle();
    Settle();

    EXPECT_EQ(0, log.Count("ignoring message from org.freedesktop.DBus"));
}
