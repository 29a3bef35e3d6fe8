#include "CGate.h"
#include "CHang.h"
#include "CLogCapture.h"
#include "CSpin.h"
#include "CancelState.h"
#include "Eventually.h"
#include "ExpectAbort.h"
#include "LastFunction.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace nelo_rpc;
using namespace std::chrono_literals;
using log::ELevel;

// The timed join is watched: how a kill uses it is fixed, and its failure cannot be had otherwise.
namespace
{
std::atomic<bool> g_joinIsBusy{false};
std::atomic<int> g_timedJoins{0};
std::atomic<long> g_firstJoinSeconds{-1};
std::atomic<long> g_firstJoinNanoseconds{-1};
} // namespace

// What ThreadSanitizer puts in the place of that function, if it is there: it must learn of every join.
extern "C" __attribute__((weak)) int __interceptor_pthread_timedjoin_np(pthread_t thread, void** result,
                                                                        timespec const* deadline);

extern "C" int pthread_timedjoin_np(pthread_t thread, void** result, timespec const* deadline)
{
    using Function = int (*)(pthread_t, void**, timespec const*);
    static auto const real = &__interceptor_pthread_timedjoin_np != nullptr
                                 ? &__interceptor_pthread_timedjoin_np
                                 : reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "pthread_timedjoin_np"));
    if (g_timedJoins++ == 0 && deadline != nullptr)
    {
        g_firstJoinSeconds = deadline->tv_sec;
        g_firstJoinNanoseconds = deadline->tv_nsec;
    }
    return g_joinIsBusy ? EBUSY : real(thread, result, deadline);
}

namespace
{
using Lines = std::vector<std::string>;

/// Application code that does not come back, without a system call or any other cancellation point. No frame of it needs
/// to be cleaned up and no sanitizer's run time is entered, since either could not be left from just anywhere.
__attribute__((noinline, no_sanitize("thread", "address", "undefined"))) void spin()
{
    for (unsigned long volatile turns = 0; turns < 200000000000UL; turns = turns + 1)
    {
    }
}

/// Opens a gate when it is destroyed, by being cancelled too.
struct SOpenOnExit
{
    CGate& gate;
    ~SOpenOnExit() { gate.Open(); }
};

} // namespace

// Starting and posting

TEST(CLoopThread, HasNoThreadAndNoLineWhenConstructed)
{
    CLogCapture log;
    {
        CLoopThread thread;
        EXPECT_FALSE(thread.IsStarted());
        EXPECT_EQ(0, thread.GetId());
    }
    EXPECT_TRUE(log.Texts().empty());
}

TEST(CLoopThread, StartMakesAThreadThatLogsItsKernelIdFirst)
{
    CLogCapture log;
    CLoopThread thread;

    thread.Start();
    EXPECT_TRUE(thread.IsStarted());
    thread.StopAndJoin();

    std::string const id = std::to_string(thread.GetId());
    EXPECT_NE(threadId(), thread.GetId());
    auto const lines = linesOf(log, thread.GetId());
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("CLoopThread::Thread starting thread with id=" + id, lines.front());
}

TEST(CLoopThread, StartingAStartedThreadDoesNothing)
{
    CLogCapture log;
    CLoopThread thread;

    thread.Start();
    thread.Start();
    thread.StopAndJoin();

    EXPECT_EQ(1, log.Count("CLoopThread::Thread starting thread"));
}

TEST(CLoopThread, PostStartsANeverStartedThreadAndTheItemRuns)
{
    CLoopThread thread;
    bool ran = false;

    thread.Post([&] { ran = true; }, "item");
    EXPECT_TRUE(thread.IsStarted());
    thread.StopAndJoin();

    EXPECT_TRUE(ran);
}

TEST(CLoopThread, ItemsRunOnTheThreadThatTheIdNames)
{
    CLoopThread thread;
    int ranOn = 0;
    int idSeen = 0;

    thread.Post(
        [&] {
            ranOn = threadId();
            idSeen = thread.GetId();
        },
        "item");
    thread.StopAndJoin();

    EXPECT_EQ(ranOn, idSeen);
    EXPECT_EQ(ranOn, thread.GetId());
    EXPECT_NE(threadId(), ranOn);
}

TEST(CLoopThread, PostLogsTheThreadAndTheItemBeforeAndTheThreadAfter)
{
    CLogCapture log;
    CLoopThread thread;
    CGate ran;
    thread.Post([&] { ran.Open(); }, "first");
    ASSERT_TRUE(ran.Wait());
    std::string const id = std::to_string(thread.GetId());
    log.Clear();

    thread.Post([] {}, "an item");
    thread.StopAndJoin();

    auto const lines = ownLines(log);
    ASSERT_LE(2U, lines.size());
    EXPECT_EQ("CLoopThread::Post to thread " + id + " runnable: an item", lines[0]);
    EXPECT_EQ("CLoopThread::Post to thread " + id + " done", lines[1]);
}

