#pragma once

#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace nelo_rpc
{

/// Ports in one process find each other here instead of on a bus: for testing actors without one. Since 0.1.
class NELO_RPC_API CLocalBus
{
public:
    CLocalBus();
    CLocalBus(CLocalBus const&) = delete;
    CLocalBus& operator=(CLocalBus const&) = delete;

    /// All ports must be destroyed before.
    ~CLocalBus();

private:
    friend class CLocalPort;

    class CImpl;

    std::shared_ptr<CImpl> m_impl; // shared with reply functions, which may outlive the bus
};

/// A port without a bus, between hosts and clients of one process.
///
/// Modes, names, connection ids, threads and order are those of CDbusPort, log lines are the same under the name
/// CLocalPort, and lists pass through the same message bodies, so that what could not be sent on a bus cannot be sent
/// here. What differs:
///
/// - A synchronous port delivers its callbacks by itself, on a thread of its own and until it is destroyed. A client
///   on it leaves its listener behind: take that away, with SetCallbackListener({}), before destroying the client.
///   The same thread completes asynchronous calls, of which any number may be under way. A time-out is noticed when no
///   handler runs.
/// - An asynchronous port is there as soon as it is made. The first call waits until a function-call listener is first
///   installed, and with it whatever arrives behind it. Callbacks do not wait for a listener.
/// - A second asynchronous port of the same name gets it when the first one is destroyed.
///
/// Since 0.1.
class NELO_RPC_API CLocalPort : public CRpcPort
{
public:
    /// A name that a bus would refuse is refused with an error line, and nobody finds the port under it.
    ///
    /// @param name       the name under which an asynchronous port is called; a valid bus name.
    /// @param bUseAsync  the mode; see CDbusPort.
    CLocalPort(CLocalBus& bus, char const* name, bool bUseAsync);

    /// The same, with `defaultName` as the peer with connection id 0.
    CLocalPort(CLocalBus& bus, char const* name, char const* defaultName, bool bUseAsync);

    /// The mode is never left out.
    CLocalPort(CLocalBus& bus, char const* name, char const* defaultName) = delete;

    /// Waits for a listener that is running, and drops what was not handed to one. Calls in flight, to this port or
    /// from it, end at once without a reply; asynchronous ones are completed before this returns. Not from a listener
    /// of this port: that stops the process.
    ~CLocalPort() override;

    /// Synchronous ports only; see CRpcPort. Calls of several threads are served one after the other.
    types::CValueList CallFunction(types::CValueList const& call, int connectionId) override;

    /// Asynchronous ports only; see CRpcPort.
    bool SendCallback(types::CValueList const& callback, int connectionId) override;

    /// As CDbusPort does, waits for a call that is under way.
    bool IsConnected(int connectionId) const override;

    /// Any value is kept as it is: -1 stands for 25 seconds, and calls with less fail as if no reply came.
    void SetTimeoutMs(int timeoutMs) override;

    /// Those of this process, for a peer that is there. Does not wait.
    std::optional<SPeerCredentials> GetPeerCredentials(int connectionId) override;

    /// See CRpcPort.
    std::string GetPeerName(int connectionId) const override;

    /// See CRpcPort; about ports that have called or called back, in both modes. Behind a call that waits for a
    /// listener, `onGone` waits too.
    bool WatchPeers(std::function<void(int connectionId)> onGone) override;

protected:
    /// See CRpcPort::TryCallFunction(). The time-out counts the wait for calls of other threads too.
    CCallResult RunCall(types::CValueList const& call, int connectionId, CCallOptions const& options) override;

    /// See CRpcPort::CallFunctionAsync(). The call is sent at once, and `done` runs on the port's thread. A port that
    /// is being destroyed completes it on the calling thread.
    void StartCall(types::CValueList const& call, int connectionId, CCallOptions const& options,
                   CallDone done) override;

private:
    class CImpl;

    std::shared_ptr<CImpl> m_impl; // shared with reply functions and calls in flight
};

} // namespace nelo_rpc
