#include "UntrustedPeers.h"

#include <unistd.h>

#include <functional>
#include <random>

/// A host on a bus, and peers that know nothing of this library.

namespace
{

using nelo_rpc::CActor;
using nelo_rpc::CRpcHost;
using nelo_rpc::SHostOptions;
using nelo_rpc::SPortOptions;

constexpr char const* CONNECTION = "CClientConnection";

class CCounter
{
public:
    explicit CCounter(CInbox<int>& destroyed) : m_destroyed(destroyed) {}
    ~CCounter() { m_destroyed.Put(m_sum); }
    CCounter(CCounter const&) = delete;
    CCounter& operator=(CCounter const&) = delete;

    int Add(int amount) { return m_sum += amount; }

private:
    CInbox<int>& m_destroyed;
    int m_sum = 0;
};

class CCounterProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CCounterProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Counter") {}

    nelo_rpc::CProxyFunction<int(int)> Add{*this, "Add"};
};

MessagePtr callTo(std::string const& destination, int actorId, std::string const& type, std::string const& function)
{
    MessagePtr call = rawCall(destination);
    putString(call.get(), -4, type);
    putInt(call.get(), -2, actorId);
    putString(call.get(), -1, function);
    return call;
}

/// A port and a host as a test wants them, with a type "Counter": "Add", and "Block", which waits for `release`.
class CCounterServer
{
public:
    CCounterServer(std::string const& name, SHostOptions const& options,
                   SPortOptions const& portOptions = SPortOptions::Recommended())
        : m_name(name), m_port(name.c_str(), true, portOptions), m_host(m_port, options, [this](CRpcHost& host) {
              host.RegisterActorType<CCounter>(
                  "Counter",
                  [this](CActor& actor, CCounter& counter) {
                      actor.AddFunction("Add", counter, &CCounter::Add);
                      actor.AddFunction("Block", [this] {
                          blocked.Open();
                          release.Wait();
                      });
                  },
                  [this] { return std::make_unique<CCounter>(destroyed); });
          })
    {
    }

    ~CCounterServer() { release.Open(); }

    MessagePtr CallOf(int actorId, std::string const& type, std::string const& function) const
    {
        return callTo(m_name, actorId, type, function);
    }

    MessagePtr CtorCall(std::string const& type = "Counter") const
    {
        MessagePtr call = CallOf(0, CONNECTION, "ctor");
        putString(call.get(), 0, type);
        return call;
    }

    MessagePtr AddCall(int actorId, int amount) const
    {
        MessagePtr call = CallOf(actorId, "Counter", "Add");
        putInt(call.get(), 0, amount);
        return call;
    }

    /// Makes an actor for the peer and returns its id.
    int Ctor(CRawPeer& peer) const
    {
        MessagePtr const answer = peer.Call(CtorCall().get());
        std::string const body = answer == nullptr ? "" : describeBody(answer.get()); // 0 0 <id>
        EXPECT_EQ(0u, body.rfind("0 0 ", 0)) << body;
        return body.size() > 4 ? std::atoi(body.c_str() + 4) : -1;
    }

    // Above the host, which is destroyed first.
    CGate blocked;
    CGate release;
    CInbox<int> destroyed;

private:
    std::string const m_name;
    nelo_rpc::CDbusPort m_port;
    CRpcHost m_host;
};

SHostOptions untrustedHost()
{
    SHostOptions options;
    options.peers = nelo_rpc::EPeers::Untrusted;
    return options;
}

/// A client of this library.
class CCounterClient
{
public:
    explicit CCounterClient(std::string const& server)
        : m_port(CPrivateBus::UniqueName().c_str(), server.c_str(), false), m_client(m_port), m_proxy(m_client)
    {
    }

    CCounterProxy& Get() { return m_proxy; }
    nelo_rpc::CRpcClient& GetClient() { return m_client; }

private:
    nelo_rpc::CDbusPort m_port;
    nelo_rpc::CRpcClient m_client;
    CCounterProxy m_proxy;
};