TEST(CLoopThread, PostLogsTheSameIdTwiceThoughTheThreadGetsItsIdInBetween)
{
    CLogCapture log;
    CLoopThread thread;

    thread.Post([] {}, "item");
    thread.StopAndJoin();

    std::string const id = std::to_string(thread.GetId());
    auto const lines = ownLines(log);
    ASSERT_LE(2U, lines.size());
    if (lines[0] == "CLoopThread::Post to thread 0 runnable: item")
    {
        EXPECT_EQ("CLoopThread::Post to thread 0 done", lines[1]);
    }
    else
    {
        EXPECT_EQ("CLoopThread::Post to thread " + id + " runnable: item", lines[0]);
        EXPECT_EQ("CLoopThread::Post to thread " + id + " done", lines[1]);
    }
}

TEST(CLoopThread, RunsItemsInPostingOrderEachBetweenItsTwoLines)
{
    CLogCapture log;
    CLoopThread thread;
    std::string ran;

    thread.Post([&] { ran += 'A'; }, "A");
    thread.Post([&] { ran += 'B'; }, "B");
    thread.Post([&] { ran += 'C'; }, "C");
    thread.StopAndJoin();

    EXPECT_EQ("ABC", ran);
    std::string const id = std::to_string(thread.GetId());
    EXPECT_EQ((Lines{"CLoopThread::Thread starting thread with id=" + id, "CLoopThread::Thread running message A",
                     "CLoopThread::Thread running message A done", "CLoopThread::Thread running message B",
                     "CLoopThread::Thread running message B done", "CLoopThread::Thread running message C",
                     "CLoopThread::Thread running message C done", "CLoopThread::Thread stopping",
                     "CLoopThread::Thread with id=" + id + " finishes"}),
              linesOf(log, thread.GetId()));
}

TEST(CLoopThread, AnItemRunsBetweenItsTwoLines)
{
    CLogCapture log;
    CLoopThread thread;
    int before = 0;
    int after = 0;

    thread.Post(
        [&] {
            before = log.Count("running message item");
            after = log.Count("running message item done");
        },
        "item");
    thread.StopAndJoin();

    EXPECT_EQ(1, before);
    EXPECT_EQ(0, after);
}

