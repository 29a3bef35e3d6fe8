/// Testing an actor without a bus: host and client in one process, joined by two local ports.
///
/// The types, the host, the client and the proxy are the ones that a real program uses. Only the ports
/// differ, so what is tested here is what runs later.

#include <nelo_rpc/nelo_rpc.h>

#include <chrono>
#include <future>
#include <iostream>
#include <string>

namespace
{

/// The class under test: counts, and says when the limit is reached.
class CCounter
{
public:
    int Add(int n)
    {
        m_count += n;
        if (m_count >= LIMIT)
        {
            OnLimit.Send(m_count);
        }
        return m_count;
    }

    static constexpr int LIMIT = 10;
    nelo_rpc::CCallbackSender<int> OnLimit;

private:
    int m_count = 0;
};

class CCounterProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CCounterProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Counter") {}

    nelo_rpc::CProxyFunction<int(int)> Add{*this, "Add"};
    nelo_rpc::CProxyCallback<int> OnLimit{*this, "OnLimit"};
};

bool g_passed = true;

template <class T>
void expectEqual(char const* what, T const& expected, T const& seen)
{
    bool const same = expected == seen;
    std::cout << (same ? "ok:     " : "FAILED: ") << what << ": expected " << expected << ", saw " << seen << std::endl;
    g_passed = g_passed && same;
}

} // namespace

int main()
{
    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Fatal); // a test run is not news for the system log
    std::promise<int> limit;
    std::future<int> limitReached = limit.get_future();

    nelo_rpc::CLocalBus bus;
    nelo_rpc::CLocalPort serverPort(bus, "org.example.counters", true);
    nelo_rpc::CRpcHost host(serverPort, nelo_rpc::SHostOptions::Recommended(), [](nelo_rpc::CRpcHost& self) {
        self.RegisterActorType<CCounter>("Counter", [](nelo_rpc::CActor& actor, CCounter& counter) {
            actor.AddFunction("Add", counter, &CCounter::Add);
            actor.AddCallback("OnLimit", counter.OnLimit);
        });
    });

    nelo_rpc::CLocalPort clientPort(bus, "client", "org.example.counters", false);
    nelo_rpc::CRpcClient client(clientPort);
    expectEqual("the server is there", true, client.IsConnected());

    {
        CCounterProxy first(client);
        CCounterProxy second(client);
        first.OnLimit.Subscribe([&limit](int count) { limit.set_value(count); });

        expectEqual("a new counter starts at 0", 3, first.Add(3));
        expectEqual("every proxy has a counter of its own", 4, second.Add(4));
        expectEqual("a counter keeps its count", 12, first.Add(9));

        bool const arrived = limitReached.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
        expectEqual("the callback arrives", true, arrived);
        expectEqual("the callback carries the count", 12, arrived ? limitReached.get() : 0);
    }

    clientPort.SetCallbackListener({}); // before the client goes: the port goes on delivering
    return g_passed ? 0 : 1;
}
