#include "CLogCapture.h"
#include "CSpin.h"
#include "CThingServer.h"
#include "Eventually.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace nelo_rpc;
using namespace std::chrono_literals;
using log::ELevel;

// Workers that are killed at cancellation points, or cut off if they get to none.

namespace
{

using Lines = std::vector<std::string>;

constexpr char const* TRUE_ANSWER = "{0 = (CBinaryValue[bool=true]) | }";
constexpr char const* EMPTY_ANSWER = "{}";
/// An actor that another one with its id has overwritten is not freed; from here a leak check finds it.
CActor* volatile g_overwritten = nullptr;

constexpr char const* CUT_OFF_LINE = "reached no cancellation point and is cut off";

SHostOptions atCancellationPoint()
{
    SHostOptions options;
    options.kill = EKill::AtCancellationPoint;
    options.hangLimitMs = 1000;
    options.hangCheckMs = 200;
    return options;
}

std::string callbackText(int actorId, std::string const& name)
{
    return "callback " + types::toString(callbackOf(actorId, name));
}

/// How many events are this one.
std::ptrdiff_t countOf(CThingServer const& server, std::string const& event)
{
    auto const events = server.port.Events();
    return std::count(events.begin(), events.end(), event);
}

bool isKillTold(CThingServer const& server, int times = 1)
{
    return eventually([&] { return countOf(server, callbackText(0, "OnKill")) == times; });
}

/// What the client of a hung call sees, whatever the call was.
void expectAnEmptyReplyAndOnKill(CThingServer const& server, CFakePort::CReply const& reply)
{
    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(reply));
    EXPECT_TRUE(isKillTold(server));
}

void expectANewActor(CThingServer& server, int id)
{
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, id, "Add", 2)));
    EXPECT_EQ(1, countOf(server, callbackText(id, "OnRecreate")));
}

bool isGone(int thread)
{
    return ::access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) != 0;
}

class CutOff : public ::testing::Test
{
protected:
    /// Runs a function that hangs, until its client has been told.
    std::shared_ptr<CFakePort::CReply> Hang(CThingServer& server, int id, std::function<void(CThing&)> function)
    {
        server.run = [this, function = std::move(function)](CThing& thing) {
            m_thread = static_cast<int>(::syscall(SYS_gettid));
            function(thing);
        };
        auto reply = server.Call(4, id, "Run");
        expectAnEmptyReplyAndOnKill(server, *reply);
        return reply;
    }

    bool HasEnded() const
    {
        return eventually([this] { return isGone(m_thread); });
    }

    std::atomic<int> m_thread{0};
    CSpin m_spin;
};

/// The lines of a connection, its own actor and its sender that end after their host; they name no other thing.
bool areEndsOfWhatWasKept(Lines const& lines)
{
    return std::all_of(lines.begin(), lines.end(), [](std::string const& line) {
        return line.rfind("CClientConnection::~CClientConnection", 0) == 0 || line.rfind("CActor::~CActor", 0) == 0 ||
               line.rfind("CCallbackSender::~CCallbackSender", 0) == 0 ||
               line.find("was cut off and has ended") != std::string::npos;
    });
}

} // namespace

// At a cancellation point

TEST_F(CutOff, AWorkerAsleepIsCancelled)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CLogCapture log;

    Hang(server, id, [](CThing&) { ::sleep(60); });

    EXPECT_TRUE(HasEnded());
    EXPECT_EQ(0, log.Count(CUT_OFF_LINE));
    expectANewActor(server, id);
}

TEST_F(CutOff, AWorkerThatWaitsForAConditionIsCancelledAndLeavesTheMutexFree)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CLogCapture log;
    std::mutex mutex;
    std::condition_variable condition;

    Hang(server, id, [&](CThing&) {
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [] { return false; });
    });

    EXPECT_TRUE(HasEnded());
    EXPECT_EQ(0, log.Count(CUT_OFF_LINE));
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
    expectANewActor(server, id);
}

