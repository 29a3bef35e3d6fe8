#pragma once

#include <nelo_rpc/CCallOptions.h>
#include <nelo_rpc/CCallResult.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/GuardedFunction.h>
#include <nelo_rpc/ProxyEndpoints.h>

#include <functional>
#include <memory>
#include <string>

namespace nelo_rpc
{

class COpenCalls;
class CRpcClient;

/// The client's side of one actor. Derive from it to give the actor's functions and callbacks names and types.
///
/// Must be destroyed before its client. Callbacks may arrive until UnsetCallbacks() or the end of this class's
/// destructor; a derived class whose handlers use its own members calls UnsetCallbacks() in its destructor, and EndCalls()
/// if they hear of asynchronous calls. Since 0.1.
class NELO_RPC_API CActorProxy
{
public:
    /// Has the server make an actor of a type, and blocks until it is made. When that fails the proxy has id 0 and
    /// its calls reach no actor; the cause is logged.
    CActorProxy(CRpcClient* client, std::string const& typeName);

    /// Attaches to an actor that exists, and takes it over: the destructor destroys the actor. Sends nothing.
    CActorProxy(CRpcClient* client, std::string const& typeName, int actorId);

    CActorProxy(CActorProxy const&) = delete;
    CActorProxy& operator=(CActorProxy const&) = delete;

    /// Ends its callbacks and its asynchronous calls, waiting for a handler that runs on another thread, and has the
    /// server destroy the actor, unless the id is 0. Blocks until the server answered, at most the time-out.
    virtual ~CActorProxy();

    /// "OnRecreate": the server lost the actor's object and has made a new one.
    CProxyCallback<> OnRecreate;

    /// The actor's id on the server; 0 if there is none.
    int GetId();

    CRpcClient* GetRpcClient();

    /// Calls a function of the actor with arguments at 0, 1, ... and blocks for its result list, which is empty when
    /// none came. Any thread.
    types::CValueList RemoteCall(std::string const& name, types::CValueList const& args);

    /// Lets `handler` receive the callbacks of a name, as whole lists, replacing an earlier handler. Returns when the
    /// earlier one is not running on another thread.
    void SubscribeCallback(std::string const& name, std::function<void(types::CValueList const&)> handler);

    /// Routes the callbacks of the actor's id to this proxy. The constructors do so.
    void SetCallbacks();

    /// Ends that. Returns when no handler of this proxy is running on another thread.
    void UnsetCallbacks();

    /// As RemoteCall(), but says how the call ended, and takes options. Any thread. Since 0.1.
    CCallResult TryCallFunction(std::string const& name, types::CValueList const& args,
                                CCallOptions const& options = {});

    /// Starts a call and returns without waiting for its end, of which `done` hears: once, whatever happens. Any
    /// thread. Since 0.1.
    ///
    /// `done` runs on the thread that delivers the client's callbacks, in order with them; see
    /// CRpcPort::CallFunctionAsync(), also for a client for which nothing delivers. It may do what a handler of a
    /// callback may do: make calls of all kinds, and destroy the proxy.
    ///
    /// @param done  may be empty.
    void RemoteCallAsync(std::string const& name, types::CValueList const& args, CCallOptions const& options,
                         std::function<void(CCallResult result)> done);

    /// Completes the asynchronous calls that are open as Disconnected, on the calling thread, and lets later ones fail
    /// at once, where they are made. Returns when no handler of such a call is running on another thread. The
    /// destructor does so. Since 0.1.
    void EndCalls();

private:
    void OnCallback(std::string const& name, types::CValueList const& list);

    CRpcClient* m_client;
    std::string m_typeName;
    int m_actorId;
    internal_guarded::CGuardedTable<std::string, types::CValueList const&> m_callbacks;
    bool m_callbacksSet;
    std::shared_ptr<COpenCalls> m_openCalls; // shared with the calls
};

} // namespace nelo_rpc
