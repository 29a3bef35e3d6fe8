#include "UntrustedPeers.h"

#include <functional>
#include <random>

namespace
{

constexpr char const* INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr char const* UNKNOWN_METHOD = "org.freedesktop.DBus.Error.UnknownMethod";
constexpr char const* UNKNOWN_OBJECT = "org.freedesktop.DBus.Error.UnknownObject";
constexpr char const* UNKNOWN_INTERFACE = "org.freedesktop.DBus.Error.UnknownInterface";

class CDbusPortUntrusted : public CBusTest
{
protected:
    CDbusPortUntrusted()
    {
        m_port.SetFunctionCallListener([this](CValueList const&, int id, CRpcPort::ReplyFunction const& reply) {
            m_callers.Put(id);
            reply(listOf(id));
        });
        m_port.SetCallbackListener([this](CValueList const& list) { m_callbacks.Put(toString(list)); });
    }

    void ExpectRefused(DBusMessage* call, std::string const& error, std::string const& cause)
    {
        CLogCapture log;
        MessagePtr const answer = m_peer.Call(call);

        EXPECT_EQ(error, errorNameOf(answer));
        ASSERT_NE(nullptr, answer);
        EXPECT_EQ('"' + cause + '"', describeBody(answer.get()));
        EXPECT_EQ(1,
                  countLines(log, ELevel::Error,
                             "CDbusPort::OnDbusMessage refused a call from " + m_peer.GetUniqueName() + ": " + cause));
        EXPECT_EQ(1, countErrorsAbout(log, m_peer.GetUniqueName()));
        EXPECT_EQ(0u, m_callers.Count());
    }

    void ExpectAnswersAsTheFirstPeerHeardOf()
    {
        MessagePtr const answer = m_peer.Call(addressedCall(m_server).get());
        ASSERT_NE(nullptr, answer);
        EXPECT_EQ("0 0 0", describeBody(answer.get()));
    }