TEST_F(CutOff, AWorkerThatReadsIsCancelled)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CLogCapture log;
    int pipe[2];
    ASSERT_EQ(0, ::pipe(pipe));

    Hang(server, id, [&](CThing&) {
        char byte = 0;
        static_cast<void>(!::read(pipe[0], &byte, 1));
    });

    EXPECT_TRUE(HasEnded());
    EXPECT_EQ(0, log.Count(CUT_OFF_LINE));
    expectANewActor(server, id);
    ::close(pipe[0]);
    ::close(pipe[1]);
}

TEST_F(CutOff, AWorkerThatSendsAllTheTimeIsCancelledAtTheEndOfASend)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CLogCapture log;

    Hang(server, id, [](CThing& thing) {
        for (;;)
        {
            thing.OnChanged.Send(1);
            std::this_thread::sleep_for(1ms);
        }
    });

    EXPECT_TRUE(HasEnded());
    EXPECT_EQ(0, log.Count(CUT_OFF_LINE));
    expectANewActor(server, id);
}

TEST_F(CutOff, WhatAWorkerThatIsCancelledOwnsIsDestroyed)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    auto const owned = std::make_shared<int>(1);

    Hang(server, id, [&](CThing&) {
        auto const copy = owned;
        ::sleep(60);
    });

    EXPECT_TRUE(HasEnded());
    server.run = {};
    EXPECT_TRUE(eventually([&] { return owned.use_count() == 1; }));
}

TEST_F(CutOff, AHungConstructorIsCancelled)
{
    CThingServer server(atCancellationPoint());
    SActorType type;
    type.create = [&]() -> void* {
        m_thread = static_cast<int>(::syscall(SYS_gettid));
        ::sleep(60);
        return nullptr;
    };
    type.destroy = [](void*) {};
    type.setup = [](CActor&) {};
    server.host->RegisterActorType("Stuck", type);

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Stuck")), 4);

    expectAnEmptyReplyAndOnKill(server, *reply);
    EXPECT_TRUE(HasEnded());
    EXPECT_LT(0, server.Ctor(4));
}

// Cut off

TEST_F(CutOff, AWorkerThatComputesIsLeftToItselfAndReplaced)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CLogCapture log;

    auto const reply = Hang(server, id, [&](CThing&) { m_spin.Enter(); });

    EXPECT_EQ(1, log.Count("CLoopThread::Kill thread " + std::to_string(m_thread) + " " + CUT_OFF_LINE +
                           ", such threads that have not ended: 1"));
    EXPECT_EQ(1, log.Count("CThreadWatchdog::Tick Killing thread " + std::to_string(m_thread)));
    EXPECT_EQ(1, log.Count("CLoopThread::Kill of thread " + std::to_string(m_thread) + " done successfully"));
    expectANewActor(server, id);
    EXPECT_FALSE(isGone(m_thread));

    auto const before = server.port.Events();
    EXPECT_TRUE(m_spin.End());
    EXPECT_TRUE(log.WaitFor("CLoopThread::Thread with id=" + std::to_string(m_thread) + " was cut off and has ended"));
    EXPECT_EQ(before, server.port.Events()) << "its result was not dropped";
    EXPECT_EQ(1, reply->Count());
    EXPECT_EQ(types::toString(listOf(5)), CThingServer::TextOf(*server.Call(4, id, "Add", 3)));
    EXPECT_TRUE(server.Destroyed().empty());
}

TEST_F(CutOff, AWorkerThatWaitsForAMutexIsLeftToItselfAndReplaced)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CLogCapture log;
    std::mutex mutex;
    mutex.lock();

    Hang(server, id, [&](CThing&) { std::lock_guard<std::mutex> const lock(mutex); });

    EXPECT_EQ(1, log.Count(CUT_OFF_LINE));
    expectANewActor(server, id);
    mutex.unlock();
    EXPECT_TRUE(HasEnded());
    EXPECT_TRUE(mutex.try_lock());
    mutex.unlock();
}

TEST_F(CutOff, AWorkerThatAllocatesAllTheTimeLeavesTheAllocatorUsable)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CLogCapture log;
    std::atomic<bool> stop{false};

    Hang(server, id, [&](CThing&) {
        while (!stop)
        {
            void* volatile const block = std::malloc(100);
            std::free(block);
        }
    });

    EXPECT_EQ(1, log.Count(CUT_OFF_LINE));
    expectANewActor(server, id);
    stop = true;
    EXPECT_TRUE(HasEnded());
}

