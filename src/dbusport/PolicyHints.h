#pragma once

#include <dbus/dbus.h>

#include <string>

/// What the log adds to a refusal of the bus, so that nobody has to guess.
namespace nelo_rpc::dbus
{

/// Logs the rule that lets this process own the name, if that is what the bus refused.
void hintAtNamePolicy(DBusError const& refusal, std::string const& name);

/// Logs the rule that lets this process call the server, if `cause` says that the bus refused the call.
void hintAtCallPolicy(std::string const& cause, std::string const& server);

/// Logs the rule that lets this process ping its clients, which the bus has refused.
void hintAtPingPolicy();

/// Who owns a name: ":1.5, process 4711 (climate-server) of user climate", as far as the bus and the kernel tell.
/// Blocks for the answers of the bus; for a connection that no other thread reads.
std::string describeOwner(DBusConnection* connection, std::string const& name);

} // namespace nelo_rpc::dbus
