#include "CFakePort.h"
#include "CGate.h"
#include "CHang.h"
#include "CLogCapture.h"
#include "CSlowCallback.h"
#include "CThingServer.h"
#include "CancelState.h"
#include "Eventually.h"
#include "ExpectAbort.h"
#include "LogLines.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace nelo_rpc;
using namespace std::chrono_literals;
using log::ELevel;

namespace
{
using Lines = std::vector<std::string>;

/// The thread id in front of a line, with its brackets; empty for a line about an inconsistency.
std::string threadOf(std::string const& line)
{
    std::smatch match;
    return std::regex_search(line, match, std::regex("^\\[[0-9]+\\] ")) ? match.str() : "";
}

/// What one thread wrote from the first line of another thread than this that contains `first` to its next one that
/// contains `last`, with the lines about inconsistencies, which name no thread, in between.
std::vector<CLogCapture::SLine> linesBetween(CLogCapture const& log, std::string const& first, std::string const& last)
{
    std::string const own = "[" + std::to_string(threadId()) + "] ";
    std::string thread;
    std::vector<CLogCapture::SLine> lines;
    for (auto const& line : log.Lines())
    {
        std::string const wroteIt = threadOf(line.line);
        if (lines.empty() && wroteIt != own && line.line.find(first) != std::string::npos)
        {
            thread = wroteIt;
        }
        if (!thread.empty() && (wroteIt == thread || wroteIt.empty()))
        {
            lines.push_back(line);
            if (line.line.find(last) != std::string::npos)
            {
                break;
            }
        }
    }
    return lines;
}

/// Escapes what a regular expression would read as its own.
std::string literally(std::string const& text)
{
    return std::regex_replace(text, std::regex("[.^$|()\\[\\]{}*+?\\\\]"), "\\$&");
}

struct SExpectedLine
{
    ELevel level;
    std::string pattern; // a regular expression for the whole text
};

void expectLines(std::vector<SExpectedLine> const& expected, std::vector<CLogCapture::SLine> const& lines)
{
    for (std::size_t line = 0; line < std::max(expected.size(), lines.size()); ++line)
    {
        std::string const text =
            line < lines.size() ? lines[line].line.substr(threadOf(lines[line].line).size()) : "(no line)";
        if (line >= expected.size() || line >= lines.size())
        {
            ADD_FAILURE() << "line " << line << ": " << text
                          << "\nexpected: " << (line < expected.size() ? expected[line].pattern : "(no line)");
            continue;
        }
        EXPECT_TRUE(std::regex_match(text, std::regex(expected[line].pattern)))
            << "line " << line << ": " << text << "\nexpected: " << expected[line].pattern;
        EXPECT_EQ(expected[line].level, lines[line].level) << text;
    }
}

/// The pattern of a line that records an inconsistency.
std::string inconsistency(std::string const& function, std::string const& text)
{
    return "CClientConnection\\.cpp: " + function + "\\([0-9]+\\) > " + text;
}

/// The number in "name[number]" of the last line that contains it.
int taskNumber(CLogCapture const& log, std::string const& name)
{
    std::regex const pattern("runnable: " + name + "\\[([0-9]+)\\]");
    int number = -1;
    for (auto const& line : log.Lines())
    {
        std::smatch match;
        if (std::regex_search(line.line, match, pattern))
        {
            number = std::stoi(match[1]);
        }
    }
    return number;
}

/// The index of the first event that starts with the text; -1 if there is none.
int indexOf(Lines const& events, std::string const& start)
{
    auto const found =
        std::find_if(events.begin(), events.end(), [&](auto const& event) { return event.rfind(start, 0) == 0; });
    return found == events.end() ? -1 : static_cast<int>(found - events.begin());
}

std::string callbackText(int actorId, std::string const& name)
{
    return "callback " + types::toString(callbackOf(actorId, name));
}

/// What a thread that was given up owned is lost; from here a leak check finds it.
CActor* volatile g_lost = nullptr;

constexpr char const* TRUE_ANSWER = "{0 = (CBinaryValue[bool=true]) | }";
constexpr char const* EMPTY_ANSWER = "{}";
} // namespace

// Construction and destruction

TEST(CClientConnection, IsOfTheTypeThatTheProtocolNames)
{
    EXPECT_EQ("CClientConnection", CClientConnection::TYPENAME);
}

TEST(CClientConnection, ConstructionRegistersActorZeroUnderOnRecreateAndOnKillAndStartsNoThread)
{
    CLogCapture log;
    CThingServer server;
    ASSERT_TRUE(log.WaitFor("] CThreadWatchdog::Tick")); // the watchdog's own thread is up
    log.Clear();

    server.host->GetOrCreateClientConnection(4);

    std::string const added = "CCallbackSender\\(0x[0-9a-f]+\\)::AddActor 0";
    auto const lines = ownLines(log);
    ASSERT_EQ(2U, lines.size());
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(added))) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(added))) << lines[1];
    EXPECT_NE(lines[0], lines[1]);
    EXPECT_FALSE(log.Contains("starting thread"));
}

TEST(CClientConnection, DestructionLogsHowManyActorsWereLeft)
{
    CThingServer server;
    server.Ctor(4);
    CLogCapture log;

    server.host.reset();

    EXPECT_EQ(1, log.Count("] CClientConnection::~CClientConnection with 1 registered actors (should be 1)"));
    EXPECT_EQ(1, log.Count("CClientConnection::~CClientConnection"));
}

// Receiving a call

TEST(CClientConnection, ReceivingACallLogsAndPostsTheCallAndThenItsPing)
{
    CThingServer server;
    int const id = server.Ctor(4);
    CLogCapture log;
    auto const call = callOf(id, "Thing", "Add", 5);

    auto const reply = server.port.Call(call, 4);
    ASSERT_TRUE(reply->Wait());

    std::string const task = "Add[" + std::to_string(taskNumber(log, "Add")) + "]";
    auto const lines = ownLines(log);
    ASSERT_EQ(7U, lines.size());
    std::smatch match;
    ASSERT_TRUE(std::regex_search(lines[2], match, std::regex("to thread ([1-9][0-9]*) ")));
    std::string const thread = match[1];
    EXPECT_EQ("CRpcHost::CRpcHost OnFunctionCall with msg=" + types::toString(call), lines[0]);
    EXPECT_EQ("CClientConnection::OnFunctionCall with args=" + types::toString(call), lines[1]);
    EXPECT_EQ("CLoopThread::Post to thread " + thread + " runnable: " + task, lines[2]);
    EXPECT_EQ("CLoopThread::Post to thread " + thread + " done", lines[3]);
    EXPECT_EQ("CThreadWatchdog::Ping thread " + thread + ": " + task, lines[4]);
    EXPECT_EQ("CLoopThread::Post to thread " + thread + " runnable: ping(" + task + ")", lines[5]);
    EXPECT_EQ("CLoopThread::Post to thread " + thread + " done", lines[6]);
    EXPECT_TRUE(log.WaitFor("CThreadWatchdog::Pong " + task));
}

TEST(CClientConnection, CallsAreNumberedOneByOneAcrossConnections)
{
    CThingServer server;
    CLogCapture log;
    int const id = server.Ctor(1);
    int const first = taskNumber(log, "ctor");
    EXPECT_LE(1, first);

    server.Call(1, id, "Serial")->Wait();
    EXPECT_EQ(first + 1, taskNumber(log, "Serial"));
    int const other = server.Ctor(2);
    EXPECT_EQ(first + 2, taskNumber(log, "ctor"));
    server.Call(2, other, "Add", 1)->Wait();
    EXPECT_EQ(first + 3, taskNumber(log, "Add"));
}

