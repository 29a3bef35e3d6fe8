#include "CChildProcess.h"
#include "CHonestClient.h"
#include "CPrivateBus.h"
#include "CStressServer.h"
#include "CTestClient.h"
#include "Campaign.h"
#include "Eventually.h"
#include "ProcessFigures.h"
#include "StressTypes.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace
{

constexpr int HONEST = 3;

seconds soakTime()
{
    char const* const minutes = std::getenv("NELO_RPC_CAMPAIGN_MINUTES");
    return isLongForm() ? seconds(static_cast<int>(60 * (minutes != nullptr ? std::atof(minutes) : 30))) : seconds(3);
}

/// Clients that come, work, and leave in good order, one after the other.
long comeAndGo(std::string const& server, std::atomic<bool> const& stop, std::atomic<int>& wrong)
{
    long visits = 0;
    std::vector<std::uint8_t> const large(300000, 0x33);
    while (!stop)
    {
        CTestClient client(server, nelo_rpc::SPortOptions::Recommended());
        CStepperProxy first(client.Get());
        CStepperProxy second(client.Get());
        for (int i = 1; i <= 10; ++i)
        {
            wrong += first.Step.TryCall(i, "first") == answerToStep(i, "first") ? 0 : 1;
            wrong += second.Step.TryCall(i, "second") == answerToStep(i, "second") ? 0 : 1;
        }
        wrong += first.Echo.TryCall(large) == large ? 0 : 1;
        wrong += second.Burst.TryCall(20) ? 0 : 1;
        ++visits;
    }
    return visits;
}

/// Clients that are killed at work, one after the other.
long comeAndDie(std::string const& server, std::atomic<bool> const& stop, std::atomic<int>& wrong)
{
    std::mt19937 random(1);
    long deaths = 0;
    while (!stop)
    {
        std::string const number = std::to_string(deaths);
        CChildProcess client({NELO_RPC_STRESS_DIR "/StressClientProgram", server, number, "anywhere"});
        std::this_thread::sleep_for(milliseconds(std::uniform_int_distribution<>(20, 600)(random)));
        client.Kill();
        while (auto const line = client.ReadLine(milliseconds(0)))
        {
            wrong += line->rfind("wrong", 0) == 0 ? 1 : 0;
        }
        ++deaths;
    }
    return deaths;
}

} // namespace

TEST(Soak, UnderMixedLoadLosesNothingAndStaysTheSame)
{
    seconds const time = soakTime();
    CCampaign campaign("soak", time);
    std::string const name = CPrivateBus::UniqueName();
    CStressServer server(name, {"tick=20"});
    std::list<CHonestClient> honest;
    for (int i = 0; i < HONEST; ++i)
    {
        honest.emplace_back(name);
        ASSERT_TRUE(honest.back().WaitForCalls(10));
    }
    SProcessFigures const before = figuresOf(server.GetPid());

    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    long visits = 0;
    long deaths = 0;
    std::thread visitors([&] { visits = comeAndGo(name, stop, wrong); });
    std::thread victims([&] { deaths = comeAndDie(name, stop, wrong); });
    CTrend trend;
    auto const start = steady_clock::now();
    while (!campaign.IsOver() && server.IsRunning())
    {
        std::this_thread::sleep_for(milliseconds(pick(50, 1000)));
        double const minutes = std::chrono::duration<double>(steady_clock::now() - start).count() / 60;
        trend.Take(minutes, figuresOf(server.GetPid()));
        campaign.Progress(static_cast<long>(minutes * 60), static_cast<long>(time.count()));
    }
    stop = true;
    visitors.join();
    victims.join();

    bool const serverLives = server.IsRunning();
    bool const allGone = eventually([&] { return server.CountObjects() == HONEST; }, seconds(30));
    eventually([&] { return figuresOf(server.GetPid()).threads <= before.threads; });
    SProcessFigures const after = figuresOf(server.GetPid());
    SHonestReport report;
    for (CHonestClient& client : honest)
    {
        report += client.Stop();
    }
    campaign.Set("server deaths", serverLives ? 0 : 1);
    campaign.Set("lost", static_cast<double>(report.lost));
    campaign.Set("wrong", static_cast<double>(report.wrong + wrong + server.CountDisorder()));
    campaign.Set("calls", static_cast<double>(report.calls));
    campaign.Set("clients that left", static_cast<double>(visits));
    campaign.Set("clients killed", static_cast<double>(deaths));
    if (isLongForm()) // in the short one the server has just started
    {
        campaign.Set("KiB per minute", trend.SlopeOfResidentKb());
        campaign.Set("descriptors per minute", trend.SlopeOfDescriptors());
        campaign.Set("threads per minute", trend.SlopeOfThreads());
    }
    campaign.Set("KiB at the start", static_cast<double>(before.residentKb));
    campaign.Set("KiB at the end", static_cast<double>(after.residentKb));

    EXPECT_TRUE(serverLives);
    EXPECT_TRUE(allGone);
    EXPECT_EQ(0, report.lost);
    EXPECT_EQ(0, report.wrong);
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(0, server.CountDisorder());
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.descriptors, before.descriptors);
    EXPECT_TRUE(server.Stop());
}