    CRawPeer m_peer;
    CInbox<int> m_callers;
    CInbox<std::string> m_callbacks;
    CDbusPort m_port{m_server.c_str(), true, untrusted()};
};

/// A body that no call may have, and what is said about it.
struct SBody
{
    char const* label;
    std::function<void(DBusMessage*)> fill;
    char const* cause;
    bool isGoodSignal = false;
};

void PrintTo(SBody const& body, std::ostream* out)
{
    *out << body.label;
}

void putInts(DBusMessage* message, std::vector<int> const& values)
{
    for (int const value : values)
    {
        dbus_message_append_args(message, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID);
    }
}

void putText(DBusMessage* message, char const* text)
{
    dbus_message_append_args(message, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
}

/// An address, and ill-formed arguments behind it.
std::function<void(DBusMessage*)> addressAnd(std::function<void(DBusMessage*)> const& fill)
{
    return [fill](DBusMessage* message) {
        putAddress(message);
        fill(message);
    };
}

std::vector<SBody> const BODIES = {
    {"Empty", [](DBusMessage*) {}, "an integer should be at ACTOR_ID (-2)"},
    {"TextAsIndex", addressAnd([](DBusMessage* m) { putText(m, "x"); }), "Integer should be in DBusMessage"},
    {"IndexAlone", addressAnd([](DBusMessage* m) { putInts(m, {0}); }), "Integer should be in DBusMessage"},
    {"NoInteger", addressAnd([](DBusMessage* m) {
         putInts(m, {0, 0});
     }),
     "Integer should be in DBusMessage"},
    {"NoText", addressAnd([](DBusMessage* m) {
         putInts(m, {0, 1, 5});
     }),
     "String should be in DBusMessage"},
    {"NoCText", addressAnd([](DBusMessage* m) {
         putInts(m, {0, 2, 5});
     }),
     "String should be in DBusMessage"},
    {"NoBytes", addressAnd([](DBusMessage* m) {
         putInts(m, {0, 3, 5});
     }),
     "Byte array should be in DBusMessage"},
    {"UnknownTag", addressAnd([](DBusMessage* m) {
         putInts(m, {3, 4, 5});
     }),
     "Unknown type inside DBusMessage: 4 for map index 3"},
    {"NoActorId",
     [](DBusMessage* m) {
         putString(m, -4, "Thing");
         putString(m, -1, "Do");
     },
     "an integer should be at ACTOR_ID (-2)"},
    {"TextAsActorId",
     [](DBusMessage* m) {
         putString(m, -4, "Thing");
         putString(m, -2, "1");
         putString(m, -1, "Do");
     },
     "an integer should be at ACTOR_ID (-2)"},
    {"NoMethodName",
     [](DBusMessage* m) {
         putString(m, -4, "Thing");
         putInt(m, -2, 1);
     },
     "a string should be at METHOD_NAME (-1)"},
    {"CTextAsMethodName",
     [](DBusMessage* m) {
         putString(m, -4, "Thing");
         putInt(m, -2, 1);
         putCString(m, -1, "Do");
     },
     "a string should be at METHOD_NAME (-1)"},
    {"NoTypeName",
     [](DBusMessage* m) {
         putInt(m, -2, 1);
         putString(m, -1, "Do");
     },
     "a string should be at TYPE_NAME (-4)", true},
    {"BytesAsTypeName",
     [](DBusMessage* m) {
         putAddress(m);
         putBytes(m, -4, {1, 2}, 0);
     },
     "a string should be at TYPE_NAME (-4)", true},
};

class CDbusPortUntrustedBody : public CDbusPortUntrusted, public ::testing::WithParamInterface<SBody>
{
};

} // namespace

TEST_F(CDbusPortUntrusted, TakesACallAndASignalOfTheProtocol)
{
    MessagePtr const signal = rawSignal(m_server);
    putInt(signal.get(), -2, 1);
    putString(signal.get(), -1, "OnDone");
    m_peer.Send(signal.get());
    ExpectAnswersAsTheFirstPeerHeardOf();

    EXPECT_EQ(1u, m_callbacks.Count());
    EXPECT_EQ(m_peer.GetUniqueName(), m_port.GetPeerName(0));
}

TEST_F(CDbusPortUntrusted, TakesACallThatLeavesItsInterfaceOut)
{
    MessagePtr const call(dbus_message_new_method_call(m_server.c_str(), WIRE_PATH, nullptr, WIRE_MEMBER));
    putAddress(call.get());
    MessagePtr const answer = m_peer.Call(call.get());

    ASSERT_NE(nullptr, answer);
    EXPECT_EQ("0 0 0", describeBody(answer.get()));
}

TEST_P(CDbusPortUntrustedBody, OfACallIsRefusedWithTheCauseAndGivesNoId)
{
    MessagePtr const call = rawCall(m_server);
    GetParam().fill(call.get());
    {
        CRawPeer stranger;
        stranger.Call(call.get());
    }
    MessagePtr const again = rawCall(m_server);
    GetParam().fill(again.get());
    ExpectRefused(again.get(), INVALID_ARGS, GetParam().cause);
    ExpectAnswersAsTheFirstPeerHeardOf();
}

TEST_P(CDbusPortUntrustedBody, OfASignalIsDroppedWithOneErrorLineAndGivesNoId)
{
    CLogCapture log;
    MessagePtr const signal = rawSignal(m_server);
    GetParam().fill(signal.get());
    m_peer.Send(signal.get());
    ExpectAnswersAsTheFirstPeerHeardOf();

    bool const isDropped = !GetParam().isGoodSignal; // a signal needs no type
    EXPECT_EQ(isDropped ? 1 : 0, countLines(log, ELevel::Error,
                                            "CDbusPort::OnDbusMessage refused a message from " +
                                                m_peer.GetUniqueName() + ": " + GetParam().cause));
    EXPECT_EQ(isDropped ? 0u : 1u, m_callbacks.Count());
}

INSTANTIATE_TEST_SUITE_P(Bodies, CDbusPortUntrustedBody, ::testing::ValuesIn(BODIES),
                         [](auto const& instance) { return std::string(instance.param.label); });

TEST_F(CDbusPortUntrusted, RefusesAnotherInterface)
{
    MessagePtr const call(dbus_message_new_method_call(m_server.c_str(), WIRE_PATH, "org.other", WIRE_MEMBER));
    putAddress(call.get());

    ExpectRefused(call.get(), UNKNOWN_INTERFACE, "the interface should be org.trelin.nelo_rpc.Event");
    ExpectAnswersAsTheFirstPeerHeardOf();
}

TEST_F(CDbusPortUntrusted, RefusesAnotherMember)
{
    for (char const* const interface : {WIRE_INTERFACE, static_cast<char const*>(nullptr)})
    {
        MessagePtr const call(dbus_message_new_method_call(m_server.c_str(), WIRE_PATH, interface, "Other"));
        putAddress(call.get());

        ExpectRefused(call.get(), UNKNOWN_METHOD, "the member should be Call");
    }
    ExpectAnswersAsTheFirstPeerHeardOf();
}

TEST_F(CDbusPortUntrusted, DropsASignalOfAnotherInterfaceOrMember)
{
    CLogCapture log;
    for (auto const& [interface, member] : {std::pair("org.other", WIRE_MEMBER), std::pair(WIRE_INTERFACE, "Other")})
    {
        MessagePtr const signal(dbus_message_new_signal(WIRE_PATH, interface, member));
        dbus_message_set_destination(signal.get(), m_server.c_str());
        putAddress(signal.get());
        m_peer.Send(signal.get());
    }
    ExpectAnswersAsTheFirstPeerHeardOf();

    EXPECT_EQ(0u, m_callbacks.Count());
    EXPECT_EQ(2, countLinesThatBegin(log, ELevel::Error,
                                     "CDbusPort::OnDbusMessage refused a message from " + m_peer.GetUniqueName()));
}

TEST_F(CDbusPortUntrusted, SendsNoErrorToACallerThatWantsNoReply)
{
    CLogCapture log;
    MessagePtr const call = rawCall(m_server);
    dbus_message_set_no_reply(call.get(), TRUE);
    m_peer.Send(call.get());

    EXPECT_TRUE(log.WaitFor("CDbusPort::OnDbusMessage refused a call from " + m_peer.GetUniqueName()));
    EXPECT_EQ(nullptr, m_peer.Receive(DBUS_MESSAGE_TYPE_ERROR, milliseconds(300)));
    ExpectAnswersAsTheFirstPeerHeardOf();
}

TEST_F(CDbusPortUntrusted, KnowsNoObjectWithAnotherPath)
{
    CLogCapture log;
    MessagePtr const call = rawCall(m_server, "/elsewhere");
    EXPECT_EQ(UNKNOWN_OBJECT, errorNameOf(m_peer.Call(call.get())));

    EXPECT_EQ(1, countErrorsAbout(log, m_peer.GetUniqueName()));
}

TEST_F(CDbusPortUntrusted, DropsAMessageThatIsNeitherCallNorSignal)
{
    for (int const type : {DBUS_MESSAGE_TYPE_METHOD_RETURN, DBUS_MESSAGE_TYPE_ERROR, 5, 200})
    {
        CLogCapture log;
        MessagePtr const message(dbus_message_new(type));
        dbus_message_set_path(message.get(), WIRE_PATH);
        dbus_message_set_sender(message.get(), ":9.9");
        putAddress(message.get());

        EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, m_port.OnDbusMessage(m_peer.GetConnection(), message.get()));
        EXPECT_EQ(1, countErrorsAbout(log, ":9.9: neither a call nor a signal"));
    }
    ExpectAnswersAsTheFirstPeerHeardOf();
}

