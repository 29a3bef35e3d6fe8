#include "CFakePort.h"
#include "CInbox.h"
#include "CLogCapture.h"
#include "CThingServer.h"
#include "Eventually.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace nelo_rpc;
using log::ELevel;

namespace
{
using Lines = std::vector<std::string>;

constexpr int ALICE = 4;
constexpr int BOB = 5;
constexpr int NOBODY = 6; // of whom the bus does not say who it is

std::string const OWN = "CClientConnection";

/// A server that asks about each call; the test says what it answers, and sees what was asked.
class HostAuthorize : public ::testing::TestWithParam<EPeers>
{
protected:
    HostAuthorize()
    {
        m_server.port.SetCredentials(ALICE, {1000, 100, 77});
        m_server.port.SetCredentials(BOB, {1001, 101, 78});
    }

    SHostOptions Options()
    {
        SHostOptions options = CThingServer::ShortLimits();
        options.peers = GetParam();
        options.authorize = [this](SPeer const& peer, std::string const& typeName, std::string const& functionName) {
            m_asked.Put(typeName + ":" + functionName);
            return !m_isAllowed || m_isAllowed(peer, typeName, functionName);
        };
        return options;
    }

    /// What was asked since the last look.
    Lines Asked()
    {
        Lines const all = m_asked.All();
        Lines const fresh(all.begin() + static_cast<Lines::difference_type>(m_seen), all.end());
        m_seen = all.size();
        return fresh;
    }

    void ExpectDenied(types::CValueList const& call, int connectionId, std::string const& cause)
    {
        int const made = m_server.MadeCount();
        std::size_t const destroyed = m_server.Destroyed().size();
        int const lastId = CClientConnection::lastActorId;
        CLogCapture log;
        auto const answer = m_server.port.Call(call, connectionId)->Wait();

        ASSERT_TRUE(answer);
        refusal::CRefusal const* const refusal = refusal::find(*answer);
        ASSERT_NE(nullptr, refusal) << types::toString(*answer);
        EXPECT_EQ(refusal::ACCESS_DENIED, refusal->GetError());
        EXPECT_EQ(cause, refusal->GetCause());
        std::string const id = std::to_string(connectionId);
        EXPECT_EQ(Lines{"CRpcHost refused a call from :fake." + id + " in connectionId=" + id + ": " + cause},
                  log.Texts(ELevel::Error));
        EXPECT_EQ(made, m_server.MadeCount());
        EXPECT_EQ(destroyed, m_server.Destroyed().size());
        EXPECT_EQ(lastId, CClientConnection::lastActorId);
    }

    CInbox<std::string> m_asked;
    std::size_t m_seen = 0;
    std::function<bool(SPeer const&, std::string const&, std::string const&)> m_isAllowed;
    CThingServer m_server{Options()};
};

INSTANTIATE_TEST_SUITE_P(Peers, HostAuthorize, ::testing::Values(EPeers::Trusted, EPeers::Untrusted),
                         [](auto const& instance) {
                             return instance.param == EPeers::Trusted ? "Trusted" : "Untrusted";
                         });

types::CValueList ctorCall(std::string const& typeName)
{
    return callOf(0, OWN, "ctor", typeName);
}
} // namespace

// What is asked

TEST_P(HostAuthorize, IsAskedAboutEachCallWithTheTypeOfTheActor)
{
    int const id = m_server.Ctor(ALICE);
    EXPECT_EQ(Lines{"Thing:ctor"}, Asked());
    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*m_server.Call(ALICE, id, "Add", 3)));
    EXPECT_EQ(Lines{"Thing:Add"}, Asked());
    m_server.Dtor(ALICE, id);
    EXPECT_EQ(Lines{"Thing:dtor"}, Asked());
    EXPECT_EQ(0, m_server.Ctor(ALICE, OWN));
    EXPECT_EQ(Lines{OWN + ":ctor"}, Asked());
    m_server.Dtor(ALICE, 0);
    EXPECT_EQ(Lines{OWN + ":dtor"}, Asked());
}

TEST_P(HostAuthorize, IsAskedAboutMakingALostActorAndAboutTheCall)
{
    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*m_server.Call(ALICE, 77, "Add", 3)));

    EXPECT_EQ((Lines{"Thing:ctor", "Thing:Add"}), Asked());
}

