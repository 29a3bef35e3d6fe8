#include "CFakePort.h"
#include "CGate.h"
#include "CHang.h"
#include "CInbox.h"
#include "CLogCapture.h"
#include "Eventually.h"
#include "ExpectAbort.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <utility>
#include <vector>

using namespace nelo_rpc;
using log::ELevel;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using types::CValueList;

namespace
{

using ReplyFunction = CRpcPort::ReplyFunction;
using Lines = std::vector<std::string>;

constexpr char const* SERVER = "org.example.server";

/// The default time-out is 25 seconds; whatever ends well before did not wait for it.
constexpr seconds AT_ONCE(10);

/// What is there when that many values are, or when the limit has passed.
template <class T>
std::vector<T> waitFor(CInbox<T> const& inbox, std::size_t count)
{
    inbox.WaitForCount(count);
    return inbox.All();
}

/// A received call whose answer the test gives.
struct SReceived
{
    int value;
    int connectionId;
    ReplyFunction reply;
};

/// The integer at 0; -1 without one.
int intOf(CValueList const& list)
{
    return list.count(0) != 0 ? types::unpackAt<int>(list, 0) : -1;
}

void echo(CValueList const& call, int /*connectionId*/, ReplyFunction const& reply)
{
    reply(call);
}

/// Runs on a thread of its own; the result must be waited for within limits.
template <class F>
auto inBackground(F function)
{
    return std::async(std::launch::async, std::move(function));
}

bool stillWaits(std::future<int> const& future)
{
    return !isReady(future, milliseconds(100));
}

void expectNoReplyLines(CLogCapture const& log, std::string const& cause = "")
{
    EXPECT_EQ(1, log.Count("Dbus error: " + cause));
    EXPECT_EQ(1, log.Count("CLocalPort::SendMessage received empty reply"));
    Lines const errors = log.Texts(ELevel::Error);
    EXPECT_EQ(2, std::count_if(errors.begin(), errors.end(), [](std::string const& line) {
                  return line.find("Dbus error: ") == 0 || line == "CLocalPort::SendMessage received empty reply";
              }));
    EXPECT_TRUE(log.Texts(ELevel::Fatal).empty());
}

/// A bus with a server's port that hands calls to the test, and a client's port.
class CLocalPortPair : public ::testing::Test
{
protected:
    void AnswerAtOnce() { m_server->SetFunctionCallListener(&echo); }

    void KeepCalls()
    {
        m_server->SetFunctionCallListener([this](CValueList const& call, int connectionId, ReplyFunction reply) {
            m_calls.Put({intOf(call), connectionId, std::move(reply)});
        });
    }

    int CallWith(int value) { return intOf(m_client->CallFunction(listOf(value), 0)); }

    /// Starts a call, and returns when the server has got it. Only after KeepCalls().
    std::future<int> CallInBackground(int value)
    {
        std::size_t const count = m_calls.All().size();
        auto call =
            inBackground([client = m_client.get(), value] { return intOf(client->CallFunction(listOf(value), 0)); });
        EXPECT_EQ(count + 1, waitFor(m_calls, count + 1).size());
        return call;
    }

    /// Makes the client known to the server, under the connection id 0.
    void Introduce()
    {
        AnswerAtOnce();
        EXPECT_EQ(1, CallWith(1));
    }

    CInbox<SReceived> m_calls; // these outlive the ports
    CInbox<int> m_gone;
    CInbox<std::thread::id> m_threads;
    CLocalBus m_bus;
    std::unique_ptr<CLocalPort> m_server = std::make_unique<CLocalPort>(m_bus, SERVER, true);
    std::unique_ptr<CLocalPort> m_client = std::make_unique<CLocalPort>(m_bus, "client", SERVER, false);
};

using CLocalPortCall = CLocalPortPair;
using CLocalPortCallback = CLocalPortPair;
using CLocalPortName = CLocalPortPair;
using CLocalPortEnd = CLocalPortPair;
using CLocalPortDeathTest = CLocalPortPair;

} // namespace

// ---- calls ----

TEST_F(CLocalPortCall, ReturnsTheResult)
{
    m_server->SetFunctionCallListener([](CValueList const& call, int, ReplyFunction const& reply) {
        reply(listOf(intOf(call) * 2, std::string("twice")));
    });

    EXPECT_EQ(types::toString(listOf(14, std::string("twice"))), types::toString(m_client->CallFunction(listOf(7), 0)));
}

TEST_F(CLocalPortCall, CarriesEveryClassOfValueThroughAMessage)
{
    CInbox<CValueList> seen;
    m_server->SetFunctionCallListener([&](CValueList const& call, int, ReplyFunction const& reply) {
        seen.Put(call);
        reply(call);
    });
    CValueList call = callOf(3, "Type", "Function", 7, std::string("text"), types::CCString("c text"));
    call[9] = std::make_shared<types::CBinaryValue>("\x00\xff", 2, 77);

    CValueList const result = m_client->CallFunction(call, 0);
    ASSERT_EQ(1u, waitFor(seen, 1).size());
    for (CValueList const& carried : {seen.All().front(), result})
    {
        EXPECT_EQ(types::toString(call), types::toString(carried));
        EXPECT_TRUE(types::hasType<int>(*carried.at(0)));
        EXPECT_TRUE(types::hasType<std::string>(*carried.at(1)));
        EXPECT_TRUE(types::hasType<char const*>(*carried.at(2)));
        auto const* const binary = dynamic_cast<types::CBinaryValue const*>(carried.at(9).get());
        ASSERT_NE(nullptr, binary);
        EXPECT_EQ(std::string("\x00\xff", 2), std::string(binary->GetData(), binary->GetSize()));
        EXPECT_EQ(77, binary->GetKind());
        EXPECT_NE(call.at(0), carried.at(0)) << "the sides share nothing";
    }
}

TEST_F(CLocalPortCall, LogsAsACallOnABusDoes)
{
    AnswerAtOnce();
    CLogCapture log;
    CallWith(5);

    EXPECT_TRUE(log.WaitFor("CLocalPort::OnDbusMessage from " + std::string(SERVER) + " handled"));
    EXPECT_EQ(1, log.Count("CLocalPort::SendMessage from client to " + std::string(SERVER)));
    EXPECT_EQ(1, log.Count("CLocalPort::OnDbusMessage from :local."));
    EXPECT_EQ(1, log.Count("CLocalPort::OnDbusMessage received function call request " + types::toString(listOf(5))));
}