TEST(CLoopThread, EveryLineOfAnOrdinaryLifeIsADebugLine)
{
    CLogCapture log;
    CLoopThread thread;

    thread.Post([] {}, "item");
    thread.StopAndJoin();
    CHang hang;
    thread.Post([&] { hang.Enter(); }, "hung");
    ASSERT_TRUE(hang.WaitUntilEntered());
    thread.Kill();

    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST(CLoopThread, AnItemMayPostToItsOwnThread)
{
    CLoopThread thread;
    CGate second;

    thread.Post([&] { thread.Post([&] { second.Open(); }, "second"); }, "first");

    EXPECT_TRUE(second.Wait());
    thread.StopAndJoin();
}

TEST(CLoopThread, ItemsOfManyThreadsAllRunAndKeepEachPostersOrder)
{
    constexpr int POSTERS = 4;
    constexpr int ITEMS = 200;
    CLoopThread thread;
    std::vector<std::vector<int>> ran(POSTERS); // touched by the worker alone until it is joined

    std::vector<std::thread> posters;
    for (int poster = 0; poster < POSTERS; ++poster)
    {
        posters.emplace_back([&, poster] {
            for (int item = 0; item < ITEMS; ++item)
            {
                thread.Post([&ran, poster, item] { ran[static_cast<std::size_t>(poster)].push_back(item); }, "item");
            }
        });
    }
    for (auto& poster : posters)
    {
        poster.join();
    }
    thread.StopAndJoin();

    for (auto const& items : ran)
    {
        EXPECT_EQ(static_cast<std::size_t>(ITEMS), items.size());
        EXPECT_TRUE(std::is_sorted(items.begin(), items.end()));
    }
}

TEST(CLoopThread, WhatAnItemHoldsIsDestroyedOnTheWorkerBeforeTheNextItemRuns)
{
    CLoopThread thread;
    auto held = std::make_shared<int>(0);
    std::weak_ptr<int> const watch = held;
    bool goneBeforeNext = false;

    thread.Post([held = std::move(held)] {}, "holder");
    thread.Post([&] { goneBeforeNext = watch.expired(); }, "next");
    thread.StopAndJoin();

    EXPECT_TRUE(goneBeforeNext);
}

TEST(CLoopThread, WhatAnItemHoldsMayPostToTheThreadWhenItIsDestroyed)
{
    struct SPostOnExit
    {
        CLoopThread& thread;
        CGate& ran;
        ~SPostOnExit()
        {
            thread.Post([&ran = ran] { ran.Open(); }, "posted by a destructor");
        }
    };
    CLoopThread thread;
    CGate ran;

    auto poster = std::shared_ptr<SPostOnExit>(new SPostOnExit{thread, ran});
    thread.Post([poster = std::move(poster)] {}, "holder");

    EXPECT_TRUE(ran.Wait());
    thread.StopAndJoin();
}

TEST(CLoopThread, AThreadMayPostAndStopOtherThreadsFromItsItems)
{
    CLoopThread thread;
    CLoopThread other;
    CGate ran;

    thread.Post(
        [&] {
            other.Post([&] { ran.Open(); }, "on the other");
            other.StopAndJoin();
        },
        "item");
    thread.StopAndJoin();

    EXPECT_TRUE(ran.IsOpen());
    EXPECT_FALSE(other.IsStarted());
}

// Stopping

TEST(CLoopThread, StopAndJoinOfANeverStartedThreadReturnsWithoutALine)
{
    CLogCapture log;
    CLoopThread thread;

    thread.StopAndJoin();

    EXPECT_TRUE(log.Texts().empty());
    EXPECT_FALSE(thread.IsStarted());
}

TEST(CLoopThread, StopAndJoinOfAStoppedThreadReturnsWithoutALine)
{
    CLoopThread thread;
    thread.Start();
    thread.StopAndJoin();
    CLogCapture log;

    thread.StopAndJoin();

    EXPECT_TRUE(log.Texts().empty());
}

TEST(CLoopThread, StopAndJoinLogsTheThreadAndTheCallerAndKeepsTheId)
{
    CLogCapture log;
    CLoopThread thread;
    CGate ran;
    int worker = 0;
    thread.Post(
        [&] {
            worker = threadId();
            ran.Open();
        },
        "item");
    ASSERT_TRUE(ran.Wait());
    log.Clear();

    thread.StopAndJoin();

    EXPECT_FALSE(thread.IsStarted());
    EXPECT_EQ(worker, thread.GetId());
    std::string const id = std::to_string(worker);
    EXPECT_EQ((Lines{"CLoopThread::StopAndJoin thread " + id + " from current thread " + std::to_string(threadId()),
                     "CLoopThread::StopAndJoin thread " + id + " done"}),
              ownLines(log));
}

TEST(CLoopThread, StopAndJoinReturnsAfterAllItemsPostedBeforeHaveRun)
{
    CLoopThread thread;
    CGate release;
    int ran = 0;
    thread.Post([&] { release.Wait(); }, "slow");
    for (int item = 0; item < 20; ++item)
    {
        thread.Post([&] { ++ran; }, "item");
    }

    release.Open();
    thread.StopAndJoin();

    EXPECT_EQ(20, ran);
}

TEST(CLoopThread, AnItemPostedAfterAStopStartsTheThreadAgain)
{
    CLogCapture log;
    CLoopThread thread;
    thread.Start();
    thread.StopAndJoin();
    bool ran = false;

    thread.Post([&] { ran = true; }, "late");
    EXPECT_TRUE(thread.IsStarted());
    thread.StopAndJoin();

    EXPECT_TRUE(ran);
    EXPECT_EQ(2, log.Count("CLoopThread::Thread starting thread with id="));
    EXPECT_EQ(2, log.Count("finishes"));
}

TEST(CLoopThread, CanBeStartedAndStoppedOverAndOver)
{
    CLoopThread thread;
    int ran = 0;
    for (int round = 0; round < 50; ++round)
    {
        thread.Post([&] { ++ran; }, "item");
        thread.StopAndJoin();
        EXPECT_FALSE(thread.IsStarted());
    }
    EXPECT_EQ(50, ran);
}

TEST(CLoopThread, AnItemPostedWhileTheThreadIsBeingStoppedRunsOnceAtTheLatestAfterTheNextStart)
{
    CLogCapture log;
    CLoopThread thread;
    CGate entered;
    std::atomic<int> late{0};
    thread.Post(
        [&] {
            entered.Open();
            log.WaitFor("CLoopThread::StopAndJoin thread");
            thread.Post([&] { ++late; }, "late");
        },
        "item");
    ASSERT_TRUE(entered.Wait());

    thread.StopAndJoin();
    thread.Start();
    thread.StopAndJoin();

    EXPECT_EQ(1, late);
}

// Stopping from inside

TEST(CLoopThread, StopAndJoinFromInsideAnItemDoesNotDeadlockAndTheLoopEnds)
{
    CLogCapture log;
    CLoopThread thread;
    CGate stopped;
    bool startedAfter = true;
    thread.Post(
        [&] {
            thread.StopAndJoin();
            startedAfter = thread.IsStarted();
            stopped.Open();
        },
        "stops itself");

    ASSERT_TRUE(stopped.Wait());
    EXPECT_FALSE(startedAfter);
    EXPECT_TRUE(log.WaitFor("finishes"));

    std::string const id = std::to_string(thread.GetId());
    EXPECT_EQ(
        (Lines{"CLoopThread::Thread starting thread with id=" + id, "CLoopThread::Thread running message stops itself",
               "CLoopThread::StopAndJoin thread " + id + " from current thread " + id,
               "CLoopThread::StopAndJoin thread " + id + " done",
               "CLoopThread::Thread running message stops itself done", "CLoopThread::Thread stopping",
               "CLoopThread::Thread with id=" + id + " finishes"}),
        linesOf(log, thread.GetId()));
}

TEST(CLoopThread, AThreadStoppedFromInsideEndsAfterTheItemsThatWereQueued)
{
    CLogCapture log;
    CLoopThread thread;
    CGate allQueued;
    std::string ran;
    thread.Post(
        [&] {
            allQueued.Wait();
            thread.StopAndJoin();
            ran += 'A';
        },
        "A");
    thread.Post([&] { ran += 'B'; }, "B");
    thread.Post([&] { ran += 'C'; }, "C");
    allQueued.Open();

    ASSERT_TRUE(log.WaitFor("finishes"));
    thread.StopAndJoin(); // orders what the items wrote before what is read here

    EXPECT_EQ("ABC", ran);
    EXPECT_EQ(1, log.Count("CLoopThread::Thread starting thread"));
}

TEST(CLoopThread, StopAndJoinWaitsSilentlyForAWorkerThatStoppedItselfAndStillRunsItsTail)
{
    CLogCapture log;
    CLoopThread thread;
    CGate stopped;
    CGate release;
    CGate returned;
    bool tail = false;
    thread.Post(
        [&] {
            thread.StopAndJoin();
            stopped.Open();
            release.Wait();
            tail = true;
        },
        "stops itself");
    ASSERT_TRUE(stopped.Wait());
    int ownerId = 0;
    bool tailDone = false;

    std::thread owner([&] {
        ownerId = threadId();
        thread.StopAndJoin();
        tailDone = tail;
        returned.Open();
    });
    EXPECT_TRUE(returned.StaysShut());
    release.Open();
    owner.join();

    EXPECT_TRUE(tailDone);
    EXPECT_TRUE(linesOf(log, ownerId).empty());
}

TEST(CLoopThread, DestroyingAThreadThatStoppedItselfWaitsForItsTail)
{
    CLogCapture log;
    CGate stopped;
    CGate release;
    CGate destroyed;
    bool tail = false;
    bool tailDone = false;
    auto thread = std::make_unique<CLoopThread>();
    thread->Post(
        [&, loop = thread.get()] {
            loop->StopAndJoin();
            stopped.Open();
            release.Wait();
            tail = true;
        },
        "stops itself");
    ASSERT_TRUE(stopped.Wait());

    std::thread owner([&] {
        thread.reset();
        tailDone = tail;
        destroyed.Open();
    });
    EXPECT_TRUE(destroyed.StaysShut());
    release.Open();
    owner.join();

    EXPECT_TRUE(tailDone);
}

TEST(CLoopThread, ANewWorkerWaitsUntilTheOneThatStoppedItselfLeftItsLoop)
{
    CLoopThread thread;
    CGate stopped;
    CGate release;
    CGate next;
    bool tail = false;
    bool tailSeenByNext = false;
    int firstWorker = 0;
    int secondWorker = 0;
    thread.Post(
        [&] {
            firstWorker = threadId();
            thread.StopAndJoin();
            stopped.Open();
            release.Wait();
            tail = true;
        },
        "stops itself");
    ASSERT_TRUE(stopped.Wait());

    thread.Post(
        [&] {
            secondWorker = threadId();
            tailSeenByNext = tail;
            next.Open();
        },
        "next");
    EXPECT_TRUE(thread.IsStarted());
    EXPECT_TRUE(next.StaysShut());
    release.Open();

    EXPECT_TRUE(next.Wait());
    thread.StopAndJoin();
    EXPECT_TRUE(tailSeenByNext);
    EXPECT_NE(firstWorker, secondWorker);
}

TEST(CLoopThread, ItemsPostedBeforeAndAfterAStopFromInsideRunInOrderOneAtATime)
{
    CLoopThread thread;
    CGate queued;
    CGate stopped;
    CGate posted;
    std::string ran;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    auto const item = [&](char name) {
        return [&, name] {
            overlapped = overlapped || inside++ != 0;
            ran += name;
            std::this_thread::yield();
            --inside;
        };
    };
    thread.Post(
        [&] {
            ++inside;
            queued.Wait();
            thread.StopAndJoin();
            stopped.Open();
            posted.Wait();
            ran += 'A';
            --inside;
        },
        "A");
    thread.Post(item('B'), "B");
    queued.Open();
    ASSERT_TRUE(stopped.Wait());
    thread.Post(item('C'), "C");
    thread.Post(item('D'), "D");
    posted.Open();
    thread.StopAndJoin();

    EXPECT_EQ("ABCD", ran);
    EXPECT_FALSE(overlapped);
}

TEST(CLoopThread, AWorkerThatStopsItselfManyTimesLosesNoItemOfOtherThreads)
{
    constexpr int ITEMS = 300;
    CLoopThread thread;
    int ran = 0; // touched by one worker after the other
    std::thread poster([&] {
        for (int item = 0; item < ITEMS; ++item)
        {
            thread.Post(
                [&, item] {
                    ++ran;
                    if (item % 7 == 0)
                    {
                        thread.StopAndJoin();
                    }
                },
                "item");
        }
    });
    poster.join();
    CGate last;
    thread.Post([&] { last.Open(); }, "last");
    EXPECT_TRUE(last.Wait());
    thread.StopAndJoin();

    EXPECT_EQ(ITEMS, ran);
}

// Killing

TEST(CLoopThread, KillCancelsAThreadBlockedInALongWait)
{
    CLoopThread thread;
    CHang hang;
    CGate unwound;
    thread.Post(
        [&] {
            SOpenOnExit const onExit{unwound};
            hang.Enter();
        },
        "hung");
    ASSERT_TRUE(hang.WaitUntilEntered());

    thread.Kill();

    EXPECT_TRUE(unwound.IsOpen()) << "the kill returned before its victim ended";
    EXPECT_FALSE(hang.CameBack());
    EXPECT_EQ(0, thread.GetId());
    EXPECT_FALSE(thread.IsStarted());
}

namespace
{
/// A wait as application code has it, for a condition that never comes; the mutex is left unlocked.
struct SEndlessWait
{
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
    bool waiting = false;

    /// Not instrumented: AddressSanitizer does not notice when a cancellation takes its frame away.
    __attribute__((noinline, no_sanitize("address", "undefined"))) void Enter()
    {
        ::pthread_mutex_lock(&mutex);
        waiting = true;
        struct SUnlock
        {
            pthread_mutex_t& mutex;
            ~SUnlock() { ::pthread_mutex_unlock(&mutex); }
        } const unlock{mutex};
        ::pthread_cond_wait(&condition, &mutex); // locks again when it is cancelled
    }

    /// Whoever sees it waiting under the mutex knows that the waiter has let go of it.
    bool IsEntered()
    {
        ::pthread_mutex_lock(&mutex);
        bool const entered = waiting;
        ::pthread_mutex_unlock(&mutex);
        return entered;
    }
};
} // namespace

TEST(CLoopThread, KillCancelsAThreadBlockedInAConditionWaitWhichLetsGoOfItsMutex)
{
    CLoopThread thread;
    CGate unwound;
    SEndlessWait wait;
    thread.Post(
        [&] {
            SOpenOnExit const onExit{unwound};
            wait.Enter();
        },
        "hung");
    ASSERT_TRUE(eventually([&] { return wait.IsEntered(); }));

    thread.Kill();

    EXPECT_TRUE(unwound.IsOpen());
    EXPECT_FALSE(thread.IsStarted());
    EXPECT_EQ(0, ::pthread_mutex_trylock(&wait.mutex));
    ::pthread_mutex_unlock(&wait.mutex);
}

TEST(CLoopThread, KillStopsAThreadThatNeverReachesACancellationPoint)
{
    CLoopThread thread;
    std::atomic<bool> entered{false};
    std::atomic<bool> wentOn{false};
    thread.Post(
        [&] {
            entered = true;
            spin();
            wentOn = true;
        },
        "spinning");
    ASSERT_TRUE(eventually([&] { return entered.load(); }));

    thread.Kill();
    bool ran = false;
    thread.Post([&] { ran = true; }, "next");
    thread.StopAndJoin();

    EXPECT_FALSE(wentOn);
    EXPECT_TRUE(ran);
}

TEST(CLoopThread, KillLogsTheThreadBeforeAndAfter)
{
    CLogCapture log;
    CLoopThread thread;
    CHang hang;
    thread.Post([&] { hang.Enter(); }, "hung");
    ASSERT_TRUE(hang.WaitUntilEntered());
    std::string const id = std::to_string(thread.GetId());
    log.Clear();

    thread.Kill();

    EXPECT_EQ((Lines{"CLoopThread::Kill thread " + id, "CLoopThread::Kill of thread " + id + " done successfully"}),
              ownLines(log));
    EXPECT_EQ(0, log.Count("finishes"));
    EXPECT_EQ(0, log.Count("running message hung done"));
}

TEST(CLoopThread, KillJoinsFirstWithADeadlineThatIsLongPast)
{
    CLoopThread thread;
    CHang hang;
    thread.Post([&] { hang.Enter(); }, "hung");
    ASSERT_TRUE(hang.WaitUntilEntered());
    g_timedJoins = 0;

    thread.Kill();

    EXPECT_LE(1, g_timedJoins);
    EXPECT_EQ(5, g_firstJoinSeconds);
    EXPECT_EQ(0, g_firstJoinNanoseconds);
}

TEST(CLoopThreadDeathTest, KillWhoseJoinIsBusyLogsAnErrorAndEndsTheProcess)
{
    EXPECT_ABORT(
        {
            CLoopThread thread;
            CHang hang;
            thread.Post([&] { hang.Enter(); }, "hung");
            hang.WaitUntilEntered();
            g_joinIsBusy = true;
            thread.Kill();
        },
        "CLoopThread::Kill couldn't be done, thread [1-9][0-9]* didn't cancel\\. Terminating\\.\\.\\.");
}

TEST(CLoopThread, KillOfANeverStartedThreadDoesNoHarm)
{
    CLoopThread thread;

    thread.Kill();

    EXPECT_FALSE(thread.IsStarted());
    EXPECT_EQ(0, thread.GetId());
    bool ran = false;
    thread.Post([&] { ran = true; }, "item");
    thread.StopAndJoin();
    EXPECT_TRUE(ran);
}

TEST(CLoopThread, KillOfAThreadThatWasJustKilledDoesNoHarm)
{
    CLoopThread thread;
    CHang hang;
    thread.Post([&] { hang.Enter(); }, "hung");
    ASSERT_TRUE(hang.WaitUntilEntered());

    thread.Kill();
    thread.Kill();

    EXPECT_FALSE(thread.IsStarted());
    EXPECT_EQ(0, thread.GetId());
    bool ran = false;
    thread.Post([&] { ran = true; }, "item");
    thread.StopAndJoin();
    EXPECT_TRUE(ran);
}

TEST(CLoopThread, KillOfAThreadThatWasStoppedDoesNoHarm)
{
    CLoopThread thread;
    thread.Start();
    thread.StopAndJoin();

    thread.Kill();

    EXPECT_FALSE(thread.IsStarted());
    bool ran = false;
    thread.Post([&] { ran = true; }, "item");
    thread.StopAndJoin();
    EXPECT_TRUE(ran);
}

TEST(CLoopThread, KillOfAThreadThatStoppedItselfAndFinishedDoesNoHarm)
{
    CLogCapture log;
    CLoopThread thread;
    thread.Post([&] { thread.StopAndJoin(); }, "stops itself");
    ASSERT_TRUE(log.WaitFor("finishes"));

    thread.Kill();

    EXPECT_FALSE(thread.IsStarted());
    bool ran = false;
    thread.Post([&] { ran = true; }, "item");
    thread.StopAndJoin();
    EXPECT_TRUE(ran);
}

TEST(CLoopThread, KillOfAThreadThatWaitsForItemsLeavesItUsable)
{
    CLogCapture log;
    CLoopThread thread;
    for (int round = 1; round <= 10; ++round)
    {
        thread.Post([] {}, "item");
        ASSERT_TRUE(log.WaitFor("running message item done", round)); // out of it, and on the way back to the queue
        thread.Kill();
        EXPECT_FALSE(thread.IsStarted());
    }
    bool ran = false;
    thread.Post([&] { ran = true; }, "last");
    thread.StopAndJoin();
    EXPECT_TRUE(ran);
}

TEST(CLoopThread, ItemsQueuedAtAKillRunInOrderWhenTheThreadIsStartedAgain)
{
    CLoopThread thread;
    CHang hang;
    std::string ran;
    thread.Post(
        [&] {
            ran += 'A';
            hang.Enter();
        },
        "A");
    thread.Post([&] { ran += 'B'; }, "B");
    thread.Post([&] { ran += 'C'; }, "C");
    ASSERT_TRUE(hang.WaitUntilEntered());
    thread.Kill();
    EXPECT_EQ("A", ran);

    thread.Start();
    thread.StopAndJoin();

    EXPECT_EQ("ABC", ran);
}

TEST(CLoopThread, ItemsQueuedAtAKillRunBeforeTheItemWhosePostStartsTheThreadAgain)
{
    CLoopThread thread;
    CHang hang;
    std::string ran;
    thread.Post([&] { hang.Enter(); }, "hung");
    thread.Post([&] { ran += 'B'; }, "B");
    ASSERT_TRUE(hang.WaitUntilEntered());
    thread.Kill();

    thread.Post([&] { ran += 'C'; }, "C");
    thread.StopAndJoin();

    EXPECT_EQ("BC", ran);
}

TEST(CLoopThread, KillReleasesWhoeverWaitsForTheHungWorkerToStop)
{
    CLogCapture log;
    CLoopThread thread;
    CHang hang;
    thread.Post([&] { hang.Enter(); }, "hung");
    ASSERT_TRUE(hang.WaitUntilEntered());
    CGate returned;
    std::thread owner([&] {
        thread.StopAndJoin();
        returned.Open();
    });
    ASSERT_TRUE(log.WaitFor("CLoopThread::StopAndJoin thread"));
    EXPECT_TRUE(returned.StaysShut());

    thread.Kill();

    EXPECT_TRUE(returned.Wait());
    owner.join();
    EXPECT_FALSE(hang.CameBack());
}

TEST(CLoopThread, AStopThatWasMeantForAKilledWorkerDoesNotStopTheNextOne)
{
    CLogCapture log;
    CLoopThread thread;
    CHang hang;
    thread.Post([&] { hang.Enter(); }, "hung");
    ASSERT_TRUE(hang.WaitUntilEntered());
    std::thread owner([&] { thread.StopAndJoin(); });
    ASSERT_TRUE(log.WaitFor("CLoopThread::StopAndJoin thread"));
    EXPECT_FALSE(log.WaitFor("CLoopThread::StopAndJoin thread", 2, 200ms)); // blocked, with its message queued
    thread.Kill();
    owner.join();

    int ran = 0;
    CGate last;
    for (int item = 0; item < 5; ++item)
    {
        thread.Post([&] { ++ran; }, "item");
    }
    thread.Post([&] { last.Open(); }, "last");

    EXPECT_TRUE(last.Wait());
    EXPECT_EQ(5, ran);
    thread.StopAndJoin();
    EXPECT_EQ(2, log.Count("CLoopThread::Thread starting thread"));
}

TEST(CLoopThread, AKillAmidstPostsOfOtherThreadsFreezesNothing)
{
    // A worker that were cancelled inside the queue, the log or the allocator would leave a lock behind, and one of
    // the rounds would never end.
    CLogCapture log;
    CLoopThread thread;
    std::atomic<bool> stop{false};
    std::vector<std::thread> posters;
    for (int poster = 0; poster < 2; ++poster)
    {
        posters.emplace_back([&] {
            while (!stop)
            {
                thread.Post([text = std::string(100, 'x')] { static_cast<void>(text); }, "item");
                std::this_thread::sleep_for(100us);
            }
        });
    }
    for (int round = 0; round < 60; ++round)
    {
        std::this_thread::sleep_for(std::chrono::microseconds(round * 37));
        thread.Kill();
    }
    stop = true;
    for (auto& poster : posters)
    {
        poster.join();
    }
    CGate last;
    thread.Post([&] { last.Open(); }, "last");
    EXPECT_TRUE(last.Wait());
    thread.StopAndJoin();
}

// Cancellation

TEST(CLoopThread, AnItemRunsWithAsynchronousCancellationEnabled)
{
    CLoopThread thread;
    SCancelState inItem;

    thread.Post([&] { inItem = cancelState(); }, "item");
    thread.StopAndJoin();

    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, inItem.state);
    EXPECT_EQ(PTHREAD_CANCEL_ASYNCHRONOUS, inItem.type);
}

