#include "CFakePort.h"
#include "CGate.h"
#include "CInbox.h"

#include <nelo_rpc/Awaiting.h>
#include <nelo_rpc/nelo_rpc.h>
#include <nelo_rpc/testing/CScriptedServer.h>

#include <gtest/gtest.h>

#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using namespace nelo_rpc;

namespace
{

constexpr char const* SERVER = "org.example.workshop";

/// A coroutine that runs on its own and destroys itself when it is done.
struct SDetached
{
    struct promise_type
    {
        SDetached get_return_object() { return {std::coroutine_handle<promise_type>::from_promise(*this)}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };

    std::coroutine_handle<promise_type> handle;
};

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
    CProxyFunction<int()> Wait{*this, "Wait"};
    CProxyCallback<int> OnChanged{*this, "OnChanged"};
};

/// Tells when a coroutine's frame goes.
class CTrace
{
public:
    explicit CTrace(CGate& gone) : m_gone(gone) {}
    CTrace(CTrace const&) = delete;
    CTrace& operator=(CTrace const&) = delete;
    ~CTrace() { m_gone.Open(); }

private:
    CGate& m_gone;
};

class Awaiting : public ::testing::Test
{
protected:
    Awaiting()
    {
        m_server.Answer("Add", [](int first, int second) { return first + second; });
        m_server.Answer("Describe", [] { return std::string("a bench"); });
        m_server.StaySilent("Wait");
    }

    ~Awaiting() override { m_clientPort.SetCallbackListener({}); }

    CInbox<std::string> m_steps; // outlives the calls
    CInbox<std::thread::id> m_threads;
    CGate m_done;
    CGate m_gone;
    CLocalBus m_bus;
    CLocalPort m_serverPort{m_bus, SERVER, true};
    test::CScriptedServer m_server{m_serverPort};
    CLocalPort m_clientPort{m_bus, "client", SERVER, false};
    CRpcClient m_client{m_clientPort};
    std::unique_ptr<CWorkshopProxy> m_workshop = std::make_unique<CWorkshopProxy>(m_client);
};

/// A client of a port that makes each call at once.
class AwaitingOnAnUnreadPort : public ::testing::Test
{
protected:
    CFakePort m_port;
    CRpcClient m_client{m_port};
};

SDetached addUp(CWorkshopProxy& workshop, int calls, CGate& done, int& sum)
{
    for (int i = 0; i < calls; ++i)
    {
        sum = (co_await workshop.Add.CallAwaitable(sum, 1)).GetValue().value_or(-1);
    }
    done.Open();
}

} // namespace

TEST_F(Awaiting, GivesTheResultsOfCallsOneAfterTheOther)
{
    auto const run = [this]() -> SDetached {
        auto const sum = co_await m_workshop->Add.CallAwaitable(2, 3);
        m_steps.Put(std::to_string(sum.GetValue().value_or(-1)));
        auto const text = co_await m_workshop->Describe.CallAwaitable();
        m_steps.Put(text.GetValue().value_or("nothing"));
        m_done.Open();
    };
    run();

    ASSERT_TRUE(m_done.Wait());
    EXPECT_EQ((std::vector<std::string>{"5", "a bench"}), m_steps.All());
}

TEST_F(Awaiting, GoesOnOnTheThreadOfCallbacks)
{
    m_workshop->OnChanged.Subscribe([&](int) { m_threads.Put(std::this_thread::get_id()); });
    auto const run = [this]() -> SDetached {
        co_await m_workshop->Add.CallAwaitable(2, 3);
        m_threads.Put(std::this_thread::get_id());
    };
    run();
    ASSERT_TRUE(m_threads.WaitForCount(1));
    ASSERT_TRUE(m_server.Send(m_workshop->GetId(), "OnChanged", 1));
    ASSERT_TRUE(m_threads.WaitForCount(2));

    EXPECT_EQ(m_threads.All()[0], m_threads.All()[1]);
    EXPECT_NE(std::this_thread::get_id(), m_threads.All()[0]);
}

TEST_F(Awaiting, LetsManyCoroutinesWaitAtATime)
{
    constexpr int COROUTINES = 50;
    constexpr int CALLS = 20;
    std::vector<CGate> done(COROUTINES);
    std::vector<int> sums(COROUTINES);
    for (std::size_t i = 0; i < COROUTINES; ++i)
    {
        addUp(*m_workshop, CALLS, done[i], sums[i]);
    }
    for (CGate const& gate : done)
    {
        ASSERT_TRUE(gate.Wait());
    }
    EXPECT_EQ(std::vector<int>(COROUTINES, CALLS), sums);
}