TEST_F(CDbusPortUntrusted, DoesNotAnswerAMessageThatWasNeverSent)
{
    MessagePtr const call = rawCall(m_server);
    dbus_message_set_sender(call.get(), ":9.9");

    EXPECT_EQ(DBUS_HANDLER_RESULT_HANDLED, m_port.OnDbusMessage(m_peer.GetConnection(), call.get()));
}

TEST_F(CDbusPortUntrusted, RefusesCallsWhileNothingTakesThem)
{
    m_port.SetFunctionCallListener({});

    ExpectRefused(addressedCall(m_server).get(), UNKNOWN_OBJECT, "nothing takes calls here");
}

TEST_F(CDbusPortUntrusted, SurvivesBodiesOfAnyForm)
{
    std::mt19937 random(20240918); // the same in every run
    int errors = 0;
    for (int round = 0; round < 300; ++round)
    {
        MessagePtr const message = round % 3 == 0 ? rawSignal(m_server) : rawCall(m_server);
        for (auto count = random() % 12; count > 0; --count)
        {
            double const number = 0.5;
            switch (random() % 5)
            {
            case 0:
                putText(message.get(), "text");
                break;
            case 1:
                dbus_message_append_args(message.get(), DBUS_TYPE_DOUBLE, &number, DBUS_TYPE_INVALID);
                break;
            case 2:
                putBytes(message.get(), static_cast<int>(random() % 6) - 4, {1}, 1);
                break;
            default:
                putInts(message.get(), {static_cast<int>(random() % 8) - 4});
            }
        }
        if (round % 3 == 0)
        {
            m_peer.Send(message.get());
        }
        else
        {
            errors += errorNameOf(m_peer.Call(message.get())) == INVALID_ARGS ? 1 : 0;
        }
    }
    EXPECT_EQ(200, errors); // none has an address
    ExpectAnswersAsTheFirstPeerHeardOf();
}

// ---- introspection ----

