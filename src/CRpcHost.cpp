#include <nelo_rpc/CRpcHost.h>

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Refusal.h>

#include "Address.h"
#include "CHostCore.h"
#include "SystemLog.h"

#include <cstdlib>

namespace nelo_rpc
{

SHostOptions SHostOptions::Recommended()
{
    SHostOptions options;
    options.peers = EPeers::Untrusted;
    options.kill = EKill::AtCancellationPoint;
    options.orphans = EOrphans::Destroy;
    options.maxQueuedCalls = 128;
    options.maxActors = 1000;
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
    m_core->GetWatchdog().Start();
    if (options.orphans == EOrphans::Destroy)
    {
        WatchClients();
    }
}

CRpcHost::~CRpcHost()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    logDebug() << "CRpcHost::~CRpcHost";
    m_port.SetFunctionCallListener({});
    if (GetOptions().orphans == EOrphans::Destroy)
    {
        m_port.WatchPeers({});
    }
    for (auto& [connectionId, connection] : m_connections)
    {
        connection.Shutdown();
    }
    m_core->GetWatchdog().StopAndJoin();
    m_core->GetWatchdog().Forget();
    for (auto& [connectionId, connection] : m_connections)
    {
        connection.Close();
    }
    m_core->End();
    for (auto& [connectionId, node] : m_leftBehind)
    {
        if (m_connections.at(connectionId).HasCutOffWorkers())
        {
            *node = m_connections.extract(connectionId);
        }
    }
}

void CRpcHost::WatchClients()
{
    if (!m_port.WatchPeers([this](int connectionId) { OnClientGone(connectionId); }))
    {
        logError() << "CRpcHost cannot watch its clients: actors of those that leave stay";
    }
}

void CRpcHost::OnClientGone(int connectionId)
{
    // On the receiver thread, as calls are, and behind the client's last one.
    auto const connection = m_connections.find(connectionId);
    if (connection != m_connections.end())
    {
        connection->second.OnClientGone();
        logInfo() << "CRpcHost client of connectionId=" << connectionId << " has left, destroying its actors";
    }
}

void CRpcHost::RegisterActorType(std::string const& typeName, SActorType type)
{
    CCancellationGuard const guard;
    auto shared = std::make_shared<SActorType const>(std::move(type));
    std::lock_guard<std::recursive_mutex> const lock(m_mutex);
    m_actorTypes[typeName] = std::move(shared);
}

std::shared_ptr<SActorType const> CRpcHost::FindActorType(std::string const& typeName)
{
    CCancellationGuard const guard;
    std::lock_guard<std::recursive_mutex> const lock(m_mutex);
    auto const type = m_actorTypes.find(typeName);
    return type != m_actorTypes.end() ? type->second : nullptr;
}

void CRpcHost::OnFunctionCall(types::CValueList const& call, int connectionId, CRpcPort::ReplyFunction reply)
{
    logDebug() << "CRpcHost::CRpcHost OnFunctionCall with msg=" << types::toString(call);
    if (GetOptions().peers == EPeers::Untrusted)
    {
        if (char const* const why = protocol::whyNotAddressed(call, true))
        {
            Refuse(connectionId, refusal::make(refusal::INVALID_ARGS, why), reply);
            return;
        }
    }
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
    auto const known = m_connections.find(connectionId);
    if (known != m_connections.end())
    {
        return known->second;
    }
    auto& connection = m_connections
                           .emplace(std::piecewise_construct, std::forward_as_tuple(connectionId),
                                    std::forward_as_tuple(*this, connectionId))
                           .first->second;
    auto const node = std::make_shared<ConnectionNode>();
    m_leftBehind[connectionId] = node;
    connection.ShareWithWorkers(node);
    return connection;
}

bool CRpcHost::SendCallback(types::CValueList const& list, int connectionId)
{
    CCancellationGuard const guard;
    return m_core->SendCallback(list, connectionId);
}

CThreadWatchdog& CRpcHost::GetThreadWatchdog()
{
    return m_core->GetWatchdog();
}

SHostOptions const& CRpcHost::GetOptions() const
{
    return m_core->GetOptions();
}

std::optional<SPeer> CRpcHost::FindPeer(int connectionId)
{
    CCancellationGuard const guard;
    return m_core->FindPeer(connectionId);
}

void CRpcHost::Refuse(int connectionId, types::CValueList const& refusal, CRpcPort::ReplyFunction const& reply)
{
    CCancellationGuard const guard;
    m_core->Refuse(connectionId, refusal, reply);
}

void CRpcHost::FailOnMissingFactory()
{
    logFatal() << "CRpcHost::RegisterActorType needs a factory for a class without a default constructor";
    std::abort();
}

} // namespace nelo_rpc
