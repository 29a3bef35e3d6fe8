#include "E2eTest.h"

namespace
{

class Start : public CE2eTest
{
};

} // namespace

TEST_F(Start, AnswersAClientThatWaitedForTheNameAndCallsTheMomentItAppears)
{
    for (int round = 0; round < 5; ++round)
    {
        std::string const name = CPrivateBus::UniqueName();
        auto waiting = std::async(std::launch::async, [&name] {
            CTestClient client(name);
            if (!eventually([&] { return client.Get().IsConnected(); }, seconds(20)))
            {
                return -2;
            }
            CProbeProxy probe(client.Get());
            return probe.Add.TryCall(6).value_or(-1);
        });
        CServerProcess server(name);

        ASSERT_TRUE(isReady(waiting, seconds(60)));
        EXPECT_EQ(6, waiting.get());
    }
}

TEST_F(Start, AnswersSuchAClientHoweverLongTheServerTakesToMakeItsHost)
{
    auto waiting = std::async(std::launch::async, [this] {
        CTestClient client(m_name);
        if (!eventually([&] { return client.Get().IsConnected(); }, seconds(20)))
        {
            return -2;
        }
        CProbeProxy probe(client.Get());
        return probe.Add.TryCall(6).value_or(-1);
    });
    CServerProcess server(m_name, {"20000", "5000", "1500"});

    ASSERT_TRUE(isReady(waiting, seconds(60)));
    EXPECT_EQ(6, waiting.get());
}

TEST_F(Start, AnswersManySuchClients)
{
    constexpr int CLIENTS = 5;
    std::vector<std::future<int>> waiting;
    for (int c = 0; c < CLIENTS; ++c)
    {
        waiting.push_back(std::async(std::launch::async, [this, c] {
            CTestClient client(m_name);
            if (!eventually([&] { return client.Get().IsConnected(); }, seconds(20)))
            {
                return -2;
            }
            CProbeProxy probe(client.Get());
            return probe.Add.TryCall(c).value_or(-1);
        }));
    }
    CServerProcess server(m_name);
    for (int c = 0; c < CLIENTS; ++c)
    {
        ASSERT_TRUE(isReady(waiting[static_cast<std::size_t>(c)], seconds(60)));
        EXPECT_EQ(c, waiting[static_cast<std::size_t>(c)].get());
    }
    EXPECT_EQ(0, server.CountObjects());
}
