/// The client of the demo. It checks what it sees, says so, and ends with 1 if anything was missing.
///
/// usage: client tour BUS_NAME DIRECTORY       one step after the other
///        client doomed BUS_NAME DIRECTORY     makes a watcher and waits to be killed

#include "Proxies.h"

#include <nelo_rpc/nelo_rpc.h>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using nelo_rpc::types::CValueList;

constexpr std::chrono::seconds LIMIT{10};

void say(std::string const& text)
{
    std::cout << ("[client] " + text + "\n") << std::flush;
}

/// Says that a step was seen, or which of its parts was not.
class CStep
{
public:
    explicit CStep(std::string name) : m_name(std::move(name)) {}

    void Expect(bool seen, std::string const& what)
    {
        if (!seen)
        {
            std::cout << ("  MISSING in step " + m_name + ": " + what + "\n") << std::flush;
            m_complete = false;
        }
    }

    /// @return whether all of it was seen
    bool Done(std::string const& words) const
    {
        std::cout << ((m_complete ? "  ok: " : "  NOT ok: ") + m_name + ": " + words + "\n") << std::flush;
        return m_complete;
    }

private:
    std::string const m_name;
    bool m_complete = true;
};

/// What the callback handlers saw, in order. Filled on the delivery thread, read on the main thread.
class CEvents
{
public:
    void Add(std::string const& text)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_texts.push_back(text);
        m_added.notify_all();
    }

    bool Contains(std::string const& text)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return Has(text);
    }

    bool WaitFor(std::string const& text)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_added.wait_for(lock, LIMIT, [&] { return Has(text); });
    }

private:
    bool Has(std::string const& text) const { return std::find(m_texts.begin(), m_texts.end(), text) != m_texts.end(); }

    std::mutex m_mutex; ///< guards what follows
    std::condition_variable m_added;
    std::vector<std::string> m_texts;
};

/// A process that has stopped itself and never ends by itself.
///
/// Made before this program has threads, because the new process goes on in a copy of this one.
class CStoppedProcess
{
public:
    CStoppedProcess() : m_pid(::fork())
    {
        if (m_pid == 0)
        {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL); // nothing is left of it when the demo is killed
            ::raise(SIGSTOP);
            ::_exit(0);
        }
        int status = 0;
        ::waitpid(m_pid, &status, WUNTRACED);
    }

    ~CStoppedProcess() { End(); }

    CStoppedProcess(CStoppedProcess const&) = delete;
    CStoppedProcess& operator=(CStoppedProcess const&) = delete;

    pid_t GetId() const { return m_pid; }

    void End()
    {
        if (!m_ended)
        {
            m_ended = true;
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
    }

private:
    pid_t const m_pid;
    bool m_ended = false;
};

