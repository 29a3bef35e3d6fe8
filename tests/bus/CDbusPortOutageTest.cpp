#include "BusTest.h"

namespace
{

class CDbusPortOutage : public CBusTest
{
};

} // namespace

TEST_F(CDbusPortOutage, LeavesTheProcessAliveAndEndsTheReceiver)
{
    CLogCapture log;
    CDbusPort const port(m_server.c_str(), true);
    int const receiver = waitForReceiver(log);
    ASSERT_TRUE(isThreadAlive(receiver));
    CBusOutage const outage;

    EXPECT_TRUE(eventually([&] { return !isThreadAlive(receiver); }));
}

TEST_F(CDbusPortOutage, ShowsAsAMessageWithoutASenderOnTheLocalPath)
{
    CLogCapture log;
    CDbusPort const port(m_server.c_str(), true);
    CBusOutage const outage;

    EXPECT_TRUE(log.WaitFor("CDbusPort::OnDbusMessage ignoring message from "
                            " with path=/org/freedesktop/DBus/Local"));
}

TEST_F(CDbusPortOutage, LeavesAServersPortWhoseOperationsFail)
{
    CRawPeer peer;
    CDbusPort port(m_server.c_str(), true);
    int const id = port.AddConnection(peer.GetUniqueName());
    EXPECT_TRUE(port.IsConnected(id));
    CBusOutage const outage;

    auto const start = steady_clock::now();
    EXPECT_TRUE(eventually([&] { return !port.IsConnected(id); }));
    EXPECT_FALSE(port.SendCallback(listOf(1), id));
    EXPECT_LT(since(start), seconds(10));
}

TEST_F(CDbusPortOutage, MakesAReplyGoNowhere)
{
    CInbox<CRpcPort::ReplyFunction> replies;
    CDbusPort port(m_server.c_str(), true);
    port.SetFunctionCallListener(
        [&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { replies.Put(reply); });
    {
        CRawPeer peer;
        peer.Send(rawCall(m_server).get());
        ASSERT_TRUE(replies.WaitForCount(1));
    }
    CBusOutage const outage;

    EXPECT_TRUE(eventually([&] { return !port.IsConnected(0); }));
    replies.All().front()(listOf(1));
}

TEST_F(CDbusPortOutage, IsNotOvercomeByANewBus)
{
    CDbusPort const port(m_server.c_str(), true);
    {
        CBusOutage const outage;
    }
    CRawPeer peer;

    EXPECT_EQ("", peer.OwnerOf(m_server));
    CEchoPort fresh(m_server);
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    EXPECT_EQ(3, intOf(client.CallFunction(listOf(3), 0)));
}

TEST_F(CDbusPortOutage, HitsEveryPortOfTheProcessAndEachCanBeDestroyed)
{
    std::vector<std::unique_ptr<CDbusPort>> ports;
    for (int i = 0; i < 4; ++i)
    {
        ports.push_back(std::make_unique<CDbusPort>(CPrivateBus::UniqueName().c_str(), m_server.c_str(), i % 2 == 0));
    }
    CBusOutage const outage;

    for (auto const& port : ports)
    {
        EXPECT_FALSE(port->IsConnected(0));
    }
    auto const start = steady_clock::now();
    ports.clear();
    EXPECT_LT(since(start), seconds(5));
}

TEST_F(CDbusPortOutage, MayComeWhileTheFirstDispatchIsHeldBack)
{
    CDbusPort port(m_server.c_str(), true, nelo_rpc::SPortOptions::Recommended());
    CBusOutage const outage;

    port.SetFunctionCallListener([](CValueList const&, int, CRpcPort::ReplyFunction const&) {});
}
