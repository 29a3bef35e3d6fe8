#include "CHonestClient.h"
#include "CPrivateBus.h"
#include "CStressServer.h"
#include "Campaign.h"
#include "Eventually.h"
#include "ProcessFigures.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

/// Every second one dies anywhere.
constexpr char const* STAGES[] = {"anywhere", "before a call",   "anywhere", "in a call",
                                  "anywhere", "after a call",    "anywhere", "in a callback",
                                  "anywhere", "in construction", "anywhere", "in destruction"};
constexpr int STAGE_COUNT = sizeof(STAGES) / sizeof(STAGES[0]);

/// Starts clients, as many at a time as there are threads in it, and kills each at its stage.
class CKillers
{
public:
    CKillers(std::string serverName, CStressServer& server, CCampaign const& campaign, int deaths)
        : m_serverName(std::move(serverName)), m_server(server), m_campaign(campaign), m_deathsWanted(deaths)
    {
        for (unsigned int seed = 0; seed < 8; ++seed)
        {
            m_threads.emplace_back([this, seed] { Run(seed); });
        }
    }

    ~CKillers() { Join(); }

    void Join()
    {
        for (std::thread& thread : m_threads)
        {
            thread.join();
        }
        m_threads.clear();
    }

    bool AreDone() const { return m_deaths >= m_deathsWanted || m_campaign.IsOver(); }
    int CountDeaths() const { return m_deaths; }
    int CountWrong() const { return m_wrong; }
    int CountAstray() const { return m_astray; }

private:
    void Run(unsigned int seed)
    {
        std::mt19937 random(seed);
        for (int number = ++m_lastNumber; number <= m_deathsWanted && !m_campaign.IsOver(); number = ++m_lastNumber)
        {
            KillOne(number, milliseconds(std::uniform_int_distribution<>(0, 150)(random)));
            ++m_deaths;
        }
    }

    void KillOne(int number, milliseconds lifetime)
    {
        std::string const stage = STAGES[number % STAGE_COUNT];
        CChildProcess client({NELO_RPC_STRESS_DIR "/StressClientProgram", m_serverName, std::to_string(number), stage});
        if (stage == "anywhere")
        {
            std::this_thread::sleep_for(lifetime);
        }
        else if (client.ReadLine(seconds(60)) != std::optional<std::string>("at the stage"))
        {
            ++m_astray;
        }
        client.Kill();
        m_server.Tell("release " + std::to_string(number));
        while (auto const line = client.ReadLine(milliseconds(0)))
        {
            if (line->rfind("wrong", 0) == 0)
            {
                ++m_wrong;
                ADD_FAILURE() << "client " << number << ", " << stage << ": " << *line;
            }
        }
    }

    std::string const m_serverName;
    CStressServer& m_server;
    CCampaign const& m_campaign;
    int const m_deathsWanted;
    std::atomic<int> m_lastNumber{0};
    std::atomic<int> m_deaths{0};
    std::atomic<int> m_wrong{0};
    std::atomic<int> m_astray{0};
    std::vector<std::thread> m_threads;
};

} // namespace

TEST(DyingClients, CostOthersNothing)
{
    constexpr int SURVIVORS = 2;
    int const deaths = pick(24, 2000);
    CCampaign campaign("dying-clients", seconds(pick(100, 900)));
    std::string const name = CPrivateBus::UniqueName();
    CStressServer server(name, {"tick=20"});
    std::list<CHonestClient> survivors;
    for (int i = 0; i < SURVIVORS; ++i)
    {
        survivors.emplace_back(name, std::chrono::microseconds(100));
        ASSERT_TRUE(survivors.back().WaitForCalls(20));
    }
    SProcessFigures const before = figuresOf(server.GetPid());

    CTrend trend;
    CKillers killers(name, server, campaign, deaths);
    while (!killers.AreDone() && server.IsRunning())
    {
        std::this_thread::sleep_for(milliseconds(50));
        trend.Take(killers.CountDeaths(), figuresOf(server.GetPid()));
        campaign.Progress(killers.CountDeaths(), deaths);
    }
    killers.Join();

    bool const serverLives = server.IsRunning();
    bool const allGone = eventually([&] { return server.CountObjects() == SURVIVORS; }, seconds(30));
    bool const threadsGone =
        eventually([&] { return figuresOf(server.GetPid()).threads <= before.threads; }, seconds(10));
    SHonestReport report;
    for (CHonestClient& survivor : survivors)
    {
        EXPECT_TRUE(survivor.WaitForCalls(20)) << "it is served to the end";
        report += survivor.Stop();
    }
    SProcessFigures const after = figuresOf(server.GetPid());
    int const disorder = server.CountDisorder();

    campaign.Set("client deaths", killers.CountDeaths());
    campaign.Set("server deaths", serverLives ? 0 : 1);
    campaign.Set("calls of survivors", static_cast<double>(report.calls));
    campaign.Set("lost", static_cast<double>(report.lost));
    campaign.Set("wrong", static_cast<double>(report.wrong + killers.CountWrong() + disorder));
    if (isLongForm()) // in the short one the server has just started
    {
        campaign.Set("KiB per death", trend.SlopeOfResidentKb());
        campaign.Set("descriptors per death", trend.SlopeOfDescriptors());
        campaign.Set("threads per death", trend.SlopeOfThreads());
    }
    campaign.Set("KiB at the end", static_cast<double>(after.residentKb));

    EXPECT_TRUE(serverLives);
    EXPECT_EQ(deaths, killers.CountDeaths());
    EXPECT_EQ(0, killers.CountAstray()) << "clients that did not come to their stage";
    EXPECT_TRUE(allGone) << server.CountObjects() << " objects are left";
    EXPECT_TRUE(threadsGone) << after.threads << " threads where there were " << before.threads;
    EXPECT_LE(after.descriptors, before.descriptors);
    EXPECT_EQ(0, report.lost);
    EXPECT_EQ(0, report.wrong);
    EXPECT_EQ(0, killers.CountWrong());
    EXPECT_EQ(0, disorder);
    EXPECT_TRUE(server.Stop());
    EXPECT_TRUE(server.FatalLines().empty());
}
