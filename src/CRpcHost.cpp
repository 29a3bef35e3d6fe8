#include <nelo_rpc/CRpcHost.h>

#include <nelo_rpc/Cancellation.h>

#include <nelo_rpc/Refusal.h>

#include "CHostCore.h"
#include "SystemLog.h"

#include <cstdlib>

namespace nelo_rpc
{

SHostOptions SHostOptions::Recommended()
{
    SHostOptions options;
    options.kill = EKill::AtCancellationPoint;
    options.reportHangs = true;
    return options;
}

CRpcHost::CRpcHost(CRpcPort& port, SHostOptions const& options,
                   std::function<void(CRpcHost& host)> const& registerTypes)
    : m_port(port), m_core(std::make_shared<CHostCore>(port, options))
{
    if (registerTypes)
    {
        registerTypes(*this);
    }
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    m_port.SetFunctionCallListener(
        [this](types::CValueList const& call, int connectionId, CRpcPort::ReplyFunction reply) {
            OnFunctionCall(call, connectionId, std::move(reply));
        });
    m_core->GetThreadWatchdog().Start();
}

CRpcHost::~CRpcHost()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    logDebug() << "CRpcHost::~CRpcHost";
    m_port.SetFunctionCallListener({});
    for (auto& [connectionId, connection] : m_connections)
    {
        connection->Shutdown();
    }
    m_core->GetThreadWatchdog().StopAndJoin();
    for (auto& [connectionId, connection] : m_connections)
    {
        connection->Close();
    }
    m_core->End();
}

void CRpcHost::RegisterActorType(std::string const& typeName, SActorType type)
{
    CCancellationGuard const guard;
    m_core->RegisterActorType(typeName, std::move(type));
}

std::shared_ptr<SActorType const> CRpcHost::FindActorType(std::string const& typeName)
{
    CCancellationGuard const guard;
    return m_core->FindActorType(typeName);
}

void CRpcHost::OnFunctionCall(types::CValueList const& call, int connectionId, CRpcPort::ReplyFunction reply)
{
    logDebug() << "CRpcHost::CRpcHost OnFunctionCall with msg=" << types::toString(call);
    CClientConnection& connection = GetOrCreateClientConnection(connectionId);
    if (IsRefused(connection))
    {
        logError() << "CRpcHost::OnFunctionCall refused a call of connectionId=" << connectionId
                   << ", too many threads are cut off";
        reply(refusal::make(refusal::LIMITS_EXCEEDED, "calls of this client hang, and too many do"));
        return;
    }
    connection.OnFunctionCall(call, std::move(reply));
}

bool CRpcHost::IsRefused(CClientConnection const& connection) const
{
    SHostOptions const& options = m_core->GetOptions();
    return options.kill == EKill::AtCancellationPoint && options.maxCutOff > 0 && connection.HasCutOffWorkers() &&
           m_core->GetCutOffs()->Get() >= options.maxCutOff;
}

CClientConnection& CRpcHost::GetOrCreateClientConnection(int connectionId)
{
    auto connection = m_connections.find(connectionId);
    if (connection == m_connections.end())
    {
        auto made = std::make_shared<CClientConnection>(*this, connectionId);
        made->ShareWithWorkers(made);
        connection = m_connections.emplace(connectionId, std::move(made)).first;
    }
    return *connection->second;
}

bool CRpcHost::SendCallback(types::CValueList const& list, int connectionId)
{
    CCancellationGuard const guard;
    return m_core->SendCallback(list, connectionId);
}

CThreadWatchdog& CRpcHost::GetThreadWatchdog()
{
    return m_core->GetThreadWatchdog();
}

void CRpcHost::FailOnMissingFactory()
{
    logFatal() << "CRpcHost::RegisterActorType needs a factory for a class without a default constructor";
    std::abort();
}

} // namespace nelo_rpc
