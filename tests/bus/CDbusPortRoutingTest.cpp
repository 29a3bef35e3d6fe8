#include "BusTest.h"

#include <time.h>

#include <atomic>
#include <cstdlib>
#include <stdexcept>

namespace
{

class CDbusPortRouting : public CBusTest
{
protected:
    /// A port whose calls and callbacks land in the two boxes; calls are answered with their own list.
    void Listen()
    {
        m_port.SetFunctionCallListener([this](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) {
            m_calls.Put(toString(list));
            reply(list);
        });
        m_port.SetCallbackListener([this](CValueList const& list) { m_callbacks.Put(toString(list)); });
    }

    MessagePtr CallWithInt(int value, milliseconds limit = seconds(10))
    {
        MessagePtr const call = rawCall(m_server);
        putInt(call.get(), 0, value);
        return m_peer.Call(call.get(), limit);
    }

    void SignalInt(int value)
    {
        MessagePtr const signal = rawSignal(m_server);
        putInt(signal.get(), 0, value);
        m_peer.Send(signal.get());
    }

    CRawPeer m_peer;
    CInbox<std::string> m_calls;
    CInbox<std::string> m_callbacks;
    CDbusPort m_port{m_server.c_str(), true};
};

using CDbusPortRoutingDeathTest = CDbusPortRouting;

} // namespace

TEST_F(CDbusPortRouting, HandsACallToTheFunctionCallListener)
{
    Listen();
    MessagePtr const call = rawCall(m_server);
    putString(call.get(), -1, "Open");
    putInt(call.get(), 0, 5);
    putCString(call.get(), 1, "text");
    putBytes(call.get(), 2, {1, 2}, 9);
    m_peer.Call(call.get());

    EXPECT_EQ(
        std::vector<std::string>{
            "{METHOD_NAME = (CTypedValue<std::__cxx11::basic_string<char, std::char_traits<char>, "
            "std::allocator<char> >> = Open) | 0 = (CTypedValue<int> = 5) | "
            "1 = (CTypedValue<nelo_rpc::types::CCString> = text) | 2 = (CBinaryValue[size=2]) | }"},
        m_calls.All());
    EXPECT_EQ(0u, m_callbacks.Count());
}

TEST_F(CDbusPortRouting, HandsASignalToTheCallbackListener)
{
    Listen();
    SignalInt(12);

    ASSERT_TRUE(m_callbacks.WaitForCount(1));
    EXPECT_EQ(std::vector<std::string>{"{0 = (CTypedValue<int> = 12) | }"}, m_callbacks.All());
    EXPECT_EQ(0u, m_calls.Count());
}

TEST_F(CDbusPortRouting, HandsOnCallsAndSignalsWithAnEmptyBody)
{
    Listen();
    MessagePtr const call = rawCall(m_server);
    MessagePtr const signal = rawSignal(m_server);
    m_peer.Send(signal.get());
    MessagePtr const answer = m_peer.Call(call.get());

    ASSERT_NE(nullptr, answer);
    EXPECT_EQ("", describeBody(answer.get()));
    EXPECT_EQ(std::vector<std::string>{"{}"}, m_calls.All());
    EXPECT_EQ(std::vector<std::string>{"{}"}, m_callbacks.All());
}

TEST_F(CDbusPortRouting, AnswersACallWithAMethodReturnToItsCaller)
{
    Listen();
    MessagePtr const answer = CallWithInt(77);

    ASSERT_NE(nullptr, answer);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, dbus_message_get_type(answer.get()));
    EXPECT_EQ(m_peer.GetUniqueName(), textOf(dbus_message_get_destination(answer.get())));
    EXPECT_STREQ("iii", dbus_message_get_signature(answer.get()));
    EXPECT_EQ("0 0 77", describeBody(answer.get()));
}

TEST_F(CDbusPortRouting, LooksAtThePathAloneAndNotAtInterfaceOrMember)
{
    Listen();
    MessagePtr const call(dbus_message_new_method_call(m_server.c_str(), WIRE_PATH, "org.other", "Other"));
    MessagePtr const bare(dbus_message_new_method_call(m_server.c_str(), WIRE_PATH, nullptr, "Bare"));

    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, dbus_message_get_type(m_peer.Call(call.get()).get()));
    EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, dbus_message_get_type(m_peer.Call(bare.get()).get()));
    EXPECT_EQ(2u, m_calls.Count());
}

