#include "CFakePort.h"
#include "CGate.h"
#include "CLogCapture.h"
#include "CancelState.h"
#include "LogLines.h"
#include "VirtualSlot.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace nelo_rpc;
using log::ELevel;

namespace
{
using Lines = std::vector<std::string>;

constexpr int CONNECTION = 3;

enum class EColour
{
    Red = 1,
    Blue = -2
};
} // namespace

/// Actors of one connection that the test owns itself.
class CCallbackSenderOnActors : public ::testing::Test
{
protected:
    CActor& MakeActor(int id)
    {
        m_actors.push_back(std::make_unique<CActor>(m_connection, id, "Type", nullptr));
        return *m_actors.back();
    }

    /// What the port was given, as "actor:name".
    std::multiset<std::string> Sent() const
    {
        std::multiset<std::string> sent;
        for (auto const& message : m_port.Callbacks())
        {
            sent.insert(std::to_string(types::unpackAt<int>(message.list, protocol::ACTOR_ID)) + ":" +
                        types::unpackAt<std::string>(message.list, protocol::METHOD_NAME));
        }
        return sent;
    }

    CFakePort m_port;
    CRpcHost m_host{m_port};
    CClientConnection& m_connection = m_host.GetOrCreateClientConnection(CONNECTION);
    std::vector<std::unique_ptr<CActor>> m_actors;
};

using Names = std::multiset<std::string>;

// Lines

