#pragma once

#include <nelo_rpc/CActor.h>
#include <nelo_rpc/CInterface.h>
#include <nelo_rpc/CRpcHost.h>

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

namespace nelo_rpc
{

namespace internal_interface
{

template <class Interface, auto Member>
void addToActor(CActor& actor, Interface& object, SFunction<Member> const& function)
{
    actor.AddFunction(function.name, object, Member);
}

template <class Interface, auto Member>
void addToActor(CActor& actor, Interface& object, SCallback<Member> const& callback)
{
    actor.AddCallback(callback.name, object.*Member);
}

} // namespace internal_interface

/// Makes the actor type of an interface known to a host, with all its functions and callbacks.
///
/// What Interface::RPC describes and T does not implement is a compile error. Otherwise as
/// CRpcHost::RegisterActorType() does. Since 0.1.
///
/// @param make  makes an object; on the worker thread of a connection, for several at once.
template <class Interface, class T>
void registerInterface(CRpcHost& host, std::function<std::unique_ptr<T>()> make)
{
    static_assert(std::is_convertible_v<T*, Interface*>, "the class does not publicly derive from the interface");
    static_assert(std::has_virtual_destructor_v<T> || !std::is_polymorphic_v<T>,
                  "objects are destroyed as the class they are made as: it needs a virtual destructor");
    static_assert(Interface::RPC.IsUnambiguous(), "a name in the interface's RPC is missing, twice there or reserved");

    host.RegisterActorType<T>(
        Interface::RPC.GetTypeName(),
        [](CActor& actor, T& object) {
            Interface::RPC.ForEach(
                [&](auto const& member) { internal_interface::addToActor<Interface>(actor, object, member); });
        },
        std::move(make));
}

/// The same for objects that T's default constructor makes. Since 0.1.
template <class Interface, class T>
void registerInterface(CRpcHost& host)
{
    static_assert(!std::is_abstract_v<T>, "the class leaves a function of the interface without an implementation");
    if constexpr (!std::is_abstract_v<T>)
    {
        static_assert(std::is_default_constructible_v<T>, "the class has no default constructor: give a factory");
        registerInterface<Interface, T>(host,
                                        std::function<std::unique_ptr<T>()>([] { return std::make_unique<T>(); }));
    }
}

} // namespace nelo_rpc