TEST(CLoopThread, TheWorkerCannotBeCancelledWhileItWritesALine)
{
    std::mutex mutex;
    std::vector<std::pair<int, int>> states; // thread, state
    log::SetSink([&](ELevel, std::string const&) {
        std::lock_guard<std::mutex> const lock(mutex);
        states.emplace_back(threadId(), cancelState().state);
    });
    CLoopThread thread;
    thread.Post([&] { thread.Post([] {}, "posted by an item"); }, "item");
    thread.StopAndJoin();
    installStderrSink();

    int ofWorker = 0;
    for (auto const& [id, state] : states)
    {
        if (id == thread.GetId())
        {
            ++ofWorker;
            EXPECT_EQ(PTHREAD_CANCEL_DISABLE, state);
        }
    }
    EXPECT_LE(7, ofWorker); // a whole life with one item that posts
}

TEST(CLoopThread, AnItemIsCancellableAgainAfterItCalledTheLibrary)
{
    CLoopThread thread;
    SCancelState after;

    thread.Post(
        [&] {
            thread.Post([] {}, "posted by an item");
            after = cancelState();
        },
        "item");
    thread.StopAndJoin();

    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, after.state);
    EXPECT_EQ(PTHREAD_CANCEL_ASYNCHRONOUS, after.type);
}

