#include "CFakePort.h"
#include "CLogCapture.h"
#include "CThingServer.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace nelo_rpc;
using log::ELevel;

namespace
{
using Replies = std::vector<std::shared_ptr<CFakePort::CReply>>;

constexpr int PEER = 4;
constexpr int OTHER_PEER = 5;

constexpr char const* TOO_MANY_CALLS = "too many calls of this client wait for an answer";
constexpr char const* TOO_MANY_ACTORS = "the client has as many actors as it may have";

SHostOptions withLimits(int maxQueuedCalls, int maxActors, EPeers peers = EPeers::Trusted)
{
    SHostOptions options = CThingServer::ShortLimits();
    options.maxQueuedCalls = maxQueuedCalls;
    options.maxActors = maxActors;
    options.peers = peers;
    return options;
}

/// The cause if it was refused because of a limit; else the answer.
std::string outcomeOf(CFakePort::CReply const& reply)
{
    auto const answer = reply.Wait();
    if (!answer)
    {
        return "no answer";
    }
    refusal::CRefusal const* const refusal = refusal::find(*answer);
    bool const isLimit = refusal != nullptr && refusal->GetError() == refusal::LIMITS_EXCEEDED;
    return isLimit ? refusal->GetCause() : types::toString(*answer);
}

std::string outcomeOfCtor(CThingServer& server, int connectionId = PEER)
{
    auto const reply = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), connectionId);
    std::string const outcome = outcomeOf(*reply);
    return outcome == TOO_MANY_ACTORS ? outcome : "made";
}

class HostLimits : public ::testing::TestWithParam<EPeers>
{
};

INSTANTIATE_TEST_SUITE_P(Peers, HostLimits, ::testing::Values(EPeers::Trusted, EPeers::Untrusted),
                         [](auto const& instance) {
                             return instance.param == EPeers::Trusted ? "Trusted" : "Untrusted";
                         });
} // namespace

// Calls

TEST_P(HostLimits, RefuseACallAtOnceThatIsOneTooMany)
{
    CThingServer server(withLimits(3, 0, GetParam()));
    int const id = server.Ctor(PEER);
    Replies taken{server.Call(PEER, id, "Block")};
    ASSERT_TRUE(server.blocked.Wait());
    taken.push_back(server.Call(PEER, id, "Add", 1));
    taken.push_back(server.Call(PEER, id, "Add", 1));

    auto const refused = server.Call(PEER, id, "Add", 100);
    EXPECT_EQ(1, refused->Count()) << "before the others are done";
    EXPECT_EQ(TOO_MANY_CALLS, outcomeOf(*refused));
    server.release.Open();
    EXPECT_EQ(types::toString(listOf(2)), outcomeOf(*taken.back()));
    EXPECT_EQ(types::toString(listOf(3)), outcomeOf(*server.Call(PEER, id, "Add", 1)));
}

TEST(HostLimit, OfCallsAreThoseOfEachClient)
{
    CThingServer server(withLimits(1, 0));
    int const id = server.Ctor(PEER);
    int const other = server.Ctor(OTHER_PEER);
    server.Call(PEER, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());

    EXPECT_EQ(TOO_MANY_CALLS, outcomeOf(*server.Call(PEER, id, "Add", 1)));
    EXPECT_EQ(types::toString(listOf(1)), outcomeOf(*server.Call(OTHER_PEER, other, "Add", 1)));
}

TEST(HostLimit, OfCallsLetAClientCallAgainAsSoonAsItHasItsAnswer)
{
    CThingServer server(withLimits(1, 0));
    int const id = server.Ctor(PEER);
    for (int call = 1; call <= 200; ++call)
    {
        ASSERT_EQ(types::toString(listOf(call)), outcomeOf(*server.Call(PEER, id, "Add", 1)));
    }
}

