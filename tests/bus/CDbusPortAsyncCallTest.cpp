#include "BusTest.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <ctime>
#include <fstream>
#include <optional>
#include <utility>

using nelo_rpc::CCallbackDelivery;
using nelo_rpc::CCallOptions;
using nelo_rpc::CCallResult;
using nelo_rpc::ECallStatus;

namespace
{

/// How many calls a port has under way; the bus lets a connection have 128, and questions of the port's are among them.
constexpr std::size_t WINDOW = 100;

/// Well below the default time-out of 25 seconds: whatever ends within did not wait for it.
constexpr seconds AT_ONCE(15);

enum class EReading
{
    Delivery, // a CCallbackDelivery
    Loop      // an application's loop, on a thread of its own
};

/// Reads a client's port until it is destroyed.
class CReading
{
public:
    CReading(CDbusPort& port, EReading way)
    {
        if (way == EReading::Delivery)
        {
            m_delivery.emplace(port);
            return;
        }
        m_stop = ::eventfd(0, EFD_CLOEXEC);
        int const fd = port.GetPollFd(); // here, so that everything after the constructor is kept for the loop
        m_loop = std::thread([this, &port, fd] { Loop(port, fd); });
    }

    CReading(CReading const&) = delete;
    CReading& operator=(CReading const&) = delete;

    ~CReading()
    {
        if (m_loop.joinable())
        {
            ::eventfd_write(m_stop, 1);
            m_loop.join();
            ::close(m_stop);
        }
    }

private:
    /// What an application does: nothing but the port's descriptor tells it that there is something to do.
    void Loop(CDbusPort& port, int fd) const
    {
        pollfd waiting[] = {{m_stop, POLLIN, 0}, {fd, POLLIN, 0}};
        while (::poll(waiting, 2, -1) > 0 && waiting[0].revents == 0)
        {
            port.DispatchCallbacks();
        }
    }

