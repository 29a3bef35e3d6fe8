#include "CFakePort.h"
#include "CGate.h"
#include "CHang.h"
#include "CLogCapture.h"
#include "CSlowCallback.h"
#include "CThingServer.h"
#include "Eventually.h"
#include "LastFunction.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

using namespace nelo_rpc;
using namespace std::chrono_literals;
using log::ELevel;

namespace
{
using Lines = std::vector<std::string>;

constexpr char const* TRUE_ANSWER = "{0 = (CBinaryValue[bool=true]) | }";
constexpr char const* EMPTY_ANSWER = "{}";

/// The index of the first line that contains the part; -1 if there is none.
int indexOf(Lines const& lines, std::string const& part)
{
    auto const found = std::find_if(lines.begin(), lines.end(),
                                    [&](auto const& line) { return line.find(part) != std::string::npos; });
    return found == lines.end() ? -1 : static_cast<int>(found - lines.begin());
}

/// An object that an application makes in its own way.
class CGreeter
{
public:
    explicit CGreeter(std::string greeting) : m_greeting(std::move(greeting)) {}
    std::string Greet(std::string const& name) const { return m_greeting + " " + name; }

private:
    std::string m_greeting;
};

class CCounter
{
public:
    CCounter() { ++alive; }
    ~CCounter() { --alive; }
    int Add(int amount) { return m_value += amount; }

    CCallbackSender<int, std::string> OnChanged;

    static std::atomic<int> alive;

private:
    int m_value = 0;
};
std::atomic<int> CCounter::alive{0};
} // namespace

// Construction

TEST(CRpcHost, ConstructionInstallsTheCallListenerAndStartsTheWatchdog)
{
    CFakePort port;
    CLogCapture log;
    CRpcHost host(port);

    EXPECT_TRUE(host.GetThreadWatchdog().IsStarted());
    EXPECT_TRUE(log.WaitFor("] CThreadWatchdog::Tick"));
    auto const reply = port.Call(callOf(0, "CClientConnection", "ctor", std::string("CClientConnection")), 5);
    auto const answer = reply->Wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(types::toString(listOf(0)), types::toString(*answer));
    EXPECT_FALSE(log.Contains("Listener is empty"));
}

TEST(CRpcHost, ConstructionInstallsNoCallbackListener)
{
    CFakePort port;
    CRpcHost host(port);
    CLogCapture log;

    port.Callback(callbackOf(0, "OnKill"));

    EXPECT_EQ(1, log.Count("Callback Listener is empty"));
}

TEST(CRpcHost, TypesGivenToTheConstructorAreRegisteredBeforeACallCanArrive)
{
    CFakePort port;
    CLogCapture log;
    bool ran = false;
    std::shared_ptr<CFakePort::CReply> early;

    CRpcHost host(port, {}, [&](CRpcHost& newHost) {
        ran = true;
        early = port.Call(callOf(0, "CClientConnection", "ctor", std::string("Counter")), 5);
        newHost.RegisterActorType<CCounter>("Counter", [](CActor&, CCounter&) {});
    });

    EXPECT_TRUE(ran);
    ASSERT_TRUE(early);
    EXPECT_EQ(0, early->Count());
    EXPECT_EQ(1, log.Count("Function Listener is empty"));
    auto const reply = port.Call(callOf(0, "CClientConnection", "ctor", std::string("Counter")), 5);
    EXPECT_TRUE(reply->Wait());
}

TEST(CRpcHost, TheDefaultLimitsAreTwentySecondsCheckedEveryFive)
{
    SHostOptions const options;
    EXPECT_EQ(20000, options.hangLimitMs);
    EXPECT_EQ(5000, options.hangCheckMs);
}

TEST(CRpcHost, RecommendsWhatProtectsAServerFromItsClients)
{
    SHostOptions const options = SHostOptions::Recommended();
    EXPECT_EQ(EPeers::Untrusted, options.peers);
    EXPECT_EQ(EOrphans::Destroy, options.orphans);
    EXPECT_EQ(128, options.maxQueuedCalls);
    EXPECT_EQ(1000, options.maxActors);
    EXPECT_EQ(EKill::AtCancellationPoint, options.kill);
    EXPECT_TRUE(options.reportHangs);
    EXPECT_FALSE(options.authorize);
    EXPECT_EQ(20000, options.hangLimitMs);
    EXPECT_EQ(5000, options.hangCheckMs);
}