TEST(CClientConnection, ReceivingACallReturnsBeforeItIsCarriedOutOnAThreadOfTheConnection)
{
    CThingServer server;
    int const id = server.Ctor(4);
    std::thread::id ranOn;
    server.run = [&](CThing&) {
        server.blocked.Open();
        server.release.Wait();
        ranOn = std::this_thread::get_id();
    };

    auto const reply = server.Call(4, id, "Run");
    ASSERT_TRUE(server.blocked.Wait());
    EXPECT_EQ(0, reply->Count());
    server.release.Open();

    EXPECT_EQ(TRUE_ANSWER, CThingServer::TextOf(*reply));
    EXPECT_NE(std::this_thread::get_id(), ranOn);
}

TEST(CClientConnection, TheCallOutlivesTheListItCameIn)
{
    CThingServer server;
    int const id = server.Ctor(4);
    server.Call(4, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());

    auto const reply = std::make_shared<CGate>();
    std::string answer;
    {
        auto call = std::make_unique<types::CValueList>(callOf(id, "Thing", "Add", 5));
        server.port.OnFunctionCall(*call, 4, [&, reply](types::CValueList const& result) {
            answer = types::toString(result);
            reply->Open();
        });
    }
    server.release.Open();

    ASSERT_TRUE(reply->Wait());
    EXPECT_EQ(types::toString(listOf(5)), answer);
}

TEST(CClientConnection, CallsOfOneConnectionAreCarriedOutOneAtATimeInTheOrderTheyCame)
{
    CThingServer server;
    int const first = server.Ctor(4);
    int const second = server.Ctor(4);
    auto const blocked = server.Call(4, first, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    auto const add = server.Call(4, second, "Add", 1);
    auto const serial = server.Call(4, first, "Serial");
    auto const change = server.Call(4, second, "Change", 1);
    EXPECT_EQ(0, add->Count() + serial->Count() + change->Count());

    server.release.Open();
    ASSERT_TRUE(change->Wait());

    auto const events = server.port.Events();
    std::vector<int> const order{indexOf(events, "run Block"), indexOf(events, "run Add"),
                                 indexOf(events, "run Serial"), indexOf(events, "run Change")};
    EXPECT_NE(-1, order.front());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(1, blocked->Count());
    EXPECT_EQ(1, add->Count());
    EXPECT_EQ(1, serial->Count());
}

TEST(CClientConnection, CallsOfDifferentConnectionsRunInParallel)
{
    CThingServer server;
    int const id = server.Ctor(1);
    int const other = server.Ctor(2);
    auto const blocked = server.Call(1, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());

    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*server.Call(2, other, "Add", 3)));
    EXPECT_EQ(0, blocked->Count());
    server.release.Open();
}

// Carrying a call out

TEST(CClientConnection, CarryingACallOutLogsTypeAndFunctionAndAnswersTheFunctionsList)
{
    CThingServer server;
    int const id = server.Ctor(4);
    CLogCapture log;

    EXPECT_EQ(types::toString(listOf(5)), CThingServer::TextOf(*server.Call(4, id, "Add", 5)));

    ASSERT_TRUE(
        log.WaitFor("CLoopThread::Thread running message Add[" + std::to_string(taskNumber(log, "Add")) + "] done"));
    expectLines({{ELevel::Debug, "CLoopThread::Thread running message Add\\[[0-9]+\\]"},
                 {ELevel::Debug, "CClientConnection::OnFunctionCallSync with function=Thing:Add"},
                 {ELevel::Debug, "CallFunction Add"},
                 {ELevel::Debug, "CLoopThread::Thread running message Add\\[[0-9]+\\] done"}},
                linesBetween(log, "running message Add", "done"));
}

TEST(CClientConnection, TheResultListIsAnsweredUnchanged)
{
    CThingServer server;
    server.onSetup = [](CActor& actor) {
        actor.AddFunction("Echo", ValueListFunction([](types::CValueList const& call) { return call; }));
    };
    int const id = server.Ctor(4);
    auto call = callOf(id, "Thing", "Echo", 5);
    call[-3] = types::makeValue<int>(99);
    call[-7] = types::makeValue<std::string>("kept");

    EXPECT_EQ(types::toString(call), CThingServer::TextOf(*server.port.Call(call, 4)));
}

TEST(CClientConnection, ACallOfAnUnknownFunctionIsAnsweredWithAnEmptyListAndAnErrorLine)
{
    CThingServer server;
    int const id = server.Ctor(4);
    CLogCapture log;

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*server.Call(4, id, "Nope")));
    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*server.port.Call(callOf(0, "CClientConnection", "Nope"), 4)));

    EXPECT_EQ((Lines{"Nope should exist in list", "Nope should exist in list"}), log.Texts(ELevel::Error));
}

TEST(CClientConnection, TheConnectionIdComesFromThePortAndNotFromTheList)
{
    CThingServer server;
    int const id = server.Ctor(4);
    auto call = callOf(id, "Thing", "Change", 5);
    call[protocol::CONNECTION_ID] = types::makeValue<int>(77);

    ASSERT_TRUE(server.port.Call(call, 4)->Wait());

    ASSERT_EQ(1U, server.port.Callbacks().size());
    EXPECT_EQ(4, server.port.Callbacks()[0].connectionId);
}

// Making actors

TEST(CClientConnection, CtorMakesAnActorAndAnswersItsId)
{
    CThingServer server;
    int const before = CClientConnection::lastActorId;

    EXPECT_EQ(types::toString(listOf(before + 1)),
              CThingServer::TextOf(*server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), 4)));

    EXPECT_EQ(1, server.MadeCount());
    ASSERT_NE(nullptr, server.LastActor());
    EXPECT_EQ(before + 1, server.LastActor()->GetId());
    EXPECT_EQ("Thing", server.LastActor()->GetTypeName());
    EXPECT_EQ(server.LastThing(), server.LastActor()->GetObject());
    EXPECT_EQ(before + 1, CClientConnection::lastActorId);
}

TEST(CClientConnection, ActorIdsGrowByOneAndAreUniqueAcrossConnections)
{
    CThingServer server;
    int const before = CClientConnection::lastActorId;

    EXPECT_LE(0, before);
    EXPECT_EQ(before + 1, server.Ctor(1));
    EXPECT_EQ(before + 2, server.Ctor(2));
    EXPECT_EQ(before + 3, server.Ctor(1, "Other"));
    EXPECT_EQ(before + 4, server.Ctor(9));
}

TEST(CClientConnection, ActorIdsAreUniqueThoughConnectionsMakeActorsAtTheSameTime)
{
    CThingServer server;
    int const before = CClientConnection::lastActorId;
    std::vector<std::shared_ptr<CFakePort::CReply>> replies;
    for (int call = 0; call < 60; ++call)
    {
        replies.push_back(server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), call % 3));
    }
    std::vector<int> ids;
    for (auto const& reply : replies)
    {
        auto const answer = reply->Wait();
        ASSERT_TRUE(answer);
        ids.push_back(types::unpackAt<int>(*answer, 0));
    }

    std::sort(ids.begin(), ids.end());
    for (int id = 0; id < 60; ++id)
    {
        EXPECT_EQ(before + 1 + id, ids[static_cast<std::size_t>(id)]);
    }
}

TEST(CClientConnection, CtorOfTheConnectionsOwnTypeAnswersZeroMakesNothingAndUsesUpAnId)
{
    CThingServer server;
    CLogCapture log;
    int const before = CClientConnection::lastActorId;

    EXPECT_EQ(0, server.Ctor(4, "CClientConnection"));

    EXPECT_EQ(0, server.MadeCount());
    EXPECT_EQ(before + 1, CClientConnection::lastActorId);
    EXPECT_EQ(before + 2, server.Ctor(4));
    EXPECT_EQ(1, log.Count("> CClientConnection::ctor typeName= ")); // only the thing's
    server.host.reset();
    EXPECT_TRUE(log.Contains("with 1 registered actors"));
}