    std::optional<CCallbackDelivery> m_delivery;
    int m_stop = -1;
    std::thread m_loop;
};

struct SEnd
{
    ECallStatus status;
    std::string reason;
    int value; // -1 without one
    std::thread::id thread;
};

/// The memory that the process has.
std::size_t residentBytes()
{
    std::size_t total = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

CValueList tooLarge()
{
    return listOfBytes(33 * 1024 * 1024);
}

CValueList withoutATag()
{
    CValueList list;
    list[0] = nelo_rpc::types::makeValue(true);
    return list;
}

std::vector<int> rangeOf(int count)
{
    std::vector<int> range;
    for (int i = 0; i < count; ++i)
    {
        range.push_back(i);
    }
    return range;
}

/// A server that keeps calls or answers them at once, and a client's port that something reads.
class CDbusPortAsyncCallBase : public CBusTest
{
protected:
    void SetUpPorts()
    {
        m_serverPort->SetFunctionCallListener(
            [this](CValueList const& call, int id, CRpcPort::ReplyFunction const& reply) {
                m_clientId = id;
                bool const isKept = m_isKeeping;
                if (isKept)
                {
                    m_replies.Put(reply); // before the test may hear of the arrival
                }
                m_arrived.Put(intOf(call));
                if (!isKept)
                {
                    reply(call);
                }
            });
        m_port->SetCallbackListener([this](CValueList const& list) {
            m_ends.Put({ECallStatus::Ok, "callback", intOf(list), std::this_thread::get_id()});
        });
        ASSERT_EQ(1, intOf(m_port->CallFunction(listOf(1), 0))); // the server knows its client now
        m_arrivedBefore = m_arrived.Count();
    }

    void Keep() { m_isKeeping = true; }

    /// Answers what was kept, and everything that comes.
    void AnswerAll()
    {
        m_isKeeping = false;
        for (auto const& reply : m_replies.All())
        {
            reply(listOf(0));
        }
    }

    void Start(CValueList const& call, CCallOptions const& options = {}, int connectionId = 0)
    {
        m_port->CallFunctionAsync(call, connectionId, options, [this](CCallResult const& result) {
            m_ends.Put({result.GetStatus(), result.GetReason(), intOf(result.GetList()), std::this_thread::get_id()});
        });
    }

    void StartMany(int count, CCallOptions const& options = {})
    {
        for (int i = 0; i < count; ++i)
        {
            Start(listOf(i), options);
        }
    }

    /// What has reached the server, in order.
    std::vector<int> Arrived() const
    {
        auto const all = m_arrived.All();
        return {all.begin() + static_cast<std::ptrdiff_t>(m_arrivedBefore), all.end()};
    }

    bool WaitForArrivals(std::size_t count) const { return m_arrived.WaitForCount(m_arrivedBefore + count); }

    bool WaitForEnds(std::size_t count, milliseconds limit = seconds(60)) const
    {
        return m_ends.WaitForCount(count, limit);
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

    std::size_t CountEnds(ECallStatus status) const
    {
        auto const ends = m_ends.All();
        return static_cast<std::size_t>(
            std::count_if(ends.begin(), ends.end(), [&](SEnd const& end) { return end.status == status; }));
    }

    /// A call that is waited for and one that is not.
    void ExpectBothWaysEndWith(ECallStatus status, CValueList const& call, CCallOptions const& options = {},
                               int connectionId = 0)
    {
        EXPECT_EQ(status, m_port->TryCallFunction(call, connectionId, options).GetStatus());
        std::size_t const before = m_ends.Count();
        Start(call, options, connectionId);
        ASSERT_TRUE(WaitForEnds(before + 1));
        SEnd const end = m_ends.All()[before];
        EXPECT_EQ(status, end.status);
        EXPECT_EQ(status == ECallStatus::Ok, end.reason.empty()) << end.reason;
    }

    CInbox<int> m_arrived; // these outlive the ports
    std::size_t m_arrivedBefore = 0;
    CInbox<CRpcPort::ReplyFunction> m_replies;
    CInbox<SEnd> m_ends;
    std::atomic<bool> m_isKeeping{false};
    std::atomic<int> m_clientId{-1};
    std::unique_ptr<CDbusPort> m_serverPort = std::make_unique<CDbusPort>(m_server.c_str(), true);
    std::unique_ptr<CDbusPort> m_port = std::make_unique<CDbusPort>(m_client.c_str(), m_server.c_str(), false);
};

class CDbusPortAsyncCall : public CDbusPortAsyncCallBase, public ::testing::WithParamInterface<EReading>
{
protected:
    void SetUp() override
    {
        SetUpPorts();
        m_reading.emplace(*m_port, GetParam());
    }

    std::optional<CReading> m_reading;
};

/// Only a delivery ends with its object: a loop that pauses can go on later.
class CDbusPortAsyncCallOfADelivery : public CDbusPortAsyncCallBase
{
protected:
    void SetUp() override
    {
        SetUpPorts();
        m_delivery.emplace(*m_port);
    }

    std::optional<CCallbackDelivery> m_delivery;
};

/// Nothing reads the client's port.
class CDbusPortUnreadCall : public CDbusPortAsyncCallBase
{
protected:
    void SetUp() override { SetUpPorts(); }
};

class CThingProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThingProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thing") {}

    nelo_rpc::CProxyFunction<int(int)> Double{*this, "Double"};
    nelo_rpc::CProxyFunction<int()> Wait{*this, "Wait"};
};

/// A host, and a client with typed calls.
class CDbusPortTypedAsyncCall : public CBusTest, public ::testing::WithParamInterface<EReading>
{
protected:
    ~CDbusPortTypedAsyncCall() override { m_release.Open(); }

    void Register(nelo_rpc::CRpcHost& host)
    {
        host.RegisterActorType<int>("Thing", [this](nelo_rpc::CActor& actor, int&) {
            actor.AddFunction("Double", [](int number) { return 2 * number; });
            actor.AddFunction("Wait", [this] {
                m_entered.Open();
                m_release.Wait();
                return 1;
            });
        });
    }

    CGate m_entered;
    CGate m_release;
    CInbox<std::optional<int>> m_values;
    CDbusPort m_serverPort{m_server.c_str(), true, nelo_rpc::SPortOptions::Recommended()};
    nelo_rpc::CRpcHost m_host{m_serverPort, nelo_rpc::SHostOptions::Recommended(),
                              [this](nelo_rpc::CRpcHost& host) { Register(host); }};
    CDbusPort m_port{m_client.c_str(), m_server.c_str(), false};
    nelo_rpc::CRpcClient m_rpcClient{m_port};
    CReading m_reading{m_port, GetParam()};
    std::unique_ptr<CThingProxy> m_thing = std::make_unique<CThingProxy>(m_rpcClient);
};

std::string nameOf(::testing::TestParamInfo<EReading> const& info)
{
    return info.param == EReading::Delivery ? "ReadByADelivery" : "ReadByALoop";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(All, CDbusPortAsyncCall, ::testing::Values(EReading::Delivery, EReading::Loop), nameOf);
INSTANTIATE_TEST_SUITE_P(All, CDbusPortTypedAsyncCall, ::testing::Values(EReading::Delivery, EReading::Loop), nameOf);

// ---- results ----

TEST_P(CDbusPortAsyncCall, ReturnsBeforeTheResult)
{
    Keep();
    Start(listOf(5));
    ASSERT_TRUE(WaitForArrivals(1));
    EXPECT_EQ(0u, m_ends.Count());
    m_replies.All()[0](listOf(6));

    ASSERT_TRUE(WaitForEnds(1));
    EXPECT_EQ(std::vector<int>{6}, Values());
}

TEST_P(CDbusPortAsyncCall, CompletesWhereCallbacksAreDelivered)
{
    Start(listOf(1));
    ASSERT_TRUE(WaitForEnds(1));
    ASSERT_TRUE(m_serverPort->SendCallback(listOf(2), m_clientId));
    ASSERT_TRUE(WaitForEnds(2));

    EXPECT_EQ(m_ends.All()[0].thread, m_ends.All()[1].thread);
    EXPECT_NE(std::this_thread::get_id(), m_ends.All()[0].thread);
}

TEST_P(CDbusPortAsyncCall, CompletesFailuresThereTooAndNotInsideOfTheStart)
{
    Start(tooLarge());
    Start(listOf(1), {}, 99);
    Start(listOf(2));
    ASSERT_TRUE(WaitForEnds(3));

    auto const ends = m_ends.All();
    EXPECT_NE(std::this_thread::get_id(), ends[2].thread);
    EXPECT_EQ(ends[0].thread, ends[2].thread);
    EXPECT_EQ(ends[1].thread, ends[2].thread);
}

TEST_P(CDbusPortAsyncCall, KeepsTheOrderOfCallbacksAndResults)
{
    constexpr int CALLS = 150;
    m_serverPort->SetFunctionCallListener([this](CValueList const& call, int id, CRpcPort::ReplyFunction const& reply) {
        EXPECT_TRUE(m_serverPort->SendCallback(listOf(2 * intOf(call)), id));
        reply(listOf(2 * intOf(call) + 1));
    });
    StartMany(CALLS);
    ASSERT_TRUE(WaitForEnds(2 * CALLS));

    EXPECT_EQ(rangeOf(2 * CALLS), Values());
}

TEST_P(CDbusPortAsyncCall, AnswersAThousandAtOnceEachOnceAndInOrder)
{
    constexpr int CALLS = 1000;
    StartMany(CALLS);
    ASSERT_TRUE(WaitForEnds(CALLS));
    EXPECT_EQ(7, intOf(m_port->CallFunction(listOf(7), 0)));

    EXPECT_EQ(rangeOf(CALLS), Values());
}

TEST_P(CDbusPortAsyncCall, OfSeveralThreadsGetsEachItsOwnResult)
{
    constexpr int CALLS = 200;
    std::atomic<int> right{0};
    CInbox<int> done;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back([&, t] {
            for (int i = 0; i < CALLS; ++i)
            {
                int const value = t * CALLS + i;
                m_port->CallFunctionAsync(listOf(value), 0, {}, [&, value](CCallResult const& result) {
                    right += intOf(result.GetList()) == value ? 1 : 0;
                    done.Put(value);
                });
            }
        });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }

    EXPECT_TRUE(done.WaitForCount(4 * CALLS, seconds(60)));
    EXPECT_EQ(4 * CALLS, right);
}

// ---- the window ----

TEST_P(CDbusPortAsyncCall, KeepsAHundredUnderWayAndTheOthersBehindThem)
{
    constexpr int CALLS = 150;
    Keep();
    StartMany(CALLS);
    ASSERT_TRUE(WaitForArrivals(WINDOW));
    EXPECT_FALSE(m_arrived.WaitForCount(m_arrivedBefore + WINDOW + 1, milliseconds(300)));
    m_replies.All()[0](listOf(0));
    ASSERT_TRUE(WaitForArrivals(WINDOW + 1));
    EXPECT_EQ(rangeOf(WINDOW + 1), Arrived());

    AnswerAll();
    ASSERT_TRUE(WaitForEnds(CALLS));
    EXPECT_EQ(rangeOf(CALLS), Arrived());
    EXPECT_EQ(static_cast<std::size_t>(CALLS), CountEnds(ECallStatus::Ok));
}

TEST_P(CDbusPortAsyncCall, LeavesRoomForCallsThatAreWaitedFor)
{
    Keep();
    StartMany(150);
    ASSERT_TRUE(WaitForArrivals(WINDOW));
    m_isKeeping = false;

    EXPECT_EQ(7, intOf(m_port->CallFunction(listOf(7), 0)));
    EXPECT_TRUE(m_port->IsConnected(0));
    AnswerAll();
    ASSERT_TRUE(WaitForEnds(150));
}

// ---- time-outs ----

TEST_P(CDbusPortAsyncCall, EndsEachCallAtItsOwnTimeout)
{
    Keep();
    auto const start = steady_clock::now();
    Start(listOf(0), CCallOptions(400));
    Start(listOf(1), CCallOptions(20000));
    Start(listOf(2), CCallOptions(100));
    ASSERT_TRUE(WaitForArrivals(3));

    ASSERT_TRUE(WaitForEnds(1, AT_ONCE));
    EXPECT_GE(since(start), milliseconds(95));
    ASSERT_TRUE(WaitForEnds(2, AT_ONCE));
    EXPECT_GE(since(start), milliseconds(395));
    EXPECT_LT(since(start), seconds(5)) << "the descriptor of a loop is readable for a time-out too";
    EXPECT_EQ(2u, CountEnds(ECallStatus::TimedOut));
    m_replies.All()[1](listOf(9));
    ASSERT_TRUE(WaitForEnds(3));
    EXPECT_EQ(9, m_ends.All()[2].value);
}

TEST_P(CDbusPortAsyncCall, HasThePortsTimeoutWithoutOneOfItsOwn)
{
    Keep();
    m_port->SetTimeoutMs(100);
    Start(listOf(0));

    ASSERT_TRUE(WaitForEnds(1, AT_ONCE));
    EXPECT_EQ(1u, CountEnds(ECallStatus::TimedOut));
}

TEST_P(CDbusPortAsyncCall, EndsAtItsTimeoutWhileItWaitsBehindOthersAndIsNotSentThen)
{
    Keep();
    StartMany(WINDOW);
    ASSERT_TRUE(WaitForArrivals(WINDOW));
    for (int i = 0; i < 10; ++i)
    {
        Start(listOf(1000 + i), CCallOptions(100));
    }
    Start(listOf(2000));

    ASSERT_TRUE(WaitForEnds(10, AT_ONCE));
    EXPECT_EQ(10u, CountEnds(ECallStatus::TimedOut));
    EXPECT_EQ(WINDOW, Arrived().size());
    AnswerAll();
    ASSERT_TRUE(WaitForEnds(10 + WINDOW + 1));
    std::vector<int> expected = rangeOf(WINDOW);
    expected.push_back(2000);
    EXPECT_EQ(expected, Arrived());
}

TEST_P(CDbusPortAsyncCall, DropsTheAnswerOfACallThatTimedOut)
{
    Keep();
    Start(listOf(0), CCallOptions(50));
    ASSERT_TRUE(WaitForArrivals(1));
    ASSERT_TRUE(WaitForEnds(1));
    AnswerAll();
    Start(listOf(5));
    ASSERT_TRUE(WaitForEnds(2));

    EXPECT_EQ((std::vector<int>{-1, 5}), Values());
}

TEST_P(CDbusPortAsyncCall, IsNotKeptAfterItsTimeoutWhileItWaitsBehindOthers)
{
    constexpr int CALLS = 150;
    constexpr std::size_t LARGE = 4 * 1024 * 1024;
    Keep();
    StartMany(WINDOW, CCallOptions(INT_MAX));
    ASSERT_TRUE(WaitForArrivals(WINDOW));
    std::size_t const before = residentBytes();
    for (int i = 0; i < CALLS; ++i)
    {
        Start(listOfBytes(LARGE), CCallOptions(1));
        ASSERT_TRUE(WaitForEnds(static_cast<std::size_t>(i) + 1, AT_ONCE));
    }

    EXPECT_LT(residentBytes(), before + CALLS / 2 * LARGE);
    AnswerAll();
    ASSERT_TRUE(WaitForEnds(CALLS + WINDOW));
}

// ---- failures ----

TEST_P(CDbusPortAsyncCall, SaysThatThereIsNoServer)
{
    m_serverPort.reset();
    ASSERT_TRUE(eventually([&] { return !m_port->IsConnected(0); }));

    ExpectBothWaysEndWith(ECallStatus::NoServer, listOf(1));
    ExpectBothWaysEndWith(ECallStatus::NoServer, listOf(1), {}, 99);
}

TEST_P(CDbusPortAsyncCall, SaysThatTheServerRefused)
{
    m_serverPort->SetFunctionCallListener([](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
        reply(nelo_rpc::refusal::make(nelo_rpc::refusal::ACCESS_DENIED, "not for you"));
    });

    EXPECT_EQ("not for you", m_port->TryCallFunction(listOf(1), 0).GetReason());
    ExpectBothWaysEndWith(ECallStatus::Refused, listOf(1));
}

TEST_P(CDbusPortAsyncCall, SaysThatTheServerCouldNotSendTheResult)
{
    m_serverPort->SetFunctionCallListener(
        [](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { reply(tooLarge()); });
    ExpectBothWaysEndWith(ECallStatus::Refused, listOf(1));
}

TEST_P(CDbusPortAsyncCall, SaysWhatCannotBeSent)
{
    ExpectBothWaysEndWith(ECallStatus::TooLarge, tooLarge());
    for (CValueList const& list : {listOf(std::string("\xff")), listOf(std::string("a\0b", 3)), withoutATag()})
    {
        ExpectBothWaysEndWith(ECallStatus::BadValue, list);
    }
    ExpectBothWaysEndWith(ECallStatus::BadValue, listOf(1), CCallOptions(-2));

    ExpectBothWaysEndWith(ECallStatus::Ok, listOf(2));
    EXPECT_EQ((std::vector<int>{2, 2}), Arrived()) << "nothing else was sent";
}

TEST_P(CDbusPortAsyncCall, SaysThatTheTimePassed)
{
    Keep();
    ExpectBothWaysEndWith(ECallStatus::TimedOut, listOf(1), CCallOptions(50));
}

TEST_P(CDbusPortAsyncCall, SaysThatTheServerLeftBeforeItAnswered)
{
    Keep();
    Start(listOf(0));
    auto waiting = std::async(std::launch::async, [this] { return m_port->TryCallFunction(listOf(1), 0); });
    ASSERT_TRUE(WaitForArrivals(2));
    m_serverPort.reset();

    ASSERT_TRUE(WaitForEnds(1, AT_ONCE));
    EXPECT_EQ(1u, CountEnds(ECallStatus::Disconnected));
    ASSERT_TRUE(isReady(waiting));
    EXPECT_EQ(ECallStatus::Disconnected, waiting.get().GetStatus());
}

TEST_P(CDbusPortAsyncCall, SaysThatAReplyIsIllFormedIfThePortDoesNotTrustItsPeers)
{
    std::string const name = CPrivateBus::UniqueName();
    CRawServer const server(name, [](CRawPeer& peer, MessagePtr const& call) {
        MessagePtr const answer(dbus_message_new_method_return(call.get()));
        dbus_int32_t const index = 0;
        dbus_message_append_args(answer.get(), DBUS_TYPE_INT32, &index, DBUS_TYPE_INVALID); // and then nothing
        peer.Send(answer.get());
    });
    CDbusPort port(CPrivateBus::UniqueName().c_str(), name.c_str(), false, nelo_rpc::SPortOptions::Recommended());
    CReading const reading(port, GetParam());

    EXPECT_EQ(ECallStatus::BadValue, port.TryCallFunction(listOf(1), 0).GetStatus());
    CInbox<ECallStatus> statuses;
    port.CallFunctionAsync(listOf(1), 0, {}, [&](CCallResult const& result) { statuses.Put(result.GetStatus()); });
    ASSERT_TRUE(statuses.WaitForCount(1));
    EXPECT_EQ(ECallStatus::BadValue, statuses.All()[0]);
}

// ---- ends ----

TEST_F(CDbusPortAsyncCallOfADelivery, EndsWithIt)
{
    Keep();
    StartMany(150);
    ASSERT_TRUE(WaitForArrivals(WINDOW));
    m_delivery.reset();

    EXPECT_EQ(150u, m_ends.Count()) << "nobody would complete them later";
    EXPECT_EQ(150u, CountEnds(ECallStatus::Disconnected));
    AnswerAll();
    EXPECT_EQ(7, intOf(m_port->CallFunction(listOf(7), 0))) << "the port goes on";
    m_port.reset();
    EXPECT_EQ(150u, m_ends.Count());
}

TEST_P(CDbusPortAsyncCall, EndsWithThePort)
{
    Keep();
    StartMany(150);
    ASSERT_TRUE(WaitForArrivals(WINDOW));
    m_reading.reset();
    m_port.reset();

    EXPECT_EQ(150u, m_ends.Count());
    EXPECT_EQ(150u, CountEnds(ECallStatus::Disconnected));
}

TEST_P(CDbusPortAsyncCall, EndsWithTheBus)
{
    Keep();
    StartMany(150);
    ASSERT_TRUE(WaitForArrivals(WINDOW));
    CBusOutage const outage;

    ASSERT_TRUE(WaitForEnds(150, AT_ONCE));
    EXPECT_EQ(150u, CountEnds(ECallStatus::Disconnected));
    ExpectBothWaysEndWith(ECallStatus::Disconnected, listOf(1));
    EXPECT_EQ(151u, m_ends.Count());
}

TEST_P(CDbusPortAsyncCall, EndsOnceWhileResultsArrive)
{
    for (int round = 0; round < 10; ++round)
    {
        CInbox<ECallStatus> ends;
        auto port = std::make_unique<CDbusPort>(CPrivateBus::UniqueName().c_str(), m_server.c_str(), false);
        {
            CReading const reading(*port, GetParam());
            for (int i = 0; i < 200; ++i)
            {
                port->CallFunctionAsync(listOf(i), 0, CCallOptions(i % 5),
                                        [&](CCallResult const& result) { ends.Put(result.GetStatus()); });
            }
        }
        port.reset();
        EXPECT_EQ(200u, ends.Count());
    }
}

// ---- beside calls that are waited for ----

TEST_P(CDbusPortAsyncCall, IsSentWholeWhileAnotherThreadWaitsInsideACall)
{
    // The socket does not take it at once, and the call that is waited for ends only behind it.
    constexpr std::size_t LARGE = 8 * 1024 * 1024;
    m_serverPort->SetFunctionCallListener([this](CValueList const& call, int, CRpcPort::ReplyFunction const& reply) {
        if (call.size() == 1)
        {
            m_replies.Put(reply);
            m_arrived.Put(0);
            return;
        }
        reply(listOf(1));
        m_replies.All().back()(listOf(2));
    });
    for (std::size_t round = 1; round <= 10; ++round)
    {
        std::size_t const arrived = m_arrived.Count();
        auto waiting = std::async(std::launch::async, [this] { return intOf(m_port->CallFunction(listOf(1), 0)); });
        ASSERT_TRUE(m_arrived.WaitForCount(arrived + 1));
        Start(listOf(std::vector<std::uint8_t>(LARGE), 1));

        ASSERT_TRUE(isReady(waiting, AT_ONCE)) << "in round " << round;
        EXPECT_EQ(2, waiting.get());
        ASSERT_TRUE(WaitForEnds(round));
    }
}

TEST_P(CDbusPortAsyncCall, LeavesAThreadThatWaitsInsideACallAsleep)
{
    constexpr std::size_t LARGE = 8 * 1024 * 1024;
    m_serverPort->SetFunctionCallListener([this](CValueList const& call, int, CRpcPort::ReplyFunction const& reply) {
        if (call.size() == 1)
        {
            m_replies.Put(reply);
            m_arrived.Put(0);
            return;
        }
        reply(listOf(1));
    });
    std::size_t const arrived = m_arrived.Count();
    auto waiting = std::async(std::launch::async, [this] { return intOf(m_port->CallFunction(listOf(1), 0)); });
    ASSERT_TRUE(m_arrived.WaitForCount(arrived + 1));
    for (std::size_t i = 1; i <= 5; ++i)
    {
        Start(listOf(std::vector<std::uint8_t>(LARGE), 1));
        ASSERT_TRUE(WaitForEnds(i, AT_ONCE));
    }

    auto const before = std::clock();
    EXPECT_FALSE(isReady(waiting, seconds(1)));
    EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 4) << "of processor time in a second";
    m_replies.All().back()(listOf(2));
    ASSERT_TRUE(isReady(waiting));
}

// ---- what a handler may do ----

TEST_P(CDbusPortAsyncCall, LetsAHandlerMakeCallsOfAllKinds)
{
    CInbox<int> values;
    m_port->CallFunctionAsync(listOf(1), 0, {}, [&](CCallResult const&) {
        values.Put(intOf(m_port->CallFunction(listOf(2), 0)));
        values.Put(intOf(m_port->TryCallFunction(listOf(3), 0).GetList()));
        values.Put(m_port->IsConnected(0) ? 4 : -1);
        m_port->CallFunctionAsync(listOf(5), 0, {},
                                  [&](CCallResult const& result) { values.Put(intOf(result.GetList())); });
    });

    ASSERT_TRUE(values.WaitForCount(4));
    EXPECT_EQ((std::vector<int>{2, 3, 4, 5}), values.All());
}

TEST_P(CDbusPortAsyncCall, LetsAHandlerStartTheNextCallAgainAndAgain)
{
    constexpr int CALLS = 500;
    CInbox<int> values;
    std::function<void(CCallResult)> const next = [&](CCallResult const& result) {
        int const value = intOf(result.GetList());
        values.Put(value);
        if (value < CALLS)
        {
            m_port->CallFunctionAsync(listOf(value + 1), 0, {}, next);
        }
    };
    m_port->CallFunctionAsync(listOf(1), 0, {}, next);

    ASSERT_TRUE(values.WaitForCount(CALLS, seconds(60)));
    EXPECT_EQ(CALLS, values.All().back());
}

TEST_P(CDbusPortTypedAsyncCall, GivesValuesToHandlersAndFutures)
{
    m_thing->Double.CallAsync([&](std::optional<int> value) { m_values.Put(value); }, 4);
    auto future = m_thing->Double.CallAsync(5);

    ASSERT_TRUE(isReady(future));
    EXPECT_EQ(std::make_optional(10), future.get());
    EXPECT_EQ((std::vector<std::optional<int>>{8}), m_values.All());
}

TEST_P(CDbusPortTypedAsyncCall, LetsAHandlerDestroyItsProxy)
{
    CGate destroyed;
    m_thing->Double.CallAsync(
        [&](std::optional<int>) {
            m_thing->Double.CallAsync([&](std::optional<int> value) { m_values.Put(value); }, 1);
            m_thing.reset();
            destroyed.Open();
        },
        4);

    ASSERT_TRUE(destroyed.Wait());
    EXPECT_EQ((std::vector<std::optional<int>>{std::nullopt}), m_values.All());
}

TEST_P(CDbusPortTypedAsyncCall, IsCompletedByTheEndOfItsProxy)
{
    m_thing->Wait.CallAsync([&](std::optional<int> value) { m_values.Put(value); });
    ASSERT_TRUE(m_entered.Wait());
    m_rpcClient.SetTimeoutMs(200); // the server is busy when the proxy takes its leave
    m_thing.reset();
    EXPECT_EQ((std::vector<std::optional<int>>{std::nullopt}), m_values.All());

    m_release.Open();
    m_rpcClient.SetTimeoutMs(-1);
    CThingProxy other(m_rpcClient);
    EXPECT_EQ(8, other.Double(4)) << "it comes behind the late answer";
    EXPECT_EQ(1u, m_values.Count());
}

TEST_P(CDbusPortTypedAsyncCall, ThatMakesNoSenseIsRefused)
{
    nelo_rpc::CProxyFunction<int()> const unknown(*m_thing, "Unknown");
    EXPECT_EQ(ECallStatus::Refused, unknown.TryCallFunction().GetStatus());
    CInbox<ECallStatus> statuses;
    unknown.CallFunctionAsync({},
                              [&](nelo_rpc::CCallResultOf<int> const& result) { statuses.Put(result.GetStatus()); });

    ASSERT_TRUE(statuses.WaitForCount(1));
    EXPECT_EQ(ECallStatus::Refused, statuses.All()[0]);
}

// ---- a port that nobody reads ----

TEST_F(CDbusPortUnreadCall, IsCompletedBeforeItsStartReturnsOnTheCallingThread)
{
    for (int i = 0; i < 200; ++i)
    {
        Start(listOf(i));
        ASSERT_EQ(static_cast<std::size_t>(i) + 1, m_ends.Count());
    }
    EXPECT_EQ(rangeOf(200), Values());
    for (SEnd const& end : m_ends.All())
    {
        EXPECT_EQ(std::this_thread::get_id(), end.thread);
    }
}

TEST_F(CDbusPortUnreadCall, SaysHowItEnded)
{
    ExpectBothWaysEndWith(ECallStatus::Ok, listOf(1));
    ExpectBothWaysEndWith(ECallStatus::Ok, {});
    ExpectBothWaysEndWith(ECallStatus::TooLarge, tooLarge());
    ExpectBothWaysEndWith(ECallStatus::BadValue, withoutATag());
    ExpectBothWaysEndWith(ECallStatus::NoServer, listOf(1), {}, 99);
    Keep();
    ExpectBothWaysEndWith(ECallStatus::TimedOut, listOf(1), CCallOptions(50));
    m_serverPort.reset();
    ASSERT_TRUE(eventually([&] { return !m_port->IsConnected(0); }));
    ExpectBothWaysEndWith(ECallStatus::NoServer, listOf(1));
}

TEST_F(CDbusPortUnreadCall, CountsItsWaitBehindOthersForItsTimeout)
{
    Keep();
    auto first = std::async(std::launch::async, [this] { return m_port->CallFunction(listOf(1), 0); });
    ASSERT_TRUE(WaitForArrivals(1));

    auto const start = steady_clock::now();
    EXPECT_EQ(ECallStatus::TimedOut, m_port->TryCallFunction(listOf(2), 0, CCallOptions(100)).GetStatus());
    EXPECT_GE(since(start), milliseconds(95));
    EXPECT_LT(since(start), AT_ONCE);
    AnswerAll();
    ASSERT_TRUE(isReady(first));
}