TEST_P(HostAuthorize, IsToldWhoTheClientIsByThePort)
{
    CInbox<SPeer> peers;
    m_isAllowed = [&](SPeer const& peer, std::string const&, std::string const&) {
        peers.Put(peer);
        return true;
    };
    m_server.Ctor(ALICE);
    auto call = ctorCall("Thing");
    call[protocol::CONNECTION_ID] = types::makeValue<int>(ALICE); // says Bob
    call[-5] = types::makeValue<std::string>(":fake.4");
    call[1] = types::makeValue<int>(1000);
    m_server.port.Call(call, BOB)->Wait();

    ASSERT_EQ(2U, peers.Count());
    SPeer const alice = peers.All()[0];
    EXPECT_EQ(":fake.4", alice.name);
    EXPECT_EQ(ALICE, alice.connectionId);
    EXPECT_EQ(1000U, alice.uid);
    EXPECT_EQ(100U, alice.gid);
    EXPECT_EQ(77, alice.pid);
    SPeer const bob = peers.All()[1];
    EXPECT_EQ(":fake.5", bob.name);
    EXPECT_EQ(BOB, bob.connectionId);
    EXPECT_EQ(1001U, bob.uid);
}

TEST_P(HostAuthorize, AsksTheBusAboutAClientOnce)
{
    int const id = m_server.Ctor(ALICE);
    for (int call = 0; call < 10; ++call)
    {
        m_server.Call(ALICE, id, "Add", 1)->Wait();
    }
    m_server.Ctor(BOB);

    EXPECT_EQ((std::vector<int>{ALICE, BOB}), m_server.port.CredentialQueries());
}

TEST_P(HostAuthorize, IsAskedOnTheClientsThreadAndHoldsNobodyElseUp)
{
    int const bobs = m_server.Ctor(BOB);
    int const receiver = threadId();
    int askedOn = receiver;
    m_isAllowed = [&](SPeer const& peer, std::string const&, std::string const&) {
        if (peer.connectionId == ALICE)
        {
            askedOn = threadId();
            m_server.blocked.Open();
            m_server.release.Wait();
        }
        return true;
    };
    auto const reply = m_server.port.Call(ctorCall("Thing"), ALICE);
    ASSERT_TRUE(m_server.blocked.Wait());

    EXPECT_EQ(types::toString(listOf(1)), CThingServer::TextOf(*m_server.Call(BOB, bobs, "Add", 1)));
    m_server.release.Open();
    EXPECT_TRUE(reply->Wait());
    EXPECT_NE(receiver, askedOn);
}

// What is refused

TEST_P(HostAuthorize, MayRefuseByType)
{
    m_isAllowed = [](SPeer const&, std::string const& typeName, std::string const&) { return typeName != "Thing"; };

    ExpectDenied(ctorCall("Thing"), ALICE, "ctor of Thing is not allowed");
    EXPECT_LT(0, m_server.Ctor(ALICE, "Other"));
}

TEST_P(HostAuthorize, MayRefuseByFunction)
{
    m_isAllowed = [](SPeer const&, std::string const&, std::string const& function) {
        return function != "Serial" && function != "dtor";
    };
    int const id = m_server.Ctor(ALICE);

    ExpectDenied(callOf(id, "Thing", "Serial"), ALICE, "Serial of Thing is not allowed");
    ExpectDenied(callOf(0, OWN, "dtor", id), ALICE, "dtor of Thing is not allowed");
    EXPECT_EQ(types::toString(listOf(1)), CThingServer::TextOf(*m_server.Call(ALICE, id, "Add", 1)));
}

TEST_P(HostAuthorize, MayRefuseByUser)
{
    m_isAllowed = [](SPeer const& peer, std::string const&, std::string const&) { return peer.uid == 1000; };

    EXPECT_LT(0, m_server.Ctor(ALICE));
    ExpectDenied(ctorCall("Thing"), BOB, "ctor of Thing is not allowed");
}

TEST_P(HostAuthorize, IsNotGotAroundByALostActor)
{
    m_isAllowed = [](SPeer const&, std::string const& typeName, std::string const& function) {
        return !(typeName == "Thing" && function == "ctor");
    };

    ExpectDenied(callOf(77, "Thing", "Add", 1), ALICE, "Add of Thing is not allowed");
    EXPECT_EQ(Lines{"Thing:ctor"}, Asked()) << "who may not make it is not asked about more";
}

TEST_P(HostAuthorize, RefusesAClientOfWhomTheBusDoesNotSayWhoItIsUntilItDoes)
{
    ExpectDenied(ctorCall("Thing"), NOBODY, "the bus does not say who the client is");
    ExpectDenied(ctorCall("Thing"), NOBODY, "the bus does not say who the client is");
    EXPECT_TRUE(Asked().empty());
    m_server.port.SetCredentials(NOBODY, {1002, 102, 79});

    EXPECT_LT(0, m_server.Ctor(NOBODY));
}

