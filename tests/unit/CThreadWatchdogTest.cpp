#include "CGate.h"
#include "CHang.h"
#include "CLogCapture.h"
#include "Eventually.h"
#include "ExpectAbort.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
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

/// Limits at which a watchdog does nothing within a test.
constexpr int FOREVER_MS = 100000;

/// A loop thread with an item that hangs. It is killed, if nobody did so before, when it goes out of scope.
class CHungThread
{
public:
    CHungThread()
    {
        m_thread.Post([this] { m_hang.Enter(); }, "hung");
        EXPECT_TRUE(m_hang.WaitUntilEntered());
    }

    ~CHungThread() { m_thread.Kill(); }

    CLoopThread* Get() { return &m_thread; }
    CLoopThread* operator->() { return &m_thread; }
    std::string GetIdText() const { return std::to_string(m_hang.GetThread()); }

private:
    CLoopThread m_thread;
    CHang m_hang;
};

/// A loop thread with an item that waits to be released.
class CBusyThread
{
public:
    CBusyThread()
    {
        m_thread.Post(
            [this] {
                m_entered.Open();
                m_release.Wait(60s);
            },
            "busy");
        EXPECT_TRUE(m_entered.Wait());
    }

    ~CBusyThread()
    {
        Release();
        m_thread.StopAndJoin();
    }

    void Release() { m_release.Open(); }
    CLoopThread* Get() { return &m_thread; }
    CLoopThread* operator->() { return &m_thread; }

private:
    CLoopThread m_thread;
    CGate m_entered;
    CGate m_release;
};

Lines errorsOf(CLogCapture const& log)
{
    return log.Texts(ELevel::Error);
}

/// Waits for a whole check after the one in progress.
bool waitForTicks(CLogCapture& log, int count)
{
    return log.WaitFor("running message CThreadWatchdog::Tick done", log.Count("Tick done") + count, 30s);
}
} // namespace

TEST(CThreadWatchdog, IsALoopThreadThatRunsFromItsConstruction)
{
    static_assert(std::is_base_of_v<CLoopThread, CThreadWatchdog>);
    CLogCapture log;

    CThreadWatchdog watchdog;

    EXPECT_TRUE(watchdog.IsStarted());
    EXPECT_TRUE(log.WaitFor("runnable: CThreadWatchdog::Tick"));
    EXPECT_TRUE(log.WaitFor("] CThreadWatchdog::Tick"));
}

TEST(CThreadWatchdog, AFurtherStartDoesNothing)
{
    CLogCapture log;
    CThreadWatchdog watchdog(FOREVER_MS, 10);

    watchdog.Start();
    ASSERT_TRUE(waitForTicks(log, 3));

    EXPECT_EQ(1, log.Count("CLoopThread::Thread starting thread"));
}

TEST(CThreadWatchdog, WithoutPingsACheckLogsItselfAndNothingElse)
{
    CLogCapture log;
    CThreadWatchdog watchdog(100, 10);
    ASSERT_TRUE(waitForTicks(log, 5));

    // One period after the other, each an item of the watchdog's own thread that posts the next.
    std::string const id = std::to_string(watchdog.GetId());
    Lines const cycle{"CThreadWatchdog::Tick", "CLoopThread::Post to thread " + id + " runnable: CThreadWatchdog::Tick",
                      "CLoopThread::Post to thread " + id + " done",
                      "CLoopThread::Thread running message CThreadWatchdog::Tick done",
                      "CLoopThread::Thread running message CThreadWatchdog::Tick"};
    auto const ofWatchdog = linesOf(log, watchdog.GetId());
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
    ASSERT_LE(2U + 4 * cycle.size(), ofWatchdog.size());
    EXPECT_EQ("CLoopThread::Thread starting thread with id=" + id, ofWatchdog[0]);
    for (std::size_t line = 0; line < 4 * cycle.size(); ++line)
    {
        EXPECT_EQ(cycle[line % cycle.size()], ofWatchdog[line + 2]);
    }
}

