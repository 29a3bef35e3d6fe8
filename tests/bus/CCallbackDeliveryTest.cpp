#include "BusTest.h"
#include "CChildProcess.h"
#include "ThreadSwitches.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

using nelo_rpc::CCallbackDelivery;

namespace
{

/// A server's port that answers each call with its own list, or keeps it until the test lets it go.
class CCallbackDeliveryOnBus : public CBusTest
{
protected:
    void SetUp() override
    {
        m_serverPort.SetFunctionCallListener(
            [this](CValueList const& list, int id, CRpcPort::ReplyFunction const& reply) {
                m_clientId = id;
                if (intOf(list) == AFTER_A_CALLBACK)
                {
                    EXPECT_TRUE(m_serverPort.SendCallback(listOf(1), id));
                }
                if (intOf(list) == HELD)
                {
                    m_held.Put(reply);
                    return;
                }
                reply(list);
            });
        m_port.SetCallbackListener([this](CValueList const& list) { m_received.Put(intOf(list)); });
        ASSERT_EQ(1, intOf(m_port.CallFunction(listOf(1), 0))); // the server knows its client now
    }

    void TearDown() override { ReleaseHeld(); }

    void SendCallbacks(int first, int count)
    {
        for (int i = first; i < first + count; ++i)
        {
            ASSERT_TRUE(m_serverPort.SendCallback(listOf(i), m_clientId));
        }
    }

    /// A call that stays open until ReleaseHeld().
    std::future<int> StartHeldCall()
    {
        auto call = std::async(std::launch::async, [this] { return intOf(m_port.CallFunction(listOf(HELD), 0)); });
        EXPECT_TRUE(m_held.WaitForCount(++m_heldCount));
        return call;
    }

    void ReleaseHeld()
    {
        for (auto const& reply : m_held.All())
        {
            reply(listOf(HELD));
        }
    }

    static std::vector<int> Range(int first, int count)
    {
        std::vector<int> range;
        for (int i = first; i < first + count; ++i)
        {
            range.push_back(i);
        }
        return range;
    }

    static constexpr int HELD = -7;
    static constexpr int AFTER_A_CALLBACK = -8; // the answer comes behind a callback

    CInbox<int> m_received;
    CInbox<CRpcPort::ReplyFunction> m_held;
    std::atomic<int> m_clientId{-1};
    std::size_t m_heldCount = 0;
    CDbusPort m_serverPort{m_server.c_str(), true};
    CDbusPort m_port{m_client.c_str(), m_server.c_str(), false};
};

using CCallbackDeliveryDeathTest = CCallbackDeliveryOnBus;

std::chrono::nanoseconds processorTime()
{
    timespec now{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

} // namespace

TEST_F(CCallbackDeliveryOnBus, HandsCallbacksToTheListenerInOrder)
{
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 500);

    ASSERT_TRUE(m_received.WaitForCount(500));
    EXPECT_EQ(Range(0, 500), m_received.All());
}

TEST_F(CCallbackDeliveryOnBus, LogsAsAnyPortDoes)
{
    CLogCapture log;
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(5, 1);

    ASSERT_TRUE(m_received.WaitForCount(1));
    EXPECT_TRUE(log.WaitFor("handled"));
    EXPECT_EQ(1, countLines(log, ELevel::Debug,
                            "CDbusPort::OnDbusMessage received callback {0 = (CTypedValue<int> = 5) | }"));
}

TEST_F(CCallbackDeliveryOnBus, RunsHandlersOnOneThreadOfItsOwn)
{
    CInbox<std::thread::id> threads;
    m_port.SetCallbackListener([&](CValueList const&) { threads.Put(std::this_thread::get_id()); });
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 20);
    m_port.CallFunction(listOf(1), 0);
    SendCallbacks(0, 20);

    ASSERT_TRUE(threads.WaitForCount(40));
    auto const seen = threads.All();
    EXPECT_EQ(40, std::count(seen.begin(), seen.end(), seen.front()));
    EXPECT_NE(std::this_thread::get_id(), seen.front());
}

TEST_F(CCallbackDeliveryOnBus, RunsOneHandlerAtATime)
{
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    m_port.SetCallbackListener([&](CValueList const& list) {
        overlapped = overlapped || ++inside != 1;
        std::this_thread::yield();
        --inside;
        m_received.Put(intOf(list));
    });
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 200);

    EXPECT_TRUE(m_received.WaitForCount(200));
    EXPECT_FALSE(overlapped);
}

