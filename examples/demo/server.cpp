/// The server of the demo: two actor types that look at this machine.
///
/// usage: server BUS_NAME HANG_LIMIT_MS HANG_CHECK_MS      ends on SIGTERM or SIGINT

#include "CDirectoryWatcher.h"
#include "CObjectPool.h"
#include "CProcessMonitor.h"

#include <nelo_rpc/nelo_rpc.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <string>

namespace
{

using nelo_rpc::CActor;
using nelo_rpc::CRpcHost;
using nelo_rpc::SActorType;

void setUpWatcher(CActor& actor)
{
    auto& watcher = *static_cast<CDirectoryWatcher*>(actor.GetObject());
    actor.AddFunction("Watch", watcher, &CDirectoryWatcher::Watch);
    actor.AddFunction("WaitForFile", watcher, &CDirectoryWatcher::WaitForFile);
    actor.AddCallback("OnCreated", watcher.OnCreated);
    actor.AddCallback("OnChanged", watcher.OnChanged);
    actor.AddCallback("OnRemoved", watcher.OnRemoved);
    actor.AddCallback("OnWaiting", watcher.OnWaiting);
}

void setUpMonitor(CActor& actor)
{
    auto& monitor = *static_cast<CProcessMonitor*>(actor.GetObject());
    actor.AddFunction("CountProcesses", monitor, &CProcessMonitor::CountProcesses);
    actor.AddFunction("LoadAverage", monitor, &CProcessMonitor::LoadAverage);
    actor.AddFunction("MemoryKb", monitor, &CProcessMonitor::MemoryKb);
    actor.AddFunction("NameOf", monitor, &CProcessMonitor::NameOf);
    actor.AddFunction("StateOf", monitor, &CProcessMonitor::StateOf);
    actor.AddFunction("CommandLine", monitor, &CProcessMonitor::CommandLine);
    actor.AddFunction("CountQuestions", monitor, &CProcessMonitor::CountQuestions);
    actor.AddFunction("ForgetQuestions", monitor, &CProcessMonitor::ForgetQuestions);
    actor.AddFunction("WaitForExit", monitor, &CProcessMonitor::WaitForExit);
    actor.AddFunction("Snapshot", nelo_rpc::ValueListFunction([&monitor](nelo_rpc::types::CValueList const& call) {
                          return monitor.Snapshot(call);
                      }));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4)
    {
        std::cerr << "usage: " << argv[0] << " BUS_NAME HANG_LIMIT_MS HANG_CHECK_MS\n";
        return 2;
    }

    // Blocked before the library makes its threads, so that the signals wait for sigwait() below.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    nelo_rpc::log::SetThreshold(nelo_rpc::log::ELevel::Info);
    nelo_rpc::log::SetSink([](nelo_rpc::log::ELevel, std::string const& line) { std::cerr << (line + "\n"); });

    // Before the host, because its destructor gives the objects back.
    CObjectPool<CDirectoryWatcher> watchers("DirectoryWatcher");
    CObjectPool<CProcessMonitor> monitors("ProcessMonitor");

    nelo_rpc::CDbusPort port(argv[1], true, nelo_rpc::SPortOptions::Recommended());
    nelo_rpc::SHostOptions options = nelo_rpc::SHostOptions::Recommended();
    options.hangLimitMs = std::atoi(argv[2]);
    options.hangCheckMs = std::atoi(argv[3]);
    {
        CRpcHost host(port, options, [&](CRpcHost& self) {
            self.RegisterActorType("DirectoryWatcher",
                                   SActorType{[&] { return watchers.Make(); },
                                              [&](void* object) { watchers.Destroy(object); }, setUpWatcher});
            self.RegisterActorType("ProcessMonitor",
                                   SActorType{[&] { return monitors.Make(); },
                                              [&](void* object) { monitors.Destroy(object); }, setUpMonitor});
        });
        say("ready as " + std::string(argv[1]));

        int received = 0;
        sigwait(&stop, &received);
        say("asked to stop");
    }
    say("no actor is left");
    return 0;
}
