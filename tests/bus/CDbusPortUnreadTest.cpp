#include "BusTest.h"

#include <atomic>

namespace
{

constexpr std::size_t MIB = 1024 * 1024;
constexpr std::size_t LIMIT = 4 * MIB;
constexpr int PAYLOAD = 32 * 1024;

char const* const REFUSED = " refused: the peer leaves too much unread that it was sent";

/// A client that reads nothing that it is not called for, until it is told to.
class CSluggard
{
public:
    explicit CSluggard(std::string const& server) : m_port(CPrivateBus::UniqueName().c_str(), server.c_str(), false)
    {
        m_port.SetCallbackListener([this](CValueList const&) { ++m_received; });
    }

    CDbusPort& Get() { return m_port; }
    void StartReading() { m_delivery = std::make_unique<nelo_rpc::CCallbackDelivery>(m_port); }
    int Received() const { return m_received; }

private:
    CDbusPort m_port;
    std::atomic<int> m_received{0};
    std::unique_ptr<nelo_rpc::CCallbackDelivery> m_delivery;
};

/// A server's port that limits what its peers leave unread, and answers each call with its connection id.
class CDbusPortUnread : public CBusTest
{
protected:
    static nelo_rpc::SPortOptions Limited(std::size_t bytes)
    {
        nelo_rpc::SPortOptions options;
        options.maxUnreadBytes = bytes;
        return options;
    }

    void SetUp() override
    {
        m_port.SetFunctionCallListener(
            [](CValueList const&, int id, CRpcPort::ReplyFunction const& reply) { reply(listOf(id)); });
    }

    std::unique_ptr<CSluggard> Connect(int& id)
    {
        auto client = std::make_unique<CSluggard>(m_server);
        id = intOf(client->Get().CallFunction({}, 0));
        EXPECT_LE(0, id);
        return client;
    }

    /// Sends callbacks until one fails, but no more than `most`. @return how many did not.
    int Fill(int id, int most)
    {
        int sent = 0;
        while (sent < most && m_port.SendCallback(listOfBytes(PAYLOAD), id))
        {
            ++sent;
        }
        return sent;
    }

    CDbusPort m_port{m_server.c_str(), true, Limited(LIMIT)};
};

} // namespace

TEST_F(CDbusPortUnread, LimitFailsCallbacksToAPeerThatReadsNothing)
{
    int id = 0;
    auto const client = Connect(id);
    CLogCapture log;

    int const sent = Fill(id, 1000);
    EXPECT_GT(sent, 10);
    EXPECT_LE(static_cast<std::size_t>(sent * PAYLOAD), LIMIT / 4) << "no peer may have all of the limit";
    EXPECT_EQ(1, log.Count("CDbusPort::SendCallback to " + m_port.GetPeerName(id) + REFUSED));
    EXPECT_FALSE(m_port.SendCallback(listOfBytes(PAYLOAD), id));
}

TEST_F(CDbusPortUnread, LimitIsNoMatterToAPeerThatReads)
{
    int sluggardId = 0;
    auto const sluggard = Connect(sluggardId);
    int readerId = 0;
    auto const reader = Connect(readerId);
    reader->StartReading();
    Fill(sluggardId, 1000);

    int sent = 0;
    EXPECT_TRUE(eventually(
        [&] {
            sent += m_port.SendCallback(listOfBytes(PAYLOAD), readerId) ? 1 : 0;
            return sent == 1000; // many times the limit
        },
        seconds(60)));
    EXPECT_TRUE(eventually([&] { return reader->Received() == sent; }));
}

TEST_F(CDbusPortUnread, LimitEndsWhenThePeerReads)
{
    int id = 0;
    auto const client = Connect(id);
    int const sent = Fill(id, 1000);
    client->StartReading();

    EXPECT_TRUE(eventually([&] { return client->Received() == sent; }));
    EXPECT_TRUE(eventually([&] { return m_port.SendCallback(listOf(1), id); }));
    EXPECT_TRUE(eventually([&] { return Fill(id, 10) == 10; }));
}

TEST_F(CDbusPortUnread, LimitEndsWhenAPeerWithoutADeliveryCalls)
{
    int id = 0;
    auto const client = Connect(id);
    Fill(id, 1000);

    EXPECT_TRUE(eventually([&] { return client->Get().CallFunction({}, 0).count(0) != 0 && Fill(id, 4) == 4; }));
}

TEST_F(CDbusPortUnread, LimitIsShared)
{
    constexpr int CLIENTS = 12;
    std::vector<std::unique_ptr<CSluggard>> clients;
    std::size_t total = 0;
    for (int i = 0; i < CLIENTS; ++i)
    {
        int id = 0;
        clients.push_back(Connect(id));
        int const sent = Fill(id, 1000);
        EXPECT_GE(sent * PAYLOAD, 32 * 1024) << "something is left for everybody";
        total += static_cast<std::size_t>(sent * PAYLOAD);
    }

    EXPECT_LE(total, LIMIT);
}

