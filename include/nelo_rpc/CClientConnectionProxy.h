#pragma once

#include <nelo_rpc/CActorProxy.h>
#include <nelo_rpc/Export.h>
#include <nelo_rpc/ProxyEndpoints.h>

#include <string>

namespace nelo_rpc
{

/// The client's side of the server's connection actor, through which actors are made and destroyed.
/// Made and owned by the client. Since 0.1.
class NELO_RPC_API CClientConnectionProxy : public CActorProxy
{
public:
    explicit CClientConnectionProxy(CRpcClient* client);
    ~CClientConnectionProxy() override;

    /// Makes an actor of a type; proxies do so themselves.
    CProxyFunction<int(std::string)> ctor;

    /// Destroys an actor; proxies do so themselves.
    CProxyFunction<void(int)> dtor;

    /// "OnKill": a call of this client hung and was killed, and all its actors on the server are lost. The next call
    /// of each has it made anew.
    CProxyCallback<> OnKill;
};

} // namespace nelo_rpc
