#include "CFakePort.h"
#include "CGate.h"
#include "CHang.h"
#include "CInbox.h"
#include "CLogCapture.h"
#include "Eventually.h"

#include <nelo_rpc/nelo_rpc.h>
#include <nelo_rpc/testing/CScriptedServer.h>

#include <gtest/gtest.h>

#include <algorithm>
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

namespace
{

constexpr char const* SERVER = "org.example.workshop";

class IWorkshop
{
public:
    virtual ~IWorkshop() = default;
    virtual int Add(int first, int second) = 0;

    static constexpr CInterface RPC{"Workshop", SFunction<&IWorkshop::Add>{"Add"}};
};

class CWorkshopProxy : public CActorProxy
{
public:
    explicit CWorkshopProxy(CRpcClient& client) : CActorProxy(&client, "Workshop") {}

    CProxyFunction<int(int, int)> Add{*this, "Add"};
    CProxyFunction<std::string()> Describe{*this, "Describe"};
    CProxyFunction<void(std::string)> Rename{*this, "Rename"};
    CProxyFunction<int()> Wait{*this, "Wait"};
    CProxyCallback<int> OnChanged{*this, "OnChanged"};
};

/// A client of a server that answers what the test says. "Wait" is not answered.
class AsyncCalls : public ::testing::Test
{
protected:
    AsyncCalls()
    {
        m_server.Answer("Add", [](int first, int second) { return first + second; });
        m_server.Answer("Describe", [] { return std::string("a bench"); });
        m_server.Answer("Rename", [](std::string const&) {});
        m_server.StaySilent("Wait");
    }

    ~AsyncCalls() override { m_clientPort.SetCallbackListener({}); }

    CInbox<std::optional<int>> m_values; // outlives the calls
    CInbox<std::thread::id> m_threads;
    CLocalBus m_bus;
    CLocalPort m_serverPort{m_bus, SERVER, true};
    test::CScriptedServer m_server{m_serverPort};
    CLocalPort m_clientPort{m_bus, "client", SERVER, false};
    CRpcClient m_client{m_clientPort};
    std::unique_ptr<CWorkshopProxy> m_workshop = std::make_unique<CWorkshopProxy>(m_client);
};

using CallStatus = AsyncCalls;
using AsyncCallsEnd = AsyncCalls;

/// A client of a port that makes each call at once: nothing reads it.
class UnreadPort : public ::testing::Test
{
protected:
    UnreadPort()
    {
        m_port.AnswerNext(listOf(12)); // the actor's id
        m_workshop = std::make_unique<CWorkshopProxy>(m_client);
    }

    CFakePort m_port;
    CRpcClient m_client{m_port};
    std::unique_ptr<CWorkshopProxy> m_workshop;
};

} // namespace

// ---- how typed calls end ----

TEST_F(CallStatus, OfATypedCallComesWithItsValue)
{
    auto const result = m_workshop->Add.TryCallFunction(2, 3);

    EXPECT_EQ(ECallStatus::Ok, result.GetStatus());
    EXPECT_EQ(std::make_optional(5), result.GetValue());
    EXPECT_EQ(1u, result.GetList().count(0));
    EXPECT_EQ(std::make_optional(true), m_workshop->Rename.TryCallFunction("vise").GetValue());
}

TEST_F(CallStatus, OfAnAnswerWithoutAResultIsCutOff)
{
    m_server.AnswerWithList("Add", {});
    auto const result = m_workshop->Add.TryCallFunction(2, 3);

    EXPECT_EQ(ECallStatus::CutOff, result.GetStatus());
    EXPECT_FALSE(result.GetReason().empty());
    EXPECT_EQ(std::nullopt, result.GetValue());
    EXPECT_EQ(ECallStatus::Ok, m_workshop->TryCallFunction("Add", {}).GetStatus())
        << "who works on lists may expect an empty one";
}

TEST_F(CallStatus, OfAResultOfAnotherTypeIsABadValueAndNotFatal)
{
    m_server.Answer("Add", [](int, int) { return std::string("five"); });
    CLogCapture log;
    auto const result = m_workshop->Add.TryCallFunction(2, 3);

    EXPECT_EQ(ECallStatus::BadValue, result.GetStatus());
    EXPECT_EQ(std::nullopt, result.GetValue());
    EXPECT_EQ(std::vector<std::string>{"CProxyFunction Add got a result of another type"},
              log.Texts(log::ELevel::Error));
}

