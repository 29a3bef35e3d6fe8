#include <nelo_rpc/ProxyEndpoints.h>

#include <nelo_rpc/CActorProxy.h>

#include "SystemLog.h"

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

CCallResult resultWithoutValue(CCallResult const& result, std::string const& function)
{
    if (result.GetList().count(0) == 0)
    {
        return CCallResult(ECallStatus::CutOff,
                           "the server gave no result: it has killed the call, or the actor has no such function");
    }
    logError() << "CProxyFunction " << function << " got a result of another type";
    return CCallResult(ECallStatus::BadValue, "the result is of another type");
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

CCallResult CProxyEndpoint::TryCallList(types::CValueList const& args, CCallOptions const& options) const
{
    return m_proxy.TryCallFunction(m_name, args, options);
}

void CProxyEndpoint::CallListAsync(types::CValueList const& args, CCallOptions const& options,
                                   std::function<void(CCallResult result)> done) const
{
    m_proxy.RemoteCallAsync(m_name, args, options, std::move(done));
}

} // namespace nelo_rpc
