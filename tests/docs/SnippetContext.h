#pragma once

// What the snippets of the documents take for granted.

#include <nelo_rpc/nelo_rpc.h>
#include <nelo_rpc/testing/CPrivateBus.h>
#include <nelo_rpc/testing/CScriptedServer.h>

#include <syslog.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <future>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class CBoiler
{
};

class CThermostat
{
public:
    CThermostat() = default;
    explicit CThermostat(CBoiler& boiler);

    bool SetTarget(double celsius);
    std::string Describe(int verbosity) const;

    nelo_rpc::CCallbackSender<double, std::string> OnChanged;
};

class CThermostatProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CThermostatProxy(nelo_rpc::CRpcClient& client) : CActorProxy(&client, "Thermostat") {}

    nelo_rpc::CProxyFunction<bool(double)> SetTarget{*this, "SetTarget"};
    nelo_rpc::CProxyFunction<std::string(int)> Describe{*this, "Describe"};
    nelo_rpc::CProxyCallback<double, std::string> OnChanged{*this, "OnChanged"};
};

class CPool
{
public:
    CThermostat* Take();
    void GiveBack(void* thermostat);
};

class ILamp
{
public:
    virtual ~ILamp() = default;
    virtual bool Dim(int percent) = 0;
    nelo_rpc::CCallbackSender<int> OnDimmed;

    static constexpr nelo_rpc::CInterface RPC{"Lamp", nelo_rpc::SFunction<&ILamp::Dim>{"Dim"},
                                              nelo_rpc::SCallback<&ILamp::OnDimmed>{"OnDimmed"}};
};

class CLamp : public ILamp
{
public:
    bool Dim(int percent) override { return percent <= 100; }
};

/// A snippet that is no declaration is the body of a function with these parameters.
#define SNIPPET_PARAMETERS                                                                                             \
    [[maybe_unused]] nelo_rpc::CDbusPort &port, [[maybe_unused]] nelo_rpc::CRpcHost &host,                             \
        [[maybe_unused]] nelo_rpc::CRpcClient &client, [[maybe_unused]] nelo_rpc::CActor &actor,                       \
        [[maybe_unused]] nelo_rpc::CActorProxy &proxy, [[maybe_unused]] CThermostatProxy &thermostat,                  \
        [[maybe_unused]] CBoiler &boiler, [[maybe_unused]] CPool &pool,                                                \
        [[maybe_unused]] std::function<void(nelo_rpc::CActor&, CThermostat&)> setup,                                   \
        [[maybe_unused]] std::function<void(nelo_rpc::CRpcHost&)> registerTypes
