#include "BusTest.h"
#include "ThreadSwitches.h"

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <iterator>
#include <map>
#include <set>
#include <typeinfo>

// An answer that is there before its question is known comes about once in many thousand times. Here it always does when
// a test asks for it.
namespace
{
std::atomic<CGate*> g_openedAfterAsking{nullptr};
} // namespace

extern "C" dbus_bool_t dbus_connection_send(DBusConnection* connection, DBusMessage* message, dbus_uint32_t* serial)
{
    static auto const real =
        reinterpret_cast<decltype(&dbus_connection_send)>(::dlsym(RTLD_NEXT, "dbus_connection_send"));
    dbus_bool_t const sent = real(connection, message, serial);
    CGate* const gate = g_openedAfterAsking;
    if (gate != nullptr && dbus_message_is_method_call(message, DBUS_INTERFACE_DBUS, "NameHasOwner"))
    {
        gate->Open();
        // Nothing tells of an answer that is held up, so this takes as long as one that is not needs by far.
        std::this_thread::sleep_for(milliseconds(300));
    }
    return sent;
}

namespace
{

std::set<std::string> namesOnTheBus(CRawPeer& peer)
{
    MessagePtr const question(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "ListNames"));
    MessagePtr const answer = peer.Call(question.get());
    char** names = nullptr;
    int count = 0;
    if (answer == nullptr || !dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &names,
                                                    &count, DBUS_TYPE_INVALID))
    {
        return {};
    }
    std::set<std::string> const all(names, names + count);
    dbus_free_string_array(names);
    return all;
}

/// A server's port that knows one raw peer, under the id 0.
class CDbusPortCallback : public CBusTest
{
protected:
    void SetUp() override { ASSERT_EQ(0, m_port.AddConnection(m_peer.GetUniqueName())); }

    std::string NextBody()
    {
        MessagePtr const signal = m_peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
        return signal != nullptr ? describeBody(signal.get()) : "no signal";
    }

    CRawPeer m_peer;
    CInbox<bool> m_sent;
    CDbusPort m_port{m_server.c_str(), true};
};

using CDbusPortCallbackDeathTest = CDbusPortCallback;

/// Whether the end of a port waits for an operation that has come to a line of its log.
void expectEndWaits(std::unique_ptr<CDbusPort> port, char const* line, std::function<void(CDbusPort&)> const& operation)
{
    CGate stalled;
    CGate release;
    nelo_rpc::log::SetSink([&](ELevel, std::string const& text) {
        if (text.find(line) != std::string::npos)
        {
            stalled.Open();
            release.Wait();
        }
    });
    auto const running = std::async(std::launch::async, [&operation, &port = *port] { operation(port); });
    ASSERT_TRUE(stalled.Wait());
    CGate destroyed;
    std::thread owner([&] {
        port.reset();
        destroyed.Open();
    });

    EXPECT_TRUE(destroyed.StaysShut(milliseconds(500))) << "longer than a receiver takes to end";
    release.Open();
    EXPECT_TRUE(destroyed.Wait());
    owner.join();
    installStderrSink();
}

} // namespace

TEST_F(CDbusPortCallback, IsSentAsASignalToOnePeerInTheProtocolsForm)
{
    CRawPeer bystander;
    CValueList list = listOf(7);
    list[-2] = nelo_rpc::types::makeValue<int>(3);
    EXPECT_TRUE(m_port.SendCallback(list, 0));

    MessagePtr const signal = m_peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
    ASSERT_NE(nullptr, signal);
    EXPECT_EQ(m_peer.GetUniqueName(), textOf(dbus_message_get_destination(signal.get())));
    EXPECT_EQ("/org/trelin/nelo_rpc", textOf(dbus_message_get_path(signal.get())));
    EXPECT_EQ("org.trelin.nelo_rpc.Event", textOf(dbus_message_get_interface(signal.get())));
    EXPECT_EQ("Call", textOf(dbus_message_get_member(signal.get())));
    EXPECT_EQ("-2 0 3 0 0 7", describeBody(signal.get()));
    EXPECT_EQ(nullptr, bystander.Receive(DBUS_MESSAGE_TYPE_SIGNAL, milliseconds(100)));
}

TEST_F(CDbusPortCallback, MayBeEmpty)
{
    EXPECT_TRUE(m_port.SendCallback({}, 0));
    EXPECT_EQ("", NextBody());
}

TEST_F(CDbusPortCallback, IsLoggedWithBothNames)
{
    CLogCapture log;
    m_port.SendCallback(listOf(1), 0);

    EXPECT_EQ(
        1, countLines(log, ELevel::Debug, "CDbusPort::SendMessage from " + m_server + " to " + m_peer.GetUniqueName()));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::IsConnected returns true"));
    EXPECT_EQ(0, log.Count("CDbusPort::SendCallback failed"));
}