TEST(HostLimit, OfCallsLeaveOneErrorLineForAllThatAreRefusedInARow)
{
    CThingServer server(withLimits(1, 0));
    int const id = server.Ctor(PEER);
    auto const blocked = server.Call(PEER, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    CLogCapture log;
    std::string const line = std::string("CRpcHost refused a call from :fake.4 in connectionId=4: ") + TOO_MANY_CALLS;

    for (int call = 0; call < 50; ++call)
    {
        EXPECT_EQ(TOO_MANY_CALLS, outcomeOf(*server.Call(PEER, id, "Serial")));
    }
    EXPECT_EQ(std::vector<std::string>{line}, log.Texts(ELevel::Error));
    server.release.Open();
    blocked->Wait();
    EXPECT_EQ(types::toString(listOf(1)), outcomeOf(*server.Call(PEER, id, "Serial")));
    server.run = [&](CThing&) { server.Call(PEER, id, "Serial"); };
    server.Call(PEER, id, "Run")->Wait();
    EXPECT_EQ((std::vector<std::string>{line, line}), log.Texts(ELevel::Error));
}

TEST(HostLimit, OfCallsCountNoCallThatWasKilled)
{
    CThingServer server(withLimits(2, 0));
    int const id = server.Ctor(PEER);
    auto const hung = server.Call(PEER, id, "Hang");
    auto const queued = server.Call(PEER, id, "Add", 1);
    EXPECT_EQ(TOO_MANY_CALLS, outcomeOf(*server.Call(PEER, id, "Add", 1)));
    EXPECT_EQ("{}", outcomeOf(*hung));
    EXPECT_TRUE(queued->Wait());

    EXPECT_LT(0, server.Ctor(PEER));
    EXPECT_LT(0, server.Ctor(PEER));
}

TEST(HostLimit, OfCallsDoNotKeepAHostFromEnding)
{
    CThingServer server(withLimits(1, 0));
    int const id = server.Ctor(PEER);
    auto const blocked = server.Call(PEER, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    EXPECT_EQ(TOO_MANY_CALLS, outcomeOf(*server.Call(PEER, id, "Add", 1)));
    server.release.Open();

    server.host.reset();
    EXPECT_EQ(1, blocked->Count());
}

// Actors

TEST_P(HostLimits, RefuseAnActorThatIsOneTooManyAndUseUpNoId)
{
    CThingServer server(withLimits(0, 2, GetParam()));
    int const first = server.Ctor(PEER);
    server.Ctor(PEER);
    int const lastId = CClientConnection::lastActorId;
    CLogCapture log;

    EXPECT_EQ(TOO_MANY_ACTORS, outcomeOfCtor(server));
    EXPECT_EQ(std::vector<std::string>{std::string("CRpcHost refused a call from :fake.4 in connectionId=4: ") +
                                       TOO_MANY_ACTORS},
              log.Texts(ELevel::Error));
    EXPECT_EQ(2, server.MadeCount());
    EXPECT_EQ(lastId, CClientConnection::lastActorId);
    EXPECT_EQ("made", outcomeOfCtor(server, OTHER_PEER));
    server.Dtor(PEER, first);
    EXPECT_EQ("made", outcomeOfCtor(server));
}

TEST_P(HostLimits, CountLostActorsThatAreMadeAgain)
{
    CThingServer server(withLimits(0, 1, GetParam()));
    EXPECT_EQ(types::toString(listOf(1)), outcomeOf(*server.Call(PEER, 1000, "Add", 1)));

    EXPECT_EQ(TOO_MANY_ACTORS, outcomeOf(*server.Call(PEER, 1001, "Add", 1)));
    EXPECT_EQ(TOO_MANY_ACTORS, outcomeOfCtor(server));
    EXPECT_EQ(types::toString(listOf(2)), outcomeOf(*server.Call(PEER, 1000, "Add", 1)));
    EXPECT_EQ(1, server.MadeCount());
}

TEST_P(HostLimits, OfActorsDoNotCountTheConnectionItself)
{
    CThingServer server(withLimits(0, 1, GetParam()));
    server.Ctor(PEER);

    EXPECT_EQ(0, server.Ctor(PEER, "CClientConnection"));
    EXPECT_EQ(TOO_MANY_ACTORS, outcomeOfCtor(server));
}

TEST(HostLimit, AreOffByDefault)
{
    EXPECT_EQ(0, SHostOptions().maxQueuedCalls);
    EXPECT_EQ(0, SHostOptions().maxActors);
    CThingServer server;
    for (int i = 0; i < 300; ++i)
    {
        ASSERT_EQ("made", outcomeOfCtor(server));
    }
}
