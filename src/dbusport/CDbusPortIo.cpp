#include "CDbusPortIo.h"

#include "../SystemLog.h"

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <system_error>

namespace nelo_rpc
{

namespace
{

/// The waiting place of the connection that the calling thread is inside.
thread_local void const* insideOf = nullptr;

/// Without a descriptor the port still works, but waits end only with their time.
int fdOrError(int fd)
{
    if (fd < 0)
    {
        logError() << "CDbusPort has no descriptor to be woken with: " << std::generic_category().message(errno);
    }
    return fd;
}

int fdOf(DBusConnection* connection)
{
    int fd = -1;
    return dbus_connection_get_unix_fd(connection, &fd) ? fd : -1;
}

/// The longest wait when nothing can wake it.
constexpr int UNWAKEABLE_WAIT_MS = 200;

void addTo(int epollFd, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    ::epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &event);
}

/// What a thread waits for that does not read the connection itself.
struct SReply
{
    std::mutex& mutex;
    std::condition_variable& changed;
    bool completed = false;
};

/// Runs on the thread that reads the connection, or on the waiting one if the reply was quicker.
void onReply(DBusPendingCall*, void* data)
{
    auto& reply = **static_cast<std::shared_ptr<SReply>*>(data);
    std::lock_guard<std::mutex> const lock(reply.mutex);
    reply.completed = true;
    reply.changed.notify_all();
}

void freeReply(void* data)
{
    delete static_cast<std::shared_ptr<SReply>*>(data);
}

/// As poll() wants it: -1 for ever.
int millisecondsTo(std::chrono::steady_clock::time_point deadline)
{
    if (deadline == std::chrono::steady_clock::time_point::max())
    {
        return -1;
    }
    auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

} // namespace

CDbusPort::CIo::CIo()
    : m_eventFd(fdOrError(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      m_epollFd(fdOrError(::epoll_create1(EPOLL_CLOEXEC)))
{
}

CDbusPort::CIo::~CIo()
{
    for (int const fd : {m_eventFd, m_epollFd})
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
        m_fd = fdOf(connection);
        m_watched = EPOLLIN;
        addTo(m_epollFd, m_eventFd);
        addTo(m_epollFd, m_fd);
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
    if (IsInside())
    {
        return;
    }
    std::uint64_t const one = 1;
    // It fails only when it is set already, as often as a 64-bit number can say.
    [[maybe_unused]] auto const written = ::write(m_eventFd, &one, sizeof(one));
}

void CDbusPort::CIo::KickOut()
{
    Kick();
    std::lock_guard<std::mutex> const lock(mutex);
    m_handedBack.notify_all();
}

void CDbusPort::CIo::Drain() const
{
    std::uint64_t kicks = 0;
    [[maybe_unused]] auto const taken = ::read(m_eventFd, &kicks, sizeof(kicks));
}

int CDbusPort::CIo::Bounded(int timeoutMs) const
{
    bool const isTooLong = timeoutMs < 0 || timeoutMs > UNWAKEABLE_WAIT_MS;
    return m_eventFd < 0 && isTooLong ? UNWAKEABLE_WAIT_MS : timeoutMs;
}

void CDbusPort::CIo::Wait(DBusConnection* connection, int timeoutMs)
{
    if (m_epollFd < 0)
    {
        PollFor(connection, timeoutMs);
        return;
    }
    bool const hasToSend = dbus_connection_has_messages_to_send(connection);
    {
        std::lock_guard<std::mutex> const lock(mutex);
        m_isInWait = true;
        Watch(m_isReadInstead ? 0U : hasToSend ? EPOLLIN | EPOLLOUT : EPOLLIN);
    }
    epoll_event events[2];
    int const count = ::epoll_wait(m_epollFd, events, 2, Bounded(timeoutMs));
    {
        std::unique_lock<std::mutex> lock(mutex);
        m_isInWait = false; // at once, so that nobody else comes first
        m_handedBack.wait(lock, [&] { return !m_isReadInstead || IsToEnd(); });
    }
    if (std::any_of(events, events + std::max(count, 0), [&](auto const& event) { return event.data.fd == m_eventFd; }))
    {
        Drain();
    }
}

bool CDbusPort::CIo::IsToEnd() const
{
    return closing || (reader == EReader::Thread && !delivering);
}

void CDbusPort::CIo::PollFor(DBusConnection* connection, int timeoutMs) const
{
    pollfd waited[2] = {{m_eventFd, POLLIN, 0}, {fdOf(connection), POLLIN, 0}};
    if (dbus_connection_has_messages_to_send(connection))
    {
        waited[1].events |= POLLOUT;
    }
    ::poll(waited, 2, Bounded(timeoutMs));
    if (waited[0].revents != 0)
    {
        Drain();
    }
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

void CDbusPort::CIo::WaitForKick(int timeoutMs) const
{
    pollfd waited{m_eventFd, POLLIN, 0};
    if (::poll(&waited, 1, Bounded(timeoutMs)) > 0)
    {
        Drain();
    }
}

bool CDbusPort::CIo::IsInside() const
{
    return insideOf == this;
}

CDbusPort::CIo::CInside::CInside(CIo const& io) : m_outer(insideOf)
{
    insideOf = &io;
}

CDbusPort::CIo::CInside::~CInside()
{
    insideOf = m_outer;
}

void CDbusPort::CIo::WaitForReply(DBusPendingCall* call, Deadline deadline)
{
    auto const reply = std::make_shared<SReply>(SReply{mutex, changed});
    dbus_pending_call_set_notify(call, &onReply, new std::shared_ptr<SReply>(reply), &freeReply);
    bool const alreadyCompleted = dbus_pending_call_get_completed(call); // before there was anybody to notify

    std::unique_lock<std::mutex> lock(mutex);
    auto const isOver = [&] { return alreadyCompleted || reply->completed || reader != EReader::Thread; };
    if (deadline == Deadline::max())
    {
        changed.wait(lock, isOver);
    }
    else
    {
        changed.wait_until(lock, deadline, isOver);
    }
    bool const abandoned = !reply->completed && !alreadyCompleted && reader != EReader::Thread;
    lock.unlock();
    if (abandoned)
    {
        dbus_pending_call_block(call); // nobody reads any more, so this thread may
    }
}

CDbusPort::CIo::CReadInstead::CReadInstead(CIo& io, DBusConnection* connection) : m_io(io), m_connection(connection)
{
    std::lock_guard<std::mutex> const lock(m_io.mutex);
    if (m_io.m_isInWait && !m_io.m_isReadInstead)
    {
        m_reads = true;
        m_io.m_isReadInstead = true;
        m_io.Watch(0);
        m_inside.emplace(m_io); // what is read here need not be announced: HandBack() looks
    }
}

CDbusPort::CIo::CReadInstead::~CReadInstead()
{
    HandBack();
}

bool CDbusPort::CIo::CReadInstead::ReadReply(DBusPendingCall* call, dbus_uint32_t serial, Deadline deadline)
{
    while (m_reads)
    {
        if (dbus_connection_get_dispatch_status(m_connection) == DBUS_DISPATCH_DATA_REMAINS)
        {
            // Nothing but the reply is dispatched here: the rest may lead to the application's functions, and the caller
            // holds the send mutex.
            if (!IsNext(serial))
            {
                break;
            }
            dbus_connection_dispatch(m_connection);
        }
        int const leftMs = millisecondsTo(deadline);
        if (dbus_pending_call_get_completed(call) || leftMs == 0)
        {
            return true;
        }
        if (!dbus_connection_read_write(m_connection, leftMs))
        {
            break;
        }
    }
    HandBack();
    return false;
}

bool CDbusPort::CIo::CReadInstead::IsNext(dbus_uint32_t serial) const
{
    DBusMessage* const next = dbus_connection_borrow_message(m_connection);
    bool const isNext = next != nullptr && dbus_message_get_reply_serial(next) == serial;
    if (next != nullptr)
    {
        dbus_connection_return_message(m_connection, next);
    }
    return isNext;
}

void CDbusPort::CIo::CReadInstead::HandBack()
{
    if (!m_reads)
    {
        return;
    }
    m_reads = false;
    m_inside.reset();
    bool const leavesSomething = dbus_connection_get_dispatch_status(m_connection) != DBUS_DISPATCH_COMPLETE ||
                                 dbus_connection_has_messages_to_send(m_connection) ||
                                 !dbus_connection_get_is_connected(m_connection);
    {
        std::lock_guard<std::mutex> const lock(m_io.mutex);
        m_io.m_isReadInstead = false;
        m_io.m_isInWait = m_io.m_isInWait && !leavesSomething;
        m_io.Watch(EPOLLIN);
        m_io.m_handedBack.notify_all();
    }
    if (leavesSomething)
    {
        m_io.Kick();
    }
}

} // namespace nelo_rpc
