#include "CFakePort.h"
#include "CLogCapture.h"
#include "CThingServer.h"
#include "Eventually.h"
#include "ExpectAbort.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

using namespace nelo_rpc;
using log::ELevel;

namespace
{
using Lines = std::vector<std::string>;

constexpr int PEER = 4;
constexpr int HONEST = 5;

/// What the host says of a call that it refuses.
std::string refusedLine(std::string const& cause)
{
    return "CRpcHost refused a call from :fake.4 in connectionId=4: " + cause;
}

SHostOptions untrusted()
{
    SHostOptions options = CThingServer::ShortLimits();
    options.peers = EPeers::Untrusted;
    return options;
}

/// A host that trusts nobody, with one client that behaves and has an actor.
class UntrustedHost : public ::testing::Test
{
protected:
    std::shared_ptr<CFakePort::CReply> Own(std::string const& function)
    {
        return m_server.port.Call(callOf(0, "CClientConnection", function), PEER);
    }

    template <class Argument>
    std::shared_ptr<CFakePort::CReply> Own(std::string const& function, Argument const& argument)
    {
        return m_server.port.Call(callOf(0, "CClientConnection", function, argument), PEER);
    }

    /// The call is refused with one error line, and nothing else comes of it.
    void ExpectRefused(types::CValueList const& call, std::string const& error, std::string const& cause)
    {
        int const made = m_server.MadeCount();
        int const lastId = CClientConnection::lastActorId;
        CLogCapture log;
        auto const reply = m_server.port.Call(call, PEER);
        ExpectRefusal(*reply, error, cause);

        EXPECT_EQ(Lines{refusedLine(cause)}, log.Texts(ELevel::Error));
        EXPECT_EQ(made, m_server.MadeCount());
        EXPECT_EQ(lastId, CClientConnection::lastActorId);
        ExpectHonestClientServed();
    }

    static void ExpectRefusal(CFakePort::CReply const& reply, std::string const& error, std::string const& cause)
    {
        auto const answer = reply.Wait();
        ASSERT_TRUE(answer);
        refusal::CRefusal const* const refusal = refusal::find(*answer);
        ASSERT_NE(nullptr, refusal) << types::toString(*answer);
        EXPECT_EQ(error, refusal->GetError());
        EXPECT_EQ(cause, refusal->GetCause());
        EXPECT_EQ(1, reply.Count());
    }

    void ExpectHonestClientServed()
    {
        EXPECT_EQ(types::toString(listOf(++m_sum)),
                  CThingServer::TextOf(*m_server.Call(HONEST, m_honestActor, "Add", 1)));
    }

    /// How many actors the destructor of the peer's connection finds, its own aside; ends the host.
    int CountActorsLeft()
    {
        CLogCapture log;
        m_server.host.reset();
        return log.Count("CClientConnection::dtor actor= ");
    }