TEST_F(CDbusPortCallback, ToAPeerThatLeftIsNotSent)
{
    int id = 0;
    std::string name;
    {
        CRawPeer gone;
        name = gone.GetUniqueName();
        id = m_port.AddConnection(name);
        EXPECT_TRUE(m_port.SendCallback(listOf(1), id));
    }
    EXPECT_TRUE(eventually([&] { return !m_port.IsConnected(id); }));
    CLogCapture log;

    EXPECT_FALSE(m_port.SendCallback(listOf(2), id));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SendCallback failed, can't connect to " + name));
    EXPECT_EQ(0, log.Count("nelo_rpc::dbus::fillDbusMessage")) << "no message is even built";
}

TEST_F(CDbusPortCallback, NoticesAnAnswerThatIsThereBeforeItsQuestionIsKnown)
{
    CGate busy;
    CGate release;
    m_port.SetFunctionCallListener([&](CValueList const&, int, CRpcPort::ReplyFunction const&) {
        busy.Open();
        release.Wait();
    });
    m_peer.Send(rawCall(m_server).get());
    ASSERT_TRUE(busy.Wait()); // so whoever asks now does not read the answer itself

    g_openedAfterAsking = &release;
    auto const isConnected = std::async(std::launch::async, [this] { return m_port.IsConnected(0); });
    EXPECT_TRUE(isReady(isConnected, seconds(20))); // and not at the time-out, after 25
    g_openedAfterAsking = nullptr;
}

TEST_F(CDbusPortCallback, LetsTheReceiverSleepWhileTheBusIsAsked)
{
    constexpr int QUESTIONS = 300;
    std::string const name = CPrivateBus::UniqueName();
    CLogCapture log;
    CEchoPort echo(name);
    int const receiver = waitForReceiver(log);
    ASSERT_NE(0, receiver);
    ASSERT_EQ(0, echo.Get().AddConnection(m_peer.GetUniqueName()));
    CDbusPort client(m_client.c_str(), name.c_str(), false);
    ASSERT_EQ(1, intOf(client.CallFunction(listOf(1), 0))); // the receiver is at work

    long const before = countSleepsOf(receiver);
    for (int i = 0; i < QUESTIONS; ++i)
    {
        ASSERT_TRUE(echo.Get().IsConnected(0));
    }

    EXPECT_LT(countSleepsOf(receiver) - before, QUESTIONS / 3);
}

TEST_F(CDbusPortCallback, KeepsNoCallWaitingWhileThreadsAskTheBusAllTheTime)
{
    std::string const name = CPrivateBus::UniqueName();
    CEchoPort echo(name);
    ASSERT_EQ(0, echo.Get().AddConnection(m_peer.GetUniqueName()));
    std::atomic<bool> stop{false};
    std::vector<std::future<void>> askers;
    for (int t = 0; t < 2; ++t)
    {
        askers.push_back(std::async(std::launch::async, [&] {
            while (!stop)
            {
                EXPECT_TRUE(echo.Get().IsConnected(0));
            }
        }));
    }
    CDbusPort client(m_client.c_str(), name.c_str(), false);
    client.SetTimeoutMs(10000);
    for (int i = 0; i < 100; ++i)
    {
        EXPECT_EQ(i, intOf(client.CallFunction(listOf(i), 0)));
    }
    stop = true;
}

TEST_F(CDbusPortCallback, ToANameThatNobodyOwnsIsNotSent)
{
    int const id = m_port.AddConnection(m_client);
    CLogCapture log;

    EXPECT_FALSE(m_port.SendCallback(listOf(1), id));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SendMessage from " + m_server + " to " + m_client));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SendCallback failed, can't connect to " + m_client));
}

TEST_F(CDbusPortCallback, ToAnUnknownIdEntersAnEmptyNameAndIsNotSent)
{
    CLogCapture log;

    EXPECT_FALSE(m_port.SendCallback(listOf(1), 7));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SendMessage from " + m_server + " to "));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::SendCallback failed, can't connect to "));
    EXPECT_FALSE(m_port.SendCallback(listOf(1), 7));
    EXPECT_FALSE(m_port.IsConnected(7));
    EXPECT_EQ(3, countLines(log, ELevel::Debug, "CDbusPort::IsConnected returns false"));
    EXPECT_EQ(1, m_port.AddConnection("org.trelin.next")) << "ids go on as if nothing had been entered";
}

TEST_F(CDbusPortCallback, ToANegativeIdIsNotSent)
{
    EXPECT_FALSE(m_port.SendCallback(listOf(1), -1));
    EXPECT_FALSE(m_port.SendCallback(listOf(1), INT_MIN));
}