TEST_F(CutOff, AWorkerInsideAStalledSendHoldsNobodyUp)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    std::atomic<bool> wentOn{false};
    server.port.OnSendCallback([&](types::CValueList const& callback, int) {
        if (types::unpackAt<std::string>(callback, protocol::METHOD_NAME) == "OnChanged")
        {
            m_spin.Enter();
        }
        return false; // and then there is nobody
    });
    CLogCapture log;

    Hang(server, id, [&](CThing& thing) {
        thing.OnChanged.Send(1);
        wentOn = true;
    });

    EXPECT_EQ(1, log.Count(CUT_OFF_LINE));
    server.port.OnSendCallback({});
    expectANewActor(server, id);
    EXPECT_TRUE(m_spin.End());
    EXPECT_FALSE(wentOn);
    EXPECT_EQ(types::toString(listOf(5)), CThingServer::TextOf(*server.Call(4, id, "Add", 3))) << "it was removed";
}

TEST_F(CutOff, AWorkerInsideALineOfTheLogHoldsNobodyUp)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    std::atomic<bool> ran{false};
    server.run = [&](CThing&) { ran = true; };
    log::SetSink([&](ELevel, std::string const& line) {
        if (line.find("CallFunction Run") != std::string::npos)
        {
            m_spin.Enter();
        }
    });

    expectAnEmptyReplyAndOnKill(server, *server.Call(4, id, "Run"));
    expectANewActor(server, id);

    EXPECT_TRUE(m_spin.End());
    EXPECT_FALSE(ran) << "the function of a call that is over was begun";
    installStderrSink();
}

TEST_F(CutOff, AWorkerInsideALineBeforeItsFirstItemHoldsNobodyUp)
{
    CThingServer server(atCancellationPoint());
    ASSERT_TRUE(eventually([&] { return server.host->GetThreadWatchdog().GetId() != 0; })); // has written its own
    log::SetSink([&](ELevel, std::string const& line) {
        if (line.find("CLoopThread::Thread starting thread") != std::string::npos && m_thread.exchange(1) == 0)
        {
            m_spin.Enter();
        }
    });

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), 4);

    expectAnEmptyReplyAndOnKill(server, *reply);
    EXPECT_LT(0, server.Ctor(4));
    EXPECT_TRUE(m_spin.End());
    EXPECT_LT(0, server.Ctor(4));
    installStderrSink();
}

TEST_F(CutOff, AWorkerThatWasAboutToEnterAnActorEntersNone)
{
    CThingServer server(atCancellationPoint());
    server.onSetup = [&](CActor&) { m_spin.Release(); };
    CSpin stalled;
    log::SetSink([&](ELevel, std::string const& line) {
        if (line.find("knownActors[actorId]=(nil), lastActorId") != std::string::npos && m_thread.exchange(1) == 0)
        {
            stalled.Enter();
        }
    });
    auto const reply = server.Call(4, 77, "Add", 1);
    expectAnEmptyReplyAndOnKill(server, *reply);
    EXPECT_TRUE(stalled.End());
    installStderrSink();

    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, 77, "Serial"))) << "made anew";
    EXPECT_EQ(1, countOf(server, callbackText(77, "OnRecreate")));
    EXPECT_EQ(1, reply->Count());
}

TEST_F(CutOff, AHungConstructorIsLeftToItselfAndMakesNoActor)
{
    CThingServer server(atCancellationPoint());
    std::atomic<int> setUp{0};
    SActorType type;
    type.create = [&]() -> void* {
        m_spin.Enter();
        return nullptr;
    };
    type.destroy = [](void*) {};
    type.setup = [&](CActor&) { ++setUp; };
    server.host->RegisterActorType("Stuck", type);

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Stuck")), 4);

    expectAnEmptyReplyAndOnKill(server, *reply);
    EXPECT_LT(0, server.Ctor(4));
    EXPECT_TRUE(m_spin.End());
    EXPECT_EQ(0, setUp);
    EXPECT_EQ(1, reply->Count());
}

