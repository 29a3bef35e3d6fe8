#include "BusTest.h"

#include <atomic>

namespace
{

/// A server's port that remembers its peers.
class CDbusPortRemember : public CBusTest
{
protected:
    static nelo_rpc::SPortOptions Remembering()
    {
        nelo_rpc::SPortOptions options;
        options.rememberPeers = true;
        return options;
    }

    /// The port knows of nobody before the bus has said that it is told of those that leave.
    void SetUp() override { ASSERT_NE(nullptr, m_asker.Call(rawCall(m_server, "/elsewhere").get())); }

    int Add(CRawPeer const& peer) { return m_port.AddConnection(peer.GetUniqueName()); }

    CDbusPort m_port{m_server.c_str(), true, Remembering()};
    CRawPeer m_asker;
};

} // namespace

TEST_F(CDbusPortRemember, AsksTheBusOnceAboutAPeer)
{
    CRawPeer peer;
    int const id = Add(peer);
    EXPECT_TRUE(m_port.SendCallback(listOf(1), id));
    {
        CBusPause const pause; // a question would have no answer
        auto const start = steady_clock::now();
        EXPECT_TRUE(m_port.IsConnected(id));
        EXPECT_TRUE(m_port.SendCallback(listOf(2), id));
        EXPECT_LT(since(start), seconds(10));
    }

    MessagePtr const first = peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
    MessagePtr const second = peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ("0 0 1", describeBody(first.get()));
    EXPECT_EQ("0 0 2", describeBody(second.get()));
}

TEST_F(CDbusPortRemember, HearsOfAPeerThatLeaves)
{
    auto peer = std::make_unique<CRawPeer>();
    std::string const name = peer->GetUniqueName();
    int const id = Add(*peer);
    ASSERT_TRUE(m_port.IsConnected(id));
    peer.reset();

    EXPECT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));
    CLogCapture log;
    EXPECT_FALSE(m_port.SendCallback(listOf(1), id));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::IsConnected returns false"));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SendCallback failed, can't connect to " + name));
}

TEST_F(CDbusPortRemember, AsksEachTimeUntilItHearsOfThoseThatLeave)
{
    nelo_rpc::SPortOptions options = Remembering();
    options.waitForListener = true;
    CDbusPort port(m_client.c_str(), true, options); // reads nothing
    auto peer = std::make_unique<CRawPeer>();
    int const id = port.AddConnection(peer->GetUniqueName());
    EXPECT_TRUE(port.IsConnected(id));
    peer.reset();

    EXPECT_TRUE(eventually([&] { return !port.IsConnected(id); }));
    EXPECT_FALSE(port.SendCallback(listOf(1), id));
}

TEST_F(CDbusPortRemember, LogsAsAPortThatAsks)
{
    CRawPeer peer;
    int const id = Add(peer);
    ASSERT_TRUE(m_port.IsConnected(id));
    CLogCapture log;

    EXPECT_TRUE(m_port.SendCallback(listOf(1), id));
    EXPECT_EQ((std::vector<std::string>{"CDbusPort::SendMessage from " + m_server + " to " + peer.GetUniqueName(),
                                        "CDbusPort::IsConnected returns true",
                                        "nelo_rpc::dbus::fillDbusMessage, list={0 = (CTypedValue<int> = 1) | }",
                                        "nelo_rpc::dbus::fillDbusMessage done"}),
              log.Texts(ELevel::Debug));
}

TEST_F(CDbusPortRemember, AsksEachTimeAboutAWellKnownName)
{
    CRawPeer peer;
    ASSERT_EQ(DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER, peer.RequestName(m_client));
    int const id = m_port.AddConnection(m_client);
    EXPECT_TRUE(m_port.IsConnected(id));
    peer.ReleaseName(m_client);

    EXPECT_FALSE(m_port.IsConnected(id)) << "its owner may change without anybody leaving";
}

TEST_F(CDbusPortRemember, GoesOnWhenAWatchEnds)
{
    auto peer = std::make_unique<CRawPeer>();
    int const id = Add(*peer);
    ASSERT_TRUE(m_port.IsConnected(id));
    CInbox<int> gone;
    EXPECT_TRUE(m_port.WatchPeers([&](int left) { gone.Put(left); }));
    EXPECT_TRUE(m_port.WatchPeers({}));
    peer.reset();

    EXPECT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));
    EXPECT_EQ(0u, gone.Count());
}

TEST_F(CDbusPortRemember, NoPeerIsThereWhenTheBusIsLost)
{
    CRawPeer peer;
    int const id = Add(peer);
    ASSERT_TRUE(m_port.IsConnected(id));
    CBusOutage const outage;

    EXPECT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));
    EXPECT_FALSE(m_port.SendCallback(listOf(1), id));
}

TEST_F(CDbusPortRemember, ForgetsEveryPeerThatComesAndGoesWhileOthersAreAskedAbout)
{
    CRawPeer stays;
    int const staysId = Add(stays);
    std::atomic<bool> stop{false};
    auto asker = std::async(std::launch::async, [&] {
        bool isThere = true;
        while (!stop)
        {
            isThere = isThere && m_port.IsConnected(staysId);
        }
        return isThere;
    });
    for (int i = 0; i < 30; ++i)
    {
        int id = 0;
        {
            CRawPeer const goes;
            id = Add(goes);
            EXPECT_TRUE(m_port.IsConnected(id));
        }
        EXPECT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));
    }
    stop = true;
    EXPECT_TRUE(asker.get());
}

TEST_F(CDbusPortRemember, LetsASenderBeNoQuickerThanTheBus)
{
    CRawPeer peer;
    int const id = Add(peer);
    CValueList const callback = listOfBytes(32 * 1024);
    for (int i = 0; i < 200; ++i)
    {
        ASSERT_TRUE(m_port.SendCallback(callback, id));
    }
    // With 64 KiB waiting the next callback waits for the bus.
    std::future<bool> sent;
    {
        CBusPause const pause;
        sent = std::async(std::launch::async, [&] {
            bool all = true;
            for (int i = 0; i < 200; ++i)
            {
                all = m_port.SendCallback(callback, id) && all;
            }
            return all;
        });
        EXPECT_EQ(std::future_status::timeout, sent.wait_for(milliseconds(500)));
    }
    EXPECT_TRUE(sent.get());
}

TEST(CDbusPortOptions, RememberingPeersIsRecommendedAndOffByDefault)
{
    EXPECT_FALSE(nelo_rpc::SPortOptions().rememberPeers);
    EXPECT_TRUE(nelo_rpc::SPortOptions::Recommended().rememberPeers);
}
