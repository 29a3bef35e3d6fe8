#pragma once

#include <map>
#include <string>

/// What a host and a client agree on above the port: reserved indices of a value list and reserved names.
namespace nelo_rpc::protocol
{

constexpr int METHOD_NAME = -1;   ///< std::string: the function called, or the callback sent
constexpr int ACTOR_ID = -2;      ///< int: the actor called, or the actor that sends a callback
constexpr int CONNECTION_ID = -3; ///< int: reserved; nothing writes or reads it
constexpr int TYPE_NAME = -4;     ///< std::string: the actor's type as the client knows it

/// Id and type name of the actor that stands for the connection itself.
constexpr int OWN_ACTOR_ID = 0;
constexpr char const* CONNECTION_TYPE = "CClientConnection";

constexpr char const* CTOR = "ctor";              ///< function of actor 0: makes an actor, answers its id
constexpr char const* DTOR = "dtor";              ///< function of actor 0: destroys an actor
constexpr char const* ON_KILL = "OnKill";         ///< callback of actor 0: the connection's worker was killed
constexpr char const* ON_RECREATE = "OnRecreate"; ///< callback of every other actor: it was made anew

} // namespace nelo_rpc::protocol

namespace nelo_rpc::types
{

/// Names of the reserved indices in the text of a list.
///
/// Never destroyed, because threads that are alive at exit still render lists; and kept where it is not used, so that a
/// leak checker finds it.
[[gnu::used]] static std::map<int, std::string> const& RESERVED_KEY_NAMES =
    *new std::map<int, std::string>{{protocol::METHOD_NAME, "METHOD_NAME"},
                                    {protocol::ACTOR_ID, "ACTOR_ID"},
                                    {protocol::CONNECTION_ID, "CONNECTION_ID"},
                                    {protocol::TYPE_NAME, "TYPE_NAME"}};

} // namespace nelo_rpc::types