TEST_F(CutOff, AHungSetupIsLeftToItselfAndItsActorIsTakenOffItsSenders)
{
    CThingServer server(atCancellationPoint());
    auto early = std::make_unique<CCallbackSender<int>>();
    CCallbackSender<int> late;
    SActorType type;
    type.create = []() -> void* { return nullptr; };
    type.destroy = [](void*) {};
    type.setup = [&](CActor& actor) {
        actor.AddCallback("OnEarly", *early);
        m_spin.Enter();
        CCancellationGuard const guard; // as in a destructor: the next line is not where it ends
        actor.AddCallback("OnLate", late);
    };
    server.host->RegisterActorType("Stuck", type);

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Stuck")), 4);

    expectAnEmptyReplyAndOnKill(server, *reply);
    early->Send(1);
    early.reset(); // nothing of the library remembers it
    EXPECT_TRUE(m_spin.End());
    late.Send(1);
    EXPECT_EQ(1U, server.port.Callbacks().size()) << "OnKill and nothing else";
    EXPECT_LT(0, server.Ctor(4));
}

TEST_F(CutOff, AHungDestructorIsLeftToItselfAndItsActorIsForgotten)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    server.onDestroy = [&](CThing& thing) {
        if (thing.GetSerial() == 1)
        {
            m_spin.Enter();
        }
    };

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4);

    expectAnEmptyReplyAndOnKill(server, *reply);
    expectANewActor(server, id);
    EXPECT_TRUE(m_spin.End());
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    EXPECT_EQ(types::toString(listOf(5)), CThingServer::TextOf(*server.Call(4, id, "Add", 3))) << "it was erased";
    EXPECT_EQ(1, reply->Count());
    EXPECT_EQ(TRUE_ANSWER, server.Dtor(4, id));
}

TEST_F(CutOff, AHungDestructorOfWhatAFunctionHoldsIsLeftToItselfAndItsActorIsForgotten)
{
    for (auto const kill : {EKill::Anywhere, EKill::AtCancellationPoint})
    {
        SHostOptions options = atCancellationPoint();
        options.kill = kill;
        CThingServer server(options);
        CSpin inDestructor;
        struct SHeld
        {
            CSpin& spin;
            explicit SHeld(CSpin& s) : spin(s) {}
            SHeld(SHeld const&) = delete;
            SHeld& operator=(SHeld const&) = delete;
            ~SHeld() { spin.Enter(); }
        };
        server.onSetup = [&](CActor& actor) {
            if (server.MadeCount() == 1)
            {
                actor.AddFunction("Held", [held = std::make_shared<SHeld>(inDestructor)] {});
            }
        };
        int const id = server.Ctor(4);

        auto const reply = server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4);

        expectAnEmptyReplyAndOnKill(server, *reply);
        expectANewActor(server, id);
        EXPECT_TRUE(inDestructor.End());
        EXPECT_EQ(types::toString(listOf(5)), CThingServer::TextOf(*server.Call(4, id, "Add", 3))) << "it was erased";
        EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
        EXPECT_EQ(1, reply->Count());
    }
}

TEST_F(CutOff, AWorkerInsideALineAboutAnActorThatIsDeletedHoldsNobodyUp)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    log::SetSink([&](ELevel, std::string const& line) {
        if (line.find("dtor erasing actor from knownActors") != std::string::npos && m_thread.exchange(1) == 0)
        {
            m_spin.Enter();
        }
    });

    expectAnEmptyReplyAndOnKill(server, *server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4));

    expectANewActor(server, id);
    EXPECT_TRUE(m_spin.End());
    EXPECT_EQ(types::toString(listOf(5)), CThingServer::TextOf(*server.Call(4, id, "Add", 3))) << "it was erased";
    installStderrSink();
}

TEST_F(CutOff, AWorkerInsideALineAboutARepeatedActorHoldsNobodyUp)
{
    constexpr int id = 5000;
    CThingServer server(atCancellationPoint());
    g_overwritten = server.host->GetOrCreateClientConnection(4).CreateActorWithId(id, "Thing");
    CClientConnection::lastActorId = id - 1;
    log::SetSink([&](ELevel, std::string const& line) {
        if (line.find("Actor id should not repeat") != std::string::npos)
        {
            m_spin.Enter();
        }
    });

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), 4);

    expectAnEmptyReplyAndOnKill(server, *reply);
    expectANewActor(server, id);
    EXPECT_TRUE(m_spin.End());
    installStderrSink();
}