TEST_F(CDbusPortUnread, LimitIsNotLiftedByAnswersToPingsThatWereNotRead)
{
    CRawPeer peer;
    MessagePtr const answer = peer.Call(rawCall(m_server).get());
    ASSERT_NE(nullptr, answer);
    int const id = 0;
    EXPECT_LT(Fill(id, 1000), 1000);

    // Serials are counted, so one that was seen tells those that follow.
    for (dbus_uint32_t ahead = 1; ahead <= 100; ++ahead)
    {
        MessagePtr const guess(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
        dbus_message_set_destination(guess.get(), m_server.c_str());
        dbus_message_set_reply_serial(guess.get(), dbus_message_get_serial(answer.get()) + ahead);
        peer.Send(guess.get());
    }
    CRawPeer other; // whose answer comes behind what the bus has let through
    ASSERT_NE(nullptr, other.Call(rawCall(m_server).get()));
    EXPECT_FALSE(m_port.SendCallback(listOfBytes(PAYLOAD), id));
}

TEST_F(CDbusPortUnread, LimitForgetsPeersThatLeave)
{
    int first = 0;
    for (int i = 0; i < 10; ++i)
    {
        int id = 0;
        auto client = Connect(id);
        int const sent = Fill(id, 1000);
        first = i == 0 ? sent : first;
        client.reset();
        ASSERT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));
        EXPECT_EQ(first, sent);
    }
}

TEST_F(CDbusPortUnread, LimitLetsOneLargeValuePassIfThereIsRoom)
{
    int id = 0;
    auto const client = Connect(id);
    int otherId = 0;
    auto const other = Connect(otherId);

    EXPECT_TRUE(m_port.SendCallback(listOfBytes(2 * LIMIT), id));
    EXPECT_FALSE(m_port.SendCallback(listOf(1), id));
    EXPECT_FALSE(m_port.SendCallback(listOfBytes(2 * LIMIT), otherId));
    EXPECT_TRUE(m_port.SendCallback(listOf(1), otherId));
    client->StartReading();
    EXPECT_TRUE(eventually([&] { return m_port.SendCallback(listOf(1), id); }));
    EXPECT_TRUE(eventually([&] { return client->Received() == 2; }));
}

TEST_F(CDbusPortUnread, LimitEndsForAPeerThatReadsAlsoIfItCouldNotBePingedAtFirst)
{
    constexpr int SLUGGARDS = 100; // no more pings are open at a time
    std::string const name = CPrivateBus::UniqueName();
    CDbusPort port(name.c_str(), true, Limited(96 * MIB));
    port.SetFunctionCallListener(
        [](CValueList const&, int id, CRpcPort::ReplyFunction const& reply) { reply(listOf(id)); });
    std::vector<std::unique_ptr<CRawPeer>> sluggards;
    for (int i = 0; i < SLUGGARDS; ++i)
    {
        sluggards.push_back(std::make_unique<CRawPeer>());
        ASSERT_TRUE(port.SendCallback(listOfBytes(128 * 1024), port.AddConnection(sluggards.back()->GetUniqueName())));
    }
    CSluggard reader(name);
    int const id = intOf(reader.Get().CallFunction({}, 0));
    ASSERT_LE(0, id);
    ASSERT_TRUE(port.SendCallback(listOfBytes(30 * MIB), id));
    ASSERT_FALSE(port.SendCallback(listOf(1), id));
    sluggards.clear();
    reader.StartReading();
    ASSERT_TRUE(eventually([&] { return reader.Received() == 1; }));

    EXPECT_TRUE(eventually([&] { return port.SendCallback(listOf(1), id); }));
}

TEST_F(CDbusPortUnread, LimitLeavesRoomForResultsHoweverManyCallbacksAreUnread)
{
    CRawPeer peer;
    ASSERT_NE(nullptr, peer.Call(rawCall(m_server).get()));
    EXPECT_LT(Fill(0, 1000), 1000);
    while (m_port.SendCallback(listOf(1), 0))
    {
    }

    MessagePtr const answer = peer.Call(rawCall(m_server).get());
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, dbus_message_get_type(answer.get()));
}

TEST_F(CDbusPortUnread, LimitMakesResultsErrors)
{
    m_port.SetFunctionCallListener(
        [](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { reply(listOfBytes(256 * 1024)); });
    CRawPeer peer;
    CLogCapture log;
    for (int i = 0; i < 20; ++i)
    {
        peer.Send(rawCall(m_server).get());
    }
    ASSERT_TRUE(eventually([&] { return log.Count(peer.GetUniqueName() + REFUSED) > 5; }));

    EXPECT_NE(nullptr, peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    MessagePtr const error = peer.Receive(DBUS_MESSAGE_TYPE_ERROR);
    ASSERT_NE(nullptr, error);
    EXPECT_STREQ(DBUS_ERROR_FAILED, dbus_message_get_error_name(error.get()));
}

TEST_F(CDbusPortUnread, IsNotLimitedByDefault)
{
    std::string const name = CPrivateBus::UniqueName();
    CEchoPort echo(name);
    CSluggard sluggard(name);
    ASSERT_TRUE(eventually([&] { return intOf(sluggard.Get().CallFunction(listOf(1), 0)) == 1; }));

    for (int i = 0; i < 300; ++i)
    {
        ASSERT_TRUE(echo.Get().SendCallback(listOfBytes(PAYLOAD), 0));
    }
    EXPECT_EQ(0u, nelo_rpc::SPortOptions().maxUnreadBytes);
    EXPECT_EQ(96 * MIB, nelo_rpc::SPortOptions::Recommended().maxUnreadBytes);
}
