#include "CHonestClient.h"
#include "CPrivateBus.h"
#include "CRawPeer.h"
#include "CStressServer.h"
#include "Campaign.h"
#include "HostileMessages.h"
#include "ProcessFigures.h"
#include "StressOptions.h"
#include "StressTypes.h"

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <list>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace
{

/// Below the number of open calls that the bus allows a connection.
constexpr int BATCH = 50;

/// Makes a stepper as a client does. @return its id, or 0.
int makeStepper(CRawPeer& peer, std::string const& server)
{
    MessagePtr const call = rawCall(server);
    putString(call.get(), -4, "CClientConnection");
    putInt(call.get(), -2, 0);
    putString(call.get(), -1, "ctor");
    putString(call.get(), 0, STEPPER);
    MessagePtr const answer = peer.Call(call.get(), seconds(30));
    int index = 0;
    int tag = 0;
    int id = 0;
    bool const isRead =
        answer != nullptr && dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32,
                                                   &tag, DBUS_TYPE_INT32, &id, DBUS_TYPE_INVALID);
    return isRead ? id : 0;
}

bool isAsExpected(EFate fate, int answerType)
{
    switch (fate)
    {
    case EFate::Refused:
        return answerType == DBUS_MESSAGE_TYPE_ERROR;
    case EFate::Answered:
        return answerType == DBUS_MESSAGE_TYPE_METHOD_RETURN;
    case EFate::Either:
        return true;
    default:
        return answerType == DBUS_MESSAGE_TYPE_ERROR; // of the bus's own, which refuses what nobody asked for
    }
}

/// Sends hostile messages, all classes in turn, and looks at what is answered.
class CHostilePeer
{
public:
    CHostilePeer(std::string const& server, unsigned int seed)
        : m_random(seed), m_target{server, makeStepper(m_peer, server), m_random}, m_next(seed)
    {
        EXPECT_NE(0, m_target.actorId);
        for (SHostileClass const& oneClass : hostileClasses())
        {
            m_classes.push_back(&oneClass);
        }
    }

    void SendBatch()
    {
        for (int i = 0; i < BATCH; ++i)
        {
            SHostileClass const& oneClass = *m_classes[m_next++ % m_classes.size()];
            MessagePtr const message = oneClass.make(m_target);
            dbus_uint32_t serial = 0;
            dbus_connection_send(m_peer.GetConnection(), message.get(), &serial);
            m_open[serial] = &oneClass;
        }
        dbus_connection_flush(m_peer.GetConnection());
        Collect();
    }

    long CountUnanswered() const { return m_unanswered; }
    std::map<std::string, long> const& Wrong() const { return m_wrong; }

private:
    bool IsAnswerMissing() const
    {
        for (auto const& [serial, oneClass] : m_open)
        {
            if (oneClass->fate != EFate::Ignored)
            {
                return true;
            }
        }
        return false;
    }

    void Collect()
    {
        auto const end = steady_clock::now() + seconds(20);
        while (IsAnswerMissing() && steady_clock::now() < end)
        {
            dbus_connection_read_write(m_peer.GetConnection(), 100);
            while (MessagePtr const message{dbus_connection_pop_message(m_peer.GetConnection())})
            {
                Look(message.get());
            }
        }
        for (auto const& [serial, oneClass] : m_open)
        {
            m_unanswered += oneClass->fate != EFate::Ignored ? 1 : 0;
        }
        m_open.clear();
    }

    void Look(DBusMessage* message)
    {
        auto const open = m_open.find(dbus_message_get_reply_serial(message));
        if (open == m_open.end())
        {
            return; // a callback, or what became of a message that asked for nothing
        }
        if (!isAsExpected(open->second->fate, dbus_message_get_type(message)))
        {
            ++m_wrong[open->second->name];
        }
        m_open.erase(open);
    }

    CRawPeer m_peer;
    std::mt19937 m_random;
    SHostileTarget m_target;
    std::vector<SHostileClass const*> m_classes;
    std::size_t m_next;
    std::map<dbus_uint32_t, SHostileClass const*> m_open;
    std::map<std::string, long> m_wrong;
    long m_unanswered = 0;
};

/// How a server that trusts its peers ends, or does not, by one message.
enum class EEnd
{
    Lives,
    FatalLine,
    Otherwise
};

