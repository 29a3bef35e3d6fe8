#include "BusTest.h"

#include <atomic>
#include <climits>
#include <typeinfo>

namespace
{

/// A client's port and, where a test makes one, a raw server that answers it.
class CDbusPortCall : public CBusTest
{
protected:
    /// Answers each call with the integer that it carries.
    static void Echo(CRawPeer& peer, MessagePtr const& call)
    {
        CValueList const list = nelo_rpc::dbus::dbusMessageToValueList(call.get());
        answerInt(peer, call.get(), intOf(list));
    }

    CDbusPort m_port{m_client.c_str(), m_server.c_str(), false};
};

using CDbusPortCallDeathTest = CDbusPortCall;

void expectNoReplyLines(CLogCapture const& log)
{
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus error: "));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply"));
    EXPECT_EQ(0, countLinesOf(log, ELevel::Fatal));
}

} // namespace

TEST_F(CDbusPortCall, SendsAMethodCallInTheProtocolsForm)
{
    CInbox<std::string> seen;
    CRawServer const server(m_server, [&](CRawPeer& peer, MessagePtr const& call) {
        seen.Put(textOf(dbus_message_get_destination(call.get())));
        seen.Put(textOf(dbus_message_get_path(call.get())));
        seen.Put(textOf(dbus_message_get_interface(call.get())));
        seen.Put(textOf(dbus_message_get_member(call.get())));
        seen.Put(textOf(dbus_message_get_signature(call.get())));
        seen.Put(describeBody(call.get()));
        answerInt(peer, call.get(), 1);
    });
    CValueList list = listOf(7, std::string("x"), nelo_rpc::types::CCString("y"));
    list[-1] = nelo_rpc::types::makeValue<std::string>("Open");
    list[5] = std::make_shared<nelo_rpc::types::CBinaryValue>("\x01\xff", 2, 9);
    m_port.CallFunction(list, 0);

    EXPECT_EQ((std::vector<std::string>{m_server, "/org/trelin/nelo_rpc", "org.trelin.nelo_rpc.Event", "Call",
                                        "iisiiiiisiisiiayi", "-1 1 \"Open\" 0 0 7 1 1 \"x\" 2 2 \"y\" 5 3 [01ff] 9"}),
              seen.All());
}

TEST_F(CDbusPortCall, ReturnsTheResult)
{
    CRawServer const server(m_server, [](CRawPeer& peer, MessagePtr const& call) {
        MessagePtr const answer(dbus_message_new_method_return(call.get()));
        putString(answer.get(), 0, "result");
        putBytes(answer.get(), 1, {1}, 4);
        peer.Send(answer.get());
    });
    CLogCapture log;
    CValueList const result = m_port.CallFunction({}, 0);

    EXPECT_EQ("{0 = (CTypedValue<std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >> = "
              "result) | 1 = (CBinaryValue[bool=true]) | }",
              toString(result));
    EXPECT_EQ(0, countLinesOf(log, ELevel::Error));
}

TEST_F(CDbusPortCall, CannotTellAnEmptyResultFromAFailure)
{
    CEchoPort server(m_server);
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction({}, 0).empty());
    EXPECT_EQ(0, log.Count("Dbus error: "));
    EXPECT_EQ(0, log.Count("received empty reply"));
}

TEST_F(CDbusPortCall, LogsWhoCallsWhom)
{
    CEchoPort server(m_server);
    CLogCapture log;
    m_port.CallFunction(listOf(1), 0);

    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SendMessage from " + m_client + " to " + m_server));
}

TEST_F(CDbusPortCall, FailsWhenNobodyOwnsTheName)
{
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    expectNoReplyLines(log);
}

TEST_F(CDbusPortCall, FailsWithTheTextOfAnErrorReply)
{
    CRawServer const server(m_server, [](CRawPeer& peer, MessagePtr const& call) {
        MessagePtr const answer(dbus_message_new_error(call.get(), "org.trelin.Error.Odd", "not today"));
        peer.Send(answer.get());
    });
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    EXPECT_EQ(1, countLines(log, ELevel::Error, "Dbus error: not today"));
    expectNoReplyLines(log);
}

TEST_F(CDbusPortCall, FailsWhenTheServerLeavesBeforeItAnswers)
{
    CGate entered;
    auto server = std::make_unique<CRawServer>(m_server, [&](CRawPeer&, MessagePtr const&) { entered.Open(); });
    CLogCapture log;
    auto call = std::async(std::launch::async, [&] { return m_port.CallFunction(listOf(1), 0); });
    ASSERT_TRUE(entered.Wait());
    server.reset();

    ASSERT_TRUE(isReady(call));
    EXPECT_TRUE(call.get().empty());
    expectNoReplyLines(log);
}