TEST(CLoopThread, AHoldPutsAStartOffUntilItsEnd)
{
    CLoopThread thread;
    CGate ran;
    {
        CLoopThread::CStartHold const hold(thread);
        thread.Post([&] { ran.Open(); }, "item");
        EXPECT_TRUE(ran.StaysShut());
    }
    EXPECT_TRUE(ran.Wait());
    thread.StopAndJoin();
}

TEST(CLoopThread, StopAndJoinDuringAHoldWaitsForItAndForWhatWasPostedMeanwhile)
{
    CLoopThread thread;
    CGate held;
    CGate letGo;
    std::thread holder([&] {
        CLoopThread::CStartHold const hold(thread);
        held.Open();
        letGo.Wait();
    });
    ASSERT_TRUE(held.Wait());
    std::atomic<bool> ran{false};
    thread.Post([&] { ran = true; }, "item");
    CGate stopped;
    std::thread stopper([&] {
        thread.StopAndJoin();
        stopped.Open();
    });

    EXPECT_TRUE(stopped.StaysShut());
    EXPECT_FALSE(ran);
    letGo.Open();

    EXPECT_TRUE(stopped.Wait());
    EXPECT_TRUE(ran);
    EXPECT_FALSE(thread.IsStarted());
    holder.join();
    stopper.join();
}