TEST(CRpcHost, CanBeDestroyedThroughAPointerToADerivedClass)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<CRpcHost>);
}

// Connections

TEST(CRpcHost, TheFirstCallOfAConnectionMakesItAndLaterOnesUseIt)
{
    CThingServer server;
    CLogCapture log;
    int const id = server.Ctor(5);
    CClientConnection* const connection = &server.host->GetOrCreateClientConnection(5);
    ASSERT_TRUE(server.Call(5, id, "Serial")->Wait());

    EXPECT_EQ(connection, &server.host->GetOrCreateClientConnection(5));
    EXPECT_NE(connection, &server.host->GetOrCreateClientConnection(6));
    server.host.reset();
    EXPECT_EQ(2, log.Count("CClientConnection::~CClientConnection"));
}

TEST(CRpcHost, AConnectionThatWasAskedForBeforeItsFirstCallIsUsedByIt)
{
    CThingServer server;
    CClientConnection& connection = server.host->GetOrCreateClientConnection(5);
    int const id = server.Ctor(5);

    // Its actors are this connection's: destroyed through it they are gone.
    connection.DestroyActors(true);
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    EXPECT_LT(id, server.Ctor(5));
}

TEST(CRpcHost, AnyConnectionIdIsServed)
{
    CThingServer server;
    for (int const connectionId : {0, 7, 123456, -1})
    {
        int const id = server.Ctor(connectionId);
        EXPECT_EQ(TRUE_ANSWER, CThingServer::TextOf(*server.Call(connectionId, id, "Change", 1)));
        EXPECT_EQ(connectionId, server.port.Callbacks().back().connectionId);
    }
}

TEST(CRpcHost, AConnectionWithoutActorsIsKept)
{
    CThingServer server;
    CClientConnection* const connection = &server.host->GetOrCreateClientConnection(5);
    server.Dtor(5, server.Ctor(5));

    EXPECT_EQ(connection, &server.host->GetOrCreateClientConnection(5));
}

// Calls and callbacks

TEST(CRpcHost, LogsEveryCall)
{
    CThingServer server;
    CLogCapture log;
    auto const call = callOf(0, "CClientConnection", "ctor", std::string("Thing"));

    server.port.Call(call, 5)->Wait();

    EXPECT_EQ(1, log.Count("] CRpcHost::CRpcHost OnFunctionCall with msg=" + types::toString(call)));
}