TEST_F(CCallbackDeliveryOnBus, WithoutItNothingIsDelivered)
{
    SendCallbacks(0, 10);
    EXPECT_EQ(3, intOf(m_port.CallFunction(listOf(3), 0)));

    EXPECT_EQ(0u, m_received.Count());
}

TEST_F(CCallbackDeliveryOnBus, DoesNotDelayCallbacks)
{
    CCallbackDelivery const delivery(m_port);
    auto const start = steady_clock::now();
    for (int i = 0; i < 50; ++i)
    {
        SendCallbacks(i, 1);
        ASSERT_TRUE(m_received.WaitForCount(static_cast<std::size_t>(i) + 1));
    }

    EXPECT_LT(since(start), seconds(5)); // 200 ms each, if it polled as slowly as an idle port
}

TEST_F(CCallbackDeliveryOnBus, DeliversWhileAnotherThreadIsInsideACall)
{
    CCallbackDelivery const delivery(m_port);
    auto call = StartHeldCall();
    SendCallbacks(0, 100);

    EXPECT_TRUE(m_received.WaitForCount(100));
    EXPECT_EQ(Range(0, 100), m_received.All());
    EXPECT_FALSE(isReady(call, milliseconds(0)));
    ReleaseHeld();
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(HELD, call.get());
}

TEST_F(CCallbackDeliveryOnBus, SleepsOnWhileCallsReadTheirReplies)
{
    constexpr int CALLS = 300;
    auto const others = threadsOfProcess();
    CCallbackDelivery const delivery(m_port);
    auto threads = threadsOfProcess();
    for (int const other : others)
    {
        threads.erase(other);
    }
    ASSERT_EQ(2u, threads.size());
    auto const countSleeps = [&] {
        long sleeps = 0;
        for (int const thread : threads)
        {
            sleeps += countSleepsOf(thread);
        }
        return sleeps;
    };
    SendCallbacks(0, 1);
    ASSERT_TRUE(m_received.WaitForCount(1)); // both threads are at work

    long const before = countSleeps();
    for (int i = 0; i < CALLS; ++i)
    {
        ASSERT_EQ(i, intOf(m_port.CallFunction(listOf(i), 0)));
    }

    EXPECT_LT(countSleeps() - before, CALLS / 3);
}

TEST_F(CCallbackDeliveryOnBus, DeliversWhatArrivesBehindAReplyOrBeforeOne)
{
    CCallbackDelivery const delivery(m_port);
    m_serverPort.SetFunctionCallListener([&](CValueList const& list, int id, CRpcPort::ReplyFunction const& reply) {
        int const first = intOf(list);
        EXPECT_TRUE(m_serverPort.SendCallback(listOf(first), id));
        EXPECT_TRUE(m_serverPort.SendCallback(listOf(first + 1), id));
        reply(list);
        EXPECT_TRUE(m_serverPort.SendCallback(listOf(first + 2), id));
    });
    for (int first = 0; first < 300; first += 3)
    {
        ASSERT_EQ(first, intOf(m_port.CallFunction(listOf(first), 0)));
        ASSERT_TRUE(m_received.WaitForCount(static_cast<std::size_t>(first) + 3)) << "none waits for the next call";
    }

    EXPECT_EQ(Range(0, 300), m_received.All());
}

TEST_F(CCallbackDeliveryOnBus, KeepsTheOrderWhileOtherThreadsCallAllTheTime)
{
    CCallbackDelivery const delivery(m_port);
    std::atomic<bool> stop{false};
    std::vector<std::future<bool>> callers;
    for (int t = 0; t < 3; ++t)
    {
        callers.push_back(std::async(std::launch::async, [&, t] {
            bool right = true;
            for (int i = 0; !stop; ++i)
            {
                int const value = t * 1000000 + i;
                right = right && intOf(m_port.CallFunction(listOf(value), 0)) == value;
            }
            return right;
        }));
    }
    SendCallbacks(0, 500);
    EXPECT_TRUE(m_received.WaitForCount(500));
    stop = true;

    EXPECT_EQ(Range(0, 500), m_received.All());
    for (auto& caller : callers)
    {
        ASSERT_TRUE(isReady(caller));
        EXPECT_TRUE(caller.get());
    }
}

TEST_F(CCallbackDeliveryOnBus, LeavesCallsTheirTimeout)
{
    CCallbackDelivery const delivery(m_port);
    m_port.SetTimeoutMs(100);
    CLogCapture log;

    auto const start = steady_clock::now();
    EXPECT_EQ(-1, intOf(m_port.CallFunction(listOf(HELD), 0)));
    EXPECT_GE(since(start), milliseconds(95));
    EXPECT_LT(since(start), seconds(5));
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus error: "));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply"));
}

