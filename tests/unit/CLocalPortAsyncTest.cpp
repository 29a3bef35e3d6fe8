#include "CFakePort.h"
#include "CGate.h"
#include "CInbox.h"
#include "CLogCapture.h"
#include "Eventually.h"
#include "ExpectAbort.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace nelo_rpc;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using types::CValueList;

namespace
{

using ReplyFunction = CRpcPort::ReplyFunction;

constexpr char const* SERVER = "org.example.server";

/// The default time-out is 25 seconds; whatever ends well before did not wait for it.
constexpr seconds AT_ONCE(10);

/// How a call ended, and where that was heard of.
struct SEnd
{
    ECallStatus status;
    std::string reason;
    int value; // -1 without one
    std::thread::id thread;
};

int intOf(CValueList const& list)
{
    return list.count(0) != 0 ? types::unpackAt<int>(list, 0) : -1;
}

CValueList tooLarge()
{
    return listOf(std::vector<std::uint8_t>(33 * 1024 * 1024));
}

CValueList withoutATag()
{
    CValueList list;
    list[0] = types::makeValue(true);
    return list;
}

/// A bus with a server's port that hands calls to the test, and a client's port.
class CLocalPortPair : public ::testing::Test
{
protected:
    CLocalPortPair()
    {
        m_client->SetCallbackListener([this](CValueList const& list) {
            m_ends.Put({ECallStatus::Ok, "callback", intOf(list), std::this_thread::get_id()});
        });
    }

    void AnswerAtOnce()
    {
        m_server->SetFunctionCallListener([](CValueList const& call, int, ReplyFunction const& reply) { reply(call); });
    }

    void KeepCalls()
    {
        m_server->SetFunctionCallListener([this](CValueList const& call, int, ReplyFunction const& reply) {
            m_values.Put(intOf(call));
            m_replies.Put(reply);
        });
    }

    void Start(CValueList const& call, CCallOptions const& options = {}, int connectionId = 0)
    {
        m_client->CallFunctionAsync(call, connectionId, options, [this](CCallResult const& result) {
            m_ends.Put({result.GetStatus(), result.GetReason(), intOf(result.GetList()), std::this_thread::get_id()});
        });
    }

    void Answer(std::size_t index, int value)
    {
        ASSERT_TRUE(m_replies.WaitForCount(index + 1));
        m_replies.All()[index](listOf(value));
    }

    /// The end that came as the last of so many.
    SEnd WaitForEnd(std::size_t count = 1)
    {
        if (!m_ends.WaitForCount(count))
        {
            ADD_FAILURE() << "there are only " << m_ends.Count() << " ends";
            return {};
        }
        return m_ends.All()[count - 1];
    }

    std::vector<int> Values() const
    {
        std::vector<int> values;
        for (SEnd const& end : m_ends.All())
        {
            values.push_back(end.value);
        }
        return values;
    }

    void ExpectBothWaysEndWith(ECallStatus status, CValueList const& call, CCallOptions const& options = {},
                               int connectionId = 0)
    {
        EXPECT_EQ(status, m_client->TryCallFunction(call, connectionId, options).GetStatus());
        std::size_t const before = m_ends.Count();
        Start(call, options, connectionId);
        SEnd const end = WaitForEnd(before + 1);
        EXPECT_EQ(status, end.status);
        EXPECT_NE(std::this_thread::get_id(), end.thread);
        EXPECT_EQ(status == ECallStatus::Ok, end.reason.empty()) << end.reason;
    }

    CInbox<int> m_values; // these outlive the ports
    CInbox<ReplyFunction> m_replies;
    CInbox<SEnd> m_ends;
    CLocalBus m_bus;
    std::unique_ptr<CLocalPort> m_server = std::make_unique<CLocalPort>(m_bus, SERVER, true);
    std::unique_ptr<CLocalPort> m_client = std::make_unique<CLocalPort>(m_bus, "client", SERVER, false);
};

using CLocalPortStatus = CLocalPortPair;
using CLocalPortAsync = CLocalPortPair;
using CLocalPortAsyncEnd = CLocalPortPair;
using CLocalPortAsyncDeathTest = CLocalPortPair;

} // namespace

// ---- how calls end ----