std::vector<std::uint8_t> readOwn(char const* file)
{
    std::ifstream stream(std::string("/proc/self/") + file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void writeFile(std::string const& path, std::string const& text)
{
    std::ofstream(path) << text;
}

/// The steps that one client sees, in their order.
class CTour
{
public:
    CTour(nelo_rpc::CRpcClient& client, std::string directory, CStoppedProcess& stopped)
        : m_client(client), m_directory(std::move(directory)), m_stopped(stopped)
    {
    }

    bool Run()
    {
        bool const complete =
            MakeActors() && CallThem() && WatchFiles() && GetCallbacksDuringACall() && HangAndBeKilled() && CallAgain();
        m_watcher.reset();
        m_monitor.reset();
        m_onKill.Subscribe([] {}); // the client outlives this object
        say("both proxies are destroyed");
        return complete;
    }

private:
    bool MakeActors();
    bool CallThem();
    bool WatchFiles();
    bool GetCallbacksDuringACall();
    bool HangAndBeKilled();
    bool CallAgain();

    nelo_rpc::CRpcClient& m_client;
    std::string const m_directory;
    CStoppedProcess& m_stopped;
    CEvents m_events; ///< before the proxies, whose handlers fill it
    nelo_rpc::CProxyCallback<> m_onKill{*m_client.GetConnectionProxy(), "OnKill"};
    std::optional<CProcessMonitorProxy> m_monitor;
    std::optional<CDirectoryWatcherProxy> m_watcher;
};

bool CTour::MakeActors()
{
    CStep step("actors-made");
    m_monitor.emplace(m_client);
    m_watcher.emplace(m_client);

    m_monitor->OnRecreate.Subscribe([this] {
        say("callback: OnRecreate, the monitor's object is a new one");
        m_events.Add("monitor made again");
    });
    m_watcher->OnRecreate.Subscribe([this] {
        say("callback: OnRecreate, the watcher's object is a new one");
        m_events.Add("watcher made again");
    });
    m_watcher->OnCreated.Subscribe([this](std::string const& name) {
        say("callback: created " + name);
        m_events.Add("created " + name);
    });
    m_watcher->OnChanged.Subscribe([this](std::string const& name, double size) {
        std::string const text = "changed " + name + ", " + std::to_string(static_cast<int>(size)) + " bytes";
        say("callback: " + text);
        m_events.Add(text);
    });
    m_watcher->OnRemoved.Subscribe([this](std::string const& name) {
        say("callback: removed " + name);
        m_events.Add("removed " + name);
    });
    m_onKill.Subscribe([this] {
        say("callback: OnKill, a call of this client was killed");
        m_events.Add("killed");
    });

    step.Expect(m_monitor->GetId() > 0, "an id for the monitor");
    step.Expect(m_watcher->GetId() > 0, "an id for the watcher");
    step.Expect(m_watcher->GetId() != m_monitor->GetId(), "two different ids");
    return step.Done("ProcessMonitor is actor " + std::to_string(m_monitor->GetId()) + ", DirectoryWatcher is actor " +
                     std::to_string(m_watcher->GetId()));
}

bool CTour::CallThem()
{
    CStep step("typed-calls");
    int const self = ::getpid();

    int const processes = m_monitor->CountProcesses();
    step.Expect(processes >= 3, "at least a server, a client and a bus among the processes");
    double const load = m_monitor->LoadAverage();
    step.Expect(load >= 0.0, "a load");
    unsigned int const memory = m_monitor->MemoryKb(self);
    step.Expect(memory > 0, "the memory of this client");
    say("int: " + std::to_string(processes) + " processes; double: load " + std::to_string(load) +
        "; unsigned: this client uses " + std::to_string(memory) + " kB");

    std::string const name = m_monitor->NameOf(self);
    std::vector<std::uint8_t> const own = readOwn("comm");
    step.Expect(name + "\n" == std::string(own.begin(), own.end()), "the name of this client");
    std::vector<std::uint8_t> const commandLine = m_monitor->CommandLine(self);
    step.Expect(!commandLine.empty() && commandLine == readOwn("cmdline"), "the command line of this client");
    step.Expect(m_monitor->StateOf(m_stopped.GetId()) == EProcessState::Stopped, "the state of a stopped process");
    say("string: this client is " + name + "; bytes: its command line has " + std::to_string(commandLine.size()) +
        "; enumeration: process " + std::to_string(m_stopped.GetId()) + " is stopped");

    step.Expect(m_monitor->ForgetQuestions.TryCall().value_or(false), "an answer of a function without a result");
    std::optional<int> const questions = m_monitor->CountQuestions.TryCall();
    step.Expect(questions == 0, "the questions forgotten");

    CValueList const snapshot = m_monitor->RemoteCall("Snapshot", {});
    step.Expect(snapshot.size() == 3, "three values from an untyped function");
    if (snapshot.size() == 3)
    {
        say("untyped: " + nelo_rpc::types::toString(snapshot));
        step.Expect(nelo_rpc::types::unpackAt<int>(snapshot, 0) > 0, "a number in the untyped result");
    }
    return step.Done("every answer is what this client reads from /proc itself");
}

bool CTour::WatchFiles()
{
    CStep step("callbacks");
    std::string const path = m_directory + "/letter.txt";

    step.Expect(m_watcher->Watch(m_directory), "the directory watched");
    writeFile(path, "Dear reader");
    step.Expect(m_events.WaitFor("created letter.txt"), "OnCreated");
    step.Expect(m_events.WaitFor("changed letter.txt, 11 bytes"), "OnChanged with the size");
    std::remove(path.c_str());
    step.Expect(m_events.WaitFor("removed letter.txt"), "OnRemoved");
    return step.Done("a file was made, written and removed, and the server told this client each time");
}

bool CTour::GetCallbacksDuringACall()
{
    CStep step("callbacks-during-call");

    // The call ends when second.txt is there. It is made by a handler, because of a callback that came because
    // of another one: were callbacks held back until the call ends, the call would end at its limit with false.
    m_watcher->OnWaiting.Subscribe([this](std::string const& name) {
        say("callback: the call waits for " + name);
        m_events.Add("waiting for " + name);
        writeFile(m_directory + "/first.txt", "1");
    });
    m_watcher->OnCreated.Subscribe([this](std::string const& name) {
        say("callback: created " + name);
        m_events.Add("created " + name);
        if (name == "first.txt")
        {
            writeFile(m_directory + "/second.txt", "2");
        }
    });

    bool const found = m_watcher->WaitForFile("second.txt", 2500);
    step.Expect(found, "the call's result true");
    step.Expect(m_events.Contains("waiting for second.txt"), "OnWaiting before the call returned");
    step.Expect(m_events.Contains("created first.txt"), "OnCreated before the call returned");
    return step.Done("the call returned what two callbacks, handled while it ran, had caused");
}

bool CTour::HangAndBeKilled()
{
    CStep step("hung-call-killed");
    say("a call that never returns: wait until process " + std::to_string(m_stopped.GetId()) + " ends");

    Clock::time_point const start = Clock::now();
    std::optional<bool> const result = m_monitor->WaitForExit.TryCall(m_stopped.GetId());
    auto const took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();

    step.Expect(!result, "a call without a result");
    step.Expect(m_events.WaitFor("killed"), "OnKill");
    return step.Done("the server's watchdog ended the call after " + std::to_string(took) + " ms and sent OnKill");
}

bool CTour::CallAgain()
{
    CStep step("made-again");

    step.Expect(!m_events.Contains("monitor made again"), "no OnRecreate before the next call");
    step.Expect(m_monitor->CountProcesses.TryCall().value_or(0) > 0, "an answer to the next call");
    step.Expect(m_events.WaitFor("monitor made again"), "OnRecreate for the monitor");
    step.Expect(m_monitor->CountQuestions.TryCall() == 1, "a new object, which has answered one question");

    // The kill took all actors of this client. The watcher's directory was its state, so it is set again.
    step.Expect(m_watcher->Watch(m_directory), "the directory watched again");
    step.Expect(m_events.WaitFor("watcher made again"), "OnRecreate for the watcher");
    writeFile(m_directory + "/third.txt", "3");
    step.Expect(m_events.WaitFor("created third.txt"), "OnCreated from the new watcher");

    m_stopped.End();
    step.Expect(m_monitor->WaitForExit.TryCall(m_stopped.GetId()).value_or(false),
                "the call that hung, answered now that the process has ended");
    return step.Done("the same proxies reach new objects under the same ids");
}

/// Makes a watcher and never gets to destroy it.
int beDoomed(nelo_rpc::CRpcClient& client, std::string const& directory)
{
    CDirectoryWatcherProxy watcher(client);
    if (watcher.GetId() == 0 || !watcher.Watch(directory))
    {
        return 1;
    }
    say("process " + std::to_string(::getpid()) + " has a watcher and waits");

    sigset_t none;
    sigemptyset(&none);
    sigsuspend(&none);
    return 1; // not reached: SIGKILL is not handled
}

} // namespace

int main(int argc, char** argv)
{
    std::string const mode = argc == 4 ? argv[1] : "";
    if (mode != "tour" && mode != "doomed")
    {
        std::cerr << "usage: " << argv[0] << " tour|doomed BUS_NAME DIRECTORY\n";
        return 2;
    }

    std::optional<CStoppedProcess> stopped;
    if (mode == "tour")
    {
        stopped.emplace();
    }

    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel, std::string const& line) { std::cerr << (line + "\n"); });

    nelo_rpc::CDbusPort port("org.example.demo.client", argv[2], false);
    nelo_rpc::CRpcClient client(port);
    nelo_rpc::CCallbackDelivery delivery(port);
    if (!client.IsConnected())
    {
        std::cerr << "nobody owns " << argv[2] << " on the bus\n";
        return 1;
    }

    if (mode == "doomed")
    {
        return beDoomed(client, argv[3]);
    }
    return CTour(client, argv[3], *stopped).Run() ? 0 : 1;
}