TEST_F(CDbusPortRouting, LogsACallFromItsSenderToItsDestination)
{
    CLogCapture log;
    Listen();
    CallWithInt(5);
    std::string const sender = m_peer.GetUniqueName();

    ASSERT_TRUE(log.WaitFor("CDbusPort::OnDbusMessage from " + m_server + " handled"));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::OnDbusMessage from " + sender));
    EXPECT_EQ(1, countLines(log, ELevel::Debug,
                            "CDbusPort::OnDbusMessage received function call request "
                            "{0 = (CTypedValue<int> = 5) | }"));
    EXPECT_EQ(1, countLines(log, ELevel::Debug, "CDbusPort::OnDbusMessage from " + m_server + " handled"));
}

TEST_F(CDbusPortRouting, LogsACallback)
{
    CLogCapture log;
    Listen();
    SignalInt(5);

    ASSERT_TRUE(log.WaitFor("CDbusPort::OnDbusMessage from " + m_server + " handled"));
    EXPECT_EQ(1, countLines(log, ELevel::Debug,
                            "CDbusPort::OnDbusMessage received callback {0 = (CTypedValue<int> = 5) | }"));
    EXPECT_EQ(0, log.Count("received function call request"));
}

TEST_F(CDbusPortRouting, LogsWithTheIdOfItsThreadInFront)
{
    CLogCapture log;
    Listen();
    CallWithInt(5);

    ASSERT_TRUE(log.WaitFor("handled"));
    for (auto const& line : log.Lines())
    {
        if (line.line.find("CDbusPort::OnDbusMessage from ") != std::string::npos)
        {
            EXPECT_EQ('[', line.line.front()) << line.line;
            EXPECT_GT(std::atoi(line.line.c_str() + 1), 0) << line.line;
        }
    }
}

class CDbusPortOtherPath : public CDbusPortRouting, public ::testing::WithParamInterface<SLabelled>
{
};

TEST_P(CDbusPortOtherPath, IsLeftToOthersWithAnErrorLine)
{
    CLogCapture log;
    Listen();
    MessagePtr const call = rawCall(m_server, GetParam().text);
    MessagePtr const answer = m_peer.Call(call.get());

    // The bus library's own answer to what nobody handled.
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ(DBUS_MESSAGE_TYPE_ERROR, dbus_message_get_type(answer.get()));
    EXPECT_EQ(1, countLines(log, ELevel::Error,
                            "CDbusPort::OnDbusMessage ignoring message from " + m_peer.GetUniqueName() +
                                " with path=" + GetParam().text));
    EXPECT_EQ(0u, m_calls.Count());
}

TEST_P(CDbusPortOtherPath, KeepsASignalFromTheListeners)
{
    CLogCapture log;
    Listen();
    MessagePtr const signal = rawSignal(m_server, GetParam().text);
    m_peer.Send(signal.get());

    EXPECT_TRUE(log.WaitFor("CDbusPort::OnDbusMessage ignoring message from " + m_peer.GetUniqueName() +
                            " with path=" + GetParam().text));
    SignalInt(1);
    ASSERT_TRUE(m_callbacks.WaitForCount(1));
    EXPECT_EQ(std::vector<std::string>{"{0 = (CTypedValue<int> = 1) | }"}, m_callbacks.All());
}

INSTANTIATE_TEST_SUITE_P(Paths, CDbusPortOtherPath,
                         ::testing::Values(SLabelled{"Root", "/"}, SLabelled{"Parent", "/org/trelin"},
                                           SLabelled{"Child", "/org/trelin/nelo_rpc/child"},
                                           SLabelled{"Longer", "/org/trelin/nelo_rpcs"},
                                           SLabelled{"OtherCase", "/org/trelin/Nelo_rpc"},
                                           SLabelled{"Other", "/com/example"}),
                         labelOf);

TEST_F(CDbusPortRouting, ReturnsHandledForItsOwnPath)
{
    Listen();
    MessagePtr const signal = rawSignal(m_server);
    dbus_message_set_sender(signal.get(), ":9.9");

    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, m_port.OnDbusMessage(m_peer.GetConnection(), signal.get()));
    EXPECT_EQ(1u, m_callbacks.Count());
}

TEST_F(CDbusPortRouting, ReturnsNotYetHandledForAnotherPath)
{
    Listen();
    MessagePtr const signal = rawSignal(m_server, "/elsewhere");
    dbus_message_set_sender(signal.get(), ":9.9");

    EXPECT_EQ(DBUS_HANDLER_RESULT_NOT_YET_HANDLED, m_port.OnDbusMessage(m_peer.GetConnection(), signal.get()));
    EXPECT_EQ(0u, m_callbacks.Count());
}

