#pragma once

#include <nelo_rpc/nelo_rpc.h>

#include <cstdint>
#include <string>
#include <vector>

/// What the test programs and the tests have in common: the probe, an actor whose functions and callbacks
/// cover every type that can travel, with a state that shows whether it is still the same object.

/// The type names that a server program registers. Making a SLOW_PROBE waits for the server's "release".
inline constexpr char const* PROBE = "Probe";
inline constexpr char const* SLOW_PROBE = "SlowProbe";

enum class EColour : int
{
    Red = -1,
    Green = 2147483647,
    Blue = static_cast<int>(-2147483647 - 1)
};

using Bytes = std::vector<std::uint8_t>;

class CProbeProxy : public nelo_rpc::CActorProxy
{
public:
    explicit CProbeProxy(nelo_rpc::CRpcClient& client, std::string const& type = PROBE) : CActorProxy(&client, type) {}
    CProbeProxy(nelo_rpc::CRpcClient& client, int actorId) : CActorProxy(&client, PROBE, actorId) {}
    ~CProbeProxy() override { UnsetCallbacks(); }

    nelo_rpc::CProxyFunction<int(int)> EchoInt{*this, "EchoInt"};
    nelo_rpc::CProxyFunction<unsigned int(unsigned int)> EchoUnsigned{*this, "EchoUnsigned"};
    nelo_rpc::CProxyFunction<bool(bool)> EchoBool{*this, "EchoBool"};
    nelo_rpc::CProxyFunction<float(float)> EchoFloat{*this, "EchoFloat"};
    nelo_rpc::CProxyFunction<double(double)> EchoDouble{*this, "EchoDouble"};
    nelo_rpc::CProxyFunction<std::string(std::string const&)> EchoString{*this, "EchoString"};
    nelo_rpc::CProxyFunction<nelo_rpc::types::CCString(nelo_rpc::types::CCString const&)> EchoCCString{*this,
                                                                                                       "EchoCCString"};
    nelo_rpc::CProxyFunction<nelo_rpc::types::CCString(char const*)> EchoChars{*this, "EchoChars"};
    nelo_rpc::CProxyFunction<EColour(EColour)> EchoColour{*this, "EchoColour"};
    nelo_rpc::CProxyFunction<Bytes(Bytes const&)> EchoBytes{*this, "EchoBytes"};
    nelo_rpc::CProxyFunction<std::string(int, unsigned int, bool, float, double, std::string, char const*, EColour,
                                         Bytes)>
        Join{*this, "Join"};
    nelo_rpc::CProxyFunction<void()> Nothing{*this, "Nothing"};
    nelo_rpc::CProxyFunction<int()> IsNotRegistered{*this, "IsNotRegistered"};

    /// A sum that lives as long as the object.
    nelo_rpc::CProxyFunction<int(int)> Add{*this, "Add"};

    /// Sends OnCount with 0, 1, ... so many times and returns the number.
    nelo_rpc::CProxyFunction<int(int)> CountTo{*this, "CountTo"};

    /// The same, but then waits for the server's "release".
    nelo_rpc::CProxyFunction<int(int)> CountAndBlock{*this, "CountAndBlock"};

    /// Waits for the server's "release", then does the same.
    nelo_rpc::CProxyFunction<int(int)> BlockAndCount{*this, "BlockAndCount"};

    /// Never return: asleep, busy without a cancellation point, or sending OnCount all the time.
    nelo_rpc::CProxyFunction<int()> Hang{*this, "Hang"};
    nelo_rpc::CProxyFunction<int()> Spin{*this, "Spin"};
    nelo_rpc::CProxyFunction<int()> Flood{*this, "Flood"};

    /// Never returns: hangs in "sleep", "condition", "mutex", "read", "allocation", "computation", "send" or "log".
    nelo_rpc::CProxyFunction<int(std::string const&)> HangIn{*this, "HangIn"};

    /// Sends OnEverything with one value of each type.
    nelo_rpc::CProxyFunction<void(int, unsigned int, bool, float, double, std::string, char const*, EColour, Bytes)>
        SendEverything{*this, "SendEverything"};

    nelo_rpc::CProxyCallback<int> OnCount{*this, "OnCount"};
    nelo_rpc::CProxyCallback<std::string> OnEvent{*this, "OnEvent"};
    nelo_rpc::CProxyCallback<int, unsigned int, bool, float, double, std::string, char const*, EColour, Bytes>
        OnEverything{*this, "OnEverything"};
};

/// What Join answers: each value as text, so that a value that changed on the way shows.
std::string join(int i, unsigned int u, bool b, float f, double d, std::string const& s, char const* c, EColour e,
                 Bytes const& bytes);