TEST(CClientConnection, CtorLogsEveryStep)
{
    CThingServer server;
    CLogCapture log;
    int const id = server.Ctor(4);
    std::string const idText = std::to_string(id);
    ASSERT_TRUE(log.WaitFor("running message ctor[" + std::to_string(taskNumber(log, "ctor")) + "] done"));

    std::string const actor = literally(textOf(server.LastActor()));
    std::string const senderAdds = "CCallbackSender\\(0x[0-9a-f]+\\)::AddActor " + idText;
    expectLines(
        {{ELevel::Debug, "CLoopThread::Thread running message ctor\\[[0-9]+\\]"},
         {ELevel::Debug, "CClientConnection::OnFunctionCallSync with function=CClientConnection:ctor"},
         {ELevel::Debug, "CallFunction ctor"},
         {ELevel::Info, inconsistency("CreateActorWithId", "CClientConnection::ctor typeName= Thing")},
         {ELevel::Debug, senderAdds}, // OnRecreate, by the actor itself
         {ELevel::Debug, senderAdds}, // OnChanged, by the setup
         {ELevel::Error, inconsistency("CreateActorWithId", "actor id=" + idText +
                                                                ", knownActors=[12], knownActors\\[actorId\\]=\\(nil\\)"
                                                                ", lastActorId=" +
                                                                idText + ", typeName=Thing")},
         {ELevel::Info, inconsistency("CreateActorWithId",
                                      "actor id=" + idText + "\\(" + idText +
                                          "\\), typeName=Thing\\(Thing\\), knownActors\\[actorId\\]=" + actor + ", ")},
         {ELevel::Debug, "CClientConnection::ctor actor=" + actor + " actorId=" + idText + " done"},
         {ELevel::Debug, "CLoopThread::Thread running message ctor\\[[0-9]+\\] done"}},
        linesBetween(log, "running message ctor", "] done"));
}

TEST(CClientConnection, LinesAboutInconsistenciesNameFileFunctionAndLineAndNoThread)
{
    CThingServer server;
    CLogCapture log;
    server.Ctor(4);

    int seen = 0;
    for (auto const& line : log.Lines())
    {
        if (line.line.find(") > ") != std::string::npos)
        {
            ++seen;
            EXPECT_EQ(0U, line.line.find("CClientConnection.cpp: CreateActorWithId(")) << line.line;
        }
    }
    EXPECT_EQ(3, seen);
}

TEST(CClientConnection, ActorsBelongToTheirConnection)
{
    CThingServer server;
    int const id = server.Ctor(1);
    server.Call(1, id, "Add", 5)->Wait();

    // The same id means another actor to another client: one that is not there.
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(2, id, "Add", 2)));
    EXPECT_EQ(2, server.MadeCount());
    EXPECT_EQ(types::toString(listOf(6)), CThingServer::TextOf(*server.Call(1, id, "Add", 1)));
}

TEST(CClientConnection, ARepeatedActorIdIsLoggedAndTheOldActorIsOverwrittenAndLeftAlone)
{
    CThingServer server;
    CClientConnection& connection = server.host->GetOrCreateClientConnection(4);
    CActor* const old = connection.CreateActorWithId(5000, "Other");
    std::unique_ptr<int> const oldObject(static_cast<int*>(old->GetObject()));
    CLogCapture log;

    CActor* const actor = connection.CreateActorWithId(5000, "Thing");

    EXPECT_NE(old, actor);
    int repeated = 0;
    int read = 0;
    int stored = 0;
    for (auto const& line : log.Lines())
    {
        repeated += std::regex_match(line.line,
                                     std::regex(inconsistency("CreateActorWithId",
                                                              "actor id= 5000\\(5000\\), typeName=Other\\(Thing\\)\\. "
                                                              "Actor id should not repeat for client connection!"))) &&
                    line.level == ELevel::Error;
        read += std::regex_match(
            line.line, std::regex(inconsistency("CreateActorWithId", "actor id=5000, knownActors=2, "
                                                                     "knownActors\\[actorId\\]=" +
                                                                         literally(textOf(old)) +
                                                                         ", lastActorId=[0-9]+, typeName=Thing")));
        stored += std::regex_match(
            line.line,
            std::regex(inconsistency("CreateActorWithId", "actor id=5000\\(5000\\), typeName=Thing\\(Thing\\), "
                                                          "knownActors\\[actorId\\]=" +
                                                              literally(textOf(actor)) + ", ")));
    }
    EXPECT_EQ(1, repeated);
    EXPECT_EQ(1, read);
    EXPECT_EQ(1, stored);
    EXPECT_FALSE(log.Contains("~CActor"));
    EXPECT_EQ("Other", old->GetTypeName()); // not freed
    EXPECT_EQ(types::toString(listOf(7)), CThingServer::TextOf(*server.Call(4, 5000, "Add", 7)));

    server.host.reset();
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    g_lost = old;
}

// Destroying actors

TEST(CClientConnection, DtorDestroysTheActorAndItsObjectAndAnswersTrue)
{
    CThingServer server;
    int const kept = server.Ctor(4);
    int const id = server.Ctor(4);

    EXPECT_EQ(TRUE_ANSWER, server.Dtor(4, id));

    EXPECT_EQ(std::vector<int>{2}, server.Destroyed());
    EXPECT_EQ(types::toString(listOf(1)), CThingServer::TextOf(*server.Call(4, kept, "Serial")));
}

TEST(CClientConnection, DtorLogsEveryStepAndStopsTheWorkerAfterTheLastActor)
{
    CThingServer server;
    int const id = server.Ctor(4);
    std::string const idText = std::to_string(id);
    std::string const actor = literally(textOf(server.LastActor()));
    std::string const callback = literally(textOf(static_cast<ICallback*>(&server.LastThing()->OnChanged)));
    std::string const recreate = literally(textOf(static_cast<ICallback*>(&server.LastActor()->GetRecreateSender())));
    CLogCapture log;

    EXPECT_EQ(TRUE_ANSWER, server.Dtor(4, id));
    ASSERT_TRUE(log.WaitFor("finishes"));

    std::string const removing = "CActor::~CActor removing self from callback 0x[0-9a-f]+";
    std::string const removed = "CCallbackSender\\(0x[0-9a-f]+\\)::RemoveActor " + idText;
    auto const lines = linesBetween(log, "running message dtor", "finishes");
    expectLines({{ELevel::Debug, "CLoopThread::Thread running message dtor\\[[0-9]+\\]"},
                 {ELevel::Debug, "CClientConnection::OnFunctionCallSync with function=CClientConnection:dtor"},
                 {ELevel::Debug, "CallFunction dtor"},
                 {ELevel::Debug, "CClientConnection::dtor actorId=" + idText + " deleteObject=1"},
                 {ELevel::Error,
                  inconsistency("DestroyActor", "CClientConnection::dtor actor= " + idText + ", typeName=Thing")},
                 {ELevel::Debug, "CClientConnection::dtor CleanCallbacks\\.\\.\\."},
                 {ELevel::Debug, removing},
                 {ELevel::Debug, removed},
                 {ELevel::Debug, removing},
                 {ELevel::Debug, removed},
                 {ELevel::Debug, "CClientConnection::dtor calling destructor\\.\\.\\."},
                 {ELevel::Debug, "CCallbackSender::~CCallbackSender for " + callback},
                 {ELevel::Debug, "CClientConnection::dtor deleting actor\\.\\.\\."},
                 {ELevel::Debug, "CActor::~CActor actor=" + actor + " id=" + idText},
                 {ELevel::Debug, "CCallbackSender::~CCallbackSender for " + recreate},
                 {ELevel::Debug, "CClientConnection::dtor erasing actor from knownActors\\.\\.\\."},
                 {ELevel::Debug, "CClientConnection::dtor of " + idText + " done, 1 actors remaining"},
                 {ELevel::Debug, "CLoopThread::StopAndJoin thread ([0-9]+) from current thread \\1"},
                 {ELevel::Debug, "CLoopThread::StopAndJoin thread [0-9]+ done"},
                 {ELevel::Debug, "CLoopThread::Thread running message dtor\\[[0-9]+\\] done"},
                 {ELevel::Debug, "CLoopThread::Thread running message ping\\(dtor\\[[0-9]+\\]\\)"},
                 {ELevel::Debug, "CThreadWatchdog::Pong dtor\\[[0-9]+\\]"},
                 {ELevel::Debug, "CLoopThread::Thread running message ping\\(dtor\\[[0-9]+\\]\\) done"},
                 {ELevel::Debug, "CLoopThread::Thread stopping"},
                 {ELevel::Debug, "CLoopThread::Thread with id=[0-9]+ finishes"}},
                lines);
}