TEST_F(CCallbackSenderOnActors, AddingAnActorLogsTheSenderAndTheActorsId)
{
    CActor& actor = MakeActor(17);
    CCallbackSender<> sender;
    CLogCapture log;

    sender.AddActor(&actor, "OnChanged");

    EXPECT_EQ(Lines{"CCallbackSender(" + textOf(&sender) + ")::AddActor 17"}, ownLines(log));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CCallbackSenderOnActors, RemovingAnActorLogsTheSenderAndTheActorsId)
{
    CActor& actor = MakeActor(17);
    CCallbackSender<> sender;
    sender.AddActor(&actor, "OnChanged");
    CLogCapture log;

    sender.RemoveActor(&actor);

    EXPECT_EQ(Lines{"CCallbackSender(" + textOf(&sender) + ")::RemoveActor 17"}, ownLines(log));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CCallbackSenderOnActors, DestroyingASenderLogsItAndTellsTheActorsNothing)
{
    CActor& actor = MakeActor(17);
    CLogCapture log;
    std::string address;
    {
        CCallbackSender<> sender;
        sender.AddActor(&actor, "OnChanged");
        address = textOf(&sender);
        log.Clear();
    }
    EXPECT_EQ(Lines{"CCallbackSender::~CCallbackSender for " + address}, ownLines(log));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CCallbackSenderOnActors, ASendLogsEveryStepDownToTheHost)
{
    CActor& actor = MakeActor(17);
    CCallbackSender<int> sender;
    sender.AddActor(&actor, "OnChanged");
    CLogCapture log;

    sender.Send(5);

    EXPECT_EQ((Lines{"CCallbackSender::Send to actor = 17", "CActor(17)::SendCallback",
                     "CRpcHost::SendCallback actorId = 17, name = OnChanged, msg = " + types::toString(listOf(5)),
                     "CRpcHost::CRpcHost SendCallback with msg=" + types::toString(callbackOf(17, "OnChanged", 5))}),
              ownLines(log));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST_F(CCallbackSenderOnActors, ASendWithoutActorsLogsNothing)
{
    CCallbackSender<> sender;
    CLogCapture log;

    sender.Send();

    EXPECT_EQ(Lines(), ownLines(log));
    EXPECT_TRUE(m_port.Callbacks().empty());
}

// Payloads

TEST_F(CCallbackSenderOnActors, ASenderWithoutParametersSendsAnEmptyPayload)
{
    CActor& actor = MakeActor(17);
    CCallbackSender<> sender;
    sender.AddActor(&actor, "OnChanged");

    sender.Send();

    ASSERT_EQ(1U, m_port.Callbacks().size());
    EXPECT_EQ(CONNECTION, m_port.Callbacks()[0].connectionId);
    EXPECT_EQ(types::toString(callbackOf(17, "OnChanged")), types::toString(m_port.Callbacks()[0].list));
}

TEST_F(CCallbackSenderOnActors, ASenderWithoutParametersSendsAListMadeByHand)
{
    CActor& actor = MakeActor(17);
    CCallbackSender<> sender;
    sender.AddActor(&actor, "OnChanged");

    sender.Send(listOf(1, std::string("two")));

    ASSERT_EQ(1U, m_port.Callbacks().size());
    EXPECT_EQ(types::toString(callbackOf(17, "OnChanged", 1, std::string("two"))),
              types::toString(m_port.Callbacks()[0].list));
}

TEST_F(CCallbackSenderOnActors, ATypedSenderPutsItsPayloadAtZeroOneTwo)
{
    CActor& actor = MakeActor(17);
    CCallbackSender<int, std::string, bool, unsigned int, float, double, EColour, std::vector<std::uint8_t>> sender;
    sender.AddActor(&actor, "OnChanged");

    sender.Send(-4, "text", true, 7U, 1.5F, 2.5, EColour::Blue, {1, 2, 3});

    ASSERT_EQ(1U, m_port.Callbacks().size());
    auto const list = m_port.Callbacks()[0].list;
    EXPECT_EQ(10U, list.size());
    EXPECT_EQ(-4, types::unpackAt<int>(list, 0));
    EXPECT_EQ("text", types::unpackAt<std::string>(list, 1));
    EXPECT_TRUE(types::unpackAt<bool>(list, 2));
    EXPECT_EQ(7U, types::unpackAt<unsigned int>(list, 3));
    EXPECT_EQ(1.5F, types::unpackAt<float>(list, 4));
    EXPECT_EQ(2.5, types::unpackAt<double>(list, 5));
    EXPECT_EQ(EColour::Blue, types::unpackAt<EColour>(list, 6));
    EXPECT_EQ((std::vector<std::uint8_t>{1, 2, 3}), types::unpackAt<std::vector<std::uint8_t>>(list, 7));
}

TEST_F(CCallbackSenderOnActors, TheListMadeByHandIsNotChanged)
{
    CActor& actor = MakeActor(17);
    CCallbackSender<> sender;
    sender.AddActor(&actor, "OnChanged");
    auto const payload = listOf(1);

    sender.Send(payload);

    EXPECT_EQ(types::toString(listOf(1)), types::toString(payload));
}

// Actors

TEST_F(CCallbackSenderOnActors, ASendReachesEveryActorUnderTheNameItHasThere)
{
    CCallbackSender<> sender;
    sender.AddActor(&MakeActor(1), "OnOpened");
    sender.AddActor(&MakeActor(2), "OnChanged");
    sender.AddActor(&MakeActor(3), "OnOpened");

    sender.Send();

    EXPECT_EQ((Names{"1:OnOpened", "2:OnChanged", "3:OnOpened"}), Sent());
}

TEST_F(CCallbackSenderOnActors, AnActorAddedAgainGetsTheNewNameAndIsSentToOnce)
{
    CActor& actor = MakeActor(1);
    CCallbackSender<> sender;
    sender.AddActor(&actor, "OnOld");
    sender.AddActor(&actor, "OnNew");

    sender.Send();

    EXPECT_EQ(Names{"1:OnNew"}, Sent());
}

TEST_F(CCallbackSenderOnActors, ARemovedActorIsNotSentTo)
{
    CActor& gone = MakeActor(1);
    CCallbackSender<> sender;
    sender.AddActor(&gone, "OnChanged");
    sender.AddActor(&MakeActor(2), "OnChanged");
    sender.RemoveActor(&gone);

    sender.Send();

    EXPECT_EQ(Names{"2:OnChanged"}, Sent());
}

TEST_F(CCallbackSenderOnActors, RemovingAnActorThatWasNeverAddedChangesNothing)
{
    CCallbackSender<> sender;
    sender.AddActor(&MakeActor(1), "OnChanged");

    sender.RemoveActor(&MakeActor(2));
    sender.Send();

    EXPECT_EQ(Names{"1:OnChanged"}, Sent());
}

TEST_F(CCallbackSenderOnActors, AnActorThatAnEarlierOneHadRemovedDuringTheSendIsSkipped)
{
    std::map<int, CActor*> actors{{1, &MakeActor(1)}, {2, &MakeActor(2)}};
    CCallbackSender<> sender;
    sender.AddActor(actors[1], "OnChanged");
    sender.AddActor(actors[2], "OnChanged");
    m_port.OnSendCallback([&](types::CValueList const& callback, int) {
        int const first = types::unpackAt<int>(callback, protocol::ACTOR_ID);
        sender.RemoveActor(actors[3 - first]);
        return true;
    });

    sender.Send();

    EXPECT_EQ(1U, m_port.Callbacks().size());
}

TEST_F(CCallbackSenderOnActors, AnActorThatIsAddedDuringTheSendWaitsForTheNextOne)
{
    CActor& late = MakeActor(2);
    CCallbackSender<> sender;
    sender.AddActor(&MakeActor(1), "OnChanged");
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        sender.AddActor(&late, "OnChanged");
        return true;
    });

    sender.Send();
    EXPECT_EQ(Names{"1:OnChanged"}, Sent());

    sender.Send();
    EXPECT_EQ((Names{"1:OnChanged", "1:OnChanged", "2:OnChanged"}), Sent());
}

