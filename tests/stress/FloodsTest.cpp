#include "CHonestClient.h"
#include "CPrivateBus.h"
#include "CRawPeer.h"
#include "CStressServer.h"
#include "CTestClient.h"
#include "Campaign.h"
#include "Eventually.h"
#include "ProcessFigures.h"
#include "StressTypes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

using Octets = std::vector<std::uint8_t>;

constexpr int MIB = 1024 * 1024;

/// A server and an honest client, which works while others do too much of something.
class Floods : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_honest.WaitForCalls(5)); }

    void Begin(std::string const& what, seconds limit)
    {
        m_campaign = std::make_unique<CCampaign>("floods, " + what, limit);
    }

    void TearDown() override
    {
        EXPECT_TRUE(m_honest.WaitForCalls(5)) << "it is served to the end";
        SHonestReport const report = m_honest.Stop();
        bool const serverLives = m_server.IsRunning();
        m_campaign->Set("server deaths", serverLives ? 0 : 1);
        m_campaign->Set("lost", static_cast<double>(report.lost));
        m_campaign->Set("wrong", static_cast<double>(report.wrong + m_server.CountDisorder()));
        m_campaign->Set("honest calls", static_cast<double>(report.calls));
        m_campaign->Set("us median", report.medianUs);
        m_campaign->Set("us 99th percentile", report.p99Us);
        m_campaign->Set("us longest", report.maxUs);
        m_campaign->Set("KiB of the server", static_cast<double>(figuresOf(m_server.GetPid()).residentKb));
        m_campaign.reset();
        EXPECT_TRUE(serverLives);
        EXPECT_EQ(0, report.lost);
        EXPECT_EQ(0, report.wrong);
        EXPECT_EQ(1, ObjectsAfterTheOthers()) << "an object of those who are gone is left";
        EXPECT_TRUE(m_server.Stop());
    }

    /// The honest client has ended; what is left with the one that is made here belongs to those who are gone.
    int ObjectsAfterTheOthers()
    {
        CTestClient client(m_name);
        CStepperProxy stepper(client.Get());
        eventually([&] { return m_server.CountObjects() <= 1; }, seconds(30));
        return m_server.CountObjects();
    }

    std::string const m_name = CPrivateBus::UniqueName();
    CStressServer m_server{m_name, {"tick=50"}};
    CHonestClient m_honest{m_name, std::chrono::microseconds(500)};
    std::unique_ptr<CCampaign> m_campaign;
};

/// A call of a stepper, made by hand.
MessagePtr callOfStepper(std::string const& server, int actorId, std::string const& function)
{
    MessagePtr call = rawCall(server);
    putString(call.get(), -4, STEPPER);
    putInt(call.get(), -2, actorId);
    putString(call.get(), -1, function);
    return call;
}

/// An actor that nobody made is made by its first call, so a peer may choose the id.
constexpr int RAW_ID = 1000000000;

bool isAnswered(CRawPeer& peer, std::string const& server, seconds limit)
{
    MessagePtr const answer = peer.Call(callOfStepper(server, RAW_ID, "Steps").get(), limit);
    return answer != nullptr && dbus_message_get_type(answer.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
}

} // namespace

TEST_F(Floods, OfCallsThatNobodyWaitsFor)
{
    int const calls = pick(1000, 100000);
    Begin("calls without waiting", seconds(pick(100, 600)));
    {
        CRawPeer peer;
        for (int i = 0; i < calls; ++i)
        {
            MessagePtr const call = callOfStepper(m_name, RAW_ID, "Steps");
            dbus_message_set_no_reply(call.get(), TRUE);
            dbus_connection_send(peer.GetConnection(), call.get(), nullptr);
            if (i % 100 == 0)
            {
                dbus_connection_flush(peer.GetConnection());
            }
        }
        EXPECT_TRUE(isAnswered(peer, m_name, seconds(pick(30, 600)))) << "the last one, behind all the others";
    }
    m_campaign->Set("calls", calls);
}

TEST_F(Floods, OfOpenCallsUpToTheLimitOfTheBus)
{
    Begin("open calls", seconds(100));
    int answered = 0;
    int refused = 0;
    {
        constexpr int CALLS = 1000; // more than may be open; the bus answers for the rest
        CRawPeer peer;
        for (int i = 0; i < CALLS; ++i)
        {
            dbus_connection_send(peer.GetConnection(), callOfStepper(m_name, RAW_ID, "Steps").get(), nullptr);
        }
        dbus_connection_flush(peer.GetConnection());
        auto const end = std::chrono::steady_clock::now() + seconds(20);
        while (answered + refused < CALLS && std::chrono::steady_clock::now() < end)
        {
            dbus_connection_read_write(peer.GetConnection(), 100);
            while (MessagePtr const message{dbus_connection_pop_message(peer.GetConnection())})
            {
                answered += dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN ? 1 : 0;
                refused += dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_ERROR ? 1 : 0;
            }
        }
        EXPECT_EQ(CALLS, answered + refused);
        EXPECT_GE(answered, 100);
    }
    m_campaign->Set("answered", answered);
    m_campaign->Set("refused by the bus", refused);
}

