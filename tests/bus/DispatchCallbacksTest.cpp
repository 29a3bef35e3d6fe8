#include "BusTest.h"

#include <poll.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>

namespace
{

class CDispatchCallbacks : public CBusTest
{
protected:
    void SetUp() override
    {
        m_serverPort.SetFunctionCallListener(
            [this](CValueList const& list, int id, CRpcPort::ReplyFunction const& reply) {
                m_clientId = id;
                if (m_callbacksBeforeReply > 0)
                {
                    SendCallbacks(0, m_callbacksBeforeReply);
                }
                reply(list);
            });
        m_port.SetCallbackListener([this](CValueList const& list) { m_received.push_back(intOf(list)); });
        ASSERT_EQ(1, intOf(m_port.CallFunction(listOf(1), 0))); // the server knows its client now
        m_fd = m_port.GetPollFd();
        ASSERT_GE(m_fd, 0);
    }

    void SendCallbacks(int first, int count)
    {
        for (int i = first; i < first + count; ++i)
        {
            EXPECT_TRUE(m_serverPort.SendCallback(listOf(i), m_clientId));
        }
    }

    bool IsReadable(milliseconds limit = seconds(10)) const
    {
        pollfd waiting{m_fd, POLLIN, 0};
        return ::poll(&waiting, 1, static_cast<int>(limit.count())) == 1 && (waiting.revents & POLLIN) != 0;
    }

    /// What an application's own loop does.
    bool DispatchUntil(std::size_t count, milliseconds limit = seconds(20))
    {
        auto const start = steady_clock::now();
        while (m_received.size() < count && since(start) < limit)
        {
            if (IsReadable(milliseconds(100)))
            {
                m_port.DispatchCallbacks();
            }
        }
        return m_received.size() >= count;
    }

    /// Dispatches until there is nothing more for a while.
    void Settle()
    {
        for (int i = 0; i < 100 && IsReadable(milliseconds(100)); ++i)
        {
            m_port.DispatchCallbacks();
        }
    }

    static std::vector<int> Range(int count)
    {
        std::vector<int> range;
        for (int i = 0; i < count; ++i)
        {
            range.push_back(i);
        }
        return range;
    }

    std::vector<int> m_received;
    std::atomic<int> m_clientId{-1};
    std::atomic<int> m_callbacksBeforeReply{0};
    int m_fd = -1;
    CDbusPort m_serverPort{m_server.c_str(), true};
    CDbusPort m_port{m_client.c_str(), m_server.c_str(), false};
};

using CDispatchCallbacksDeathTest = CDispatchCallbacks;

} // namespace

TEST_F(CDispatchCallbacks, MakesTheDescriptorReadableWhenACallbackArrives)
{
    Settle();
    EXPECT_FALSE(IsReadable(milliseconds(100)));
    SendCallbacks(5, 1);

    EXPECT_TRUE(IsReadable());
    EXPECT_TRUE(DispatchUntil(1));
    EXPECT_EQ(std::vector<int>{5}, m_received);
}

TEST_F(CDispatchCallbacks, LeavesTheDescriptorUnreadableWhenThereIsNothingMore)
{
    SendCallbacks(0, 10);
    EXPECT_TRUE(DispatchUntil(10));
    Settle();

    EXPECT_FALSE(IsReadable(milliseconds(100)));
}

TEST_F(CDispatchCallbacks, ReturnsWhileMoreArrivesThanItHandlesAndLeavesTheDescriptorReadable)
{
    constexpr int ALL = 1000;
    SendCallbacks(0, ALL);
    std::size_t most = 0;
    while (m_received.size() < ALL && IsReadable())
    {
        std::size_t const before = m_received.size();
        m_port.DispatchCallbacks();
        most = std::max(most, m_received.size() - before);
    }

    EXPECT_EQ(Range(ALL), m_received);
    EXPECT_GT(static_cast<std::size_t>(ALL), most);
}

TEST_F(CDispatchCallbacksDeathTest, OfAHandlerThatDispatchesAgainLogsAndAborts)
{
    SendCallbacks(0, 1);
    m_port.SetCallbackListener([this](CValueList const&) { m_port.DispatchCallbacks(); });

    EXPECT_ABORT(DispatchUntil(1), "CDbusPort::DispatchCallbacks called by a listener that the port runs");
}