TEST(CRpcHost, SendsCallbacksThroughThePortAndTellsWhatItSaid)
{
    CThingServer server;
    CLogCapture log;
    auto const callback = callbackOf(3, "OnChanged", 4);

    EXPECT_TRUE(server.host->SendCallback(callback, 5));
    server.port.SetSendResult(false);
    EXPECT_FALSE(server.host->SendCallback(callback, 6));

    ASSERT_EQ(2U, server.port.Callbacks().size());
    EXPECT_EQ(types::toString(callback), types::toString(server.port.Callbacks()[0].list));
    EXPECT_EQ(5, server.port.Callbacks()[0].connectionId);
    EXPECT_EQ(6, server.port.Callbacks()[1].connectionId);
    std::string const line = "CRpcHost::CRpcHost SendCallback with msg=" + types::toString(callback);
    EXPECT_EQ((Lines{line, line}), ownLines(log));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

// The registry

TEST(CRpcHost, FindsTheTypesThatWereRegistered)
{
    CFakePort port;
    CRpcHost host(port);
    EXPECT_EQ(nullptr, host.FindActorType("Counter"));

    host.RegisterActorType<CCounter>("Counter", [](CActor&, CCounter&) {});

    ASSERT_NE(nullptr, host.FindActorType("Counter"));
    EXPECT_EQ(nullptr, host.FindActorType("counter"));
    int const before = CCounter::alive;
    void* const object = host.FindActorType("Counter")->create();
    EXPECT_EQ(before + 1, CCounter::alive);
    host.FindActorType("Counter")->destroy(object);
    EXPECT_EQ(before, CCounter::alive);
}

TEST(CRpcHost, ServesObjectsOfAClassThroughItsMemberFunctionsAndCallbacks)
{
    CFakePort port;
    CRpcHost host(port);
    host.RegisterActorType<CCounter>("Counter", [](CActor& actor, CCounter& counter) {
        actor.AddFunction("Add", counter, &CCounter::Add);
        actor.AddFunction("Tell", [&counter](int value) { counter.OnChanged.Send(value, "told"); });
        actor.AddCallback("OnChanged", counter.OnChanged);
    });
    int const before = CCounter::alive;
    auto const made = port.Call(callOf(0, "CClientConnection", "ctor", std::string("Counter")), 2)->Wait();
    ASSERT_TRUE(made);
    int const id = types::unpackAt<int>(*made, 0);
    EXPECT_EQ(before + 1, CCounter::alive);

    EXPECT_EQ(types::toString(listOf(4)), types::toString(*port.Call(callOf(id, "Counter", "Add", 4), 2)->Wait()));
    EXPECT_EQ(TRUE_ANSWER, types::toString(*port.Call(callOf(id, "Counter", "Tell", 8), 2)->Wait()));
    ASSERT_EQ(1U, port.Callbacks().size());
    EXPECT_EQ(types::toString(callbackOf(id, "OnChanged", 8, std::string("told"))),
              types::toString(port.Callbacks()[0].list));
    EXPECT_EQ(TRUE_ANSWER, types::toString(*port.Call(callOf(0, "CClientConnection", "dtor", id), 2)->Wait()));
    EXPECT_EQ(before, CCounter::alive);
}

TEST(CRpcHost, MakesObjectsWithTheFactoryThatWasGiven)
{
    CFakePort port;
    CRpcHost host(port);
    host.RegisterActorType<CGreeter>(
        "Greeter", [](CActor& actor, CGreeter& greeter) { actor.AddFunction("Greet", greeter, &CGreeter::Greet); },
        [] { return std::make_unique<CGreeter>("Good day"); });
    auto const made = port.Call(callOf(0, "CClientConnection", "ctor", std::string("Greeter")), 2)->Wait();
    ASSERT_TRUE(made);

    auto const answer =
        port.Call(callOf(types::unpackAt<int>(*made, 0), "Greeter", "Greet", std::string("Ada")), 2)->Wait();

    ASSERT_TRUE(answer);
    EXPECT_EQ(types::toString(listOf(std::string("Good day Ada"))), types::toString(*answer));
}

TEST(CRpcHost, ServesATypeThatIsNothingButThreeFunctions)
{
    CFakePort port;
    static int object = 0;
    std::vector<std::string> steps;
    void* seen = nullptr;
    {
        CRpcHost host(port);
        SActorType type;
        type.create = [&]() -> void* {
            steps.emplace_back("create");
            return &object;
        };
        type.destroy = [&](void* destroyed) { steps.emplace_back(destroyed == &object ? "destroy" : "wrong object"); };
        type.setup = [&](CActor& actor) {
            steps.emplace_back("setup");
            seen = actor.GetObject();
        };
        host.RegisterActorType("Plain", type);
        ASSERT_TRUE(port.Call(callOf(0, "CClientConnection", "ctor", std::string("Plain")), 2)->Wait());
    }
    EXPECT_EQ((std::vector<std::string>{"create", "setup", "destroy"}), steps);
    EXPECT_EQ(&object, seen);
}

TEST(CRpcHost, ATypeThatIsRegisteredAgainReplacesTheEarlierOneForNewActors)
{
    CFakePort port;
    CRpcHost host(port);
    for (int version = 1; version <= 2; ++version)
    {
        host.RegisterActorType<CCounter>("Counter", [version](CActor& actor, CCounter&) {
            actor.AddFunction("Version", [version] { return version; });
        });
    }
    auto const made = port.Call(callOf(0, "CClientConnection", "ctor", std::string("Counter")), 2)->Wait();
    ASSERT_TRUE(made);

    auto const answer = port.Call(callOf(types::unpackAt<int>(*made, 0), "Counter", "Version"), 2)->Wait();
    ASSERT_TRUE(answer);
    EXPECT_EQ(types::toString(listOf(2)), types::toString(*answer));
}

TEST(CRpcHost, TypesMayBeRegisteredWhileCallsAreCarriedOut)
{
    CThingServer server;
    std::atomic<bool> stop{false};
    std::thread application([&] {
        for (int type = 0; !stop; ++type)
        {
            server.host->RegisterActorType<CCounter>("Counter" + std::to_string(type % 50), [](CActor&, CCounter&) {});
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < 30; ++round)
    {
        int const id = server.Ctor(round % 2);
        EXPECT_EQ(TRUE_ANSWER, server.Dtor(round % 2, id));
    }
    stop = true;
    application.join();
}

// Destruction

TEST(CRpcHost, DestructionLogsThenShutsConnectionsDownInTheOrderOfTheirIdsAndStopsTheWatchdogLast)
{
    CThingServer server;
    CLogCapture log;
    server.Ctor(9);
    server.Ctor(2);
    server.Ctor(5);
    ASSERT_TRUE(log.WaitFor("running message ping(ctor", 6));
    int const watchdog = server.host->GetThreadWatchdog().GetId();
    log.Clear();

    server.host.reset();

    auto const lines = ownLines(log);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("CRpcHost::~CRpcHost", lines.front());
    EXPECT_EQ((std::vector<int>{2, 3, 1}), server.Destroyed());
    int const lastActors = static_cast<int>(
        std::find(lines.rbegin(), lines.rend(), "CClientConnection::DestroyActors done").base() - lines.begin());
    int const watchdogStops = indexOf(lines, "CLoopThread::StopAndJoin thread " + std::to_string(watchdog) + " from");
    int const watchdogStopped = indexOf(lines, "CLoopThread::StopAndJoin thread " + std::to_string(watchdog) + " done");
    int const connectionsGo = indexOf(lines, "CClientConnection::~CClientConnection with 1 registered actors");
    EXPECT_NE(-1, watchdogStops);
    EXPECT_LT(lastActors - 1, watchdogStops);
    EXPECT_LT(watchdogStops, watchdogStopped);
    EXPECT_LT(watchdogStopped, connectionsGo);
    EXPECT_EQ(3, log.Count("CClientConnection::DestroyActors(1)"));
    EXPECT_EQ(3, log.Count("CClientConnection::~CClientConnection with 1 registered actors (should be 1)"));
}

TEST(CRpcHost, AfterItsDestructionCallsAreDroppedAndNothingOfItIsCalled)
{
    CThingServer server;
    int const id = server.Ctor(5);
    server.host.reset();
    CLogCapture log;

    auto const reply = server.Call(5, id, "Add", 1);

    EXPECT_EQ(0, reply->Count());
    EXPECT_EQ(Lines{"Function Listener is empty"}, ownLines(log));
}

TEST(CRpcHost, DestructionWithoutAnyCallDoesNotWaitForTheWatchdogsPeriod)
{
    CFakePort port;
    auto const start = std::chrono::steady_clock::now();
    {
        CLogCapture log;
        CRpcHost const host(port);
        ASSERT_TRUE(log.WaitFor("] CThreadWatchdog::Tick"));
    }
    EXPECT_GT(4s, std::chrono::steady_clock::now() - start);
}

TEST(CRpcHost, DestructionLetsQueuedCallsFinishAndEveryCallerGetsItsAnswer)
{
    CThingServer server;
    int const id = server.Ctor(5);
    int const other = server.Ctor(6);
    auto const blocked = server.Call(5, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    auto const queued = server.Call(5, id, "Add", 3);
    auto const elsewhere = server.Call(6, other, "Add", 4);
    CGate destroyed;
    std::thread owner([&] {
        server.host.reset();
        destroyed.Open();
    });
    EXPECT_TRUE(destroyed.StaysShut());
    server.release.Open();
    owner.join();

    EXPECT_EQ(1, blocked->Count());
    EXPECT_EQ(TRUE_ANSWER, CThingServer::TextOf(*blocked));
    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*queued));
    EXPECT_EQ(types::toString(listOf(4)), CThingServer::TextOf(*elsewhere));
    EXPECT_EQ(1, queued->Count());
    EXPECT_EQ((std::vector<int>{1, 2}), server.Destroyed());
}

TEST(CRpcHost, DestructionWithAHungCallWaitsForItsKillAndEveryCallerGetsOneAnswer)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(5);
    int const other = server.Ctor(6);
    auto const hung = server.Call(5, id, "Hang");
    auto const queued = server.Call(5, id, "Add", 3);
    auto const elsewhere = server.Call(6, other, "Add", 4);
    ASSERT_TRUE(server.hang.WaitUntilEntered());
    CLogCapture log;

    server.host.reset();

    EXPECT_EQ(1, hung->Count());
    EXPECT_EQ(1, queued->Count());
    EXPECT_EQ(1, elsewhere->Count());
    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*hung));
    EXPECT_EQ(types::toString(listOf(4)), CThingServer::TextOf(*elsewhere));
    EXPECT_LE(1, log.Count("CThreadWatchdog::Tick Killing thread "));

    // Whatever is left of it would show up here, or in a sanitizer.
    CLogCapture afterwards;
    server.Call(5, id, "Add", 1);
    EXPECT_EQ(Lines{"Function Listener is empty"}, afterwards.Texts());
}

