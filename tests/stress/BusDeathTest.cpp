#include "CChildProcess.h"
#include "CGate.h"
#include "CPrivateBus.h"
#include "CRawPeer.h"
#include "CRunningCalls.h"
#include "CStressServer.h"
#include "CTestClient.h"
#include "Campaign.h"
#include "Eventually.h"
#include "StressTypes.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <fstream>
#include <future>
#include <list>
#include <memory>
#include <string>
#include <vector>

using std::chrono::seconds;

namespace
{

/// A client that is at a certain stage when the bus goes: the server holds it there until it is told otherwise.
class CClientAtStage
{
public:
    CClientAtStage(std::string const& server, std::string const& stage)
        : m_client(server, nelo_rpc::SPortOptions::Recommended()), m_stepper(m_client.Get())
    {
        m_stepper.OnParked.Subscribe([this](std::string const&) { m_arrived.Open(); });
        m_stepper.OnBurst.Subscribe([this](int) {
            m_arrived.Open();
            m_leaveHandler.Wait();
        });
        m_stepper.Identify(1);
        m_ended = std::async(std::launch::async, [this, stage] { GoTo(stage); });
    }

    ~CClientAtStage()
    {
        m_leaveHandler.Open();
        m_stepper.UnsetCallbacks();
    }

    bool WaitForArrival() const { return m_arrived.Wait(); }

    /// Whether what it is in ends within the limit, as nothing answers it any more.
    bool WaitForEnd()
    {
        m_leaveHandler.Open();
        return m_ended.wait_for(seconds(20)) == std::future_status::ready;
    }

    /// Whether a call gives no result, and the port knows why.
    bool IsCutOff() { return !m_stepper.Steps.TryCall() && !m_client.Get().IsConnected(); }

private:
    void GoTo(std::string const& stage)
    {
        if (stage == "call")
        {
            m_stepper.Park();
        }
        else if (stage == "callback")
        {
            m_stepper.Burst(3);
        }
        else if (stage == "construction")
        {
            CStepperProxy(m_client.Get(), SLOW_TO_MAKE);
        }
        else if (stage == "destruction")
        {
            CStepperProxy(m_client.Get(), SLOW_TO_END);
        }
    }

    CGate m_arrived;
    CGate m_leaveHandler;
    CTestClient m_client;
    CStepperProxy m_stepper;
    std::future<void> m_ended;
};

/// What was not as it should be when the bus was taken away.
struct SLoss
{
    int wrong = 0;
    int serverDeaths = 0;
};

/// Takes the bus away while a client is at each of the stages and another works.
SLoss loseTheBusOnce()
{
    int wrong = 0;
    std::string const name = CPrivateBus::UniqueName();
    CStressServer server(name, {"tick=1"}); // it sends from a thread of its own too
    std::list<CClientAtStage> clients;
    for (char const* stage : {"call", "callback", "construction", "destruction"})
    {
        clients.emplace_back(name, stage);
        wrong += clients.back().WaitForArrival() ? 0 : 1;
    }
    {
        CRunningCalls const running(name);
        wrong += running.WaitForOne() ? 0 : 1;
        CPrivateBus::Kill();
    }
    for (CClientAtStage& client : clients)
    {
        wrong += client.WaitForEnd() ? 0 : 1;
        wrong += client.IsCutOff() ? 0 : 1;
    }
    server.Tell("release all");
    int const serverDeaths = server.Stop() ? 0 : 1;
    clients.clear();
    CPrivateBus::Start();
    return {wrong, serverDeaths};
}

} // namespace

TEST(BusDeath, EndsWhatIsUnderWayAndNobodyWithIt)
{
    int const rounds = pick(2, 100);
    CCampaign campaign("bus-death", seconds(pick(100, 1800)));
    SLoss all;
    int done = 0;
    for (; done < rounds && !campaign.IsOver(); ++done)
    {
        SLoss const loss = loseTheBusOnce();
        all.wrong += loss.wrong;
        all.serverDeaths += loss.serverDeaths;
        campaign.Progress(done, rounds);
    }
    campaign.Set("bus deaths", done);
    campaign.Set("server deaths", all.serverDeaths);
    campaign.Set("wrong", all.wrong);
    EXPECT_EQ(rounds, done);
    EXPECT_EQ(0, all.serverDeaths);
    EXPECT_EQ(0, all.wrong);
}