TEST_F(CallStatus, OfARefusedCallHasTheServersReason)
{
    m_server.Refuse("Add", refusal::ACCESS_DENIED, "not you");
    auto const result = m_workshop->Add.TryCallFunction(2, 3);

    EXPECT_EQ(ECallStatus::Refused, result.GetStatus());
    EXPECT_EQ("not you", result.GetReason());
}

TEST_F(CallStatus, KnowsTheTimeoutOfTheCall)
{
    EXPECT_EQ(ECallStatus::TimedOut, m_workshop->Wait.TryCallFunction(CCallOptions(20)).GetStatus());
    EXPECT_EQ(ECallStatus::TimedOut, m_workshop->TryCallFunction("Wait", {}, CCallOptions(20)).GetStatus());
    EXPECT_EQ(5, m_workshop->Add.TryCallFunction(CCallOptions(10000), 2, 3).GetValue());
}

TEST_F(CallStatus, IsToldOfTheClientsCallsToo)
{
    CLogCapture log;
    int const id = m_workshop->GetId();

    EXPECT_EQ(5, types::unpackAt<int>(m_client.TryCallFunction("Workshop", id, "Add", listOf(2, 3)).GetList(), 0));
    EXPECT_EQ(1, log.Count("CRpcClient::TryCallFunction Workshop::Add Ok"));
    auto const late = m_client.TryCallFunction("Workshop", id, "Wait", {}, CCallOptions(20));
    EXPECT_EQ(ECallStatus::TimedOut, late.GetStatus());
    EXPECT_EQ(1, log.Count("CRpcClient::TryCallFunction Workshop::Wait TimedOut"));
}

TEST_F(CallStatus, LeavesCallsWithoutItAsTheyAre)
{
    CLogCapture log;
    EXPECT_EQ(5, m_workshop->Add(2, 3));
    EXPECT_EQ(1, log.Count("CRpcClient::CallFunction Workshop::Add done"));
    EXPECT_EQ(0, log.Count("TryCallFunction"));
}

TEST(HungCall, IsSeenAsCutOffOnceItWasKilled)
{
    CHang hang;
    CLocalBus bus;
    CLocalPort serverPort(bus, SERVER, true);
    SHostOptions options;
    options.hangLimitMs = 2500;
    options.hangCheckMs = 500;
    CRpcHost host(serverPort, options, [&](CRpcHost& self) {
        SActorType type;
        type.create = [&] { return static_cast<void*>(&hang); }; // nothing that a kill leaves behind
        type.destroy = [](void*) {};
        type.setup = [&](CActor& actor) {
            actor.AddFunction("Wait", [&] {
                hang.Enter();
                return 0;
            });
            actor.AddFunction("Describe", [] { return std::string("there again"); });
        };
        self.RegisterActorType("Workshop", std::move(type));
    });
    CLocalPort port(bus, "client", SERVER, false);
    CRpcClient client(port);
    {
        CWorkshopProxy workshop(client);
        auto ended = std::make_shared<std::promise<ECallStatus>>();
        workshop.Wait.CallFunctionAsync(
            {}, [ended](CCallResultOf<int> const& result) { ended->set_value(result.GetStatus()); });
        auto status = ended->get_future();
        ASSERT_TRUE(isReady(status));
        EXPECT_EQ(ECallStatus::CutOff, status.get());
        EXPECT_EQ("there again", workshop.Describe()) << "a lost actor has to be made anew to be destroyed";
    }
    port.SetCallbackListener({});
}

// ---- asynchronous calls ----

TEST_F(AsyncCalls, GiveTheValueToAHandlerOnTheThreadOfCallbacks)
{
    m_workshop->OnChanged.Subscribe([&](int) { m_threads.Put(std::this_thread::get_id()); });
    m_workshop->Add.CallAsync(
        [&](std::optional<int> value) {
            m_threads.Put(std::this_thread::get_id());
            m_values.Put(value);
        },
        2, 3);
    ASSERT_TRUE(m_values.WaitForCount(1));
    ASSERT_TRUE(m_server.Send(m_workshop->GetId(), "OnChanged", 1));
    ASSERT_TRUE(m_threads.WaitForCount(2));

    EXPECT_EQ(std::make_optional(5), m_values.All()[0]);
    EXPECT_EQ(m_threads.All()[0], m_threads.All()[1]);
    EXPECT_NE(std::this_thread::get_id(), m_threads.All()[0]);
}