TEST_F(CLocalPortStatus, OfACallWithAResultIsOk)
{
    AnswerAtOnce();
    CCallResult const result = m_client->TryCallFunction(listOf(7), 0);

    EXPECT_EQ(ECallStatus::Ok, result.GetStatus());
    EXPECT_EQ(7, intOf(result.GetList()));
    ExpectBothWaysEndWith(ECallStatus::Ok, listOf(7));
}

TEST_F(CLocalPortStatus, OfACallWithAnEmptyResultIsOk)
{
    AnswerAtOnce();
    ExpectBothWaysEndWith(ECallStatus::Ok, {});
}

TEST_F(CLocalPortStatus, SaysThatThereIsNoServer)
{
    m_server.reset();
    ExpectBothWaysEndWith(ECallStatus::NoServer, listOf(1));
}

TEST_F(CLocalPortStatus, SaysThatThereIsNoServerUnderAnIdThatWasNeverHandedOut)
{
    AnswerAtOnce();
    ExpectBothWaysEndWith(ECallStatus::NoServer, listOf(1), {}, 99);
}

TEST_F(CLocalPortStatus, SaysThatTheServerRefused)
{
    m_server->SetFunctionCallListener([](CValueList const&, int, ReplyFunction const& reply) {
        reply(refusal::make(refusal::ACCESS_DENIED, "not for you"));
    });

    EXPECT_EQ("not for you", m_client->TryCallFunction(listOf(1), 0).GetReason());
    ExpectBothWaysEndWith(ECallStatus::Refused, listOf(1));
}

TEST_F(CLocalPortStatus, SaysThatTheServerCouldNotSendTheResult)
{
    m_server->SetFunctionCallListener(
        [](CValueList const&, int, ReplyFunction const& reply) { reply(listOf(std::string("\xff"))); });
    ExpectBothWaysEndWith(ECallStatus::Refused, listOf(1));
}

TEST_F(CLocalPortStatus, SaysThatTheArgumentsAreTooLarge)
{
    AnswerAtOnce();
    ExpectBothWaysEndWith(ECallStatus::TooLarge, tooLarge());
    CValueList many;
    for (int i = 0; i < 100; ++i)
    {
        many[i] = types::makeValue(i);
    }
    ExpectBothWaysEndWith(ECallStatus::TooLarge, many);
}

TEST_F(CLocalPortStatus, SaysThatAnArgumentCannotBeSentAndThrowsNothing)
{
    AnswerAtOnce();
    for (CValueList const& list : {listOf(std::string("\xff")), listOf(std::string("a\0b", 3)), withoutATag()})
    {
        ExpectBothWaysEndWith(ECallStatus::BadValue, list);
    }
}

TEST_F(CLocalPortStatus, SaysThatATimeoutMakesNoSense)
{
    KeepCalls();
    ExpectBothWaysEndWith(ECallStatus::BadValue, listOf(1), CCallOptions(-2));
    m_client->SetTimeoutMs(-1000);
    ExpectBothWaysEndWith(ECallStatus::BadValue, listOf(1));
    EXPECT_EQ(0u, m_values.Count()) << "neither was sent";
}

TEST_F(CLocalPortStatus, SaysThatTheTimePassed)
{
    KeepCalls();
    m_client->SetTimeoutMs(50);
    ExpectBothWaysEndWith(ECallStatus::TimedOut, listOf(1));
    EXPECT_TRUE(m_values.WaitForCount(2)) << "the calls were sent all the same";
}

TEST_F(CLocalPortStatus, SaysThatTheTimePassedWithATimeoutOfZeroHoweverQuickTheReplyIs)
{
    AnswerAtOnce();
    for (int i = 0; i < 100; ++i)
    {
        ExpectBothWaysEndWith(ECallStatus::TimedOut, listOf(1), CCallOptions(0));
    }
}

TEST_F(CLocalPortStatus, SaysThatTheServerLeftBeforeItAnswered)
{
    KeepCalls();
    auto call = std::async(std::launch::async, [this] { return m_client->TryCallFunction(listOf(1), 0); });
    ASSERT_TRUE(m_values.WaitForCount(1));
    Start(listOf(2));
    ASSERT_TRUE(m_values.WaitForCount(2));
    m_server.reset();

    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(ECallStatus::Disconnected, call.get().GetStatus());
    EXPECT_EQ(ECallStatus::Disconnected, WaitForEnd().status);
}