EEnd sendToTrustingServer(SHostileClass const& oneClass)
{
    std::string const name = CPrivateBus::UniqueName();
    CStressServer server(name, {"trusted=1"});
    CRawPeer peer;
    std::mt19937 random(1);
    SHostileTarget const target{name, makeStepper(peer, name), random};

    MessagePtr const message = oneClass.make(target);
    dbus_message_set_destination(message.get(), name.c_str()); // those to everybody as well
    if (oneClass.fate == EFate::Ignored)
    {
        peer.Send(message.get());
    }
    else
    {
        peer.Call(message.get(), seconds(20)); // if the server ends, the bus answers for it
    }

    // Receiver and worker take things in their order, so this one's answer comes after all that the first did.
    bool const isServed = makeStepper(peer, name) != 0;
    if (isServed && server.IsRunning())
    {
        return server.Stop() ? EEnd::Lives : EEnd::Otherwise;
    }
    auto const status = server.WaitForEnd();
    bool const isAbort = status && WIFSIGNALED(*status) && WTERMSIG(*status) == SIGABRT;
    return isAbort && !server.FatalLines().empty() ? EEnd::FatalLine : EEnd::Otherwise;
}

} // namespace

TEST(Hostile, MessagesHarmNeitherAnUntrustingServerNorItsClients)
{
    constexpr int PEERS = 4;
    int const messages = pick(2000, 200000);
    CCampaign campaign("hostile", seconds(pick(100, 1800)));
    std::string const name = CPrivateBus::UniqueName();
    CStressServer server(name, {});
    std::list<CHonestClient> honest;
    for (int i = 0; i < 2; ++i)
    {
        honest.emplace_back(name, std::chrono::microseconds(200));
        ASSERT_TRUE(honest.back().WaitForCalls(10));
    }
    SProcessFigures const before = figuresOf(server.GetPid());

    std::atomic<int> sent{0};
    std::list<CHostilePeer> peers;
    std::vector<std::thread> threads;
    for (unsigned int seed = 0; seed < PEERS; ++seed)
    {
        CHostilePeer& peer = peers.emplace_back(name, seed);
        threads.emplace_back([&] {
            while (sent < messages && !campaign.IsOver() && server.IsRunning())
            {
                peer.SendBatch();
                sent += BATCH;
            }
        });
    }
    CTrend trend;
    while (sent < messages && !campaign.IsOver() && server.IsRunning())
    {
        std::this_thread::sleep_for(milliseconds(50));
        trend.Take(sent / 1000.0, figuresOf(server.GetPid()));
        campaign.Progress(sent, messages);
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }

    long unanswered = 0;
    long wrong = 0;
    for (CHostilePeer const& peer : peers)
    {
        unanswered += peer.CountUnanswered();
        for (auto const& [what, count] : peer.Wrong())
        {
            wrong += count;
            ADD_FAILURE() << count << " times an answer of the wrong kind to: " << what;
        }
    }
    SHonestReport report;
    for (CHonestClient& client : honest)
    {
        EXPECT_TRUE(client.WaitForCalls(10));
        report += client.Stop();
    }
    bool const serverLives = server.IsRunning();
    SProcessFigures const after = figuresOf(server.GetPid());
    campaign.Set("messages", sent);
    campaign.Set("server deaths", serverLives ? 0 : 1);
    campaign.Set("honest calls", static_cast<double>(report.calls));
    campaign.Set("lost", static_cast<double>(report.lost + unanswered));
    campaign.Set("wrong", static_cast<double>(report.wrong + wrong + server.CountDisorder()));
    if (isLongForm()) // in the short one the server has just started
    {
        campaign.Set("KiB per 1000 messages", trend.SlopeOfResidentKb());
    }
    campaign.Set("descriptors more", static_cast<double>(after.descriptors - before.descriptors));

    EXPECT_TRUE(serverLives);
    EXPECT_GE(sent, messages);
    EXPECT_EQ(0, unanswered);
    EXPECT_EQ(0, report.lost);
    EXPECT_EQ(0, report.wrong);
    EXPECT_LE(after.descriptors, before.descriptors);
    EXPECT_TRUE(server.Stop());
}

TEST(Hostile, MessagesEndATrustingServerWithAFatalLineOrNotAtAll)
{
    CCampaign campaign("hostile, trusted", seconds(pick(100, 600)));
    std::atomic<std::size_t> next{0};
    std::mutex mutex;
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
    {
        threads.emplace_back([&] {
            for (std::size_t i = next++; i < hostileClasses().size(); i = next++)
            {
                EEnd const end = sendToTrustingServer(hostileClasses()[i]);
                std::lock_guard<std::mutex> const lock(mutex);
                campaign.Add("classes of messages", 1);
                campaign.Add("fatal lines", end == EEnd::FatalLine ? 1 : 0);
                campaign.Add("server deaths otherwise", end == EEnd::Otherwise ? 1 : 0);
                EXPECT_NE(EEnd::Otherwise, end) << hostileClasses()[i].name;
            }
        });
    }
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    EXPECT_GT(campaign.Get("fatal lines"), 0);
}