TEST(CThreadWatchdog, ChecksOncePerPeriod)
{
    CLogCapture log;
    auto const start = std::chrono::steady_clock::now();
    CThreadWatchdog watchdog(FOREVER_MS, 200);

    ASSERT_TRUE(waitForTicks(log, 3));

    EXPECT_LE(600ms, std::chrono::steady_clock::now() - start);
}

TEST(CThreadWatchdog, AnInterruptedPeriodIsNotCutShort)
{
    struct sigaction action = {};
    struct sigaction old = {};
    action.sa_handler = [](int) {}; // without SA_RESTART
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &action, &old));

    CLogCapture log;
    auto const start = std::chrono::steady_clock::now();
    CThreadWatchdog watchdog(FOREVER_MS, 500);
    ASSERT_TRUE(eventually([&] { return watchdog.GetId() != 0; }));
    for (int signal = 0; signal < 8; ++signal)
    {
        ::syscall(SYS_tgkill, ::getpid(), watchdog.GetId(), SIGUSR1);
        std::this_thread::sleep_for(40ms); // spread over the period
    }
    ASSERT_TRUE(waitForTicks(log, 1));

    EXPECT_LE(500ms, std::chrono::steady_clock::now() - start);
    ::sigaction(SIGUSR1, &old, nullptr);
}

// Answered pings

