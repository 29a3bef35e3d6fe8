#pragma once

#include <nelo_rpc/CLoopThread.h>
#include <nelo_rpc/CRpcHost.h>
#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CThreadWatchdog.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/HangReport.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace nelo_rpc
{

/// What the connections of a host use of it.
///
/// They share it with the host, since a worker that was cut off keeps its connection beyond the host's end. It must
/// not reach the port then, so whatever goes there asks MayUsePort() last of all.
class CHostCore
{
public:
    CHostCore(CRpcPort& port, SHostOptions options);

    void RegisterActorType(std::string const& typeName, SActorType type);
    std::shared_ptr<SActorType const> FindActorType(std::string const& typeName);

    /// False also from a thread that may not use the port.
    bool SendCallback(types::CValueList const& list, int connectionId);

    SHostOptions const& GetOptions() const { return m_options; }
    CThreadWatchdog& GetThreadWatchdog() { return m_watchdog; }
    std::shared_ptr<CCutOffCount> const& GetCutOffs() const { return m_cutOffs; }

    bool IsReportingHangs() const;

    /// Writes the lines of a report and hands it to the application.
    void Report(SHangReport const& report) const;

    /// Fills in who the peer of a connection is. May ask the bus, and then blocks for a round trip.
    void AskForPeer(SHangReport& report) const;

    /// Set when the host ends; shared with calls, which may still be answered then.
    std::shared_ptr<std::atomic<bool> const> GetEnded() const { return m_ended; }

    /// Nothing of the host's uses the port any more, and no ping is open.
    void End();

private:
    bool MayUsePort() const;

    CRpcPort& m_port;
    SHostOptions const m_options;
    std::recursive_mutex m_mutex; // guards the registry
    std::map<std::string, std::shared_ptr<SActorType const>> m_actorTypes;
    std::shared_ptr<std::atomic<bool>> const m_ended = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<CCutOffCount> const m_cutOffs = std::make_shared<CCutOffCount>();
    CThreadWatchdog m_watchdog;
};

} // namespace nelo_rpc
