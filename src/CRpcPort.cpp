#include <nelo_rpc/CRpcPort.h>

#include <nelo_rpc/Cancellation.h>

#include "SystemLog.h"

#include <utility>

namespace nelo_rpc
{

CRpcPort::~CRpcPort() = default;

void CRpcPort::SetFunctionCallListener(FunctionCallListener listener)
{
    CCancellationGuard const guard;
    m_functionCallListener.Set(std::move(listener));
}

void CRpcPort::SetCallbackListener(CallbackListener listener)
{
    CCancellationGuard const guard;
    m_callbackListener.Set(std::move(listener));
}

void CRpcPort::OnFunctionCall(types::CValueList const& call, int connectionId, ReplyFunction reply)
{
    if (!m_functionCallListener.Call(call, connectionId, std::move(reply)))
    {
        logError() << "Function Listener is empty";
    }
}

void CRpcPort::OnCallback(types::CValueList& callback)
{
    if (!m_callbackListener.Call(callback))
    {
        logError() << "Callback Listener is empty";
    }
}

bool CRpcPort::HasFunctionCallListener() const
{
    return m_functionCallListener.IsSet();
}

std::optional<SPeerCredentials> CRpcPort::GetPeerCredentials(int /*connectionId*/)
{
    return std::nullopt;
}

std::string CRpcPort::GetPeerName(int /*connectionId*/) const
{
    return {};
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): a port that watches keeps the function
bool CRpcPort::WatchPeers(std::function<void(int connectionId)> /*onGone*/)
{
    return false;
}

CCallResult CRpcPort::TryCallFunction(types::CValueList const& call, int connectionId, CCallOptions const& options)
{
    CCancellationGuard const guard;
    return RunCall(call, connectionId, options);
}

void CRpcPort::CallFunctionAsync(types::CValueList const& call, int connectionId, CCallOptions const& options,
                                 CallDone done)
{
    CCancellationGuard const guard;
    if (!done)
    {
        done = [](CCallResult const&) {};
    }
    StartCall(call, connectionId, options, std::move(done));
}

CCallResult CRpcPort::RunCall(types::CValueList const& call, int connectionId, CCallOptions const& /*options*/)
{
    types::CValueList list = CallFunction(call, connectionId);
    return list.empty() ? CCallResult(ECallStatus::Disconnected, "no result came, and the port does not say why")
                        : CCallResult(std::move(list));
}

void CRpcPort::StartCall(types::CValueList const& call, int connectionId, CCallOptions const& options, CallDone done)
{
    CallDone const completion = std::move(done);
    completion(RunCall(call, connectionId, options));
}

} // namespace nelo_rpc
