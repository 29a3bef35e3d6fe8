#include "CAwaitedReplies.h"

#include <utility>

namespace nelo_rpc
{

bool CAwaitedReplies::Send(DBusConnection* connection, DBusMessage* call, Done done)
{
    // Held while sending: the answer may be there before its serial is known.
    std::lock_guard<std::mutex> const lock(m_mutex);
    dbus_uint32_t serial = 0;
    if (!dbus_connection_get_is_connected(connection) || !dbus_connection_send(connection, call, &serial))
    {
        return false;
    }
    m_calls.emplace(serial, std::move(done));
    return true;
}

void CAwaitedReplies::Add(dbus_uint32_t serial, Done done)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    m_calls.emplace(serial, std::move(done));
}

bool CAwaitedReplies::Remove(dbus_uint32_t serial)
{
    std::lock_guard<std::mutex> const lock(m_mutex);
    return m_calls.erase(serial) != 0;
}

bool CAwaitedReplies::Take(DBusMessage* answer)
{
    int const type = dbus_message_get_type(answer);
    if (type != DBUS_MESSAGE_TYPE_METHOD_RETURN && type != DBUS_MESSAGE_TYPE_ERROR)
    {
        return false;
    }
    Done done;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        auto const call = m_calls.find(dbus_message_get_reply_serial(answer));
        if (call == m_calls.end())
        {
            return false;
        }
        done = std::move(call->second);
        m_calls.erase(call);
    }
    done(answer);
    return true;
}

void CAwaitedReplies::EndAll()
{
    std::map<dbus_uint32_t, Done> ended;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        ended.swap(m_calls);
    }
    for (auto const& [serial, done] : ended)
    {
        done(nullptr);
    }
}

} // namespace nelo_rpc