TEST_F(CDbusPortCall, EndsAtItsTimeout)
{
    CRawServer const server(m_server, [](CRawPeer&, MessagePtr const&) {});
    CLogCapture log;
    m_port.SetTimeoutMs(100);

    auto const start = steady_clock::now();
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    EXPECT_GE(since(start), milliseconds(95));
    EXPECT_LT(since(start), seconds(5));
    expectNoReplyLines(log);
}

TEST_F(CDbusPortCall, WithATimeoutOfZeroIsSentAndFailsAtOnceWithoutAReply)
{
    CGate called;
    CRawServer const server(m_server, [&](CRawPeer&, MessagePtr const&) { called.Open(); });
    CLogCapture log;
    m_port.SetTimeoutMs(0);

    auto const start = steady_clock::now();
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    EXPECT_LT(since(start), seconds(5));
    expectNoReplyLines(log);
    EXPECT_TRUE(called.Wait());
}

class CDbusPortTimeoutBelowMinusOne : public CDbusPortCall, public ::testing::WithParamInterface<int>
{
};

TEST_P(CDbusPortTimeoutBelowMinusOne, IsKeptAndMakesCallsFailAsNoReply)
{
    CEchoPort server(m_server);
    CLogCapture log;
    m_port.SetTimeoutMs(GetParam());

    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SetTimeoutMs timeoutMs = " + std::to_string(GetParam())));
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    expectNoReplyLines(log);
}

TEST_P(CDbusPortTimeoutBelowMinusOne, IsForgottenWithTheNextTimeout)
{
    CEchoPort server(m_server);
    m_port.SetTimeoutMs(GetParam());
    m_port.CallFunction(listOf(1), 0);
    m_port.SetTimeoutMs(10000);

    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
}

INSTANTIATE_TEST_SUITE_P(Values, CDbusPortTimeoutBelowMinusOne, ::testing::Values(-2, -1000, INT_MIN));

TEST_F(CDbusPortCall, TakesTheLibrarysDefaultForATimeoutOfMinusOne)
{
    CRawServer const server(m_server, [](CRawPeer& peer, MessagePtr const& call) {
        // Slower than the time-out that was set before.
        std::this_thread::sleep_for(milliseconds(300));
        answerInt(peer, call.get(), 8);
    });
    m_port.SetTimeoutMs(50);
    m_port.SetTimeoutMs(-1);

    EXPECT_EQ(8, intOf(m_port.CallFunction(listOf(1), 0)));
}

TEST_F(CDbusPortCall, TakesTheLargestTimeout)
{
    CEchoPort server(m_server);
    m_port.SetTimeoutMs(INT_MAX);

    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
}

TEST_F(CDbusPortCall, LogsANewTimeout)
{
    CLogCapture log;
    m_port.SetTimeoutMs(1234);

    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SetTimeoutMs timeoutMs = 1234"));
}

TEST_F(CDbusPortCall, IsNotHarmedByTheLateReplyOfAnEarlierCall)
{
    MessagePtr late;
    CRawServer const server(m_server, [&](CRawPeer& peer, MessagePtr call) {
        if (intOf(nelo_rpc::dbus::dbusMessageToValueList(call.get())) == 1)
        {
            late = std::move(call);
            return;
        }
        if (late != nullptr)
        {
            answerInt(peer, late.get(), 111);
            late.reset();
        }
        Echo(peer, call);
    });
    m_port.SetTimeoutMs(100);
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    m_port.SetTimeoutMs(10000);
    CLogCapture log;

    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
    EXPECT_EQ(3, intOf(m_port.CallFunction(listOf(3), 0)));
    EXPECT_EQ(0, countLinesOf(log, ELevel::Error));
}

TEST_F(CDbusPortCall, ToAnUnknownIdEntersAnEmptyNameAndFailsAsNoReply)
{
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOf(1), 7).empty());
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SendMessage from " + m_client + " to "));
    expectNoReplyLines(log);
    EXPECT_FALSE(m_port.IsConnected(7)) << "an empty name is not asked for";
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::IsConnected returns false"));
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 7).empty());
    EXPECT_EQ(1, m_port.AddConnection("org.trelin.next")) << "ids go on as if nothing had been entered";
}

TEST_F(CDbusPortCall, ToANegativeIdFailsAsNoReply)
{
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOf(1), -1).empty());
    expectNoReplyLines(log);
}

