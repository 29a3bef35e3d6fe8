#pragma once

#include <nelo_rpc/Protocol.h>
#include <nelo_rpc/Values.h>

#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

/// An actor type that is declared once, for host and client alike: RegisterInterface.h makes the host's registration
/// of it, CProxyOf.h the client's proxy.
namespace nelo_rpc
{

template <class... Args>
class CCallbackSender;

namespace internal_interface
{

template <class A>
constexpr bool IS_ONE_WAY = !std::is_lvalue_reference_v<A> || std::is_const_v<std::remove_reference_t<A>>;

/// Asking for the size makes the compiler look at the traits, which say what can travel.
template <class T>
constexpr bool CAN_TRAVEL = sizeof(types::SValueTraits<std::decay_t<T>>) != 0;
template <>
inline constexpr bool CAN_TRAVEL<void> = true;

template <class C, class R, class... A>
struct SFunctionParts
{
    static_assert(CAN_TRAVEL<R> && (CAN_TRAVEL<A> && ...));
    static_assert((IS_ONE_WAY<A> && ...), "a function of an interface cannot change its arguments: take them by value "
                                          "or by reference to const, and return what comes back");
    static_assert(!std::is_pointer_v<R>, "a function of an interface cannot return a pointer: text is a std::string");

    using Class = C;
    using Signature = std::decay_t<R>(std::decay_t<A>...);
};

template <class Member>
struct SFunctionOf
{
    static_assert(!std::is_same_v<Member, Member>, "SFunction describes a member function of an interface class");
};
template <class C, class R, class... A>
struct SFunctionOf<R (C::*)(A...)> : SFunctionParts<C, R, A...>
{
};
template <class C, class R, class... A>
struct SFunctionOf<R (C::*)(A...) const> : SFunctionParts<C, R, A...>
{
};
template <class C, class R, class... A>
struct SFunctionOf<R (C::*)(A...) noexcept> : SFunctionParts<C, R, A...>
{
};
template <class C, class R, class... A>
struct SFunctionOf<R (C::*)(A...) const noexcept> : SFunctionParts<C, R, A...>
{
};

template <class Member>
struct SCallbackOf
{
    static_assert(!std::is_same_v<Member, Member>, "SCallback describes a CCallbackSender of an interface class");
};
template <class C, class... A>
struct SCallbackOf<CCallbackSender<A...> C::*>
{
    static_assert((CAN_TRAVEL<A> && ...));

    using Class = C;
};

} // namespace internal_interface

/// One function of an interface: a member function and the name under which it is called. Since 0.1.
template <auto Member>
struct SFunction
{
    using Class = typename internal_interface::SFunctionOf<decltype(Member)>::Class;
    using Signature = typename internal_interface::SFunctionOf<decltype(Member)>::Signature;
    static constexpr bool IS_CALLBACK = false;

    char const* name;
};

/// One callback of an interface: a CCallbackSender member and the name under which it is sent. Since 0.1.
template <auto Member>
struct SCallback
{
    using Class = typename internal_interface::SCallbackOf<decltype(Member)>::Class;
    static constexpr bool IS_CALLBACK = true;

    char const* name;
};

/// The description of an actor type: its name, its functions and its callbacks.
///
/// It is a constant named RPC of the interface class, whose implementations the host serves:
///
/// @code
/// class IThermostat
/// {
/// public:
///     virtual ~IThermostat() = default;
///     virtual bool SetTarget(double celsius) = 0;
///     nelo_rpc::CCallbackSender<double, std::string> OnChanged;
///
///     static constexpr nelo_rpc::CInterface RPC{"Thermostat", nelo_rpc::SFunction<&IThermostat::SetTarget>{"SetTarget"},
///                                               nelo_rpc::SCallback<&IThermostat::OnChanged>{"OnChanged"}};
/// };
/// @endcode
///
/// Names are kept by pointer, so they must be literals. Nothing of the description travels: two programs that were
/// compiled with different ones are not told apart. Since 0.1.
template <class... Members>
class CInterface
{
public:
    constexpr CInterface(char const* typeName, Members... members) : m_typeName(typeName), m_members(members...) {}

    constexpr char const* GetTypeName() const { return m_typeName; }

    /// Whether SFunction or SCallback `Member` is one of the description.
    template <class Member>
    static constexpr bool Has()
    {
        return (std::is_same_v<Member, Members> || ...);
    }

    /// The name of a member that is described once.
    template <class Member>
    constexpr char const* GetNameOf() const
    {
        return std::get<Member>(m_members).name;
    }

    /// Whether each name is there, stands for one function or one callback, and is not the protocol's own.
    constexpr bool IsUnambiguous() const { return IsUnambiguous(std::index_sequence_for<Members...>{}); }

    /// Calls `visit` with each SFunction and SCallback, in the order of the description.
    template <class Visitor>
    constexpr void ForEach(Visitor&& visit) const
    {
        std::apply([&](Members const&... members) { (visit(members), ...); }, m_members);
    }

private:
    template <std::size_t... I>
    constexpr bool IsUnambiguous(std::index_sequence<I...>) const
    {
        std::string_view const type = m_typeName;
        return !type.empty() && type != protocol::CONNECTION_TYPE && (IsOnlyOne(std::get<I>(m_members), I) && ...);
    }

    template <class Member>
    constexpr bool IsOnlyOne(Member const& member, std::size_t index) const
    {
        std::string_view const name = member.name;
        bool alone = !name.empty() && !(Member::IS_CALLBACK && name == protocol::ON_RECREATE);
        std::size_t i = 0;
        ForEach([&](auto const& other) {
            bool const sameKind = std::decay_t<decltype(other)>::IS_CALLBACK == Member::IS_CALLBACK;
            alone = alone && (i++ == index || !sameKind || name != other.name);
        });
        return alone;
    }

    char const* m_typeName;
    std::tuple<Members...> m_members;
};

} // namespace nelo_rpc