TEST_P(HostAuthorize, ThatHangsIsKilledAsACallIs)
{
    int const bobs = m_server.Ctor(BOB);
    m_isAllowed = [this](SPeer const& peer, std::string const&, std::string const&) {
        if (peer.connectionId == ALICE)
        {
            m_server.hang.Enter();
        }
        return true;
    };

    EXPECT_EQ("{}", CThingServer::TextOf(*m_server.port.Call(ctorCall("Thing"), ALICE)));
    EXPECT_TRUE(eventually([&] { return m_server.hang.IsGone(); })) << "it was cancelled and not cut off";
    EXPECT_EQ(types::toString(listOf(1)), CThingServer::TextOf(*m_server.Call(BOB, bobs, "Add", 1)));
}

// Together with other choices

TEST(HostAuthorizeTrusting, IsNotGotAroundByTheConnectionUnderAnotherId)
{
    SHostOptions options;
    CInbox<std::string> asked;
    options.authorize = [&](SPeer const&, std::string const& typeName, std::string const& function) {
        asked.Put(typeName + ":" + function);
        return typeName != "Thing";
    };
    CThingServer server(options);
    server.port.SetCredentials(ALICE, {1000, 100, 77});

    // Where peers are trusted, a lost actor of the connection's type is the connection.
    auto const answer = server.port.Call(callOf(77, OWN, "ctor", std::string("Thing")), ALICE)->Wait();
    ASSERT_TRUE(answer);
    EXPECT_NE(nullptr, refusal::find(*answer)) << types::toString(*answer);
    EXPECT_EQ(Lines{"Thing:ctor"}, asked.All());
    EXPECT_EQ(0, server.MadeCount());
}

TEST(HostAuthorizeTrusting, IsToldTheTypeThatTheActorHasAndNotTheOneThatTheCallNames)
{
    SHostOptions options;
    CInbox<std::string> asked;
    options.authorize = [&](SPeer const&, std::string const& typeName, std::string const& function) {
        asked.Put(typeName + ":" + function);
        return function == "ctor";
    };
    CThingServer server(options);
    server.port.SetCredentials(ALICE, {1000, 100, 77});
    int const id = server.Ctor(ALICE);

    auto const answer = server.port.Call(callOf(id, "Other", "Add", 1), ALICE)->Wait();
    ASSERT_TRUE(answer);
    EXPECT_NE(nullptr, refusal::find(*answer)) << types::toString(*answer);
    EXPECT_EQ((Lines{"Thing:ctor", "Thing:Add"}), asked.All());
}

TEST(HostAuthorizeUntrusting, IsAskedAboutRegisteredTypesAndKnownActorsAlone)
{
    SHostOptions options;
    options.peers = EPeers::Untrusted;
    CInbox<std::string> asked;
    options.authorize = [&](SPeer const&, std::string const& typeName, std::string const& function) {
        asked.Put(typeName + ":" + function);
        return true;
    };
    CThingServer server(options);
    server.port.SetCredentials(ALICE, {1000, 100, 77});
    for (auto const& call : {ctorCall("Nope"), callOf(77, "Nope", "Add", 1), callOf(-1, "Thing", "Add", 1),
                             callOf(0, OWN, "dtor", 77), callOf(0, OWN, "ctor", 5), types::CValueList()})
    {
        auto const answer = server.port.Call(call, ALICE)->Wait();
        ASSERT_TRUE(answer);
        EXPECT_NE(nullptr, refusal::find(*answer)) << types::toString(call);
    }
    EXPECT_EQ(Lines{}, asked.All());
}

TEST(HostAuthorizeUntrusting, ThatThrowsRefusesTheCall)
{
    SHostOptions options;
    options.peers = EPeers::Untrusted;
    std::atomic<bool> isBroken{true};
    options.authorize = [&](SPeer const&, std::string const&, std::string const&) -> bool {
        if (isBroken)
        {
            throw std::runtime_error("no such file");
        }
        return true;
    };
    CThingServer server(options);
    server.port.SetCredentials(ALICE, {1000, 100, 77});
    for (auto const& call : {ctorCall("Thing"), callOf(0, OWN, "dtor", 0)})
    {
        auto const answer = server.port.Call(call, ALICE)->Wait();
        ASSERT_TRUE(answer);
        refusal::CRefusal const* const refusal = refusal::find(*answer);
        ASSERT_NE(nullptr, refusal);
        EXPECT_EQ(refusal::FAILED, refusal->GetError());
    }
    EXPECT_EQ(0, server.MadeCount());
    isBroken = false;
    EXPECT_LT(0, server.Ctor(ALICE));
}

TEST(HostAuthorizeByDefault, IsNotThereAndTheBusIsNotAsked)
{
    EXPECT_FALSE(SHostOptions().authorize);
    CThingServer server;
    server.Ctor(ALICE);
    EXPECT_TRUE(server.port.CredentialQueries().empty());
}
