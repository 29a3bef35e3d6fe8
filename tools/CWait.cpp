#include "CWait.h"

#include "Failure.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>

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

CWait::Moment CWait::After(std::optional<std::chrono::milliseconds> limit)
{
    return limit ? Moment(std::chrono::steady_clock::now() + *limit) : std::nullopt;
}

CWait::EEnd CWait::Until(std::vector<int> const& fds, Moment moment) const
{
    using namespace std::chrono;
    auto const left =
        moment ? std::max(ceil<milliseconds>(*moment - steady_clock::now()), milliseconds(0)) : milliseconds(-1);
    std::vector<pollfd> polled{{m_signals, POLLIN, 0}};
    for (int const fd : fds)
    {
        polled.push_back({fd, POLLIN, 0});
    }
    int const ready = ::poll(polled.data(), polled.size(), static_cast<int>(left.count()));
    if (ready == -1)
    {
        throw CFailure(EExit::Broken, "cannot wait");
    }
    if (polled[0].revents != 0)
    {
        return EEnd::Interrupted;
    }
    return ready == 0 || left == milliseconds(0) ? EEnd::TimedOut : EEnd::Readable;
}
