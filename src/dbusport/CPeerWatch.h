#pragma once

#include <nelo_rpc/GuardedFunction.h>

#include <functional>
#include <mutex>
#include <set>
#include <utility>

namespace nelo_rpc
{

/// Tells a listener of each peer that has gone, once.
class CPeerWatch
{
public:
    /// Returns when the old listener is not running on another thread.
    void Set(std::function<void(int connectionId)> onGone) { m_onGone.Set(std::move(onGone)); }

    bool IsSet() const { return m_onGone.IsSet(); }

    /// Without a listener the peer can still be told of later.
    void Tell(int connectionId)
    {
        if (IsNew(connectionId) && !m_onGone.Call(connectionId))
        {
            Forget(connectionId);
        }
    }

private:
    bool IsNew(int connectionId)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        return m_told.insert(connectionId).second;
    }

    void Forget(int connectionId)
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_told.erase(connectionId);
    }

    internal_guarded::CGuardedFunction<int> m_onGone;
    std::mutex m_mutex;
    std::set<int> m_told;
};

} // namespace nelo_rpc