TEST(CRpcHost, DestructionRightAfterAKillDestroysWhatIsLeftOnceAndAnswersTheQueuedCalls)
{
    // The handler of the kill and the shutdown meet at a different moment every time.
    for (int round = 0; round < 4; ++round)
    {
        SHostOptions options;
        options.hangLimitMs = 1000;
        options.hangCheckMs = 200;
        CThingServer server(options);
        int const id = server.Ctor(5);
        server.Ctor(5);
        server.Ctor(6);
        CLogCapture log;
        auto const hung = server.Call(5, id, "Hang");
        auto const queued = server.Call(5, id, "Add", 3);
        ASSERT_TRUE(log.WaitFor(round % 2 == 0 ? "CThreadWatchdog::Tick Killing thread " : "DestroyActors(0)"));

        server.host.reset();

        EXPECT_EQ(1, hung->Count());
        EXPECT_EQ(1, queued->Count());
        EXPECT_EQ(3, log.Count("CActor::~CActor actor=") - 2); // the connections' own two beside
    }
}

TEST(CRpcHost, DestructionWaitsForTheHandlerOfAKillThatIsInProgress)
{
    CSlowCallback slow;
    CThingServer server(CThingServer::ShortLimits());
    server.onSetup = [&](CActor& actor) { actor.AddCallback("OnSlow", slow); };
    int const id = server.Ctor(5);
    server.Ctor(5);
    CLogCapture log;
    auto const hung = server.Call(5, id, "Hang");
    ASSERT_TRUE(slow.removing.Wait());

    CGate destroyed;
    std::thread owner([&] {
        server.host.reset();
        destroyed.Open();
    });
    EXPECT_TRUE(destroyed.StaysShut());
    slow.release.Open();
    owner.join();

    EXPECT_EQ(1, hung->Count());
    EXPECT_EQ(3, log.Count("CActor::~CActor actor=")); // the two and the connection's own
    EXPECT_EQ(1, log.Count("with 1 registered actors (should be 1)"));
}