TEST_F(AsyncCalls, GiveTheValueToAFuture)
{
    auto sum = m_workshop->Add.CallAsync(2, 3);
    auto text = m_workshop->Describe.CallAsync();
    auto done = m_workshop->Rename.CallAsync("vise");

    ASSERT_TRUE(isReady(sum));
    EXPECT_EQ(std::make_optional(5), sum.get());
    ASSERT_TRUE(isReady(text));
    EXPECT_EQ(std::make_optional<std::string>("a bench"), text.get());
    ASSERT_TRUE(isReady(done));
    EXPECT_EQ(std::make_optional(true), done.get());
}

TEST_F(AsyncCalls, TellHowTheyEnded)
{
    CInbox<ECallStatus> statuses;
    auto const keep = [&](CCallResultOf<int> const& result) {
        statuses.Put(result.GetStatus());
        m_values.Put(result.GetValue());
    };
    m_workshop->Add.CallFunctionAsync({}, keep, 2, 3);
    m_workshop->Wait.CallFunctionAsync(CCallOptions(20), keep);

    ASSERT_TRUE(m_values.WaitForCount(2));
    EXPECT_EQ((std::vector<ECallStatus>{ECallStatus::Ok, ECallStatus::TimedOut}), statuses.All());
    EXPECT_EQ((std::vector<std::optional<int>>{5, std::nullopt}), m_values.All());
}

TEST_F(AsyncCalls, HaveTimeoutsOfTheirOwn)
{
    m_workshop->Wait.CallAsync(CCallOptions(20), [&](std::optional<int> value) { m_values.Put(value); });
    auto future = m_workshop->Wait.CallAsync(CCallOptions(20));

    ASSERT_TRUE(isReady(future));
    EXPECT_EQ(std::nullopt, future.get());
    EXPECT_EQ((std::vector<std::optional<int>>{std::nullopt}), m_values.All());
}

TEST_F(AsyncCalls, GiveNothingForAResultOfAnotherType)
{
    m_server.Answer("Add", [](int, int) { return std::string("five"); });
    CLogCapture log;
    auto future = m_workshop->Add.CallAsync(2, 3);

    ASSERT_TRUE(isReady(future));
    EXPECT_EQ(std::nullopt, future.get());
    EXPECT_EQ(1, log.Count("CProxyFunction Add got a result of another type"));
}

TEST_F(AsyncCalls, NeedNobodyToHearOfTheirEnd)
{
    m_workshop->Add.CallAsync(nullptr, 2, 3);
    m_workshop->Add.CallFunctionAsync({}, nullptr, 2, 3);
    m_workshop->RemoteCallAsync("Add", listOf(2, 3), {}, nullptr);
    auto last = m_workshop->Add.CallAsync(2, 3);

    EXPECT_TRUE(isReady(last));
    EXPECT_EQ(4u, m_server.GetCalls("Add").size());
}

TEST_F(AsyncCalls, OutliveTheEndpointThatMadeThem)
{
    auto value = CProxyFunction<int(int, int)>(*m_workshop, "Add").CallAsync(2, 3);

    ASSERT_TRUE(isReady(value));
    EXPECT_EQ(std::make_optional(5), value.get());
}

TEST_F(AsyncCalls, CanWorkOnLists)
{
    CInbox<std::string> lists;
    m_workshop->RemoteCallAsync("Add", listOf(2, 3), {},
                                [&](CCallResult const& result) { lists.Put(types::toString(result.GetList())); });
    m_client.CallFunctionAsync("Workshop", m_workshop->GetId(), "Add", listOf(3, 4), {},
                               [&](CCallResult const& result) { lists.Put(types::toString(result.GetList())); });

    ASSERT_TRUE(lists.WaitForCount(2));
    EXPECT_EQ((std::vector<std::string>{types::toString(listOf(5)), types::toString(listOf(7))}), lists.All());
}

