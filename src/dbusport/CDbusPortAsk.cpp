#include "CDbusPortIo.h"

#include "../SystemLog.h"
#include "DbusPointers.h"

#include <sys/epoll.h>

namespace nelo_rpc
{

/// What a thread waits for that does not read the connection itself.
struct CDbusPort::CIo::CQuestion::SAnswer
{
    dbus::MessagePointer message;
    bool isOver = false;
};

DBusHandlerResult CDbusPort::CIo::OnMessage(DBusConnection* connection, DBusMessage* message, void* port) noexcept
{
    auto& self = *static_cast<CDbusPort*>(port);
    if (self.m_io->awaited.Take(message))
    {
        return DBUS_HANDLER_RESULT_HANDLED;
    }
    if (dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected"))
    {
        self.m_io->awaited.EndAll();
    }
    return static_cast<DBusHandlerResult>(self.OnDbusMessage(connection, message));
}

CDbusPort::CIo::CQuestion::CQuestion(CIo& io, DBusConnection* connection) : m_io(io), m_connection(connection)
{
    std::lock_guard<std::mutex> const lock(m_io.mutex);
    m_isBesideLoop = m_io.reader == EReader::Loop;
    if (m_isBesideLoop)
    {
        m_io.m_isReadInstead = true;
    }
    else if (m_io.m_isInWait && !m_io.m_isReadInstead)
    {
        m_reads = true;
        m_io.m_isReadInstead = true;
        m_io.Watch(0);
        m_inside.emplace(m_io); // what is read here need not be announced: HandBack() looks
    }
}

CDbusPort::CIo::CQuestion::~CQuestion()
{
    HandBack();
    LeaveToLoop();
}

bool CDbusPort::CIo::CQuestion::Send(DBusMessage* call)
{
    bool sent = false;
    if (m_reads)
    {
        // Nobody else can take the answer before HandBack().
        sent = dbus_connection_get_is_connected(m_connection) && dbus_connection_send(m_connection, call, nullptr);
    }
    else
    {
        m_answer = std::make_shared<SAnswer>();
        sent = m_io.awaited.Send(m_connection, call, FillIn());
    }
    m_serial = dbus_message_get_serial(call);
    return sent;
}

DBusMessage* CDbusPort::CIo::CQuestion::Wait(Deadline deadline)
{
    if (m_reads)
    {
        DBusMessage* const answer = ReadAnswer(deadline);
        if (answer != nullptr || millisecondsTo(deadline) == 0 || !dbus_connection_get_is_connected(m_connection))
        {
            return answer;
        }
        m_answer = std::make_shared<SAnswer>();
        m_io.awaited.Add(m_serial, FillIn());
        HandBack();
    }
    return m_isBesideLoop ? ReadBesideLoop(deadline) : WaitForAnswer(deadline);
}

DBusMessage* CDbusPort::CIo::CQuestion::ReadAnswer(Deadline deadline) const
{
    do
    {
        if (dbus_connection_get_dispatch_status(m_connection) == DBUS_DISPATCH_DATA_REMAINS)
        {
            // The rest is left to the usual thread: it may lead to the application's functions.
            return IsAnswerNext() ? dbus_connection_pop_message(m_connection) : nullptr;
        }
    } while (ReadSome(deadline));
    return nullptr;
}

bool CDbusPort::CIo::CQuestion::IsAnswerNext() const
{
    DBusMessage* const next = dbus_connection_borrow_message(m_connection);
    bool const isNext = next != nullptr && IsAnswer(next);
    if (next != nullptr)
    {
        dbus_connection_return_message(m_connection, next);
    }
    return isNext;
}

bool CDbusPort::CIo::CQuestion::IsAnswer(DBusMessage* message) const
{
    return dbus_message_get_reply_serial(message) == m_serial;
}

void CDbusPort::CIo::CQuestion::HandBack()
{
    if (!m_reads)
    {
        return;
    }
    m_reads = false;
    m_inside.reset();
    bool const leavesSomething = LeavesSomething();
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

bool CDbusPort::CIo::CQuestion::LeavesSomething() const
{
    return dbus_connection_get_dispatch_status(m_connection) != DBUS_DISPATCH_COMPLETE ||
           dbus_connection_has_messages_to_send(m_connection) || !dbus_connection_get_is_connected(m_connection);
}

CAwaitedReplies::Done CDbusPort::CIo::CQuestion::FillIn() const
{
    return [&io = m_io, answer = m_answer](DBusMessage* message) {
        std::lock_guard<std::mutex> const lock(io.mutex);
        answer->message.reset(message != nullptr ? dbus_message_ref(message) : nullptr);
        answer->isOver = true;
        io.changed.notify_all();
        io.KickInstead(); // of a thread that reads beside the loop that is here
    };
}

DBusMessage* CDbusPort::CIo::CQuestion::WaitForAnswer(Deadline deadline) const
{
    std::unique_lock<std::mutex> lock(m_io.mutex);
    auto const isOver = [this] { return m_answer->isOver || m_io.reader == EReader::Nobody; };
    if (deadline == Deadline::max())
    {
        m_io.changed.wait(lock, isOver);
    }
    else
    {
        m_io.changed.wait_until(lock, deadline, isOver);
    }
    if (m_answer->message != nullptr)
    {
        return m_answer->message.release();
    }
    bool const isAlone = m_io.reader == EReader::Nobody;
    lock.unlock();
    m_io.awaited.Remove(m_serial);
    return isAlone ? ReadAlone(deadline) : nullptr;
}

DBusMessage* CDbusPort::CIo::CQuestion::ReadAlone(Deadline deadline) const
{
    // The thread that read has ended. A synchronous port's send mutex is held, so there is no other.
    do
    {
        while (dbus::MessagePointer message{dbus_connection_pop_message(m_connection)})
        {
            if (IsAnswer(message.get()))
            {
                return message.release();
            }
            Drop(m_connection, message.get());
        }
    } while (ReadSome(deadline));
    return nullptr;
}

DBusMessage* CDbusPort::CIo::CQuestion::ReadBesideLoop(Deadline deadline) const
{
    dbus::MessagePointer answer = SetOthersAside();
    while (answer == nullptr && ReadSome(deadline))
    {
        answer = SetOthersAside();
    }
    m_io.awaited.Remove(m_serial);
    return answer.release();
}

dbus::MessagePointer CDbusPort::CIo::CQuestion::SetOthersAside() const
{
    std::lock_guard<std::mutex> const lock(m_io.mutex);
    while (m_answer->message == nullptr) // which the loop may have taken
    {
        dbus::MessagePointer message(dbus_connection_pop_message(m_connection));
        if (message == nullptr || IsAnswer(message.get()))
        {
            return message;
        }
        m_io.m_setAside.push_back(std::move(message));
        m_io.Kick();
    }
    return std::move(m_answer->message);
}

void CDbusPort::CIo::CQuestion::LeaveToLoop() const
{
    if (!m_isBesideLoop)
    {
        return;
    }
    m_io.m_isReadInstead = false;
    bool leavesSomething = LeavesSomething();
    {
        std::lock_guard<std::mutex> const lock(m_io.mutex);
        leavesSomething = leavesSomething || !m_io.m_setAside.empty();
    }
    if (leavesSomething)
    {
        m_io.Kick();
    }
}

bool CDbusPort::CIo::CQuestion::ReadSome(Deadline deadline) const
{
    int const leftMs = millisecondsTo(deadline);
    if (leftMs == 0)
    {
        return false;
    }
    m_io.PollFor(m_connection, m_reads || m_isBesideLoop ? m_io.m_insteadFd : m_io.m_eventFd, leftMs);
    return m_io.Read(m_connection);
}

} // namespace nelo_rpc
