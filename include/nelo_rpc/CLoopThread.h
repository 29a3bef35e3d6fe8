#pragma once

#include <nelo_rpc/Choices.h>
#include <nelo_rpc/Export.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nelo_rpc
{

/// Counts threads that were cut off and have not ended since. Any thread. Since 0.1.
class NELO_RPC_API CCutOffCount
{
public:
    /// @param total  counts the same threads too, together with those of others; may be null.
    explicit CCutOffCount(std::shared_ptr<CCutOffCount> total = {});
    CCutOffCount(CCutOffCount const&) = delete;
    CCutOffCount& operator=(CCutOffCount const&) = delete;

    void Add();
    void Remove();
    int Get() const;

    /// The number of the total, if there is one.
    int GetTotal() const;

private:
    std::shared_ptr<CCutOffCount> const m_total;
    std::atomic<int> m_count{0};
};

/// How the workers of a loop thread are made. Since 0.1.
struct NELO_RPC_API SWorkerOptions
{
    EKill kill = EKill::Anywhere;

    /// Kept alive by every worker until it has left the loop, or, one that is cut off, until it has ended. Usually the
    /// owner of the loop thread.
    std::weak_ptr<void> owner;

    /// Counts the workers that were cut off; may be null.
    std::shared_ptr<CCutOffCount> cutOffs;
};

/// A worker thread with a queue of named work items, run one after another in posting order.
///
/// Every function may be called from any thread, from an item of the thread itself too. The owner stops the thread
/// (StopAndJoin) before destroying the object: destroying a running one ends the process. Since 0.1.
class NELO_RPC_API CLoopThread
{
public:
    /// Makes an object without a thread; the first Start() or Post() starts it.
    CLoopThread();
    CLoopThread(CLoopThread const&) = delete;
    CLoopThread& operator=(CLoopThread const&) = delete;

    /// Waits for a worker that stopped itself to leave. Items that were not run are destroyed.
    ~CLoopThread();

    /// Starts the thread if it is not started.
    void Start();

    /// Appends an item and starts the thread if it is not started. Does not wait for the item.
    ///
    /// An empty function raises std::bad_function_call on the worker, which ends the process, as every exception
    /// does that leaves an item.
    void Post(std::function<void()> fn, std::string const& name);

    /// The kernel's id of the worker; 0 before it first ran and after Kill(). Keeps its value after StopAndJoin().
    int GetId();

    /// Whether the thread was started and neither stopped nor killed since.
    bool IsStarted();

    /// Whether the calling thread is a worker of this object, be it one that was stopped meanwhile.
    bool IsCurrentThread() const;

    /// Stops the thread behind the items that are already posted.
    ///
    /// Blocks until they have run. Called by an item of this thread it returns at once; the thread then ends after
    /// the items posted so far. Items that are posted later wait for the next start.
    void StopAndJoin();

    /// Cancels a worker that is stuck, wherever its item is, and waits up to two seconds for its end; with
    /// EKill::AtCancellationPoint, at its next cancellation point, and up to one second.
    ///
    /// One that has not ended by then is cut off: it never touches this object again, which may be destroyed
    /// meanwhile. With EKill::AtCancellationPoint that leaves an error line.
    ///
    /// Items that are still queued stay there and run when the thread is started again. The function that was
    /// running never goes on: locks that it holds stay held and memory that it owns may be lost.
    void Kill();

    /// Keeps a thread that is not running from being started while an object of this class lives; a start that was
    /// asked for meanwhile is made up for at its end.
    ///
    /// The watchdog holds one from before a kill until after the kill's handler, so that no new worker meets what
    /// the handler is clearing away.
    class NELO_RPC_API CStartHold
    {
    public:
        explicit CStartHold(CLoopThread& thread);
        CStartHold(CStartHold const&) = delete;
        CStartHold& operator=(CStartHold const&) = delete;
        ~CStartHold();

    private:
        CLoopThread& m_thread;
    };

    /// Keeps the worker asleep while an object of this class lives, for items that are posted one right after the other:
    /// it would take up the first, find nothing more, and have to be woken again. One that is awake goes on.
    ///
    /// Must not outlive the loop thread. A stop and a kill do not wait for its end.
    /// @since 0.1
    class NELO_RPC_API CWakeHold
    {
    public:
        explicit CWakeHold(CLoopThread& thread);
        CWakeHold(CWakeHold const&) = delete;
        CWakeHold& operator=(CWakeHold const&) = delete;
        ~CWakeHold();

    private:
        CLoopThread& m_thread;
    };

protected:
    /// For an item of this thread that lasts: waits for the given time, or until the thread is being stopped.
    ///
    /// @return whether it is being stopped: the items that follow are those that were posted before.
    bool WaitForStop(int milliseconds);

public:
    /// For workers that are started later. Not while the thread is started.
    void SetWorkerOptions(SWorkerOptions options);

    /// Destroys the items that are still queued, unrun, and drops every later one: nothing is started any more.
    void Close();

    /// As StopAndJoin(), and called by an item of this thread it puts the stop into the queue with `postMutex` held, so
    /// that it does not get in between items that are posted under that. Nothing else is done with it held.
    void StopAndJoin(std::mutex& postMutex);

private:
    struct Message;

    /// One start of the thread: what its worker may touch, and what must be known of it after it was let go.
    struct SGeneration;

    static void Thread(CLoopThread* loop, std::shared_ptr<SGeneration> const& generation);
    static bool RunItem(SGeneration& generation);
    void WaitForEarlier(SGeneration& generation);
    void LetOut(SGeneration& generation);
    bool HasEarlier(SGeneration const& generation) const;
    bool TakeNext(SGeneration& generation);
    void Leave(SGeneration& generation);
    void StartLocked();
    void Stop(std::mutex* postMutex);
    void PushStop();
    void Retire();
    void JoinBehindQueue();
    void JoinCurrent(std::unique_lock<std::mutex>& lock);
    bool IsHeldByOthers() const;
    void WaitUntilQuiet(std::unique_lock<std::mutex>& lock);
    void KillWorker(std::thread& victim, SGeneration& generation);
    void CutOff(SGeneration& generation);

    std::thread m_thread;
    std::atomic<int> m_id;
    std::condition_variable m_cond;
    std::deque<std::unique_ptr<Message>> m_queue;
    std::mutex m_mutex;
    bool m_started;

    // All below is guarded by m_mutex, as are the queue, m_thread and m_started.
    std::shared_ptr<SGeneration> m_current;              // of the last start, until it is stopped or killed
    std::vector<std::shared_ptr<SGeneration>> m_retired; // stopped, but still in their loop
    std::vector<std::thread::id> m_holders;              // a thread that holds twice is in here twice
    bool m_startWanted;
    int m_wakeHolds = 0;
    std::uint64_t m_lastGeneration;
    SWorkerOptions m_workerOptions;
    bool m_closed;
};

} // namespace nelo_rpc
