#include "CGate.h"
#include "CHonestClient.h"
#include "CPrivateBus.h"
#include "CStressServer.h"
#include "CTestClient.h"
#include "Campaign.h"
#include "Eventually.h"
#include "HungWays.h"
#include "StressOptions.h"
#include "StressTypes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using std::chrono::seconds;

namespace
{

/// What became of a server one of whose functions hung and was killed.
enum class EOutcome
{
    Recovered, ///< the caller and all others went on
    Died,
    Stuck ///< it lives, but somebody is not served any more
};

/// A server with a short patience, a client that hangs there, and one that must not notice.
class CHangingPair
{
public:
    explicit CHangingPair(nelo_rpc::EKill kill)
        : m_server(m_name, {"hang=1500", "check=300", "debug=1",
                            kill == nelo_rpc::EKill::AtCancellationPoint ? "deferred=1" : "deferred=0"}),
          m_witness(m_name, std::chrono::microseconds(1000))
    {
    }

    EOutcome HangOnce(std::string const& way)
    {
        CTestClient client(m_name, nelo_rpc::SPortOptions::Recommended());
        client.Get().SetTimeoutMs(10000);
        CGate killed;
        nelo_rpc::CProxyCallback<>(*client.Get().GetConnectionProxy(), "OnKill").Subscribe([&] { killed.Open(); });
        CStepperProxy stepper(client.Get());
        stepper.OnBurst.Subscribe([](int) {});
        if (way == "destructor")
        {
            CStepperProxy(client.Get(), HANGS_AT_END);
        }
        else if (stepper.Hang.TryCall(way))
        {
            ADD_FAILURE() << "a call that hangs was answered: " << way;
        }
        bool const told = eventually([&] { return killed.IsOpen() || !m_server.IsRunning(); }) && killed.IsOpen();
        bool const served = stepper.Step.TryCall(1, way) == answerToStep(1, way);
        if (!m_server.IsRunning())
        {
            return EOutcome::Died;
        }
        return told && served && m_witness.WaitForCalls(3, seconds(10)) ? EOutcome::Recovered : EOutcome::Stuck;
    }

    SHonestReport StopWitness() { return m_witness.Stop(); }

    void Kill() { m_server.Kill(); }

private:
    std::string const m_name = CPrivateBus::UniqueName();
    CStressServer m_server;
    CHonestClient m_witness;
};

struct STally
{
    int kills = 0;
    int died = 0;
    int stuck = 0;
    double slowest = 0; ///< seconds until the client was served again
    SHonestReport witness;
};

/// A host that has left so many threads behind as it may have refuses the clients that they were of.
constexpr int KILLS_OF_A_SERVER = 15;

STally hangAgainAndAgain(std::string const& way, int times, nelo_rpc::EKill kill, CCampaign const& campaign)
{
    STally tally;
    auto pair = std::make_unique<CHangingPair>(kill);
    while (tally.kills < times && !campaign.IsOver())
    {
        auto const start = std::chrono::steady_clock::now();
        EOutcome const outcome = pair->HangOnce(way);
        double const took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        ++tally.kills;
        tally.slowest = outcome == EOutcome::Recovered ? std::max(tally.slowest, took) : tally.slowest;
        tally.died += outcome == EOutcome::Died ? 1 : 0;
        tally.stuck += outcome == EOutcome::Stuck ? 1 : 0;
        if (outcome != EOutcome::Recovered)
        {
            pair->Kill(); // also so that the witness's call ends
            pair = std::make_unique<CHangingPair>(kill);
        }
        else if (tally.kills % KILLS_OF_A_SERVER == 0)
        {
            tally.witness += pair->StopWitness();
            pair->Kill();
            pair = std::make_unique<CHangingPair>(kill);
        }
    }
    tally.witness += pair->StopWitness();
    pair->Kill();
    return tally;
}

/// What may cost a server its life, or freeze it, is for the long form, which counts and does not judge it.
std::vector<SHungWay> waysFor(nelo_rpc::EKill kill)
{
    std::vector<SHungWay> ways = hungWays();
    if (kill == nelo_rpc::EKill::Anywhere && !isLongForm())
    {
        ways.erase(std::remove_if(ways.begin(), ways.end(), [](SHungWay const& way) { return !way.isSafeAnywhere; }),
                   ways.end());
    }
    return ways;
}

class HungCode : public ::testing::TestWithParam<nelo_rpc::EKill>
{
};

std::string nameOf(::testing::TestParamInfo<nelo_rpc::EKill> const& info)
{
    return info.param == nelo_rpc::EKill::Anywhere ? "Anywhere" : "AtACancellationPoint";
}

} // namespace

TEST_P(HungCode, IsKilledAndCostsNobodyElse)
{
    nelo_rpc::EKill const kill = GetParam();
    int const times = pick(1, 50);
    CCampaign campaign(kill == nelo_rpc::EKill::Anywhere ? "hung-code, anywhere" : "hung-code, at a cancellation point",
                       seconds(pick(100, 3600)));
    std::vector<SHungWay> const ways = waysFor(kill);
    std::vector<STally> tallies(ways.size());
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 5; ++t)
    {
        threads.emplace_back([&] {
            for (std::size_t i = next++; i < tallies.size(); i = next++)
            {
                tallies[i] = hangAgainAndAgain(ways[i].name, times, kill, campaign);
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    SHonestReport witnesses;
    double slowest = 0;
    for (char const* figure : {"kills", "server deaths", "stuck"})
    {
        campaign.Set(figure, 0);
    }
    for (std::size_t i = 0; i < tallies.size(); ++i)
    {
        SHungWay const& way = ways[i];
        STally const& tally = tallies[i];
        campaign.Add("kills", tally.kills);
        campaign.Add("server deaths", tally.died);
        campaign.Add("stuck", tally.stuck);
        if (tally.died + tally.stuck > 0)
        {
            campaign.Set(std::string("of these by ") + way.name, tally.died + tally.stuck);
        }
        slowest = std::max(slowest, tally.slowest);
        EXPECT_EQ(times, tally.kills) << way.name;
        if (kill == nelo_rpc::EKill::AtCancellationPoint || way.isSafeAnywhere)
        {
            EXPECT_EQ(0, tally.died) << way.name;
            EXPECT_EQ(0, tally.stuck) << way.name;
            witnesses += tally.witness;
        }
    }
    campaign.Set("seconds of the slowest recovery", slowest);
    campaign.Set("lost", static_cast<double>(witnesses.lost));
    campaign.Set("wrong", static_cast<double>(witnesses.wrong));
    EXPECT_EQ(0, witnesses.lost);
    EXPECT_EQ(0, witnesses.wrong);
}

INSTANTIATE_TEST_SUITE_P(Kill, HungCode,
                         ::testing::Values(nelo_rpc::EKill::Anywhere, nelo_rpc::EKill::AtCancellationPoint), nameOf);