TEST_F(CLocalPortStatus, LeavesTheSameLinesAsACallWithoutIt)
{
    CLogCapture log;
    m_server.reset();
    m_client->TryCallFunction(listOf(1), 0);

    EXPECT_EQ((std::vector<std::string>{"Dbus error: no port has the name of the peer",
                                        "CLocalPort::SendMessage received empty reply"}),
              log.Texts(log::ELevel::Error));
}

// ---- time-outs of a call's own ----

TEST_F(CLocalPortStatus, TheTimeoutOfACallIsItsOwn)
{
    KeepCalls();
    auto const start = steady_clock::now();

    EXPECT_EQ(ECallStatus::TimedOut, m_client->TryCallFunction(listOf(1), 0, CCallOptions(50)).GetStatus());
    EXPECT_GE(since(start), milliseconds(50));
    EXPECT_LT(since(start), AT_ONCE);
    AnswerAtOnce();
    EXPECT_EQ(2, intOf(m_client->CallFunction(listOf(2), 0))) << "the port's is what it was";
}

TEST_F(CLocalPortStatus, TheTimeoutOfACallMayBeLongerThanThePorts)
{
    KeepCalls();
    m_client->SetTimeoutMs(1);
    auto call =
        std::async(std::launch::async, [this] { return m_client->TryCallFunction(listOf(1), 0, CCallOptions(-1)); });
    ASSERT_TRUE(m_replies.WaitForCount(1));
    EXPECT_FALSE(isReady(call, milliseconds(50)));
    Answer(0, 5);

    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(5, intOf(call.get().GetList()));
}

TEST_F(CLocalPortStatus, TheTimeoutOfACallCountsItsWaitBehindOthers)
{
    KeepCalls();
    auto first = std::async(std::launch::async, [this] { return m_client->CallFunction(listOf(1), 0); });
    ASSERT_TRUE(m_replies.WaitForCount(1));

    EXPECT_EQ(ECallStatus::TimedOut, m_client->TryCallFunction(listOf(2), 0, CCallOptions(50)).GetStatus());
    EXPECT_EQ(1u, m_values.Count()) << "it was not sent";
    Answer(0, 1);
    ASSERT_TRUE(isReady(first));
    AnswerAtOnce();
    EXPECT_EQ(ECallStatus::Ok, m_client->TryCallFunction(listOf(3), 0, CCallOptions(10000)).GetStatus());
}

// ---- asynchronous calls ----

TEST_F(CLocalPortAsync, ReturnsBeforeTheResult)
{
    KeepCalls();
    Start(listOf(1));
    ASSERT_TRUE(m_replies.WaitForCount(1));
    EXPECT_EQ(0u, m_ends.Count());
    Answer(0, 5);

    EXPECT_EQ(5, WaitForEnd().value);
}

TEST_F(CLocalPortAsync, CompletesWhereCallbacksAreDelivered)
{
    AnswerAtOnce();
    Start(listOf(1));
    WaitForEnd(1);
    ASSERT_TRUE(m_server->SendCallback(listOf(2), 0));
    WaitForEnd(2);

    EXPECT_EQ(m_ends.All()[0].thread, m_ends.All()[1].thread);
    EXPECT_NE(std::this_thread::get_id(), m_ends.All()[0].thread);
}

TEST_F(CLocalPortAsync, KeepsTheOrderOfResultsAndCallbacks)
{
    constexpr int CALLS = 100;
    m_server->SetFunctionCallListener([this](CValueList const& call, int id, ReplyFunction const& reply) {
        EXPECT_TRUE(m_server->SendCallback(listOf(2 * intOf(call)), id));
        reply(listOf(2 * intOf(call) + 1));
    });
    std::vector<int> expected;
    for (int i = 0; i < CALLS; ++i)
    {
        Start(listOf(i));
        expected.insert(expected.end(), {2 * i, 2 * i + 1});
    }
    WaitForEnd(2 * CALLS);

    EXPECT_EQ(expected, Values());
}

TEST_F(CLocalPortAsync, CompletesInTheOrderOfTheAnswers)
{
    KeepCalls();
    for (int i = 0; i < 3; ++i)
    {
        Start(listOf(i));
    }
    Answer(2, 2);
    Answer(0, 0);
    Answer(1, 1);
    WaitForEnd(3);

    EXPECT_EQ((std::vector<int>{2, 0, 1}), Values());
}