TEST_F(Floods, OfCallbacksToAClientThatNeverReads)
{
    int const mebibytes = pick(20, 300); // a system bus keeps 127 for one connection
    Begin("callbacks that are not read", seconds(pick(100, 600)));
    {
        CRawPeer peer;
        EXPECT_TRUE(isAnswered(peer, m_name, seconds(20)));
        MessagePtr const call = callOfStepper(m_name, RAW_ID, "Flood");
        putInt(call.get(), 0, mebibytes * 16);
        putInt(call.get(), 1, MIB / 16);
        dbus_message_set_no_reply(call.get(), TRUE);
        peer.Send(call.get());
        EXPECT_TRUE(eventually([&] { return m_server.CountFloods() == 1; }, seconds(pick(20, 60))));
        EXPECT_TRUE(m_honest.WaitForCalls(5));
    }
    m_campaign->Set("MiB", mebibytes);
}

TEST_F(Floods, OfBytesUpToTheLimitAndBeyond)
{
    int const times = pick(1, 20);
    Begin("31 and 33 MiB", seconds(pick(100, 600)));
    CTestClient client(m_name, nelo_rpc::SPortOptions::Recommended());
    CStepperProxy stepper(client.Get());
    for (int i = 0; i < times; ++i)
    {
        Octets sent(31 * MIB, static_cast<std::uint8_t>(i));
        sent[12345] = 7;
        EXPECT_TRUE(stepper.Echo.TryCall(sent) == sent);
        EXPECT_EQ(std::nullopt, stepper.Echo.TryCall(Octets(33 * MIB))) << "the client does not send it";
        EXPECT_EQ(std::nullopt, stepper.Bytes.TryCall(33 * MIB)) << "the server does not answer it";
        EXPECT_TRUE(stepper.Flood.TryCall(1, 33 * MIB)) << "the callback is lost";
        EXPECT_EQ(0, stepper.Steps.TryCall()) << "and with it the actor, which is made anew";
    }
    m_campaign->Set("times", times);
}

TEST_F(Floods, OfClients)
{
    int const count = pick(20, 240); // a system bus lets a user have 256 connections
    Begin("clients", seconds(pick(100, 600)));
    std::vector<std::future<bool>> clients;
    for (int c = 0; c < count; ++c)
    {
        clients.push_back(std::async(std::launch::async, [this] {
            nelo_rpc::CDbusPort port("org.trelin.nelo_rpc.test.One", m_name.c_str(), false,
                                     nelo_rpc::SPortOptions::Recommended());
            nelo_rpc::CRpcClient client(port);
            client.SetTimeoutMs(120000);
            CStepperProxy stepper(client);
            bool isRight = true;
            for (int i = 1; i <= 20; ++i)
            {
                isRight = isRight && stepper.Step.TryCall(i, "many") == answerToStep(i, "many");
            }
            return isRight;
        }));
    }
    int wrong = 0;
    for (auto& client : clients)
    {
        wrong += client.get() ? 0 : 1;
    }
    m_campaign->Set("clients", count);
    EXPECT_EQ(0, wrong);
}

TEST_F(Floods, OfActors)
{
    int const count = pick(200, 100000);
    Begin("actors of one client", seconds(pick(100, 1800)));
    {
        CTestClient client(m_name, nelo_rpc::SPortOptions::Recommended());
        std::list<CStepperProxy> steppers;
        for (int i = 0; i < count && !m_campaign->IsOver(); ++i)
        {
            CStepperProxy& stepper = steppers.emplace_back(client.Get());
            EXPECT_NE(0, stepper.GetId());
            m_campaign->Progress(i, count);
        }
        EXPECT_EQ(count, static_cast<int>(steppers.size()));
        int wrong = 0;
        for (CStepperProxy& stepper : steppers)
        {
            wrong += stepper.Step.TryCall(1, "one") == answerToStep(1, "one") ? 0 : 1;
        }
        EXPECT_EQ(0, wrong);
        m_campaign->Set("KiB with all", static_cast<double>(figuresOf(m_server.GetPid()).residentKb));
    }
    m_campaign->Set("actors", count);
}

TEST_F(Floods, OfNamesAndEntriesAtTheirLimits)
{
    Begin("names and entries at their limits", seconds(100));
    CTestClient client(m_name, nelo_rpc::SPortOptions::Recommended());
    CStepperProxy stepper(client.Get());
    EXPECT_TRUE(stepper.RemoteCall(std::string(MIB, 'f'), {}).empty()) << "no such function";
    std::string const text(8 * MIB, 't');
    EXPECT_EQ(answerToStep(1, text), stepper.Step.TryCall(1, text));
    EXPECT_EQ(std::nullopt, stepper.Step.TryCall(2, std::string("a\0b", 3)));
    EXPECT_EQ(std::nullopt, stepper.Step.TryCall(2, std::string("\xff")));

    nelo_rpc::types::CValueList arguments;
    for (int i = 0; i < 82; ++i) // and three reserved entries
    {
        arguments[i] = nelo_rpc::types::packValue(i);
    }
    EXPECT_EQ(1u, stepper.RemoteCall("Steps", arguments).count(0));
    arguments[82] = nelo_rpc::types::packValue(82);
    EXPECT_EQ(0u, stepper.RemoteCall("Steps", arguments).count(0)) << "more than a signature can name";

    std::string const longest = "org." + std::string(251, 'n');
    CStressServer other(longest, {});
    CTestClient otherClient(longest, nelo_rpc::SPortOptions::Recommended());
    CStepperProxy otherStepper(otherClient.Get());
    EXPECT_EQ(answerToStep(1, "x"), otherStepper.Step.TryCall(1, "x"));
    CTestClient lostClient(longest + "n", nelo_rpc::SPortOptions::Recommended());
    EXPECT_EQ(0, CStepperProxy(lostClient.Get()).GetId()) << "there is no such name";
}