TEST_F(AsyncCalls, MayBeMadeThroughAnInterface)
{
    CProxyOf<IWorkshop> workshop(m_client);
    workshop.CallAsync<&IWorkshop::Add>([&](std::optional<int> value) { m_values.Put(value); }, 1, 2);
    workshop.CallAsync<&IWorkshop::Add>(
        CCallOptions(0), [&](std::optional<int> value) { m_values.Put(value); }, 1, 2);
    workshop.CallFunctionAsync<&IWorkshop::Add>(
        CCallOptions(), [&](CCallResultOf<int> const& result) { m_values.Put(result.GetValue()); }, 3, 4);
    auto first = workshop.CallAsync<&IWorkshop::Add>(5, 6);
    auto second = workshop.CallAsync<&IWorkshop::Add>(CCallOptions(0), 5, 6);

    ASSERT_TRUE(isReady(first));
    EXPECT_EQ(std::make_optional(11), first.get());
    ASSERT_TRUE(isReady(second));
    EXPECT_EQ(std::nullopt, second.get());
    ASSERT_TRUE(m_values.WaitForCount(3));
    EXPECT_EQ(std::make_optional(13), workshop.TryCallFunction<&IWorkshop::Add>(6, 7).GetValue());
    EXPECT_EQ(ECallStatus::TimedOut, workshop.TryCallFunction<&IWorkshop::Add>(CCallOptions(0), 6, 7).GetStatus());
    auto const values = m_values.All();
    EXPECT_EQ(1, std::count(values.begin(), values.end(), std::make_optional(3)));
    EXPECT_EQ(1, std::count(values.begin(), values.end(), std::nullopt));
    EXPECT_EQ(1, std::count(values.begin(), values.end(), std::make_optional(7)));
}

TEST_F(AsyncCalls, LetAHandlerMakeCallsOfAllKinds)
{
    m_workshop->Add.CallAsync(
        [&](std::optional<int>) {
            m_values.Put(m_workshop->Add.TryCall(1, 2));
            m_workshop->Add.CallAsync([&](std::optional<int> value) { m_values.Put(value); }, 3, 4);
        },
        0, 0);

    ASSERT_TRUE(m_values.WaitForCount(2));
    EXPECT_EQ((std::vector<std::optional<int>>{3, 7}), m_values.All());
}

// ---- the end of a proxy and of a client ----

TEST_F(AsyncCallsEnd, OfAProxyCompletesEachOpenCallOnceInOrderOnItsThread)
{
    CInbox<int> order;
    for (int i = 0; i < 5; ++i)
    {
        m_workshop->Wait.CallFunctionAsync({}, [&, i](CCallResultOf<int> const& result) {
            EXPECT_EQ(ECallStatus::Disconnected, result.GetStatus());
            m_threads.Put(std::this_thread::get_id());
            order.Put(i);
        });
    }
    auto future = m_workshop->Wait.CallAsync();
    m_workshop.reset();

    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}), order.All());
    EXPECT_EQ(std::vector<std::thread::id>(5, std::this_thread::get_id()), m_threads.All());
    ASSERT_TRUE(isReady(future, milliseconds(0)));
    EXPECT_EQ(std::nullopt, future.get());
}

TEST_F(AsyncCallsEnd, OfAProxyDropsWhatComesLater)
{
    CGate answer;
    m_server.Answer("Wait", [&] {
        answer.Wait();
        return 1;
    });
    m_workshop->Wait.CallAsync([&](std::optional<int> value) { m_values.Put(value); });
    ASSERT_TRUE(m_server.WaitForCalls("Wait", 1));
    m_client.SetTimeoutMs(50); // the server is busy when the proxy takes its leave
    m_workshop.reset();
    EXPECT_EQ((std::vector<std::optional<int>>{std::nullopt}), m_values.All());

    answer.Open();
    m_client.SetTimeoutMs(-1);
    CWorkshopProxy other(m_client);
    ASSERT_TRUE(isReady(other.Add.CallAsync(2, 3))) << "it comes behind the late answer";
    EXPECT_EQ(1u, m_values.Count());
}

TEST_F(AsyncCallsEnd, OfAProxyWaitsForAHandlerOnAnotherThread)
{
    CGate entered;
    CGate leave;
    std::atomic<bool> left{false};
    m_workshop->Add.CallAsync(
        [&](std::optional<int>) {
            entered.Open();
            leave.Wait();
            left = true;
        },
        2, 3);
    ASSERT_TRUE(entered.Wait());
    auto destroyed = std::async(std::launch::async, [&] {
        m_workshop.reset();
        return left.load();
    });

    EXPECT_FALSE(isReady(destroyed, milliseconds(100)));
    leave.Open();
    ASSERT_TRUE(isReady(destroyed));
    EXPECT_TRUE(destroyed.get());
}

TEST_F(AsyncCallsEnd, OfAProxyMayBeBroughtAboutByAHandler)
{
    CGate destroyed;
    auto open = m_workshop->Wait.CallAsync();
    m_workshop->Add.CallAsync(
        [&](std::optional<int>) {
            m_workshop.reset();
            destroyed.Open(); // still captured: the handler outlives its proxy until it returns
        },
        2, 3);

    EXPECT_TRUE(destroyed.Wait());
    ASSERT_TRUE(isReady(open));
    EXPECT_EQ(std::nullopt, open.get());
    EXPECT_TRUE(m_server.GetActorIds().empty());
}