TEST_F(CCallbackSenderOnActors, AnActorMayRemoveItselfDuringItsOwnSend)
{
    CActor& actor = MakeActor(1);
    CCallbackSender<> sender;
    sender.AddActor(&actor, "OnChanged");
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        sender.RemoveActor(&actor);
        return true;
    });

    sender.Send();
    sender.Send();

    EXPECT_EQ(1U, m_port.Callbacks().size());
}

TEST_F(CCallbackSenderOnActors, ASendThatFailsForOneActorGoesOnToTheOthers)
{
    CCallbackSender<> sender;
    sender.AddActor(&MakeActor(1), "OnChanged");
    sender.AddActor(&MakeActor(2), "OnChanged");
    m_port.SetSendResult(false);

    sender.Send();

    EXPECT_EQ((Names{"1:OnChanged", "2:OnChanged"}), Sent());
}

TEST_F(CCallbackSenderOnActors, ASendSurvivesTheDeathOfTheSenderThatItLeadsTo)
{
    auto sender = std::make_unique<CCallbackSender<std::string>>();
    sender->AddActor(&MakeActor(1), "OnChanged");
    sender->AddActor(&MakeActor(2), "OnChanged");
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        sender.reset();
        return true;
    });

    auto* const raw = sender.get();
    raw->Send("long enough to live in memory of its own");

    EXPECT_FALSE(sender);
    EXPECT_LE(1U, m_port.Callbacks().size());
}

// Threads

TEST_F(CCallbackSenderOnActors, ASendInFlightOnAnotherThreadSurvivesTheDeathOfItsSender)
{
    auto sender = std::make_unique<CCallbackSender<std::string>>();
    CActor& first = MakeActor(1);
    CActor& second = MakeActor(2);
    sender->AddActor(&first, "OnChanged");
    sender->AddActor(&second, "OnChanged");
    CGate inSend;
    CGate release;
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        inSend.Open();
        return release.Wait();
    });
    std::thread publisher([raw = sender.get()] { raw->Send("long enough to live in memory of its own"); });
    ASSERT_TRUE(inSend.Wait());

    std::thread owner([&] { sender.reset(); });
    release.Open();
    owner.join();
    publisher.join();

    EXPECT_LE(1U, m_port.Callbacks().size());
}

TEST_F(CCallbackSenderOnActors, RemovalReturnsOnlyWhenNoOtherThreadIsSendingThroughTheActor)
{
    CActor& actor = MakeActor(1);
    CCallbackSender<> sender;
    sender.AddActor(&actor, "OnChanged");
    CGate inSend;
    CGate release;
    CGate removed;
    bool removedDuringSend = false;
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        inSend.Open();
        release.Wait();
        removedDuringSend = removed.IsOpen();
        return true;
    });
    std::thread publisher([&] { sender.Send(); });
    ASSERT_TRUE(inSend.Wait());

    std::thread worker([&] {
        sender.RemoveActor(&actor);
        removed.Open();
    });
    EXPECT_TRUE(removed.StaysShut());
    release.Open();

    EXPECT_TRUE(removed.Wait());
    worker.join();
    publisher.join();
    EXPECT_FALSE(removedDuringSend);
}

TEST_F(CCallbackSenderOnActors, RegistrationDoesNotWaitForASendThatTakesLong)
{
    CCallbackSender<> sender;
    sender.AddActor(&MakeActor(1), "OnChanged");
    CActor& late = MakeActor(2);
    CGate inSend;
    CGate release;
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        inSend.Open();
        release.Wait();
        return true;
    });
    std::thread publisher([&] { sender.Send(); });
    ASSERT_TRUE(inSend.Wait());

    CGate added;
    std::thread worker([&] {
        sender.AddActor(&late, "OnChanged");
        added.Open();
    });
    EXPECT_TRUE(added.Wait());
    release.Open();
    worker.join();
    publisher.join();
}

