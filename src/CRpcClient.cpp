#include <nelo_rpc/CRpcClient.h>

#include <nelo_rpc/CClientConnectionProxy.h>
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

/// The server, in the eyes of the client's port.
constexpr int SERVER = 0;

types::CValueList callOf(std::string const& typeName, int actorId, std::string const& functionName,
                         types::CValueList const& args)
{
    types::CValueList call = args;
    call[protocol::TYPE_NAME] = types::makeValue<std::string>(typeName);
    call[protocol::ACTOR_ID] = types::makeValue<int>(actorId);
    call[protocol::METHOD_NAME] = types::makeValue<std::string>(functionName);
    return call;
}

} // namespace

CRpcClient::CRpcClient(CRpcPort& port) : m_port(port), m_openCalls(std::make_shared<COpenCalls>())
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    m_connectionProxy = std::make_unique<CClientConnectionProxy>(this);
    m_port.SetCallbackListener([this](types::CValueList const& list) { OnCallback(list); });
}

CRpcClient::~CRpcClient()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    m_openCalls->Close();
    m_connectionProxy.reset();
    logDebug() << "CRpcClient::~CRpcClient done";
}

types::CValueList CRpcClient::CallFunction(std::string const& typeName, int actorId, std::string const& functionName,
                                           types::CValueList const& args)
{
    CCancellationGuard const guard;
    logDebug() << "CRpcClient::CallFunction " << typeName << "::" << functionName;
    types::CValueList reply = m_port.CallFunction(callOf(typeName, actorId, functionName, args), SERVER);
    logDebug() << "CRpcClient::CallFunction " << typeName << "::" << functionName << " done";
    return reply;
}

CCallResult CRpcClient::TryCallFunction(std::string const& typeName, int actorId, std::string const& functionName,
                                        types::CValueList const& args, CCallOptions const& options)
{
    CCancellationGuard const guard;
    logDebug() << "CRpcClient::TryCallFunction " << typeName << "::" << functionName;
    CCallResult result = m_port.TryCallFunction(callOf(typeName, actorId, functionName, args), SERVER, options);
    logDebug() << "CRpcClient::TryCallFunction " << typeName << "::" << functionName << " "
               << toString(result.GetStatus());
    return result;
}

void CRpcClient::CallFunctionAsync(std::string const& typeName, int actorId, std::string const& functionName,
                                   types::CValueList const& args, CCallOptions const& options, CRpcPort::CallDone done)
{
    CCancellationGuard const guard;
    if (auto completion = m_openCalls->Open(std::move(done)))
    {
        StartCall(typeName, actorId, functionName, args, options, std::move(completion));
    }
}

void CRpcClient::StartCall(std::string const& typeName, int actorId, std::string const& functionName,
                           types::CValueList const& args, CCallOptions const& options, CRpcPort::CallDone done)
{
    // Nothing comes after the start: on a port that nobody reads the handler runs inside, and may destroy the caller.
    logDebug() << "CRpcClient::CallFunctionAsync " << typeName << "::" << functionName;
    m_port.CallFunctionAsync(callOf(typeName, actorId, functionName, args), SERVER, options, std::move(done));
}

void CRpcClient::SubscribeCallbacks(int actorId, CallbackHandler handler)
{
    CCancellationGuard const guard;
    logDebug() << "CRpcClient::SubscribeCallbacks actorId = " << actorId;
    m_subscriptions.Set(actorId, std::move(handler));
}

void CRpcClient::UnsubscribeCallbacks(int actorId)
{
    CCancellationGuard const guard;
    logDebug() << "CRpcClient::UnsubscribeCallbacks actorId = " << actorId;
    m_subscriptions.Erase(actorId);
}

void CRpcClient::OnCallback(types::CValueList const& list)
{
    logDebug() << "CRpcClient::OnCallback = " << types::toString(list);
    int const actorId = types::unpackAt<int>(list, protocol::ACTOR_ID);
    std::string const name = types::unpackAt<std::string>(list, protocol::METHOD_NAME);
    m_subscriptions.Call(actorId, name, list);
}

void CRpcClient::SetTimeoutMs(int timeoutMs)
{
    CCancellationGuard const guard;
    m_port.SetTimeoutMs(timeoutMs);
}

bool CRpcClient::IsConnected() const
{
    CCancellationGuard const guard;
    return m_port.IsConnected(SERVER);
}

CActorProxy* CRpcClient::GetConnectionProxy()
{
    return m_connectionProxy.get();
}

} // namespace nelo_rpc
