/// A server for the tests: serves probes under the bus name given, says what becomes of them on standard output
/// and does what it is told on standard input.
///
/// usage: ServerProgram <bus name> [<hang limit in ms> <check period in ms> [<pause before the host in ms>]] [<choice>]
///
/// choice:   "recommended": all that is recommended for a host; "own": the same, for clients of the server's user only;
///           "point": kills at cancellation points, and reports. Without one the host's choices are the defaults.
///
/// says:     "ready", "made <type>", "destroyed", "blocked" (a function waits for "release"), "hanging"
/// is told:  fire <text>   every probe sends OnEvent        stream / still   sends them without a pause
///           objects       says "objects <number>"          release          lets waiting functions go on
///           drop / host   destroys the host, makes one     exit             ends without cleaning up
///           stop          ends in good order, as the end of the input does

#include "CHang.h"
#include "ProbeTypes.h"
#include "ProgramSupport.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <thread>

namespace
{

CDoor& door()
{
    static CDoor& door = *new CDoor;
    return door;
}

class CProbe
{
public:
    CProbe();
    ~CProbe();

    int Add(int n) { return m_sum += n; }

    int CountTo(int n)
    {
        for (int i = 0; i < n; ++i)
        {
            OnCount.Send(i);
        }
        return n;
    }

    int CountAndBlock(int n)
    {
        CountTo(n);
        door().Wait();
        return n;
    }

    int BlockAndCount(int n)
    {
        door().Wait();
        return CountTo(n);
    }

    int Hang()
    {
        say("hanging");
        for (;;)
        {
            CHang::Sleep();
        }
    }

    int Spin()
    {
        say("hanging");
        spinForEver();
    }

    /// From now on whatever this thread writes to the log stalls, until somebody installs another sink.
    static void StallOwnLines()
    {
        static std::atomic<long> thread{0};
        thread = ::syscall(SYS_gettid);
        nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel, std::string const&) {
            if (::syscall(SYS_gettid) == thread)
            {
                ::sleep(60);
            }
        });
    }

    int Flood()
    {
        say("hanging");
        for (;;)
        {
            OnCount.Send(0);
        }
    }

    int HangIn(std::string const& where)
    {
        say("hanging");
        if (where == "sleep")
        {
            ::sleep(60);
        }
        else if (where == "condition")
        {
            std::mutex mutex;
            std::condition_variable never;
            std::unique_lock<std::mutex> lock(mutex);
            never.wait(lock, [] { return false; });
        }
        else if (where == "mutex")
        {
            static std::mutex& held = *new std::mutex;
            std::thread([] { held.lock(); }).join();
            held.lock();
        }
        else if (where == "read")
        {
            int ends[2];
            char byte = 0;
            return ::pipe(ends) == 0 ? static_cast<int>(::read(ends[0], &byte, 1)) : 0;
        }
        else if (where == "allocation")
        {
            for (;;)
            {
                void* volatile const block = std::malloc(100);
                std::free(block);
            }
        }
        else if (where == "computation")
        {
            spinForEver();
        }
        else if (where == "send")
        {
            Flood();
        }
        else if (where == "log")
        {
            StallOwnLines();
            OnCount.Send(0);
        }
        return 0;
    }

    void SendEverything(int i, unsigned int u, bool b, float f, double d, std::string const& s, char const* c,
                        EColour e, Bytes const& bytes)
    {
        OnEverything.Send(i, u, b, f, d, s, c, e, bytes);
    }

    nelo_rpc::CCallbackSender<int> OnCount;
    nelo_rpc::CCallbackSender<std::string> OnEvent;
    nelo_rpc::CCallbackSender<int, unsigned int, bool, float, double, std::string, char const*, EColour, Bytes>
        OnEverything;

private:
    int m_sum = 0;
};

/// All probes that live, for callbacks that come from elsewhere than their functions.
class CProbes
{
public:
    static CProbes& Get()
    {
        static CProbes& probes = *new CProbes; // never destroyed: threads may be alive at exit
        return probes;
    }

    void Enter(CProbe* probe)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_probes.insert(probe);
    }

    void Remove(CProbe* probe)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_probes.erase(probe);
    }

    std::size_t Count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_probes.size();
    }

    void Fire(std::string const& text)
    {
        std::lock_guard<std::mutex> lock(m_mutex); // none of them is destroyed meanwhile
        for (CProbe* probe : m_probes)
        {
            probe->OnEvent.Send(text);
        }
    }

private:
    std::mutex m_mutex;
    std::set<CProbe*> m_probes;
};

CProbe::CProbe()
{
    CProbes::Get().Enter(this);
}

CProbe::~CProbe()
{
    CProbes::Get().Remove(this);
    say("destroyed");
}

template <class T>
T echo(T value)
{
    return value;
}