TEST_F(CDbusPortCall, StillWorksAfterACallToAnUnknownId)
{
    CEchoPort server(m_server);
    m_port.CallFunction(listOf(1), 7);

    EXPECT_EQ(4, intOf(m_port.CallFunction(listOf(4), 0)));
}

TEST_F(CDbusPortCall, ReachesPeersByTheirIds)
{
    std::string const otherName = CPrivateBus::UniqueName();
    CRawServer const first(m_server, [](CRawPeer& peer, MessagePtr const& call) { answerInt(peer, call.get(), 1); });
    CRawServer const second(otherName, [](CRawPeer& peer, MessagePtr const& call) { answerInt(peer, call.get(), 2); });
    int const other = m_port.AddConnection(otherName);

    EXPECT_EQ(1, intOf(m_port.CallFunction({}, 0)));
    EXPECT_EQ(2, intOf(m_port.CallFunction({}, other)));
}

TEST_F(CDbusPortCall, CanBeAddressedToAUniqueName)
{
    CRawServer const server(m_server, Echo);
    int const id = m_port.AddConnection(server.GetUniqueName());

    EXPECT_EQ(6, intOf(m_port.CallFunction(listOf(6), id)));
}

TEST_F(CDbusPortCallDeathTest, OnAnAsynchronousPortLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CDbusPort port(m_server.c_str(), m_client.c_str(), true);
            port.CallFunction(listOf(1), 0);
        },
        "m_bUseAsync is true. Please check type when dbus created");
}

TEST_F(CDbusPortCall, ThrowsForAValueThatCannotTravel)
{
    CInbox<std::string> seen;
    CRawServer const server(m_server, [&](CRawPeer& peer, MessagePtr const& call) {
        seen.Put(describeBody(call.get()));
        Echo(peer, call);
    });
    CValueList list = listOf(1);
    list[1] = nelo_rpc::types::makeValue(true);

    EXPECT_THROW(m_port.CallFunction(list, 0), std::bad_cast);
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
    EXPECT_EQ(std::vector<std::string>{"0 0 2"}, seen.All()) << "the refused call was never sent";

    // No lock was left behind either: another thread gets through.
    auto call = std::async(std::launch::async, [&] { return intOf(m_port.CallFunction(listOf(3), 0)); });
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(3, call.get());
}

TEST_F(CDbusPortCall, OfTwoThreadsIsServedOneAfterTheOther)
{
    CGate firstIsThere;
    std::atomic<bool> secondCameEarly{false};
    std::atomic<int> calls{0};
    CRawServer const server(m_server, [&](CRawPeer& peer, MessagePtr const& call) {
        if (++calls == 1)
        {
            firstIsThere.Open();
            // Time enough for a second call, if the port let it out.
            MessagePtr const second = peer.Receive(DBUS_MESSAGE_TYPE_METHOD_CALL, milliseconds(300));
            secondCameEarly = second != nullptr;
        }
        Echo(peer, call);
    });
    auto first = std::async(std::launch::async, [&] { return intOf(m_port.CallFunction(listOf(1), 0)); });
    ASSERT_TRUE(firstIsThere.Wait());
    auto second = std::async(std::launch::async, [&] { return intOf(m_port.CallFunction(listOf(2), 0)); });

    ASSERT_TRUE(isReady(first));
    ASSERT_TRUE(isReady(second));
    EXPECT_EQ(1, first.get());
    EXPECT_EQ(2, second.get());
    EXPECT_FALSE(secondCameEarly);
}

TEST_F(CDbusPortCall, OfManyThreadsGetsEachItsOwnResult)
{
    constexpr int THREADS = 8;
    constexpr int CALLS = 50;
    CRawServer const server(m_server, Echo);
    std::vector<std::future<int>> threads;
    for (int t = 0; t < THREADS; ++t)
    {
        threads.push_back(std::async(std::launch::async, [this, t] {
            int right = 0;
            for (int i = 0; i < CALLS; ++i)
            {
                int const value = t * 1000 + i;
                right += intOf(m_port.CallFunction(listOf(value), 0)) == value ? 1 : 0;
            }
            return right;
        }));
    }
    for (auto& thread : threads)
    {
        ASSERT_TRUE(isReady(thread, seconds(60)));
        EXPECT_EQ(CALLS, thread.get());
    }
}

