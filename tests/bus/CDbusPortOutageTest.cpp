#include "BusTest.h"

#include <atomic>

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

TEST_F(CDbusPortOutage, LeavesTheProcessAliveWhileManyThreadsAskTheBus)
{
    // Several threads notice the loss of the same connection at once, each with a question under way.
    constexpr int PORTS = 8;
    constexpr int THREADS = 3;
    for (int round = 0; round < 5; ++round)
    {
        CRawPeer peer;
        std::vector<std::unique_ptr<CDbusPort>> ports;
        std::atomic<int> atWork{0};
        std::atomic<int> answered{0};
        std::vector<std::future<void>> askers;
        for (int p = 0; p < PORTS; ++p)
        {
            std::string const name = CPrivateBus::UniqueName();
            CDbusPort& port = *ports.emplace_back(std::make_unique<CDbusPort>(name.c_str(), true));
            port.SetFunctionCallListener([&](CValueList const&, int, CRpcPort::ReplyFunction const&) { ++atWork; });
            peer.Send(rawCall(name).get());
            int const id = port.AddConnection(peer.GetUniqueName());
            for (int t = 0; t < THREADS; ++t)
            {
                askers.push_back(std::async(std::launch::async, [&port, &answered, id] {
                    while (port.IsConnected(id))
                    {
                        ++answered;
                    }
                }));
            }
        }
        ASSERT_TRUE(eventually([&] { return atWork == PORTS; }));
        ASSERT_TRUE(eventually([&] { return answered > 20 * PORTS * THREADS; }));
        CBusOutage const outage;

        for (auto& asker : askers)
        {
            ASSERT_TRUE(isReady(asker, seconds(20)));
        }
    }
}

TEST_F(CDbusPortOutage, LeavesTheProcessAliveWhileLoopsDispatchAndOtherThreadsCall)
{
    // A loop and a thread inside a call notice the loss of the same connection at once.
    constexpr int PORTS = 8;
    for (int round = 0; round < 5; ++round)
    {
        CRawServer const server(m_server,
                                [](CRawPeer& peer, MessagePtr const& call) { answerInt(peer, call.get(), 1); });
        std::vector<std::unique_ptr<CDbusPort>> ports;
        std::atomic<int> answered{0};
        std::atomic<bool> stop{false};
        std::vector<std::future<void>> threads;
        for (int p = 0; p < PORTS; ++p)
        {
            CDbusPort& port = *ports.emplace_back(
                std::make_unique<CDbusPort>(CPrivateBus::UniqueName().c_str(), m_server.c_str(), false));
            port.GetPollFd();
            threads.push_back(std::async(std::launch::async, [&port, &answered] {
                while (!port.CallFunction(listOf(1), 0).empty())
                {
                    ++answered;
                }
            }));
            threads.push_back(std::async(std::launch::async, [&port, &stop] {
                while (!stop && port.IsOpen())
                {
                    port.DispatchCallbacks();
                }
            }));
        }
        EXPECT_TRUE(eventually([&] { return answered > 20 * PORTS; }));
        CBusOutage const outage;

        for (auto& thread : threads)
        {
            ASSERT_TRUE(isReady(thread, seconds(20)));
        }
    }
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