TEST(CLoopThread, AHoldThatNobodyAskedAStartOfStartsNothing)
{
    CLogCapture log;
    CLoopThread thread;
    {
        CLoopThread::CStartHold const hold(thread);
    }
    EXPECT_FALSE(thread.IsStarted());
    EXPECT_EQ(0, log.Count("starting thread"));
}

TEST(CLoopThread, AWakeHoldEndsWithAllItemsRunInTheirOrder)
{
    CLoopThread thread;
    CGate started;
    thread.Post([&] { started.Open(); }, "first");
    ASSERT_TRUE(started.Wait());
    std::string order;
    CGate ran;
    {
        CLoopThread::CWakeHold const outer(thread);
        CLoopThread::CWakeHold const inner(thread);
        thread.Post([&] { order += 'a'; }, "second");
        thread.Post(
            [&] {
                order += 'b';
                ran.Open();
            },
            "third");
    }
    EXPECT_TRUE(ran.Wait());
    thread.StopAndJoin();
    EXPECT_EQ("ab", order);
}

TEST(CLoopThread, AStopDoesNotWaitForAWakeHold)
{
    CLoopThread thread;
    CLoopThread::CWakeHold const hold(thread);
    bool ran = false;
    thread.Post([&] { ran = true; }, "item");
    thread.StopAndJoin();
    EXPECT_TRUE(ran);
}

