#include "COpenCalls.h"

#include <utility>

namespace nelo_rpc
{

namespace
{

CCallResult withoutOwner()
{
    return CCallResult(ECallStatus::Disconnected, "who made the call has been destroyed");
}

} // namespace

CRpcPort::CallDone COpenCalls::Open(CRpcPort::CallDone done)
{
    if (!done)
    {
        done = [](CCallResult const&) {};
    }
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (!m_isClosed)
        {
            m_open.emplace(++m_last, std::move(done));
            return [self = shared_from_this(), call = m_last](CCallResult result) {
                self->Complete(call, std::move(result));
            };
        }
    }
    done(withoutOwner());
    return {};
}

void COpenCalls::Complete(unsigned long call, CCallResult result)
{
    internal_guarded::CRun run; // left after the function is let go of
    CRpcPort::CallDone done;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        auto const open = m_open.find(call);
        if (open == m_open.end())
        {
            return;
        }
        done = std::move(open->second);
        m_open.erase(open);
        run.Enter(m_runners); // under the lock, so that whoever closes afterwards waits for this one
    }
    done(std::move(result));
}

void COpenCalls::Close()
{
    internal_guarded::CRun run;
    std::map<unsigned long, CRpcPort::CallDone> open;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_isClosed = true;
        open.swap(m_open);
        run.Enter(m_runners);
    }
    for (auto& call : open)
    {
        CRpcPort::CallDone const done = std::move(call.second);
        done(withoutOwner());
    }
    m_runners->WaitForOthers();
}

} // namespace nelo_rpc
