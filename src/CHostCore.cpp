#include "CHostCore.h"

#include <nelo_rpc/Cancellation.h>

#include "SystemLog.h"
#include "ThreadInterrupt.h"

#include <utility>

namespace nelo_rpc
{

CHostCore::CHostCore(CRpcPort& port, SHostOptions options)
    : m_port(port), m_options(std::move(options)), m_watchdog(m_options.hangLimitMs, m_options.hangCheckMs)
{
    if (IsReportingHangs())
    {
        interrupt::Prepare();
    }
}

void CHostCore::RegisterActorType(std::string const& typeName, SActorType type)
{
    auto shared = std::make_shared<SActorType const>(std::move(type));
    std::lock_guard<std::recursive_mutex> const lock(m_mutex);
    m_actorTypes[typeName] = std::move(shared);
}

std::shared_ptr<SActorType const> CHostCore::FindActorType(std::string const& typeName)
{
    std::lock_guard<std::recursive_mutex> const lock(m_mutex);
    auto const type = m_actorTypes.find(typeName);
    return type != m_actorTypes.end() ? type->second : nullptr;
}

bool CHostCore::SendCallback(types::CValueList const& list, int connectionId)
{
    logDebug() << "CRpcHost::CRpcHost SendCallback with msg=" << types::toString(list);
    return MayUsePort() && m_port.SendCallback(list, connectionId);
}

bool CHostCore::MayUsePort() const
{
    return !*m_ended && !CCancellationRequest::IsOwnCutOff();
}

bool CHostCore::IsReportingHangs() const
{
    return m_options.reportHangs || m_options.onHang;
}

void CHostCore::AskForPeer(SHangReport& report) const
{
    if (MayUsePort())
    {
        report.peerName = m_port.GetPeerName(report.connectionId);
    }
    if (MayUsePort())
    {
        report.peer = m_port.GetPeerCredentials(report.connectionId);
    }
}

void CHostCore::Report(SHangReport const& report) const
{
    std::string const peer = report.peer ? "uid=" + std::to_string(report.peer->uid) +
                                               " gid=" + std::to_string(report.peer->gid) +
                                               " pid=" + std::to_string(report.peer->pid)
                                         : "unknown";
    logError() << "CRpcHost::ReportHang thread " << report.threadId << " of connectionId=" << report.connectionId
               << " peer=" << report.peerName << " (" << peer << ") has been in " << report.actorType << ":"
               << report.function << " for " << report.runningMs << " milliseconds";
    if (report.stack.empty())
    {
        logError() << "CRpcHost::ReportHang thread " << report.threadId << " shows no stack";
    }
    for (std::size_t frame = 0; frame < report.stack.size(); ++frame)
    {
        logError() << "CRpcHost::ReportHang thread " << report.threadId << " #" << frame << " " << report.stack[frame];
    }
    if (m_options.onHang)
    {
        m_options.onHang(report);
    }
}

void CHostCore::End()
{
    m_watchdog.Forget();
    *m_ended = true;
    int const left = m_cutOffs->Get();
    if (left > 0 && m_options.kill == EKill::AtCancellationPoint)
    {
        logError() << "CRpcHost::~CRpcHost leaves threads behind that were cut off and have not ended: " << left;
    }
}

} // namespace nelo_rpc
