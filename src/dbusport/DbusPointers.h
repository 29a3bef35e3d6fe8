#pragma once

#include <dbus/dbus.h>

#include <memory>

/// Owners of what the bus library hands out, for one scope.
namespace nelo_rpc::dbus
{

struct SUnrefMessage
{
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePointer = std::unique_ptr<DBusMessage, SUnrefMessage>;

/// An error that the bus library may fill in.
class CError
{
public:
    CError() { dbus_error_init(&m_error); }
    CError(CError const&) = delete;
    CError& operator=(CError const&) = delete;
    ~CError() { dbus_error_free(&m_error); }

    DBusError* Get() { return &m_error; }
    bool IsSet() const { return dbus_error_is_set(&m_error); }
    char const* Message() const { return m_error.message; }

private:
    DBusError m_error;
};

} // namespace nelo_rpc::dbus