TEST(CClientConnection, DtorOfOneOfSeveralActorsKeepsTheWorker)
{
    CThingServer server;
    server.Ctor(4);
    int const id = server.Ctor(4);
    CLogCapture log;

    EXPECT_EQ(TRUE_ANSWER, server.Dtor(4, id));

    EXPECT_TRUE(log.WaitFor("CClientConnection::dtor of " + std::to_string(id) + " done, 2 actors remaining"));
    EXPECT_TRUE(log.WaitFor("running message ping(dtor"));
    EXPECT_FALSE(log.Contains("StopAndJoin"));
}

TEST(CClientConnection, TheNextCallAfterTheLastActorStartsTheWorkerAgain)
{
    CThingServer server;
    server.Dtor(4, server.Ctor(4));
    CLogCapture log;

    int const id = server.Ctor(4);

    EXPECT_EQ(types::toString(listOf(9)), CThingServer::TextOf(*server.Call(4, id, "Add", 9)));
}

TEST(CClientConnection, ActorsMayComeAndGoOverAndOver)
{
    CLogCapture log;
    CThingServer server;
    ASSERT_TRUE(log.WaitFor("] CThreadWatchdog::Tick")); // the watchdog's own thread is up
    log.Clear();
    for (int round = 1; round <= 100; ++round)
    {
        int const id = server.Ctor(4);
        EXPECT_EQ(types::toString(listOf(round)), CThingServer::TextOf(*server.Call(4, id, "Serial")));
        EXPECT_EQ(TRUE_ANSWER, server.Dtor(4, id));
    }
    EXPECT_EQ(100U, server.Destroyed().size());
    EXPECT_EQ(0, log.Count("recreating it"));

    // One worker for each, which ended: no call and no ping started one for nothing.
    EXPECT_TRUE(log.WaitFor("finishes", 100));
    EXPECT_EQ(100, log.Count("CLoopThread::Thread starting thread"));
}

TEST(CClientConnection, CallsThatWereQueuedBehindTheLastDtorAreAnswered)
{
    CThingServer server;
    int const id = server.Ctor(4);
    auto const blocked = server.Call(4, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    auto const dtor = server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4);
    auto const ctor = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Thing")), 4);
    server.release.Open();

    EXPECT_EQ(TRUE_ANSWER, CThingServer::TextOf(*blocked));
    EXPECT_EQ(TRUE_ANSWER, CThingServer::TextOf(*dtor));
    EXPECT_EQ(types::toString(listOf(id + 1)), CThingServer::TextOf(*ctor));
}

TEST(CClientConnection, DtorOfActorZeroDoesNothingAndAnswersTrue)
{
    CThingServer server;
    int const id = server.Ctor(4);
    CLogCapture log;

    EXPECT_EQ(TRUE_ANSWER, server.Dtor(4, 0));

    EXPECT_FALSE(log.Contains("CClientConnection::dtor"));
    EXPECT_TRUE(server.Destroyed().empty());
    EXPECT_EQ(types::toString(listOf(1)), CThingServer::TextOf(*server.Call(4, id, "Serial")));
}

TEST(CClientConnection, DestroyActorsDestroysAllButActorZeroInTheOrderOfTheirIds)
{
    CThingServer server;
    CLogCapture log;
    std::vector<int> ids{server.Ctor(4), server.Ctor(4), server.Ctor(4)};
    ASSERT_TRUE(log.WaitFor("running message ping(ctor", 6)); // run and done, of each
    log.Clear();

    server.host->GetOrCreateClientConnection(4).DestroyActors(true);

    EXPECT_EQ((std::vector<int>{1, 2, 3}), server.Destroyed());
    auto const lines = ownLines(log);
    ASSERT_LE(2U, lines.size());
    EXPECT_EQ("CClientConnection::DestroyActors(1)", lines.front());
    EXPECT_EQ("CClientConnection::DestroyActors done", lines.back());
    Lines remaining;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(remaining),
                 [](auto const& line) { return line.find("remaining") != std::string::npos; });
    EXPECT_EQ((Lines{"CClientConnection::dtor of " + std::to_string(ids[0]) + " done, 3 actors remaining",
                     "CClientConnection::dtor of " + std::to_string(ids[1]) + " done, 2 actors remaining",
                     "CClientConnection::dtor of " + std::to_string(ids[2]) + " done, 1 actors remaining"}),
              remaining);
    // Actor 0 still serves.
    EXPECT_LT(ids[2], server.Ctor(4));
}

TEST(CClientConnection, DestroyActorsMayLeaveTheObjectsAlone)
{
    CThingServer server;
    CLogCapture log;
    int const id = server.Ctor(4);
    ASSERT_TRUE(log.WaitFor("running message ping(ctor", 2));
    log.Clear();

    server.host->GetOrCreateClientConnection(4).DestroyActors(false);

    EXPECT_TRUE(server.Destroyed().empty());
    auto const lines = ownLines(log);
    ASSERT_LE(2U, lines.size());
    EXPECT_EQ("CClientConnection::DestroyActors(0)", lines[0]);
    EXPECT_EQ("CClientConnection::dtor actorId=" + std::to_string(id) + " deleteObject=0", lines[1]);
    EXPECT_FALSE(log.Contains("calling destructor"));
    EXPECT_TRUE(log.Contains("CActor::~CActor actor="));
}

TEST(CClientConnection, ShutdownLetsQueuedCallsFinishThenDestroysTheActorsWithTheirObjects)
{
    CThingServer server;
    int const id = server.Ctor(4);
    server.Ctor(4);
    auto const blocked = server.Call(4, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    auto const queued = server.Call(4, id, "Add", 3);
    CGate done;
    std::thread owner([&] {
        server.host->GetOrCreateClientConnection(4).Shutdown();
        done.Open();
    });
    EXPECT_TRUE(done.StaysShut());
    EXPECT_TRUE(server.Destroyed().empty());
    server.release.Open();
    owner.join();

    EXPECT_EQ(TRUE_ANSWER, CThingServer::TextOf(*blocked));
    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*queued));
    EXPECT_EQ((std::vector<int>{1, 2}), server.Destroyed());
}

// Fatal misuse by a peer

TEST(CClientConnectionDeathTest, CtorOfAnUnknownTypeLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            server.Ctor(4, "Nothing of the kind");
        },
        "\\[[0-9]+\\] Unknown type Nothing of the kind");
}

TEST(CClientConnectionDeathTest, RecreatingAnActorOfAnUnknownTypeLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            server.port.Call(callOf(123456, "Nothing of the kind", "Add", 1), 4)->Wait();
        },
        "\\[[0-9]+\\] Unknown type Nothing of the kind");
}

TEST(CClientConnectionDeathTest, DtorOfAnUnknownIdLogsTwiceAndAborts)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            server.Dtor(4, 123456);
        },
        "CClientConnection\\.cpp: DestroyActor\\([0-9]+\\) > Shouldn't try to destroy nullptr actor\n"
        "\\[[0-9]+\\] Shouldn't try to destroy nullptr actor");
}

