#include "CAsyncCalls.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>

namespace nelo_rpc
{

namespace
{

/// How many calls are under way. The bus lets a connection have 128; the rest is for calls that are waited for.
constexpr std::size_t WINDOW = 100;

} // namespace

CAsyncCalls::CAsyncCalls(CAwaitedReplies& awaited, Deliver deliver)
    : m_awaited(awaited),
      m_deliver(std::move(deliver)),
      m_timerFd(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))
{
}

CAsyncCalls::~CAsyncCalls()
{
    if (m_timerFd >= 0)
    {
        ::close(m_timerFd);
    }
}

void CAsyncCalls::Accept(DBusConnection* connection)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_connection = connection;
}

bool CAsyncCalls::IsAccepting() const
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_connection != nullptr;
}

bool CAsyncCalls::Start(Call const& call)
{
    Ended ended;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (m_connection == nullptr)
        {
            return false;
        }
        m_calls.emplace(call->deadline, call);
        if (call->failure)
        {
            End(call, ended);
        }
        else
        {
            m_waiting.push_back(call);
            SendWaiting(ended);
            SetTimer();
        }
    }
    HandOn(ended, true);
    return true;
}

void CAsyncCalls::Expire()
{
    std::uint64_t expirations = 0;
    [[maybe_unused]] auto const taken = ::read(m_timerFd, &expirations, sizeof(expirations));
    Deadline const now = std::chrono::steady_clock::now();
    Ended ended;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        while (!m_calls.empty() && m_calls.begin()->first <= now)
        {
            Call const call = m_calls.begin()->second;
            call->failure = dbus::tooLate();
            m_awaited.Remove(call->serial);
            End(call, ended);
        }
        if (!ended.empty())
        {
            DropEnded();
        }
        SendWaiting(ended);
        if (m_timer <= now)
        {
            m_timer = Deadline::max();
            SetTimer();
        }
    }
    HandOn(ended);
}

void CAsyncCalls::EndAll(char const* reason)
{
    Ended ended;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_connection = nullptr;
        while (!m_calls.empty())
        {
            Call const call = m_calls.begin()->second;
            call->failure = {ECallStatus::Disconnected, reason};
            m_awaited.Remove(call->serial);
            End(call, ended);
        }
        m_waiting.clear();
    }
    HandOn(ended);
}

void CAsyncCalls::OnAnswer(Call const& call, DBusMessage* answer)
{
    Ended ended;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (call->isOver)
        {
            return; // its time was over at this very moment
        }
        if (answer != nullptr)
        {
            call->reply.reset(dbus_message_ref(answer));
        }
        else
        {
            call->failure = {ECallStatus::Disconnected, "the connection to the bus is closed"};
        }
        End(call, ended);
        SendWaiting(ended);
    }
    HandOn(ended);
}

void CAsyncCalls::End(Call const& call, Ended& ended)
{
    call->isOver = true;
    m_underWay -= call->serial != 0 ? 1 : 0;
    m_calls.erase({call->deadline, call});
    ended.push_back(call);
}

void CAsyncCalls::DropEnded()
{
    // Those under way may take for ever, and each of those behind them holds on to its message.
    m_waiting.erase(std::remove_if(m_waiting.begin(), m_waiting.end(), [](Call const& call) { return call->isOver; }),
                    m_waiting.end());
}

void CAsyncCalls::SendWaiting(Ended& ended)
{
    while (!m_waiting.empty() && m_underWay < WINDOW)
    {
        Call const call = std::move(m_waiting.front());
        m_waiting.pop_front();
        if (!Send(call))
        {
            call->failure = {ECallStatus::Disconnected, "the connection to the bus is closed"};
            End(call, ended);
        }
    }
}

bool CAsyncCalls::Send(Call const& call)
{
    // Without the port's send mutex, which a call that is waited for may hold all the time. What is sent in one go here
    // keeps the order of the calls.
    if (m_connection == nullptr || !m_awaited.Send(m_connection, call->message.get(),
                                                   [this, call](DBusMessage* answer) { OnAnswer(call, answer); }))
    {
        return false;
    }
    call->serial = dbus_message_get_serial(call->message.get());
    call->message.reset();
    ++m_underWay;
    return true;
}

void CAsyncCalls::SetTimer()
{
    if (m_calls.empty() || m_calls.begin()->first >= m_timer)
    {
        return; // a timer that is early does no harm
    }
    m_timer = m_calls.begin()->first;
    auto const sinceStart = std::chrono::duration_cast<std::chrono::nanoseconds>(m_timer.time_since_epoch()).count();
    constexpr long NANOSECONDS = 1000 * 1000 * 1000;
    itimerspec const time{{0, 0}, {sinceStart / NANOSECONDS, sinceStart % NANOSECONDS}};
    ::timerfd_settime(m_timerFd, TFD_TIMER_ABSTIME, &time, nullptr);
}

void CAsyncCalls::HandOn(Ended const& ended, bool atStart) const
{
    for (Call const& call : ended)
    {
        m_deliver(call, atStart);
    }
}

} // namespace nelo_rpc
