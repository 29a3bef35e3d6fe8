#include "CInbox.h"
#include "CPrivateBus.h"
#include "CRunningCalls.h"
#include "CStressServer.h"
#include "CTestClient.h"
#include "Campaign.h"
#include "Eventually.h"
#include "ProcessFigures.h"
#include "StressTypes.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

/// A client that outlives servers. While one is up it calls; what it calls then must be answered.
class CPatientClient
{
public:
    /// @param keepsItsProxy  whether one proxy goes on from server to server, or each server gets one of its own.
    CPatientClient(std::string const& server, bool keepsItsProxy)
        : m_client(server, nelo_rpc::SPortOptions::Recommended()),
          m_keepsItsProxy(keepsItsProxy),
          m_thread([this] { Run(); })
    {
        m_client.Get().SetTimeoutMs(20000);
    }

    ~CPatientClient()
    {
        m_stop = true;
        m_thread.join();
    }

    /// From now on answers may be missing, until the name has gone and come again.
    void ExpectTheEnd() { m_isEndExpected = true; }

    /// Whether it has seen that the server is gone, and does not call any more.
    bool WaitUntilAway() const
    {
        return eventually([&] { return m_isAway.load(); }, seconds(60));
    }

    /// From the next appearance of the name on, every call must be answered.
    void ExpectTheReturn()
    {
        m_isEndExpected = false;
        m_isAway = false;
    }

    bool WaitForCalls(long count) const
    {
        long const wanted = m_calls + count;
        return eventually([&] { return m_calls >= wanted; }, seconds(60));
    }

    long CountCalls() const { return m_calls; }
    long CountLost() const { return m_lost; }
    long CountWrong() const { return m_wrong; }

private:
    void Run()
    {
        while (!m_stop)
        {
            if (m_isAway || !m_client.Get().IsConnected())
            {
                std::this_thread::sleep_for(milliseconds(1));
                continue;
            }
            Serve();
        }
        m_proxy.reset(); // after its last call, so that the server knows the actor
    }

    /// Calls from the appearance of the name until the server is gone.
    void Serve()
    {
        if (m_proxy == nullptr)
        {
            m_proxy = std::make_unique<CStepperProxy>(m_client.Get());
            Count(m_proxy->GetId() != 0, true);
        }
        while (!m_stop)
        {
            auto const answer = m_proxy->Echo.TryCall({1, 2, 3});
            Count(answer.has_value(), !answer || *answer == std::vector<std::uint8_t>{1, 2, 3});
            if (!answer && m_isEndExpected)
            {
                break;
            }
        }
        eventually([&] { return m_stop || !m_client.Get().IsConnected(); }, seconds(60));
        if (!m_keepsItsProxy && !m_stop)
        {
            m_proxy.reset(); // reaches nobody
        }
        m_isAway = true;
    }

    void Count(bool isAnswered, bool isRight)
    {
        m_calls += isAnswered ? 1 : 0;
        m_lost += isAnswered || m_isEndExpected ? 0 : 1;
        m_wrong += isRight ? 0 : 1;
    }

    CTestClient m_client;
    bool const m_keepsItsProxy;
    std::unique_ptr<CStepperProxy> m_proxy;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_isEndExpected{false};
    std::atomic<bool> m_isAway{false};
    std::atomic<long> m_calls{0};
    std::atomic<long> m_lost{0};
    std::atomic<long> m_wrong{0};
    std::thread m_thread;
};

/// Killed, asked to stop, or left without cleaning up. @return whether it ended as it should.
bool end(CStressServer& server, int how)
{
    switch (how % 3)
    {
    case 0:
        server.Kill();
        return true;
    case 1:
        return server.Stop();
    default:
        server.Tell("exit");
        auto const status = server.WaitForEnd();
        return status && WIFEXITED(*status) && WEXITSTATUS(*status) == 0;
    }
}

} // namespace

TEST(Restarts, OfAServerLoseNoCallThatWasSentAfterItsNameAppeared)
{
    int const restarts = pick(6, 200);
    CCampaign campaign("restarts", seconds(pick(100, 1800)));
    std::string const name = CPrivateBus::UniqueName();
    std::list<CPatientClient> clients;
    for (int i = 0; i < 4; ++i)
    {
        clients.emplace_back(name, i % 2 == 0);
    }
    int badEnds = 0;
    int done = 0;
    for (; done <= restarts && !campaign.IsOver(); ++done)
    {
        CStressServer server(name, {});
        for (CPatientClient const& client : clients)
        {
            ASSERT_TRUE(client.WaitForCalls(10));
        }
        for (CPatientClient& client : clients)
        {
            client.ExpectTheEnd();
        }
        badEnds += end(server, done) ? 0 : 1;
        for (CPatientClient& client : clients)
        {
            ASSERT_TRUE(client.WaitUntilAway());
            client.ExpectTheReturn();
        }
        campaign.Progress(done, restarts);
    }

    long lost = 0;
    long wrong = 0;
    for (CPatientClient const& client : clients)
    {
        campaign.Add("calls", static_cast<double>(client.CountCalls()));
        lost += client.CountLost();
        wrong += client.CountWrong();
    }
    campaign.Set("restarts", done - 1);
    campaign.Set("server deaths", badEnds); // those that were not asked for
    campaign.Set("lost", static_cast<double>(lost));
    campaign.Set("wrong", static_cast<double>(wrong));
    EXPECT_EQ(restarts, done - 1);
    EXPECT_EQ(0, badEnds);
    EXPECT_EQ(0, lost);
    EXPECT_EQ(0, wrong);
}

