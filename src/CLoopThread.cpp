#include <nelo_rpc/CLoopThread.h>

#include <nelo_rpc/Cancellation.h>

#include "SystemLog.h"
#include "ThreadInterrupt.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <new>
#include <utility>

namespace nelo_rpc
{

namespace
{

constexpr int RUNNABLE = 0;
constexpr int STOP = 1;

/// How long a kill waits for the victim to unwind. One that is inside the library gets there soon.
constexpr int KILL_WAIT_SECONDS = 2;

/// The same for a victim that must get to a cancellation point. It stands at one already, or it may take for ever.
constexpr int CANCELLATION_POINT_WAIT_SECONDS = 1;

/// How long a worker that is cut off may take to be told so. It need not know.
constexpr std::chrono::milliseconds INTERRUPT_LIMIT{200};

/// The loop whose worker the calling thread is.
thread_local CLoopThread const* ownLoop = nullptr;

/// The start that made the calling thread.
thread_local void const* ownGeneration = nullptr;

int joinWithin(pthread_t thread, int seconds)
{
    timespec deadline{};
    ::clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += seconds;
    return ::pthread_timedjoin_np(thread, nullptr, &deadline);
}

} // namespace

struct CLoopThread::Message
{
    std::function<void()> function; // empty for a stop message
    std::string name;
    int type;
    std::uint64_t generation; // of a stop message: the start that it ends
};

struct CLoopThread::SGeneration
{
    SGeneration(std::uint64_t n, SWorkerOptions const& options)
        : number(n),
          cancellation(std::make_shared<CCancellationRequest>(options.kill)),
          cutOffs(options.cutOffs),
          owner(options.owner.lock())
    {
    }

    // Both are called by the worker alone. False if it was cut off: it must not touch the loop, which may be gone.
    bool EnterLoop();
    void LeaveLoop();

    /// Called by the worker, whatever way it ends.
    void End();

    /// Called by a kill that has given up waiting. False if the worker is inside the loop.
    bool CutOff();

    std::uint64_t const number;
    std::shared_ptr<CCancellationRequest> const cancellation;
    std::shared_ptr<CCutOffCount> const cutOffs;
    std::atomic<int> threadId{0};

    // Let go of by the worker, at the latest when it ends.
    std::shared_ptr<void> owner;

    // Guarded by the loop's mutex.
    std::thread thread; // of a retired generation; the current one's is m_thread
    bool stopQueued = false;
    bool killed = false;
    bool left = false; // will not touch the loop again

    // What is being run. Here and not on the worker's stack, so that a worker that is cancelled destroys nothing of it
    // while it unwinds.
    std::unique_ptr<Message> current;

private:
    // Decides between a worker that comes back to the loop and a kill that gave up waiting for it.
    std::mutex m_mutex;
    bool m_isInLoop = false;
    bool m_hasEnded = false;
};

bool CLoopThread::SGeneration::EnterLoop()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_isInLoop = !cancellation->IsCutOff();
    return m_isInLoop;
}

void CLoopThread::SGeneration::LeaveLoop()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_isInLoop = false;
}

void CLoopThread::SGeneration::End()
{
    bool wasCutOff = false;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_hasEnded = true;
        wasCutOff = cancellation->IsCutOff();
    }
    if (wasCutOff && cutOffs != nullptr)
    {
        cutOffs->Remove();
    }
    if (wasCutOff && cancellation->GetKill() == EKill::AtCancellationPoint)
    {
        logInfo() << "CLoopThread::Thread with id=" << threadId << " was cut off and has ended";
    }
}

bool CLoopThread::SGeneration::CutOff()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (m_isInLoop)
    {
        return false;
    }
    if (!m_hasEnded)
    {
        cancellation->CutOff();
        if (cutOffs != nullptr)
        {
            cutOffs->Add();
        }
    }
    return true;
}

CCutOffCount::CCutOffCount(std::shared_ptr<CCutOffCount> total) : m_total(std::move(total)) {}

void CCutOffCount::Add()
{
    ++m_count;
    if (m_total != nullptr)
    {
        m_total->Add();
    }
}

void CCutOffCount::Remove()
{
    --m_count;
    if (m_total != nullptr)
    {
        m_total->Remove();
    }
}

int CCutOffCount::Get() const
{
    return m_count;
}

