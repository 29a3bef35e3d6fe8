#include <nelo_rpc/CLoopThread.h>

#include <nelo_rpc/Cancellation.h>

#include "SystemLog.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

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

/// The loop whose worker the calling thread is.
thread_local CLoopThread const* ownLoop = nullptr;

/// The start that made the calling thread.
thread_local void const* ownGeneration = nullptr;

int threadId()
{
    return static_cast<int>(::syscall(SYS_gettid));
}

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
    explicit SGeneration(std::uint64_t n) : number(n) {}

    std::uint64_t const number;
    std::shared_ptr<CCancellationRequest> const cancellation = std::make_shared<CCancellationRequest>();

    // Guarded by the loop's mutex.
    std::thread thread; // of a retired generation; the current one's is m_thread
    bool stopQueued = false;
    bool killed = false;
    bool left = false; // will not touch the loop again

    // What is being run. Here and not on the worker's stack, so that a worker that is cancelled destroys nothing of it
    // while it unwinds.
    std::unique_ptr<Message> current;

    // Decides between a worker that comes back from an item and a kill that gave up waiting for it: a worker that is
    // cut off must not touch the loop, which may be gone by then.
    std::mutex mutex;
    bool inItem = false;
    bool cutOff = false;
};

CLoopThread::CLoopThread() : m_id(0), m_started(false), m_startWanted(false), m_lastGeneration(0) {}

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
    if (m_started)
    {
        return;
    }
    if (!m_holders.empty())
    {
        m_startWanted = true;
        return;
    }
    auto generation = std::make_shared<SGeneration>(++m_lastGeneration);
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
        m_queue.push_back(std::move(message));
        m_cond.notify_all();
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

    int const id = threadId();
    logDebug() << "CLoopThread::Thread starting thread with id=" << id;
    loop->m_id = id;
    if (!loop->Run(*generation))
    {
        return; // cut off: the loop may be gone
    }
    logDebug() << "CLoopThread::Thread with id=" << id << " finishes";
    loop->Leave(*generation);
}

bool CLoopThread::Run(SGeneration& generation)
{
    {
        // A worker that stopped itself may still be running what was queued before its stop.
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cond.wait(lock, [&] { return generation.killed || !HasEarlier(generation); });
    }
    while (TakeNext(generation))
    {
        switch (generation.current->type)
        {
        case RUNNABLE:
            if (!RunCurrent(generation))
            {
                return false;
            }
            break;
        case STOP:
            logDebug() << "CLoopThread::Thread stopping";
            generation.current.reset();
            return true;
        default:
            logFatal() << "CLoopThread::Thread unknown message type";
            std::abort();
        }
    }
    return true;
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
        if (generation.current->type == RUNNABLE)
        {
            // Under the loop's lock, so that a kill finds a worker either marked as busy or leaving.
            std::lock_guard<std::mutex> const itemLock(generation.mutex);
            generation.inItem = true;
        }
        return true;
    }
    return false;
}

bool CLoopThread::RunCurrent(SGeneration& generation)
{
    Message const& message = *generation.current;
    logDebug() << "CLoopThread::Thread running message " << message.name;
    {
        CCancellationWindow const window;
        message.function();
    }
    logDebug() << "CLoopThread::Thread running message " << message.name << " done";
    generation.current.reset();

    std::lock_guard<std::mutex> const lock(generation.mutex);
    generation.inItem = false;
    return !generation.cutOff;
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
    logDebug() << "CLoopThread::StopAndJoin thread " << id << " from current thread " << threadId();
    if (IsCurrentThread())
    {
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
        joined = joinWithin(handle, KILL_WAIT_SECONDS);
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
        std::lock_guard<std::mutex> const lock(generation.mutex);
        if (generation.inItem)
        {
            generation.cutOff = true;
            return;
        }
    }
    // Between items it needs nobody's help to leave.
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cond.wait(lock, [&] { return generation.left; });
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

} // namespace nelo_rpc