TEST_F(CDbusPortCallback, ThrowsForAValueThatCannotTravel)
{
    CValueList list = listOf(1);
    list[1] = nelo_rpc::types::makeValue(true);

    EXPECT_THROW(m_port.SendCallback(list, 0), std::bad_cast);
    auto sent = std::async(std::launch::async, [&] { return m_port.SendCallback(listOf(2), 0); });
    ASSERT_TRUE(isReady(sent)) << "no lock was left behind";
    EXPECT_TRUE(sent.get());
    EXPECT_EQ("0 0 2", NextBody()) << "the refused one was never sent";
}

TEST_F(CDbusPortCallback, ThrowsFromAReplyFunctionForAResultThatCannotTravel)
{
    CInbox<CRpcPort::ReplyFunction> replies;
    m_port.SetFunctionCallListener(
        [&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { replies.Put(reply); });
    m_peer.Send(rawCall(m_server).get());
    ASSERT_TRUE(replies.WaitForCount(1));
    CValueList list;
    list[0] = nelo_rpc::types::makeValue(true);

    EXPECT_THROW(replies.All().front()(list), std::bad_cast);
}

TEST_F(CDbusPortCallbackDeathTest, OnASynchronousPortLogsAndAbortsEvenIfThePeerIsThere)
{
    EXPECT_ABORT(
        {
            CDbusPort port(m_client.c_str(), m_peer.GetUniqueName().c_str(), false);
            port.SendCallback(listOf(1), 0);
        },
        "m_bUseAsync is false. Please check type when dbus created");
}

TEST_F(CDbusPortCallbackDeathTest, OnASynchronousPortLogsAndAbortsForAnUnknownIdToo)
{
    EXPECT_ABORT(
        {
            CDbusPort port(m_client.c_str(), false);
            port.SendCallback(listOf(1), 3);
        },
        "m_bUseAsync is false. Please check type when dbus created");
}

TEST_F(CDbusPortCallbackDeathTest, AResultOnASynchronousPortLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CDbusPort port(m_client.c_str(), m_peer.GetUniqueName().c_str(), false);
            MessagePtr const call = rawCall(m_client);
            dbus_message_set_sender(call.get(), m_peer.GetUniqueName().c_str());
            dbus_message_set_serial(call.get(), 1);
            port.SendFunctionResult(call.get(), listOf(1));
        },
        "m_bUseAsync is false. Please check type when dbus created");
}

TEST_F(CDbusPortCallback, MayBeSentByAListener)
{
    m_port.SetFunctionCallListener([this](CValueList const& list, int id, CRpcPort::ReplyFunction const& reply) {
        EXPECT_TRUE(m_port.SendCallback(listOf(55), id));
        reply(list);
    });
    m_peer.Send(rawCall(m_server).get());

    EXPECT_EQ("0 0 55", NextBody());
    EXPECT_NE(nullptr, m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN));
}

TEST_F(CDbusPortCallback, MayBeSentByAListenerHoweverMuchOthersSentToTheConnectionThatItAsksOn)
{
    m_port.SetFunctionCallListener([&](CValueList const&, int id, CRpcPort::ReplyFunction const&) {
        m_sent.Put(m_port.SendCallback(listOf(55), id));
    });
    auto const before = namesOnTheBus(m_peer);
    m_peer.Send(rawCall(m_server).get());
    ASSERT_TRUE(m_sent.WaitForCount(1));
    std::vector<std::string> opened;
    auto const after = namesOnTheBus(m_peer);
    std::set_difference(after.begin(), after.end(), before.begin(), before.end(), std::back_inserter(opened));
    ASSERT_EQ(1u, opened.size());
    for (int i = 0; i < 70; ++i) // the bus library stops reading at 63 MiB
    {
        MessagePtr const signal = rawSignal(opened[0]);
        putBytes(signal.get(), 0, std::vector<unsigned char>(1024 * 1024), 0);
        m_peer.Send(signal.get());
    }
    m_peer.Send(rawCall(m_server).get());

    ASSERT_TRUE(m_sent.WaitForCount(2, seconds(15)));
    EXPECT_TRUE(m_sent.All()[1]);
}

TEST_F(CDbusPortCallback, MayBeSentByAHandlerOfAnotherPortThatAListenerDispatches)
{
    CDbusPort other(m_client.c_str(), m_server.c_str(), false);
    other.GetPollFd();
    m_port.SetFunctionCallListener([&](CValueList const&, int id, CRpcPort::ReplyFunction const&) {
        bool sent = false;
        other.CallFunctionAsync({}, 99, {},
                                [&](nelo_rpc::CCallResult const&) { sent = m_port.SendCallback(listOf(55), id); });
        other.DispatchCallbacks();
        m_sent.Put(sent); // not before: the other port ends with the test
    });
    m_peer.Send(rawCall(m_server).get());

    EXPECT_TRUE(m_sent.WaitForCount(1, seconds(10)));
    m_port.SetFunctionCallListener({});
    EXPECT_EQ(std::vector<bool>{true}, m_sent.All());
}