    CThingServer m_server{untrusted()};
    int const m_honestActor = m_server.Ctor(HONEST);
    int m_sum = 0;
};

/// A call that is refused whatever there is in the server.
struct SCallRow
{
    char const* label;
    types::CValueList call;
    char const* error;
    char const* cause;
};

void PrintTo(SCallRow const& row, std::ostream* out)
{
    *out << row.label;
}

types::CValueList without(types::CValueList call, int index)
{
    call.erase(index);
    return call;
}

template <class Value>
types::CValueList with(types::CValueList call, int index, Value const& value)
{
    call[index] = types::makeValue<Value>(value);
    return call;
}

types::CValueList ownCall(std::string const& function)
{
    return callOf(0, "CClientConnection", function);
}

template <class Argument>
types::CValueList ownCall(std::string const& function, Argument const& argument)
{
    return callOf(0, "CClientConnection", function, argument);
}

std::vector<SCallRow> const ROWS = {
    {"Empty", {}, refusal::INVALID_ARGS, "an integer should be at ACTOR_ID (-2)"},
    {"NoActorId", without(callOf(1, "Thing", "Add", 1), -2), refusal::INVALID_ARGS,
     "an integer should be at ACTOR_ID (-2)"},
    {"TextAsActorId", with(callOf(1, "Thing", "Add", 1), -2, std::string("1")), refusal::INVALID_ARGS,
     "an integer should be at ACTOR_ID (-2)"},
    {"NoFunctionName", without(callOf(1, "Thing", "Add", 1), -1), refusal::INVALID_ARGS,
     "a string should be at METHOD_NAME (-1)"},
    {"NumberAsFunctionName", with(callOf(1, "Thing", "Add", 1), -1, 7), refusal::INVALID_ARGS,
     "a string should be at METHOD_NAME (-1)"},
    {"NoTypeName", without(callOf(1, "Thing", "Add", 1), -4), refusal::INVALID_ARGS,
     "a string should be at TYPE_NAME (-4)"},
    {"CTextAsTypeName", with<char const*>(callOf(1, "Thing", "Add", 1), -4, "Thing"), refusal::INVALID_ARGS,
     "a string should be at TYPE_NAME (-4)"},
    {"CtorOfAnUnknownType", ownCall("ctor", std::string("Nope")), refusal::INVALID_ARGS, "unknown type Nope"},
    {"CtorOfANumber", ownCall("ctor", 5), refusal::INVALID_ARGS,
     "argument 0 of ctor has another type than the function takes"},
    {"CtorOfACText", ownCall<char const*>("ctor", "Thing"), refusal::INVALID_ARGS,
     "argument 0 of ctor has another type than the function takes"},
    {"CtorOfNothing", ownCall("ctor"), refusal::INVALID_ARGS, "argument 0 of ctor is missing"},
    {"DtorOfAnUnknownId", ownCall("dtor", 1000000), refusal::UNKNOWN_OBJECT, "there is no actor 1000000"},
    {"DtorOfANegativeId", ownCall("dtor", -1), refusal::UNKNOWN_OBJECT, "there is no actor -1"},
    {"DtorOfAText", ownCall("dtor", std::string("1")), refusal::INVALID_ARGS,
     "argument 0 of dtor has another type than the function takes"},
    {"DtorOfNothing", ownCall("dtor"), refusal::INVALID_ARGS, "argument 0 of dtor is missing"},
    {"UnknownFunctionOfTheConnection", ownCall("Nope"), refusal::UNKNOWN_METHOD,
     "CClientConnection has no function Nope"},
    {"TheConnectionUnderAnotherType", callOf(0, "Thing", "Add", 1), refusal::INVALID_ARGS,
     "actor 0 is not of type Thing"},
    {"LostActorOfAnUnknownType", callOf(77, "Nope", "Add", 1), refusal::INVALID_ARGS, "unknown type Nope"},
    {"LostActorOfTheConnectionsType", callOf(77, "CClientConnection", "ctor", std::string("Thing")),
     refusal::UNKNOWN_OBJECT, "there is no actor 77"},
    {"LostActorWithANegativeId", callOf(-1, "Thing", "Add", 1), refusal::UNKNOWN_OBJECT, "there is no actor -1"},
    {"LostActorWithTheLowestId", callOf(std::numeric_limits<int>::min(), "Thing", "Add", 1), refusal::UNKNOWN_OBJECT,
     "there is no actor -2147483648"},
};

class UntrustedHostRow : public UntrustedHost, public ::testing::WithParamInterface<SCallRow>
{
};

} // namespace

// What is refused

TEST_P(UntrustedHostRow, IsRefusedWithTheCauseAndWithoutATrace)
{
    ExpectRefused(GetParam().call, GetParam().error, GetParam().cause);
    ExpectRefused(GetParam().call, GetParam().error, GetParam().cause); // it has not become known by the first one
    EXPECT_EQ(1, CountActorsLeft());
}

INSTANTIATE_TEST_SUITE_P(Calls, UntrustedHostRow, ::testing::ValuesIn(ROWS),
                         [](auto const& instance) { return std::string(instance.param.label); });

TEST_F(UntrustedHost, RefusesAFunctionThatTheActorDoesNotHave)
{
    int const id = m_server.Ctor(PEER);

    ExpectRefused(callOf(id, "Thing", "Nope"), refusal::UNKNOWN_METHOD, "Thing has no function Nope");
}