TEST_F(CCallbackDeliveryOnBus, TakesNoReplyAtItsEndFromACallerWhoReadsIt)
{
    CChildProcess program({NELO_RPC_BUS_DIR "/DeliveryEndProgram", CPrivateBus::UniqueName()});
    EXPECT_EQ("answered", program.ReadLine().value_or("nothing"));
}

TEST_F(CCallbackDeliveryOnBus, BringsAReplyThatComesBehindACallback)
{
    CCallbackDelivery const delivery(m_port);
    // A caller reads its reply itself, and leaves that to the other thread when something else comes first.
    for (std::size_t i = 1; i <= 20; ++i)
    {
        ASSERT_EQ(AFTER_A_CALLBACK, intOf(m_port.CallFunction(listOf(AFTER_A_CALLBACK), 0)));
        ASSERT_TRUE(m_received.WaitForCount(i));
    }
}

TEST_F(CCallbackDeliveryOnBus, IsNotHarmedByALateReply)
{
    CCallbackDelivery const delivery(m_port);
    m_port.SetTimeoutMs(50);
    EXPECT_EQ(-1, intOf(m_port.CallFunction(listOf(HELD), 0)));
    m_port.SetTimeoutMs(10000);
    ASSERT_TRUE(m_held.WaitForCount(1));
    ReleaseHeld();

    EXPECT_EQ(4, intOf(m_port.CallFunction(listOf(4), 0)));
    SendCallbacks(9, 1);
    EXPECT_TRUE(m_received.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{9}, m_received.All());
}

TEST_F(CCallbackDeliveryOnBus, ReportsAnErrorReplyAsEver)
{
    CCallbackDelivery const delivery(m_port);
    int const nobody = m_port.AddConnection(CPrivateBus::UniqueName());
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOf(1), nobody).empty());
    EXPECT_EQ(1, countLinesThatBegin(log, ELevel::Error, "Dbus error: "));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply"));
}

TEST_F(CCallbackDeliveryOnBus, LetsAHandlerCall)
{
    CInbox<int> results;
    m_port.SetCallbackListener(
        [&](CValueList const& list) { results.Put(intOf(m_port.CallFunction(listOf(intOf(list) * 10), 0))); });
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(1, 3);

    ASSERT_TRUE(results.WaitForCount(3));
    EXPECT_EQ((std::vector<int>{10, 20, 30}), results.All());
}

TEST_F(CCallbackDeliveryOnBus, KeepsTheOrderOfCallbacksThatArriveWhileAHandlerCalls)
{
    m_port.SetCallbackListener([&](CValueList const& list) {
        int const value = intOf(list);
        if (value == 0)
        {
            SendCallbacks(1, 5);
            EXPECT_EQ(99, intOf(m_port.CallFunction(listOf(99), 0)));
            EXPECT_EQ(0u, m_received.Count()) << "no handler runs inside a handler";
        }
        m_received.Put(value);
    });
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 1);

    ASSERT_TRUE(m_received.WaitForCount(6));
    EXPECT_EQ(Range(0, 6), m_received.All());
}

TEST_F(CCallbackDeliveryOnBus, LetsAHandlerCallWhileAnotherThreadsCallIsOpen)
{
    // The handler has to wait for the call before it, as everybody does; it must not stop that one's reply.
    CInbox<int> results;
    CGate entered;
    m_port.SetCallbackListener([&](CValueList const&) {
        entered.Open();
        results.Put(intOf(m_port.CallFunction(listOf(8), 0)));
    });
    CCallbackDelivery const delivery(m_port);
    auto call = StartHeldCall();
    SendCallbacks(0, 1);
    ASSERT_TRUE(entered.Wait());
    ReleaseHeld();

    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(HELD, call.get());
    ASSERT_TRUE(results.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{8}, results.All());
}

TEST_F(CCallbackDeliveryOnBus, LetsAHandlerAskWhetherAPeerIsConnected)
{
    CInbox<bool> results;
    m_port.SetCallbackListener([&](CValueList const&) { results.Put(m_port.IsConnected(0)); });
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 1);

    ASSERT_TRUE(results.WaitForCount(1));
    EXPECT_EQ(std::vector<bool>{true}, results.All());
}