TEST_F(CDispatchCallbacksDeathTest, OfAHandlerThatThrowsEndsTheProcessAndIsNotCaughtOutside)
{
    SendCallbacks(0, 1);
    m_port.SetCallbackListener([](CValueList const&) { throw std::runtime_error("thrown by a handler"); });
    auto const dispatch = [this] {
        try
        {
            DispatchUntil(1);
        }
        catch (std::runtime_error const&)
        {
        }
    };

    EXPECT_ABORT(dispatch(), "thrown by a handler");
}

TEST_F(CDispatchCallbacks, AlwaysGivesTheSameDescriptor)
{
    EXPECT_EQ(m_fd, m_port.GetPollFd());
    m_port.CallFunction(listOf(1), 0);
    EXPECT_EQ(m_fd, m_port.GetPollFd());
}

TEST_F(CDispatchCallbacks, DeliversInOrder)
{
    SendCallbacks(0, 500);

    EXPECT_TRUE(DispatchUntil(500));
    EXPECT_EQ(Range(500), m_received);
}

TEST_F(CDispatchCallbacks, RunsHandlersOnTheCallingThread)
{
    std::thread::id seen;
    m_port.SetCallbackListener([&](CValueList const&) {
        seen = std::this_thread::get_id();
        m_received.push_back(0);
    });
    SendCallbacks(0, 1);

    EXPECT_TRUE(DispatchUntil(1));
    EXPECT_EQ(std::this_thread::get_id(), seen);
}

TEST_F(CDispatchCallbacks, ReturnsAtOnceWhenThereIsNothing)
{
    Settle();
    auto const start = steady_clock::now();
    for (int i = 0; i < 20; ++i)
    {
        m_port.DispatchCallbacks();
    }

    EXPECT_LT(since(start), seconds(2));
    EXPECT_TRUE(m_received.empty());
}

TEST_F(CDispatchCallbacks, DeliversWhatArrivedDuringACallOnTheSameThread)
{
    m_callbacksBeforeReply = 20;
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
    EXPECT_TRUE(m_received.empty()) << "no handler runs inside a call";

    EXPECT_TRUE(IsReadable());
    EXPECT_TRUE(DispatchUntil(20));
    EXPECT_EQ(Range(20), m_received);
}

TEST_F(CDispatchCallbacks, KeepsWhatArrivesDuringManyCalls)
{
    m_callbacksBeforeReply = 1;
    for (int i = 0; i < 30; ++i)
    {
        EXPECT_EQ(i, intOf(m_port.CallFunction(listOf(i), 0)));
    }

    EXPECT_TRUE(DispatchUntil(30));
    EXPECT_EQ(std::vector<int>(30, 0), m_received);
}

TEST_F(CDispatchCallbacks, DeliversWhileOtherThreadsAreInsideCalls)
{
    std::atomic<bool> stop{false};
    auto caller = std::async(std::launch::async, [&] {
        bool right = true;
        for (int i = 0; !stop; ++i)
        {
            right = right && intOf(m_port.CallFunction(listOf(i), 0)) == i;
        }
        return right;
    });
    auto sender = std::async(std::launch::async, [&] { SendCallbacks(0, 300); });

    EXPECT_TRUE(DispatchUntil(300));
    stop = true;
    EXPECT_EQ(Range(300), m_received);
    ASSERT_TRUE(isReady(caller));
    EXPECT_TRUE(caller.get());
    ASSERT_TRUE(isReady(sender));
}

TEST_F(CDispatchCallbacks, DeliversWhileAnotherThreadWaitsInsideACall)
{
    CGate entered;
    CGate leave;
    std::string const slow = CPrivateBus::UniqueName();
    CRawServer const server(slow, [&](CRawPeer& peer, MessagePtr const& call) {
        entered.Open();
        leave.Wait();
        answerInt(peer, call.get(), 3);
    });
    int const id = m_port.AddConnection(slow);
    auto call = std::async(std::launch::async, [&] { return intOf(m_port.CallFunction({}, id)); });
    ASSERT_TRUE(entered.Wait());
    SendCallbacks(0, 50);

    EXPECT_TRUE(DispatchUntil(50)) << "the call is open all the while";
    EXPECT_EQ(Range(50), m_received);
    leave.Open();
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(3, call.get());
}