TEST_F(UntrustedHost, RefusesArgumentsThatTheFunctionDoesNotTake)
{
    int const id = m_server.Ctor(PEER);

    ExpectRefused(callOf(id, "Thing", "Add"), refusal::INVALID_ARGS, "argument 0 of Add is missing");
    ExpectRefused(callOf(id, "Thing", "Add", std::string("1")), refusal::INVALID_ARGS,
                  "argument 0 of Add has another type than the function takes");
    auto const events = m_server.port.Events();
    EXPECT_EQ(0, std::count(events.begin(), events.end(), "run Add") - m_sum) << "only the other client's";
}

TEST_F(UntrustedHost, RefusesAnActorUnderAnotherTypeThanItsOwn)
{
    int const id = m_server.Ctor(PEER);

    ExpectRefused(callOf(id, "Other", "Add", 1), refusal::INVALID_ARGS,
                  "actor " + std::to_string(id) + " is not of type Other");
    ExpectRefused(callOf(id, "CClientConnection", "ctor", std::string("Thing")), refusal::INVALID_ARGS,
                  "actor " + std::to_string(id) + " is not of type CClientConnection");
}

TEST_F(UntrustedHost, RefusesToDestroyAnActorTwiceAndThatOfAnotherClient)
{
    int const id = m_server.Ctor(PEER);
    ASSERT_EQ("{0 = (CBinaryValue[bool=true]) | }", m_server.Dtor(PEER, id));

    ExpectRefused(ownCall("dtor", id), refusal::UNKNOWN_OBJECT, "there is no actor " + std::to_string(id));
    ExpectRefused(ownCall("dtor", m_honestActor), refusal::UNKNOWN_OBJECT,
                  "there is no actor " + std::to_string(m_honestActor));
    EXPECT_EQ(1U, m_server.Destroyed().size());
}

TEST_F(UntrustedHost, DoesNotKeepALostActorThatCannotBeCalled)
{
    for (auto const& call : {callOf(77, "Thing", "Nope"), callOf(77, "Thing", "Add")})
    {
        std::size_t const before = m_server.Destroyed().size();
        auto const reply = m_server.port.Call(call, PEER);
        auto const answer = reply->Wait();

        ASSERT_TRUE(answer);
        EXPECT_NE(nullptr, refusal::find(*answer)) << types::toString(*answer);
        EXPECT_EQ(before + 1, m_server.Destroyed().size()) << "its object was made to find out what it has";
    }
    EXPECT_TRUE(m_server.port.Callbacks().empty()) << "there was nothing to tell the client";
    ExpectHonestClientServed();
    EXPECT_EQ(1, CountActorsLeft());
}

TEST_F(UntrustedHost, GivesAPeerThatCannotAddressACallNoConnection)
{
    CLogCapture log;
    m_server.port.Call({}, PEER)->Wait();
    m_server.host.reset();

    EXPECT_EQ(1, log.Count("CClientConnection::~CClientConnection")) << "only the other client's";
}

TEST_F(UntrustedHost, ShowsNamesOfPeersOnOneLineAndShortened)
{
    ExpectRefused(ownCall("ctor", std::string("a\nb\r\x1b[0m\x7f")), refusal::INVALID_ARGS, "unknown type a?b??[0m?");
    ExpectRefused(ownCall("ctor", std::string(100, 'x')), refusal::INVALID_ARGS,
                  "unknown type " + std::string(100, 'x'));
    ExpectRefused(ownCall("ctor", std::string(1000, 'x')), refusal::INVALID_ARGS,
                  "unknown type " + std::string(100, 'x') + "...");
    ExpectRefused(ownCall("ctor", std::string(99, 'x') + "\xC3\xA4"), refusal::INVALID_ARGS,
                  "unknown type " + std::string(99, 'x') + "...");
    ExpectRefused(ownCall("ctor", std::string("k\xC3\xA4se")), refusal::INVALID_ARGS, "unknown type k\xC3\xA4se");
}

// What is not