int CCutOffCount::GetTotal() const
{
    return m_total != nullptr ? m_total->GetTotal() : Get();
}

CLoopThread::CLoopThread() : m_id(0), m_started(false), m_startWanted(false), m_lastGeneration(0), m_closed(false) {}

CLoopThread::~CLoopThread()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    std::unique_lock<std::mutex> lock(m_mutex);
    WaitUntilQuiet(lock);
}

void CLoopThread::Start()
{
    CCancellationGuard const guard;
    std::lock_guard<std::mutex> const lock(m_mutex);
    StartLocked();
}

void CLoopThread::StartLocked()
{
    if (m_started || m_closed)
    {
        return;
    }
    if (!m_holders.empty())
    {
        m_startWanted = true;
        return;
    }
    auto generation = std::make_shared<SGeneration>(++m_lastGeneration, m_workerOptions);
    m_thread = std::thread(&CLoopThread::Thread, this, generation);
    m_current = std::move(generation);
    m_started = true;
}

void CLoopThread::Post(std::function<void()> fn, std::string const& name)
{
    CCancellationGuard const guard;
    Start();
    int const id = GetId();
    logDebug() << "CLoopThread::Post to thread " << id << " runnable: " << name;
    auto message = std::make_unique<Message>(Message{std::move(fn), name, RUNNABLE, 0});
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        StartLocked(); // again, for a thread that was stopped meanwhile
        if (!m_closed)
        {
            m_queue.push_back(std::move(message));
        }
        if (m_wakeHolds == 0)
        {
            m_cond.notify_all();
        }
    }
    logDebug() << "CLoopThread::Post to thread " << id << " done";
}

int CLoopThread::GetId()
{
    return m_id;
}

bool CLoopThread::IsStarted()
{
    CCancellationGuard const guard;
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_started;
}

bool CLoopThread::IsCurrentThread() const
{
    return ownLoop == this;
}

void CLoopThread::Thread(CLoopThread* loop, std::shared_ptr<SGeneration> const& generation)
{
    // Before anything else: a worker that is cancelled inside the log or under a lock freezes the process.
    CCancellationWindow::MakeWorker(generation->cancellation);
    ownLoop = loop;
    ownGeneration = generation.get();
    struct SEnd
    {
        SGeneration& generation;
        ~SEnd() { generation.End(); }
    } const end{*generation};

    int const id = interrupt::OwnThread();
    generation->threadId = id;
    logDebug() << "CLoopThread::Thread starting thread with id=" << id;
    if (!generation->EnterLoop())
    {
        return; // cut off: the loop may be gone
    }
    loop->m_id = id;
    loop->WaitForEarlier(*generation);
    do
    {
        if (!generation->EnterLoop())
        {
            return;
        }
    } while (loop->TakeNext(*generation) && RunItem(*generation));

    logDebug() << "CLoopThread::Thread with id=" << id << " finishes";
    if (generation->EnterLoop())
    {
        generation->owner.reset(); // which nobody destroys before this worker has left
        loop->Leave(*generation);
    }
}

void CLoopThread::WaitForEarlier(SGeneration& generation)
{
    // A worker that stopped itself may still be running what was queued before its stop.
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [&] { return generation.killed || !HasEarlier(generation); });
    LetOut(generation);
}

void CLoopThread::LetOut(SGeneration& generation)
{
    // Under the loop's lock, so that a kill finds a worker either inside the loop or outside.
    generation.LeaveLoop();
    if (generation.killed)
    {
        m_cond.notify_all();
    }
}

bool CLoopThread::RunItem(SGeneration& generation)
{
    Message const& message = *generation.current;
    switch (message.type)
    {
    case RUNNABLE:
        logDebug() << "CLoopThread::Thread running message " << message.name;
        {
            CCancellationWindow const window;
            message.function();
        }
        logDebug() << "CLoopThread::Thread running message " << message.name << " done";
        break;
    case STOP:
        logDebug() << "CLoopThread::Thread stopping";
        break;
    default:
        logFatal() << "CLoopThread::Thread unknown message type";
        std::abort();
    }
    bool const goesOn = message.type == RUNNABLE;
    generation.current.reset();
    return goesOn;
}

bool CLoopThread::HasEarlier(SGeneration const& generation) const
{
    return std::any_of(m_retired.begin(), m_retired.end(),
                       [&](auto const& retired) { return retired->number < generation.number; });
}

