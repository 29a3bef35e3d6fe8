#pragma once

#include <nelo_rpc/nelo_rpc.h>

#include <cstdint>
#include <string>
#include <vector>

/// What the campaigns' programs have in common: the stepper, an actor whose calls and callbacks are numbered, so that
/// either side sees what was lost, doubled or out of order.

/// The type names that a stress server registers.
inline constexpr char const* STEPPER = "Stepper";
inline constexpr char const* SLOW_TO_MAKE = "StepperThatParksWhenMade";
inline constexpr char const* SLOW_TO_END = "StepperThatParksWhenDestroyed";
inline constexpr char const* HANGS_AT_END = "StepperThatHangsWhenDestroyed";

/// What Step answers.
inline std::string answerToStep(int number, std::string const& text)
{
    return std::to_string(number) + ":" + text;
}

class CStepperProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CStepperProxy(nelo_rpc::CRpcClient& client, std::string const& type = STEPPER) : CActorProxy(&client, type)
    {
    }
    ~CStepperProxy() override { UnsetCallbacks(); }

    /// Numbers start at 1 and go up by one. Sends OnStep with the number, then answers answerToStep().
    nelo_rpc::CProxyFunction<std::string(int, std::string)> Step{*this, "Step"};

    /// The number of the last step.
    nelo_rpc::CProxyFunction<int()> Steps{*this, "Steps"};

    /// Answers what it was given.
    nelo_rpc::CProxyFunction<std::vector<std::uint8_t>(std::vector<std::uint8_t>)> Echo{*this, "Echo"};

    /// So many bytes, all 0x5a.
    nelo_rpc::CProxyFunction<std::vector<std::uint8_t>(int)> Bytes{*this, "Bytes"};

    /// Sends OnBurst with 1, 2, ... so many times.
    nelo_rpc::CProxyFunction<void(int)> Burst{*this, "Burst"};

    /// The same with so many bytes in each.
    nelo_rpc::CProxyFunction<void(int, int)> Flood{*this, "Flood"};

    /// Says under which number this client's parking is released.
    nelo_rpc::CProxyFunction<void(int)> Identify{*this, "Identify"};

    /// Sends OnParked and waits for the release.
    nelo_rpc::CProxyFunction<void()> Park{*this, "Park"};

    /// Does not come back; see HungWays.h.
    nelo_rpc::CProxyFunction<void(std::string)> Hang{*this, "Hang"};

    nelo_rpc::CProxyCallback<int> OnStep{*this, "OnStep"};
    nelo_rpc::CProxyCallback<int> OnBurst{*this, "OnBurst"};
    nelo_rpc::CProxyCallback<std::string> OnParked{*this, "OnParked"};

    /// Sent to all from outside of calls, if the server was told to.
    nelo_rpc::CProxyCallback<int> OnTick{*this, "OnTick"};
};