namespace
{

/// What an object says of itself; the error's name if it says nothing.
std::string introspect(CRawPeer& peer, std::string const& destination, char const* path)
{
    MessagePtr const call(
        dbus_message_new_method_call(destination.c_str(), path, DBUS_INTERFACE_INTROSPECTABLE, "Introspect"));
    MessagePtr const answer = peer.Call(call.get());
    return errorNameOf(answer).empty() && answer != nullptr ? describeBody(answer.get()) : errorNameOf(answer);
}

bool contains(std::string const& text, std::string const& part)
{
    return text.find(part) != std::string::npos;
}

} // namespace

TEST_F(CDbusPortUntrusted, DescribesItsObject)
{
    CLogCapture log;
    std::string const text = introspect(m_peer, m_server, WIRE_PATH);

    EXPECT_TRUE(contains(text, "<interface name=\"org.trelin.nelo_rpc.Event\">")) << text;
    EXPECT_TRUE(contains(text, "<method name=\"Call\"/>")) << text;
    EXPECT_TRUE(contains(text, "<signal name=\"Call\"/>")) << text;
    EXPECT_TRUE(contains(text, "<interface name=\"org.freedesktop.DBus.Introspectable\">")) << text;
    EXPECT_TRUE(contains(text, "<interface name=\"org.freedesktop.DBus.Peer\">")) << text;
    EXPECT_EQ(0, countErrorsAbout(log, m_peer.GetUniqueName()));
    ExpectAnswersAsTheFirstPeerHeardOf();
}

TEST_F(CDbusPortUntrusted, ShowsTheWayToItsObject)
{
    EXPECT_TRUE(contains(introspect(m_peer, m_server, "/"), "<node name=\"org\"/>"));
    EXPECT_TRUE(contains(introspect(m_peer, m_server, "/org"), "<node name=\"trelin\"/>"));
    EXPECT_TRUE(contains(introspect(m_peer, m_server, "/org/trelin"), "<node name=\"nelo_rpc\"/>"));
}

TEST_F(CDbusPortUntrusted, DescribesNothingElse)
{
    for (char const* const path : {"/com", "/org/trelin/nelo_rpc/child", "/org/trel", "/org/trelin/nelo_rpcs"})
    {
        EXPECT_EQ(UNKNOWN_OBJECT, introspect(m_peer, m_server, path)) << path;
    }
}

TEST_F(CDbusPortUntrusted, RefusesAnIntrospectionWithArguments)
{
    MessagePtr const call(
        dbus_message_new_method_call(m_server.c_str(), WIRE_PATH, DBUS_INTERFACE_INTROSPECTABLE, "Introspect"));
    putInts(call.get(), {1});

    EXPECT_EQ(UNKNOWN_INTERFACE, errorNameOf(m_peer.Call(call.get())));
}

TEST_F(CDbusPortUntrusted, AnswersAPingAndTellsTheMachine)
{
    for (char const* const member : {"Ping", "GetMachineId"})
    {
        MessagePtr const call(dbus_message_new_method_call(m_server.c_str(), WIRE_PATH, DBUS_INTERFACE_PEER, member));
        MessagePtr const answer = m_peer.Call(call.get());
        ASSERT_NE(nullptr, answer);
        EXPECT_EQ(DBUS_MESSAGE_TYPE_METHOD_RETURN, dbus_message_get_type(answer.get())) << member;
    }
}

// ---- clients ----

namespace
{

/// A client's port, with and without a thread that delivers its callbacks.
class CUntrustingClient : public CBusTest, public ::testing::WithParamInterface<bool>
{
protected:
    CUntrustingClient()
    {
        m_port.SetCallbackListener([this](CValueList const& list) { m_callbacks.Put(toString(list)); });
        if (GetParam())
        {
            m_delivery = std::make_unique<nelo_rpc::CCallbackDelivery>(m_port);
        }
    }

    CInbox<std::string> m_callbacks;
    CDbusPort m_port{m_client.c_str(), m_server.c_str(), false, untrusted()};
    std::unique_ptr<nelo_rpc::CCallbackDelivery> m_delivery;
};

} // namespace

TEST_P(CUntrustingClient, TakesAnIllFormedReplyForNone)
{
    CRawServer const server(m_server, [](CRawPeer& peer, MessagePtr const& call) {
        MessagePtr const answer(dbus_message_new_method_return(call.get()));
        putInt(answer.get(), 0, 1);
        putText(answer.get(), "behind it");
        peer.Send(answer.get());
    });
    CLogCapture log;

    EXPECT_TRUE(m_port.CallFunction(listOf(1), 0).empty());
    // The bus's own first signal to the port may leave a line of its own, sooner or later.
    EXPECT_EQ(1, countLines(log, ELevel::Error, "Dbus error: ill-formed reply: Integer should be in DBusMessage"));
    EXPECT_EQ(1, countLines(log, ELevel::Error, "CDbusPort::SendMessage received empty reply"));
}