TEST(CThreadWatchdog, PingLogsThreadAndNameAndPostsAnItemThatAnswers)
{
    CLogCapture log;
    CLoopThread thread;
    CGate started;
    CThreadWatchdog watchdog(FOREVER_MS, FOREVER_MS);
    thread.Post([&] { started.Open(); }, "first");
    ASSERT_TRUE(started.Wait());
    ASSERT_TRUE(log.WaitFor("running message first done"));
    std::string const id = std::to_string(thread.GetId());
    log.Clear();

    watchdog.Ping(
        &thread, [] {}, "Open[3]");
    thread.StopAndJoin();

    auto const ofThread = linesOf(log, thread.GetId());
    auto const ofCaller = ownLines(log);
    ASSERT_LE(3U, ofCaller.size());
    EXPECT_EQ("CThreadWatchdog::Ping thread " + id + ": Open[3]", ofCaller[0]);
    EXPECT_EQ("CLoopThread::Post to thread " + id + " runnable: ping(Open[3])", ofCaller[1]);
    EXPECT_EQ("CLoopThread::Post to thread " + id + " done", ofCaller[2]);
    ASSERT_LE(3U, ofThread.size());
    EXPECT_EQ("CLoopThread::Thread running message ping(Open[3])", ofThread[0]);
    EXPECT_EQ("CThreadWatchdog::Pong Open[3]", ofThread[1]);
    EXPECT_EQ("CLoopThread::Thread running message ping(Open[3]) done", ofThread[2]);
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST(CThreadWatchdog, PingStartsAThreadThatIsNotStarted)
{
    CLogCapture log;
    CThreadWatchdog watchdog(FOREVER_MS, FOREVER_MS);
    CLoopThread thread;

    watchdog.Ping(
        &thread, [] {}, "p");

    EXPECT_TRUE(log.WaitFor("CThreadWatchdog::Ping thread 0: p"));
    EXPECT_TRUE(log.WaitFor("CThreadWatchdog::Pong p"));
    thread.StopAndJoin();
}

TEST(CThreadWatchdog, AThreadThatAnswersIsNeitherReportedNorKilledHoweverLongItHangsLater)
{
    CLogCapture log;
    CThreadWatchdog watchdog(3000, 100);
    std::atomic<int> killed{0};
    CLoopThread thread;
    watchdog.Ping(
        &thread, [&] { ++killed; }, "p");
    ASSERT_TRUE(log.WaitFor("running message ping(p) done"));
    CGate release;
    thread.Post([&] { release.Wait(60s); }, "busy without a ping");

    ASSERT_TRUE(waitForTicks(log, 35));

    EXPECT_EQ(Lines(), errorsOf(log));
    EXPECT_EQ(0, killed);
    release.Open();
    thread.StopAndJoin();
}

TEST(CThreadWatchdog, AThreadThatAnswersAfterItWasReportedIsNotKilled)
{
    CLogCapture log;
    CThreadWatchdog watchdog(4000, 1000);
    std::atomic<int> killed{0};
    CBusyThread thread;
    watchdog.Ping(
        thread.Get(), [&] { ++killed; }, "p");

    // Reported with a period left, which is time enough to answer.
    ASSERT_TRUE(log.WaitFor("is not responding"));
    thread.Release();
    ASSERT_TRUE(log.WaitFor("running message ping(p) done"));
    ASSERT_TRUE(waitForTicks(log, 2));

    EXPECT_EQ(0, killed);
    EXPECT_EQ(1, log.Count("is not responding"));
    EXPECT_EQ(0, log.Count("Killing thread"));
}

// Kills

TEST(CThreadWatchdog, AThreadThatNeverAnswersIsReportedTwiceThenKilledAndItsHandlerRunsOnce)
{
    CLogCapture log;
    CThreadWatchdog watchdog(400, 100);
    CHungThread thread;
    std::string const id = thread.GetIdText();
    std::atomic<int> killed{0};
    bool startedInHandler = true;
    int idInHandler = -1;
    CGate handled;
    log.Clear();

    watchdog.Ping(
        thread.Get(),
        [&] {
            startedInHandler = thread->IsStarted();
            idInHandler = thread->GetId();
            ++killed;
            handled.Open();
        },
        "p");
    ASSERT_TRUE(handled.Wait());
    ASSERT_TRUE(waitForTicks(log, 6));

    EXPECT_EQ(1, killed);
    EXPECT_FALSE(startedInHandler);
    EXPECT_EQ(0, idInHandler);
    EXPECT_EQ((Lines{"CThreadWatchdog::Tick Thread " + id + " is not responding, killing it in 100 milliseconds",
                     "CThreadWatchdog::Tick Thread " + id + " is not responding, killing it in 0 milliseconds",
                     "CThreadWatchdog::Tick Killing thread " + id}),
              errorsOf(log));
    EXPECT_EQ(1, log.Count("CLoopThread::Kill thread " + id));
    EXPECT_EQ(1, log.Count("CLoopThread::Kill of thread " + id + " done successfully"));
}

TEST(CThreadWatchdog, LessThanHalfTheLimitLeftIsReportedAndExactlyHalfIsNot)
{
    CLogCapture log;
    CThreadWatchdog watchdog(300, 150); // 150 left, then 0
    CHungThread thread;
    CGate handled;
    watchdog.Ping(
        thread.Get(), [&] { handled.Open(); }, "p");
    ASSERT_TRUE(handled.Wait());

    EXPECT_EQ(1, log.Count("is not responding"));
    EXPECT_EQ(1, log.Count("is not responding, killing it in 0 milliseconds"));
}

TEST(CThreadWatchdog, ALimitThatIsNoMultipleOfThePeriodIsReportedWithWhatIsLeftBelowZero)
{
    CLogCapture log;
    CThreadWatchdog watchdog(250, 100); // 150, 50, -50
    CHungThread thread;
    CGate handled;
    watchdog.Ping(
        thread.Get(), [&] { handled.Open(); }, "p");
    ASSERT_TRUE(handled.Wait());

    EXPECT_EQ(1, log.Count("killing it in 50 milliseconds"));
    EXPECT_EQ(1, log.Count("killing it in -50 milliseconds"));
    EXPECT_EQ(2, log.Count("is not responding"));
}

TEST(CThreadWatchdog, AHandlerRunsOnTheWatchdogsThreadAfterTheKill)
{
    CLogCapture log;
    CThreadWatchdog watchdog(50, 25);
    CHungThread thread;
    CGate handled;
    int handlerThread = 0;
    int killsBefore = 0;
    watchdog.Ping(
        thread.Get(),
        [&] {
            handlerThread = threadId();
            killsBefore = log.Count("done successfully");
            handled.Open();
        },
        "p");
    ASSERT_TRUE(handled.Wait());

    EXPECT_EQ(watchdog.GetId(), handlerThread);
    EXPECT_EQ(1, killsBefore);
}

TEST(CThreadWatchdog, EveryPingThatRunsOutLeadsToAKillLineAndItsOwnHandlerInTheOrderOfThePings)
{
    CLogCapture log;
    CThreadWatchdog watchdog(100, 50);
    CHungThread thread;
    std::string handled;
    CGate last;
    watchdog.Ping(
        thread.Get(), [&] { handled += 'a'; }, "a");
    watchdog.Ping(
        thread.Get(), [&] { handled += 'b'; }, "b");
    watchdog.Ping(
        thread.Get(),
        [&] {
            handled += 'c';
            last.Open();
        },
        "c");

    ASSERT_TRUE(last.Wait());

    EXPECT_EQ("abc", handled);
    EXPECT_EQ(3, log.Count("CThreadWatchdog::Tick Killing thread "));
    EXPECT_EQ(0, thread->GetId());
    EXPECT_FALSE(thread->IsStarted());
}

TEST(CThreadWatchdog, APingOfAThreadThatWasKilledMeanwhileStillGetsItsKillLineAndItsHandler)
{
    CLogCapture log;
    CThreadWatchdog watchdog(200, 100);
    CHungThread thread;
    CGate handled;
    watchdog.Ping(
        thread.Get(), [&] { handled.Open(); }, "p");
    thread->Kill(); // the ping stays queued

    ASSERT_TRUE(handled.Wait());

    EXPECT_EQ(1, log.Count("CThreadWatchdog::Tick Killing thread 0"));
    EXPECT_FALSE(thread->IsStarted());
}

TEST(CThreadWatchdog, PingsOfDifferentThreadsRunOutEachOnItsOwn)
{
    CLogCapture log;
    CThreadWatchdog watchdog(2000, 500);
    CHungThread hung;
    CLoopThread healthy;
    std::atomic<int> killedHealthy{0};
    CGate handled;
    watchdog.Ping(
        &healthy, [&] { ++killedHealthy; }, "healthy");
    watchdog.Ping(
        hung.Get(), [&] { handled.Open(); }, "hung");

    ASSERT_TRUE(handled.Wait());

    EXPECT_EQ(0, killedHealthy);
    EXPECT_TRUE(healthy.IsStarted());
    healthy.StopAndJoin();
}

TEST(CThreadWatchdog, NoLockIsHeldWhileAHandlerRuns)
{
    CLogCapture log;
    CThreadWatchdog watchdog(100, 50);
    CHungThread thread;
    CLoopThread other;
    CGate handled;
    bool pinged = false;
    watchdog.Ping(
        thread.Get(),
        [&] {
            // From here and from another thread.
            watchdog.Ping(
                &other, [] {}, "from the handler");
            std::thread pinger([&] {
                watchdog.Ping(
                    &other, [] {}, "meanwhile");
            });
            pinger.join();
            pinged = log.WaitFor("CThreadWatchdog::Pong meanwhile");
            handled.Open();
        },
        "p");

    EXPECT_TRUE(handled.Wait());
    EXPECT_TRUE(pinged);
    other.StopAndJoin();
}

TEST(CThreadWatchdog, BetweenAKillAndTheEndOfItsHandlerNoNewWorkerStarts)
{
    CThreadWatchdog watchdog(100, 50);
    CHungThread thread;
    CGate inHandler;
    CGate release;
    CGate ran;
    bool handlerDone = false;
    bool handlerDoneWhenRun = false;
    watchdog.Ping(
        thread.Get(),
        [&] {
            inHandler.Open();
            release.Wait();
            handlerDone = true;
        },
        "p");
    ASSERT_TRUE(inHandler.Wait());

    thread->Post(
        [&] {
            handlerDoneWhenRun = handlerDone;
            ran.Open();
        },
        "next");
    EXPECT_TRUE(ran.StaysShut());
    release.Open();

    EXPECT_TRUE(ran.Wait());
    EXPECT_TRUE(handlerDoneWhenRun);
    thread->StopAndJoin();
}

TEST(CThreadWatchdog, ThePingThatKilledAThreadChangesNothingWhenTheRestartedThreadAnswersIt)
{
    CLogCapture log;
    CThreadWatchdog watchdog(100, 50);
    CHungThread thread;
    std::atomic<int> killed{0};
    CGate handled;
    watchdog.Ping(
        thread.Get(),
        [&] {
            ++killed;
            handled.Open();
        },
        "p");
    ASSERT_TRUE(handled.Wait());
    EXPECT_EQ(0, log.Count("CThreadWatchdog::Pong p"));

    thread->Start();
    EXPECT_TRUE(log.WaitFor("CThreadWatchdog::Pong p"));
    ASSERT_TRUE(waitForTicks(log, 4));

    EXPECT_EQ(1, killed);
    EXPECT_TRUE(thread->IsStarted());
    thread->StopAndJoin();
}

// Ids

TEST(CThreadWatchdog, AnAnswerForAnUnknownIdChangesNothing)
{
    CLogCapture log;
    CThreadWatchdog watchdog(100, 50);
    CHungThread thread;
    CGate handled;
    watchdog.Ping(
        thread.Get(), [&] { handled.Open(); }, "p");

    watchdog.Pong(0, "zero");
    watchdog.Pong(2, "not handed out yet");
    watchdog.Pong(4000000000U, "large");

    EXPECT_TRUE(handled.Wait());
    EXPECT_EQ(1, log.Count("CThreadWatchdog::Pong zero"));
    EXPECT_EQ(1, log.Count("CThreadWatchdog::Pong not handed out yet"));
    EXPECT_EQ(1, log.Count("CThreadWatchdog::Pong large"));
}

TEST(CThreadWatchdog, PingIdsStartAtOneAndGrowByOne)
{
    CLogCapture log;
    CThreadWatchdog watchdog(1000, 250);
    std::vector<std::unique_ptr<CHungThread>> threads;
    std::string handled;
    CGate last;
    for (int ping = 0; ping < 4; ++ping)
    {
        threads.push_back(std::make_unique<CHungThread>());
    }
    for (int ping = 0; ping < 4; ++ping)
    {
        watchdog.Ping(
            threads[static_cast<std::size_t>(ping)]->Get(),
            [&, ping] {
                handled += static_cast<char>('1' + ping);
                if (ping == 3)
                {
                    last.Open();
                }
            },
            "p");
    }

    watchdog.Pong(1, "first");
    watchdog.Pong(3, "third");

    ASSERT_TRUE(last.Wait());
    EXPECT_EQ("24", handled);
}

// Stopping

TEST(CThreadWatchdog, StoppingItEndsThePauseAtOnceAndTheChecksForGood)
{
    CLogCapture log;
    auto const start = std::chrono::steady_clock::now();
    CThreadWatchdog watchdog(FOREVER_MS, FOREVER_MS);
    ASSERT_TRUE(log.WaitFor("] CThreadWatchdog::Tick"));

    watchdog.StopAndJoin();

    EXPECT_GT(std::chrono::milliseconds(FOREVER_MS), std::chrono::steady_clock::now() - start);
    EXPECT_FALSE(watchdog.IsStarted());
    EXPECT_TRUE(log.Contains("finishes"));
    EXPECT_EQ(1, log.Count("] CThreadWatchdog::Tick"));
}

TEST(CThreadWatchdog, StoppingItLogsAsALoopThreadDoes)
{
    CLogCapture log;
    CThreadWatchdog watchdog(FOREVER_MS, 10);
    ASSERT_TRUE(waitForTicks(log, 1));
    std::string const id = std::to_string(watchdog.GetId());

    watchdog.StopAndJoin();

    EXPECT_EQ(
        1, log.Count("CLoopThread::StopAndJoin thread " + id + " from current thread " + std::to_string(threadId())));
    EXPECT_EQ(1, log.Count("CLoopThread::StopAndJoin thread " + id + " done"));
}

TEST(CThreadWatchdog, APauseThatEndsEarlyDoesNotCountAsAPeriodAgainstAThread)
{
    CHungThread thread;
    std::atomic<int> killed{0};
    CLogCapture log;
    {
        CThreadWatchdog watchdog(FOREVER_MS, FOREVER_MS);
        watchdog.Ping(
            thread.Get(), [&] { ++killed; }, "p");
        ASSERT_TRUE(log.WaitFor("] CThreadWatchdog::Tick"));
        watchdog.StopAndJoin();
    }
    EXPECT_EQ(0, killed);
    EXPECT_EQ(Lines(), errorsOf(log));
    EXPECT_TRUE(thread->IsStarted());
}

TEST(CThreadWatchdog, DestroyingItDropsOpenPingsWithoutTheirHandlers)
{
    CHungThread thread;
    std::atomic<int> killed{0};
    CLogCapture log;
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watch = held;
    {
        CThreadWatchdog watchdog(FOREVER_MS, 20);
        watchdog.Ping(
            thread.Get(), [&killed, held = std::move(held)] { ++killed; }, "p");
        ASSERT_TRUE(waitForTicks(log, 1));
        EXPECT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(0, killed);
    EXPECT_EQ(0, log.Count("Killing thread"));
    EXPECT_TRUE(thread->IsStarted());
}

TEST(CThreadWatchdog, StoppingItWaitsForTheHandlerInProgress)
{
    CThreadWatchdog watchdog(100, 50);
    CHungThread thread;
    CGate inHandler;
    CGate release;
    CGate returned;
    watchdog.Ping(
        thread.Get(),
        [&] {
            inHandler.Open();
            release.Wait();
        },
        "p");
    ASSERT_TRUE(inHandler.Wait());

    std::thread owner([&] {
        watchdog.StopAndJoin();
        returned.Open();
    });
    EXPECT_TRUE(returned.StaysShut());
    release.Open();
    EXPECT_TRUE(returned.Wait());
    owner.join();
}

// Many threads

TEST(CThreadWatchdog, AHandlerMayStopIt)
{
    CHungThread thread;
    CLogCapture log;
    CThreadWatchdog watchdog(20, 10);
    watchdog.Ping(
        thread.Get(), [&] { watchdog.StopAndJoin(); }, "p");

    EXPECT_TRUE(log.WaitFor("CLoopThread::Thread with id="));
    watchdog.StopAndJoin(); // waits for the thread that stopped itself
    EXPECT_FALSE(watchdog.IsStarted());
    EXPECT_EQ(1, log.Count(" from current thread "));
}

TEST(CThreadWatchdog, PingsOfManyThreadsAreAllAnswered)
{
    CLogCapture log;
    CThreadWatchdog watchdog(60000, 5);
    std::atomic<int> killed{0};
    CLoopThread first;
    CLoopThread second;
    std::vector<std::thread> pingers;
    for (int pinger = 0; pinger < 4; ++pinger)
    {
        pingers.emplace_back([&, pinger] {
            for (int ping = 0; ping < 50; ++ping)
            {
                watchdog.Ping(
                    pinger % 2 == 0 ? &first : &second, [&] { ++killed; }, "p");
            }
        });
    }
    for (auto& pinger : pingers)
    {
        pinger.join();
    }
    first.StopAndJoin();
    second.StopAndJoin();

    EXPECT_EQ(200, log.Count("CThreadWatchdog::Pong p"));
    EXPECT_EQ(0, killed);
}

// Misuse

TEST(CThreadWatchdogDeathTest, AnEmptyHandlerRaisesBadFunctionCallThatNobodyCatches)
{
    EXPECT_ABORT(
        {
            CThreadWatchdog watchdog(20, 10);
            CHungThread thread;
            watchdog.Ping(thread.Get(), {}, "p");
            CGate().Wait(20s);
        },
        "bad_function_call");
}

TEST(CThreadWatchdog, TellsBeforeItKills)
{
    CHungThread hung;
    CLogCapture log;
    CThreadWatchdog watchdog(200, 50);
    std::atomic<int> kills{-1};
    CGate killed;

    watchdog.Ping(
        hung.Get(), [&] { killed.Open(); }, "call", [&] { kills = log.Count("Killing thread"); });

    EXPECT_TRUE(killed.Wait());
    EXPECT_EQ(0, kills);
    EXPECT_EQ(1, log.Count("Killing thread"));
}

TEST(CThreadWatchdog, ForgetsItsPingsWithoutTheirHandlers)
{
    CBusyThread busy;
    CThreadWatchdog watchdog(FOREVER_MS, 10);
    auto const held = std::make_shared<int>(1);
    watchdog.Ping(
        busy.Get(), [held] { ADD_FAILURE() << "called"; }, "call");
    EXPECT_EQ(2, held.use_count());

    watchdog.Forget();

    EXPECT_EQ(1, held.use_count());
    busy.Release();
    busy->StopAndJoin(); // its answer comes to nothing
}

// Kills beside the watchdog

TEST(CThreadWatchdog, KillsBesideItHoldNoOtherUp)
{
    CHungThread stalled;
    CHungThread other;
    CGate entered;
    CGate release;
    CGate handled;
    CThreadWatchdog watchdog(100, 50);
    watchdog.KillBeside();

    watchdog.Ping(
        stalled.Get(),
        [&] {
            entered.Open();
            release.Wait();
        },
        "stalled");
    ASSERT_TRUE(entered.Wait());
    watchdog.Ping(
        other.Get(), [&] { handled.Open(); }, "other");

    EXPECT_TRUE(handled.Wait());
    release.Open();
}

TEST(CThreadWatchdog, KillsBesideItOfOneThreadComeInTheOrderOfThePingsAndLetNoWorkerStartInBetween)
{
    CLogCapture log;
    CHungThread thread;
    CThreadWatchdog watchdog(100, 50);
    watchdog.KillBeside();
    std::string handled;
    std::atomic<bool> isStarted{false};
    CGate last;
    CGate ran;
    watchdog.Ping(
        thread.Get(),
        [&] {
            handled += 'a';
            thread->Post([&] { ran.Open(); }, "next");
        },
        "a");
    watchdog.Ping(
        thread.Get(),
        [&] {
            isStarted = thread->IsStarted();
            handled += 'b';
            last.Open();
        },
        "b");

    ASSERT_TRUE(last.Wait());

    EXPECT_EQ("ab", handled);
    EXPECT_FALSE(isStarted);
    EXPECT_EQ(2, log.Count("CThreadWatchdog::Tick Killing thread "));
    EXPECT_TRUE(ran.Wait());
    thread->StopAndJoin(); // what is hung is killed at its end, and this worker is not
}

TEST(CThreadWatchdog, ForgettingWaitsForTheKillsBesideIt)
{
    CHungThread thread;
    CGate entered;
    CGate release;
    CGate forgotten;
    CThreadWatchdog watchdog(100, 50);
    watchdog.KillBeside();
    watchdog.Ping(
        thread.Get(),
        [&] {
            entered.Open();
            release.Wait();
        },
        "p");
    ASSERT_TRUE(entered.Wait());

    std::thread owner([&] {
        watchdog.Forget();
        forgotten.Open();
    });

    EXPECT_TRUE(forgotten.StaysShut());
    release.Open();
    EXPECT_TRUE(forgotten.Wait());
    owner.join();
}
