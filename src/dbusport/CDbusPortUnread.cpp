#include "CDbusPortIo.h"

#include "../SystemLog.h"
#include "DbusPointers.h"
#include "PolicyHints.h"

namespace nelo_rpc
{

bool CDbusPort::HasTooMuchUnread(std::string const& destination, std::size_t size)
{
    if (!m_io->mayPing || m_io->unread.MayAdd(destination, size))
    {
        return false;
    }
    if (m_io->unread.Retry(destination))
    {
        Ping(destination);
    }
    return true;
}

bool CDbusPort::SendCounted(DBusMessage* message, std::string const& destination, std::size_t size)
{
    if (!Send(message))
    {
        return false;
    }
    if (m_io->mayPing && m_io->unread.Add(destination, size))
    {
        Ping(destination);
    }
    return true;
}

void CDbusPort::Ping(std::string const& name)
{
    dbus::MessagePointer const ping(dbus_message_new_method_call(name.c_str(), "/", DBUS_INTERFACE_PEER, "Ping"));
    dbus_message_set_auto_start(ping.get(), FALSE);
    if (!m_io->awaited.Send(m_connection, ping.get(), [this, name](DBusMessage* answer) { HandlePong(name, answer); }))
    {
        m_io->unread.EndPing(name, CUnread::EPing::Lost);
    }
}

void CDbusPort::HandlePong(std::string const& name, DBusMessage* answer)
{
    bool const isOfBus = answer != nullptr && types::toString(dbus_message_get_sender(answer)) == DBUS_SERVICE_DBUS;
    if (isOfBus && dbus_message_is_error(answer, DBUS_ERROR_ACCESS_DENIED))
    {
        if (m_io->mayPing.exchange(false))
        {
            logError() << "CDbusPort::SendMessage cannot limit what peers leave unread: the bus lets no ping through";
            dbus::hintAtPingPolicy();
        }
        return;
    }
    bool const isLost = answer == nullptr || (isOfBus && dbus_message_is_error(answer, DBUS_ERROR_LIMITS_EXCEEDED));
    if (m_io->unread.EndPing(name, isLost ? CUnread::EPing::Lost : CUnread::EPing::Answered))
    {
        Ping(name);
    }
}

} // namespace nelo_rpc