TEST_F(CutOff, AWorkerInsideALineAboutItsOwnStopHoldsNobodyUp)
{
    for (std::string const stop : {"from current thread", "done"})
    {
        CThingServer server(atCancellationPoint());
        int const id = server.Ctor(4);
        CSpin stalled;
        std::atomic<bool> isFirst{true};
        log::SetSink([&](ELevel, std::string const& line) {
            if (line.find("StopAndJoin") != std::string::npos && line.find(stop) != std::string::npos &&
                isFirst.exchange(false))
            {
                stalled.Enter();
            }
        });
        auto const reply = server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4);
        ASSERT_TRUE(stalled.WaitUntilEntered());

        // From another thread: it must not be the test that waits for ever.
        std::shared_ptr<CFakePort::CReply> next;
        CGate received;
        std::thread receiver([&] {
            next = server.Call(4, id, "Add", 2);
            received.Open();
        });

        EXPECT_TRUE(received.Wait(5s)) << "the receiver waits for the worker";
        EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
        EXPECT_TRUE(stalled.End());
        receiver.join();
        EXPECT_TRUE(next->Wait());
        installStderrSink();
    }
}

// Several at once

TEST_F(CutOff, AClientThatCannotBeToldOfItsKillHoldsUpNoOther)
{
    CGate stalled;
    CGate release;
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    int const other = server.Ctor(5);
    server.port.OnSendCallback([&](types::CValueList const&, int connectionId) {
        if (connectionId == 4)
        {
            stalled.Open();
            release.Wait();
        }
        return true;
    });
    server.run = [](CThing&) { ::sleep(60); };
    server.Call(4, id, "Run");
    ASSERT_TRUE(stalled.Wait());

    auto const reply = server.Call(5, other, "Run");

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    release.Open();
}

TEST_F(CutOff, AClientThatCannotBeAnsweredHoldsUpNoOther)
{
    CGate stalled;
    CGate release;
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    int const other = server.Ctor(5);
    server.run = [](CThing&) { ::sleep(60); };
    server.port.OnFunctionCall(callOf(id, "Thing", "Run"), 4, [&](types::CValueList const&) {
        stalled.Open();
        release.Wait();
    });
    ASSERT_TRUE(stalled.Wait());

    auto const reply = server.Call(5, other, "Run");

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    release.Open();
}

TEST_F(CutOff, AThreadOfTheApplicationThatStallsInASendHoldsUpNoOther)
{
    CGate stalled;
    CGate release;
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CThing* const thing = server.LastThing();
    int const other = server.Ctor(5);
    server.port.OnSendCallback([&](types::CValueList const& callback, int) {
        if (types::unpackAt<std::string>(callback, protocol::METHOD_NAME) == "OnChanged")
        {
            stalled.Open();
            release.Wait();
        }
        return true;
    });
    std::thread publisher([thing] { thing->OnChanged.Send(1); });
    ASSERT_TRUE(stalled.Wait());
    server.run = [](CThing&) { ::sleep(60); };
    server.Call(4, id, "Run");

    auto const reply = server.Call(5, other, "Run"); // killed after the other one

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    release.Open();
    publisher.join();
}

// A late return

TEST_F(CutOff, WhatALateWorkerSendsIsDroppedWithALine)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    CCallbackSender<int> shared; // through an actor of another client
    server.onSetup = [&](CActor& actor) { actor.AddCallback("OnShared", shared); };
    server.Ctor(5);
    CLogCapture log;
    struct SSendAtTheEnd
    {
        CCallbackSender<int>& sender;
        ~SSendAtTheEnd()
        {
            CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer); // nor may a send end the thread here
            sender.Send(1);
        }
    };

    Hang(server, id, [&](CThing&) {
        SSendAtTheEnd const last{shared};
        m_spin.Enter();
    });
    auto const before = server.port.Events();
    EXPECT_TRUE(m_spin.End());

    EXPECT_EQ(1, log.Count("CCallbackSender::Send dropped, the sending thread was cut off"));
    EXPECT_EQ(before, server.port.Events());
    server.host.reset(); // before the sender
}

