#pragma once

#include <nelo_rpc/CValueList.h>

#include <dbus/dbus.h>

#include <string>

/// What a port that does not trust its peers looks at before it does anything about a message.
namespace nelo_rpc::dbus
{

/// Why a message is refused, as an error reply says it: the error's name and the cause. No name: it is not refused.
struct SObjection
{
    char const* error = nullptr;
    std::string cause;
};

/// Looks at a message with the library's path, header first, and reads its body into the list.
/// Never fatal, and never a text that the sender chose.
SObjection objectionTo(DBusMessage* message, types::CValueList& list);

/// Whether a message asks what there is on a path.
bool isIntrospection(DBusMessage* message);

/// The answer: the library's object, or the way to it. Empty for a path where there is neither.
std::string introspectionOf(std::string const& path);

} // namespace nelo_rpc::dbus
