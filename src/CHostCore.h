#pragma once

#include <nelo_rpc/CLoopThread.h>
#include <nelo_rpc/CRpcHost.h>
#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/CThreadWatchdog.h>
#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/HangReport.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
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

    /// Runs a short function that uses the host itself and calls nothing of the application.
    ///
    /// @return false if the host has ended; the function has then not run.
    bool WhileHostLives(std::function<void()> const& use) const;

    /// False also from a thread that may not use the port.
    bool SendCallback(types::CValueList const& list, int connectionId);

    SHostOptions const& GetOptions() const { return m_options; }

    /// Stopped when the host has ended.
    CThreadWatchdog& GetWatchdog() { return m_watchdog; }
    std::shared_ptr<CCutOffCount> const& GetCutOffs() const { return m_cutOffs; }

    /// Who a client is, or nothing if that cannot be told. May ask the bus, and then blocks for a round trip.
    std::optional<SPeer> FindPeer(int connectionId) const;

    /// The name that the port sends to a client under.
    std::string GetPeerName(int connectionId) const;

    /// Answers a call with a refusal and an error line that names the client and the cause.
    void Refuse(int connectionId, types::CValueList const& refusal, CRpcPort::ReplyFunction const& reply) const;

    bool IsReportingHangs() const;

    /// Writes the lines of a report and hands it to the application, one report after the other.
    void Report(SHangReport const& report) const;

    /// Set when the host ends; shared with calls, which may still be answered then.
    std::shared_ptr<std::atomic<bool> const> GetEnded() const { return m_ended; }

    /// Nothing of the connections uses the host or its port any more.
    void End();

private:
    bool MayUsePort() const;

    CRpcPort& m_port;
    SHostOptions const m_options;
    CThreadWatchdog m_watchdog;           // here, because a worker may be cut off on its way into it
    mutable std::mutex m_reportMutex;     // one report after the other: several threads may kill
    mutable std::shared_mutex m_endMutex; // shared by those who use the host, whose end waits for them
    std::shared_ptr<std::atomic<bool>> const m_ended = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<CCutOffCount> const m_cutOffs = std::make_shared<CCutOffCount>();
};

} // namespace nelo_rpc
