#include "CGate.h"
#include "CancelState.h"
#include "Eventually.h"

#include <nelo_rpc/Cancellation.h>

#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <thread>

using nelo_rpc::CCancellationGuard;
using nelo_rpc::CCancellationRequest;
using nelo_rpc::CCancellationWindow;

namespace
{

constexpr auto DEFER = CCancellationGuard::EOnLeave::Defer;

/// Runs a function on a thread of its own, made a worker.
template <class Function>
void onWorker(Function const& function)
{
    std::thread([&] {
        CCancellationWindow::MakeWorker(std::make_shared<CCancellationRequest>());
        function();
    }).join();
}

void expectOpen(SCancelState const& now)
{
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, now.state);
    EXPECT_EQ(PTHREAD_CANCEL_ASYNCHRONOUS, now.type);
}

void expectClosed(SCancelState const& now)
{
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, now.state);
    EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, now.type);
}

/// A thread that goes in and out of application code, and does what a library does outside of it.
struct SVictim
{
    std::shared_ptr<CCancellationRequest> request = std::make_shared<CCancellationRequest>();
    std::atomic<bool> isRunning{false};
    std::atomic<bool> isInLibrary{false};
    std::thread thread{[this] { Run(); }};

    __attribute__((noinline)) void Run()
    {
        CCancellationWindow::MakeWorker(request);
        isRunning = true;
        for (;;)
        {
            RunApplication();
            isInLibrary = true;
            // A cancellation point, which opens the thread for a cancellation that is late.
            static_cast<void>(::write(-1, "", 0));
            isInLibrary = false;
        }
    }

    /// Without anything to clean up, so that it can be unwound from between two of its calls.
    static void RunApplication()
    {
        CCancellationWindow const window;
        for (int i = 0; i < 3; ++i)
        {
            ::getppid();
        }
    }
};

} // namespace

TEST(CCancellationWindow, OpensAWorkerAndClosesItAgain)
{
    onWorker([] {
        expectClosed(cancelState());
        {
            CCancellationWindow const window;
            expectOpen(cancelState());
        }
        expectClosed(cancelState());
    });
}

TEST(CCancellationWindow, ChangesNothingOnOtherThreads)
{
    std::thread([] {
        CCancellationWindow const window;
        SCancelState const now = cancelState();
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, now.state);
        EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, now.type);
    }).join();
}

TEST(CCancellationWindow, ACancellationThatComesLateNeverActsOutsideOfIt)
{
    for (int round = 0; round < 400; ++round)
    {
        SVictim victim;
        while (!victim.isRunning)
        {
            std::this_thread::yield();
        }
        victim.request->Send(victim.thread.native_handle());
        victim.thread.join();
        ASSERT_FALSE(victim.isInLibrary) << "in round " << round;
    }
}

TEST(CCancellationGuard, ClosesAWorkerThatIsInAWindowAndOpensItAgain)
{
    onWorker([] {
        CCancellationWindow const window;
        {
            CCancellationGuard const guard;
            expectClosed(cancelState());
            {
                CCancellationGuard const inner;
                expectClosed(cancelState());
            }
            expectClosed(cancelState());
        }
        expectOpen(cancelState());
    });
}

TEST(CCancellationGuard, OfADestructorLeavesAWorkerDeferredUntilTheNextGuardEnds)
{
    onWorker([] {
        CCancellationWindow const window;
        {
            CCancellationGuard const guard(DEFER);
        }
        SCancelState const after = cancelState();
        EXPECT_EQ(PTHREAD_CANCEL_ENABLE, after.state);
        EXPECT_EQ(PTHREAD_CANCEL_DEFERRED, after.type);
        {
            CCancellationGuard const guard;
        }
        expectOpen(cancelState());
    });
}

TEST(CCancellationGuard, LeavesAThreadOfTheApplicationAsItFoundIt)
{
    std::thread([] {
        int ignored = 0;
        ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &ignored);
        {
            CCancellationGuard const guard;
            expectClosed(cancelState());
        }
        expectOpen(cancelState());
        {
            CCancellationGuard const guard(DEFER);
        }
        {
            CCancellationGuard const guard;
        }
        expectOpen(cancelState());
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &ignored);
        {
            CCancellationGuard const guard;
        }
        SCancelState const disabled = cancelState();
        EXPECT_EQ(PTHREAD_CANCEL_DISABLE, disabled.state);
        EXPECT_EQ(PTHREAD_CANCEL_ASYNCHRONOUS, disabled.type);
    }).join();
}

TEST(CCancellationGuard, LeftByAnExceptionLetsTheExceptionPass)
{
    auto const request = std::make_shared<CCancellationRequest>();
    std::atomic<bool> isInGuard{false};
    CGate cancelled;
    bool caught = false;
    std::atomic<bool> cameThrough{false};
    std::thread worker([&] {
        CCancellationWindow::MakeWorker(request);
        CCancellationWindow const window;
        try
        {
            CCancellationGuard const guard;
            isInGuard = true;
            EXPECT_TRUE(cancelled.Wait());
            throw std::runtime_error("from inside");
        }
        catch (std::runtime_error const&)
        {
            caught = true;
        }
        {
            CCancellationGuard const next; // at whose end it acts
        }
        cameThrough = true;
    });
    EXPECT_TRUE(eventually([&] { return isInGuard.load(); }));
    request->Send(worker.native_handle());
    cancelled.Open();
    worker.join();
    EXPECT_TRUE(caught);
    EXPECT_FALSE(cameThrough);
}

TEST(CCancellationGuard, ACancellationThatCameMeanwhileActsWhenItEnds)
{
    auto const request = std::make_shared<CCancellationRequest>();
    std::atomic<bool> isInGuard{false};
    std::atomic<bool> cameThrough{false};
    CGate cancelled;
    std::thread worker([&] {
        CCancellationWindow::MakeWorker(request);
        CCancellationWindow const window;
        {
            CCancellationGuard const guard;
            isInGuard = true;
            EXPECT_TRUE(cancelled.Wait());
        }
        cameThrough = true;
    });
    EXPECT_TRUE(eventually([&] { return isInGuard.load(); }));
    request->Send(worker.native_handle());
    cancelled.Open();
    worker.join();
    EXPECT_FALSE(cameThrough);
}