// Killing at cancellation points

namespace
{
SWorkerOptions atCancellationPoint()
{
    SWorkerOptions options;
    options.kill = EKill::AtCancellationPoint;
    return options;
}
} // namespace

TEST(CLoopThread, AnItemThatIsKilledAtCancellationPointsRunsWithDeferredCancellation)
{
    CLoopThread thread;
    thread.SetWorkerOptions(atCancellationPoint());
    SCancelState inItem;
    SCancelState afterCall;

    thread.Post(
        [&] {
            inItem = cancelState();
            thread.IsStarted();
            afterCall = cancelState();
        },
        "item");
    thread.StopAndJoin();

    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, inItem.state);
    EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, inItem.type);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, afterCall.state);
    EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, afterCall.type);
}

TEST(CLoopThread, AWorkerThatIsCutOffNeverTouchesTheLoopThatMayBeGone)
{
    CSpin spin;
    auto const cutOffs = std::make_shared<CCutOffCount>();
    std::atomic<bool> ranNext{false};
    {
        CLoopThread thread;
        SWorkerOptions options = atCancellationPoint();
        options.cutOffs = cutOffs;
        thread.SetWorkerOptions(options);
        thread.Post([&] { spin.Enter(); }, "spinning");
        thread.Post([&] { ranNext = true; }, "next");
        ASSERT_TRUE(spin.WaitUntilEntered());

        thread.Kill();

        EXPECT_FALSE(thread.IsStarted());
        EXPECT_EQ(1, cutOffs->Get());
    }
    EXPECT_TRUE(spin.End());
    EXPECT_TRUE(eventually([&] { return cutOffs->Get() == 0; }));
    EXPECT_FALSE(ranNext);
}