TEST_F(UntrustedHost, CarriesOutWhatMakesSense)
{
    CLogCapture log;
    int const id = m_server.Ctor(PEER);
    EXPECT_EQ(types::toString(listOf(7)), CThingServer::TextOf(*m_server.Call(PEER, id, "Add", 7)));
    auto more = callOf(id, "Thing", "Add", 1, std::string("more than it takes"));
    more[protocol::CONNECTION_ID] = types::makeValue<int>(99);
    EXPECT_EQ(types::toString(listOf(8)), CThingServer::TextOf(*m_server.port.Call(more, PEER)));
    EXPECT_EQ(0, m_server.Ctor(PEER, "CClientConnection"));
    EXPECT_EQ("{0 = (CBinaryValue[bool=true]) | }", m_server.Dtor(PEER, 0));
    EXPECT_EQ("{0 = (CBinaryValue[bool=true]) | }", m_server.Dtor(PEER, id));

    EXPECT_EQ(0, log.Count("refused"));
}

TEST_F(UntrustedHost, MakesALostActorAgainAndTellsItsClient)
{
    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*m_server.Call(PEER, 77, "Add", 3)));
    EXPECT_EQ(types::toString(listOf(4)), CThingServer::TextOf(*m_server.Call(PEER, 77, "Add", 1)));

    ASSERT_EQ(1U, m_server.port.Callbacks().size());
    EXPECT_EQ(types::toString(callbackOf(77, "OnRecreate")), types::toString(m_server.port.Callbacks()[0].list));
    EXPECT_EQ("{0 = (CBinaryValue[bool=true]) | }", m_server.Dtor(PEER, 77));
}

TEST_F(UntrustedHost, HandsOutNoIdThatTheClientHasInUse)
{
    int const next = CClientConnection::lastActorId + 1;
    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*m_server.Call(PEER, next, "Add", 3)));
    EXPECT_EQ(types::toString(listOf(4)), CThingServer::TextOf(*m_server.Call(PEER, next + 1, "Add", 4)));
    CLogCapture log;

    EXPECT_EQ(next + 2, m_server.Ctor(PEER));
    EXPECT_FALSE(log.Contains("should not repeat"));
    EXPECT_EQ(4, CountActorsLeft()) << "none was left behind";
}

TEST_F(UntrustedHost, HandsOutTheFirstIdsAgainAfterTheLast)
{
    m_server.Call(PEER, 2, "Add", 1)->Wait();
    CClientConnection::lastActorId = std::numeric_limits<int>::max() - 1;

    EXPECT_EQ(std::numeric_limits<int>::max(), m_server.Ctor(PEER));
    EXPECT_EQ(1, m_server.Ctor(PEER));
    EXPECT_EQ(3, m_server.Ctor(PEER)) << "2 is in use";
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*m_server.Call(PEER, 2, "Add", 1)));
}

TEST_F(UntrustedHost, LeavesTheArgumentsOfAFunctionThatTakesAListToIt)
{
    m_server.onSetup = [](CActor& actor) {
        actor.AddFunction("Echo", ValueListFunction([](types::CValueList const& call) { return call; }));
    };
    auto const call = callOf(m_server.Ctor(PEER), "Thing", "Echo", std::string("anything"));

    EXPECT_EQ(types::toString(call), CThingServer::TextOf(*m_server.port.Call(call, PEER)));
}

TEST_F(UntrustedHost, LogsNoRefusalThatAFunctionAnswersItself)
{
    m_server.onSetup = [](CActor& actor) {
        actor.AddFunction("Refuse", ValueListFunction([](types::CValueList const&) {
                              return refusal::make(refusal::ACCESS_DENIED, "not today");
                          }));
    };
    int const id = m_server.Ctor(PEER);
    CLogCapture log;

    ExpectRefusal(*m_server.Call(PEER, id, "Refuse"), refusal::ACCESS_DENIED, "not today");
    EXPECT_TRUE(log.Texts(ELevel::Error).empty());
}

TEST_F(UntrustedHost, TakesWhatAKillHasLostForLost)
{
    int const id = m_server.Ctor(PEER);
    auto const hung = m_server.Call(PEER, id, "Hang");
    EXPECT_EQ("{}", CThingServer::TextOf(*hung));
    ASSERT_TRUE(m_server.port.WaitForCallbacks(1)) << "OnKill";

    // A proxy that is destroyed without a call since the kill.
    ExpectRefusal(*Own("dtor", id), refusal::UNKNOWN_OBJECT, "there is no actor " + std::to_string(id));
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*m_server.Call(PEER, id, "Add", 2)));
    ExpectHonestClientServed();
}

// Exceptions