TEST_F(CDispatchCallbacks, LeavesAnotherThreadItsResultWhileAHandlerIsBusy)
{
    m_callbacksBeforeReply = 1;
    for (int round = 0; round < 20; ++round)
    {
        CGate returned;
        CInbox<bool> waited;
        m_port.SetCallbackListener([&](CValueList const&) {
            m_received.push_back(round);
            waited.Put(returned.Wait());
        });
        auto call = std::async(std::launch::async, [&] {
            int const result = intOf(m_port.CallFunction(listOf(7), 0));
            returned.Open();
            return result;
        });

        ASSERT_TRUE(DispatchUntil(static_cast<std::size_t>(round) + 1));
        EXPECT_TRUE(waited.All().at(0)) << "in round " << round;
        ASSERT_TRUE(isReady(call));
        EXPECT_EQ(7, call.get());
    }
}

TEST_F(CDispatchCallbacks, AnswersPingsAndCallsThatNothingTakes)
{
    CRawPeer peer;
    std::string const name = m_serverPort.GetPeerName(m_clientId);
    MessagePtr const ping(dbus_message_new_method_call(name.c_str(), "/", DBUS_INTERFACE_PEER, "Ping"));
    MessagePtr const stray(dbus_message_new_method_call(name.c_str(), "/elsewhere", "org.trelin.Odd", "Odd"));
    peer.Send(ping.get());
    peer.Send(stray.get());
    DispatchUntil(1, milliseconds(500)); // there is no callback

    EXPECT_NE(nullptr, peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    MessagePtr const error = peer.Receive(DBUS_MESSAGE_TYPE_ERROR);
    ASSERT_NE(nullptr, error);
    EXPECT_STREQ(DBUS_ERROR_UNKNOWN_METHOD, dbus_message_get_error_name(error.get()));
}

TEST_F(CDispatchCallbacks, TellsTheMachineAsEveryProgramOnTheBusDoes)
{
    CRawPeer peer;
    std::string const name = m_serverPort.GetPeerName(m_clientId);
    MessagePtr const question(dbus_message_new_method_call(name.c_str(), "/", DBUS_INTERFACE_PEER, "GetMachineId"));
    peer.Send(question.get());
    DispatchUntil(1, milliseconds(500)); // there is no callback

    char* const machine = dbus_get_local_machine_id();
    char const* told = "";
    MessagePtr const answer = peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    ASSERT_NE(nullptr, answer);
    EXPECT_TRUE(dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_STRING, &told, DBUS_TYPE_INVALID));
    EXPECT_STREQ(machine, told);
    dbus_free(machine);
}

TEST_F(CDispatchCallbacks, LetsAHandlerCall)
{
    m_port.SetCallbackListener([this](CValueList const& list) {
        m_received.push_back(intOf(m_port.CallFunction(listOf(intOf(list) * 10), 0)));
    });
    SendCallbacks(1, 3);

    EXPECT_TRUE(DispatchUntil(3));
    EXPECT_EQ((std::vector<int>{10, 20, 30}), m_received);
}

TEST_F(CDispatchCallbacks, LeavesCallsTheirAnswersHoweverMuchIsYetToBeDispatched)
{
    constexpr int COUNT = 9; // more than the bus library keeps by default
    std::string const text(8 * 1024 * 1024, 'x');
    for (int i = 0; i < COUNT; ++i)
    {
        CValueList callback = listOf(i);
        callback[1] = nelo_rpc::types::makeValue<std::string>(text);
        ASSERT_TRUE(m_serverPort.SendCallback(callback, m_clientId));
    }
    EXPECT_EQ(7, intOf(m_port.CallFunction(listOf(7), 0)));

    EXPECT_TRUE(DispatchUntil(COUNT));
    EXPECT_EQ(Range(COUNT), m_received);
}

TEST_F(CDispatchCallbacks, LeavesTheDescriptorUsableAfterTheLossOfTheBus)
{
    CBusOutage const outage;

    // Whether the loss shows as something to dispatch is open; a loop must neither end the process nor spin.
    auto const start = steady_clock::now();
    int rounds = 0;
    while (since(start) < seconds(1))
    {
        if (IsReadable(milliseconds(100)))
        {
            m_port.DispatchCallbacks();
        }
        ++rounds;
    }
    EXPECT_LT(rounds, 1000) << "the descriptor stays readable and the loop spins";
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
}

TEST_F(CDispatchCallbacksDeathTest, OnAnAsynchronousPortLogsAndAborts)
{
    EXPECT_ABORT(m_serverPort.DispatchCallbacks(), "m_bUseAsync is true");
}

TEST_F(CDispatchCallbacksDeathTest, TheDescriptorOfAnAsynchronousPortLogsAndAborts)
{
    EXPECT_ABORT(m_serverPort.GetPollFd(), "m_bUseAsync is true");
}