TEST_F(CDbusPortRouting, IgnoresAMessageWithoutASender)
{
    CLogCapture log;
    MessagePtr const signal = rawSignal(m_server, "/elsewhere");

    EXPECT_EQ(DBUS_HANDLER_RESULT_NOT_YET_HANDLED, m_port.OnDbusMessage(m_peer.GetConnection(), signal.get()));
    EXPECT_EQ(1,
              countLines(log, ELevel::Error, "CDbusPort::OnDbusMessage ignoring message from  with path=/elsewhere"));
}

TEST_F(CDbusPortRouting, IgnoresAMessageWithoutAPath)
{
    CLogCapture log;
    MessagePtr const message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    dbus_message_set_sender(message.get(), ":9.9");

    EXPECT_EQ(DBUS_HANDLER_RESULT_NOT_YET_HANDLED, m_port.OnDbusMessage(m_peer.GetConnection(), message.get()));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::OnDbusMessage ignoring message from :9.9 with path="));
}

TEST_F(CDbusPortRouting, TakesAMissingSenderForAnEmptyName)
{
    CLogCapture log;
    Listen();
    MessagePtr const signal = rawSignal(m_server);

    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, m_port.OnDbusMessage(m_peer.GetConnection(), signal.get()));
    EXPECT_EQ(1, log.Count("CDbusPort.cpp: OnDbusMessage(122) > Message from new client , "
                           "storing its connection id = 0"));
}

TEST_F(CDbusPortRoutingDeathTest, OfAMessageThatIsNeitherCallNorSignalLogsAndAborts)
{
    EXPECT_ABORT(
        {
            MessagePtr const message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN));
            dbus_message_set_path(message.get(), WIRE_PATH);
            dbus_message_set_sender(message.get(), ":9.9");
            m_port.OnDbusMessage(m_peer.GetConnection(), message.get());
        },
        "unexpected dbus message type");
}

TEST_F(CDbusPortRoutingDeathTest, OfAnErrorMessageLogsAndAborts)
{
    EXPECT_ABORT(
        {
            MessagePtr const message(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
            dbus_message_set_path(message.get(), WIRE_PATH);
            dbus_message_set_sender(message.get(), ":9.9");
            m_port.OnDbusMessage(m_peer.GetConnection(), message.get());
        },
        "unexpected dbus message type");
}

TEST_F(CDbusPortRoutingDeathTest, OfABodyWithAnUnknownTagLogsAndAborts)
{
    EXPECT_ABORT(
        {
            Listen();
            MessagePtr const call = rawCall(m_server);
            int const index = 3;
            int const tag = 4;
            dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32, &tag, DBUS_TYPE_INVALID);
            m_peer.Call(call.get());
        },
        "Unknown type inside DBusMessage: 4 for map index 3");
}

TEST_F(CDbusPortRoutingDeathTest, OfABodyWithoutTheStringItAnnouncesLogsAndAborts)
{
    EXPECT_ABORT(
        {
            Listen();
            MessagePtr const call = rawCall(m_server);
            int const index = 3;
            int const tag = 1;
            dbus_message_append_args(call.get(), DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32, &tag, DBUS_TYPE_INT32,
                                     &index, DBUS_TYPE_INVALID);
            m_peer.Call(call.get());
        },
        "String should be in DBusMessage");
}

TEST_F(CDbusPortRoutingDeathTest, ToAListenerThatThrowsEndsTheProcess)
{
    // An exception must not pass through the bus library's frames, which it would leave unusable.
    EXPECT_ABORT(
        {
            m_port.SetFunctionCallListener([](CValueList const&, int, CRpcPort::ReplyFunction const&) {
                throw std::runtime_error("from the listener");
            });
            CallWithInt(1);
        },
        "");
}

TEST_F(CDbusPortRouting, LetsAnExceptionOfAListenerPassToItsOwnCaller)
{
    m_port.SetCallbackListener([](CValueList const&) { throw std::runtime_error("from the listener"); });
    CValueList list = listOf(1);

    EXPECT_THROW(m_port.OnCallback(list), std::runtime_error);
}

TEST_F(CDbusPortRouting, WithoutAListenerDropsACallWithOneErrorLineAndNoReply)
{
    CLogCapture log;
    EXPECT_EQ(nullptr, CallWithInt(1, milliseconds(700)));

    EXPECT_TRUE(log.WaitFor("Function Listener is empty"));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "Function Listener is empty"));
}