/// "error's name: text" of an error reply; the body of a return.
std::string outcomeOf(MessagePtr const& answer)
{
    if (answer == nullptr)
    {
        return "no answer";
    }
    std::string const error = errorNameOf(answer);
    std::string const prefix = "org.freedesktop.DBus.Error.";
    return error.empty() ? describeBody(answer.get()) : error.substr(prefix.size()) + ": " + describeBody(answer.get());
}

} // namespace

// ---- what a call may not be ----

namespace
{

/// A call that makes no sense, and how it is refused.
struct SNonsense
{
    char const* label;
    std::function<MessagePtr(CCounterServer const& server, int ownActor)> make;
    char const* outcome;
};

void PrintTo(SNonsense const& row, std::ostream* out)
{
    *out << row.label;
}

/// A call of an actor with one more entry.
std::function<MessagePtr(CCounterServer const&, int)> callWith(char const* type, char const* function,
                                                               std::function<void(DBusMessage*)> const& fill)
{
    return [=](CCounterServer const& server, int ownActor) {
        bool const isOwn = std::string(type) == CONNECTION;
        MessagePtr call = server.CallOf(isOwn ? 0 : ownActor, type, function);
        fill(call.get());
        return call;
    };
}

void putNothing(DBusMessage*) {}

std::vector<SNonsense> const NONSENSE = {
    {"UnknownType", [](CCounterServer const& server, int) { return server.CtorCall("Nope"); },
     "InvalidArgs: \"unknown type Nope\""},
    {"TypeThatIsANumber", callWith(CONNECTION, "ctor", [](DBusMessage* m) { putInt(m, 0, 5); }),
     "InvalidArgs: \"argument 0 of ctor has another type than the function takes\""},
    {"NoType", callWith(CONNECTION, "ctor", &putNothing), "InvalidArgs: \"argument 0 of ctor is missing\""},
    {"UnknownIdToDestroy", callWith(CONNECTION, "dtor", [](DBusMessage* m) { putInt(m, 0, 999999); }),
     "UnknownObject: \"there is no actor 999999\""},
    {"BytesToDestroy",
     callWith(CONNECTION, "dtor",
              [](DBusMessage* m) {
                  putBytes(m, 0, {1, 0, 0, 0}, 5);
              }),
     "InvalidArgs: \"argument 0 of dtor has another type than the function takes\""},
    {"UnknownFunction", callWith("Counter", "Nope", &putNothing), "UnknownMethod: \"Counter has no function Nope\""},
    {"MissingArgument", callWith("Counter", "Add", &putNothing), "InvalidArgs: \"argument 0 of Add is missing\""},
    {"WrongArgument", callWith("Counter", "Add", [](DBusMessage* m) { putString(m, 0, "1"); }),
     "InvalidArgs: \"argument 0 of Add has another type than the function takes\""},
    {"LostActorOfAnUnknownType", [](CCounterServer const& server, int) { return server.CallOf(777, "Nope", "Add"); },
     "InvalidArgs: \"unknown type Nope\""},
    {"NegativeId", [](CCounterServer const& server, int) { return server.AddCall(-5, 1); },
     "UnknownObject: \"there is no actor -5\""},
    {"TheConnectionUnderAnotherType", [](CCounterServer const& server, int) { return server.AddCall(0, 1); },
     "InvalidArgs: \"actor 0 is not of type Counter\""},
};

class HostOnABusRow : public CBusTest, public ::testing::WithParamInterface<SNonsense>
{
};

} // namespace

TEST_P(HostOnABusRow, RefusesNonsenseWithOneErrorLineAndServesTheOthers)
{
    CCounterServer const server(m_server, untrustedHost());
    CCounterClient honest(m_server);
    EXPECT_EQ(1, honest.Get().Add(1));
    CRawPeer peer;
    int const ownActor = server.Ctor(peer);
    CLogCapture log;

    EXPECT_EQ(GetParam().outcome, outcomeOf(peer.Call(GetParam().make(server, ownActor).get())));

    EXPECT_EQ(1, countErrorsAbout(log, "CRpcHost refused a call from " + peer.GetUniqueName()));
    EXPECT_EQ(1, countLinesOf(log, ELevel::Error));
    EXPECT_EQ(2, honest.Get().Add(1));
    EXPECT_EQ("0 0 3", outcomeOf(peer.Call(server.AddCall(ownActor, 3).get()))) << "nor has the peer lost anything";
}

