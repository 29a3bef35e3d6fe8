#include "E2eTest.h"

namespace
{

/// Servers and clients that share one process.
class SharedProcess : public CE2eTest
{
};

class CCounter
{
public:
    explicit CCounter(int start) : m_sum(start) {}
    int Add(int n)
    {
        m_sum += n;
        OnSum.Send(m_sum);
        return m_sum;
    }

    nelo_rpc::CCallbackSender<int> OnSum;

private:
    int m_sum;
};

/// A server whose counters start at a number of its own.
class CCounterServer
{
public:
    CCounterServer(std::string const& name, int start)
        : m_port(name.c_str(), true, nelo_rpc::SPortOptions::Recommended()),
          m_host(m_port, nelo_rpc::SHostOptions::Recommended(), [start](nelo_rpc::CRpcHost& host) {
              host.RegisterActorType<CCounter>(
                  "Counter",
                  [](nelo_rpc::CActor& actor, CCounter& counter) {
                      actor.AddFunction("Add", counter, &CCounter::Add);
                      actor.AddCallback("OnSum", counter.OnSum);
                  },
                  [start] { return std::make_unique<CCounter>(start); });
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

} // namespace

TEST_F(SharedProcess, MayHoldTwoServersAndTheirClients)
{
    std::string const otherName = CPrivateBus::UniqueName();
    CCounterServer const server(m_name, 0);
    CCounterServer const otherServer(otherName, 1000);
    CTestClient client(m_name);
    CTestClient otherClient(otherName);
    CCounterProxy counter(client.Get());
    CCounterProxy otherCounter(otherClient.Get());
    CInbox<int> sums;
    CInbox<int> otherSums;
    counter.OnSum.Subscribe([&](int sum) { sums.Put(sum); });
    otherCounter.OnSum.Subscribe([&](int sum) { otherSums.Put(sum); });

    EXPECT_EQ(1, counter.Add(1));
    EXPECT_EQ(1002, otherCounter.Add(2));
    EXPECT_EQ(4, counter.Add(3));
    EXPECT_TRUE(sums.WaitForCount(2));
    EXPECT_TRUE(otherSums.WaitForCount(1));
    EXPECT_EQ((std::vector<int>{1, 4}), sums.All());
    EXPECT_EQ(std::vector<int>{1002}, otherSums.All());
    EXPECT_NE(counter.GetId(), otherCounter.GetId()) << "ids are the process's";
    counter.UnsetCallbacks();
    otherCounter.UnsetCallbacks();
}

TEST_F(SharedProcess, MayLoseOneServerAndKeepTheOther)
{
    std::string const otherName = CPrivateBus::UniqueName();
    auto server = std::make_unique<CCounterServer>(m_name, 0);
    CCounterServer const otherServer(otherName, 1000);
    CTestClient client(m_name);
    CTestClient otherClient(otherName);
    CCounterProxy counter(client.Get());
    CCounterProxy otherCounter(otherClient.Get());
    EXPECT_EQ(1, counter.Add(1));
    server.reset();

    EXPECT_EQ(std::nullopt, counter.Add.TryCall(1));
    EXPECT_EQ(1001, otherCounter.Add(1));
}

TEST_F(SharedProcess, MayHoldAServerThatIsTheClientOfAnother)
{
    std::string const frontName = CPrivateBus::UniqueName();
    CCounterServer const back(m_name, 500);
    CTestClient backClient(m_name);
    CCounterProxy backCounter(backClient.Get());

    nelo_rpc::CDbusPort frontPort(frontName.c_str(), true, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::CRpcHost const frontHost(frontPort, nelo_rpc::SHostOptions::Recommended(), [&](nelo_rpc::CRpcHost& host) {
        host.RegisterActorType<int>("Counter", [&](nelo_rpc::CActor& actor, int&) {
            actor.AddFunction("Add", [&](int n) { return backCounter.Add(n); });
        });
    });
    CTestClient client(frontName);
    CCounterProxy counter(client.Get());

    EXPECT_EQ(507, counter.Add(7));
    EXPECT_EQ(510, counter.Add(3));
}

TEST_F(SharedProcess, MayHoldTwoClientsOfOneServer)
{
    CServerProcess server(m_name);
    CTestClient first(m_name);
    CTestClient second(m_name);
    CProbeProxy probe(first.Get());
    CProbeProxy otherProbe(second.Get());
    CInbox<std::string> events;
    probe.OnEvent.Subscribe([&](std::string const& text) { events.Put("first " + text); });
    otherProbe.OnEvent.Subscribe([&](std::string const& text) { events.Put("second " + text); });
    server->WriteLine("fire x");

    ASSERT_TRUE(events.WaitForCount(2));
    auto all = events.All();
    std::sort(all.begin(), all.end());
    EXPECT_EQ((std::vector<std::string>{"first x", "second x"}), all);
    probe.UnsetCallbacks();
    otherProbe.UnsetCallbacks();
}
