#include "CInbox.h"
#include "CLogCapture.h"

#include <nelo_rpc/nelo_rpc.h>
#include <nelo_rpc/testing/CScriptedServer.h>

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

using namespace nelo_rpc;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test::CScriptedServer;

namespace
{

class CLampProxy : public CActorProxy
{
public:
    explicit CLampProxy(CRpcClient& client) : CActorProxy(&client, "Lamp") {}

    CProxyFunction<bool(int)> Dim{*this, "Dim"};
    CProxyFunction<std::string()> Describe{*this, "Describe"};
    CProxyCallback<int, std::string> OnDimmed{*this, "OnDimmed"};
};

class CScriptedServerTest : public ::testing::Test
{
protected:
    ~CScriptedServerTest() override { m_clientPort.SetCallbackListener({}); }

    CLogCapture m_log;
    CLocalBus m_bus;
    CLocalPort m_serverPort{m_bus, "org.example.light", true};
    CScriptedServer m_server{m_serverPort};
    CLocalPort m_clientPort{m_bus, "client", "org.example.light", false};
    CRpcClient m_client{m_clientPort};
};

TEST_F(CScriptedServerTest, MakesAndDestroysActorsOfEveryType)
{
    {
        CLampProxy first(m_client);
        CLampProxy second(m_client);
        EXPECT_EQ(1, first.GetId());
        EXPECT_EQ(2, second.GetId());
        EXPECT_EQ((std::vector<int>{1, 2}), m_server.GetActorIds());
    }
    EXPECT_TRUE(m_server.GetActorIds().empty());
    EXPECT_EQ(2U, m_server.GetCalls("ctor").size());
    EXPECT_EQ(2U, m_server.GetCalls("dtor").size());
}

TEST_F(CScriptedServerTest, AnswersAsTheTestSays)
{
    CLampProxy lamp(m_client);
    m_server.Answer("Dim", [](int percent) { return percent <= 100; });
    m_server.Answer("Describe", [] { return std::string("bright"); });

    EXPECT_EQ(std::optional<bool>(true), lamp.Dim.TryCall(40));
    EXPECT_EQ(std::optional<bool>(false), lamp.Dim.TryCall(140));
    EXPECT_EQ(std::optional<std::string>("bright"), lamp.Describe.TryCall());

    m_server.Answer("Describe", [] { return std::string("dim"); });
    EXPECT_EQ(std::optional<std::string>("dim"), lamp.Describe.TryCall());
}

TEST_F(CScriptedServerTest, KeepsWhatItWasCalledWith)
{
    CLampProxy lamp(m_client);
    m_server.Answer("Dim", [](int) { return true; });
    lamp.Dim(40);
    lamp.Dim(60);

    EXPECT_TRUE(m_server.WaitForCalls("Dim", 2));
    EXPECT_FALSE(m_server.WaitForCalls("Dim", 3, milliseconds(1)));
    auto const calls = m_server.GetCalls("Dim");
    ASSERT_EQ(2U, calls.size());
    EXPECT_EQ("Lamp", calls[1].typeName);
    EXPECT_EQ(lamp.GetId(), calls[1].actorId);
    EXPECT_EQ("Dim", calls[1].function);
    EXPECT_EQ(0, calls[1].connectionId);
    EXPECT_EQ(1U, calls[1].args.size());
    EXPECT_EQ(60, types::unpackAt<int>(calls[1].args, 0));
}

TEST_F(CScriptedServerTest, AnswersNothingToWhatTheTestHasSaidNothingAbout)
{
    CLampProxy lamp(m_client);
    EXPECT_EQ(std::nullopt, lamp.Dim.TryCall(40));
    EXPECT_EQ(1U, m_server.GetCalls("Dim").size());
    EXPECT_FALSE(m_log.Contains("Dbus error")) << "it was answered";
}

TEST_F(CScriptedServerTest, GivesAListAsItIs)
{
    CLampProxy lamp(m_client);
    types::CValueList list;
    list[3] = types::packValue(7);
    m_server.AnswerWithList("Snapshot", list);
    EXPECT_EQ(types::toString(list), types::toString(lamp.RemoteCall("Snapshot", {})));
}

TEST_F(CScriptedServerTest, ASilentFunctionEndsInATimeOut)
{
    CLampProxy lamp(m_client);
    m_server.StaySilent("Dim");
    m_client.SetTimeoutMs(50);
    auto const start = steady_clock::now();

    EXPECT_EQ(std::nullopt, lamp.Dim.TryCall(40));

    EXPECT_GE(steady_clock::now() - start, milliseconds(50));
    EXPECT_TRUE(m_log.Contains("Dbus error"));
    EXPECT_TRUE(m_server.WaitForCalls("Dim", 1));
    m_client.SetTimeoutMs(-1);
    m_server.Answer("Dim", [](int) { return true; });
    EXPECT_EQ(std::optional<bool>(true), lamp.Dim.TryCall(40)) << "the server goes on";
}

TEST_F(CScriptedServerTest, ARefusedCallGivesNoResultAtOnce)
{
    CLampProxy lamp(m_client);
    m_server.Refuse("Dim", refusal::ACCESS_DENIED, "not at night");

    EXPECT_EQ(std::nullopt, lamp.Dim.TryCall(40));
    EXPECT_TRUE(m_log.Contains("not at night"));
}

TEST_F(CScriptedServerTest, EvenTheMakingOfAnActorCanFail)
{
    m_server.Refuse("ctor", refusal::LIMITS_EXCEEDED, "no more lamps");
    CLampProxy const lamp(m_client);
    EXPECT_TRUE(m_server.GetActorIds().empty());
}

TEST_F(CScriptedServerTest, SendsCallbacksToTheClientOfAnActor)
{
    CInbox<std::string> dimmed;
    CLampProxy lamp(m_client);
    lamp.OnDimmed.Subscribe(
        [&](int percent, std::string const& why) { dimmed.Put(std::to_string(percent) + " " + why); });

    EXPECT_TRUE(m_server.Send(lamp.GetId(), "OnDimmed", 40, std::string("night")));
    EXPECT_FALSE(m_server.Send(99, "OnDimmed", 40, std::string("night")));

    EXPECT_TRUE(dimmed.WaitForCount(1));
    EXPECT_EQ(std::vector<std::string>{"40 night"}, dimmed.All());
}

TEST_F(CScriptedServerTest, AnAnswerMaySendCallbacksAndChangeTheScript)
{
    CInbox<int> dimmed;
    CLampProxy lamp(m_client);
    lamp.OnDimmed.Subscribe([&](int percent, std::string const&) { dimmed.Put(percent); });
    m_server.Answer("Dim", [&](int percent) {
        m_server.Refuse("Dim", refusal::ACCESS_DENIED, "once is enough");
        return m_server.Send(lamp.GetId(), "OnDimmed", percent, std::string());
    });

    EXPECT_EQ(std::optional<bool>(true), lamp.Dim.TryCall(40));
    EXPECT_EQ(std::nullopt, lamp.Dim.TryCall(50));
    EXPECT_TRUE(dimmed.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{40}, dimmed.All());
}

TEST_F(CScriptedServerTest, LosesItsActorsAsAKillDoes)
{
    CInbox<std::string> events;
    CLampProxy lamp(m_client);
    CProxyCallback<> const onKill(*m_client.GetConnectionProxy(), "OnKill");
    onKill.Subscribe([&] { events.Put("killed"); });
    lamp.OnRecreate.Subscribe([&] { events.Put("made anew"); });
    m_server.Answer("Dim", [](int) { return true; });

    m_server.LoseActors();
    EXPECT_TRUE(events.WaitForCount(1));
    EXPECT_TRUE(m_server.GetActorIds().empty());

    EXPECT_EQ(std::optional<bool>(true), lamp.Dim.TryCall(40));
    EXPECT_TRUE(events.WaitForCount(2));
    EXPECT_EQ((std::vector<std::string>{"killed", "made anew"}), events.All());
    EXPECT_EQ(std::vector<int>{lamp.GetId()}, m_server.GetActorIds());
}

} // namespace