TEST_P(CUntrustingClient, TakesAReplyWithoutAnAddress)
{
    CEchoPort const server(m_server);

    EXPECT_EQ(7, intOf(m_port.CallFunction(listOf(7), 0)));
}

INSTANTIATE_TEST_SUITE_P(Delivery, CUntrustingClient, ::testing::Bool(),
                         [](auto const& instance) { return instance.param ? "ByAThread" : "ByNobody"; });

class CDbusPortUntrustedClient : public CBusTest
{
};

TEST_F(CDbusPortUntrustedClient, RefusesACallWhileACallOfItsOwnIsUnderWay)
{
    // The thread that refuses is the one that the caller waits for.
    CInbox<std::string> errors;
    CRawServer const server(m_server, [&](CRawPeer& peer, MessagePtr const& call) {
        errors.Put(errorNameOf(peer.Call(addressedCall(textOf(dbus_message_get_sender(call.get()))).get())));
        answerInt(peer, call.get(), 5);
    });
    CDbusPort port(m_client.c_str(), m_server.c_str(), false, untrusted());
    port.SetFunctionCallListener(
        [](CValueList const& list, int, CRpcPort::ReplyFunction const& reply) { reply(list); }); // stops the process
    nelo_rpc::CCallbackDelivery const delivery(port);

    EXPECT_EQ(5, intOf(port.CallFunction(listOf(1), 0)));
    EXPECT_EQ(std::vector<std::string>{UNKNOWN_OBJECT}, errors.All());
}

TEST_F(CDbusPortUntrustedClient, LivesOnBehindCallbacksThatNameNoActor)
{
    CInbox<std::string> names;
    CRawServer const server(
        m_server, [&](CRawPeer&, MessagePtr const& call) { names.Put(textOf(dbus_message_get_sender(call.get()))); });
    CDbusPort port(m_client.c_str(), m_server.c_str(), false, untrusted());
    port.SetTimeoutMs(1);
    nelo_rpc::CRpcClient client(port);
    CGate called;
    nelo_rpc::CProxyCallback<>(*client.GetConnectionProxy(), "OnKill").Subscribe([&] { called.Open(); });
    nelo_rpc::CCallbackDelivery const delivery(port);
    port.CallFunction(listOf(1), 0);
    ASSERT_TRUE(names.WaitForCount(1));
    CRawPeer peer;
    for (SBody const& body : BODIES)
    {
        MessagePtr const signal = rawSignal(names.All().front());
        body.fill(signal.get());
        peer.Send(signal.get());
    }
    MessagePtr const signal = rawSignal(names.All().front());
    putInt(signal.get(), -2, 0);
    putString(signal.get(), -1, "OnKill");
    peer.Send(signal.get());

    EXPECT_TRUE(called.Wait());
}

TEST_F(CDbusPortUntrustedClient, IsRecommended)
{
    EXPECT_EQ(nelo_rpc::EPeers::Trusted, nelo_rpc::SPortOptions().peers);
    EXPECT_EQ(nelo_rpc::EPeers::Untrusted, nelo_rpc::SPortOptions::Recommended().peers);
}

TEST_F(CDbusPortUntrusted, PortSendsNoAnswerToWhoWaitsForNone)
{
    CLogCapture log;
    MessagePtr const call = addressedCall(m_server);
    dbus_message_set_no_reply(call.get(), TRUE);
    m_peer.Send(call.get());
    ExpectAnswersAsTheFirstPeerHeardOf();

    EXPECT_EQ(2u, m_callers.Count());
    EXPECT_EQ(0, countLines(log, ELevel::Error,
                            "CDbusPort::OnDbusMessage ignoring message from org.freedesktop.DBus with path="))
        << "the bus has sent an error about the answer";
}

TEST_F(CDbusPortUntrusted, PortAnswersWithAnErrorWhereAValueCannotBeSent)
{
    m_port.SetFunctionCallListener([](CValueList const&, int, CRpcPort::ReplyFunction const& reply) {
        CValueList list;
        list[0] = nelo_rpc::types::makeValue(true); // of a class without a tag
        reply(list);
    });
    CLogCapture log;
    MessagePtr const answer = m_peer.Call(addressedCall(m_server).get());

    EXPECT_EQ(DBUS_ERROR_FAILED, errorNameOf(answer));
    EXPECT_EQ(1, countErrorsAbout(log, "CDbusPort::SendFunctionResult to " + m_peer.GetUniqueName()));
}
