#include "CGate.h"
#include "CLogCapture.h"
#include "CSpin.h"
#include "CThingServer.h"
#include "Eventually.h"

#include <nelo_rpc/nelo_rpc.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <future>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

using namespace nelo_rpc;
using namespace std::chrono_literals;
using log::ELevel;

namespace
{

/// Takes the reports of a host.
class CReports
{
public:
    SHostOptions Options()
    {
        SHostOptions options;
        options.kill = EKill::AtCancellationPoint;
        options.hangLimitMs = 1000;
        options.hangCheckMs = 200;
        options.onHang = [this](SHangReport const& report) {
            std::lock_guard<std::mutex> const lock(m_mutex);
            m_reports.push_back(report);
        };
        return options;
    }

    std::vector<SHangReport> All() const
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_reports;
    }

    /// The first, or an empty one if none comes.
    SHangReport Wait() const
    {
        EXPECT_TRUE(eventually([this] { return !All().empty(); }));
        return All().empty() ? SHangReport() : All().front();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<SHangReport> m_reports;
};

/// ThreadSanitizer puts a signal off until its thread next calls the C library.
constexpr bool isSignalPutOff()
{
#if defined(__SANITIZE_THREAD__)
    return true;
#elif defined(__has_feature)
    return __has_feature(thread_sanitizer);
#else
    return false;
#endif
}

bool isKillTold(CThingServer const& server)
{
    return eventually([&] {
        auto const callbacks = server.port.Callbacks();
        return !callbacks.empty() &&
               types::unpackAt<std::string>(callbacks.back().list, protocol::METHOD_NAME) == "OnKill";
    });
}

} // namespace

TEST(HangReport, TellsWhoHangsWhereAndForHowLong)
{
    CReports reports;
    CThingServer server(reports.Options());
    int const id = server.Ctor(4);
    CSpin spin;
    server.run = [&](CThing&) { spin.Enter(); };

    server.Call(4, id, "Run");
    SHangReport const report = reports.Wait();

    EXPECT_EQ(4, report.connectionId);
    EXPECT_EQ("Thing", report.actorType);
    EXPECT_EQ("Run", report.function);
    EXPECT_LE(700, report.runningMs);
    EXPECT_GT(30000, report.runningMs);
    EXPECT_EQ(spin.GetThread(), report.threadId);
    EXPECT_TRUE(isKillTold(server));
    EXPECT_EQ(1U, reports.All().size());
}

TEST(HangReport, TellsWhoTheClientIs)
{
    CReports reports;
    CLocalBus bus;
    CLocalPort serverPort(bus, "org.example.server", true);
    SActorType type; // with objects that a kill may lose
    type.create = []() -> void* { return nullptr; };
    type.destroy = [](void*) {};
    type.setup = [](CActor& actor) { actor.AddFunction("Sleep", [] { ::sleep(60); }); };
    CRpcHost host(serverPort, reports.Options(), [&](CRpcHost& self) { self.RegisterActorType("Sleeper", type); });
    CLocalPort clientPort(bus, "client", "org.example.server", false);
    {
        CRpcClient client(clientPort);
        int const id = CActorProxy(&client, "Sleeper").GetId();
        client.CallFunction("Sleeper", id, "Sleep", {});
        clientPort.SetCallbackListener({});
    }
    SHangReport const report = reports.Wait();

    EXPECT_EQ(serverPort.GetPeerName(report.connectionId), report.peerName);
    EXPECT_FALSE(report.peerName.empty());
    ASSERT_TRUE(report.peer);
    EXPECT_EQ(::geteuid(), report.peer->uid);
    EXPECT_EQ(::getpid(), report.peer->pid);
}

TEST(HangReport, AsksTheBusAboutAClientOnceAlsoIfItDoesNotSayWhoThatIs)
{
    SHostOptions options;
    options.reportHangs = true;
    CThingServer server(options);
    int const id = server.Ctor(4);

    EXPECT_TRUE(server.Call(4, id, "Add", 1)->Wait());
    EXPECT_TRUE(server.Call(4, id, "Add", 1)->Wait());

    EXPECT_EQ(std::vector<int>{4}, server.port.CredentialQueries());
}