TEST_F(CCallbackDeliveryOnBus, LetsAHandlerReplaceItself)
{
    m_port.SetCallbackListener([this](CValueList const&) {
        m_port.SetCallbackListener([this](CValueList const& list) { m_received.Put(intOf(list)); });
    });
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(1, 3);

    ASSERT_TRUE(m_received.WaitForCount(2));
    EXPECT_EQ((std::vector<int>{2, 3}), m_received.All());
}

TEST_F(CCallbackDeliveryOnBus, DoesNotStopCallsWhileAHandlerIsBusy)
{
    CGate entered;
    CGate leave;
    m_port.SetCallbackListener([&](CValueList const&) {
        entered.Open();
        leave.Wait();
    });
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 1);
    ASSERT_TRUE(entered.Wait());

    auto call = std::async(std::launch::async, [this] { return intOf(m_port.CallFunction(listOf(6), 0)); });
    bool const inTime = isReady(call);
    leave.Open();
    EXPECT_TRUE(inTime);
    EXPECT_EQ(6, call.get());
}

TEST_F(CCallbackDeliveryOnBus, ReplacesAListenerOnlyWhenItIsNotRunning)
{
    CGate entered;
    CGate leave;
    m_port.SetCallbackListener([&](CValueList const&) {
        entered.Open();
        leave.Wait();
    });
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 1);
    ASSERT_TRUE(entered.Wait());

    auto replaced = std::async(std::launch::async, [this] { m_port.SetCallbackListener({}); });
    EXPECT_FALSE(isReady(replaced, milliseconds(200)));
    leave.Open();
    EXPECT_TRUE(isReady(replaced));
}

TEST_F(CCallbackDeliveryOnBus, WithoutAListenerDropsCallbacksWithAnErrorLineEach)
{
    m_port.SetCallbackListener({});
    CLogCapture log;
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 2);

    EXPECT_TRUE(log.WaitFor("Callback Listener is empty", 2));
    EXPECT_EQ(2, countLines(log, ELevel::Error, "Callback Listener is empty"));
}

TEST_F(CCallbackDeliveryOnBus, IgnoresSignalsOnOtherPaths)
{
    CRawPeer peer;
    std::string ownName;
    {
        CInbox<std::string> names;
        std::string const probe = CPrivateBus::UniqueName();
        CRawServer const server(probe, [&](CRawPeer& raw, MessagePtr const& call) {
            names.Put(textOf(dbus_message_get_sender(call.get())));
            answerInt(raw, call.get(), 1);
        });
        m_port.CallFunction({}, m_port.AddConnection(probe));
        ASSERT_TRUE(names.WaitForCount(1));
        ownName = names.All().front();
    }
    CLogCapture log;
    CCallbackDelivery const delivery(m_port);
    peer.Send(rawSignal(ownName, "/elsewhere").get());

    EXPECT_TRUE(log.WaitFor("CDbusPort::OnDbusMessage ignoring message from " + peer.GetUniqueName() +
                            " with path=/elsewhere"));
    SendCallbacks(3, 1);
    ASSERT_TRUE(m_received.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{3}, m_received.All());
}

TEST_F(CCallbackDeliveryOnBus, DeliversLargeCallbacks)
{
    CInbox<std::size_t> sizes;
    m_port.SetCallbackListener([&](CValueList const& list) {
        sizes.Put(nelo_rpc::types::unpackAt<std::vector<std::uint8_t>>(list, 0).size());
    });
    CCallbackDelivery const delivery(m_port);
    std::vector<std::size_t> const expected{64u << 10, 1u << 20, 20u << 20};
    auto const start = steady_clock::now();
    for (std::size_t size : expected)
    {
        EXPECT_TRUE(m_serverPort.SendCallback(listOfBytes(size), m_clientId));
    }

    ASSERT_TRUE(sizes.WaitForCount(3, seconds(60)));
    EXPECT_EQ(expected, sizes.All());
    EXPECT_LT(since(start), seconds(30));
}

TEST_F(CCallbackDeliveryOnBus, ReturnsLargeResults)
{
    CCallbackDelivery const delivery(m_port);
    m_serverPort.SetFunctionCallListener(
        [](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) { reply(list); });
    auto const start = steady_clock::now();
    CValueList const result = m_port.CallFunction(listOfBytes(20u << 20), 0);

    EXPECT_LT(since(start), seconds(20));
    ASSERT_EQ(1u, result.size());
    EXPECT_EQ(20u << 20, nelo_rpc::types::unpackAt<std::vector<std::uint8_t>>(result, 0).size());
}