TEST_F(UntrustedHost, OutlivesAnExceptionOfAFunctionAndDoesNotTellThePeerWhatItSays)
{
    m_server.run = [](CThing&) { throw std::runtime_error("the password is wrong"); };
    int const id = m_server.Ctor(PEER);
    CLogCapture log;

    ExpectRefusal(*m_server.Call(PEER, id, "Run"), refusal::FAILED, "Run ended with an exception");
    EXPECT_EQ(Lines{"CClientConnection::OnFunctionCallSync Thing:Run ended with an exception: the password is wrong"},
              log.Texts(ELevel::Error));
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*m_server.Call(PEER, id, "Add", 2)));
    ExpectHonestClientServed();
}

TEST_F(UntrustedHost, ShowsWhatAnExceptionSaysOnOneLineAndShortened)
{
    m_server.run = [](CThing&) { throw std::runtime_error("a\nb" + std::string(1000, 'x')); };
    int const id = m_server.Ctor(PEER);
    CLogCapture log;
    m_server.Call(PEER, id, "Run")->Wait();

    EXPECT_EQ(Lines{"CClientConnection::OnFunctionCallSync Thing:Run ended with an exception: a?b" +
                    std::string(497, 'x') + "..."},
              log.Texts(ELevel::Error));
}

TEST_F(UntrustedHost, CanStillKillAWorkerAfterAnException)
{
    m_server.run = [](CThing&) { throw std::runtime_error("on purpose"); };
    int const id = m_server.Ctor(PEER);
    m_server.Call(PEER, id, "Run")->Wait();

    EXPECT_EQ("{}", CThingServer::TextOf(*m_server.Call(PEER, id, "Hang")));
    EXPECT_TRUE(eventually([&] { return m_server.hang.IsGone(); })) << "it was cancelled and not cut off";
    ExpectHonestClientServed();
}

TEST_F(UntrustedHost, DestroysAnObjectWhoseSetupThrew)
{
    m_server.onSetup = [](CActor&) { throw std::runtime_error("on purpose"); };

    ExpectRefusal(*Own("ctor", std::string("Thing")), refusal::FAILED, "ctor ended with an exception");
    EXPECT_EQ(std::vector<int>{2}, m_server.Destroyed());
    ExpectRefusal(*m_server.Call(PEER, 77, "Add", 1), refusal::FAILED, "Add ended with an exception");
    EXPECT_EQ((std::vector<int>{2, 3}), m_server.Destroyed());
    m_server.onSetup = {};
    EXPECT_LT(0, m_server.Ctor(PEER));
    ExpectHonestClientServed();
}

TEST(UntrustedHostDeathTest, EndsWhenAnObjectsDestructionThrows)
{
    EXPECT_ABORT(
        {
            CThingServer server(untrusted());
            server.onDestroy = [](CThing&) { throw std::runtime_error("on purpose"); };
            server.Dtor(PEER, server.Ctor(PEER));
        },
        "on purpose");
}

// The default

TEST(TrustingHost, IsTheDefault)
{
    EXPECT_EQ(EPeers::Trusted, SHostOptions().peers);
}

TEST(TrustingHostDeathTest, EndsWithWhatAnUntrustingOneRefuses)
{
    auto const callOnNewServer = [](types::CValueList const& call) {
        CThingServer server;
        server.port.Call(call, PEER)->Wait();
    };
    EXPECT_ABORT(callOnNewServer({}), "wrong type in CValue");
    EXPECT_ABORT(callOnNewServer(ownCall("ctor", std::string("Nope"))), "Unknown type Nope");
    EXPECT_ABORT(callOnNewServer(ownCall("ctor", 5)), "wrong type in CValue");
    EXPECT_ABORT(callOnNewServer(ownCall("dtor", 1000000)), "Shouldn't try to destroy nullptr actor");
    EXPECT_ABORT(callOnNewServer(callOf(77, "Thing", "Add", std::string("1"))), "wrong type in CValue");
}

TEST(TrustingHostDeathTest, EndsWithAnExceptionOfAFunction)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            server.run = [](CThing&) { throw std::runtime_error("on purpose"); };
            server.Call(PEER, server.Ctor(PEER), "Run")->Wait();
        },
        "on purpose");
}