TEST_F(CDbusPortRouting, WithoutAListenerDropsACallbackWithOneErrorLine)
{
    CLogCapture log;
    SignalInt(1);

    EXPECT_TRUE(log.WaitFor("Callback Listener is empty"));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "Callback Listener is empty"));
}

TEST_F(CDbusPortRouting, GoesOnAfterAMessageThatNobodyTook)
{
    CLogCapture log;
    MessagePtr const call = rawCall(m_server);
    m_peer.Send(call.get());
    ASSERT_TRUE(log.WaitFor("Function Listener is empty"));
    Listen();

    MessagePtr const answer = CallWithInt(3);
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ("0 0 3", describeBody(answer.get()));
}

TEST_F(CDbusPortRouting, DropsCallsAgainOnceItsListenerIsRemoved)
{
    CLogCapture log;
    Listen();
    EXPECT_NE(nullptr, CallWithInt(1));
    m_port.SetFunctionCallListener({});
    m_port.SetCallbackListener({});
    MessagePtr const call = rawCall(m_server);
    m_peer.Send(call.get());
    SignalInt(2);

    EXPECT_TRUE(log.WaitFor("Function Listener is empty"));
    EXPECT_TRUE(log.WaitFor("Callback Listener is empty"));
    EXPECT_EQ(1u, m_calls.Count());
    EXPECT_EQ(0u, m_callbacks.Count());
}

