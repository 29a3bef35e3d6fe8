/// A client for the tests, to be killed by them: does what it is told on standard input, one line after the other.
///
/// usage: ClientProgram <own bus name> <server's bus name>
///
/// says:     "ready", and what is given in quotes below
/// is told:  make <type>       makes the probe: "made <id>"
///           add <number>      calls Add: "result <sum>" or "no result"
///           block <number>    calls CountAndBlock the same way
///           late <number>     calls BlockAndCount the same way
///           hang              calls Hang the same way
///           sleep             calls HangIn("sleep") the same way
///           hold              from now on a callback's handler says "in handler" and stays there
///           loop              calls Add(1) on a thread until the end; says "looping" after the first answer
///           destroy           destroys the probe: "destroyed"
///           exit              ends without cleaning up
///           stop              ends in good order, as the end of the input does
/// and says "event <text>" and "count <number>" for callbacks.

#include "ProbeTypes.h"
#include "ProgramSupport.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>

namespace
{

std::atomic<bool> g_hold{false};

void stayIfHeld()
{
    if (g_hold)
    {
        say("in handler");
        std::this_thread::sleep_for(std::chrono::seconds(60));
    }
}

void sayResult(std::optional<int> const& result)
{
    say(result ? "result " + std::to_string(*result) : "no result");
}

std::unique_ptr<CProbeProxy> makeProbe(nelo_rpc::CRpcClient& client, std::string const& type)
{
    auto probe = std::make_unique<CProbeProxy>(client, type);
    probe->OnEvent.Subscribe([](std::string const& text) {
        stayIfHeld();
        say("event " + text);
    });
    probe->OnCount.Subscribe([](int n) {
        stayIfHeld();
        say("count " + std::to_string(n));
    });
    say("made " + std::to_string(probe->GetId()));
    return probe;
}

/// Calls without a pause on a thread of its own.
class CCaller
{
public:
    ~CCaller()
    {
        m_stop = true;
        if (m_thread.joinable())
        {
            m_thread.join();
        }
    }

    void Start(CProbeProxy& probe)
    {
        m_thread = std::thread([this, &probe] {
            for (bool first = true; !m_stop; first = false)
            {
                probe.Add(1);
                if (first)
                {
                    say("looping");
                }
            }
        });
    }

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3)
    {
        return 2;
    }
    sendErrorsToStderr();
    nelo_rpc::CDbusPort port(argv[1], argv[2], false);
    nelo_rpc::CRpcClient client(port);
    nelo_rpc::CCallbackDelivery const delivery(port);
    std::unique_ptr<CProbeProxy> probe;
    std::unique_ptr<CCaller> caller;
    say("ready");

    for (std::string line; std::getline(std::cin, line) && line != "stop";)
    {
        std::istringstream words(line);
        std::string command;
        words >> command;
        int number = 0;
        if (command == "make")
        {
            std::string type;
            words >> type;
            probe = makeProbe(client, type);
        }
        else if (command == "add" && words >> number)
        {
            sayResult(probe->Add.TryCall(number));
        }
        else if (command == "block" && words >> number)
        {
            sayResult(probe->CountAndBlock.TryCall(number));
        }
        else if (command == "late" && words >> number)
        {
            sayResult(probe->BlockAndCount.TryCall(number));
        }
        else if (command == "hang")
        {
            sayResult(probe->Hang.TryCall());
        }
        else if (command == "sleep")
        {
            sayResult(probe->HangIn.TryCall("sleep"));
        }
        else if (command == "hold")
        {
            g_hold = true;
        }
        else if (command == "loop")
        {
            caller = std::make_unique<CCaller>();
            caller->Start(*probe);
        }
        else if (command == "destroy")
        {
            caller.reset();
            probe.reset();
            say("destroyed");
        }
        else if (command == "exit")
        {
            std::exit(0);
        }
    }

    caller.reset();
    probe.reset();
    say("stopped");
    return 0;
}