TEST_F(CCallbackDeliveryOnBus, StopsWhenItIsDestroyed)
{
    CInbox<int> threads;
    m_port.SetCallbackListener([&](CValueList const&) { threads.Put(static_cast<int>(::syscall(SYS_gettid))); });
    {
        CCallbackDelivery const delivery(m_port);
        SendCallbacks(0, 1);
        ASSERT_TRUE(threads.WaitForCount(1));
        EXPECT_TRUE(isThreadAlive(threads.All().front()));
    }
    EXPECT_TRUE(eventually([&] { return !isThreadAlive(threads.All().front()); }));
    SendCallbacks(1, 5);
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));

    EXPECT_EQ(1u, threads.Count());
}

TEST_F(CCallbackDeliveryOnBus, StopsAtOnceWhenItIsIdle)
{
    auto const start = steady_clock::now();
    for (int i = 0; i < 20; ++i)
    {
        CCallbackDelivery const delivery(m_port);
    }

    EXPECT_LT(since(start), seconds(4)); // 200 ms each, if it were noticed at the next polling pass
}

TEST_F(CCallbackDeliveryOnBus, WaitsForTheHandlerThatIsRunning)
{
    CGate entered;
    CGate leave;
    std::atomic<bool> left{false};
    m_port.SetCallbackListener([&](CValueList const&) {
        entered.Open();
        leave.Wait();
        left = true;
    });
    auto delivery = std::make_unique<CCallbackDelivery>(m_port);
    SendCallbacks(0, 1);
    ASSERT_TRUE(entered.Wait());
    auto destroyed = std::async(std::launch::async, [&] { delivery.reset(); });

    EXPECT_FALSE(isReady(destroyed, milliseconds(200)));
    leave.Open();
    EXPECT_TRUE(isReady(destroyed));
    EXPECT_TRUE(left);
}

TEST_F(CCallbackDeliveryOnBus, CanBeMadeAgain)
{
    for (int i = 0; i < 5; ++i)
    {
        CCallbackDelivery const delivery(m_port);
        SendCallbacks(i, 1);
        ASSERT_TRUE(m_received.WaitForCount(static_cast<std::size_t>(i) + 1));
    }

    EXPECT_EQ(Range(0, 5), m_received.All());
}

TEST_F(CCallbackDeliveryOnBus, MayStartWhileACallIsOpen)
{
    auto call = StartHeldCall();
    auto started = std::async(std::launch::async, [this] { return std::make_unique<CCallbackDelivery>(m_port); });
    // Whether it can start beside the call or only behind it, neither may be lost.
    started.wait_for(milliseconds(200));
    ReleaseHeld();

    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(HELD, call.get());
    ASSERT_TRUE(isReady(started));
    auto const delivery = started.get();
    SendCallbacks(0, 3);
    EXPECT_TRUE(m_received.WaitForCount(3));
}

TEST_F(CCallbackDeliveryOnBus, MayEndWhileACallIsOpen)
{
    auto delivery = std::make_unique<CCallbackDelivery>(m_port);
    auto call = StartHeldCall();
    auto ended = std::async(std::launch::async, [&] { delivery.reset(); });
    ended.wait_for(milliseconds(200));
    ReleaseHeld();

    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(HELD, call.get());
    ASSERT_TRUE(isReady(ended));
    EXPECT_EQ(5, intOf(m_port.CallFunction(listOf(5), 0)));
}

TEST_F(CCallbackDeliveryOnBus, EndsAtOnceWhileACallIsOpen)
{
    auto delivery = std::make_unique<CCallbackDelivery>(m_port);
    auto call = StartHeldCall();
    auto ended = std::async(std::launch::async, [&] { delivery.reset(); });

    EXPECT_TRUE(isReady(ended));
    EXPECT_FALSE(isReady(call, milliseconds(0)));
    ReleaseHeld();
    ASSERT_TRUE(isReady(call));
    EXPECT_EQ(HELD, call.get());
}

TEST_F(CCallbackDeliveryOnBus, ComesAndGoesWhileThreadsCallAndCallbacksArrive)
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
    auto sender = std::async(std::launch::async, [&] {
        for (int i = 0; !stop; ++i)
        {
            SendCallbacks(i, 1);
        }
    });
    for (int i = 0; i < 20; ++i)
    {
        std::size_t const before = m_received.Count();
        CCallbackDelivery const delivery(m_port);
        EXPECT_TRUE(m_received.WaitForCount(before + 5));
    }
    stop = true;

    ASSERT_TRUE(isReady(caller));
    EXPECT_TRUE(caller.get());
    ASSERT_TRUE(isReady(sender));
    auto const received = m_received.All();
    EXPECT_TRUE(std::is_sorted(received.begin(), received.end()));
}

