#include "CHostCore.h"

#include <nelo_rpc/Cancellation.h>
#include <nelo_rpc/Refusal.h>

#include "SystemLog.h"
#include "ThreadInterrupt.h"

#include <mutex>
#include <utility>

namespace nelo_rpc
{

CHostCore::CHostCore(CRpcPort& port, SHostOptions options)
    : m_port(port), m_options(std::move(options)), m_watchdog(m_options.hangLimitMs, m_options.hangCheckMs)
{
    if (m_options.kill == EKill::AtCancellationPoint)
    {
        m_watchdog.KillBeside();
    }
    if (IsReportingHangs())
    {
        interrupt::Prepare();
    }
}

bool CHostCore::WhileHostLives(std::function<void()> const& use) const
{
    std::shared_lock<std::shared_mutex> const lock(m_endMutex);
    if (*m_ended)
    {
        return false;
    }
    use();
    return true;
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

std::optional<SPeer> CHostCore::FindPeer(int connectionId) const
{
    if (!MayUsePort())
    {
        return std::nullopt;
    }
    auto const credentials = m_port.GetPeerCredentials(connectionId);
    return credentials ? std::make_optional(SPeer{*credentials, GetPeerName(connectionId), connectionId})
                       : std::nullopt;
}

std::string CHostCore::GetPeerName(int connectionId) const
{
    return MayUsePort() ? m_port.GetPeerName(connectionId) : std::string();
}

void CHostCore::Refuse(int connectionId, types::CValueList const& refusal, CRpcPort::ReplyFunction const& reply) const
{
    logError() << "CRpcHost refused a call from " << GetPeerName(connectionId) << " in connectionId=" << connectionId
               << ": " << refusal::find(refusal)->GetCause();
    reply(refusal);
}

void CHostCore::Report(SHangReport const& report) const
{
    std::lock_guard<std::mutex> const lock(m_reportMutex);
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
    {
        std::unique_lock<std::shared_mutex> const lock(m_endMutex);
        *m_ended = true;
    }
    int const left = m_cutOffs->Get();
    if (left > 0 && m_options.kill == EKill::AtCancellationPoint)
    {
        logError() << "CRpcHost::~CRpcHost leaves threads behind that were cut off and have not ended: " << left;
    }
}

} // namespace nelo_rpc
