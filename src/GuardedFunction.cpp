#include <nelo_rpc/GuardedFunction.h>

#include <algorithm>

namespace nelo_rpc::internal_guarded
{

void CRunners::Enter()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_threads.push_back(std::this_thread::get_id());
}

void CRunners::Leave()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_threads.erase(std::find(m_threads.begin(), m_threads.end(), std::this_thread::get_id()));
    m_left.notify_all();
}

void CRunners::WaitForOthers()
{
    auto const self = std::this_thread::get_id();
    std::unique_lock<std::mutex> lock(m_mutex);
    m_left.wait(lock, [&] {
        return std::all_of(m_threads.begin(), m_threads.end(), [&](std::thread::id thread) { return thread == self; });
    });
}

CRun::~CRun()
{
    if (m_runners != nullptr)
    {
        m_runners->Leave();
    }
}

void CRun::Enter(std::shared_ptr<CRunners> runners)
{
    runners->Enter();
    m_runners = std::move(runners);
}

} // namespace nelo_rpc::internal_guarded