TEST(CClientConnectionDeathTest, DtorOfAnActorThatIsGoneAborts)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            server.Ctor(4);
            int const id = server.Ctor(4);
            server.Dtor(4, id);
            server.Dtor(4, id);
        },
        "Shouldn't try to destroy nullptr actor");
}

TEST(CClientConnectionDeathTest, ACallWithoutAMethodNameLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            auto call = callOf(0, "CClientConnection", "ctor", std::string("Thing"));
            call.erase(protocol::METHOD_NAME);
            server.port.Call(call, 4)->Wait();
        },
        "wrong type in CValue");
}

TEST(CClientConnectionDeathTest, ACallWithAMethodNameOfAnotherTypeLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            auto call = callOf(0, "CClientConnection", "ctor", std::string("Thing"));
            call[protocol::METHOD_NAME] = types::makeValue<char const*>("ctor");
            server.port.Call(call, 4)->Wait();
        },
        "wrong type in CValue");
}

TEST(CClientConnectionDeathTest, ACallWithAnActorIdOfAnotherTypeLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            auto call = callOf(0, "CClientConnection", "ctor", std::string("Thing"));
            call[protocol::ACTOR_ID] = types::makeValue<std::string>("0");
            server.port.Call(call, 4)->Wait();
        },
        "wrong type in CValue");
}

TEST(CClientConnectionDeathTest, ACallWithoutATypeNameLogsAndAborts)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            auto call = callOf(0, "CClientConnection", "ctor", std::string("Thing"));
            call.erase(protocol::TYPE_NAME);
            server.port.Call(call, 4)->Wait();
        },
        "wrong type in CValue");
}

TEST(CClientConnectionDeathTest, AnExceptionOfAnApplicationFunctionEndsTheProcess)
{
    EXPECT_ABORT(
        {
            CThingServer server;
            server.run = [](CThing&) { throw std::runtime_error("thrown by the application"); };
            server.Call(4, server.Ctor(4), "Run")->Wait();
        },
        "thrown by the application");
}

// Recreation

TEST(CClientConnection, ACallForAnUnknownActorMakesItAnewUnderItsIdAndTellsTheClientBeforeTheCallIsCarriedOut)
{
    CThingServer server;
    CLogCapture log;
    int const before = CClientConnection::lastActorId;

    auto const reply = server.Call(4, 7777, "Add", 5);
    EXPECT_EQ(types::toString(listOf(5)), CThingServer::TextOf(*reply));

    EXPECT_EQ((Lines{callbackText(7777, "OnRecreate"), "run Add", "reply " + types::toString(listOf(5))}),
              server.port.Events());
    EXPECT_EQ(7777, server.LastActor()->GetId());
    EXPECT_EQ(before, CClientConnection::lastActorId);
    auto const errors = log.Texts(ELevel::Error);
    ASSERT_LE(1U, errors.size());
    EXPECT_EQ("Actor is null for actorId=7777 in connectionId=4, recreating it", errors.front());

    // Once made it is there.
    EXPECT_EQ(types::toString(listOf(6)), CThingServer::TextOf(*server.Call(4, 7777, "Add", 1)));
    EXPECT_EQ(1, log.Count("recreating it"));
    EXPECT_EQ(1U, server.port.Callbacks().size());
}

TEST(CClientConnection, ARecreatedActorHasItsFunctionsAndCallbacks)
{
    CThingServer server;
    ASSERT_TRUE(server.Call(4, 7777, "Change", 5)->Wait());

    EXPECT_EQ("callback " + types::toString(callbackOf(7777, "OnChanged", 5)), server.port.Events()[2]);
    EXPECT_EQ(TRUE_ANSWER, server.Dtor(4, 7777));
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
}

// Callbacks

TEST(CClientConnection, ACallbackCarriesNameAndActorWhateverThePayloadHeldThere)
{
    CThingServer server;
    CClientConnection& connection = server.host->GetOrCreateClientConnection(4);
    CLogCapture log;
    types::CValueList payload = callOf(1, "Type", "Name", 5, std::string("six"));
    payload[protocol::METHOD_NAME] = types::makeValue<int>(1);
    payload[protocol::ACTOR_ID] = types::makeValue<std::string>("x");
    payload[protocol::CONNECTION_ID] = types::makeValue<int>(3);
    payload[-9] = types::makeValue<int>(9);

    EXPECT_TRUE(connection.SendCallback(12, "OnChanged", payload));

    types::CValueList expected = payload;
    expected[protocol::METHOD_NAME] = types::makeValue<std::string>("OnChanged");
    expected[protocol::ACTOR_ID] = types::makeValue<int>(12);
    ASSERT_EQ(1U, server.port.Callbacks().size());
    EXPECT_EQ(types::toString(expected), types::toString(server.port.Callbacks()[0].list));
    EXPECT_EQ(4, server.port.Callbacks()[0].connectionId);
    EXPECT_EQ((Lines{"CRpcHost::SendCallback actorId = 12, name = OnChanged, msg = " + types::toString(payload),
                     "CRpcHost::CRpcHost SendCallback with msg=" + types::toString(expected)}),
              ownLines(log));
    EXPECT_TRUE(allAreOf(log, ELevel::Debug));
}

TEST(CClientConnection, AFailedSendLogsReturnsFalseAtOnceAndTheWorkerRemovesTheActorWithItsObject)
{
    CThingServer server;
    int const id = server.Ctor(4);
    server.Call(4, id, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    server.port.SetSendResult(false);
    CLogCapture log;

    // The worker is busy, so nothing that waits for it could return here.
    EXPECT_FALSE(server.LastActor()->SendCallback("OnChanged", listOf(1)));
    EXPECT_EQ(1, log.Count("] CClientConnection::SendCallback client disappeared, unregistering actor"));
    EXPECT_EQ(Lines{"CClientConnection::SendCallback client disappeared, unregistering actor"},
              log.Texts(ELevel::Error));
    EXPECT_TRUE(server.Destroyed().empty());

    server.release.Open();
    EXPECT_TRUE(log.WaitFor("CClientConnection::dtor of " + std::to_string(id) + " done"));
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    ASSERT_EQ(1U, server.DestroyedOn().size());
    EXPECT_NE(threadId(), server.DestroyedOn()[0]);
    EXPECT_TRUE(log.Contains("CClientConnection::dtor actorId=" + std::to_string(id) + " deleteObject=1"));
}

TEST(CClientConnection, SeveralFailedSendsOfAnActorRemoveItOnce)
{
    CThingServer server;
    int const id = server.Ctor(4);
    int const kept = server.Ctor(4);
    server.Call(4, kept, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    server.port.SetSendResult(false);
    CLogCapture log;
    CClientConnection& connection = server.host->GetOrCreateClientConnection(4);
    for (int send = 0; send < 5; ++send)
    {
        EXPECT_FALSE(connection.SendCallback(id, "OnChanged", listOf(send)));
    }
    server.port.SetSendResult(true);
    server.release.Open();

    // Behind the removals, if there are several, and the process is still there to answer.
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, kept, "Serial")));
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    EXPECT_EQ(1, log.Count("CClientConnection::dtor actorId=" + std::to_string(id)));
    EXPECT_EQ(5, log.Count("client disappeared"));
}

TEST(CClientConnection, AFunctionWhoseCallbackFailsFinishesOnItsLivingObjectBeforeItIsRemoved)
{
    CThingServer server;
    int const id = server.Ctor(4);
    server.port.SetSendResult(false);
    std::vector<int> destroyedInside{-1};
    int after = 0;
    server.run = [&](CThing& thing) {
        thing.OnChanged.Send(1);
        destroyedInside = server.Destroyed();
        after = thing.Add(3) + thing.GetSerial();
    };
    CLogCapture log;

    auto const reply = server.Call(4, id, "Run");

    EXPECT_EQ(TRUE_ANSWER, CThingServer::TextOf(*reply));
    EXPECT_TRUE(log.WaitFor("CClientConnection::dtor of " + std::to_string(id) + " done"));
    EXPECT_TRUE(destroyedInside.empty());
    EXPECT_EQ(4, after);
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    EXPECT_EQ(1, reply->Count());
}