TEST_F(CLocalPortAsync, MaySeeManyCallsUnderWayEachAnsweredOnce)
{
    constexpr int CALLS = 1000;
    KeepCalls();
    for (int i = 0; i < CALLS; ++i)
    {
        Start(listOf(i));
    }
    ASSERT_TRUE(m_replies.WaitForCount(CALLS));
    std::vector<int> expected;
    auto const replies = m_replies.All();
    for (int i = 0; i < CALLS; ++i)
    {
        replies[static_cast<std::size_t>(i)](listOf(i));
        expected.push_back(i);
    }
    WaitForEnd(CALLS);

    EXPECT_EQ(expected, Values());
}

TEST_F(CLocalPortAsync, LeavesRoomForCallsThatWait)
{
    KeepCalls();
    Start(listOf(1));
    ASSERT_TRUE(m_replies.WaitForCount(1));
    AnswerAtOnce();

    EXPECT_EQ(2, intOf(m_client->CallFunction(listOf(2), 0)));
    EXPECT_EQ(0u, m_ends.Count());
    Answer(0, 1);
    EXPECT_EQ(1, WaitForEnd().value);
}

TEST_F(CLocalPortAsync, EndsEachCallAtItsOwnTimeout)
{
    KeepCalls();
    auto const start = steady_clock::now();
    Start(listOf(1), CCallOptions(300));
    Start(listOf(2), CCallOptions(10000));
    Start(listOf(3), CCallOptions(100));
    ASSERT_TRUE(m_replies.WaitForCount(3));

    EXPECT_EQ(ECallStatus::TimedOut, WaitForEnd(1).status);
    EXPECT_GE(since(start), milliseconds(100));
    EXPECT_EQ(ECallStatus::TimedOut, WaitForEnd(2).status);
    EXPECT_GE(since(start), milliseconds(300));
    EXPECT_LT(since(start), AT_ONCE);
    EXPECT_EQ(2u, m_ends.Count());
    Answer(1, 7);
    EXPECT_EQ(7, WaitForEnd(3).value);
}

TEST_F(CLocalPortAsync, DropsTheAnswerOfACallThatTimedOut)
{
    KeepCalls();
    Start(listOf(1), CCallOptions(20));
    WaitForEnd(1);
    Answer(0, 1);
    Start(listOf(2));
    Answer(1, 2);
    WaitForEnd(2);

    EXPECT_EQ((std::vector<int>{-1, 2}), Values());
}

TEST_F(CLocalPortAsync, LetsWhoHearsOfAnEndMakeFurtherCalls)
{
    AnswerAtOnce();
    m_client->CallFunctionAsync(listOf(1), 0, {}, [this](CCallResult const&) {
        m_values.Put(intOf(m_client->CallFunction(listOf(2), 0)));
        Start(listOf(3));
    });

    EXPECT_EQ(3, WaitForEnd().value);
    EXPECT_EQ(std::vector<int>{2}, m_values.All());
}

TEST_F(CLocalPortAsync, LetsGoOfWhatTheHandlerHoldsOnceItRan)
{
    AnswerAtOnce();
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watch = held;
    m_client->CallFunctionAsync(listOf(1), 0, {}, [held](CCallResult const&) {});
    held.reset();

    EXPECT_TRUE(eventually([&] { return watch.expired(); }));
}

TEST_F(CLocalPortAsync, OfSeveralThreadsGetsEachItsOwnResult)
{
    constexpr int CALLS = 200;
    AnswerAtOnce();
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back([&, t] {
            for (int i = 0; i < CALLS; ++i)
            {
                int const value = t * CALLS + i;
                m_client->CallFunctionAsync(listOf(value), 0, {}, [&, value](CCallResult const& result) {
                    right += intOf(result.GetList()) == value ? 1 : 0;
                    m_values.Put(value);
                });
            }
        });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }

    EXPECT_TRUE(m_values.WaitForCount(4 * CALLS));
    EXPECT_EQ(4 * CALLS, right);
}

// ---- the end of a port ----

