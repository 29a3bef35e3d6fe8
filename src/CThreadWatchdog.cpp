#include <nelo_rpc/CThreadWatchdog.h>

#include <nelo_rpc/Cancellation.h>

#include "SystemLog.h"

#include <list>
#include <thread>
#include <utility>

namespace nelo_rpc
{

CThreadWatchdog::CThreadWatchdog() : CThreadWatchdog(20000, 5000) {}

CThreadWatchdog::CThreadWatchdog(int timeoutMs, int periodMs)
    : m_timeoutMs(timeoutMs), m_periodMs(periodMs), m_lastPingId(0)
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    PostTick();
}

CThreadWatchdog::~CThreadWatchdog()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    StopAndJoin();
    WaitForKills();
}

void CThreadWatchdog::Ping(CLoopThread* thread, std::function<void()> onKill, std::string const& name)
{
    Ping(thread, std::move(onKill), name, {});
}

void CThreadWatchdog::Ping(CLoopThread* thread, std::function<void()> onKill, std::string const& name,
                           std::function<void()> beforeKill)
{
    CCancellationGuard const guard;
    logDebug() << "CThreadWatchdog::Ping thread " << thread->GetId() << ": " << name;
    unsigned int id = 0;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        id = ++m_lastPingId;
        m_pings[id] = SPing{thread, m_timeoutMs, std::move(onKill), std::move(beforeKill)};
    }
    thread->Post(std::bind(&CThreadWatchdog::Pong, this, id, name), "ping(" + name + ")");
}

void CThreadWatchdog::Pong(unsigned int id, std::string const& name)
{
    CCancellationGuard const guard;
    logDebug() << "CThreadWatchdog::Pong " << name;
    SPing answered; // destroyed unlocked: the handler may be the last to hold what it captured
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const ping = m_pings.find(id);
    if (ping != m_pings.end())
    {
        answered = std::move(ping->second);
        m_pings.erase(ping);
    }
}

void CThreadWatchdog::Tick()
{
    CCancellationGuard const guard;
    logDebug() << "CThreadWatchdog::Tick";
    if (!WaitForStop(m_periodMs))
    {
        if (m_killsBeside)
        {
            KillAllBeside(TakeExpired());
        }
        else
        {
            KillAll(TakeExpired());
        }
    }
    if (IsStarted()) // posting would start a thread again that a handler stopped
    {
        PostTick();
    }
}

std::vector<CThreadWatchdog::SPing> CThreadWatchdog::TakeExpired()
{
    std::vector<std::pair<int, int>> late; // thread id, time left
    std::vector<SPing> victims;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        for (auto entry = m_pings.begin(); entry != m_pings.end();)
        {
            SPing& ping = entry->second;
            ping.remainingMs -= m_periodMs;
            if (ping.remainingMs < m_timeoutMs / 2)
            {
                late.emplace_back(ping.thread->GetId(), ping.remainingMs);
            }
            if (ping.remainingMs > 0)
            {
                ++entry;
                continue;
            }
            victims.push_back(std::move(ping));
            entry = m_pings.erase(entry);
        }
    }
    for (auto const& [threadId, remainingMs] : late)
    {
        logError() << "CThreadWatchdog::Tick Thread " << threadId << " is not responding, killing it in " << remainingMs
                   << " milliseconds";
    }
    return victims;
}

void CThreadWatchdog::KillAll(std::vector<SPing> const& victims)
{
    // No worker starts before the last handler is done: handlers clear away what a worker would meet, and a second
    // ping of the same thread must not kill one that has just started.
    std::list<CStartHold> holds;
    for (SPing const& victim : victims)
    {
        holds.emplace_back(*victim.thread);
    }
    for (SPing const& victim : victims)
    {
        KillOne(victim);
    }
}

void CThreadWatchdog::KillOne(SPing const& victim)
{
    if (victim.beforeKill)
    {
        victim.beforeKill();
    }
    logError() << "CThreadWatchdog::Tick Killing thread " << victim.thread->GetId();
    victim.thread->Kill();
    victim.onKill();
}

void CThreadWatchdog::KillBeside()
{
    m_killsBeside = true;
}

void CThreadWatchdog::KillAllBeside(std::vector<SPing> victims)
{
    // All are queued before the first is killed, so that no worker starts between two kills of the same thread.
    std::lock_guard<std::mutex> const lock(m_mutex);
    std::vector<CLoopThread*> idle;
    for (SPing& victim : victims)
    {
        auto const [kills, isNew] = m_kills.try_emplace(victim.thread);
        if (isNew)
        {
            idle.push_back(victim.thread);
        }
        kills->second.push_back(std::move(victim));
    }
    for (CLoopThread* const thread : idle)
    {
        std::thread(&CThreadWatchdog::RunKills, this, thread).detach();
        ++m_killers;
    }
}

void CThreadWatchdog::RunKills(CLoopThread* thread)
{
    {
        CStartHold const hold(*thread); // as in KillAll()
        while (auto const victim = NextOf(thread))
        {
            KillOne(*victim);
        }
    }
    std::lock_guard<std::mutex> const lock(m_mutex);
    --m_killers;
    m_killed.notify_all();
}

std::optional<CThreadWatchdog::SPing> CThreadWatchdog::NextOf(CLoopThread* thread)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const kills = m_kills.find(thread);
    if (kills->second.empty())
    {
        m_kills.erase(kills);
        return std::nullopt;
    }
    SPing victim = std::move(kills->second.front());
    kills->second.pop_front();
    return victim;
}

void CThreadWatchdog::WaitForKills()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_killed.wait(lock, [this] { return m_killers == 0; });
}

void CThreadWatchdog::Forget()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    WaitForKills();
    std::map<unsigned int, SPing> forgotten; // destroyed unlocked, as in Pong()
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_pings.swap(forgotten);
}

void CThreadWatchdog::PostTick()
{
    Post(std::bind(&CThreadWatchdog::Tick, this), "CThreadWatchdog::Tick");
}

} // namespace nelo_rpc