TEST(CClientConnection, AFailedOnRecreateLetsTheCallBeCarriedOutAndThenTheActorIsRemoved)
{
    CThingServer server;
    server.port.SetSendResult(false);
    CLogCapture log;

    EXPECT_EQ(types::toString(listOf(5)), CThingServer::TextOf(*server.Call(4, 7777, "Add", 5)));

    EXPECT_TRUE(log.WaitFor("CClientConnection::dtor of 7777 done"));
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    EXPECT_EQ(1, log.Count("CClientConnection::SendCallback client disappeared, unregistering actor"));
}

TEST(CClientConnection, ACallbackThatFailsDuringTheSetupHasTheActorRemovedOnceItIsMade)
{
    CThingServer server;
    server.onSetup = [](CActor& actor) { EXPECT_FALSE(actor.SendCallback("OnChanged", listOf(1))); };
    server.port.SetSendResult(false);
    CLogCapture log;

    int const id = server.Ctor(4);

    EXPECT_TRUE(log.WaitFor("CClientConnection::dtor of " + std::to_string(id) + " done, 1 actors remaining"));
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
}

TEST(CClientConnection, ARemovalIgnoresAnActorThatTheClientDestroyedMeanwhile)
{
    CThingServer server;
    int const kept = server.Ctor(4);
    int const id = server.Ctor(4);
    server.Call(4, kept, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    auto const dtor = server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4);
    server.port.SetSendResult(false);
    EXPECT_FALSE(server.LastActor()->SendCallback("OnChanged", listOf(1))); // its removal queues behind the dtor
    server.port.SetSendResult(true);
    server.release.Open();

    EXPECT_EQ(TRUE_ANSWER, CThingServer::TextOf(*dtor));
    EXPECT_EQ(types::toString(listOf(1)), CThingServer::TextOf(*server.Call(4, kept, "Serial")));
    EXPECT_EQ(std::vector<int>{2}, server.Destroyed());
}

TEST(CClientConnection, AFailedSendOfAnActorThatIsNotThereRemovesNothing)
{
    CThingServer server;
    int const id = server.Ctor(4);
    server.port.SetSendResult(false);
    CClientConnection& connection = server.host->GetOrCreateClientConnection(4);

    EXPECT_FALSE(connection.SendCallback(424242, "OnChanged", {}));
    EXPECT_FALSE(connection.SendCallback(0, "OnKill", {}));
    server.port.SetSendResult(true);

    EXPECT_EQ(types::toString(listOf(1)), CThingServer::TextOf(*server.Call(4, id, "Serial")));
    EXPECT_TRUE(server.Destroyed().empty());
}

TEST(CClientConnection, AClientMayBeServedAgainAfterItsActorWasRemoved)
{
    CThingServer server;
    int const id = server.Ctor(4);
    CLogCapture log;
    server.port.SetSendResult(false);
    ASSERT_TRUE(server.Call(4, id, "Change", 1)->Wait());
    ASSERT_TRUE(log.WaitFor("CClientConnection::dtor of " + std::to_string(id) + " done, 1 actors remaining"));
    server.port.SetSendResult(true);

    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, id, "Add", 2)));
    EXPECT_EQ(2, server.MadeCount());
}

TEST(CClientConnection, AnObjectMayPublishFromAThreadOfItsOwnThatItsDestructionJoins)
{
    CThingServer server;
    std::atomic<bool> stop{false};
    std::thread publisher;
    server.onDestroy = [&](CThing&) {
        stop = true;
        publisher.join(); // by itself this would never return: the removal must not happen inside its send
    };
    int const id = server.Ctor(4);
    std::atomic<int> sends{0};
    CThing* const thing = server.LastThing();
    CLogCapture log;
    publisher = std::thread([&] {
        while (!stop)
        {
            thing->OnChanged.Send(++sends);
            std::this_thread::yield();
        }
    });
    ASSERT_TRUE(server.port.WaitForCallbacks(20));

    server.port.SetSendResult(false);

    EXPECT_TRUE(log.WaitFor("CClientConnection::dtor of " + std::to_string(id) + " done"));
    EXPECT_EQ(std::vector<int>{1}, server.Destroyed());
    EXPECT_EQ(1, log.Count("CClientConnection::dtor actorId=" + std::to_string(id)));
}

TEST(CClientConnection, OtherThreadsMaySendWhileActorsComeAndGo)
{
    CThingServer server;
    CCallbackSender<int> news; // one sender on the actors of two connections
    server.onSetup = [&](CActor& actor) { actor.AddCallback("OnNews", news); };
    std::atomic<bool> stop{false};
    std::thread publisher([&] {
        for (int item = 0; !stop; ++item)
        {
            news.Send(item);
            std::this_thread::yield();
        }
    });
    for (int round = 0; round < 60; ++round)
    {
        int const id = server.Ctor(round % 2);
        EXPECT_EQ(TRUE_ANSWER, server.Dtor(round % 2, id));
    }
    stop = true;
    publisher.join();
    EXPECT_EQ(60U, server.Destroyed().size());
    server.host.reset(); // before the sender
}

// A call that hangs

TEST(CClientConnection, AHungCallIsAnsweredEmptyAndThenTheClientGetsOnKillFromActorZero)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(4);
    CLogCapture log;

    auto const reply = server.Call(4, id, "Hang");
    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    ASSERT_TRUE(server.port.WaitForCallbacks(1));

    auto const events = server.port.Events();
    ASSERT_LE(3U, events.size());
    EXPECT_EQ((Lines{"run Hang", "reply {}", callbackText(0, "OnKill")}), Lines(events.end() - 3, events.end()));
    EXPECT_EQ(4, server.port.Callbacks()[0].connectionId);
    EXPECT_EQ(1, log.Count("CThreadWatchdog::Tick Killing thread "));
    EXPECT_TRUE(eventually([&] { return server.hang.IsGone(); }));
    EXPECT_FALSE(server.hang.CameBack());
}

TEST(CClientConnection, AKillDestroysTheActorsAndNotTheirObjects)
{
    CThingServer server(CThingServer::ShortLimits());
    int const first = server.Ctor(4);
    int const second = server.Ctor(4);
    CLogCapture log;

    server.Call(4, first, "Hang");
    ASSERT_TRUE(server.port.WaitForCallbacks(1));

    EXPECT_TRUE(server.Destroyed().empty());
    EXPECT_EQ(1, log.Count("] CClientConnection::DestroyActors(0)"));
    EXPECT_EQ(1, log.Count("CClientConnection::dtor actorId=" + std::to_string(first) + " deleteObject=0"));
    EXPECT_EQ(1, log.Count("CClientConnection::dtor actorId=" + std::to_string(second) + " deleteObject=0"));
    EXPECT_EQ(1, log.Count("CActor::~CActor actor=" + textOf(server.LastActor()) + " id=" + std::to_string(second)));
    EXPECT_EQ(1, log.Count("CClientConnection::DestroyActors done"));
    EXPECT_FALSE(log.Contains("calling destructor"));
}

TEST(CClientConnection, TheHandlerOfAKillRunsOnTheWatchdogsThreadAfterTheKill)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(4);
    CLogCapture log;
    server.Call(4, id, "Hang");
    ASSERT_TRUE(server.port.WaitForCallbacks(1));

    auto const lines = linesOf(log, server.host->GetThreadWatchdog().GetId());
    int const kill = indexOf(lines, "CLoopThread::Kill of thread ");
    int const destroy = indexOf(lines, "CClientConnection::DestroyActors(0)");
    int const send = indexOf(lines, "CCallbackSender::Send to actor = 0");
    EXPECT_NE(-1, kill);
    EXPECT_LT(kill, destroy);
    EXPECT_LT(destroy, send);
}

