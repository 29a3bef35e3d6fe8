#include <nelo_rpc/CRpcHost.h>

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Refusal.h>

#include "Address.h"
#include "SystemLog.h"

#include <cstdlib>
#include <tuple>

namespace nelo_rpc
{

SHostOptions SHostOptions::Recommended()
{
    SHostOptions options;
    options.peers = EPeers::Untrusted;
    options.orphans = EOrphans::Destroy;
    options.maxQueuedCalls = 64;
    options.maxActors = 1000;
    return options;
}

CRpcHost::CRpcHost(CRpcPort& port, SHostOptions const& options,
                   std::function<void(CRpcHost& host)> const& registerTypes)
    : m_port(port), m_watchdog(options.hangLimitMs, options.hangCheckMs), m_options(options)
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
    m_watchdog.Start();
    if (m_options.orphans == EOrphans::Destroy)
    {
        WatchClients();
    }
}

CRpcHost::~CRpcHost()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    logDebug() << "CRpcHost::~CRpcHost";
    m_port.SetFunctionCallListener({});
    if (m_options.orphans == EOrphans::Destroy)
    {
        m_port.WatchPeers({});
    }
    for (auto& [connectionId, connection] : m_connections)
    {
        connection.Shutdown();
    }
    m_watchdog.StopAndJoin();
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
    if (m_options.peers == EPeers::Untrusted)
    {
        if (char const* const why = protocol::whyNotAddressed(call, true))
        {
            Refuse(connectionId, refusal::make(refusal::INVALID_ARGS, why), reply);
            return;
        }
    }
    GetOrCreateClientConnection(connectionId).OnFunctionCall(call, std::move(reply));
}

CClientConnection& CRpcHost::GetOrCreateClientConnection(int connectionId)
{
    auto connection = m_connections.find(connectionId);
    if (connection == m_connections.end())
    {
        connection = m_connections
                         .emplace(std::piecewise_construct, std::forward_as_tuple(connectionId),
                                  std::forward_as_tuple(*this, connectionId))
                         .first;
    }
    return connection->second;
}

bool CRpcHost::SendCallback(types::CValueList const& list, int connectionId)
{
    CCancellationGuard const guard;
    logDebug() << "CRpcHost::CRpcHost SendCallback with msg=" << types::toString(list);
    return m_port.SendCallback(list, connectionId);
}

CThreadWatchdog& CRpcHost::GetThreadWatchdog()
{
    return m_watchdog;
}

SHostOptions const& CRpcHost::GetOptions() const
{
    return m_options;
}

std::optional<SPeer> CRpcHost::FindPeer(int connectionId)
{
    CCancellationGuard const guard;
    auto const credentials = m_port.GetPeerCredentials(connectionId);
    return credentials ? std::make_optional(SPeer{*credentials, m_port.GetPeerName(connectionId), connectionId})
                       : std::nullopt;
}

void CRpcHost::Refuse(int connectionId, types::CValueList const& refusal, CRpcPort::ReplyFunction const& reply)
{
    CCancellationGuard const guard;
    logError() << "CRpcHost refused a call from " << m_port.GetPeerName(connectionId)
               << " in connectionId=" << connectionId << ": " << refusal::find(refusal)->GetCause();
    reply(refusal);
}

void CRpcHost::FailOnMissingFactory()
{
    logFatal() << "CRpcHost::RegisterActorType needs a factory for a class without a default constructor";
    std::abort();
}

} // namespace nelo_rpc