TEST_F(CDbusPortCall, DelaysAQuestionWhetherAPeerIsConnected)
{
    CGate firstIsThere;
    CGate answer;
    CRawServer const server(m_server, [&](CRawPeer& peer, MessagePtr const& call) {
        firstIsThere.Open();
        answer.Wait();
        Echo(peer, call);
    });
    auto call = std::async(std::launch::async, [&] { return intOf(m_port.CallFunction(listOf(1), 0)); });
    ASSERT_TRUE(firstIsThere.Wait());
    auto question = std::async(std::launch::async, [&] { return m_port.IsConnected(0); });

    EXPECT_FALSE(isReady(question, milliseconds(300)));
    answer.Open();
    ASSERT_TRUE(isReady(call));
    ASSERT_TRUE(isReady(question));
    EXPECT_EQ(1, call.get());
    EXPECT_TRUE(question.get());
}

TEST_F(CDbusPortCall, DoesNotDelayTheSettingOfATimeoutOrTheHandingOutOfAnId)
{
    CGate firstIsThere;
    CGate answer;
    CRawServer const server(m_server, [&](CRawPeer& peer, MessagePtr const& call) {
        firstIsThere.Open();
        answer.Wait();
        Echo(peer, call);
    });
    auto call = std::async(std::launch::async, [&] { return intOf(m_port.CallFunction(listOf(1), 0)); });
    ASSERT_TRUE(firstIsThere.Wait());
    auto others = std::async(std::launch::async, [&] {
        m_port.SetTimeoutMs(10000);
        return m_port.AddConnection("org.trelin.another");
    });

    EXPECT_TRUE(isReady(others, seconds(5)));
    answer.Open();
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(1, call.get());
    EXPECT_EQ(1, others.get());
}

TEST_F(CDbusPortCall, DeliversNothingToTheListenersOfASynchronousPort)
{
    std::atomic<int> delivered{0};
    m_port.SetCallbackListener([&](CValueList const&) { ++delivered; });
    m_port.SetFunctionCallListener([&](CValueList const&, int, CRpcPort::ReplyFunction const&) { ++delivered; });
    CRawServer const server(m_server, [](CRawPeer& peer, MessagePtr const& call) {
        std::string const caller = textOf(dbus_message_get_sender(call.get()));
        peer.Send(rawSignal(caller).get());
        peer.Send(rawCall(caller).get());
        Echo(peer, call);
    });

    EXPECT_EQ(1, intOf(m_port.CallFunction(listOf(1), 0)));
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
    EXPECT_EQ(0, delivered);
}

TEST_F(CDbusPortCall, InFlightEndsAtOnceWhenTheBusIsLost)
{
    CGate entered;
    CRawServer const server(m_server, [&](CRawPeer&, MessagePtr const&) { entered.Open(); });
    CLogCapture log;
    auto call = std::async(std::launch::async, [&] { return m_port.CallFunction(listOf(1), 0); });
    ASSERT_TRUE(entered.Wait());
    CBusOutage const outage;

    ASSERT_TRUE(isReady(call, seconds(10))) << "the default time-out is 25 seconds";
    EXPECT_TRUE(call.get().empty());
    expectNoReplyLines(log);
}

TEST_F(CDbusPortCall, InFlightEndsAtOnceWhenThePortIsDestroyed)
{
    CGate entered;
    CRawServer const server(m_server, [&](CRawPeer&, MessagePtr const&) { entered.Open(); });
    auto port = std::make_unique<CDbusPort>(m_client.c_str(), m_server.c_str(), false);
    auto call = std::async(std::launch::async, [called = port.get()] { return called->CallFunction(listOf(1), 0); });
    ASSERT_TRUE(entered.Wait());
    auto const start = steady_clock::now();
    port.reset();

    ASSERT_TRUE(isReady(call, seconds(10))) << "the default time-out is 25 seconds";
    EXPECT_TRUE(call.get().empty());
    EXPECT_LT(since(start), seconds(10));
}

TEST_F(CDbusPortCall, FailsAtOnceAfterTheBusWasLost)
{
    CEchoPort server(m_server);
    EXPECT_EQ(1, intOf(m_port.CallFunction(listOf(1), 0)));
    CBusOutage const outage;
    m_port.CallFunction(listOf(2), 0); // meets the loss
    CLogCapture log;

    auto const start = steady_clock::now();
    EXPECT_TRUE(m_port.CallFunction(listOf(3), 0).empty());
    EXPECT_LT(since(start), seconds(5));
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus error: "));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply"));
}

TEST_F(CDbusPortCall, DoesNotComeBackToLifeWithANewBus)
{
    m_port.IsConnected(0);
    {
        CBusOutage const outage;
    }
    CEchoPort server(m_server);

    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    EXPECT_FALSE(m_port.IsConnected(0));
    CDbusPort fresh(m_client.c_str(), m_server.c_str(), false);
    EXPECT_EQ(1, intOf(fresh.CallFunction(listOf(1), 0)));
}