TEST(BusDeath, OrANameThatAnotherTakesIsNoHarmToTheClient)
{
    int const rounds = pick(3, 100);
    CCampaign campaign("name taken by another", seconds(pick(100, 1800)));
    std::string const name = CPrivateBus::UniqueName();
    CTestClient client(name, nelo_rpc::SPortOptions::Recommended());
    client.Get().SetTimeoutMs(20000);
    int wrong = 0;
    for (int round = 0; round < rounds && !campaign.IsOver(); ++round)
    {
        CStressServer server(name, {});
        auto stepper = std::make_unique<CStepperProxy>(client.Get());
        wrong += stepper->Step.TryCall(1, "own") == answerToStep(1, "own") ? 0 : 1;

        // It waits in the bus's queue for the name, and gets it the moment the server dies.
        CRawServer const other(
            name,
            [](CRawPeer& peer, MessagePtr call) {
                MessagePtr const answer(dbus_message_new_error(call.get(), DBUS_ERROR_FAILED, "not the server"));
                peer.Send(answer.get());
            },
            CRawServer::EName::Queued);
        wrong += stepper->Step.TryCall(2, "own") == answerToStep(2, "own") ? 0 : 1;
        server.Kill();
        wrong += eventually([&] { return client.Get().IsConnected() && !stepper->Steps.TryCall(); }) ? 0 : 1;
        stepper.reset();
        campaign.Add("changes of the owner", 1);
    }
    campaign.Set("wrong", wrong);
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(rounds, static_cast<int>(campaign.Get("changes of the owner")));
}

// ---- policies ----

namespace
{

constexpr char const* SERVER_NAME = "org.example.climate";

/// What a stock system bus says: nobody owns a name and nobody is called, unless a policy file says so.
std::string stockConfiguration(std::string const& policyFile)
{
    return R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  )" + (policyFile.empty() ? "" : "<include>" + policyFile + "</include>") +
           "\n</busconfig>\n";
}

/// A bus with a configuration of its own, beside the one that this process is connected to.
class CPolicyBus
{
public:
    /// @param policy  text of a policy file, or nothing.
    explicit CPolicyBus(std::string const& policy)
    {
        std::string const file = policy.empty() ? "" : Write("policy.conf", policy);
        std::string const configuration = Write("bus.conf", stockConfiguration(file));
        m_daemon = std::make_unique<CChildProcess>(std::vector<std::string>{"/usr/bin/env", "dbus-daemon", "--nofork",
                                                                            "--nopidfile", "--print-address=1",
                                                                            "--config-file=" + configuration});
        m_address = m_daemon->ReadLine().value_or("");
        EXPECT_NE("", m_address) << "dbus-daemon did not start";
    }

    ~CPolicyBus()
    {
        m_daemon.reset();
        for (std::string const& file : m_files)
        {
            ::unlink(file.c_str());
        }
        ::rmdir(m_folder.c_str());
    }

    /// A command that talks to this bus.
    std::vector<std::string> Command(std::vector<std::string> const& program,
                                     std::vector<std::string> const& before = {}) const
    {
        std::vector<std::string> command{"/usr/bin/env", "DBUS_SYSTEM_BUS_ADDRESS=" + m_address};
        command.insert(command.end(), before.begin(), before.end());
        command.insert(command.end(), program.begin(), program.end());
        return command;
    }

private:
    std::string Write(std::string const& name, std::string const& text)
    {
        std::string const file = m_folder + "/" + name;
        std::ofstream(file) << text;
        m_files.push_back(file);
        return file;
    }

    static std::string NewFolder()
    {
        std::array<char, 32> name{"/tmp/nelo-rpc-bus-XXXXXX"};
        EXPECT_NE(nullptr, ::mkdtemp(name.data()));
        return name.data();
    }