bool CLoopThread::TakeNext(SGeneration& generation)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!generation.killed)
    {
        if (m_queue.empty())
        {
            m_cond.wait(lock);
            continue;
        }
        generation.current = std::move(m_queue.front());
        m_queue.pop_front();
        if (generation.current->type == STOP && generation.current->generation != generation.number)
        {
            continue; // meant for an earlier start, which has ended without it
        }
        break;
    }
    LetOut(generation);
    return !generation.killed;
}

void CLoopThread::Leave(SGeneration& generation)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    auto const retired =
        std::find_if(m_retired.begin(), m_retired.end(), [&](auto const& other) { return other.get() == &generation; });
    if (retired != m_retired.end())
    {
        generation.thread.detach(); // nobody joins a worker that stopped itself
        m_retired.erase(retired);
    }
    generation.left = true;
    m_cond.notify_all();
}

void CLoopThread::StopAndJoin()
{
    Stop(nullptr);
}

void CLoopThread::StopAndJoin(std::mutex& postMutex)
{
    Stop(&postMutex);
}

void CLoopThread::Stop(std::mutex* postMutex)
{
    CCancellationGuard const guard;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_started && !IsCurrentThread())
        {
            WaitUntilQuiet(lock);
        }
        if (!m_started)
        {
            return;
        }
    }

    int const id = GetId();
    logDebug() << "CLoopThread::StopAndJoin thread " << id << " from current thread " << interrupt::OwnThread();
    if (IsCurrentThread())
    {
        // Not while lines are written: a worker that is cut off in one would hold it for ever.
        auto const lock = postMutex != nullptr ? std::unique_lock(*postMutex) : std::unique_lock<std::mutex>();
        Retire();
    }
    else
    {
        JoinBehindQueue();
    }
    logDebug() << "CLoopThread::StopAndJoin thread " << id << " done";
}

bool CLoopThread::WaitForStop(int milliseconds)
{
    CCancellationGuard const guard;
    auto const* const generation = static_cast<SGeneration const*>(ownGeneration);
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cond.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return generation->stopQueued; });
}

void CLoopThread::PushStop()
{
    m_queue.push_back(std::make_unique<Message>(Message{{}, "Message::Stop", STOP, m_current->number}));
    m_current->stopQueued = true;
    m_cond.notify_all();
}

void CLoopThread::Retire()
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    bool const isKilled = static_cast<SGeneration const*>(ownGeneration)->killed;
    if (!m_started || isKilled)
    {
        return; // stopped already, and a worker that comes after a kill is not this one's to stop
    }
    PushStop();
    m_current->thread = std::move(m_thread);
    m_retired.push_back(std::move(m_current));
    m_current.reset();
    m_started = false;
}

void CLoopThread::JoinBehindQueue()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    do
    {
        if (m_started)
        {
            JoinCurrent(lock);
        }
        WaitUntilQuiet(lock);
    } while (m_started); // by a start that was asked for during a kill, or by an item after its own stop
}

void CLoopThread::JoinCurrent(std::unique_lock<std::mutex>& lock)
{
    PushStop();
    auto const generation = m_current;
    m_cond.wait(lock, [&] { return generation->left || generation->killed; });
    if (m_current == generation)
    {
        std::thread stopped = std::move(m_thread);
        m_current.reset();
        m_started = false;
        lock.unlock();
        stopped.join();
        lock.lock();
    }
}

bool CLoopThread::IsHeldByOthers() const
{
    auto const self = std::this_thread::get_id();
    return std::any_of(m_holders.begin(), m_holders.end(), [&](std::thread::id holder) { return holder != self; });
}

void CLoopThread::WaitUntilQuiet(std::unique_lock<std::mutex>& lock)
{
    // Whoever stops a thread goes on to destroy what its items use, and what the handler of a kill uses too.
    m_cond.wait(lock, [&] { return m_retired.empty() && !IsHeldByOthers(); });
}