TEST(Restarts, OfAHostAnswerEveryCallThatItHas)
{
    constexpr int CALLERS = 3;
    int const rounds = pick(3, 60);
    CCampaign campaign("restarts of a host", seconds(pick(100, 1800)));
    std::string const name = CPrivateBus::UniqueName();
    CStressServer server(name, {"hang=400", "check=100"});
    int lost = 0;
    for (int round = 0; round < rounds && !campaign.IsOver(); ++round)
    {
        // Each client has a call that hangs, and one more calls all the time.
        std::list<CTestClient> clients;
        std::list<CStepperProxy> steppers;
        std::vector<std::future<void>> calls;
        std::atomic<int> ended{0};
        CRunningCalls const running(name);
        ASSERT_TRUE(running.WaitForOne());
        for (int i = 0; i < CALLERS; ++i)
        {
            CTestClient& client = clients.emplace_back(name, nelo_rpc::SPortOptions::Recommended());
            client.Get().SetTimeoutMs(15000);
            CStepperProxy& stepper = steppers.emplace_back(client.Get());
            calls.push_back(std::async(std::launch::async, [&, i] {
                stepper.Hang.TryCall(i % 2 == 0 ? "sleep" : "busy loop");
                ++ended;
            }));
        }
        std::this_thread::sleep_for(milliseconds(50 * (round % 4))); // before, while and after they are killed
        ASSERT_TRUE(server.TellAndWait("drop", "dropped"));
        lost += eventually([&] { return ended == CALLERS; }, seconds(30)) ? 0 : 1;
        ASSERT_TRUE(server.TellAndWait("host", "ready"));
        for (CStepperProxy& stepper : steppers)
        {
            EXPECT_TRUE(stepper.Steps.TryCall()) << "its actor is made anew";
        }
        campaign.Add("host restarts", 1);
        campaign.Progress(round, rounds);
    }
    bool const serverLives = server.IsRunning();
    campaign.Set("server deaths", serverLives ? 0 : 1);
    campaign.Set("lost", lost);
    EXPECT_EQ(0, lost);
    EXPECT_TRUE(serverLives);
    EXPECT_EQ(rounds, static_cast<int>(campaign.Get("host restarts")));
    EXPECT_TRUE(server.Stop());
}

namespace
{

class CCounter
{
public:
    int Add(int n)
    {
        m_sum += n;
        OnSum.Send(m_sum);
        return m_sum;
    }

    nelo_rpc::CCallbackSender<int> OnSum;

private:
    int m_sum = 0;
};

class CCounterServer
{
public:
    explicit CCounterServer(std::string const& name)
        : m_port(name.c_str(), true, nelo_rpc::SPortOptions::Recommended()),
          m_host(m_port, nelo_rpc::SHostOptions::Recommended(), [](nelo_rpc::CRpcHost& host) {
              host.RegisterActorType<CCounter>("Counter", [](nelo_rpc::CActor& actor, CCounter& counter) {
                  actor.AddFunction("Add", counter, &CCounter::Add);
                  actor.AddCallback("OnSum", counter.OnSum);
              });
          })
    {
    }

private:
    nelo_rpc::CDbusPort m_port;
    nelo_rpc::CRpcHost m_host;
};

class CCounterProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CCounterProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Counter") {}
    ~CCounterProxy() override { UnsetCallbacks(); }

    nelo_rpc::CProxyFunction<int(int)> Add{*this, "Add"};
    nelo_rpc::CProxyCallback<int> OnSum{*this, "OnSum"};
};

/// Counts to ten on a server of this process. @return whether every answer and every callback was right.
bool countToTen(std::string const& server)
{
    CTestClient client(server, nelo_rpc::SPortOptions::Recommended());
    CCounterProxy counter(client.Get());
    CInbox<int> sums;
    counter.OnSum.Subscribe([&](int sum) { sums.Put(sum); });
    std::vector<int> expected;
    for (int i = 1; i <= 10; ++i)
    {
        expected.push_back(i);
        if (counter.Add.TryCall(1) != i)
        {
            return false;
        }
    }
    bool const isRight = sums.WaitForCount(10) && sums.All() == expected;
    counter.UnsetCallbacks();
    return isRight;
}

} // namespace

TEST(Restarts, OfTwoServersAndTheirClientsInOneProcessLeaveNothingBehind)
{
    int const rounds = pick(4, 100);
    CCampaign campaign("restarts in one process", seconds(pick(100, 1800)));
    std::string const names[] = {CPrivateBus::UniqueName(), CPrivateBus::UniqueName()};
    SProcessFigures before;
    CTrend trend;
    int done = 0;
    int wrong = 0;
    for (; done < rounds && !campaign.IsOver(); ++done)
    {
        CCounterServer const first(names[0]);
        CCounterServer const second(names[1]);
        std::vector<std::future<bool>> clients;
        for (int c = 0; c < 6; ++c)
        {
            clients.push_back(std::async(std::launch::async, &countToTen, names[c % 2]));
        }
        for (auto& client : clients)
        {
            wrong += client.get() ? 0 : 1;
        }
        if (done == 0)
        {
            before = figuresOf(::getpid());
        }
        trend.Take(done, figuresOf(::getpid()));
        campaign.Progress(done, rounds);
    }
    campaign.Set("rounds", done);
    campaign.Set("wrong", wrong);
    campaign.Set("KiB per round", trend.SlopeOfResidentKb());
    campaign.Set("descriptors more", static_cast<double>(trend.Last().descriptors - before.descriptors));
    EXPECT_EQ(rounds, done);
    EXPECT_EQ(0, wrong);
    EXPECT_LE(trend.Last().descriptors, before.descriptors);
    EXPECT_LE(trend.Last().threads, before.threads + 2) << "a worker's end is not waited for";
}
