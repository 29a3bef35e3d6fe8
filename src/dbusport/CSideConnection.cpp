#include "CSideConnection.h"

#include "DbusPointers.h"

#include <limits>

namespace nelo_rpc
{

CSideConnection::~CSideConnection()
{
    Close();
}

DBusMessage* CSideConnection::Ask(DBusMessage* question, int timeoutMs)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    if (!Open())
    {
        return nullptr;
    }
    DBusMessage* const answer = dbus_connection_send_with_reply_and_block(m_connection, question, timeoutMs, nullptr);
    DropOthers();
    return answer;
}

void CSideConnection::DropOthers()
{
    while (dbus::MessagePointer const message{dbus_connection_pop_message(m_connection)})
    {
    }
}

bool CSideConnection::Open()
{
    if (m_connection != nullptr && !dbus_connection_get_is_connected(m_connection))
    {
        Close();
    }
    if (m_connection == nullptr)
    {
        m_connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    }
    if (m_connection == nullptr)
    {
        return false;
    }
    dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
    // At its default limit the bus library would stop reading, the answer included.
    dbus_connection_set_max_received_size(m_connection, std::numeric_limits<long>::max());
    return true;
}

void CSideConnection::Close()
{
    if (m_connection != nullptr)
    {
        dbus_connection_close(m_connection);
        dbus_connection_unref(m_connection); // nobody else knows it
        m_connection = nullptr;
    }
}

} // namespace nelo_rpc