TEST(CRpcHost, EveryCallDuringTheDestructionIsAnsweredOrDroppedWithALine)
{
    for (int round = 0; round < 5; ++round)
    {
        CThingServer server;
        int const id = server.Ctor(5);
        CLogCapture log;
        std::vector<std::shared_ptr<CFakePort::CReply>> replies;
        CGate some;
        std::atomic<bool> stop{false};
        std::thread receiver([&] {
            while (!stop)
            {
                replies.push_back(server.Call(5, id, "Add", 1));
                if (replies.size() == 20)
                {
                    some.Open();
                }
            }
        });
        EXPECT_TRUE(some.Wait());
        server.host.reset();
        stop = true;
        receiver.join();

        int answered = 0;
        for (auto const& reply : replies)
        {
            EXPECT_GE(1, reply->Count());
            answered += reply->Count();
        }
        EXPECT_LE(20, answered);
        EXPECT_EQ(static_cast<int>(replies.size()), answered + log.Count("Function Listener is empty"));
    }
}

TEST(CRpcHost, ObjectsMaySendWhileTheHostIsDestroyedThoughTheirClientIsGone)
{
    // The destruction of one thing sends through another's actor, which fails and would have a worker remove it.
    CThingServer server;
    CCallbackSender<int> news;
    server.onSetup = [&](CActor& actor) { actor.AddCallback("OnNews", news); };
    server.onDestroy = [&](CThing&) { news.Send(1); };
    server.Ctor(5);
    server.Ctor(5);
    server.Ctor(5);
    server.port.SetSendResult(false);

    server.host.reset();

    EXPECT_EQ((std::vector<int>{1, 2, 3}), server.Destroyed());
}