TEST_F(CCallbackSenderOnActors, TwoThreadsMaySendAtTheSameTime)
{
    CCallbackSender<> sender;
    sender.AddActor(&MakeActor(1), "OnChanged");
    std::atomic<int> inside{0};
    CGate both;
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        if (++inside == 2)
        {
            both.Open();
        }
        return both.Wait();
    });
    std::thread first([&] { sender.Send(); });
    std::thread second([&] { sender.Send(); });
    first.join();
    second.join();

    EXPECT_TRUE(both.IsOpen());
    EXPECT_EQ(2U, m_port.Callbacks().size());
}

TEST_F(CCallbackSenderOnActors, ActorsMayComeAndGoWhileOtherThreadsSend)
{
    CCallbackSender<int, std::string> sender;
    CActor& steady = MakeActor(1);
    sender.AddActor(&steady, "OnSteady");
    std::atomic<bool> stop{false};
    std::atomic<int> sends{0};
    std::vector<std::thread> publishers;
    for (int publisher = 0; publisher < 2; ++publisher)
    {
        publishers.emplace_back([&] {
            while (!stop)
            {
                sender.Send(++sends, "payload");
                std::this_thread::yield();
            }
        });
    }
    for (int round = 0; round < 200; ++round)
    {
        CActor actor(m_connection, 100 + round, "Type", nullptr);
        actor.AddCallback("OnChanged", sender);
        std::this_thread::yield();
        actor.CleanCallbacks(); // afterwards no send may be inside the actor, which dies here
    }
    stop = true;
    for (auto& publisher : publishers)
    {
        publisher.join();
    }

    auto const sent = Sent();
    EXPECT_EQ(static_cast<std::size_t>(sends), sent.count("1:OnSteady"));
    sender.RemoveActor(&steady);
}

TEST_F(CCallbackSenderOnActors, TheThreadCannotBeCancelledWhileTheLibrarySends)
{
    CCallbackSender<> sender;
    sender.AddActor(&MakeActor(1), "OnChanged");
    CLoopThread thread;
    int inPort = -1;
    int after = -1;
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        inPort = cancelState().state;
        return true;
    });

    thread.Post(
        [&] {
            sender.Send();
            after = cancelState().state;
        },
        "sends");
    thread.StopAndJoin();

    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, inPort);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, after);
}

TEST_F(CCallbackSenderOnActors, AKillDuringASendActsWhenTheSendIsOver)
{
    CCallbackSender<> sender;
    sender.AddActor(&MakeActor(1), "OnChanged");
    CLogCapture log;
    CLoopThread thread;
    CGate inSend;
    bool sendEnded = false;
    std::atomic<bool> wentOn{false};
    m_port.OnSendCallback([&](types::CValueList const&, int) {
        inSend.Open();
        log.WaitFor("CLoopThread::Kill thread");
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // the cancellation itself follows the line
        sendEnded = true;
        return true;
    });
    thread.Post(
        [&] {
            sender.Send();
            wentOn = true;
        },
        "sends");
    ASSERT_TRUE(inSend.Wait());

    thread.Kill();

    EXPECT_TRUE(sendEnded);
    EXPECT_FALSE(wentOn);
    EXPECT_TRUE(log.Contains("done successfully"));

    // Nothing is left locked behind.
    m_port.OnSendCallback({});
    sender.Send();
    EXPECT_EQ(2U, m_port.Callbacks().size());
}

// The seam between sender and actor

TEST_F(CCallbackSenderOnActors, TheSenderReachesAnActorWithoutKnowingItsClass)
{
    CActor& actor = MakeActor(17);
    EXPECT_EQ(17, internal_callbacksender::ActorGetId(&actor));

    auto payload = listOf(1);
    internal_callbacksender::ActorSendCallback(&actor, "OnChanged", payload);

    EXPECT_EQ(Names{"17:OnChanged"}, Sent());
}

#if defined(__x86_64__) && defined(__GXX_ABI_VERSION)
TEST(ICallback, VirtualOperationsKeepTheirPlacesForCallersCompiledEarlier)
{
    // The destructor takes the first two.
    EXPECT_EQ(2, virtualSlotOf(&ICallback::AddActor));
    EXPECT_EQ(3, virtualSlotOf(&ICallback::RemoveActor));
}
#endif