TEST(HangReport, ShowsTheStackOfAThreadThatComputes)
{
    if (isSignalPutOff())
    {
        // The stack is read by a signal handler on the hung thread, and this one makes no call that lets it run.
        GTEST_SKIP() << "no signal reaches a thread that computes under ThreadSanitizer";
    }
    CReports reports;
    CThingServer server(reports.Options());
    int const id = server.Ctor(4);
    CSpin spin;
    server.run = [&](CThing&) { spin.Enter(); };

    server.Call(4, id, "Run");
    SHangReport const report = reports.Wait();

    ASSERT_LT(3U, report.stack.size());
    bool isProgramThere = false;
    bool isLibraryThere = false;
    for (std::string const& frame : report.stack)
    {
        isProgramThere = isProgramThere || frame.find("/unit_tests+0x") != std::string::npos;
        isLibraryThere = isLibraryThere || frame.find("/libnelo-rpc.so") != std::string::npos;
    }
    EXPECT_TRUE(isProgramThere);
    EXPECT_TRUE(isLibraryThere);
}

TEST(HangReport, IsOneLineForTheCallAndOneForEachFrame)
{
    CReports reports;
    CThingServer server(reports.Options());
    int const id = server.Ctor(4);
    CSpin spin;
    server.run = [&](CThing&) { spin.Enter(); };
    CLogCapture log;

    server.Call(4, id, "Run");
    SHangReport const report = reports.Wait();

    std::string const head = "CRpcHost::ReportHang thread " + std::to_string(report.threadId);
    EXPECT_EQ(1, log.Count(head + " of connectionId=4 peer=:fake.4 (unknown) has been in Thing:Run for " +
                           std::to_string(report.runningMs) + " milliseconds"));
    for (std::size_t frame = 0; frame < report.stack.size(); ++frame)
    {
        EXPECT_EQ(1, log.Count(head + " #" + std::to_string(frame) + " " + report.stack[frame]));
    }
    EXPECT_EQ(report.stack.empty() ? 1 : 0, log.Count(head + " shows no stack"));
}

TEST(HangReport, ComesBeforeTheKill)
{
    CLogCapture log;
    CReports reports;
    SHostOptions options = reports.Options();
    std::atomic<int> kills{-1};
    options.onHang = [&](SHangReport const&) { kills = log.Count("CThreadWatchdog::Tick Killing thread"); };
    CThingServer server(options);
    int const id = server.Ctor(4);
    CSpin spin;
    server.run = [&](CThing&) { spin.Enter(); };

    server.Call(4, id, "Run");

    EXPECT_TRUE(isKillTold(server));
    EXPECT_EQ(0, kills);
}

TEST(HangReport, IsMadeOnceForAKillOfSeveralCallsThatWait)
{
    CReports reports;
    CThingServer server(reports.Options());
    int const id = server.Ctor(4);
    CSpin spin;
    server.run = [&](CThing&) { spin.Enter(); };

    server.Call(4, id, "Run");
    auto const last = server.Call(4, id, "Add", 1);

    EXPECT_TRUE(last->Wait());
    EXPECT_EQ("Run", reports.Wait().function);
    EXPECT_EQ(1U, reports.All().size());
}

TEST(HangReport, NamesTheTypeThatIsMadeOrDestroyed)
{
    CReports reports;
    CThingServer server(reports.Options());
    CSpin inCreate;
    CSpin inDestroy;
    SActorType type;
    type.create = [&]() -> void* {
        inCreate.Enter();
        return nullptr;
    };
    type.setup = [](CActor&) {};
    type.destroy = [](void*) {};
    server.host->RegisterActorType("Stuck", type);
    type.create = []() -> void* { return nullptr; };
    type.destroy = [&](void*) { inDestroy.Enter(); };
    server.host->RegisterActorType("Sticky", type);
    int const id = server.Ctor(5, "Sticky");

    server.port.Call(callOf(0, "CClientConnection", "ctor", std::string("Stuck")), 4);
    EXPECT_TRUE(eventually([&] { return reports.All().size() == 1; }));
    server.port.Call(callOf(0, "CClientConnection", "dtor", id), 5);
    EXPECT_TRUE(eventually([&] { return reports.All().size() == 2; }));

    auto const all = reports.All();
    ASSERT_EQ(2U, all.size());
    EXPECT_EQ("Stuck:ctor", all[0].actorType + ":" + all[0].function);
    EXPECT_EQ("Sticky:dtor", all[1].actorType + ":" + all[1].function);
}

