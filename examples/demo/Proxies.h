#pragma once

#include "ProcessState.h"

#include <nelo_rpc/nelo_rpc.h>

#include <cstdint>
#include <string>
#include <vector>

/// The client's view of the server's DirectoryWatcher.
class CDirectoryWatcherProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CDirectoryWatcherProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "DirectoryWatcher") {}

    nelo_rpc::CProxyFunction<bool(std::string)> Watch{*this, "Watch"};
    nelo_rpc::CProxyFunction<bool(std::string, int)> WaitForFile{*this, "WaitForFile"};
    nelo_rpc::CProxyCallback<std::string> OnCreated{*this, "OnCreated"};
    nelo_rpc::CProxyCallback<std::string, double> OnChanged{*this, "OnChanged"};
    nelo_rpc::CProxyCallback<std::string> OnRemoved{*this, "OnRemoved"};
    nelo_rpc::CProxyCallback<std::string> OnWaiting{*this, "OnWaiting"};
};

/// The client's view of the server's ProcessMonitor.
class CProcessMonitorProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CProcessMonitorProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "ProcessMonitor") {}

    nelo_rpc::CProxyFunction<int()> CountProcesses{*this, "CountProcesses"};
    nelo_rpc::CProxyFunction<double()> LoadAverage{*this, "LoadAverage"};
    nelo_rpc::CProxyFunction<unsigned int(int)> MemoryKb{*this, "MemoryKb"};
    nelo_rpc::CProxyFunction<std::string(int)> NameOf{*this, "NameOf"};
    nelo_rpc::CProxyFunction<EProcessState(int)> StateOf{*this, "StateOf"};
    nelo_rpc::CProxyFunction<std::vector<std::uint8_t>(int)> CommandLine{*this, "CommandLine"};
    nelo_rpc::CProxyFunction<int()> CountQuestions{*this, "CountQuestions"};
    nelo_rpc::CProxyFunction<void()> ForgetQuestions{*this, "ForgetQuestions"};
    nelo_rpc::CProxyFunction<bool(int)> WaitForExit{*this, "WaitForExit"};
};
