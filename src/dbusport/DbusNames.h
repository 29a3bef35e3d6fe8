#pragma once

/// What every message of the system carries.
namespace nelo_rpc::dbus
{

constexpr char const* OBJECT_PATH = "/org/trelin/nelo_rpc";
constexpr char const* INTERFACE = "org.trelin.nelo_rpc.Event";
constexpr char const* MEMBER = "Call";

} // namespace nelo_rpc::dbus
