#pragma once

#include <dbus/dbus.h>

#include <functional>
#include <map>
#include <mutex>

namespace nelo_rpc
{

/// Calls that are under way on a connection, answered by the thread that dispatches it.
///
/// Not pending calls of libdbus: when the connection is lost it walks through those, and crashes if two threads notice
/// the loss at once.
class CAwaitedReplies
{
public:
    /// Runs once, on the thread that takes the answer or ends the calls; null if there is no answer.
    using Done = std::function<void(DBusMessage* answer)>;

    /// Sends a call, with a serial of its own if it has one. False if it cannot be sent; `done` does not run then.
    bool Send(DBusConnection* connection, DBusMessage* call, Done done);

    /// Waits for the answer to a call that was sent, and whose answer cannot have been dispatched yet.
    void Add(dbus_uint32_t serial, Done done);

    /// Waits no longer. False if the call is over already; its `done` may still be running then.
    bool Remove(dbus_uint32_t serial);

    /// Whether the message answers one of the calls, which is then over.
    bool Take(DBusMessage* answer);

    /// None of the calls will be answered.
    void EndAll();

private:
    std::mutex m_mutex;
    std::map<dbus_uint32_t, Done> m_calls; // by serial; guarded by the mutex
};

} // namespace nelo_rpc
