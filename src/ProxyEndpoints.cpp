#include <nelo_rpc/ProxyEndpoints.h>

#include <nelo_rpc/CActorProxy.h>

namespace nelo_rpc
{

namespace types::internal_proxyfunction
{

CValueList ActorProxyCallFunction(CActorProxy& proxy, std::string const& name, CValueList const& args)
{
    return proxy.RemoteCall(name, args);
}

void ActorProxySubscribeCallback(CActorProxy& proxy, std::string const& name,
                                 std::function<void(CValueList const&)> handler)
{
    proxy.SubscribeCallback(name, std::move(handler));
}

} // namespace types::internal_proxyfunction

CProxyEndpoint::CProxyEndpoint(CActorProxy& proxy, std::string name) : m_proxy(proxy), m_name(std::move(name)) {}

types::CValueList CProxyEndpoint::Call(types::CValueList const& args) const
{
    return types::internal_proxyfunction::ActorProxyCallFunction(m_proxy, m_name, args);
}

void CProxyEndpoint::SubscribeList(std::function<void(types::CValueList const&)> handler) const
{
    types::internal_proxyfunction::ActorProxySubscribeCallback(m_proxy, m_name, std::move(handler));
}

} // namespace nelo_rpc
