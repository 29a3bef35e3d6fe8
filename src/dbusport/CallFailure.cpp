#include "CallFailure.h"

#include "DbusPointers.h"

namespace nelo_rpc::dbus
{

namespace
{

/// The first words of what the bus library says when no reply came in time. The bus uses the same error for a peer that
/// left before it replied.
constexpr char const* NO_REPLY_IN_TIME = "Did not receive a reply";

bool isOneOf(DBusError const& error, std::initializer_list<char const*> names)
{
    for (char const* const name : names)
    {
        if (dbus_error_has_name(&error, name))
        {
            return true;
        }
    }
    return false;
}

ECallStatus statusOf(DBusError const& error)
{
    bool const isNoReply = dbus_error_has_name(&error, DBUS_ERROR_NO_REPLY);
    if (isOneOf(error, {DBUS_ERROR_TIMEOUT, DBUS_ERROR_TIMED_OUT}) ||
        (isNoReply && types::toString(error.message).rfind(NO_REPLY_IN_TIME, 0) == 0))
    {
        return ECallStatus::TimedOut;
    }
    if (isNoReply || dbus_error_has_name(&error, DBUS_ERROR_DISCONNECTED))
    {
        return ECallStatus::Disconnected;
    }
    return isOneOf(error, {DBUS_ERROR_SERVICE_UNKNOWN, DBUS_ERROR_NAME_HAS_NO_OWNER}) ? ECallStatus::NoServer
                                                                                      : ECallStatus::Refused;
}

} // namespace

SCallFailure failureToCall(std::string const& destination, int timeoutMs)
{
    CError error;
    if (timeoutMs < -1)
    {
        return {ECallStatus::BadValue, "no time-out of " + std::to_string(timeoutMs) + " milliseconds"};
    }
    if (!dbus_validate_bus_name(destination.c_str(), error.Get()))
    {
        return {ECallStatus::NoServer, error.Message()};
    }
    return {};
}

SCallFailure tooLate()
{
    return {ECallStatus::TimedOut, "no reply within the time-out"};
}

SCallFailure failureOf(DBusError const& error)
{
    return {statusOf(error), types::toString(error.message)};
}

} // namespace nelo_rpc::dbus
