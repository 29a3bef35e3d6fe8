#pragma once

#include <nelo_rpc/Export.h>

#include <pthread.h>

#include <atomic>
#include <memory>

/// Where a worker thread may be stopped in the middle.
///
/// A hung worker is cancelled. A thread that is cancelled while it holds a lock of the library, of the bus library,
/// of the log or of the allocator would take the whole server with it, so cancellation is enabled only while
/// application code runs: a window opens around each call of it, and a guard closes it again around every library
/// function that application code calls in turn.
namespace nelo_rpc
{

/// Keeps the calling thread from being cancelled while it is inside the library.
///
/// Declare it before anything else in a function, so that everything else is destroyed before the thread may be
/// cancelled. A cancellation that came meanwhile acts when the guard ends. Since 0.1.
class NELO_RPC_API CCancellationGuard
{
public:
    enum class EOnLeave
    {
        Act,  ///< a cancellation that is pending acts at once
        Defer ///< it acts at the thread's next cancellation point: for destructors, which cannot be unwound through
    };

    explicit CCancellationGuard(EOnLeave onLeave = EOnLeave::Act);
    CCancellationGuard(CCancellationGuard const&) = delete;
    CCancellationGuard& operator=(CCancellationGuard const&) = delete;

    /// May not return: a pending cancellation unwinds the thread from here.
    ~CCancellationGuard() noexcept(false);

private:
    EOnLeave const m_onLeave;
    int const m_exceptions;
    int m_oldState;
    int m_oldType;
};

/// A cancellation of one worker, and how far it has got. Since 0.1.
class NELO_RPC_API CCancellationRequest
{
public:
    CCancellationRequest() = default;
    CCancellationRequest(CCancellationRequest const&) = delete;
    CCancellationRequest& operator=(CCancellationRequest const&) = delete;

    /// Cancels the worker. Does not wait for its end.
    void Send(pthread_t worker);

    /// Called by the worker after it closed itself to cancellation: returns when one that was sent before can no
    /// longer act.
    void Settle() const;

private:
    enum class EState
    {
        None,
        OnItsWay,
        Sent
    };

    std::atomic<EState> m_state{EState::None};
};

/// Lets the calling worker thread be cancelled while application code runs; does nothing on other threads. Since 0.1.
class NELO_RPC_API CCancellationWindow
{
public:
    CCancellationWindow();
    CCancellationWindow(CCancellationWindow const&) = delete;
    CCancellationWindow& operator=(CCancellationWindow const&) = delete;

    /// May not return either: a cancellation may arrive while the window is being closed.
    ~CCancellationWindow() noexcept(false);

    /// Makes the calling thread one that windows are opened on, with cancellation disabled outside of them.
    ///
    /// @param request  what the thread is cancelled with; kept until the thread has ended.
    static void MakeWorker(std::shared_ptr<CCancellationRequest> request);

private:
    int const m_exceptions;
    int m_oldState;
    int m_oldType;
    bool m_wasAsynchronyOwed;
};

} // namespace nelo_rpc