TEST_F(CDbusPortRouting, CallsOnlyTheListenerThatWasSetLast)
{
    auto const first = std::make_shared<std::atomic<int>>(0);
    std::weak_ptr<std::atomic<int>> const life = first;
    m_port.SetFunctionCallListener([first](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) {
        ++*first;
        reply(list);
    });
    EXPECT_NE(nullptr, CallWithInt(1));
    EXPECT_EQ(1, first->load());

    m_port.SetFunctionCallListener(
        [](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { reply(listOf(22)); });
    MessagePtr const answer = CallWithInt(1);

    ASSERT_NE(nullptr, answer);
    EXPECT_EQ("0 0 22", describeBody(answer.get()));
    EXPECT_EQ(1, first->load());
    EXPECT_EQ(1, life.use_count()) << "the first listener is destroyed";
}

TEST_F(CDbusPortRouting, ReplacesAListenerOnlyWhenItIsNotRunningElsewhere)
{
    CGate entered;
    CGate leave;
    m_port.SetFunctionCallListener([&](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) {
        entered.Open();
        leave.Wait();
        reply(list);
    });
    MessagePtr const call = rawCall(m_server);
    m_peer.Send(call.get());
    ASSERT_TRUE(entered.Wait());

    auto replaced = std::async(std::launch::async, [&] { m_port.SetFunctionCallListener({}); });
    EXPECT_FALSE(isReady(replaced, milliseconds(200)));
    leave.Open();
    EXPECT_TRUE(isReady(replaced));
}

TEST_F(CDbusPortRouting, LetsAListenerReplaceItself)
{
    m_port.SetFunctionCallListener([this](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
        Listen();
        reply(listOf(1));
    });

    EXPECT_EQ("0 0 1", describeBody(CallWithInt(5).get()));
    EXPECT_EQ("0 0 6", describeBody(CallWithInt(6).get()));
}

TEST_F(CDbusPortRouting, RunsAllListenersOnOneThreadOfItsOwn)
{
    CInbox<std::thread::id> threads;
    m_port.SetFunctionCallListener([&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
        threads.Put(std::this_thread::get_id());
        reply({});
    });
    m_port.SetCallbackListener([&](CValueList const&) { threads.Put(std::this_thread::get_id()); });
    SignalInt(1);
    CallWithInt(1);
    SignalInt(2);
    CallWithInt(2);

    ASSERT_TRUE(threads.WaitForCount(4));
    auto const seen = threads.All();
    EXPECT_EQ(4, std::count(seen.begin(), seen.end(), seen.front()));
    EXPECT_NE(std::this_thread::get_id(), seen.front());
}

TEST_F(CDbusPortRouting, HandsOnOneMessageAtATimeInOrder)
{
    constexpr int COUNT = 300;
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    CInbox<int> seen;
    m_port.SetCallbackListener([&](CValueList const& list) {
        overlapped = overlapped || ++inside != 1;
        std::this_thread::yield();
        --inside;
        seen.Put(intOf(list)); // last: with it the test may end
    });
    for (int i = 0; i < COUNT; ++i)
    {
        SignalInt(i);
    }

    ASSERT_TRUE(seen.WaitForCount(COUNT));
    std::vector<int> expected(COUNT);
    for (int i = 0; i < COUNT; ++i)
    {
        expected[static_cast<std::size_t>(i)] = i;
    }
    EXPECT_EQ(expected, seen.All());
    EXPECT_FALSE(overlapped);
}

TEST_F(CDbusPortRouting, DelaysLaterMessagesBehindABusyListener)
{
    CGate entered;
    CGate leave;
    CInbox<int> seen;
    m_port.SetCallbackListener([&](CValueList const& list) {
        entered.Open();
        leave.Wait();
        seen.Put(intOf(list));
    });
    SignalInt(1);
    ASSERT_TRUE(entered.Wait());
    SignalInt(2);

    EXPECT_FALSE(seen.WaitForCount(1, milliseconds(200)));
    leave.Open();
    EXPECT_TRUE(seen.WaitForCount(2));
    EXPECT_EQ((std::vector<int>{1, 2}), seen.All());
}

TEST_F(CDbusPortRouting, TakesAReplyLaterFromAnotherThread)
{
    CInbox<CRpcPort::ReplyFunction> replies;
    m_port.SetFunctionCallListener(
        [&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { replies.Put(reply); });
    MessagePtr const call = rawCall(m_server);
    dbus_uint32_t const serial = m_peer.Send(call.get());
    ASSERT_TRUE(replies.WaitForCount(1));
    std::thread([&] { replies.All().front()(listOf(31)); }).join();

    MessagePtr const answer = m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    ASSERT_NE(nullptr, answer);
    EXPECT_EQ(serial, dbus_message_get_reply_serial(answer.get()));
    EXPECT_EQ("0 0 31", describeBody(answer.get()));
}

TEST_F(CDbusPortRouting, TakesRepliesInAnotherOrderThanTheCalls)
{
    CInbox<CRpcPort::ReplyFunction> replies;
    m_port.SetFunctionCallListener(
        [&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { replies.Put(reply); });
    MessagePtr const call1 = rawCall(m_server);
    MessagePtr const call2 = rawCall(m_server);
    dbus_uint32_t const serial1 = m_peer.Send(call1.get());
    dbus_uint32_t const serial2 = m_peer.Send(call2.get());
    ASSERT_TRUE(replies.WaitForCount(2));
    replies.All()[1](listOf(2));
    replies.All()[0](listOf(1));

    MessagePtr const first = m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    MessagePtr const second = m_peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(serial2, dbus_message_get_reply_serial(first.get()));
    EXPECT_EQ("0 0 2", describeBody(first.get()));
    EXPECT_EQ(serial1, dbus_message_get_reply_serial(second.get()));
    EXPECT_EQ("0 0 1", describeBody(second.get()));
}

TEST_F(CDbusPortRouting, AnswersOnceHoweverOftenTheReplyFunctionIsCalled)
{
    CLogCapture log;
    m_port.SetFunctionCallListener([](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) {
        CRpcPort::ReplyFunction const copy = reply;
        reply(list);
        reply(listOf(-2));
        copy(listOf(-3));
    });
    EXPECT_EQ("0 0 1", describeBody(CallWithInt(1).get()));
    EXPECT_EQ("0 0 2", describeBody(CallWithInt(2).get()));

    // The bus passes no second answer on, so look at what was built, and at the bus's complaints.
    EXPECT_EQ(2, log.Count("nelo_rpc::dbus::fillDbusMessage, list="));
    EXPECT_EQ(0, log.Count("(CTypedValue<int> = -2)"));
    EXPECT_EQ(0, log.Count("(CTypedValue<int> = -3)"));
    EXPECT_EQ(0, countLines(log, ELevel::Error,
                            "CDbusPort::OnDbusMessage ignoring message from org.freedesktop.DBus with path="));
}

TEST_F(CDbusPortRouting, SurvivesAReplyToACallerThatIsGone)
{
    CInbox<CRpcPort::ReplyFunction> replies;
    m_port.SetFunctionCallListener(
        [&](CValueList const&, int, CRpcPort::ReplyFunction const& reply) { replies.Put(reply); });
    {
        CRawPeer caller;
        MessagePtr const call = rawCall(m_server);
        caller.Send(call.get());
        ASSERT_TRUE(replies.WaitForCount(1));
    }
    replies.All().front()(listOf(1));
    Listen();

    EXPECT_EQ("0 0 4", describeBody(CallWithInt(4).get()));
}

TEST_F(CDbusPortRouting, QueuesAResultThatIsHandedOverDirectly)
{
    MessagePtr const call = rawCall(m_server);
    dbus_message_set_sender(call.get(), m_peer.GetUniqueName().c_str());
    dbus_message_set_serial(call.get(), 4711);

    // The bus will not pass on what nobody asked for: what counts is that it was queued.
    EXPECT_TRUE(m_port.SendFunctionResult(call.get(), listOf(1)));
}

namespace
{

/// Counts the releases of messages of its own making.
class CReferences
{
public:
    CReferences() { dbus_message_allocate_data_slot(&m_slot); }
    ~CReferences() { dbus_message_free_data_slot(&m_slot); }

    DBusMessage* MakeCall(std::string const& destination, std::string const& sender)
    {
        MessagePtr call = rawCall(destination);
        dbus_message_set_sender(call.get(), sender.c_str());
        dbus_message_set_serial(call.get(), 1);
        dbus_message_set_data(call.get(), m_slot, &m_released, [](void* count) { ++*static_cast<int*>(count); });
        return call.release();
    }

    int Released() const { return m_released; }

private:
    dbus_int32_t m_slot = -1;
    int m_released = 0;
};

} // namespace

TEST_F(CDbusPortRouting, KeepsOneReferenceOfACallThatIsNeverAnswered)
{
    m_port.SetFunctionCallListener([](CValueList const&, int, CRpcPort::ReplyFunction const&) {});
    CReferences references;
    DBusMessage* const call = references.MakeCall(m_server, m_peer.GetUniqueName());
    m_port.OnDbusMessage(m_peer.GetConnection(), call);

    dbus_message_unref(call);
    EXPECT_EQ(0, references.Released()) << "one reference is left";
    dbus_message_unref(call);
    EXPECT_EQ(1, references.Released()) << "exactly one";
}

TEST_F(CDbusPortRouting, KeepsOneReferenceOfACallWithoutAListener)
{
    CReferences references;
    DBusMessage* const call = references.MakeCall(m_server, m_peer.GetUniqueName());
    m_port.OnDbusMessage(m_peer.GetConnection(), call);

    dbus_message_unref(call);
    EXPECT_EQ(0, references.Released());
    dbus_message_unref(call);
    EXPECT_EQ(1, references.Released());
}

TEST_F(CDbusPortRouting, ReleasesACallOnceWhenItIsAnswered)
{
    m_port.SetFunctionCallListener([](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
        reply({});
        reply({});
    });
    CReferences references;
    DBusMessage* const call = references.MakeCall(m_server, m_peer.GetUniqueName());
    dbus_message_ref(call); // shows a release too many instead of crashing on it
    m_port.OnDbusMessage(m_peer.GetConnection(), call);

    dbus_message_unref(call);
    EXPECT_EQ(0, references.Released()) << "the test's own reference is the last";
    dbus_message_unref(call);
    EXPECT_EQ(1, references.Released());
}

TEST_F(CDbusPortRouting, KeepsNoReferenceOfAnIgnoredMessage)
{
    Listen();
    CReferences references;
    DBusMessage* const call = references.MakeCall(m_server, m_peer.GetUniqueName());
    dbus_message_set_path(call, "/elsewhere");
    m_port.OnDbusMessage(m_peer.GetConnection(), call);

    dbus_message_unref(call);
    EXPECT_EQ(1, references.Released());
}

TEST_F(CDbusPortRouting, TakesCallsWithoutWaitingForAPollingPass)
{
    Listen();
    CallWithInt(0); // past the hold before the first dispatch

    // Each call is made when the one before is answered, so the receiver is idle each time: 200 ms a call,
    // if it slept through its idle time.
    constexpr int CALLS = 50;
    auto const start = steady_clock::now();
    for (int i = 0; i < CALLS; ++i)
    {
        ASSERT_NE(nullptr, CallWithInt(i));
    }
    EXPECT_LT(since(start), seconds(5));
}

TEST_F(CDbusPortRouting, CostsHardlyAnyProcessorTimeWhenIdle)
{
    Listen();
    CallWithInt(0);

    timespec before{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    EXPECT_EQ(nullptr, m_peer.Receive(DBUS_MESSAGE_TYPE_SIGNAL, seconds(2)));
    timespec after{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);

    auto const used = seconds(after.tv_sec - before.tv_sec) + std::chrono::nanoseconds(after.tv_nsec - before.tv_nsec);
    EXPECT_LT(used, milliseconds(300));
}