TEST_F(CLocalPortCall, GivesEachCallerAnIdFromZeroUpAndKeepsIt)
{
    KeepCalls();
    CLogCapture log;
    CLocalPort other(m_bus, "client", SERVER, false); // a name that is not requested may be anybody's
    std::vector<int> ids;
    for (CLocalPort* const caller : {m_client.get(), &other, m_client.get()})
    {
        auto call = inBackground([caller] { return caller->CallFunction(listOf(1), 0); });
        auto const received = waitFor(m_calls, ids.size() + 1);
        ASSERT_EQ(ids.size() + 1, received.size());
        ids.push_back(received.back().connectionId);
        received.back().reply(listOf(1));
        ASSERT_TRUE(isReady(call));
    }

    EXPECT_EQ((std::vector<int>{0, 1, 0}), ids);
    EXPECT_EQ(2, log.Count("> Message from new client :local."));
    EXPECT_EQ(1, log.Count(", storing its connection id = 0"));
    EXPECT_EQ(1, log.Count(", storing its connection id = 1"));
}

TEST_F(CLocalPortCall, ToADefaultPeerThatIsMissingFailsAtOnce)
{
    CLocalPort client(m_bus, "client", "org.example.missing", false);
    CLogCapture log;
    auto const start = steady_clock::now();

    EXPECT_TRUE(client.CallFunction(listOf(1), 0).empty());
    EXPECT_LT(since(start), AT_ONCE);
    expectNoReplyLines(log, "no port has the name of the peer");
}

TEST_F(CLocalPortCall, ToAnIdThatWasNeverHandedOutFailsAsNoReply)
{
    AnswerAtOnce();
    for (int const connectionId : {99, -1})
    {
        CLogCapture log;
        EXPECT_TRUE(m_client->CallFunction(listOf(1), connectionId).empty());
        expectNoReplyLines(log);
        EXPECT_EQ("CLocalPort::SendMessage from client to ", log.Texts().front());
    }
    EXPECT_EQ(2, CallWith(2)) << "the port still works";
}

TEST_F(CLocalPortCall, EndsAtItsTimeout)
{
    KeepCalls();
    CLogCapture log;
    m_client->SetTimeoutMs(100);
    auto const start = steady_clock::now();

    EXPECT_EQ(-1, CallWith(1));
    EXPECT_GE(since(start), milliseconds(100));
    EXPECT_LT(since(start), AT_ONCE);
    EXPECT_EQ(1, log.Count("CLocalPort::SetTimeoutMs timeoutMs = 100"));
    expectNoReplyLines(log, "no reply within the time-out");
    EXPECT_EQ(1u, waitFor(m_calls, 1).size()) << "the call was sent all the same";
}

TEST_F(CLocalPortCall, WithATimeoutOfZeroFailsAtOnceHoweverQuickTheReplyIs)
{
    AnswerAtOnce();
    m_client->SetTimeoutMs(0);
    for (int i = 0; i < 100; ++i)
    {
        CLogCapture log;
        EXPECT_EQ(-1, CallWith(i));
        expectNoReplyLines(log);
    }
}

TEST_F(CLocalPortCall, WithATimeoutBelowMinusOneFailsAsNoReplyUntilTheNextOneIsSet)
{
    KeepCalls();
    for (int const timeoutMs : {-2, -1000, INT_MIN})
    {
        CLogCapture log;
        m_client->SetTimeoutMs(timeoutMs);
        EXPECT_EQ(-1, CallWith(1));
        expectNoReplyLines(log, "no time-out of " + std::to_string(timeoutMs) + " milliseconds");
    }

    AnswerAtOnce();
    m_client->SetTimeoutMs(INT_MAX);
    EXPECT_EQ(2, CallWith(2));
    EXPECT_TRUE(m_calls.All().empty()) << "the refused calls were never sent";
}

TEST_F(CLocalPortCall, WaitsAgainOnceTheTimeoutIsMinusOne)
{
    KeepCalls();
    m_client->SetTimeoutMs(20);
    m_client->SetTimeoutMs(-1);
    auto call = CallInBackground(3);

    EXPECT_TRUE(stillWaits(call));
    m_calls.All().front().reply(listOf(3));
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(3, call.get());
}

TEST_F(CLocalPortCall, EndsAfter25SecondsByDefaultSlow)
{
    KeepCalls();
    auto const start = steady_clock::now();

    EXPECT_EQ(-1, CallWith(1));
    EXPECT_GE(since(start), seconds(25));
    EXPECT_LT(since(start), seconds(40));
}

TEST_F(CLocalPortCall, IsNotHarmedByTheLateReplyOfAnEarlierCall)
{
    KeepCalls();
    m_client->SetTimeoutMs(20);
    EXPECT_EQ(-1, CallWith(1));
    ASSERT_EQ(1u, waitFor(m_calls, 1).size()); // it may arrive when nobody waits for its result any more
    m_client->SetTimeoutMs(-1);
    auto second = CallInBackground(2);
    auto const calls = m_calls.All();
    ASSERT_EQ(2u, calls.size());

    calls[0].reply(listOf(111));
    EXPECT_TRUE(stillWaits(second));
    calls[1].reply(listOf(222));
    ASSERT_TRUE(isReady(second));
    EXPECT_EQ(222, second.get());
}

TEST_F(CLocalPortCall, OfSeveralThreadsIsServedOneAfterTheOther)
{
    KeepCalls();
    auto first = CallInBackground(1);
    CLogCapture log;
    auto second = inBackground([this] { return CallWith(2); });
    ASSERT_TRUE(log.WaitFor("CLocalPort::SendMessage from client to"));

    EXPECT_TRUE(stillWaits(second));
    EXPECT_EQ(1u, m_calls.All().size()) << "the second call is not sent while the first is open";
    m_calls.All()[0].reply(listOf(10));
    ASSERT_EQ(2u, waitFor(m_calls, 2).size());
    m_calls.All()[1].reply(listOf(20));
    ASSERT_TRUE(isReady(first));
    ASSERT_TRUE(isReady(second));
    EXPECT_EQ(10, first.get());
    EXPECT_EQ(20, second.get());
}

