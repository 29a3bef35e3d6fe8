#include <nelo_rpc/Cancellation.h>

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <csignal>
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

/// Whether the calling thread is in application code and would be open to cancellation, had it not been disarmed.
thread_local std::sig_atomic_t volatile isDisarmed = 0;

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

/// Whether the calling thread is a worker that is cancelled at cancellation points only.
bool isDeferredWorker()
{
    return ownRequest != nullptr && ownRequest->GetKill() == EKill::AtCancellationPoint;
}

/// Makes a thread that was disarmed one that can be cancelled again.
void rearm()
{
    if (isDisarmed != 0)
    {
        isDisarmed = 0;
        ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    }
}

} // namespace

CCancellationRequest::CCancellationRequest(EKill kill) : m_kill(kill) {}

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

EKill CCancellationRequest::GetKill() const
{
    return m_kill;
}

void CCancellationRequest::CutOff()
{
    m_isCutOff = true;
}

bool CCancellationRequest::IsCutOff() const
{
    return m_isCutOff;
}

void CCancellationRequest::Disarm() const
{
    if (ownRequest != this)
    {
        return;
    }
    int oldState = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &oldState);
    if (oldState == PTHREAD_CANCEL_ENABLE)
    {
        isDisarmed = 1;
    }
}

std::shared_ptr<CCancellationRequest const> CCancellationRequest::Own()
{
    return ownRequest == nullptr ? nullptr : requestKeeper.request;
}

bool CCancellationRequest::IsOwnAwaited()
{
    return ownRequest != nullptr && ownRequest->m_state != EState::Sent;
}

bool CCancellationRequest::IsOwnCutOff()
{
    return ownRequest != nullptr && ownRequest->IsCutOff();
}

void CCancellationRequest::EndIfCutOff()
{
    if (IsOwnCutOff())
    {
        ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        ::pthread_testcancel();
    }
}

CCancellationGuard::CCancellationGuard(EOnLeave onLeave)
    : m_onLeave(onLeave),
      m_exceptions(std::uncaught_exceptions()),
      m_oldState(PTHREAD_CANCEL_ENABLE),
      m_oldType(PTHREAD_CANCEL_DEFERRED)
{
    disable(m_oldState, m_oldType);
    if (isDisarmed != 0)
    {
        isDisarmed = 0;
        m_oldState = PTHREAD_CANCEL_ENABLE;
    }
}

CCancellationGuard::~CCancellationGuard() noexcept(false)
{
    bool const wasEnabled = m_oldState == PTHREAD_CANCEL_ENABLE;
    bool const unwinding = std::uncaught_exceptions() > m_exceptions;
    bool const wasAsynchronous = m_oldType == PTHREAD_CANCEL_ASYNCHRONOUS || (wasEnabled && isAsynchronyOwed);
    bool const mustNotAct = m_onLeave == EOnLeave::Defer || unwinding;
    if (wasEnabled && mustNotAct && isDeferredWorker() && ownRequest->IsCutOff())
    {
        isDisarmed = 1; // as long as whoever called may stand in a destructor
        return;
    }
    ::pthread_setcancelstate(m_oldState, nullptr);
    if (wasEnabled && mustNotAct)
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
    else if (wasEnabled && isDeferredWorker())
    {
        ::pthread_testcancel();
    }
}

CCancellationWindow::CCancellationWindow()
    : m_exceptions(std::uncaught_exceptions()),
      m_oldState(PTHREAD_CANCEL_DISABLE),
      m_oldType(PTHREAD_CANCEL_DEFERRED),
      m_wasAsynchronyOwed(isAsynchronyOwed)
{
    if (isDeferredWorker())
    {
        ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &m_oldState);
        ::pthread_testcancel(); // nothing of the application's is begun for a call that is over
    }
    else if (ownRequest != nullptr)
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
            rearm();
            ::pthread_testcancel(); // for what the application code left deferred
        }
        isDisarmed = 0;
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
