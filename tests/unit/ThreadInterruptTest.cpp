#include "../../src/ThreadInterrupt.h"

#include "CGate.h"
#include "CSpin.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <thread>

using namespace nelo_rpc;
using namespace std::chrono_literals;

namespace
{

std::atomic<int> g_earlierCalls{0};

void runNothing(void*) {}

/// Waits with every signal blocked.
void waitBlocked(CGate& blocked, CGate& release)
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    blocked.Open();
    release.Wait();
}

} // namespace

TEST(ThreadInterrupt, RunsAFunctionOnAnotherThread)
{
    interrupt::Prepare();
    CGate release;
    CGate started;
    std::atomic<int> id{0};
    std::thread other([&] {
        id = interrupt::OwnThread();
        started.Open();
        release.Wait();
    });
    ASSERT_TRUE(started.Wait());
    auto const ranOn = std::make_shared<std::atomic<int>>(0);

    bool const hasRun = interrupt::Run(
        id, [](void* data) { *static_cast<std::atomic<int>*>(data) = interrupt::OwnThread(); }, ranOn, 5s);

    EXPECT_TRUE(hasRun);
    EXPECT_EQ(id, *ranOn);
    release.Open();
    other.join();
}

TEST(ThreadInterrupt, GivesUpOnAThreadThatBlocksSignalsAndServesTheNext)
{
    interrupt::Prepare();
    CGate blocked;
    CGate release;
    std::atomic<int> id{0};
    std::thread other([&] {
        id = interrupt::OwnThread();
        waitBlocked(blocked, release);
    });
    ASSERT_TRUE(blocked.Wait());
    auto const start = std::chrono::steady_clock::now();

    EXPECT_FALSE(interrupt::Run(id, &runNothing, nullptr, 100ms));

    EXPECT_GT(5s, std::chrono::steady_clock::now() - start);
    EXPECT_TRUE(interrupt::Run(interrupt::OwnThread(), &runNothing, nullptr, 5s));
    release.Open();
    other.join();
}

TEST(ThreadInterrupt, OfAThreadThatIsNotThereRunsNothing)
{
    interrupt::Prepare();
    int id = 0;
    std::thread([&] { id = interrupt::OwnThread(); }).join();

    EXPECT_FALSE(interrupt::Run(id, &runNothing, nullptr, 100ms));
    EXPECT_TRUE(interrupt::StackOf(id, 100ms).empty());
}

TEST(ThreadInterrupt, LeavesSignalsOfOthersToTheHandlerThatWasThereBefore)
{
    // In a process of its own: the handler is installed once.
    EXPECT_EXIT(
        {
            std::signal(SIGURG, [](int) { ++g_earlierCalls; });
            interrupt::Prepare();
            std::raise(SIGURG);
            bool const isRun = interrupt::Run(interrupt::OwnThread(), &runNothing, nullptr, 5s);
            std::_Exit(isRun && g_earlierCalls == 1 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
