#pragma once

#include <nelo_rpc/Choices.h>
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
///
/// A worker that cannot be cancelled is cut off: nobody waits for it, and it must touch nothing that others use. It
/// ends when it next comes back to the library.
namespace nelo_rpc
{

/// Keeps the calling thread from being cancelled while it is inside the library.
///
/// Declare it before anything else in a function, so that everything else is destroyed before the thread may be
/// cancelled. A cancellation that came meanwhile acts when the guard ends: to a worker that is cancelled at
/// cancellation points, functions of the library are such points. Since 0.1.
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
    explicit CCancellationRequest(EKill kill = EKill::Anywhere);
    CCancellationRequest(CCancellationRequest const&) = delete;
    CCancellationRequest& operator=(CCancellationRequest const&) = delete;

    /// Cancels the worker. Does not wait for its end.
    void Send(pthread_t worker);

    /// Called by the worker after it closed itself to cancellation: returns when one that was sent before can no
    /// longer act.
    void Settle() const;

    /// Where the worker may be cancelled while application code runs.
    EKill GetKill() const;

    /// Marks a worker that was cancelled and has not ended: nobody waits for it any more.
    void CutOff();
    bool IsCutOff() const;

    /// Keeps the calling thread, if it is the worker, from being cancelled where application code stands: that may
    /// be in a destructor by now. It ends when that code next calls or returns to the library. Runs in a signal
    /// handler.
    void Disarm() const;

    /// The request for the calling thread; null on threads that are no workers.
    static std::shared_ptr<CCancellationRequest const> Own();

    /// Whether the calling thread is a worker that has not been cancelled. Fit for a signal handler.
    static bool IsOwnAwaited();

    /// Whether the calling thread is a worker that was cut off.
    static bool IsOwnCutOff();

    /// Ends the calling thread if it is a worker that was cut off, by unwinding it: not for destructors.
    static void EndIfCutOff();

private:
    enum class EState
    {
        None,
        OnItsWay,
        Sent
    };

    EKill const m_kill;
    std::atomic<EState> m_state{EState::None};
    std::atomic<bool> m_isCutOff{false};
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
