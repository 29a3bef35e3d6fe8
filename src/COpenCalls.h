#pragma once

#include <nelo_rpc/CRpcPort.h>
#include <nelo_rpc/GuardedFunction.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace nelo_rpc
{

/// The asynchronous calls of one owner whose ends have yet to be heard of: each is completed once, by its end or by the
/// end of the owner. No lock is held while a call is completed.
class COpenCalls : public std::enable_shared_from_this<COpenCalls>
{
public:
    /// Takes a call up. What is returned completes it, may be called at any time, and outlives the owner.
    ///
    /// Once closed, the call fails here and now, and nothing is returned.
    CRpcPort::CallDone Open(CRpcPort::CallDone done);

    /// Completes all open calls as Disconnected, on the calling thread and in the order in which they were started,
    /// and those to come when they come. Returns when none is being completed on another thread.
    void Close();

private:
    void Complete(unsigned long call, CCallResult result);

    std::shared_ptr<internal_guarded::CRunners> const m_runners = std::make_shared<internal_guarded::CRunners>();
    std::mutex m_mutex;

    // Guarded by the mutex.
    std::map<unsigned long, CRpcPort::CallDone> m_open;
    unsigned long m_last = 0;
    bool m_isClosed = false;
};

} // namespace nelo_rpc
