#include <nelo_rpc/Cancellation.h>

#include <pthread.h>

#include <exception>

namespace nelo_rpc
{

namespace
{
thread_local bool isWorker = false;
}

CCancellationGuard::CCancellationGuard(EOnLeave onLeave)
    : m_onLeave(onLeave), m_exceptions(std::uncaught_exceptions()), m_oldState(PTHREAD_CANCEL_ENABLE)
{
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_oldState);
}

CCancellationGuard::~CCancellationGuard() noexcept(false)
{
    bool const unwinding = std::uncaught_exceptions() > m_exceptions;
    if (m_oldState == PTHREAD_CANCEL_ENABLE && (m_onLeave == EOnLeave::Defer || unwinding))
    {
        // Enabling an asynchronous cancellation that is pending would unwind the thread from here, through a
        // destructor or out of an unwinding that is under way, and either ends the process.
        ::pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
    }
    else if (m_oldState == PTHREAD_CANCEL_ENABLE && isWorker)
    {
        ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr); // undoes what a destructor left
    }
    ::pthread_setcancelstate(m_oldState, nullptr);
}

CCancellationWindow::CCancellationWindow() : m_oldState(PTHREAD_CANCEL_DISABLE)
{
    if (isWorker)
    {
        // Asynchronous, because the code to be stopped is the application's and may never reach a
        // cancellation point. The price: a lock that it holds stays held.
        ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
        ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &m_oldState);
    }
}

CCancellationWindow::~CCancellationWindow() noexcept(false)
{
    if (isWorker)
    {
        ::pthread_setcancelstate(m_oldState, nullptr);
    }
}

void CCancellationWindow::MakeWorker()
{
    isWorker = true;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

} // namespace nelo_rpc