void CLoopThread::Kill()
{
    CCancellationGuard const guard;
    CStartHold const hold(*this);
    int const id = GetId();
    logDebug() << "CLoopThread::Kill thread " << id;

    // A worker that stopped itself but has not left is as hung as the current one may be.
    std::vector<std::pair<std::thread, std::shared_ptr<SGeneration>>> victims;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        for (auto const& retired : m_retired)
        {
            victims.emplace_back(std::move(retired->thread), retired);
        }
        m_retired.clear();
        if (m_started)
        {
            victims.emplace_back(std::move(m_thread), std::move(m_current));
            m_current.reset();
            m_started = false;
        }
        for (auto const& victim : victims)
        {
            victim.second->killed = true;
        }
        m_cond.notify_all();
    }
    for (auto& [thread, generation] : victims)
    {
        KillWorker(thread, *generation);
    }

    logDebug() << "CLoopThread::Kill of thread " << id << " done successfully";
    m_id = 0;
}

void CLoopThread::KillWorker(std::thread& victim, SGeneration& generation)
{
    pthread_t const handle = victim.native_handle();
    generation.cancellation->Send(handle);

    // The deadline is long past, so this only looks; the wait comes after it.
    timespec const deadline{5, 0};
    void* result = nullptr;
    int joined = ::pthread_timedjoin_np(handle, &result, &deadline);
    if (joined == EBUSY)
    {
        logError() << "CLoopThread::Kill couldn't be done, thread " << GetId() << " didn't cancel. Terminating...";
        std::terminate();
    }
    if (joined != 0)
    {
        bool const isAnywhere = generation.cancellation->GetKill() == EKill::Anywhere;
        joined = joinWithin(handle, isAnywhere ? KILL_WAIT_SECONDS : CANCELLATION_POINT_WAIT_SECONDS);
    }
    if (joined == 0)
    {
        // Joined behind the object's back: it must forget the thread without touching it.
        new (&victim) std::thread;
        return;
    }
    victim.detach();
    CutOff(generation);
}

void CLoopThread::CutOff(SGeneration& generation)
{
    {
        // Inside the loop it needs nobody's help to get out.
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [&] { return generation.left || generation.CutOff(); });
    }
    auto const& cancellation = generation.cancellation;
    if (cancellation->GetKill() == EKill::AtCancellationPoint && cancellation->IsCutOff())
    {
        interrupt::Run(
            generation.threadId, [](void* request) { static_cast<CCancellationRequest*>(request)->Disarm(); },
            cancellation, INTERRUPT_LIMIT);
        logError() << "CLoopThread::Kill thread " << generation.threadId
                   << " reached no cancellation point and is cut off, such threads that have not ended: "
                   << (generation.cutOffs != nullptr ? generation.cutOffs->GetTotal() : 1);
    }
}

void CLoopThread::SetWorkerOptions(SWorkerOptions options)
{
    CCancellationGuard const guard;
    if (options.kill == EKill::AtCancellationPoint)
    {
        interrupt::Prepare();
    }
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_workerOptions = std::move(options);
}

void CLoopThread::Close()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    std::deque<std::unique_ptr<Message>> dropped; // destroyed unlocked
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_closed = true;
    m_queue.swap(dropped);
}

CLoopThread::CStartHold::CStartHold(CLoopThread& thread) : m_thread(thread)
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    std::lock_guard<std::mutex> const lock(m_thread.m_mutex);
    m_thread.m_holders.push_back(std::this_thread::get_id());
}

CLoopThread::CStartHold::~CStartHold()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    std::lock_guard<std::mutex> const lock(m_thread.m_mutex);
    auto& holders = m_thread.m_holders;
    holders.erase(std::find(holders.begin(), holders.end(), std::this_thread::get_id()));
    if (holders.empty() && m_thread.m_startWanted)
    {
        m_thread.m_startWanted = false;
        m_thread.StartLocked();
    }
    m_thread.m_cond.notify_all();
}

CLoopThread::CWakeHold::CWakeHold(CLoopThread& thread) : m_thread(thread)
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    std::lock_guard<std::mutex> const lock(m_thread.m_mutex);
    ++m_thread.m_wakeHolds;
}

CLoopThread::CWakeHold::~CWakeHold()
{
    CCancellationGuard const guard(CCancellationGuard::EOnLeave::Defer);
    {
        std::lock_guard<std::mutex> const lock(m_thread.m_mutex);
        --m_thread.m_wakeHolds;
    }
    m_thread.m_cond.notify_all(); // unlocked, or the worker would wake up only to wait for the mutex
}

} // namespace nelo_rpc
