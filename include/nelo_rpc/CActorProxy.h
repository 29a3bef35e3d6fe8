#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/GuardedFunction.h>
#include <nelo_rpc/ProxyEndpoints.h>

#include <functional>
#include <string>

namespace nelo_rpc
{

class CRpcClient;

/// The client's side of one actor. Derive from it to give the actor's functions and callbacks names and types.
///
/// Must be destroyed before its client. Callbacks may arrive until UnsetCallbacks() or the end of this class's
/// destructor; a derived class whose handlers use its own members calls UnsetCallbacks() in its destructor. Since 0.1.
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

    /// Ends its callbacks, waiting for a handler that runs on another thread, and has the server destroy the actor,
    /// unless the id is 0. Blocks until the server answered, at most the time-out.
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

private:
    void OnCallback(std::string const& name, types::CValueList const& list);

    CRpcClient* m_client;
    std::string m_typeName;
    int m_actorId;
    internal_guarded::CGuardedTable<std::string, types::CValueList const&> m_callbacks;
    bool m_callbacksSet;
};

} // namespace nelo_rpc
