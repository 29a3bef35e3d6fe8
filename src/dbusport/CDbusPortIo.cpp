#include "CDbusPortIo.h"

#include "../SystemLog.h"
#include "DbusPointers.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <system_error>
#include <utility>

namespace nelo_rpc
{

thread_local CDbusPort::CIo::CInside const* CDbusPort::CIo::CInside::innermost = nullptr;

namespace
{

/// Without a descriptor the port still works, but waits end only with their time.
int fdOrError(int fd)
{
    if (fd < 0)
    {
        logError() << "CDbusPort has no descriptor to be woken with: " << std::generic_category().message(errno);
    }
    return fd;
}

/// A descriptor of our own for the connection's socket: libdbus closes its own one while others may wait for it.
int duplicateFdOf(DBusConnection* connection)
{
    int fd = -1;
    return dbus_connection_get_unix_fd(connection, &fd) ? ::fcntl(fd, F_DUPFD_CLOEXEC, 0) : -1;
}

/// The longest wait when nothing can wake it.
constexpr int UNWAKEABLE_WAIT_MS = 200;

/// How often time-outs are looked after while another thread reads and this one cannot wait for the timer.
constexpr std::chrono::milliseconds TIMER_CHECK(50);

/// What libdbus reads of a message before it asks for the connection to be waited for again.
constexpr int BYTES_READ_AT_ONCE = 4096;

void kick(int eventFd)
{
    std::uint64_t const one = 1;
    // It fails only when it is set already, as often as a 64-bit number can say.
    [[maybe_unused]] auto const written = ::write(eventFd, &one, sizeof(one));
}

void addTo(int epollFd, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ::epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
}

} // namespace

CDbusPort::CIo::CIo(CDbusPort& port, std::size_t maxUnreadBytes)
    : asyncCalls(awaited, [this](CAsyncCalls::Call const& call, bool atStart) { DeliverEnd(call, atStart); }),
      unread(maxUnreadBytes),
      m_port(port),
      m_eventFd(fdOrError(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      m_insteadFd(fdOrError(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      m_epollFd(fdOrError(::epoll_create1(EPOLL_CLOEXEC)))
{
}

CDbusPort::CIo::~CIo()
{
    for (int const fd : {m_eventFd, m_insteadFd, m_epollFd, m_fd})
    {
        if (fd >= 0)
        {
            ::close(fd);
        }
    }
}

void CDbusPort::CIo::Attach(DBusConnection* connection)
{
    if (m_fd < 0)
    {
        m_fd = fdOrError(duplicateFdOf(connection));
        m_watched = EPOLLIN;
        addTo(m_epollFd, m_eventFd);
        addTo(m_epollFd, m_fd);
        addTo(m_epollFd, asyncCalls.GetTimerFd());
    }
    // Both run inside libdbus, on any thread, so they do nothing but write the eventfd. Without the first, what a
    // thread could not send at once would wait for the next arrival; without the second, what a thread read while it
    // waited for its own reply would.
    dbus_connection_set_wakeup_main_function(
        connection, [](void* io) { static_cast<CIo*>(io)->Kick(); }, this, nullptr);
    dbus_connection_set_dispatch_status_function(
        connection,
        [](DBusConnection*, DBusDispatchStatus status, void* io) {
            if (status == DBUS_DISPATCH_DATA_REMAINS)
            {
                static_cast<CIo*>(io)->Kick();
            }
        },
        this, nullptr);
}

void CDbusPort::CIo::Detach(DBusConnection* connection)
{
    dbus_connection_set_wakeup_main_function(connection, nullptr, nullptr, nullptr);
    dbus_connection_set_dispatch_status_function(connection, nullptr, nullptr, nullptr);
}

void CDbusPort::CIo::Kick() const
{
    if (!IsInside())
    {
        Wake();
    }
}

void CDbusPort::CIo::Wake() const
{
    kick(m_eventFd);
    KickInstead();
}

void CDbusPort::CIo::KickInstead() const
{
    // Whoever begins to read afterwards looks at what is to be sent, and so does the usual thread when it goes on.
    if (m_isReadInstead)
    {
        kick(m_insteadFd);
    }
}

void CDbusPort::CIo::SetReader(EReader newReader)
{
    std::lock_guard<std::mutex> const lock(mutex);
    reader = newReader;
    changed.notify_all();
}

void CDbusPort::CIo::KickOut()
{
    Kick();
    std::lock_guard<std::mutex> const lock(mutex);
    m_handedBack.notify_all();
}

void CDbusPort::CIo::Drain(int eventFd)
{
    std::uint64_t kicks = 0;
    [[maybe_unused]] auto const taken = ::read(eventFd, &kicks, sizeof(kicks));
}

int CDbusPort::CIo::Bounded(int eventFd, int timeoutMs)
{
    bool const isTooLong = timeoutMs < 0 || timeoutMs > UNWAKEABLE_WAIT_MS;
    return eventFd < 0 && isTooLong ? UNWAKEABLE_WAIT_MS : timeoutMs;
}

void CDbusPort::CIo::Wait(DBusConnection* connection, int timeoutMs)
{
    if (m_epollFd < 0)
    {
        PollFor(connection, m_eventFd, UNWAKEABLE_WAIT_MS);
        asyncCalls.Expire();
        return;
    }
    bool const hasToSend = dbus_connection_has_messages_to_send(connection);
    {
        std::lock_guard<std::mutex> const lock(mutex);
        m_isInWait = true;
        Watch(hasToSend ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
    while (WaitForEvents(timeoutMs) == EEvents::TimerOnly)
    {
        asyncCalls.Expire(); // which needs nothing of what another thread may be reading
    }
    WaitForHandBack();
}

CDbusPort::CIo::EEvents CDbusPort::CIo::WaitForEvents(int timeoutMs) const
{
    epoll_event events[3];
    int const count = ::epoll_wait(m_epollFd, events, 3, Bounded(m_eventFd, timeoutMs));
    auto const has = [&](int fd) {
        return std::any_of(events, events + std::max(count, 0),
                           [fd](auto const& event) { return event.data.fd == fd; });
    };
    if (has(m_eventFd))
    {
        Drain();
    }
    return count == 1 && has(asyncCalls.GetTimerFd()) ? EEvents::TimerOnly : EEvents::Others;
}

void CDbusPort::CIo::WaitForHandBack()
{
    std::unique_lock<std::mutex> lock(mutex);
    m_isInWait = false; // at once, so that nobody else comes first
    while (m_isReadInstead && !IsToEnd())
    {
        m_handedBack.wait_for(lock, TIMER_CHECK);
        lock.unlock();
        asyncCalls.Expire(); // nobody waits for the timer now
        lock.lock();
    }
}

bool CDbusPort::CIo::IsToEnd() const
{
    return closing || (reader == EReader::Thread && !delivering);
}

void CDbusPort::CIo::PollFor(DBusConnection* connection, int eventFd, int timeoutMs) const
{
    pollfd waited[2] = {{eventFd, POLLIN, 0}, {m_fd, POLLIN, 0}};
    if (dbus_connection_has_messages_to_send(connection))
    {
        waited[1].events |= POLLOUT;
    }
    if (::poll(waited, 2, Bounded(eventFd, timeoutMs)) > 0 && waited[0].revents != 0)
    {
        Drain(eventFd);
    }
}

bool CDbusPort::CIo::Read(DBusConnection* connection) const
{
    bool isConnected = dbus_connection_read_write(connection, 0);
    int left = 0;
    if (isConnected && dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_COMPLETE &&
        ::ioctl(m_fd, FIONREAD, &left) == 0)
    {
        for (; isConnected && left > 0; left -= BYTES_READ_AT_ONCE)
        {
            isConnected = dbus_connection_read_write(connection, 0);
        }
    }
    return isConnected;
}

void CDbusPort::CIo::Watch(unsigned int events)
{
    if (events != m_watched)
    {
        epoll_event event{};
        event.events = events;
        event.data.fd = m_fd;
        ::epoll_ctl(m_epollFd, EPOLL_CTL_MOD, m_fd, &event);
        m_watched = events;
    }
}

bool CDbusPort::CIo::AnswerPeerCall(DBusConnection* connection, DBusMessage* message)
{
    bool const isPing = dbus_message_is_method_call(message, DBUS_INTERFACE_PEER, "Ping");
    bool const isQuestion = dbus_message_is_method_call(message, DBUS_INTERFACE_PEER, "GetMachineId");
    if (!(isPing || isQuestion) || dbus_message_get_no_reply(message))
    {
        return false;
    }
    dbus::CError error;
    std::unique_ptr<char, decltype(&dbus_free)> const id(
        isQuestion ? dbus_try_get_local_machine_id(error.Get()) : nullptr, &dbus_free);
    char const* const text = id.get();
    dbus::MessagePointer const answer(error.IsSet()
                                          ? dbus_message_new_error(message, error.Get()->name, error.Get()->message)
                                          : dbus_message_new_method_return(message));
    if (text != nullptr)
    {
        dbus_message_append_args(answer.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    }
    dbus_connection_send(connection, answer.get(), nullptr);
    return true;
}

dbus::MessagePointer CDbusPort::CIo::TakeNext(DBusConnection* connection)
{
    std::lock_guard<std::mutex> const lock(mutex);
    if (m_setAside.empty())
    {
        return dbus::MessagePointer(dbus_connection_pop_message(connection));
    }
    dbus::MessagePointer next = std::move(m_setAside.front());
    m_setAside.pop_front();
    return next;
}

void CDbusPort::CIo::Dispatch(DBusConnection* connection, DBusMessage* message)
{
    if (AnswerPeerCall(connection, message) || OnMessage(connection, message, &m_port) == DBUS_HANDLER_RESULT_HANDLED ||
        dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL || dbus_message_get_no_reply(message))
    {
        return;
    }
    dbus::MessagePointer const answer(
        dbus_message_new_error(message, DBUS_ERROR_UNKNOWN_METHOD, "there is no such method here"));
    dbus_connection_send(connection, answer.get(), nullptr);
}

void CDbusPort::CIo::Drop(DBusConnection* connection, DBusMessage* message)
{
    if (AnswerPeerCall(connection, message))
    {
        return;
    }
    logDebug() << "CDbusPort::SendMessage dropped a message from " << types::toString(dbus_message_get_sender(message))
               << ", nothing delivers callbacks";
}

void CDbusPort::CIo::DeliverEnd(CAsyncCalls::Call const& call, bool atStart)
{
    {
        std::lock_guard<std::mutex> const lock(mutex);
        bool const isForThread = reader == EReader::Thread || delivering;
        if (isForThread || (reader == EReader::Loop && (atStart || !IsInside())))
        {
            deliveries.push_back({{}, call});
            changed.notify_all();
            if (!isForThread)
            {
                Wake();
            }
            return;
        }
    }
    Complete(*call);
}

std::deque<CDbusPort::CIo::SDelivery> CDbusPort::CIo::TakeDeliveries()
{
    std::lock_guard<std::mutex> const lock(mutex);
    return std::exchange(deliveries, {});
}

void CDbusPort::CIo::WatchForLoop(DBusConnection* connection)
{
    bool const hasToSend = dbus_connection_has_messages_to_send(connection);
    std::lock_guard<std::mutex> const lock(mutex);
    if (reader == EReader::Loop)
    {
        Watch(hasToSend ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
}

void CDbusPort::CIo::StopWatching()
{
    std::lock_guard<std::mutex> const lock(mutex);
    if (m_fd >= 0)
    {
        ::epoll_ctl(m_epollFd, EPOLL_CTL_DEL, m_fd, nullptr);
    }
}

void CDbusPort::CIo::Flush(DBusConnection* connection, Deadline deadline) const
{
    int leftMs = millisecondsTo(deadline);
    while (dbus_connection_has_messages_to_send(connection) && leftMs != 0)
    {
        pollfd waited{m_fd, POLLIN | POLLOUT, 0};
        ::poll(&waited, 1, leftMs);
        if (!dbus_connection_read_write(connection, 0))
        {
            return;
        }
        leftMs = millisecondsTo(deadline);
    }
}

void CDbusPort::CIo::WaitForKick(int timeoutMs) const
{
    pollfd waited{m_eventFd, POLLIN, 0};
    if (::poll(&waited, 1, Bounded(m_eventFd, timeoutMs)) > 0)
    {
        Drain();
    }
}

bool CDbusPort::CIo::IsInside() const
{
    for (CInside const* stay = CInside::innermost; stay != nullptr; stay = stay->m_outer)
    {
        if (&stay->m_io == this)
        {
            return true;
        }
    }
    return false;
}

CDbusPort::CIo::CInside::CInside(CIo const& io) : m_io(io), m_outer(innermost)
{
    innermost = this;
}

CDbusPort::CIo::CInside::~CInside()
{
    innermost = m_outer;
}

} // namespace nelo_rpc