TEST(CRpcHost, OtherThreadsMaySendUntilTheObjectsAreDestroyed)
{
    CThingServer server;
    std::atomic<bool> stop{false};
    std::vector<std::thread> publishers;
    server.onDestroy = [&](CThing& thing) {
        if (thing.GetSerial() == 1)
        {
            stop = true;
            for (auto& publisher : publishers)
            {
                publisher.join();
            }
        }
    };
    server.Ctor(5);
    CThing* const thing = server.LastThing();
    for (int publisher = 0; publisher < 2; ++publisher)
    {
        publishers.emplace_back([&] {
            for (int value = 0; !stop; ++value)
            {
                thing->OnChanged.Send(value);
                std::this_thread::yield();
            }
        });
    }
    ASSERT_TRUE(server.port.WaitForCallbacks(20));

    server.host.reset();

    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
}

TEST(CRpcHost, AClientMayDisappearWhileTheHostIsDestroyed)
{
    for (int round = 0; round < 10; ++round)
    {
        CThingServer server;
        std::atomic<bool> stop{false};
        std::thread publisher;
        server.onDestroy = [&](CThing& thing) {
            if (thing.GetSerial() == 1)
            {
                stop = true;
                publisher.join();
            }
        };
        server.Ctor(5);
        CThing* const thing = server.LastThing();
        publisher = std::thread([&] {
            for (int value = 0; !stop; ++value)
            {
                thing->OnChanged.Send(value);
            }
        });
        ASSERT_TRUE(server.port.WaitForCallbacks(5));
        server.port.SetSendResult(false);

        server.host.reset();

        EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    }
}

// Hung calls at full length

TEST(CRpcHost, SlowAHungCallIsReportedTwiceAndKilledBetweenFifteenAndTwentySecondsByDefault)
{
    CThingServer server;
    int const id = server.Ctor(5);
    CLogCapture log;
    auto const start = std::chrono::steady_clock::now();

    auto const reply = server.Call(5, id, "Hang");
    ASSERT_TRUE(server.hang.WaitUntilEntered());
    auto const answer = reply->Wait(30s);
    auto const took = std::chrono::steady_clock::now() - start;

    ASSERT_TRUE(answer);
    EXPECT_EQ(EMPTY_ANSWER, types::toString(*answer));
    EXPECT_LE(15s, took);
    EXPECT_GT(25s, took); // 20 and what a busy machine adds
    ASSERT_TRUE(server.port.WaitForCallbacks(1));
    std::string const thread = std::to_string(server.hang.GetThread());
    Lines expected{"CThreadWatchdog::Tick Thread " + thread + " is not responding, killing it in 5000 milliseconds",
                   "CThreadWatchdog::Tick Thread " + thread + " is not responding, killing it in 0 milliseconds",
                   "CThreadWatchdog::Tick Killing thread " + thread};
    auto errors = log.Texts(ELevel::Error);
    ASSERT_LE(expected.size(), errors.size());
    errors.resize(expected.size());
    EXPECT_EQ(expected, errors);

    // The next call finds a new actor.
    auto const next = server.Call(5, id, "Add", 2)->Wait();
    ASSERT_TRUE(next);
    EXPECT_EQ(types::toString(listOf(2)), types::toString(*next));
    ASSERT_TRUE(server.port.WaitForCallbacks(2));
    EXPECT_EQ(types::toString(callbackOf(0, "OnKill")), types::toString(server.port.Callbacks()[0].list));
    EXPECT_EQ(types::toString(callbackOf(id, "OnRecreate")), types::toString(server.port.Callbacks()[1].list));
}

// The end of the process

namespace
{
constexpr int EXIT_SERVED = 4;

CThingServer* g_serverAtExit = nullptr; // never destroyed: it is alive at exit, that is the point

void expectThatItStillServes()
{
    auto const ctor = g_serverAtExit->port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), 6);
    auto const own =
        g_serverAtExit->port.Call(callOf(0, "CClientConnection", "ctor", std::string("CClientConnection")), 6);
    auto const made = ctor->Wait();
    auto const none = own->Wait();
    bool const served = made && types::unpackAt<int>(*made, 0) > 0 && none && types::unpackAt<int>(*none, 0) == 0;
    ::_exit(served ? EXIT_SERVED : EXIT_FAILURE);
}
} // namespace

TEST(CRpcHostDeathTest, AHostAliveAtExitStillServes)
{
    EXPECT_EXIT(
        {
            runAfterStaticDestructors(&expectThatItStillServes);
            g_serverAtExit = new CThingServer;
            g_serverAtExit->Ctor(5);
            std::exit(0);
        },
        ::testing::ExitedWithCode(EXIT_SERVED), "");
}