TEST(CClientConnection, AfterAKillTheNextCallMakesTheActorAnewAndTellsTheClientBeforeItIsCarriedOut)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(4);
    server.Call(4, id, "Add", 5)->Wait();
    server.Call(4, id, "Hang");
    ASSERT_TRUE(server.port.WaitForCallbacks(1));
    CLogCapture log;

    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, id, "Add", 2)));

    auto const events = server.port.Events();
    ASSERT_LE(3U, events.size());
    EXPECT_EQ((Lines{callbackText(id, "OnRecreate"), "run Add", "reply " + types::toString(listOf(2))}),
              Lines(events.end() - 3, events.end()));
    EXPECT_TRUE(
        log.Contains("] Actor is null for actorId=" + std::to_string(id) + " in connectionId=4, recreating it"));
    EXPECT_EQ(2, server.MadeCount());
    EXPECT_EQ(id, server.LastActor()->GetId());

    EXPECT_EQ(TRUE_ANSWER, server.Dtor(4, id));
    EXPECT_EQ(std::vector<int>{2}, server.Destroyed());
}

TEST(CClientConnection, AKillOfOneConnectionLeavesTheOthersAlone)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(1);
    int const other = server.Ctor(2);
    server.Call(2, other, "Add", 5)->Wait();

    server.Call(1, id, "Hang");
    ASSERT_TRUE(server.port.WaitForCallbacks(1));

    EXPECT_EQ(types::toString(listOf(6)), CThingServer::TextOf(*server.Call(2, other, "Add", 1)));
    EXPECT_EQ(1U, server.port.Callbacks().size());
}

TEST(CClientConnection, CallsQueuedBehindAHungOneAreAnsweredEmptyRunLaterAndAreNotAnsweredAgain)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(4);
    auto const hung = server.Call(4, id, "Hang");
    auto const queued = server.Call(4, id, "Add", 3);
    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*hung));
    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*queued));
    ASSERT_TRUE(server.port.WaitForCallbacks(2)); // each had its own ping, its own kill and its own handler
    EXPECT_EQ(-1, indexOf(server.port.Events(), "run Add"));

    // The one that survived in the queue runs first, on the actor made anew.
    auto const next = server.Call(4, id, "Add", 4);
    EXPECT_EQ(types::toString(listOf(7)), CThingServer::TextOf(*next));
    EXPECT_EQ(1, hung->Count());
    EXPECT_EQ(1, queued->Count());
    EXPECT_EQ(1, next->Count());
}

TEST(CClientConnection, AnAnswerThatRacesWithTheKillIsGivenOnce)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(4);
    CLogCapture log;
    std::atomic<int> answers{0};
    server.port.OnFunctionCall(callOf(id, "Thing", "Add", 1), 4, [&](types::CValueList const&) {
        ++answers;
        log.WaitFor("CThreadWatchdog::Tick Killing thread "); // the port takes long to send the answer
    });

    ASSERT_TRUE(server.port.WaitForCallbacks(1)); // OnKill comes after the handler's answer
    EXPECT_EQ(1, answers);
}

TEST(CClientConnection, AWorkerThatIsKilledInsideTheLibraryDiesOnlyWhenItLeavesIt)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(4);
    CLogCapture log;
    std::atomic<bool> portReturned{false};
    std::atomic<bool> functionWentOn{false};
    server.port.OnSendCallback([&](types::CValueList const& callback, int) {
        if (types::unpackAt<std::string>(callback, protocol::METHOD_NAME) == "OnChanged")
        {
            log.WaitFor("CLoopThread::Kill of thread ");
            portReturned = true;
        }
        return true;
    });
    server.run = [&](CThing& thing) {
        thing.OnChanged.Send(1);
        functionWentOn = true;
    };

    auto const reply = server.Call(4, id, "Run");
    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    EXPECT_TRUE(eventually([&] { return portReturned.load(); }));

    // Nothing that the library or the port needs was left locked.
    server.run = {};
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, id, "Add", 2)));
    EXPECT_EQ(1, reply->Count());
    EXPECT_FALSE(functionWentOn);
}

TEST(CClientConnection, AnApplicationFunctionIsCancellableAndTheLibraryAroundItIsNot)
{
    CThingServer server;
    int const id = server.Ctor(4);
    int inFunction = -1;
    int afterSend = -1;
    int inSend = -1;
    int inReply = -1;
    server.port.OnSendCallback([&](types::CValueList const&, int) {
        inSend = cancelState().state;
        return true;
    });
    server.run = [&](CThing& thing) {
        inFunction = cancelState().state;
        thing.OnChanged.Send(1);
        afterSend = cancelState().state;
    };
    CGate replied;
    server.port.OnFunctionCall(callOf(id, "Thing", "Run"), 4, [&](types::CValueList const&) {
        inReply = cancelState().state;
        replied.Open();
    });
    ASSERT_TRUE(replied.Wait());

    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, inFunction);
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, inSend);
    EXPECT_EQ(PTHREAD_CANCEL_ENABLE, afterSend);
    EXPECT_EQ(PTHREAD_CANCEL_DISABLE, inReply);
}

TEST(CClientConnection, AHungConstructorOfAnObjectIsKilledToo)
{
    CThingServer server(CThingServer::ShortLimits());
    CHang hang;
    SActorType type;
    type.create = [&]() -> void* {
        hang.Enter();
        return nullptr;
    };
    type.destroy = [](void*) {};
    type.setup = [](CActor&) {};
    server.host->RegisterActorType("Stuck", type);

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Stuck")), 4);

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    ASSERT_TRUE(server.port.WaitForCallbacks(1));
    EXPECT_TRUE(eventually([&] { return hang.IsGone(); }));
    EXPECT_LT(0, server.Ctor(4)); // and the connection still serves
}

TEST(CClientConnection, AHungSetupOfAnActorIsKilledToo)
{
    CThingServer server(CThingServer::ShortLimits());
    CHang hang;
    SActorType type;
    type.create = []() -> void* { return nullptr; };
    type.destroy = [](void*) {};
    type.setup = [&](CActor& actor) {
        g_lost = &actor;
        hang.Enter();
    };
    server.host->RegisterActorType("Stuck", type);

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Stuck")), 4);

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    ASSERT_TRUE(server.port.WaitForCallbacks(1));
    EXPECT_TRUE(eventually([&] { return hang.IsGone(); }));
    EXPECT_LT(0, server.Ctor(4)); // and the connection still serves
}

TEST(CClientConnection, AHungDestructorOfAnObjectIsGivenUpAndTheConnectionServesOn)
{
    // A destructor cannot be unwound, so its thread lives until it comes back, and must then end without a trace.
    CThingServer server(CThingServer::ShortLimits());
    CGate release;
    std::atomic<int> thread{0};
    SActorType type;
    type.create = []() -> void* { return nullptr; };
    type.destroy = [&](void*) {
        thread = threadId();
        release.Wait(60s);
    };
    type.setup = [](CActor& actor) { g_lost = &actor; };
    server.host->RegisterActorType("Sticky", type);
    int const id = server.Ctor(4, "Sticky");

    auto const reply = server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4);

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    ASSERT_TRUE(server.port.WaitForCallbacks(1));
    EXPECT_LT(id, server.Ctor(4));
    CLogCapture log;
    server.host.reset();
    log.Clear();
    release.Open();
    EXPECT_TRUE(eventually([&] { return ::access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) != 0; }));
    EXPECT_EQ(1, reply->Count());
    for (auto const& line : log.Texts())
    {
        EXPECT_NE(std::string::npos, line.find("::~")) << line; // of what it kept, and nothing else
    }
}

