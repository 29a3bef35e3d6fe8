#include <nelo_rpc/CActorProxy.h>

#include <nelo_rpc/CRpcClient.h>
#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Protocol.h>
#include <nelo_rpc/Values.h>

#include "COpenCalls.h"
#include "SystemLog.h"

#include <utility>

namespace nelo_rpc
{

namespace
{

/// Calls a function of the connection actor with one argument.
template <class T>
types::CValueList callConnection(CRpcClient& client, char const* function, T const& argument)
{
    types::CValueList args;
    args[0] = types::makeValue<T>(argument);
    return types::internal_proxyfunction::ActorProxyCallFunction(*client.GetConnectionProxy(), function, args);
}

} // namespace

CActorProxy::CActorProxy(CRpcClient* client, std::string const& typeName)
    : OnRecreate(*this, protocol::ON_RECREATE),
      m_client(client),
      m_typeName(typeName),
      m_actorId(0),
      m_callbacksSet(false),
      m_openCalls(std::make_shared<COpenCalls>())
{
    // Here and in all constructors that make themselves known elsewhere: unwound at its end, it would leave the client
    // with a handler of an object that never came to be.
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    logDebug() << "CActorProxy::CActorProxy";
    types::CValueList const reply = callConnection(*m_client, protocol::CTOR, m_typeName);
    if (reply.count(0) != 0)
    {
        m_actorId = types::unpackAt<int>(reply, 0);
    }
    SetCallbacks();
}

CActorProxy::CActorProxy(CRpcClient* client, std::string const& typeName, int actorId)
    : OnRecreate(*this, protocol::ON_RECREATE),
      m_client(client),
      m_typeName(typeName),
      m_actorId(actorId),
      m_callbacksSet(false),
      m_openCalls(std::make_shared<COpenCalls>())
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    SetCallbacks();
}

CActorProxy::~CActorProxy()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    logDebug() << "CActorProxy::~CActorProxy actorId=" << m_actorId;
    UnsetCallbacks();
    m_openCalls->Close();
    if (m_actorId == protocol::OWN_ACTOR_ID)
    {
        return;
    }
    types::CValueList const reply = callConnection(*m_client, protocol::DTOR, m_actorId);
    if (reply.count(0) != 0)
    {
        types::readBoolResult(types::entryAt(reply, 0));
    }
}

int CActorProxy::GetId()
{
    return m_actorId;
}

CRpcClient* CActorProxy::GetRpcClient()
{
    return m_client;
}

types::CValueList CActorProxy::RemoteCall(std::string const& name, types::CValueList const& args)
{
    return m_client->CallFunction(m_typeName, m_actorId, name, args);
}

void CActorProxy::SubscribeCallback(std::string const& name, std::function<void(types::CValueList const&)> handler)
{
    CCancellationGuard const guard;
    m_callbacks.Set(name, std::move(handler));
}

void CActorProxy::SetCallbacks()
{
    m_client->SubscribeCallbacks(
        m_actorId, [this](std::string const& name, types::CValueList const& list) { OnCallback(name, list); });
    m_callbacksSet = true;
}

void CActorProxy::UnsetCallbacks()
{
    m_client->UnsubscribeCallbacks(m_actorId);
}

CCallResult CActorProxy::TryCallFunction(std::string const& name, types::CValueList const& args,
                                         CCallOptions const& options)
{
    return m_client->TryCallFunction(m_typeName, m_actorId, name, args, options);
}

void CActorProxy::RemoteCallAsync(std::string const& name, types::CValueList const& args, CCallOptions const& options,
                                  std::function<void(CCallResult result)> done)
{
    CCancellationGuard const guard;
    if (auto completion = m_openCalls->Open(std::move(done)))
    {
        m_client->StartCall(m_typeName, m_actorId, name, args, options, std::move(completion));
    }
}

void CActorProxy::EndCalls()
{
    CCancellationGuard const guard;
    m_openCalls->Close();
}

void CActorProxy::OnCallback(std::string const& name, types::CValueList const& list)
{
    logDebug() << "CActorProxy::OnCallback " << name << " with args = " << types::toString(list);
    if (!m_callbacks.Call(name, list))
    {
        logError() << "CActorProxy::OnCallback Callback with name = " << name << " is not registered";
    }
}

} // namespace nelo_rpc