INSTANTIATE_TEST_SUITE_P(Calls, HostOnABusRow, ::testing::ValuesIn(NONSENSE),
                         [](auto const& instance) { return std::string(instance.param.label); });

namespace
{

class HostOnABus : public CBusTest
{
};

} // namespace

TEST_F(HostOnABus, RefusesACallWithoutAnAddressAlsoBehindAPortThatTrustsItsPeers)
{
    SPortOptions trusting = SPortOptions::Recommended();
    trusting.peers = nelo_rpc::EPeers::Trusted;
    CCounterServer const server(m_server, untrustedHost(), trusting);
    CRawPeer peer;
    CLogCapture log;

    EXPECT_EQ("InvalidArgs: \"an integer should be at ACTOR_ID (-2)\"", outcomeOf(peer.Call(rawCall(m_server).get())));
    EXPECT_EQ(1, countErrorsAbout(log, "CRpcHost refused a call from " + peer.GetUniqueName()));
}

TEST_F(HostOnABus, OutlivesCallsOfAnyForm)
{
    std::mt19937 random(20241121); // the same in every run
    auto const pick = [&](auto const& choices) { return choices[random() % std::size(choices)]; };
    char const* const types[] = {"Counter", CONNECTION, "Nope", ""};
    char const* const functions[] = {"Add", "ctor", "dtor", "Nope", "", "OnKill"};
    CCounterServer const server(m_server, untrustedHost());
    CCounterClient honest(m_server);
    CRawPeer peer;
    int const ownActor = server.Ctor(peer);
    int const ids[] = {0, ownActor, -1, ownActor + 1000, 1000000};
    int refused = 0;
    for (int round = 0; round < 400; ++round)
    {
        MessagePtr const call = server.CallOf(pick(ids), pick(types), pick(functions));
        switch (random() % 5)
        {
        case 0:
            break;
        case 1:
            putString(call.get(), 0, pick(types));
            break;
        case 2:
            putBytes(call.get(), 0, {1, 2, 3, 4}, static_cast<int>(random() % 6));
            break;
        case 3:
            putString(call.get(), -2, "an address that is none");
            break;
        default:
            putInt(call.get(), static_cast<int>(random() % 3) - 1, pick(ids));
        }
        MessagePtr const answer = peer.Call(call.get());
        ASSERT_NE(nullptr, answer) << "round " << round;
        refused += errorNameOf(answer).empty() ? 0 : 1;
    }
    EXPECT_LT(200, refused);
    EXPECT_GT(400, refused) << "some made sense";
    EXPECT_EQ(7, honest.Get().Add(7));
}

TEST_F(HostOnABus, TellsAClientOfThisLibraryWhyItsCallWasRefused)
{
    CCounterServer const server(m_server, untrustedHost());
    CCounterClient client(m_server);
    CLogCapture log;

    EXPECT_TRUE(client.Get().RemoteCall("Nope", {}).empty());
    EXPECT_EQ(1, countLines(log, ELevel::Error, "Dbus error: Counter has no function Nope"));
    EXPECT_EQ(2, client.Get().Add(2));
}

TEST_F(HostOnABus, OutlivesAResultThatIsOfAClassThatCannotBeSent)
{
    nelo_rpc::CDbusPort port(m_server.c_str(), true, SPortOptions::Recommended());
    CRpcHost const host(port, untrustedHost(), [](CRpcHost& self) {
        self.RegisterActorType<int>("Odd", [](CActor& actor, int&) {
            actor.AddFunction("Get", nelo_rpc::ValueListFunction([](CValueList const&) {
                                  return CValueList{{0, nelo_rpc::types::makeValue<bool>(true)}};
                              }));
        });
    });
    CRawPeer peer;
    MessagePtr const ctor = callTo(m_server, 0, CONNECTION, "ctor");
    putString(ctor.get(), 0, "Odd");
    ASSERT_EQ("", errorNameOf(peer.Call(ctor.get())));
    CLogCapture log;

    EXPECT_EQ(DBUS_ERROR_FAILED, errorNameOf(peer.Call(callTo(m_server, 7, "Odd", "Get").get())));
    EXPECT_TRUE(log.WaitFor("CDbusPort::SendFunctionResult to " + peer.GetUniqueName() +
                            " refused: a value of a class without a tag cannot be sent"));
    EXPECT_EQ("", errorNameOf(peer.Call(ctor.get())));
}

