#include "BusTest.h"

namespace
{

class CDbusPortLoss : public CBusTest
{
protected:
    /// Tells on which threads the loss of a port was noticed.
    std::function<void()> Noticer()
    {
        return [this] { m_noticed.Put(std::this_thread::get_id()); };
    }

    bool IsNoticedHere() const { return m_noticed.All() == std::vector<std::thread::id>{std::this_thread::get_id()}; }

    CInbox<std::thread::id> m_noticed;
};

} // namespace

TEST_F(CDbusPortLoss, IsToldOnTheReceiverThread)
{
    CInbox<std::thread::id> receivers;
    CDbusPort port(m_server.c_str(), true);
    port.SetFunctionCallListener([&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
        receivers.Put(std::this_thread::get_id());
        reply({});
    });
    {
        CRawPeer peer;
        peer.Call(rawCall(m_server).get());
    }
    port.SetLostListener(Noticer());
    EXPECT_TRUE(port.IsOpen());
    EXPECT_EQ(0u, m_noticed.Count());
    CBusOutage const outage;

    ASSERT_TRUE(m_noticed.WaitForCount(1));
    EXPECT_EQ(receivers.All(), m_noticed.All());
    EXPECT_FALSE(port.IsOpen());
}

TEST_F(CDbusPortLoss, IsToldOnceHoweverManyOperationsFail)
{
    CDbusPort port(m_server.c_str(), true);
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    port.SetLostListener(Noticer());
    client.SetLostListener(Noticer());
    CBusOutage const outage;
    ASSERT_TRUE(m_noticed.WaitForCount(1));

    for (int i = 0; i < 3; ++i)
    {
        EXPECT_FALSE(port.IsConnected(0));
        EXPECT_FALSE(client.IsConnected(0));
        EXPECT_TRUE(client.CallFunction(listOf(1), 0).empty());
    }
    EXPECT_EQ(2u, m_noticed.Count());
}

TEST_F(CDbusPortLoss, IsToldAtOnceToAListenerThatComesLater)
{
    CDbusPort port(m_server.c_str(), true);
    CBusOutage const outage;
    ASSERT_TRUE(eventually([&] { return !port.IsOpen(); }));
    port.SetLostListener(Noticer());
    // It may have met the receiver that is about to notice.
    ASSERT_TRUE(m_noticed.WaitForCount(1));
    port.SetLostListener({});

    CGate here;
    port.SetLostListener([&, self = std::this_thread::get_id()] {
        EXPECT_EQ(self, std::this_thread::get_id());
        here.Open();
    });
    EXPECT_TRUE(here.IsOpen());
    EXPECT_EQ(1u, m_noticed.Count());
}

TEST_F(CDbusPortLoss, IsToldByACallOfASynchronousPort)
{
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    client.SetLostListener(Noticer());
    EXPECT_TRUE(client.IsOpen());
    CBusOutage const outage;
    EXPECT_TRUE(client.CallFunction(listOf(1), 0).empty());

    EXPECT_TRUE(IsNoticedHere());
    EXPECT_FALSE(client.IsOpen());
}

TEST_F(CDbusPortLoss, IsToldByAQuestionOfASynchronousPort)
{
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    client.SetLostListener(Noticer());
    CBusOutage const outage;
    EXPECT_FALSE(client.IsConnected(0));

    EXPECT_TRUE(IsNoticedHere());
}

TEST_F(CDbusPortLoss, EndsACallThatIsUnderWayAndIsToldByIt)
{
    CGate called;
    CRawServer const server(m_server, [&](CRawPeer&, MessagePtr const&) { called.Open(); });
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    client.SetLostListener(Noticer());
    auto call = std::async(std::launch::async, [&] {
        client.CallFunction(listOf(1), 0);
        return std::this_thread::get_id();
    });
    ASSERT_TRUE(called.Wait());
    CBusOutage const outage;

    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(std::vector<std::thread::id>{call.get()}, m_noticed.All());
}

TEST_F(CDbusPortLoss, IsToldByADeliveryAndLeavesItsPortUsable)
{
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    client.SetLostListener([&] {
        EXPECT_TRUE(client.CallFunction(listOf(1), 0).empty());
        EXPECT_FALSE(client.IsConnected(0));
        EXPECT_FALSE(client.IsOpen());
        m_noticed.Put(std::this_thread::get_id());
    });
    nelo_rpc::CCallbackDelivery const delivery(client);
    CBusOutage const outage;

    ASSERT_TRUE(m_noticed.WaitForCount(1));
    EXPECT_FALSE(IsNoticedHere());
}

TEST_F(CDbusPortLoss, IsToldByTheApplicationsLoop)
{
    CDbusPort client(m_client.c_str(), m_server.c_str(), false);
    client.SetLostListener(Noticer());
    ASSERT_GE(client.GetPollFd(), 0);
    CBusOutage const outage;

    EXPECT_TRUE(eventually([&] {
        client.DispatchCallbacks();
        return m_noticed.Count() != 0;
    }));
    EXPECT_TRUE(IsNoticedHere());
}

TEST_F(CDbusPortLoss, IsNotWhatADestructionCauses)
{
    {
        CDbusPort port(m_server.c_str(), true);
        CDbusPort client(m_client.c_str(), m_server.c_str(), false);
        port.SetLostListener(Noticer());
        client.SetLostListener(Noticer());
        EXPECT_TRUE(client.IsConnected(0));
    }
    EXPECT_EQ(0u, m_noticed.Count());
}

TEST_F(CDbusPortLoss, IsNotWhatAPortWithoutABusHas)
{
    CBusOutage const outage;
    CDbusPort port(m_server.c_str(), true);
    port.SetLostListener(Noticer());

    EXPECT_FALSE(port.IsOpen());
    EXPECT_TRUE(m_noticed.All().empty());
}

TEST_F(CDbusPortLoss, IsNotToldToAListenerThatWasTakenAway)
{
    CDbusPort port(m_server.c_str(), true);
    port.SetLostListener(Noticer());
    port.SetLostListener({});
    CBusOutage const outage;

    ASSERT_TRUE(eventually([&] { return !port.IsOpen(); }));
    EXPECT_EQ(0u, m_noticed.Count());
}

TEST_F(CDbusPortLoss, DoesNotShowOnAPortThatDidNotGetItsName)
{
    CDbusPort const port("not a name", true);

    EXPECT_FALSE(port.IsOpen());
}
