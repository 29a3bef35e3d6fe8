#include <nelo_rpc/Cancellation.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <exception>
#include <utility>

namespace nelo_rpc
{

namespace
{

/// What the calling thread is cancelled with; null on threads that are no workers.
thread_local CCancellationRequest const* ownRequest = nullptr;

/// Whether a guard left the calling thread deferred that was asynchronous.
thread_local bool isAsynchronyOwed = false;

/// Made before the application's first thread_local of the thread, and so destroyed after its last.
struct SRequestKeeper
{
    ~SRequestKeeper() { ownRequest = nullptr; }

    std::shared_ptr<CCancellationRequest> request;
};

thread_local SRequestKeeper requestKeeper;

/// The type first. A signal that was sent while the thread was open may arrive late, and it acts on every thread whose
/// type is asynchronous, without looking at the state.
void disable(int& oldState, int& oldType)
{
    ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &oldType);
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    if (ownRequest != nullptr)
    {
        ownRequest->Settle();
    }
}

} // namespace

void CCancellationRequest::Send(pthread_t worker)
{
    m_state = EState::OnItsWay;
    ::pthread_cancel(worker);
    m_state = EState::Sent;
}

void CCancellationRequest::Settle() const
{
    // Not before the thread has closed itself: a request that saw it open is seen here.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    if (m_state == EState::None)
    {
        return;
    }
    // A system call that is a cancellation point makes the thread asynchronous while it lasts, closed or not, so the
    // signal has to come before the next of them. It is taken in at the latest when a system call returns.
    do
    {
        ::sched_yield();
    } while (m_state == EState::OnItsWay);
    ::sched_yield();
}

CCancellationGuard::CCancellationGuard(EOnLeave onLeave)
    : m_onLeave(onLeave),
      m_exceptions(std::uncaught_exceptions()),
      m_oldState(PTHREAD_CANCEL_ENABLE),
      m_oldType(PTHREAD_CANCEL_DEFERRED)
{
    disable(m_oldState, m_oldType);
}

CCancellationGuard::~CCancellationGuard() noexcept(false)
{
    bool const wasEnabled = m_oldState == PTHREAD_CANCEL_ENABLE;
    bool const unwinding = std::uncaught_exceptions() > m_exceptions;
    bool const wasAsynchronous = m_oldType == PTHREAD_CANCEL_ASYNCHRONOUS || (wasEnabled && isAsynchronyOwed);
    ::pthread_setcancelstate(m_oldState, nullptr);
    if (wasEnabled && (m_onLeave == EOnLeave::Defer || unwinding))
    {
        // An asynchronous cancellation that is pending would unwind the thread from here, through a destructor or out
        // of an unwinding that is under way, and either ends the process.
        isAsynchronyOwed = wasAsynchronous;
    }
    else if (wasAsynchronous)
    {
        isAsynchronyOwed = false;
        ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    }
}

CCancellationWindow::CCancellationWindow()
    : m_exceptions(std::uncaught_exceptions()),
      m_oldState(PTHREAD_CANCEL_DISABLE),
      m_oldType(PTHREAD_CANCEL_DEFERRED),
      m_wasAsynchronyOwed(isAsynchronyOwed)
{
    if (ownRequest != nullptr)
    {
        // Asynchronous, because the code to be stopped is the application's and may never reach a
        // cancellation point. The price: a lock that it holds stays held.
        isAsynchronyOwed = false;
        ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &m_oldState);
        ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &m_oldType);
    }
}

CCancellationWindow::~CCancellationWindow() noexcept(false)
{
    if (ownRequest != nullptr)
    {
        if (std::uncaught_exceptions() == m_exceptions)
        {
            ::pthread_testcancel(); // for what the application code left deferred
        }
        int state = 0;
        int type = 0;
        disable(state, type);
        isAsynchronyOwed = m_wasAsynchronyOwed;
        ::pthread_setcancelstate(m_oldState, nullptr);
        ::pthread_setcanceltype(m_oldType, nullptr);
    }
}

void CCancellationWindow::MakeWorker(std::shared_ptr<CCancellationRequest> request)
{
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    ownRequest = request.get();
    requestKeeper.request = std::move(request);
}

} // namespace nelo_rpc