TEST(HangReport, NamesTheTypeOfAnActorWhoseClientHasGone)
{
    CReports reports;
    CThingServer server(reports.Options());
    CSpin inDestroy;
    server.onDestroy = [&](CThing&) { inDestroy.Enter(); };
    int const id = server.Ctor(4);
    server.port.SetSendResult(false);

    server.Call(4, id, "Change", 1);
    SHangReport const report = reports.Wait();

    EXPECT_EQ("Thing:remove", report.actorType + ":" + report.function);
}

TEST(HangReport, OfAThreadThatBlocksSignalsHasNoStackAndHoldsNothingUp)
{
    CReports reports;
    CThingServer server(reports.Options());
    int const id = server.Ctor(4);
    CSpin spin;
    server.run = [&](CThing&) {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        spin.Enter();
    };

    server.Call(4, id, "Run");

    EXPECT_TRUE(isKillTold(server));
    EXPECT_TRUE(reports.Wait().stack.empty());
    EXPECT_EQ("Run", reports.Wait().function);
}

TEST(HangReport, OfAThreadThatHoldsTheAllocatorsLockMostOfTheTimeHoldsNothingUp)
{
    CReports reports;
    CThingServer server(reports.Options());
    int const id = server.Ctor(4);
    CSpin spin;
    std::atomic<bool> stop{false};
    server.run = [&](CThing&) {
        while (!stop)
        {
            void* volatile const block = std::malloc(200000); // more than a thread keeps for itself
            std::free(block);
        }
        spin.Enter();
    };

    server.Call(4, id, "Run");

    EXPECT_TRUE(isKillTold(server));
    EXPECT_EQ("Run", reports.Wait().function);
    stop = true;
    EXPECT_TRUE(spin.WaitUntilEntered());
}

TEST(HangReport, DoesNotLetAnInterruptedCallGoOnAndAnswer)
{
    if (isSignalPutOff())
    {
        // What is asserted is what the handler does before the interrupted call goes on.
        GTEST_SKIP() << "under ThreadSanitizer the call has gone on before the handler runs";
    }
    for (auto const kill : {EKill::Anywhere, EKill::AtCancellationPoint})
    {
        SHostOptions options;
        options.kill = kill;
        options.hangLimitMs = 1000;
        options.hangCheckMs = 200;
        std::atomic<int> reports{0};
        options.onHang = [&](SHangReport const&) {
            ++reports;
            std::this_thread::sleep_for(300ms); // time enough to answer
        };
        CThingServer server(options);
        int const id = server.Ctor(4);
        server.run = [](CThing&) { CHang::Sleep(); }; // no cancellation point, and not made again after a signal

        auto const reply = server.Call(4, id, "Run");

        EXPECT_EQ("{}", CThingServer::TextOf(*reply));
        EXPECT_TRUE(isKillTold(server));
        EXPECT_EQ(1, reports);
    }
}

TEST(HangReport, IsMadeWithoutAHookIfItIsChosen)
{
    SHostOptions options = CReports().Options();
    options.onHang = {};
    options.reportHangs = true;
    CThingServer server(options);
    int const id = server.Ctor(4);
    CSpin spin;
    server.run = [&](CThing&) { spin.Enter(); };
    CLogCapture log;

    server.Call(4, id, "Run");

    EXPECT_TRUE(isKillTold(server));
    EXPECT_EQ(1, log.Count(" has been in Thing:Run for "));
}

TEST(HangReport, IsNotMadeByDefault)
{
    SHostOptions options;
    options.hangLimitMs = 1000;
    options.hangCheckMs = 200;
    EXPECT_FALSE(SHostOptions().reportHangs);
    EXPECT_TRUE(SHostOptions::Recommended().reportHangs);
    CThingServer server(options);
    int const id = server.Ctor(4);
    CLogCapture log;

    server.Call(4, id, "Hang");

    EXPECT_TRUE(isKillTold(server));
    EXPECT_EQ(0, log.Count("ReportHang"));
}