TEST_F(CLocalPortAsyncEnd, CompletesEachOpenCallOnceBeforeTheDestructorReturns)
{
    KeepCalls();
    for (int i = 0; i < 10; ++i)
    {
        Start(listOf(i));
    }
    ASSERT_TRUE(m_replies.WaitForCount(10));
    m_client.reset();

    ASSERT_EQ(10u, m_ends.Count());
    for (SEnd const& end : m_ends.All())
    {
        EXPECT_EQ(ECallStatus::Disconnected, end.status);
        EXPECT_NE(std::this_thread::get_id(), end.thread);
    }
    Answer(0, 1); // to nobody
    EXPECT_EQ(10u, m_ends.Count());
}

TEST_F(CLocalPortAsyncEnd, DeliversResultsThatHaveComeAndDropsCallbacks)
{
    AnswerAtOnce();
    CGate entered;
    CGate leave;
    m_client->CallFunctionAsync(listOf(1), 0, {}, [&](CCallResult const&) {
        entered.Open();
        leave.Wait();
    });
    ASSERT_TRUE(entered.Wait());
    Start(listOf(2));
    ASSERT_EQ(3, intOf(m_client->CallFunction(listOf(3), 0))) << "so the call before it has its result";
    ASSERT_TRUE(m_server->SendCallback(listOf(4), 0));
    auto destroyed = std::async(std::launch::async, [this] { m_client.reset(); });
    EXPECT_FALSE(isReady(destroyed, milliseconds(50)));
    leave.Open();

    ASSERT_TRUE(isReady(destroyed));
    EXPECT_EQ(std::vector<int>{2}, Values());
}

TEST_F(CLocalPortAsyncEnd, FailsCallsThatAreStartedMeanwhileWhereTheyAreStarted)
{
    KeepCalls();
    CLocalPort* const client = m_client.get(); // the owner's pointer is empty while the port is being destroyed
    client->CallFunctionAsync(listOf(1), 0, {}, [this, client](CCallResult const&) {
        auto const here = std::this_thread::get_id();
        client->CallFunctionAsync(listOf(2), 0, {}, [this](CCallResult const& result) {
            m_ends.Put({result.GetStatus(), result.GetReason(), -1, std::this_thread::get_id()});
        });
        ASSERT_EQ(1u, m_ends.Count());
        EXPECT_EQ(here, m_ends.All()[0].thread);
        EXPECT_EQ(ECallStatus::Disconnected, m_ends.All()[0].status);
        EXPECT_EQ(ECallStatus::Disconnected, client->TryCallFunction(listOf(3), 0).GetStatus());
    });
    ASSERT_TRUE(m_replies.WaitForCount(1));
    m_client.reset();

    EXPECT_EQ(1u, m_ends.Count());
    EXPECT_EQ(1u, m_values.Count());
}

TEST_F(CLocalPortAsyncEnd, ComesSafelyWhileCallsAreAnsweredAndTimeOut)
{
    for (int round = 0; round < 50; ++round)
    {
        CInbox<ECallStatus> ends;
        CLocalPort server(m_bus, "org.example.other", true);
        server.SetFunctionCallListener([](CValueList const& call, int, ReplyFunction const& reply) { reply(call); });
        auto client = std::make_unique<CLocalPort>(m_bus, "client", "org.example.other", false);
        for (int i = 0; i < 20; ++i)
        {
            client->CallFunctionAsync(listOf(i), 0, CCallOptions(i % 3),
                                      [&](CCallResult const& result) { ends.Put(result.GetStatus()); });
        }
        client.reset();
        EXPECT_EQ(20u, ends.Count());
    }
}

// ---- misuse ----

TEST_F(CLocalPortAsyncDeathTest, ACallOnAnAsynchronousPortLogsAndAborts)
{
    EXPECT_ABORT(m_server->CallFunctionAsync(listOf(1), 0, {}, {}), "m_bUseAsync is true");
    EXPECT_ABORT(m_server->TryCallFunction(listOf(1), 0), "m_bUseAsync is true");
}

TEST_F(CLocalPortAsyncDeathTest, APortThatIsDestroyedByAHandlerOfItsOwnLogsAndAborts)
{
    AnswerAtOnce();
    auto const destroy = [this] {
        m_client->CallFunctionAsync(listOf(1), 0, {}, [this](CCallResult const&) { m_client.reset(); });
        m_ends.WaitForCount(1);
    };
    EXPECT_ABORT(destroy(), "CLocalPort::~CLocalPort called by a listener that it runs");
}