TEST_F(CutOff, ALateWorkerEndsWhenItCallsTheLibrary)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    std::atomic<bool> wentOn{false};

    Hang(server, id, [&](CThing& thing) {
        m_spin.Enter();
        thing.OnChanged.Send(1);
        wentOn = true;
    });

    EXPECT_TRUE(m_spin.End());
    EXPECT_FALSE(wentOn);
}

TEST_F(CutOff, ALateWorkerIsNotCancelledInADestructorOnItsWay)
{
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    std::atomic<bool> destroyed{false};
    struct SFile
    {
        std::atomic<bool>& destroyed;
        ~SFile()
        {
            ::close(-1); // a cancellation point; to be unwound from here would end the process
            destroyed = true;
        }
    };

    Hang(server, id, [&](CThing&) {
        SFile const file{destroyed};
        m_spin.Enter();
    });

    EXPECT_TRUE(m_spin.End());
    EXPECT_TRUE(destroyed);
}

TEST_F(CutOff, AHostMayBeDestroyedBeforeAWorkerComesBack)
{
    CLogCapture log;
    {
        CThingServer server(atCancellationPoint());
        int const id = server.Ctor(4);
        auto const owned = std::make_shared<int>(1);
        auto const reply = Hang(server, id, [&, owned](CThing&) { m_spin.Enter(); });

        server.host.reset();

        EXPECT_EQ(1, log.Count("CRpcHost::~CRpcHost leaves threads behind that were cut off and have not ended: 1"));
        EXPECT_EQ(1, reply->Count());
        log.Clear();
        EXPECT_TRUE(m_spin.End());
        EXPECT_TRUE(areEndsOfWhatWasKept(log.Texts()));
    }
}

TEST_F(CutOff, AHostMayBeDestroyedBeforeAWorkerComesBackFromTheLog)
{
    CThingServer server(atCancellationPoint());
    log::SetSink([&](ELevel, std::string const& line) {
        if (line.find("CClientConnection::OnFunctionCallSync") != std::string::npos)
        {
            m_spin.Enter();
        }
    });
    auto const reply = server.Call(4, 77, "Add", 1);
    ASSERT_TRUE(m_spin.WaitUntilEntered());

    server.host.reset();

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    EXPECT_TRUE(m_spin.End());
    EXPECT_EQ(1, reply->Count());
    EXPECT_EQ(0, server.MadeCount());
    installStderrSink();
}

TEST_F(CutOff, AHostMayBeDestroyedBeforeAWorkerComesBackFromItsWatchdog)
{
    CGate ended;
    CThingServer server(atCancellationPoint());
    int const id = server.Ctor(4);
    server.port.SetSendResult(false); // so that the worker posts a removal, and has it watched
    log::SetSink([&](ELevel, std::string const& line) {
        if (line.find("CThreadWatchdog::Ping") != std::string::npos && line.find("remove[") != std::string::npos)
        {
            m_spin.Enter();
        }
    });
    server.Call(4, id, "Change", 1);
    ASSERT_TRUE(m_spin.WaitUntilEntered());

    // From another thread: it must not be the test that waits for ever.
    std::thread application([&] {
        server.host.reset();
        ended.Open();
    });

    EXPECT_TRUE(ended.Wait(8s));
    EXPECT_TRUE(m_spin.End());
    application.join();
    installStderrSink();
}

TEST_F(CutOff, AHostMayBeDestroyedBeforeAWorkerComesBackFromThePort)
{
    for (auto const kill : {EKill::Anywhere, EKill::AtCancellationPoint})
    {
        SHostOptions options = atCancellationPoint();
        options.kill = kill;
        CThingServer server(options);
        int const id = server.Ctor(4);
        CSpin stalled;
        server.port.OnSendCallback([&](types::CValueList const& callback, int) {
            if (types::unpackAt<std::string>(callback, protocol::METHOD_NAME) == "OnChanged")
            {
                stalled.Enter();
            }
            return false;
        });
        auto const reply = server.Call(4, id, "Change", 1);
        ASSERT_TRUE(stalled.WaitUntilEntered());

        server.host.reset();

        EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
        auto const before = server.port.Events();
        EXPECT_TRUE(stalled.End());
        EXPECT_EQ(before, server.port.Events());
    }
}

