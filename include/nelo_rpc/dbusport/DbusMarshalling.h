#pragma once

#include <nelo_rpc/CValueList.h>
#include <nelo_rpc/Export.h>

#include <string>
#include <utility>

struct DBusMessage;
struct DBusMessageIter;

/// Value lists as bodies of D-Bus messages, and the three kinds of message that a port sends.
///
/// A body is a flat sequence of entries in ascending index order: INT32 index, INT32 tag, value. Tags: 0 INT32,
/// 1 STRING (std::string), 2 STRING (CCString), 3 ARRAY of BYTE and INT32 kind. Since 0.1.
namespace nelo_rpc::dbus
{

/// Reads the argument under the iterator and advances. An argument of another type is fatal.
/// The pointers of char* and of the pair belong to the message.
template <class T>
T dbusMessageGet(DBusMessageIter* iter);

template <>
NELO_RPC_API int dbusMessageGet<int>(DBusMessageIter* iter);
template <>
NELO_RPC_API char* dbusMessageGet<char*>(DBusMessageIter* iter);
template <>
NELO_RPC_API std::string dbusMessageGet<std::string>(DBusMessageIter* iter);
template <>
NELO_RPC_API std::pair<char const*, unsigned int>
dbusMessageGet<std::pair<char const*, unsigned int>>(DBusMessageIter* iter);

/// Appends an argument. A string must be valid UTF-8 and a byte array at most 64 MiB; anything else is fatal.
NELO_RPC_API void dbusMessagePut(DBusMessageIter* iter, char const* value);
NELO_RPC_API void dbusMessagePut(DBusMessageIter* iter, std::string const& value);
NELO_RPC_API void dbusMessagePut(DBusMessageIter* iter, int value);
NELO_RPC_API void dbusMessagePut(DBusMessageIter* iter, std::pair<char const*, unsigned int> const& value);

/// Appends the body of a list to a message. A value of a class without a tag raises std::bad_cast; a list that
/// whyNotSendable() objects to is fatal. So it is for the builders below.
NELO_RPC_API void fillDbusMessage(types::CValueList const& list, DBusMessage* msg);

/// Reads the body of a message; null gives an empty list. An ill-formed body is fatal.
NELO_RPC_API types::CValueList dbusMessageToValueList(DBusMessage* msg);

/// The same for a message of somebody who is not trusted: never fatal.
///
/// @param list  gets what was read, and nothing if the body is ill-formed.
/// @return what is wrong with the body; an empty string if nothing is. Never a text that the sender chose.
NELO_RPC_API std::string readValueList(DBusMessage* msg, types::CValueList& list);

/// What keeps a list from being sent as it is: text that D-Bus does not carry, a message of more than 32 MiB, which a
/// bus does not take, or more entries than a signature can name (85 of integers and strings, 51 of binary values).
/// An empty string if nothing does. Values of a class without a tag are not looked at.
NELO_RPC_API std::string whyNotSendable(types::CValueList const& list);

/// A new message that the caller owns: a method call to `destination`, which must be a valid bus name.
NELO_RPC_API DBusMessage* valueListToFunctionCall(std::string const& destination, types::CValueList const& list);

/// The same for a signal to one peer.
NELO_RPC_API DBusMessage* valueListToCallback(std::string const& destination, types::CValueList const& list);

/// The same for the method return that answers `call`.
NELO_RPC_API DBusMessage* valueListToFunctionResult(DBusMessage* call, types::CValueList const& list);

} // namespace nelo_rpc::dbus
