#include <nelo_rpc/CClientConnectionProxy.h>

#include <nelo_rpc/Protocol.h>

namespace nelo_rpc
{

CClientConnectionProxy::CClientConnectionProxy(CRpcClient* client)
    : CActorProxy(client, protocol::CONNECTION_TYPE, protocol::OWN_ACTOR_ID),
      ctor(*this, protocol::CTOR),
      dtor(*this, protocol::DTOR),
      OnKill(*this, protocol::ON_KILL)
{
}

CClientConnectionProxy::~CClientConnectionProxy() = default;

} // namespace nelo_rpc