TEST_F(CCallbackDeliveryOnBus, CostsHardlyAnyProcessorTimeWhileACallIsOpen)
{
    CCallbackDelivery const delivery(m_port);
    auto call = StartHeldCall();
    auto const before = processorTime();
    EXPECT_FALSE(isReady(call, seconds(2)));

    EXPECT_LT(processorTime() - before, milliseconds(300));
    ReleaseHeld();
    ASSERT_TRUE(isReady(call));
}

TEST_F(CCallbackDeliveryOnBus, CostsHardlyAnyProcessorTimeAfterACall)
{
    CCallbackDelivery const delivery(m_port);
    SendCallbacks(0, 3);
    ASSERT_TRUE(m_received.WaitForCount(3));
    EXPECT_EQ(2, intOf(m_port.CallFunction(listOf(2), 0)));
    auto const before = processorTime();
    EXPECT_FALSE(m_received.WaitForCount(4, seconds(2)));

    EXPECT_LT(processorTime() - before, milliseconds(300));
}

TEST_F(CCallbackDeliveryOnBus, SurvivesTheLossOfTheBus)
{
    CCallbackDelivery const delivery(m_port);
    CBusOutage const outage;

    auto const start = steady_clock::now();
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    EXPECT_FALSE(m_port.IsConnected(0));
    EXPECT_LT(since(start), seconds(10));
}

TEST_F(CCallbackDeliveryOnBus, CostsHardlyAnyProcessorTimeAfterTheLossOfTheBus)
{
    CCallbackDelivery const delivery(m_port);
    CBusOutage const outage;
    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    auto const before = processorTime();
    EXPECT_FALSE(m_received.WaitForCount(1, seconds(2)));

    EXPECT_LT(processorTime() - before, milliseconds(300));
}

TEST_F(CCallbackDeliveryOnBus, LetsAnOpenCallEndAtOnceWhenTheBusIsLost)
{
    CCallbackDelivery const delivery(m_port);
    auto call = StartHeldCall();
    CBusOutage const outage;

    ASSERT_TRUE(isReady(call, seconds(10))) << "the default time-out is 25 seconds";
    EXPECT_EQ(-1, call.get());
}

TEST_F(CCallbackDeliveryOnBus, ServesMoreWaitingThreadsThanTheBusAllowsOpenCalls)
{
    constexpr int THREADS = 150;
    CCallbackDelivery const delivery(m_port);
    std::vector<std::future<int>> calls;
    for (int i = 0; i < THREADS; ++i)
    {
        calls.push_back(std::async(std::launch::async, [this, i] { return intOf(m_port.CallFunction(listOf(i), 0)); }));
    }
    for (int i = 0; i < THREADS; ++i)
    {
        ASSERT_TRUE(isReady(calls[static_cast<std::size_t>(i)], seconds(60)));
        EXPECT_EQ(i, calls[static_cast<std::size_t>(i)].get());
    }
}

TEST_F(CCallbackDeliveryOnBus, ServesCallsOneAfterTheOtherAsEver)
{
    CCallbackDelivery const delivery(m_port);
    auto first = StartHeldCall();
    auto second = std::async(std::launch::async, [this] { return intOf(m_port.CallFunction(listOf(2), 0)); });

    EXPECT_FALSE(isReady(second, milliseconds(300)));
    ReleaseHeld();
    ASSERT_TRUE(isReady(first));
    ASSERT_TRUE(isReady(second));
    EXPECT_EQ(2, second.get());
}

TEST_F(CCallbackDeliveryDeathTest, OfAnAsynchronousPortLogsAndAborts)
{
    EXPECT_ABORT(CCallbackDelivery const delivery(m_serverPort), "m_bUseAsync is true");
}

TEST_F(CCallbackDeliveryDeathTest, DestroyedByItsOwnHandlerStopsTheProcess)
{
    EXPECT_ABORT(
        {
            auto delivery = std::make_unique<CCallbackDelivery>(m_port);
            m_port.SetCallbackListener([&](CValueList const&) { delivery.reset(); });
            SendCallbacks(0, 1);
            std::this_thread::sleep_for(seconds(10)); // bounds the wait for the end
        },
        "");
}
