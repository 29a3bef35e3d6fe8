#include "CWait.h"

#include "Failure.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

CWait::CWait()
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    m_signals = ::signalfd(-1, &stop, SFD_CLOEXEC);
}

CWait::~CWait()
{
    ::close(m_signals);
}

CWait::EEnd CWait::For(std::vector<int> const& fds, std::optional<std::chrono::milliseconds> limit) const
{
    std::vector<pollfd> polled{{m_signals, POLLIN, 0}};
    for (int const fd : fds)
    {
        polled.push_back({fd, POLLIN, 0});
    }
    int const ready = ::poll(polled.data(), polled.size(), limit ? static_cast<int>(limit->count()) : -1);
    if (ready == -1)
    {
        throw CFailure(EExit::Broken, "cannot wait");
    }
    if (polled[0].revents != 0)
    {
        return EEnd::Interrupted;
    }
    return ready == 0 ? EEnd::TimedOut : EEnd::Readable;
}