void setUpProbe(nelo_rpc::CActor& actor, CProbe& probe)
{
    actor.AddFunction("EchoInt", [](int v) { return v; });
    actor.AddFunction("EchoUnsigned", [](unsigned int v) { return v; });
    actor.AddFunction("EchoBool", [](bool v) { return v; });
    actor.AddFunction("EchoFloat", &echo<float>);
    actor.AddFunction("EchoDouble", &echo<double>);
    actor.AddFunction("EchoString", std::function<std::string(std::string const&)>(&echo<std::string>));
    actor.AddFunction("EchoCCString", [](nelo_rpc::types::CCString const& v) { return v; });
    actor.AddFunction("EchoChars", [](char const* v) { return v; });
    actor.AddFunction("EchoColour", &echo<EColour>);
    actor.AddFunction("EchoBytes", [](Bytes const& v) { return v; });
    actor.AddFunction("Join", &join);
    actor.AddFunction("Nothing", [] {});
    actor.AddFunction("Add", probe, &CProbe::Add);
    actor.AddFunction("CountTo", probe, &CProbe::CountTo);
    actor.AddFunction("CountAndBlock", probe, &CProbe::CountAndBlock);
    actor.AddFunction("BlockAndCount", probe, &CProbe::BlockAndCount);
    actor.AddFunction("Hang", probe, &CProbe::Hang);
    actor.AddFunction("Spin", probe, &CProbe::Spin);
    actor.AddFunction("Flood", probe, &CProbe::Flood);
    actor.AddFunction("HangIn", probe, &CProbe::HangIn);
    actor.AddFunction("SendEverything", probe, &CProbe::SendEverything);
    actor.AddCallback("OnCount", probe.OnCount);
    actor.AddCallback("OnEvent", probe.OnEvent);
    actor.AddCallback("OnEverything", probe.OnEverything);
    say("made " + actor.GetTypeName());
}

/// A type whose objects hang where the name says.
void registerHangingType(nelo_rpc::CRpcHost& host, std::string const& where)
{
    auto const hangIf = [](bool hangs) {
        if (hangs)
        {
            say("hanging");
            spinForEver();
        }
    };
    nelo_rpc::SActorType type;
    type.create = [=]() -> void* {
        hangIf(where == "create");
        return nullptr;
    };
    type.setup = [=](nelo_rpc::CActor&) { hangIf(where == "setup"); };
    type.destroy = [=](void*) { hangIf(where == "destroy"); };
    host.RegisterActorType("HangIn:" + where, type);
}

void registerTypes(nelo_rpc::CRpcHost& host)
{
    for (char const* const where : {"create", "setup", "destroy"})
    {
        registerHangingType(host, where);
    }
    host.RegisterActorType<CProbe>(PROBE, &setUpProbe);
    host.RegisterActorType<CProbe>(SLOW_PROBE, &setUpProbe, [] {
        door().Wait();
        return std::make_unique<CProbe>();
    });
}

/// Sends OnEvent from a thread of its own, as an application does that watches something.
class CPublisher
{
public:
    ~CPublisher() { Stop(); }

    void Start()
    {
        Stop();
        m_stop = false;
        m_thread = std::thread([this] {
            for (int i = 0; !m_stop; ++i)
            {
                CProbes::Get().Fire(std::to_string(i));
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
    }

    void Stop()
    {
        m_stop = true;
        if (m_thread.joinable())
        {
            m_thread.join();
        }
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

int numberOr(int argc, char** argv, int index, int otherwise)
{
    return argc > index ? std::atoi(argv[index]) : otherwise;
}

nelo_rpc::SHostOptions optionsFor(std::string const& choice)
{
    if (choice.empty())
    {
        return {};
    }
    if (choice == "point")
    {
        nelo_rpc::SHostOptions options;
        options.kill = nelo_rpc::EKill::AtCancellationPoint;
        options.reportHangs = true;
        return options;
    }
    nelo_rpc::SHostOptions options = nelo_rpc::SHostOptions::Recommended();
    if (choice == "own")
    {
        options.authorize = [](nelo_rpc::SPeer const& peer, std::string const&, std::string const&) {
            return peer.uid == ::geteuid();
        };
    }
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        return 2;
    }
    std::string choice = argv[argc - 1];
    if (choice == "recommended" || choice == "own" || choice == "point")
    {
        --argc;
    }
    else
    {
        choice.clear();
    }
    sendErrorsToStderr();
    nelo_rpc::CDbusPort port(argv[1], true, nelo_rpc::SPortOptions::Recommended());
    std::this_thread::sleep_for(std::chrono::milliseconds(numberOr(argc, argv, 4, 0)));

    nelo_rpc::SHostOptions options = optionsFor(choice);
    options.hangLimitMs = numberOr(argc, argv, 2, options.hangLimitMs);
    options.hangCheckMs = numberOr(argc, argv, 3, options.hangCheckMs);
    auto host = std::make_unique<nelo_rpc::CRpcHost>(port, options, &registerTypes);
    CPublisher publisher;
    say("ready");

    for (std::string line; std::getline(std::cin, line) && line != "stop";)
    {
        std::istringstream words(line);
        std::string command;
        words >> command;
        if (command == "fire")
        {
            std::string text;
            words >> text;
            CProbes::Get().Fire(text);
            say("fired");
        }
        else if (command == "stream")
        {
            publisher.Start();
        }
        else if (command == "still")
        {
            publisher.Stop();
            say("still");
        }
        else if (command == "objects")
        {
            say("objects " + std::to_string(CProbes::Get().Count()));
        }
        else if (command == "release")
        {
            door().Release();
        }
        else if (command == "drop")
        {
            host.reset();
            say("dropped");
        }
        else if (command == "host")
        {
            host = std::make_unique<nelo_rpc::CRpcHost>(port, options, &registerTypes);
            say("ready");
        }
        else if (command == "exit")
        {
            std::exit(0);
        }
    }

    publisher.Stop();
    host.reset();
    say("stopped");
    return 0;
}
