#include "BusTest.h"

namespace
{

constexpr std::size_t MIB = 1024 * 1024;

class CDbusPortPending : public CBusTest
{
protected:
    static nelo_rpc::SPortOptions Limited(std::size_t bytes)
    {
        nelo_rpc::SPortOptions options;
        options.maxPendingBytes = bytes;
        return options;
    }

    /// Lets a peer call and keeps the calls unanswered.
    void KeepCalls(CDbusPort& port, CRawPeer& peer, int count)
    {
        port.SetFunctionCallListener(
            [this](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { m_replies.Put(reply); });
        for (int i = 0; i < count; ++i)
        {
            peer.Send(rawCall(m_server).get());
        }
        ASSERT_TRUE(m_replies.WaitForCount(static_cast<std::size_t>(count)));
    }

    CInbox<CRpcPort::ReplyFunction> m_replies;
};

} // namespace

TEST_F(CDbusPortPending, LimitFailsCallbacksAtOnceWhileTheBusTakesNothing)
{
    CDbusPort port(m_server.c_str(), true, Limited(MIB));
    CRawPeer peer;
    KeepCalls(port, peer, 4);
    std::string const refusal =
        "CDbusPort::SendCallback to " + peer.GetUniqueName() + " refused: more than 1048576 bytes wait to be sent";
    CLogCapture log;
    {
        CBusPause const pause;
        for (auto const& reply : m_replies.All())
        {
            reply(listOfBytes(MIB)); // a result is not refused
        }
        auto const start = steady_clock::now();
        EXPECT_FALSE(port.SendCallback(listOf(1), 0));
        EXPECT_FALSE(port.SendCallback(listOf(2), 0));
        EXPECT_LT(since(start), seconds(10)) << "the bus was asked, which does not answer";
    }
    EXPECT_EQ(2, countLines(log, ELevel::Error, refusal));

    for (int i = 0; i < 4; ++i)
    {
        ASSERT_NE(nullptr, peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    }
    EXPECT_TRUE(port.SendCallback(listOf(3), 0));
    MessagePtr const signal = peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
    ASSERT_NE(nullptr, signal);
    EXPECT_EQ("0 0 3", describeBody(signal.get()));
}

TEST_F(CDbusPortPending, LimitLetsASingleLargeCallbackThrough)
{
    CDbusPort port(m_server.c_str(), true, Limited(1000));
    CRawPeer peer;
    KeepCalls(port, peer, 1);

    EXPECT_TRUE(port.SendCallback(listOfBytes(4 * MIB), 0));
    EXPECT_NE(nullptr, peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL));
}

TEST_F(CDbusPortPending, LimitIsRecommendedAndOffByDefault)
{
    EXPECT_EQ(0u, nelo_rpc::SPortOptions().maxPendingBytes);
    EXPECT_EQ(32 * MIB, nelo_rpc::SPortOptions::Recommended().maxPendingBytes);
}

TEST_F(CDbusPortPending, CallbacksOfAPeerThatDoesNotReadAreDroppedByTheBusAndHarmNobodyElse)
{
    // The bus keeps so much for a peer, and tells whoever sends more.
    auto options = nelo_rpc::SPortOptions::Recommended();
    options.maxUnreadBytes = 0; // which would keep the port from it
    CDbusPort port(m_server.c_str(), true, options);
    CRawPeer idle;
    CRawPeer reader;
    int const idleId = port.AddConnection(idle.GetUniqueName());
    int const readerId = port.AddConnection(reader.GetUniqueName());
    CLogCapture log;
    port.SetFunctionCallListener([](CValueList const&, int, CRpcPort::ReplyFunction const&) {});
    for (int i = 0; i < 20 && !log.Contains("ignoring message from org.freedesktop.DBus with path="); ++i)
    {
        EXPECT_TRUE(port.SendCallback(listOfBytes(16 * MIB), idleId));
    }

    EXPECT_TRUE(log.WaitFor("ignoring message from org.freedesktop.DBus with path="));
    EXPECT_TRUE(port.SendCallback(listOf(7), readerId));
    MessagePtr const signal = reader.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
    ASSERT_NE(nullptr, signal);
    EXPECT_EQ("0 0 7", describeBody(signal.get()));
    EXPECT_TRUE(port.IsConnected(idleId));
}