TEST_F(CLocalPortCall, OfManyThreadsAndPortsGetsEachItsOwnResult)
{
    constexpr int CALLS = 100;
    AnswerAtOnce();
    CLocalPort other(m_bus, "other", SERVER, false);
    std::vector<std::future<int>> threads;
    for (int t = 0; t < 6; ++t)
    {
        threads.push_back(inBackground([port = t % 2 == 0 ? m_client.get() : &other, t] {
            int right = 0;
            for (int i = 0; i < CALLS; ++i)
            {
                int const value = t * CALLS + i;
                right += intOf(port->CallFunction(listOf(value), 0)) == value ? 1 : 0;
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

TEST_F(CLocalPortCall, DelaysAQuestionWhetherAPeerIsConnected)
{
    KeepCalls();
    auto call = CallInBackground(1);
    auto question = inBackground([this] { return static_cast<int>(m_client->IsConnected(0)); });

    EXPECT_TRUE(stillWaits(question));
    m_calls.All().front().reply(listOf(1));
    ASSERT_TRUE(isReady(question));
    EXPECT_EQ(1, question.get());
    ASSERT_TRUE(isReady(call));
}

TEST_F(CLocalPortCall, TakesRepliesLaterFromOtherThreadsInAnyOrder)
{
    KeepCalls();
    CLocalPort other(m_bus, "other", SERVER, false);
    auto first = CallInBackground(1);
    auto second = inBackground([&] { return intOf(other.CallFunction(listOf(2), 0)); });
    auto const calls = waitFor(m_calls, 2);
    ASSERT_EQ(2u, calls.size());

    calls[1].reply(listOf(20));
    ASSERT_TRUE(isReady(second));
    EXPECT_TRUE(stillWaits(first));
    calls[0].reply(listOf(10));
    ASSERT_TRUE(isReady(first));
    EXPECT_EQ(10, first.get());
    EXPECT_EQ(20, second.get());
}

TEST_F(CLocalPortCall, TakesTheFirstReplyOnly)
{
    m_server->SetFunctionCallListener([](CValueList const& call, int, ReplyFunction const& reply) {
        reply(call);
        reply(listOf(111));
        reply(listOf(std::string("\xff"))); // would be refused with an error line
    });
    CLogCapture log;

    EXPECT_EQ(5, CallWith(5));
    EXPECT_EQ(6, CallWith(6));
    EXPECT_EQ(0, log.Count("refused"));
}

TEST_F(CLocalPortCall, WithWhatABusRefusesIsNotSent)
{
    KeepCalls();
    CValueList tooLarge;
    tooLarge[0] = types::packValue(std::vector<std::uint8_t>(33 * 1024 * 1024));
    for (CValueList const& list : {listOf(std::string("\xff")), listOf(std::string("a\0b", 3)), tooLarge})
    {
        CLogCapture log;
        EXPECT_TRUE(m_client->CallFunction(list, 0).empty());
        expectNoReplyLines(log);
    }

    AnswerAtOnce();
    EXPECT_EQ(1, CallWith(1));
    EXPECT_TRUE(m_calls.All().empty());
}

TEST_F(CLocalPortCall, WithAValueThatHasNoPlaceInAMessageThrowsAndHoldsNoLock)
{
    AnswerAtOnce();
    CValueList list;
    list[0] = types::makeValue(true);

    EXPECT_THROW(m_client->CallFunction(list, 0), std::bad_cast);
    auto call = inBackground([this] { return CallWith(3); });
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(3, call.get());
}

TEST_F(CLocalPortCall, WithAResultThatABusRefusesEndsAtOnceWithTheCause)
{
    m_server->SetFunctionCallListener(
        [](CValueList const&, int, ReplyFunction const& reply) { reply(listOf(std::string("\xff"))); });
    CLogCapture log;
    auto const start = steady_clock::now();

    EXPECT_TRUE(m_client->CallFunction(listOf(1), 0).empty());
    EXPECT_LT(since(start), AT_ONCE);
    EXPECT_EQ(1, log.Count("CLocalPort::SendFunctionResult to :local."));
    EXPECT_EQ(1, log.Count("Dbus error: a string that is not valid UTF-8 cannot be sent"));
    EXPECT_EQ(1, log.Count("CLocalPort::SendMessage received empty reply"));
}

TEST_F(CLocalPortCall, RunsListenersOneAtATimeInOrderOnOneThread)
{
    constexpr int CALLS = 50;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    CInbox<std::thread::id> threads;
    m_server->SetFunctionCallListener([&](CValueList const& call, int, ReplyFunction const& reply) {
        overlapped = overlapped || ++inside != 1;
        threads.Put(std::this_thread::get_id());
        --inside;
        reply(call);
    });
    CLocalPort other(m_bus, "other", SERVER, false);
    auto const callOften = [](CLocalPort& port) {
        for (int i = 0; i < CALLS; ++i)
        {
            port.CallFunction(listOf(i), 0);
        }
    };
    auto rest = inBackground([&] { callOften(other); });
    callOften(*m_client);
    ASSERT_TRUE(isReady(rest));

    auto const all = threads.All();
    EXPECT_EQ(2u * CALLS, all.size());
    EXPECT_EQ(1u, std::set<std::thread::id>(all.begin(), all.end()).size());
    EXPECT_NE(std::this_thread::get_id(), all.front());
    EXPECT_FALSE(overlapped);
}

TEST_F(CLocalPortCall, WaitsForTheFirstListenerToBeInstalled)
{
    CLogCapture log;
    auto call = inBackground([this] { return CallWith(4); });
    ASSERT_TRUE(log.WaitFor("CLocalPort::SendMessage from client to"));

    EXPECT_TRUE(stillWaits(call));
    AnswerAtOnce();
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(4, call.get());
    EXPECT_FALSE(log.Contains("Function Listener is empty"));
}

TEST_F(CLocalPortCall, IsDroppedOnceTheListenerWasTakenAway)
{
    Introduce();
    m_server->SetFunctionCallListener({});
    m_client->SetTimeoutMs(50);
    CLogCapture log;

    EXPECT_EQ(-1, CallWith(1));
    EXPECT_TRUE(log.WaitFor("Function Listener is empty"));
    EXPECT_EQ(1, log.Count("Function Listener is empty"));
}

// ---- names ----

TEST_F(CLocalPortName, MakesAPeerConnectedAsLongAsItsPortLives)
{
    EXPECT_TRUE(m_client->IsConnected(0));
    EXPECT_FALSE(m_client->IsConnected(1));
    EXPECT_FALSE(m_client->IsConnected(-1));

    CLogCapture log;
    m_server.reset();
    EXPECT_FALSE(m_client->IsConnected(0));
    EXPECT_EQ(1, log.Count("CLocalPort::IsConnected returns false"));
}

TEST_F(CLocalPortName, OfTheDefaultPeerHasTheIdZero)
{
    // The server knows a peer by name, and meets another one.
    CLocalPort server(m_bus, "org.example.other", SERVER, true);
    CLocalPort client(m_bus, "client", "org.example.other", false);
    CInbox<int> ids;
    server.SetFunctionCallListener([&](CValueList const& call, int connectionId, ReplyFunction const& reply) {
        ids.Put(connectionId);
        reply(call);
    });
    client.CallFunction(listOf(1), 0);

    EXPECT_EQ(std::vector<int>{1}, ids.All());
    EXPECT_TRUE(server.IsConnected(0));
}

TEST_F(CLocalPortName, GoesToTheNextPortOfTheNameWhenTheFirstIsDestroyed)
{
    AnswerAtOnce();
    CLogCapture log;
    CLocalPort second(m_bus, SERVER, true);
    second.SetFunctionCallListener([](CValueList const&, int, ReplyFunction const& reply) { reply(listOf(222)); });

    EXPECT_EQ(1, log.Count("CLocalPort::CLocalPort name " + std::string(SERVER) + " has another owner"));
    EXPECT_EQ(1, CallWith(1));
    m_server.reset();
    EXPECT_EQ(222, CallWith(1));
}

TEST_F(CLocalPortName, MayBeTakenAgainByALaterPort)
{
    m_server.reset();
    CLogCapture log;
    m_server = std::make_unique<CLocalPort>(m_bus, SERVER, true);
    AnswerAtOnce();

    EXPECT_EQ(1, CallWith(1));
    EXPECT_FALSE(log.Contains("has another owner"));
    EXPECT_EQ(1, log.Count("CLocalPort created : bUseAsync = 1"));
}

TEST_F(CLocalPortName, ThatABusRefusesIsRefusedWithAnErrorLine)
{
    for (char const* const name : {"nodot", "", ":local.999", "a..b"})
    {
        CLogCapture log;
        CLocalPort port(m_bus, name, true);
        CLocalPort client(m_bus, "client", name, false);
        EXPECT_EQ(1, log.Count("Dbus request name failed: ")) << name;
        EXPECT_FALSE(client.IsConnected(0)) << name;
    }
}

TEST_F(CLocalPortName, OfASynchronousPortIsNotRequested)
{
    CLogCapture log;
    CLocalPort const synchronous(m_bus, "org.example.synchronous", false);
    CLocalPort const client(m_bus, "", "org.example.synchronous", false);

    EXPECT_FALSE(client.IsConnected(0));
    EXPECT_FALSE(log.Contains("request name failed"));
}

TEST_F(CLocalPortName, IsUnknownOnAnotherBus)
{
    CLocalBus otherBus;
    CLocalPort const client(otherBus, "client", SERVER, false);

    EXPECT_FALSE(client.IsConnected(0));
}

// ---- callbacks ----

TEST_F(CLocalPortCallback, ArriveInOrderOnOneThreadOfThePortsOwn)
{
    constexpr int CALLBACKS = 200;
    Introduce();
    CInbox<int> seen;
    CInbox<std::thread::id> threads;
    m_client->SetCallbackListener([&](CValueList const& list) {
        threads.Put(std::this_thread::get_id());
        seen.Put(intOf(list));
    });
    CLogCapture log;
    std::vector<int> sent;
    for (int i = 0; i < CALLBACKS; ++i)
    {
        sent.push_back(i);
        EXPECT_TRUE(m_server->SendCallback(listOf(i), 0));
    }

    EXPECT_EQ(sent, waitFor(seen, CALLBACKS));
    auto const all = threads.All();
    EXPECT_EQ(1u, std::set<std::thread::id>(all.begin(), all.end()).size());
    EXPECT_NE(std::this_thread::get_id(), all.front());
    EXPECT_EQ(1, log.Count("CLocalPort::OnDbusMessage received callback " + types::toString(listOf(7))));
}

TEST_F(CLocalPortCallback, ArriveWhileACallIsOpen)
{
    KeepCalls();
    CInbox<int> seen;
    m_client->SetCallbackListener([&](CValueList const& list) { seen.Put(intOf(list)); });
    auto call = CallInBackground(1);
    for (int const value : {1, 2, 3})
    {
        EXPECT_TRUE(m_server->SendCallback(listOf(value), 0));
    }

    EXPECT_EQ((std::vector<int>{1, 2, 3}), waitFor(seen, 3));
    EXPECT_TRUE(stillWaits(call));
    m_calls.All().front().reply(listOf(1));
    ASSERT_TRUE(isReady(call));
}

TEST_F(CLocalPortCallback, MayMakeCalls)
{
    Introduce();
    CInbox<int> results;
    m_client->SetCallbackListener([&](CValueList const& list) { results.Put(CallWith(intOf(list) + 100)); });
    m_server->SendCallback(listOf(1), 0);
    m_server->SendCallback(listOf(2), 0);

    EXPECT_EQ((std::vector<int>{101, 102}), waitFor(results, 2));
}

TEST_F(CLocalPortCallback, MayReplaceItsListener)
{
    Introduce();
    CInbox<int> seen;
    m_client->SetCallbackListener([&](CValueList const& list) {
        seen.Put(intOf(list));
        m_client->SetCallbackListener([&](CValueList const& later) { seen.Put(intOf(later) + 100); });
    });
    m_server->SendCallback(listOf(1), 0);
    m_server->SendCallback(listOf(2), 0);

    EXPECT_EQ((std::vector<int>{1, 102}), waitFor(seen, 2));
}

TEST_F(CLocalPortCallback, WithoutAListenerIsDroppedWithAnErrorLine)
{
    Introduce();
    CLogCapture log;

    EXPECT_TRUE(m_server->SendCallback(listOf(1), 0));
    EXPECT_TRUE(log.WaitFor("Callback Listener is empty"));
}

TEST_F(CLocalPortCallback, ToAnAsynchronousPortWaitsForNoListenerOfCalls)
{
    CLocalPort other(m_bus, "org.example.other", SERVER, true);
    CInbox<int> seen;
    m_server->SetCallbackListener([&](CValueList const& list) { seen.Put(intOf(list)); });

    EXPECT_TRUE(other.SendCallback(listOf(8), 0));
    EXPECT_EQ(std::vector<int>{8}, waitFor(seen, 1));
}

TEST_F(CLocalPortCallback, ToAPeerThatIsGoneIsNotSent)
{
    Introduce();
    m_client.reset();
    CLogCapture log;

    EXPECT_FALSE(m_server->SendCallback(listOf(1), 0));
    EXPECT_EQ(1, log.Count("CLocalPort::SendCallback failed, can't connect to :local."));
    EXPECT_FALSE(m_server->SendCallback(listOf(1), 5)) << "an id that was never handed out";
    EXPECT_TRUE(log.Texts(ELevel::Error).empty());
}

TEST_F(CLocalPortCallback, WithWhatABusRefusesIsNotSent)
{
    Introduce();
    CInbox<int> seen;
    m_client->SetCallbackListener([&](CValueList const& list) { seen.Put(intOf(list)); });
    CLogCapture log;

    EXPECT_FALSE(m_server->SendCallback(listOf(std::string("\xff")), 0));
    EXPECT_EQ(1, log.Count(" refused: a string that is not valid UTF-8 cannot be sent"));
    EXPECT_TRUE(m_server->SendCallback(listOf(1), 0));
    EXPECT_EQ(std::vector<int>{1}, waitFor(seen, 1));
}

// ---- the end of a port ----

TEST_F(CLocalPortEnd, EndsCallsToItAtOnce)
{
    KeepCalls();
    CLocalPort other(m_bus, "other", SERVER, false);
    auto answered = CallInBackground(1);
    CGate listenerIsBusy;
    CGate goOn;
    m_server->SetFunctionCallListener([&](CValueList const&, int, ReplyFunction const&) {
        listenerIsBusy.Open();
        goOn.Wait();
    });
    auto running = inBackground([&] { return intOf(other.CallFunction(listOf(2), 0)); });
    ASSERT_TRUE(listenerIsBusy.Wait());
    CLogCapture log;
    CLocalPort third(m_bus, "third", SERVER, false);
    auto queued = inBackground([&] { return intOf(third.CallFunction(listOf(3), 0)); });
    ASSERT_TRUE(log.WaitFor("CLocalPort::SendMessage from third"));

    auto end = inBackground([this] { m_server.reset(); });
    for (auto* const call : {&answered, &running, &queued})
    {
        ASSERT_TRUE(isReady(*call, AT_ONCE));
        EXPECT_EQ(-1, call->get());
    }
    EXPECT_EQ(3, log.Count("CLocalPort::SendMessage received empty reply"));
    EXPECT_FALSE(isReady(end, milliseconds(100))) << "a listener that runs is waited for";
    goOn.Open();
    ASSERT_TRUE(isReady(end));
}

TEST_F(CLocalPortEnd, EndsCallsFromItAtOnce)
{
    constexpr int WAITING = 20; // behind the open one; some are still inside when the port is gone
    KeepCalls();
    std::vector<std::future<int>> calls;
    calls.push_back(CallInBackground(1));
    CLogCapture log;
    for (int i = 0; i < WAITING; ++i)
    {
        calls.push_back(inBackground([client = m_client.get()] { return intOf(client->CallFunction(listOf(2), 0)); }));
    }
    ASSERT_TRUE(log.WaitFor("CLocalPort::SendMessage from client", WAITING));
    EXPECT_TRUE(stillWaits(calls.back()));
    m_client.reset();

    for (auto& call : calls)
    {
        ASSERT_TRUE(isReady(call, AT_ONCE));
        EXPECT_EQ(-1, call.get());
    }
    EXPECT_EQ(1u, m_calls.All().size()) << "those that waited were not sent";
}

TEST_F(CLocalPortEnd, LeavesReplyFunctionsWithNothingToDo)
{
    KeepCalls();
    auto call = CallInBackground(1);
    m_server.reset();
    ASSERT_TRUE(isReady(call, AT_ONCE));
    m_client.reset();
    CLogCapture log;
    auto const received = m_calls.All();
    ASSERT_EQ(1u, received.size());
    received[0].reply(listOf(1));
    received[0].reply(listOf(2));

    EXPECT_TRUE(log.Texts(ELevel::Error).empty());
    EXPECT_TRUE(log.Texts(ELevel::Fatal).empty());
}

TEST(CLocalBus, MayBeGoneWhenAReplyFunctionIsCalled)
{
    CInbox<SReceived> calls;
    {
        CLocalBus bus;
        CLocalPort server(bus, SERVER, true);
        server.SetFunctionCallListener([&](CValueList const& call, int connectionId, ReplyFunction reply) {
            calls.Put({intOf(call), connectionId, std::move(reply)});
        });
        CLocalPort client(bus, "client", SERVER, false);
        client.SetTimeoutMs(10);
        client.CallFunction(listOf(1), 0);
        ASSERT_EQ(1u, waitFor(calls, 1).size());
    }
    CLogCapture log;
    calls.All()[0].reply(listOf(1));

    EXPECT_TRUE(log.Lines().size() > 0) << "the result was made into a message";
    EXPECT_TRUE(log.Texts(ELevel::Error).empty());
}

TEST_F(CLocalPortEnd, EndsACallThatWaitsForTheFirstListener)
{
    CLogCapture log;
    auto call = inBackground([this] { return CallWith(1); });
    ASSERT_TRUE(log.WaitFor("CLocalPort::SendMessage from client"));
    EXPECT_TRUE(stillWaits(call));
    m_server.reset();

    ASSERT_TRUE(isReady(call, AT_ONCE));
    EXPECT_EQ(-1, call.get());
    EXPECT_FALSE(log.Contains("Function Listener is empty"));
}

TEST_F(CLocalPortEnd, WaitsForAHandlerThatRunsAndDropsWhatIsQueued)
{
    Introduce();
    CGate entered;
    CGate goOn;
    std::atomic<int> handled{0};
    m_client->SetCallbackListener([&](CValueList const&) {
        ++handled;
        entered.Open();
        goOn.Wait();
    });
    m_server->SendCallback(listOf(1), 0);
    m_server->SendCallback(listOf(2), 0);
    ASSERT_TRUE(entered.Wait());
    auto end = inBackground([this] { m_client.reset(); });

    EXPECT_FALSE(isReady(end, milliseconds(100)));
    goOn.Open();
    ASSERT_TRUE(isReady(end));
    EXPECT_EQ(1, handled);
}

TEST_F(CLocalPortEnd, ComesSafelyWhileOthersCallAndSend)
{
    AnswerAtOnce();
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    std::vector<std::future<void>> others;
    for (int t = 0; t < 2; ++t)
    {
        others.push_back(inBackground([&] {
            while (!stop)
            {
                CLocalPort client(m_bus, "client", SERVER, false);
                answered += intOf(client.CallFunction(listOf(1), 0)) == 1 ? 1 : 0;
            }
        }));
    }
    for (int i = 0; i < 20; ++i)
    {
        int const before = answered;
        EXPECT_TRUE(eventually([&] { return answered > before; }));
        m_server.reset();
        m_server = std::make_unique<CLocalPort>(m_bus, SERVER, true);
        AnswerAtOnce();
    }
    stop = true;
    for (auto& other : others)
    {
        ASSERT_TRUE(isReady(other));
    }
}

// ---- misuse ----

TEST_F(CLocalPortDeathTest, ACallOnAnAsynchronousPortLogsAndAborts)
{
    EXPECT_ABORT(m_server->CallFunction(listOf(1), 0), "m_bUseAsync is true. Please check type when dbus created");
}

TEST_F(CLocalPortDeathTest, ACallbackOnASynchronousPortLogsAndAborts)
{
    EXPECT_ABORT(m_client->SendCallback(listOf(1), 0), "m_bUseAsync is false. Please check type when dbus created");
}

TEST_F(CLocalPortDeathTest, APortThatIsDestroyedByItsListenerLogsAndAborts)
{
    EXPECT_ABORT(
        {
            m_server->SetFunctionCallListener(
                [this](CValueList const&, int, ReplyFunction const&) { m_server.reset(); });
            CallWith(1);
        },
        "CLocalPort::~CLocalPort called by a listener that it runs");
}

TEST_F(CLocalPortDeathTest, AListenerThatThrowsEndsTheProcess)
{
    EXPECT_ABORT(
        {
            m_server->SetFunctionCallListener([](CValueList const&, int, ReplyFunction const&) {
                throw std::runtime_error("thrown by the listener");
            });
            CallWith(1);
        },
        "thrown by the listener");
}

// ---- a host and its clients ----

namespace
{

enum class EColour
{
    Red = -5,
    Green = 40000
};

using Bytes = std::vector<std::uint8_t>;

/// What an application serves.
class CWorkshop
{
public:
    CWorkshop()
    {
        std::lock_guard<std::mutex> lock(mutex);
        living.insert(this);
    }

    ~CWorkshop()
    {
        std::lock_guard<std::mutex> lock(mutex);
        living.erase(this);
    }

    int Add(int amount) { return m_sum += amount; }
    void Reset() { m_sum = 0; }

    void SendMany(int count)
    {
        for (int i = 0; i < count; ++i)
        {
            OnStep.Send(i, "step " + std::to_string(i));
        }
    }

    CCallbackSender<int, std::string> OnStep;

    static std::set<CWorkshop*> Living()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return living;
    }

private:
    int m_sum = 0;

    static std::mutex mutex;
    static std::set<CWorkshop*> living;
};

std::mutex CWorkshop::mutex;
std::set<CWorkshop*> CWorkshop::living;

class CWorkshopProxy : public CActorProxy
{
public:
    explicit CWorkshopProxy(CRpcClient& client) : CActorProxy(&client, "Workshop") {}

    CProxyFunction<int(int)> Add{*this, "Add"};
    CProxyFunction<void()> Reset{*this, "Reset"};
    CProxyFunction<void(int)> SendMany{*this, "SendMany"};
    CProxyFunction<void()> SendAndWait{*this, "SendAndWait"};
    CProxyFunction<void()> Hang{*this, "Hang"};
    CProxyFunction<std::string(std::string)> Text{*this, "Text"};
    CProxyFunction<std::string(char const*)> CText{*this, "CText"};
    CProxyFunction<types::CCString(types::CCString)> CString{*this, "CString"};
    CProxyFunction<bool(bool)> Not{*this, "Not"};
    CProxyFunction<unsigned(unsigned)> Unsigned{*this, "Unsigned"};
    CProxyFunction<float(float)> Float{*this, "Float"};
    CProxyFunction<double(double)> Double{*this, "Double"};
    CProxyFunction<EColour(EColour)> Colour{*this, "Colour"};
    CProxyFunction<Bytes(Bytes)> Reverse{*this, "Reverse"};
    CProxyFunction<std::string(int, std::string, bool)> Several{*this, "Several"};
    CProxyCallback<int, std::string> OnStep{*this, "OnStep"};
};

void addTypedFunctions(CActor& actor)
{
    actor.AddFunction("Text", [](std::string const& text) { return "<" + text + ">"; });
    actor.AddFunction("CText", [](char const* text) { return std::string(text) + "!"; });
    actor.AddFunction("CString", [](types::CCString const& text) { return text; });
    actor.AddFunction("Not", [](bool value) { return !value; });
    actor.AddFunction("Unsigned", [](unsigned value) { return value; });
    actor.AddFunction("Float", [](float value) { return value / 2; });
    actor.AddFunction("Double", [](double value) { return value / 2; });
    actor.AddFunction("Colour", [](EColour colour) { return colour == EColour::Red ? EColour::Green : EColour::Red; });
    actor.AddFunction("Reverse", [](Bytes const& bytes) { return Bytes(bytes.rbegin(), bytes.rend()); });
    actor.AddFunction("Several", [](int number, std::string const& text, bool flag) {
        return std::to_string(number) + text + (flag ? "yes" : "no");
    });
}

/// A client in the order in which its parts must come and go.
class CLocalClient
{
public:
    explicit CLocalClient(CLocalBus& bus) : port(bus, "client", SERVER, false), client(port) {}

    /// The port goes on delivering, so the client has to be unhooked before it goes.
    ~CLocalClient() { port.SetCallbackListener({}); }

    CLocalPort port;
    CRpcClient client;
};

class CLocalHost : public ::testing::Test
{
protected:
    /// Long enough for a busy machine to answer the calls that do not hang.
    static SHostOptions ShortLimits()
    {
        SHostOptions options;
        options.hangLimitMs = 1500;
        options.hangCheckMs = 300;
        return options;
    }

    void StartHost(SHostOptions const& options = {})
    {
        m_host.reset();
        m_server = std::make_unique<CLocalPort>(m_bus, SERVER, true);
        m_host = std::make_unique<CRpcHost>(*m_server, options, [this](CRpcHost& host) { Register(host); });
    }

    void TearDown() override
    {
        StopHost();
        for (CWorkshop* const lost : CWorkshop::Living())
        {
            delete lost; // a kill leaves the objects of its client to themselves
        }
    }

    void StopHost()
    {
        m_host.reset();
        m_server.reset();
    }

    CGate m_sent;
    CGate m_goOn;
    CHang m_hang;
    CLocalBus m_bus;
    std::unique_ptr<CLocalPort> m_server;
    std::unique_ptr<CRpcHost> m_host;

private:
    void Register(CRpcHost& host)
    {
        host.RegisterActorType<CWorkshop>("Workshop", [this](CActor& actor, CWorkshop& workshop) {
            actor.AddFunction("Add", workshop, &CWorkshop::Add);
            actor.AddFunction("Reset", workshop, &CWorkshop::Reset);
            actor.AddFunction("SendMany", workshop, &CWorkshop::SendMany);
            actor.AddFunction("SendAndWait", [this, &workshop] { SendAndWait(workshop); });
            actor.AddFunction("Hang", [this] { m_hang.Enter(); });
            addTypedFunctions(actor);
            actor.AddCallback("OnStep", workshop.OnStep);
        });
    }

    void SendAndWait(CWorkshop& workshop)
    {
        workshop.SendMany(10);
        m_sent.Open();
        m_goOn.Wait();
    }
};

} // namespace

TEST_F(CLocalHost, ServesTypedCalls)
{
    StartHost();
    CLocalClient client(m_bus);
    CWorkshopProxy workshop(client.client);

    EXPECT_GT(workshop.GetId(), 0);
    EXPECT_EQ(3, workshop.Add(3));
    EXPECT_EQ(1, workshop.Add(-2));
    EXPECT_TRUE(workshop.Reset.TryCall());
    EXPECT_EQ(std::optional<int>(7), workshop.Add.TryCall(7));
    EXPECT_EQ("<ä>", workshop.Text("ä"));
    EXPECT_EQ("hello!", workshop.CText("hello"));
    EXPECT_STREQ("owned", workshop.CString(types::CCString("owned")).GetConst());
    EXPECT_TRUE(workshop.Not(false));
    EXPECT_FALSE(workshop.Not(true));
    EXPECT_EQ(4000000000u, workshop.Unsigned(4000000000u));
    EXPECT_EQ(1.25f, workshop.Float(2.5f));
    EXPECT_EQ(1e300, workshop.Double(2e300));
    EXPECT_EQ(EColour::Green, workshop.Colour(EColour::Red));
    EXPECT_EQ(EColour::Red, workshop.Colour(EColour::Green));
    EXPECT_EQ((Bytes{3, 0, 1}), workshop.Reverse(Bytes{1, 0, 3}));
    EXPECT_EQ(Bytes(), workshop.Reverse(Bytes()));
    EXPECT_EQ("5 is yes", workshop.Several(5, " is ", true));
}

TEST_F(CLocalHost, DeliversCallbacksInOrderWhileTheCallThatSendsThemRuns)
{
    StartHost();
    CLocalClient client(m_bus);
    CWorkshopProxy workshop(client.client);
    CInbox<std::string> steps;
    workshop.OnStep.Subscribe([&](int number, std::string const& text) { steps.Put(std::to_string(number) + text); });
    auto call = inBackground([&] { return static_cast<int>(workshop.SendAndWait.TryCall().has_value()); });
    ASSERT_TRUE(m_sent.Wait());

    auto const arrived = waitFor(steps, 10);
    ASSERT_EQ(10u, arrived.size());
    for (int i = 0; i < 10; ++i)
    {
        EXPECT_EQ(std::to_string(i) + "step " + std::to_string(i), arrived[static_cast<std::size_t>(i)]);
    }
    EXPECT_TRUE(stillWaits(call));
    m_goOn.Open();
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(1, call.get());
}

TEST_F(CLocalHost, DestroysAnObjectWithItsProxyAndTheRestAtItsEnd)
{
    StartHost();
    CLocalClient client(m_bus);
    auto first = std::make_unique<CWorkshopProxy>(client.client);
    CWorkshopProxy second(client.client);
    EXPECT_EQ(2u, CWorkshop::Living().size());
    EXPECT_NE(first->GetId(), second.GetId());

    first.reset();
    EXPECT_EQ(1u, CWorkshop::Living().size()) << "the proxy's destructor waits for the server";
    EXPECT_EQ(4, second.Add(4));
    StopHost();
    EXPECT_EQ(0u, CWorkshop::Living().size());
}

TEST_F(CLocalHost, KillsAHungCallAndTellsItsClient)
{
    StartHost(ShortLimits());
    CLocalClient client(m_bus);
    CGate killed;
    CGate recreated;
    CProxyCallback<>(*client.client.GetConnectionProxy(), protocol::ON_KILL).Subscribe([&] { killed.Open(); });
    CWorkshopProxy workshop(client.client);
    workshop.OnRecreate.Subscribe([&] { recreated.Open(); });
    EXPECT_EQ(5, workshop.Add(5));

    EXPECT_FALSE(workshop.Hang.TryCall().has_value());
    EXPECT_TRUE(killed.Wait());
    EXPECT_FALSE(m_hang.CameBack());
    EXPECT_FALSE(recreated.IsOpen());
    EXPECT_EQ(2, workshop.Add(2)) << "the object is a new one";
    EXPECT_TRUE(recreated.Wait());
}

TEST_F(CLocalHost, ServesOtherClientsWhileOneHangs)
{
    StartHost(ShortLimits());
    CLocalClient hanging(m_bus);
    CLocalClient busy(m_bus);
    CWorkshopProxy hangingWorkshop(hanging.client);
    CWorkshopProxy busyWorkshop(busy.client);
    busyWorkshop.Add(1);
    auto hung = inBackground([&] { return static_cast<int>(hangingWorkshop.Hang.TryCall().has_value()); });
    ASSERT_TRUE(m_hang.WaitUntilEntered());

    EXPECT_EQ(2, busyWorkshop.Add(1));
    ASSERT_TRUE(isReady(hung));
    EXPECT_EQ(0, hung.get());
    EXPECT_EQ(3, busyWorkshop.Add(1)) << "its object is still the same";
    EXPECT_EQ(1, hangingWorkshop.Add(1)) << "a lost actor has to be made anew before it can be destroyed";
}

TEST_F(CLocalHost, ServesClientsInParallel)
{
    constexpr int CALLS = 100;
    StartHost();
    std::vector<std::future<int>> clients;
    for (int c = 0; c < 2; ++c)
    {
        clients.push_back(inBackground([this] {
            CLocalClient client(m_bus);
            CWorkshopProxy workshop(client.client);
            CInbox<int> steps;
            workshop.OnStep.Subscribe([&](int number, std::string const&) { steps.Put(number); });
            int sum = 0;
            for (int i = 0; i < CALLS; ++i)
            {
                sum = workshop.Add(1);
                workshop.SendMany(1);
            }
            return sum + static_cast<int>(waitFor(steps, CALLS).size());
        }));
    }
    for (auto& client : clients)
    {
        ASSERT_TRUE(isReady(client, seconds(60)));
        EXPECT_EQ(2 * CALLS, client.get());
    }
    EXPECT_EQ(0u, CWorkshop::Living().size());
}

TEST_F(CLocalHost, LetsACallTimeOut)
{
    StartHost();
    CLocalClient client(m_bus);
    CWorkshopProxy workshop(client.client);
    client.client.SetTimeoutMs(100);

    EXPECT_FALSE(workshop.SendAndWait.TryCall().has_value());
    EXPECT_TRUE(m_sent.Wait());
    m_goOn.Open();
    client.client.SetTimeoutMs(-1);
    EXPECT_EQ(2, workshop.Add(2));
}

TEST_F(CLocalHost, LetsAHandlerCallItsProxy)
{
    StartHost();
    CLocalClient client(m_bus);
    CWorkshopProxy workshop(client.client);
    CInbox<int> sums;
    workshop.OnStep.Subscribe([&](int, std::string const&) { sums.Put(workshop.Add(10)); });
    workshop.SendMany(3);

    EXPECT_EQ((std::vector<int>{10, 20, 30}), waitFor(sums, 3));
}

TEST_F(CLocalHost, LetsAHandlerDestroyItsProxy)
{
    StartHost();
    CLocalClient client(m_bus);
    auto workshop = std::make_unique<CWorkshopProxy>(client.client);
    CGate destroyed;
    std::atomic<int> handled{0};
    workshop->OnStep.Subscribe([&](int, std::string const&) {
        ++handled;
        workshop.reset();
        destroyed.Open(); // still captured: the handler outlives its proxy until it returns
    });
    // The call goes past the proxy, which is gone when it returns.
    EXPECT_EQ(1u, client.client.CallFunction("Workshop", workshop->GetId(), "SendMany", listOf(2)).count(0));

    EXPECT_TRUE(destroyed.Wait());
    EXPECT_EQ(1, handled) << "the second callback finds no proxy";
    EXPECT_EQ(0u, CWorkshop::Living().size());
}

TEST_F(CLocalHost, ThatIsMadeAfterAClientCalledAnswersIt)
{
    m_server = std::make_unique<CLocalPort>(m_bus, SERVER, true);
    CLocalClient client(m_bus);
    CLogCapture log;
    auto made = inBackground([&] {
        CWorkshopProxy workshop(client.client);
        return workshop.GetId();
    });
    ASSERT_TRUE(log.WaitFor("CLocalPort::SendMessage from client"));
    EXPECT_TRUE(stillWaits(made));

    m_host = std::make_unique<CRpcHost>(*m_server, SHostOptions(), [](CRpcHost& host) {
        host.RegisterActorType<CWorkshop>("Workshop", [](CActor&, CWorkshop&) {});
    });
    ASSERT_TRUE(isReady(made));
    EXPECT_GT(made.get(), 0);
}

TEST_F(CLocalHost, ThatIsStartedAgainMakesTheActorsOfItsClientsAnew)
{
    StartHost();
    CLocalClient client(m_bus);
    CWorkshopProxy workshop(client.client);
    CGate recreated;
    workshop.OnRecreate.Subscribe([&] { recreated.Open(); });
    EXPECT_EQ(5, workshop.Add(5));
    StopHost();
    EXPECT_FALSE(client.client.IsConnected());
    EXPECT_FALSE(workshop.Add.TryCall(1).has_value());

    StartHost();
    EXPECT_TRUE(client.client.IsConnected());
    EXPECT_EQ(1, workshop.Add(1));
    EXPECT_TRUE(recreated.Wait());
}

TEST_F(CLocalHost, RemovesTheActorsOfAClientThatIsGoneWhenACallbackFails)
{
    StartHost();
    {
        CLocalPort port(m_bus, "client", SERVER, false); // it leaves without a word
        EXPECT_EQ(1u,
                  port.CallFunction(callOf(0, protocol::CONNECTION_TYPE, protocol::CTOR, std::string("Workshop")), 0)
                      .count(0));
    }
    EXPECT_EQ(1u, CWorkshop::Living().size());
    CLogCapture log;
    (*CWorkshop::Living().begin())->SendMany(1);

    EXPECT_TRUE(eventually([] { return CWorkshop::Living().empty(); }));
    EXPECT_EQ(1, log.Count("CClientConnection::SendCallback client disappeared, unregistering actor"));
}

// ---- refusals ----

TEST_F(CLocalPortPair, EndsACallThatIsRefusedAsFailedWithItsCause)
{
    m_server->SetFunctionCallListener([](CValueList const&, int, ReplyFunction const& reply) {
        reply(refusal::make(refusal::ACCESS_DENIED, "not for you"));
    });
    CLogCapture log;

    EXPECT_TRUE(m_client->CallFunction(listOf(1), 0).empty());
    expectNoReplyLines(log, "not for you");
}

TEST_F(CLocalPortPair, SurvivesARefusalThatABusWouldNotCarry)
{
    m_server->SetFunctionCallListener([](CValueList const& call, int, ReplyFunction const& reply) {
        reply(intOf(call) == 1 ? refusal::make("no name", "caf\xe9") : refusal::make("", ""));
    });
    for (int const call : {1, 2})
    {
        CLogCapture log;
        EXPECT_TRUE(m_client->CallFunction(listOf(call), 0).empty());
        expectNoReplyLines(log, "the call was refused");
    }
}

// ---- what is known of peers ----

TEST_F(CLocalPortPair, KnowsThatItsPeersAreThisProcess)
{
    AnswerAtOnce();
    EXPECT_FALSE(m_server->GetPeerCredentials(0).has_value());
    EXPECT_EQ("", m_server->GetPeerName(0));
    CallWith(1);

    auto const credentials = m_server->GetPeerCredentials(0);
    ASSERT_TRUE(credentials.has_value());
    EXPECT_EQ(::geteuid(), credentials->uid);
    EXPECT_EQ(::getegid(), credentials->gid);
    EXPECT_EQ(::getpid(), credentials->pid);
    EXPECT_EQ(':', m_server->GetPeerName(0).front());
    EXPECT_EQ(SERVER, m_client->GetPeerName(0));
    EXPECT_FALSE(m_server->GetPeerCredentials(1).has_value());

    m_client.reset();
    EXPECT_FALSE(m_server->GetPeerCredentials(0).has_value());
}

TEST_F(CLocalPortPair, TellsOfEachPeerThatEndsOnceAndOnItsOwnThread)
{
    CInbox<std::thread::id>& threads = m_threads;
    CInbox<int>& gone = m_gone;
    m_server->SetFunctionCallListener([&](CValueList const& call, int, ReplyFunction const& reply) {
        threads.Put(std::this_thread::get_id());
        reply(call);
    });
    EXPECT_TRUE(m_server->WatchPeers([&](int id) {
        threads.Put(std::this_thread::get_id());
        gone.Put(id);
    }));
    CallWith(1);
    EXPECT_EQ(0U, gone.Count());
    m_client.reset();

    EXPECT_EQ(std::vector<int>{0}, waitFor(gone, 1));
    EXPECT_EQ(threads.All()[0], threads.All()[1]);
    EXPECT_TRUE(m_server->WatchPeers([&](int id) { gone.Put(id); }));
    CLocalPort next(m_bus, "next", SERVER, false);
    next.CallFunction(listOf(1), 0);
    EXPECT_EQ(std::vector<int>{0}, gone.All());
}

TEST_F(CLocalPortPair, TellsOfPeersThatEndedBeforeItWatched)
{
    AnswerAtOnce();
    CallWith(1);
    m_client.reset();
    CInbox<int>& gone = m_gone;
    EXPECT_TRUE(m_server->WatchPeers([&](int id) { gone.Put(id); }));

    EXPECT_EQ(std::vector<int>{0}, waitFor(gone, 1));
}

TEST_F(CLocalPortPair, TellsOfAPeerWhoseCallWasStillQueuedWhenItEnded)
{
    KeepCalls();
    CGate leave;
    CGate entered;
    m_server->SetCallbackListener([&](CValueList const&) {
        entered.Open();
        leave.Wait();
    });
    CInbox<int>& gone = m_gone;
    CLocalPort sender(m_bus, "org.example.sender", SERVER, true);
    ASSERT_TRUE(sender.SendCallback(listOf(1), 0));
    ASSERT_TRUE(entered.Wait());
    {
        CLocalPort brief(m_bus, "org.example.brief", SERVER, true);
        ASSERT_TRUE(brief.SendCallback(listOf(2), 0));
    }
    EXPECT_TRUE(m_server->WatchPeers([&](int id) { gone.Put(id); }));
    leave.Open();

    EXPECT_EQ(std::vector<int>{1}, waitFor(gone, 1));
}

TEST_F(CLocalPortPair, TellsOfNobodyAfterTheWatch)
{
    AnswerAtOnce();
    CInbox<int>& gone = m_gone;
    EXPECT_TRUE(m_server->WatchPeers([&](int id) { gone.Put(id); }));
    CallWith(1);
    EXPECT_TRUE(m_server->WatchPeers({}));
    m_client.reset();
    CLocalPort next(m_bus, "next", SERVER, false);
    next.CallFunction(listOf(1), 0); // behind what the end of the other would have brought

    EXPECT_EQ(0U, gone.Count());
}