TEST_F(AsyncCallsEnd, OfAProxyLetsCallsThatAreMadeMeanwhileFailAtOnce)
{
    m_workshop->Wait.CallAsync([&](std::optional<int>) {
        m_workshop->Add.CallAsync([&](std::optional<int> value) { m_values.Put(value); }, 2, 3);
    });
    ASSERT_TRUE(m_server.WaitForCalls("Wait", 1));
    m_workshop->EndCalls();

    EXPECT_EQ((std::vector<std::optional<int>>{std::nullopt}), m_values.All());
    EXPECT_TRUE(m_server.GetCalls("Add").empty());
}

TEST_F(AsyncCallsEnd, MayBeBroughtAboutBeforeThatOfTheProxy)
{
    auto open = m_workshop->Wait.CallAsync();
    m_workshop->EndCalls();

    ASSERT_TRUE(isReady(open, milliseconds(0)));
    EXPECT_EQ(std::nullopt, open.get());
    auto later = m_workshop->Add.CallAsync(2, 3);
    ASSERT_TRUE(isReady(later, milliseconds(0)));
    EXPECT_EQ(std::nullopt, later.get());
    EXPECT_EQ(5, m_workshop->Add(2, 3)) << "calls that wait go on";
}

TEST_F(AsyncCallsEnd, OfAClientCompletesItsOwnCalls)
{
    CLocalPort port(m_bus, "other", SERVER, false);
    auto client = std::make_unique<CRpcClient>(port);
    int const id = m_workshop->GetId();
    CInbox<ECallStatus> statuses;
    client->CallFunctionAsync("Workshop", id, "Wait", {}, {},
                              [&](CCallResult const& result) { statuses.Put(result.GetStatus()); });
    auto own = CProxyFunction<int()>(*client->GetConnectionProxy(), "Wait").CallAsync();
    ASSERT_TRUE(m_server.WaitForCalls("Wait", 2));
    port.SetCallbackListener({});
    client.reset();

    EXPECT_EQ(std::vector<ECallStatus>{ECallStatus::Disconnected}, statuses.All());
    ASSERT_TRUE(isReady(own, milliseconds(0)));
    EXPECT_EQ(std::nullopt, own.get());
}

TEST_F(AsyncCallsEnd, CompletesEachCallOnceWhileResultsArrive)
{
    constexpr int CALLS = 20;
    for (int round = 0; round < 200; ++round)
    {
        auto workshop = std::make_unique<CWorkshopProxy>(m_client);
        CInbox<int> ends;
        std::atomic<bool> isGone{false};
        std::atomic<int> late{0};
        for (int i = 0; i < CALLS; ++i)
        {
            workshop->Add.CallAsync(
                [&, i](std::optional<int>) {
                    late += isGone ? 1 : 0;
                    ends.Put(i);
                },
                i, 0);
        }
        workshop.reset();
        isGone = true;
        auto const all = ends.All();
        EXPECT_EQ(static_cast<std::size_t>(CALLS), all.size());
        EXPECT_EQ(0, late);
    }
}

// ---- a port that nobody reads ----

TEST_F(UnreadPort, CompletesCallsBeforeTheyReturnOnTheCallingThread)
{
    m_port.AnswerNext(listOf(5));
    std::vector<std::thread::id> threads;
    m_workshop->Add.CallAsync(
        [&](std::optional<int> value) {
            EXPECT_EQ(std::make_optional(5), value);
            threads.push_back(std::this_thread::get_id());
        },
        2, 3);
    EXPECT_EQ(std::vector<std::thread::id>{std::this_thread::get_id()}, threads);

    auto failed = m_workshop->Add.CallAsync(2, 3);
    ASSERT_TRUE(isReady(failed, milliseconds(0)));
    EXPECT_EQ(std::nullopt, failed.get());
    EXPECT_EQ(ECallStatus::Disconnected, m_workshop->Add.TryCallFunction(2, 3).GetStatus());
}

TEST_F(UnreadPort, LetsAHandlerDestroyItsProxy)
{
    m_port.AnswerNext(listOf(5));
    m_workshop->Add.CallAsync([&](std::optional<int>) { m_workshop.reset(); }, 2, 3);

    EXPECT_EQ(nullptr, m_workshop);
}