// ---- clients that leave ----

TEST_F(HostOnABus, DestroysTheActorsOfAPeerThatLeavesWithinASecond)
{
    SHostOptions options;
    options.orphans = nelo_rpc::EOrphans::Destroy;
    CCounterServer const server(m_server, options);
    CCounterClient honest(m_server);
    auto peer = std::make_unique<CRawPeer>();
    peer->Call(server.AddCall(server.Ctor(*peer), 5).get());
    server.Ctor(*peer);
    auto const start = steady_clock::now();
    peer.reset();

    EXPECT_TRUE(server.destroyed.WaitForCount(2));
    EXPECT_GT(seconds(1), since(start));
    EXPECT_EQ((std::vector<int>{5, 0}), server.destroyed.All());
    EXPECT_EQ(1, honest.Get().Add(1));
}

TEST_F(HostOnABus, DestroysWhatAPeerHadMadeThatLeftBeforeItsCallWasCarriedOut)
{
    SHostOptions options;
    options.orphans = nelo_rpc::EOrphans::Destroy;
    CCounterServer server(m_server, options);
    CLogCapture log;
    constexpr int PEERS = 20;
    for (int i = 0; i < PEERS; ++i)
    {
        CRawPeer peer;
        peer.Send(server.CtorCall().get()); // and does not wait for anything
    }
    // Some were carried out before their peer was gone and some were not; none stays.
    ASSERT_TRUE(log.WaitFor(" has left, destroying its actors", PEERS));
    EXPECT_TRUE(log.WaitFor(" finishes", PEERS));
    auto const made = static_cast<std::size_t>(log.Count("> CClientConnection::ctor typeName= Counter"));
    EXPECT_EQ(made, server.destroyed.Count());
}

TEST_F(HostOnABus, DestroysTheActorsOfAPeerThatLeavesDuringACallAfterTheCall)
{
    SHostOptions options;
    options.orphans = nelo_rpc::EOrphans::Destroy;
    CCounterServer server(m_server, options);
    CLogCapture log;
    {
        CRawPeer peer;
        int const id = server.Ctor(peer);
        peer.Send(server.CallOf(id, "Counter", "Block").get());
        peer.Send(server.AddCall(id, 100).get());
        peer.Send(server.CtorCall().get());
        ASSERT_TRUE(server.blocked.Wait());
    }
    ASSERT_TRUE(log.WaitFor(" has left, destroying its actors"));
    EXPECT_EQ(0u, server.destroyed.Count());
    auto const start = steady_clock::now();
    server.release.Open();

    EXPECT_TRUE(server.destroyed.WaitForCount(1));
    EXPECT_GT(seconds(1), since(start));
    ASSERT_TRUE(log.WaitFor(" finishes"));
    EXPECT_EQ(std::vector<int>{0}, server.destroyed.All()) << "what was queued is not carried out any more";
}

// ---- clients that ask for too much ----

TEST_F(HostOnABus, RefusesAtOnceWhatIsMoreThanAPeerMayHaveWaiting)
{
    SHostOptions options;
    options.maxQueuedCalls = 5;
    CCounterServer server(m_server, options);
    CCounterClient honest(m_server);
    CRawPeer peer;
    int const id = server.Ctor(peer);
    peer.Send(server.CallOf(id, "Counter", "Block").get());
    ASSERT_TRUE(server.blocked.Wait());
    for (int i = 0; i < 4; ++i)
    {
        peer.Send(server.AddCall(id, 1).get());
    }

    EXPECT_EQ("LimitsExceeded: \"too many calls of this client wait for an answer\"",
              outcomeOf(peer.Call(server.AddCall(id, 1).get())));
    EXPECT_EQ(1, honest.Get().Add(1));
    server.release.Open();
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_NE(nullptr, peer.Receive(DBUS_MESSAGE_TYPE_METHOD_RETURN));
    }
    EXPECT_EQ("0 0 5", outcomeOf(peer.Call(server.AddCall(id, 1).get())));
}

