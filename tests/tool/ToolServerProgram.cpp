// A server to be looked at and called from a command line.
//
// usage: ToolServerProgram <bus name> [trusting]
//
// Prints "ready" when it can be called. Then answers "objects" with "objects <how many there are>", and ends at the end
// of its standard input. A call that hangs is killed after about a second. With "trusting", its port takes every message
// for one of the protocol.

#include "CLogCapture.h"

#include <nelo_rpc/nelo_rpc.h>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

using namespace nelo_rpc;
using std::chrono::milliseconds;

namespace
{

enum class EColour
{
    Red,
    Green
};

std::atomic<int> g_objects{0};

class CProbe
{
public:
    CProbe() { ++g_objects; }
    CProbe(CProbe const&) = delete;
    CProbe& operator=(CProbe const&) = delete;
    ~CProbe() { --g_objects; }

    CCallbackSender<int, std::string> OnTold;
};

/// Sends by itself, from a thread of its own.
class CTicker
{
public:
    CTicker() : m_thread([this] { Run(); }) {}
    CTicker(CTicker const&) = delete;
    CTicker& operator=(CTicker const&) = delete;
    ~CTicker()
    {
        {
            std::lock_guard<std::mutex> const lock(m_mutex);
            m_ends = true;
        }
        m_changed.notify_all();
        m_thread.join();
    }

    CCallbackSender<int> OnTick;

private:
    void Run()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (int i = 1; !m_changed.wait_for(lock, milliseconds(20), [this] { return m_ends; }); ++i)
        {
            lock.unlock();
            OnTick.Send(i);
            lock.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_ends = false;
    std::thread m_thread;
};

types::CValueList twoValues(types::CValueList const&)
{
    types::CValueList list;
    list[0] = types::packValue(1);
    list[5] = types::packValue<std::string>("a\nb");
    return list;
}

types::CValueList ownKind(types::CValueList const&)
{
    types::CValueList list;
    list[0] = std::make_shared<types::CBinaryValue>("\x01\xff", 2, 100);
    return list;
}

void setUpEchoes(CActor& actor)
{
    actor.AddFunction("EchoInt", [](int v) { return v; });
    actor.AddFunction("EchoUnsigned", [](unsigned v) { return v; });
    actor.AddFunction("EchoBool", [](bool v) { return v; });
    actor.AddFunction("EchoFloat", [](float v) { return v; });
    actor.AddFunction("EchoDouble", [](double v) { return v; });
    actor.AddFunction("EchoText", [](std::string const& v) { return v; });
    actor.AddFunction("EchoCText", [](types::CCString const& v) { return v; });
    actor.AddFunction("EchoBytes", [](std::vector<std::uint8_t> const& v) { return v; });
    actor.AddFunction("EchoEnum", [](EColour v) { return v; });
}

void setUpProbe(CActor& actor, CProbe& probe)
{
    setUpEchoes(actor);
    actor.AddFunction("Add", [](int a, int b) { return a + b; });
    actor.AddFunction("Nothing", [] {});
    actor.AddFunction("Empty", [](types::CValueList const&) { return types::CValueList(); });
    actor.AddFunction("Two", &twoValues);
    actor.AddFunction("OwnKind", &ownKind);
    actor.AddFunction("Sleep", [](int ms) { std::this_thread::sleep_for(milliseconds(ms)); });
    actor.AddFunction("Hang", [] {
        for (;;)
        {
            ::pause();
        }
    });
    actor.AddFunction("Vanish", [] { ::_exit(0); });
    actor.AddFunction("Tell", [&probe](int count) {
        for (int i = 1; i <= count; ++i)
        {
            probe.OnTold.Send(i, "line\n" + std::to_string(i));
        }
    });
    actor.AddCallback("OnTold", probe.OnTold);
}

void registerTypes(CRpcHost& host)
{
    host.RegisterActorType<CProbe>("Probe", &setUpProbe);
    host.RegisterActorType<CTicker>("Ticker",
                                    [](CActor& actor, CTicker& ticker) { actor.AddCallback("OnTick", ticker.OnTick); });
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2)
    {
        std::cerr << "usage: ToolServerProgram <bus name> [trusting]\n";
        return 2;
    }
    installStderrSink();

    SPortOptions portOptions = SPortOptions::Recommended();
    if (argc > 2 && std::string(argv[2]) == "trusting")
    {
        portOptions.peers = EPeers::Trusted;
    }
    SHostOptions hostOptions;
    hostOptions.hangLimitMs = 1000;
    hostOptions.hangCheckMs = 250;

    CDbusPort port(argv[1], true, portOptions);
    CRpcHost host(port, hostOptions, &registerTypes);
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);)
    {
        if (line == "objects")
        {
            std::cout << "objects " << g_objects << std::endl;
        }
    }
    return 0;
}
