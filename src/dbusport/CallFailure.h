#pragma once

#include <nelo_rpc/CCallResult.h>
#include <nelo_rpc/CValueList.h>

#include <dbus/dbus.h>

#include <string>

namespace nelo_rpc::dbus
{

/// Why a call failed, or that it did not.
struct SCallFailure
{
    ECallStatus status = ECallStatus::Ok;
    std::string reason;

    explicit operator bool() const { return status != ECallStatus::Ok; }
};

/// What keeps a call from being made, whatever its arguments are.
SCallFailure failureToCall(std::string const& destination, int timeoutMs);

/// What an error means, be it an error reply's or the bus library's own.
SCallFailure failureOf(DBusError const& error);

/// That no reply came in time.
SCallFailure tooLate();

/// What keeps the arguments of a call from being sent: what whyNotSendable() objects to.
SCallFailure failureToSend(types::CValueList const& call);

/// The same, and values of a class without a tag, for callers to whom no exception is thrown.
SCallFailure failureToSendAnything(types::CValueList const& call);

} // namespace nelo_rpc::dbus