TEST_F(CDbusPortCallback, GoesOutWithoutWaitingForAPollingPass)
{
    constexpr int COUNT = 50;
    auto const start = steady_clock::now();
    for (int i = 0; i < COUNT; ++i)
    {
        ASSERT_TRUE(m_port.SendCallback(listOf(i), 0));
        ASSERT_EQ("0 0 " + std::to_string(i), NextBody());
    }

    // 200 ms each, if it waited for the receiver's next pass.
    EXPECT_LT(since(start), seconds(5));
}

TEST_F(CDbusPortCallback, OfOneThreadKeepsItsOrder)
{
    constexpr int COUNT = 1000;
    for (int i = 0; i < COUNT; ++i)
    {
        ASSERT_TRUE(m_port.SendCallback(listOf(i), 0));
    }
    for (int i = 0; i < COUNT; ++i)
    {
        ASSERT_EQ("0 0 " + std::to_string(i), NextBody());
    }
}

TEST_F(CDbusPortCallback, OfManyThreadsAllArriveAndEachThreadKeepsItsOrder)
{
    constexpr int THREADS = 6;
    constexpr int COUNT = 100;
    std::vector<std::future<int>> senders;
    for (int t = 0; t < THREADS; ++t)
    {
        senders.push_back(std::async(std::launch::async, [this, t] {
            int sent = 0;
            for (int i = 0; i < COUNT; ++i)
            {
                sent += m_port.SendCallback(listOf(t, i), 0) ? 1 : 0;
            }
            return sent;
        }));
    }

    std::map<int, int> next;
    for (int n = 0; n < THREADS * COUNT; ++n)
    {
        MessagePtr const signal = m_peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL);
        ASSERT_NE(nullptr, signal) << n;
        CValueList const list = nelo_rpc::dbus::dbusMessageToValueList(signal.get());
        ASSERT_EQ(next[intOf(list)]++, nelo_rpc::types::unpackAt<int>(list, 1));
    }
    for (auto& sender : senders)
    {
        ASSERT_TRUE(isReady(sender));
        EXPECT_EQ(COUNT, sender.get());
    }
}

TEST_F(CDbusPortCallback, CanBeSentWhileTheReceiverIsBusyWithALargeMessage)
{
    m_port.SetFunctionCallListener(
        [](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) { reply(list); });
    auto caller = std::async(std::launch::async, [this] {
        CDbusPort port(m_client.c_str(), m_server.c_str(), false);
        return port.CallFunction(listOfBytes(16 * 1024 * 1024), 0).size();
    });
    for (int i = 0; i < 200; ++i)
    {
        ASSERT_TRUE(m_port.SendCallback(listOf(i), 0));
        ASSERT_EQ("0 0 " + std::to_string(i), NextBody());
    }

    ASSERT_TRUE(isReady(caller, seconds(60)));
    EXPECT_EQ(1u, caller.get());
}

TEST_F(CDbusPortCallback, ReachesAnotherPortsListener)
{
    CInbox<int> received;
    CDbusPort other(m_client.c_str(), true);
    other.SetCallbackListener([&](CValueList const& list) { received.Put(intOf(list)); });
    int const id = m_port.AddConnection(m_client);

    EXPECT_TRUE(m_port.SendCallback(listOf(5), id));
    EXPECT_TRUE(received.WaitForCount(1));
    EXPECT_EQ(std::vector<int>{5}, received.All());
}

TEST_F(CDbusPortCallback, IsWaitedForByThePortsEnd)
{
    // Its sender may be a worker that its host has cut off and left behind.
    auto port = std::make_unique<CDbusPort>(CPrivateBus::UniqueName().c_str(), true);
    ASSERT_EQ(0, port->AddConnection(m_peer.GetUniqueName()));
    expectEndWaits(std::move(port), "CDbusPort::SendMessage from",
                   [](CDbusPort& sender) { sender.SendCallback(listOf(1), 0); });
}

TEST_F(CDbusPortCallback, IsWaitedForByThePortsEndAndSoIsAQuestionWhetherAPeerIsConnected)
{
    auto port = std::make_unique<CDbusPort>(CPrivateBus::UniqueName().c_str(), true);
    ASSERT_EQ(0, port->AddConnection(m_peer.GetUniqueName()));
    expectEndWaits(std::move(port), "CDbusPort::IsConnected returns", [](CDbusPort& asker) { asker.IsConnected(0); });
}