TEST_F(Awaiting, SaysHowTheCallEndedAndTakesOptions)
{
    m_server.Refuse("Add", refusal::ACCESS_DENIED, "not you");
    auto const run = [this]() -> SDetached {
        auto const refused = co_await m_workshop->Add.CallAwaitable(2, 3);
        m_steps.Put(toString(refused.GetStatus()));
        m_steps.Put(refused.GetReason());
        auto const late = co_await m_workshop->Wait.CallAwaitable(CCallOptions(20));
        m_steps.Put(toString(late.GetStatus()));
        m_done.Open();
    };
    run();

    ASSERT_TRUE(m_done.Wait());
    EXPECT_EQ((std::vector<std::string>{"Refused", "not you", "TimedOut"}), m_steps.All());
}

TEST_F(Awaiting, WorksThroughAnInterface)
{
    CProxyOf<IWorkshop> workshop(m_client);
    auto const run = [&]() -> SDetached {
        auto const sum = co_await workshop.CallAwaitable<&IWorkshop::Add>(2, 3);
        auto const late = co_await workshop.CallAwaitable<&IWorkshop::Add>(CCallOptions(0), 2, 3);
        m_steps.Put(std::to_string(sum.GetValue().value_or(-1)));
        m_steps.Put(toString(late.GetStatus()));
        m_done.Open();
    };
    run();

    ASSERT_TRUE(m_done.Wait());
    EXPECT_EQ((std::vector<std::string>{"5", "TimedOut"}), m_steps.All());
}

TEST_F(Awaiting, StartsTheCallWhenItIsAwaited)
{
    {
        auto const call = m_workshop->Add.CallAwaitable(2, 3);
    }
    m_workshop->Add(1, 1);

    EXPECT_EQ(1u, m_server.GetCalls("Add").size());
}

TEST_F(Awaiting, GoesOnWithoutAResultAtTheEndOfTheProxy)
{
    auto const run = [this]() -> SDetached {
        CTrace const trace(m_gone);
        auto const result = co_await m_workshop->Wait.CallAwaitable();
        m_threads.Put(std::this_thread::get_id());
        m_steps.Put(toString(result.GetStatus()));
    };
    run();
    ASSERT_TRUE(m_server.WaitForCalls("Wait", 1));
    m_workshop.reset();

    EXPECT_EQ(std::vector<std::string>{"Disconnected"}, m_steps.All());
    EXPECT_EQ(std::vector<std::thread::id>{std::this_thread::get_id()}, m_threads.All());
    EXPECT_TRUE(m_gone.IsOpen());
}

TEST_F(Awaiting, GoesOnAtOnceAfterTheProxysCallsHaveEnded)
{
    m_workshop->EndCalls();
    auto const run = [this]() -> SDetached {
        for (int i = 0; i < 100000; ++i) // no stack has room for so many, one inside the other
        {
            auto const result = co_await m_workshop->Add.CallAwaitable(2, 3);
            EXPECT_EQ(ECallStatus::Disconnected, result.GetStatus());
        }
        m_done.Open();
    };
    run();

    EXPECT_TRUE(m_done.IsOpen());
}

TEST_F(Awaiting, MayEndTheProxyThatItWaitedFor)
{
    auto const run = [this]() -> SDetached {
        CTrace const trace(m_gone);
        co_await m_workshop->Add.CallAwaitable(2, 3);
        m_workshop.reset();
    };
    run();

    EXPECT_TRUE(m_gone.Wait());
    EXPECT_TRUE(m_server.GetActorIds().empty());
}

TEST_F(Awaiting, OfACoroutineThatIsDestroyedMeanwhileDropsTheResult)
{
    auto const run = [this]() -> SDetached {
        CTrace const trace(m_gone);
        co_await m_workshop->Wait.CallAwaitable();
        m_steps.Put("went on");
    };
    SDetached const waiting = run();
    m_workshop->Add.CallAsync( // destroyed where it would go on
        [&](std::optional<int>) {
            waiting.handle.destroy();
            m_done.Open();
        },
        1, 2);
    ASSERT_TRUE(m_done.Wait());
    EXPECT_TRUE(m_gone.IsOpen());
    m_workshop.reset();

    EXPECT_EQ(0u, m_steps.Count());
}

TEST_F(AwaitingOnAnUnreadPort, GoesOnOnTheCallingThread)
{
    constexpr int CALLS = 10000;
    m_port.AnswerNext(listOf(12)); // the actor's id
    CWorkshopProxy workshop(m_client);
    m_port.OnCallFunction(
        [](auto const& call, int) { return listOf(types::unpackAt<int>(call, 0) + types::unpackAt<int>(call, 1)); });
    CGate done;
    int sum = 0;
    addUp(workshop, CALLS, done, sum);

    EXPECT_TRUE(done.IsOpen());
    EXPECT_EQ(CALLS, sum);
    m_port.OnCallFunction({});
}
