#pragma once

#include <nelo_rpc/CActorProxy.h>
#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/GuardedFunction.h>

#include <functional>
#include <memory>
#include <string>

namespace nelo_rpc
{

class CClientConnectionProxy;
class COpenCalls;

/// The client's root object: sends the calls of proxies to the server and routes callbacks to them.
///
/// The port must be synchronous, with the server as its default peer, and must outlive the client. Callbacks arrive
/// only while something delivers them: a CCallbackDelivery, or the application's own loop. Since 0.1.
class NELO_RPC_API CRpcClient
{
public:
    /// Receives the callbacks of one actor: the callback's name and the whole list.
    using CallbackHandler = std::function<void(std::string const& name, types::CValueList const& list)>;

    /// Installs the port's callback listener. Sends nothing.
    explicit CRpcClient(CRpcPort& port);
    CRpcClient(CRpcClient const&) = delete;
    CRpcClient& operator=(CRpcClient const&) = delete;

    /// All proxies must be destroyed before, and the delivery of callbacks stopped: the port's listener stays.
    /// Asynchronous calls of the client's own that are open are completed as Disconnected, on the calling thread.
    virtual ~CRpcClient();

    /// Sends one call and blocks for its result list, which is empty when none came. Any thread.
    types::CValueList CallFunction(std::string const& typeName, int actorId, std::string const& functionName,
                                   types::CValueList const& args);

    /// Routes the callbacks of an actor id to a handler, replacing an earlier one.
    /// Returns when the earlier one is not running on another thread.
    void SubscribeCallbacks(int actorId, CallbackHandler handler);

    /// Ends that; returns when the handler is not running on another thread.
    void UnsubscribeCallbacks(int actorId);

    /// Routes one callback; for the port. A list without an actor id and a name is fatal ("wrong type in CValue");
    /// one for an actor without a handler is dropped.
    void OnCallback(types::CValueList const& list);

    /// Limits the wait of later calls, in milliseconds; -1 restores the bus library's default (25 seconds).
    void SetTimeoutMs(int timeoutMs);

    /// Whether the server is there; asks the bus.
    bool IsConnected() const;

    /// The proxy of the server's connection actor; owned by the client.
    CActorProxy* GetConnectionProxy();

    /// As CallFunction(), but says how the call ended, and takes options. Any thread. Since 0.1.
    CCallResult TryCallFunction(std::string const& typeName, int actorId, std::string const& functionName,
                                types::CValueList const& args, CCallOptions const& options = {});

    /// Starts a call and returns without waiting for its end, of which `done` hears: see
    /// CRpcPort::CallFunctionAsync(). It is never called after the client's destructor has returned. Any thread.
    /// Since 0.1.
    void CallFunctionAsync(std::string const& typeName, int actorId, std::string const& functionName,
                           types::CValueList const& args, CCallOptions const& options, CRpcPort::CallDone done);

private:
    friend class CActorProxy; // keeps its calls itself

    void StartCall(std::string const& typeName, int actorId, std::string const& functionName,
                   types::CValueList const& args, CCallOptions const& options, CRpcPort::CallDone done);

    CRpcPort& m_port;
    std::unique_ptr<CClientConnectionProxy> m_connectionProxy;
    internal_guarded::CGuardedTable<int, std::string const&, types::CValueList const&> m_subscriptions;
    std::shared_ptr<COpenCalls> m_openCalls; // shared with the calls
};

} // namespace nelo_rpc
