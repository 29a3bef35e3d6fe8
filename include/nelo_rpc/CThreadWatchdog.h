#pragma once

#include <nelo_rpc/CLoopThread.h>
#include <nelo_rpc/Export.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace nelo_rpc
{

/// Kills loop threads that have stopped running their queues.
///
/// A ping is an item on the watched thread; one that the thread does not get to within the limit gets the thread
/// killed and its handler called. Kills and handlers run on the watchdog's own thread, unless it is told otherwise.
/// Since 0.1.
class NELO_RPC_API CThreadWatchdog : public CLoopThread
{
public:
    /// A limit of 20000 ms, checked every 5000 ms: a thread that does not answer is killed between 15 and 20 seconds
    /// after the ping. Starts the watchdog's thread.
    CThreadWatchdog();

    /// The same with other limits, in milliseconds. A period of 0 or less checks without a pause.
    CThreadWatchdog(int timeoutMs, int periodMs);

    /// Stops the watchdog's thread; handlers of pings that are still open are not called.
    ~CThreadWatchdog();

    /// Watches `thread` from now until it gets to the ping, which is queued behind what it has to do.
    ///
    /// @param thread  must outlive the ping: until it answered, or the handlers of all pings that ran out with it have
    ///                returned, or the watchdog was stopped.
    /// @param onKill  runs on the watchdog's thread, or the one that kills, after the kill; must not be empty.
    /// @param name    names the ping in log lines.
    /// Every ping is an entry of its own: each one that runs out leads to a kill and a call of its handler.
    void Ping(CLoopThread* thread, std::function<void()> onKill, std::string const& name);

    /// The answer to a ping. An id that is not open any more changes nothing.
    void Pong(unsigned int id, std::string const& name);

    /// The periodic check; only the watchdog's own thread runs it. Its pause ends when the watchdog is stopped.
    void Tick();

    /// As above, and calls `beforeKill` on the thread of the kill right before each kill that the ping leads to. It may
    /// be empty.
    void Ping(CLoopThread* thread, std::function<void()> onKill, std::string const& name,
              std::function<void()> beforeKill);

    /// Forgets all pings that are open; their handlers are not called. Waits for the kills that are under way beside
    /// the watchdog, so no handler of such a kill may call it.
    void Forget();

    /// From now on kills run, with what is called before and after them, on threads that are made for them, one for
    /// each thread that is killed: one whose kill takes long holds up no other. To be called before the first ping.
    void KillBeside();

private:
    struct SPing
    {
        CLoopThread* thread; // not owned
        int remainingMs;
        std::function<void()> onKill;
        std::function<void()> beforeKill; // may be empty
    };

    std::vector<SPing> TakeExpired();
    static void KillAll(std::vector<SPing> const& victims);
    static void KillOne(SPing const& victim);
    void KillAllBeside(std::vector<SPing> victims);
    void RunKills(CLoopThread* thread);
    std::optional<SPing> NextOf(CLoopThread* thread);
    void WaitForKills();
    void PostTick();

    std::mutex m_mutex;
    std::map<unsigned int, SPing> m_pings;
    int m_timeoutMs;
    int m_periodMs;
    unsigned int m_lastPingId;
    std::atomic<bool> m_killsBeside{false};

    // Guarded by m_mutex.
    std::map<CLoopThread*, std::deque<SPing>> m_kills; // of threads that are being killed, beside the watchdog
    int m_killers = 0;                                 // threads that do so
    std::condition_variable m_killed;
};

} // namespace nelo_rpc