TEST_F(HostOnABus, RefusesActorsThatAreMoreThanAPeerMayHave)
{
    SHostOptions options;
    options.maxActors = 2;
    CCounterServer const server(m_server, options);
    CCounterClient honest(m_server);
    CRawPeer peer;
    int const id = server.Ctor(peer);
    server.Ctor(peer);

    EXPECT_EQ("LimitsExceeded: \"the client has as many actors as it may have\"",
              outcomeOf(peer.Call(server.CtorCall().get())));
    EXPECT_EQ("0 0 1", outcomeOf(peer.Call(server.AddCall(id, 1).get())));
    CCounterProxy another(honest.GetClient());
    EXPECT_NE(0, another.GetId());
}

// ---- who may do what ----

namespace
{

using Decision = std::function<bool(nelo_rpc::SPeer const&, std::string const& type, std::string const& function)>;

SHostOptions authorizing(Decision decision)
{
    SHostOptions options = untrustedHost();
    options.authorize = std::move(decision);
    return options;
}

} // namespace

TEST_F(HostOnABus, KnowsWhoCallsFromTheBusAndNotFromTheCall)
{
    CInbox<nelo_rpc::SPeer> peers;
    CCounterServer const server(m_server, authorizing([&](nelo_rpc::SPeer const& peer, auto const&, auto const&) {
                                    peers.Put(peer);
                                    return true;
                                }));
    CRawPeer peer;
    MessagePtr const call = server.CtorCall();
    putInt(call.get(), -3, 99);
    putString(call.get(), -5, ":1.1");
    dbus_message_set_sender(call.get(), "org.example.somebody.else"); // which the bus replaces
    ASSERT_EQ("", errorNameOf(peer.Call(call.get())));

    ASSERT_EQ(1u, peers.Count());
    nelo_rpc::SPeer const seen = peers.All().front();
    EXPECT_EQ(peer.GetUniqueName(), seen.name);
    EXPECT_EQ(0, seen.connectionId);
    EXPECT_EQ(::geteuid(), seen.uid);
    EXPECT_EQ(::getegid(), seen.gid);
    EXPECT_EQ(::getpid(), seen.pid);
}

TEST_F(HostOnABus, RefusesWhatOneClientMayNotDoAndLetsAnotherDoIt)
{
    CRawPeer allowed;
    CRawPeer denied;
    CCounterServer const server(
        m_server, authorizing([name = denied.GetUniqueName()](nelo_rpc::SPeer const& peer, std::string const& type,
                                                              std::string const& function) {
            return !(peer.name == name && type == "Counter" && function == "Add");
        }));
    int const id = server.Ctor(denied);

    EXPECT_EQ("AccessDenied: \"Add of Counter is not allowed\"", outcomeOf(denied.Call(server.AddCall(id, 1).get())));
    EXPECT_EQ("0 0 1", outcomeOf(allowed.Call(server.AddCall(server.Ctor(allowed), 1).get())));
}

TEST_F(HostOnABus, RefusesAClientThatLeftBeforeTheBusWasAskedWhoItIs)
{
    CInbox<int> asked;
    CCounterServer const server(m_server, authorizing([&](auto const& peer, auto const&, auto const&) {
                                    asked.Put(peer.connectionId);
                                    return true;
                                }));
    CLogCapture log;
    constexpr int PEERS = 20;
    for (int i = 0; i < PEERS; ++i)
    {
        CRawPeer peer;
        peer.Send(server.CtorCall().get());
    }
    // Some were quick enough to be asked about; of the others nobody can tell who they were.
    EXPECT_TRUE(eventually([&] {
        return asked.Count() + static_cast<std::size_t>(log.Count("CRpcHost refused a call from ")) ==
               static_cast<std::size_t>(PEERS);
    }));
    EXPECT_EQ(asked.Count(), static_cast<std::size_t>(log.Count("> CClientConnection::ctor typeName= Counter")));
}