TEST(CLoopThread, AWorkerKeepsTheOwnerAliveUntilItHasLeftOrEnded)
{
    CSpin spin;
    auto owner = std::make_shared<int>(1);
    CLoopThread thread;
    SWorkerOptions options = atCancellationPoint();
    options.owner = owner;
    thread.SetWorkerOptions(options);
    thread.Post([] {}, "item");
    thread.StopAndJoin();
    EXPECT_EQ(1, owner.use_count());
    thread.Post([&] { spin.Enter(); }, "spinning");
    ASSERT_TRUE(spin.WaitUntilEntered());

    thread.Kill();

    EXPECT_EQ(2, owner.use_count());
    EXPECT_TRUE(spin.End());
    EXPECT_TRUE(eventually([&] { return owner.use_count() == 1; }));
}

TEST(CLoopThread, AClosedOneDropsItsItemsAndEveryLaterOne)
{
    CLoopThread thread;
    auto const held = std::make_shared<int>(1);
    {
        CLoopThread::CStartHold const hold(thread);
        thread.Post([held] {}, "queued");
        EXPECT_EQ(2, held.use_count());

        thread.Close();

        EXPECT_EQ(1, held.use_count());
    }
    thread.Post([held] {}, "later");
    EXPECT_FALSE(thread.IsStarted());
    EXPECT_EQ(1, held.use_count());
}

// Misuse

TEST(CLoopThreadDeathTest, AnEmptyItemRaisesBadFunctionCallThatNobodyCatches)
{
    EXPECT_ABORT(
        {
            CLoopThread thread;
            thread.Post({}, "empty");
            thread.StopAndJoin();
        },
        "bad_function_call");
}

TEST(CLoopThreadDeathTest, AnExceptionThatLeavesAnItemEndsTheProcess)
{
    EXPECT_ABORT(
        {
            CLoopThread thread;
            thread.Post([] { throw std::runtime_error("thrown by an item"); }, "throws");
            thread.StopAndJoin();
        },
        "thrown by an item");
}

// The end of the process

namespace
{
constexpr int EXIT_BUSY = 4;

std::atomic<unsigned long> g_ranAtExit{0};
CLoopThread* g_threadAtExit = nullptr; // never destroyed: it is alive at exit, that is the point

void keepBusy()
{
    ++g_ranAtExit;
    types::CValueList list;
    list[protocol::METHOD_NAME] = types::makeValue<std::string>("Open");
    list[protocol::ACTOR_ID] = types::makeValue<int>(1);
    g_threadAtExit->Post(&keepBusy, types::toString(list));
}

void expectThatItIsStillBusy()
{
    auto const before = g_ranAtExit.load();
    ::_exit(eventually([&] { return g_ranAtExit.load() > before + 100; }) ? EXIT_BUSY : EXIT_FAILURE);
}
} // namespace

TEST(CLoopThreadDeathTest, AThreadAliveAtExitMayStillPostRenderListsAndWriteLines)
{
    EXPECT_EXIT(
        {
            log::SetSink([](ELevel, std::string const&) {});
            runAfterStaticDestructors(&expectThatItIsStillBusy);
            g_threadAtExit = new CLoopThread;
            keepBusy();
            std::exit(0);
        },
        ::testing::ExitedWithCode(EXIT_BUSY), "");
}