    std::string const m_folder = NewFolder();
    std::vector<std::string> m_files;
    std::unique_ptr<CChildProcess> m_daemon;
    std::string m_address;
};

/// As servers install it: one user may own the name, one group may call.
std::string examplePolicy(std::string const& user, std::string const& group)
{
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\"><busconfig>"
           "<policy user=\"" +
           user +
           "\"><allow own=\"org.example.climate\"/>"
           "<allow send_interface=\"org.freedesktop.DBus.Peer\" send_member=\"Ping\"/></policy>"
           "<policy group=\"" +
           group +
           "\"><allow send_destination=\"org.example.climate\" send_type=\"method_call\" "
           "send_path=\"/org/trelin/nelo_rpc\" send_interface=\"org.trelin.nelo_rpc.Event\"/></policy></busconfig>";
}

std::vector<std::string> const SERVER{NELO_RPC_STRESS_DIR "/StressServerProgram", SERVER_NAME};
std::vector<std::string> const AS_NOBODY{"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"};

std::vector<std::string> clientAt(std::string const& stage)
{
    return {NELO_RPC_STRESS_DIR "/StressClientProgram", SERVER_NAME, "1", stage};
}

/// Whether a program can be started as nobody: that takes root, and folders that everybody may enter.
bool canBecomeNobody()
{
    std::vector<std::string> command = AS_NOBODY;
    command.insert(command.end(), {"/usr/bin/test", "-x", SERVER.front()});
    auto const status = CChildProcess(command).Wait();
    return ::geteuid() == 0 && status == 0;
}

} // namespace

TEST(BusDeath, OrARefusalOfTheNameLeavesTheServerAlive)
{
    CCampaign campaign("policy, name refused", seconds(100));
    CPolicyBus const bus("");
    CChildProcess server(bus.Command(SERVER));
    EXPECT_TRUE(server.WaitForLine("ready")) << "it lives on without its name";
    CChildProcess client(bus.Command(clientAt("after a call")));
    EXPECT_EQ("wrong step", client.ReadLine()) << "nobody is there to answer it";
    server.WriteLine("stop");
    EXPECT_EQ(0, server.Wait());
}

TEST(BusDeath, OrARefusalOfCallsLeavesBothSidesAlive)
{
    if (!canBecomeNobody())
    {
        // The policy tells users apart, so one side must run as another user: that takes root, and folders it may enter.
        GTEST_SKIP() << "cannot become an unprivileged user";
    }
    CCampaign campaign("policy, calls refused", seconds(100));
    // root may own the name, and nobody's group is not the one that may call.
    CPolicyBus const bus(examplePolicy("root", "root"));
    CChildProcess server(bus.Command(SERVER));
    ASSERT_TRUE(server.WaitForLine("ready"));
    CChildProcess stranger(bus.Command(clientAt("after a call"), AS_NOBODY));
    EXPECT_EQ("wrong step", stranger.ReadLine());
    CChildProcess member(bus.Command(clientAt("after a call")));
    EXPECT_EQ("at the stage", member.ReadLine()) << "and to it there was no error";
    server.WriteLine("stop");
    EXPECT_EQ(0, server.Wait());
}

TEST(BusDeath, OrThePolicyOfAStockSystemDoesNotKeepAnUnprivilegedServerFromItsClients)
{
    if (!canBecomeNobody())
    {
        // The policy tells users apart, so one side must run as another user: that takes root, and folders it may enter.
        GTEST_SKIP() << "cannot become an unprivileged user";
    }
    CCampaign campaign("policy, unprivileged server", seconds(100));
    CPolicyBus const bus(examplePolicy("nobody", "nogroup"));
    CChildProcess server(bus.Command(SERVER, AS_NOBODY));
    ASSERT_TRUE(server.WaitForLine("ready"));
    for (char const* stage : {"after a call", "in a callback", "in a call"})
    {
        CChildProcess client(bus.Command(clientAt(stage), AS_NOBODY));
        EXPECT_EQ("at the stage", client.ReadLine()) << stage;
    }
    server.WriteLine("release all");
    server.WriteLine("stop");
    EXPECT_EQ(0, server.Wait());
}