TEST(CClientConnection, AHungRemovalOfALostActorIsGivenUpAndTheHostCanBeDestroyed)
{
    CThingServer server(CThingServer::ShortLimits());
    CGate entered;
    CGate release;
    std::atomic<bool> cameBack{false};
    std::atomic<int> thread{0};
    SActorType type;
    type.create = []() -> void* { return nullptr; };
    type.destroy = [&](void*) {
        thread = threadId();
        entered.Open();
        release.Wait(60s);
        cameBack = true;
    };
    type.setup = [](CActor& actor) { g_lost = &actor; };
    server.host->RegisterActorType("Sticky", type);
    int const id = server.Ctor(4, "Sticky");
    server.port.SetSendResult(false);
    EXPECT_FALSE(server.host->GetOrCreateClientConnection(4).SendCallback(id, "OnChanged", listOf(1)));
    ASSERT_TRUE(entered.Wait());

    server.host.reset();

    EXPECT_FALSE(cameBack);
    release.Open();
    EXPECT_TRUE(eventually([&] { return ::access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) != 0; }));
}

TEST(CClientConnection, AWorkerThatIsCutOffBetweenOnRecreateAndTheCallKeepsTheActorItWasAbout)
{
    SHostOptions options;
    options.hangLimitMs = 300;
    options.hangCheckMs = 100;
    CThingServer server(options);
    CLogCapture log;
    std::atomic<bool> isFirst{true};
    server.port.OnSendCallback([&](types::CValueList const& callback, int) {
        bool const isRecreate = types::unpackAt<std::string>(callback, protocol::METHOD_NAME) == protocol::ON_RECREATE;
        if (isRecreate && isFirst.exchange(false))
        {
            log.WaitFor("done successfully"); // the bus stalls until the kill has given the worker up
        }
        return true;
    });

    auto const reply = server.Call(4, 77, "Add", 1);

    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*reply));
    ASSERT_TRUE(server.port.WaitForCallbacks(2)); // OnRecreate and OnKill
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, 77, "Add", 2)));
    EXPECT_EQ(1, reply->Count());
    EXPECT_EQ(2, server.MadeCount());
}

TEST(CClientConnection, ARemovalLeavesAnActorAloneThatWasMadeAnewUnderItsIdMeanwhile)
{
    CThingServer server;
    int const kept = server.Ctor(4);
    int const id = server.Ctor(4);
    server.Call(4, kept, "Block");
    ASSERT_TRUE(server.blocked.Wait());
    auto const gone = server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4);
    auto const anew = server.Call(4, id, "Serial");
    server.port.SetSendResult(false);
    EXPECT_FALSE(server.host->GetOrCreateClientConnection(4).SendCallback(id, "OnChanged", listOf(1)));
    server.port.SetSendResult(true);

    server.release.Open(); // now they run in this order: destroy, make anew, remove

    EXPECT_EQ(types::toString(listOf(true)), CThingServer::TextOf(*gone));
    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*anew));
    EXPECT_EQ(types::toString(listOf(3)), CThingServer::TextOf(*server.Call(4, id, "Serial")));
    EXPECT_EQ(std::vector<int>{2}, server.Destroyed());
}

TEST(CClientConnection, AnActorThatIsMadeAnewAfterAKillInItsDestructionCanBeLostAgain)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(4);
    g_lost = server.LastActor();
    CGate release;
    server.onDestroy = [&](CThing& thing) {
        if (thing.GetSerial() == 1)
        {
            server.port.SetSendResult(false);
            thing.OnChanged.Send(1); // nobody is registered any more
            static_cast<void>(server.host->GetOrCreateClientConnection(4).SendCallback(id, "OnChanged", listOf(1)));
            server.port.SetSendResult(true);
            release.Wait(60s);
        }
    };
    EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*server.port.Call(callOf(0, "CClientConnection", "dtor", id), 4)));
    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, id, "Serial")));
    CLogCapture log;

    server.port.SetSendResult(false);
    EXPECT_FALSE(server.LastActor()->SendCallback("OnChanged", listOf(1)));

    EXPECT_TRUE(log.WaitFor("CClientConnection::dtor of " + std::to_string(id) + " done"));
    EXPECT_EQ(std::vector<int>{2}, server.Destroyed());
    server.host.reset();
    release.Open();
    EXPECT_TRUE(eventually([&] { return server.Destroyed().size() == 2; }));
}

TEST(CClientConnection, ASetupThatIsKilledLeavesNothingOfItsActorOnASharedSender)
{
    CThingServer server(CThingServer::ShortLimits());
    CHang hang;
    CCallbackSender<int> shared;
    SActorType type;
    type.create = []() -> void* { return nullptr; };
    type.destroy = [](void*) {};
    type.setup = [&](CActor& actor) {
        actor.AddCallback("OnShared", shared);
        hang.Enter();
    };
    server.host->RegisterActorType("Stuck", type);
    EXPECT_EQ(EMPTY_ANSWER,
              CThingServer::TextOf(*server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Stuck")), 4)));
    ASSERT_TRUE(server.port.WaitForCallbacks(1)); // OnKill
    ASSERT_TRUE(eventually([&] { return hang.IsGone(); }));

    CLogCapture log;
    shared.Send(1);

    EXPECT_EQ(1U, server.port.Callbacks().size());
    EXPECT_EQ(0, log.Count("SendCallback"));
}

TEST(CClientConnection, TheFirstActorOfAProcessHasIdOne)
{
    // In a process of its own, whatever ran before in this one.
    EXPECT_EXIT(
        {
            CThingServer server;
            bool const ok = server.Ctor(4) == 1 && server.Ctor(7) == 2;
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST(CClientConnection, NoNewWorkerMeetsTheActorsThatTheHandlerOfAKillIsDestroying)
{
    CSlowCallback slow;
    CThingServer server(CThingServer::ShortLimits());
    std::atomic<bool> first{true};
    server.onSetup = [&](CActor& actor) {
        if (first.exchange(false))
        {
            actor.AddCallback("OnSlow", slow);
        }
    };
    int const id = server.Ctor(4);
    CLogCapture log;
    server.Call(4, id, "Hang");
    ASSERT_TRUE(slow.removing.Wait());

    auto const next = server.Call(4, id, "Add", 2);
    EXPECT_FALSE(next->Wait(300ms));
    EXPECT_EQ(-1, indexOf(server.port.Events(), "run Add"));
    slow.release.Open();

    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*next));
    EXPECT_EQ(2, server.MadeCount());
    EXPECT_EQ(1, log.Count("recreating it"));
}

TEST(CClientConnection, HungCallsOfOneClientCanBeKilledAgainAndAgain)
{
    SHostOptions options;
    options.hangLimitMs = 1000;
    options.hangCheckMs = 200;
    CThingServer server(options);
    int const id = server.Ctor(4);
    for (std::size_t round = 1; round <= 4; ++round)
    {
        EXPECT_EQ(EMPTY_ANSWER, CThingServer::TextOf(*server.Call(4, id, "Hang")));
        ASSERT_TRUE(eventually([&] {
            auto const events = server.port.Events();
            return std::count(events.begin(), events.end(), callbackText(0, "OnKill")) ==
                   static_cast<std::ptrdiff_t>(round);
        }));
    }
}

TEST(CClientConnection, AKillWhoseClientIsGoneToldNobodyAndHarmsNothing)
{
    CThingServer server(CThingServer::ShortLimits());
    int const id = server.Ctor(4);
    server.port.SetSendResult(false);
    CLogCapture log;

    server.Call(4, id, "Hang");
    EXPECT_TRUE(log.WaitFor("CClientConnection::SendCallback client disappeared, unregistering actor"));
    server.port.SetSendResult(true);

    EXPECT_EQ(types::toString(listOf(2)), CThingServer::TextOf(*server.Call(4, id, "Add", 2)));
}