TEST_F(CutOff, AHostMayBeDestroyedBeforeAWorkerComesBackFromAConstructorASetupOrADestructor)
{
    CSpin inCreate;
    CSpin inSetup;
    CSpin inDestroy;
    CThingServer server(atCancellationPoint());
    CCallbackSender<int> sender;
    auto const add = [&](std::string const& name, CSpin* create, CSpin* setup, CSpin* destroy) {
        auto const enter = [](CSpin* spin) {
            if (spin != nullptr)
            {
                spin->Enter();
            }
        };
        SActorType type;
        type.create = [=]() -> void* {
            enter(create);
            return nullptr;
        };
        type.setup = [=, &sender](CActor& actor) {
            actor.AddCallback("OnShared", sender);
            enter(setup);
        };
        type.destroy = [=](void*) { enter(destroy); };
        server.host->RegisterActorType(name, type);
    };
    add("Create", &inCreate, nullptr, nullptr);
    add("Setup", nullptr, &inSetup, nullptr);
    add("Destroy", nullptr, nullptr, &inDestroy);
    int const doomed = server.Ctor(3, "Destroy");
    server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Create")), 1);
    server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Setup")), 2);
    server.port.Call(callOf(0, "CClientConnection", "dtor", doomed), 3);
    ASSERT_TRUE(inCreate.WaitUntilEntered() && inSetup.WaitUntilEntered() && inDestroy.WaitUntilEntered());

    server.host.reset();

    EXPECT_TRUE(inCreate.End());
    EXPECT_TRUE(inSetup.End());
    EXPECT_TRUE(inDestroy.End());
    sender.Send(1);
    EXPECT_EQ(3U, server.port.Callbacks().size()) << "OnKill of each, and nothing later";
}

// The limit

TEST_F(CutOff, AtTheLimitOnlyClientsWithSuchWorkersAreRefusedUntilOneHasEnded)
{
    SHostOptions options = atCancellationPoint();
    options.maxCutOff = 1;
    CThingServer server(options);
    int const id = server.Ctor(4);
    int const other = server.Ctor(5);
    CLogCapture log;
    Hang(server, id, [&](CThing&) { m_spin.Enter(); });

    auto const refused = server.Call(4, id, "Add", 1)->Wait();

    ASSERT_TRUE(refused);
    refusal::CRefusal const* const refusal = refusal::find(*refused);
    ASSERT_NE(nullptr, refusal);
    EXPECT_EQ(refusal::LIMITS_EXCEEDED, refusal->GetError());
    EXPECT_EQ(1, log.Count("CRpcHost::OnFunctionCall refused a call of connectionId=4, too many threads are cut off"));
    EXPECT_EQ(types::toString(listOf(7)), CThingServer::TextOf(*server.Call(5, other, "Add", 7)));
    EXPECT_TRUE(m_spin.End());
    EXPECT_TRUE(log.WaitFor("was cut off and has ended"));
    expectANewActor(server, id);
}

TEST_F(CutOff, BelowTheLimitAClientIsServedThoughItsCallsHang)
{
    SHostOptions options = atCancellationPoint();
    options.maxCutOff = 2;
    CThingServer server(options);
    int const id = server.Ctor(4);
    Hang(server, id, [&](CThing&) { m_spin.Enter(); });

    expectANewActor(server, id);
}

TEST_F(CutOff, WithoutALimitAClientIsAlwaysServed)
{
    SHostOptions options = atCancellationPoint();
    options.maxCutOff = 0;
    CThingServer server(options);
    int const id = server.Ctor(4);
    Hang(server, id, [&](CThing&) { m_spin.Enter(); });

    expectANewActor(server, id);
}

// The choice

TEST(CutOffOptions, AreChosenByTheRecommendedOptionsAndNotByDefault)
{
    EXPECT_EQ(EKill::Anywhere, SHostOptions().kill);
    EXPECT_EQ(EKill::AtCancellationPoint, SHostOptions::Recommended().kill);
    EXPECT_EQ(16, SHostOptions().maxCutOff);
    EXPECT_EQ(16, SHostOptions::Recommended().maxCutOff);
}
