#pragma once

#include <nelo_rpc/CActorProxy.h>
#include <nelo_rpc/CInterface.h>
#include <nelo_rpc/CRpcClient.h>
#include <nelo_rpc/ProxyEndpoints.h>

#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

namespace nelo_rpc
{

namespace internal_interface
{

/// A fraction that would be cut off, or a number that would be taken for a truth value: nearly always an argument in
/// the wrong place.
template <class From, class To>
constexpr bool IS_DIFFERENT_NUMBER = std::is_arithmetic_v<From>&& std::is_arithmetic_v<To> &&
                                     ((std::is_floating_point_v<From> && !std::is_floating_point_v<To>) ||
                                      std::is_same_v<From, bool> != std::is_same_v<To, bool>);

template <class Signature>
struct SCallCheck;
template <class R, class... A>
struct SCallCheck<R(A...)>
{
    template <class... Given>
    static constexpr bool Accepts()
    {
        if constexpr (sizeof...(Given) == sizeof...(A))
        {
            return ((std::is_convertible_v<Given const&, A> && !IS_DIFFERENT_NUMBER<Given, A>)&&...);
        }
        else
        {
            return false;
        }
    }
};

/// What takes no result.
struct SUnhandled
{
};

/// Whether a call accepts the arguments, before which options and a handler of a `Handled` may stand.
template <class Signature, class Handled>
constexpr bool acceptsLed()
{
    return SCallCheck<Signature>::template Accepts<>();
}
template <class Signature, class Handled, class First, class... Rest>
constexpr bool acceptsLed()
{
    if constexpr (std::is_same_v<First, CCallOptions>)
    {
        return acceptsLed<Signature, Handled, Rest...>();
    }
    else if constexpr (std::is_invocable_v<First&, Handled>)
    {
        return SCallCheck<Signature>::template Accepts<Rest...>();
    }
    else
    {
        return SCallCheck<Signature>::template Accepts<First, Rest...>();
    }
}

template <class Member>
struct SProxyCallbackOf;
template <class C, class... A>
struct SProxyCallbackOf<CCallbackSender<A...> C::*>
{
    using Type = CProxyCallback<A...>;

    template <class Handler>
    static constexpr bool IS_TAKEN_BY = std::is_invocable_v<Handler&, A const&...>;
};

} // namespace internal_interface

/// The client's side of an actor whose type is declared as an interface: see CInterface.
///
/// A function or callback is named by its member of the interface class, so a wrong name, wrong arguments or a wrong
/// use of the result do not compile. Lifetime and threads are those of CActorProxy. Since 0.1.
template <class Interface>
class CProxyOf : public CActorProxy
{
    static_assert(Interface::RPC.IsUnambiguous(), "a name in the interface's RPC is missing, twice there or reserved");

public:
    /// Has the server make an actor, and blocks until it is made; see CActorProxy.
    explicit CProxyOf(CRpcClient& client) : CActorProxy(&client, Interface::RPC.GetTypeName()) {}

    /// Attaches to an actor that exists, and takes it over; see CActorProxy.
    CProxyOf(CRpcClient& client, int actorId) : CActorProxy(&client, Interface::RPC.GetTypeName(), actorId) {}

    /// A function as a member of a derived class, for those who want to write `proxy.SetTarget(21.5)`:
    /// `Function<&IThermostat::SetTarget> SetTarget{*this};`
    template <auto Member>
    class Function : public CProxyFunction<typename SFunction<Member>::Signature>
    {
    public:
        /// The proxy is not owned and must outlive the object.
        explicit Function(CProxyOf& proxy)
            : CProxyFunction<typename SFunction<Member>::Signature>(proxy, NameOf<SFunction<Member>>())
        {
        }
    };

    /// The same for a callback.
    template <auto Member>
    class Callback : public internal_interface::SProxyCallbackOf<decltype(Member)>::Type
    {
    public:
        /// The proxy is not owned and must outlive the object.
        explicit Callback(CProxyOf& proxy)
            : internal_interface::SProxyCallbackOf<decltype(Member)>::Type(proxy, NameOf<SCallback<Member>>())
        {
        }
    };

    /// Calls a function and waits for its result; a default value when none came: see CProxyFunction. Any thread.
    /// Usual conversions of arguments apply, but no fraction is cut off and no number taken for a `bool`.
    template <auto Member, class... Args>
    auto Call(Args const&... args)
    {
        static_assert(ACCEPTS<Member, Args...>, "these are not the arguments of the interface's function");
        if constexpr (ACCEPTS<Member, Args...>)
        {
            return Function<Member>(*this)(args...);
        }
    }

    /// The same, but says whether a result came: a std::optional. A `void` function answers `true`.
    template <auto Member, class... Args>
    auto TryCall(Args const&... args)
    {
        static_assert(ACCEPTS<Member, Args...>, "these are not the arguments of the interface's function");
        if constexpr (ACCEPTS<Member, Args...>)
        {
            return Function<Member>(*this).TryCall(args...);
        }
    }

    /// As TryCall(), but says how the call ended: see CProxyFunction::TryCallFunction(). CCallOptions may stand before
    /// the arguments. Since 0.1.
    template <auto Member, class... Given>
    auto TryCallFunction(Given const&... given)
    {
        constexpr bool IS_ACCEPTED = ACCEPTS_LED<Member, internal_interface::SUnhandled, Given...>;
        static_assert(IS_ACCEPTED, "these are not the arguments of the interface's function");
        if constexpr (IS_ACCEPTED)
        {
            return Function<Member>(*this).TryCallFunction(given...);
        }
    }

    /// Starts a call and returns without waiting for its end: see CProxyFunction::CallAsync(). CCallOptions, and then a
    /// handler of a std::optional, may stand before the arguments; without a handler this gives a std::future.
    /// Since 0.1.
    template <auto Member, class... Given>
    auto CallAsync(Given const&... given)
    {
        constexpr bool IS_ACCEPTED = ACCEPTS_LED<Member, std::optional<ResultOf<Member>>, Given...>;
        static_assert(IS_ACCEPTED, "these are not the arguments of the interface's function, led by a handler of its "
                                   "optional result if there is one");
        if constexpr (IS_ACCEPTED)
        {
            return Function<Member>(*this).CallAsync(given...);
        }
    }

    /// The same, with CCallOptions and a handler that hears how the call ended: see CProxyFunction::CallFunctionAsync().
    /// Since 0.1.
    template <auto Member, class... Given>
    void CallFunctionAsync(Given const&... given)
    {
        constexpr bool IS_ACCEPTED = ACCEPTS_LED<Member, CCallResultOf<ResultOf<Member>>, Given...>;
        static_assert(IS_ACCEPTED, "these are not the arguments of the interface's function, led by CCallOptions and a "
                                   "handler of its CCallResultOf");
        if constexpr (IS_ACCEPTED)
        {
            Function<Member>(*this).CallFunctionAsync(given...);
        }
    }

    /// The same for coroutines: see CProxyFunction::CallAwaitable(). CCallOptions may stand before the arguments.
    /// Since 0.1.
    template <auto Member, class... Given>
    auto CallAwaitable(Given const&... given)
    {
        constexpr bool IS_ACCEPTED = ACCEPTS_LED<Member, internal_interface::SUnhandled, Given...>;
        static_assert(IS_ACCEPTED, "these are not the arguments of the interface's function");
        if constexpr (IS_ACCEPTED)
        {
            return Function<Member>(*this).CallAwaitable(given...);
        }
    }

    /// Lets `handler` be called with each payload of a callback, replacing an earlier handler: see CProxyCallback.
    template <auto Member, class Handler>
    void Subscribe(Handler handler)
    {
        constexpr bool IS_TAKEN = internal_interface::SProxyCallbackOf<decltype(Member)>::template IS_TAKEN_BY<Handler>;
        static_assert(IS_TAKEN, "this handler does not take the payload of the interface's callback");
        if constexpr (IS_TAKEN)
        {
            Callback<Member>(*this).Subscribe(std::move(handler));
        }
    }

private:
    template <class Member>
    static constexpr char const* NameOf()
    {
        static_assert(Interface::RPC.template Has<Member>(), "this is not a member that the interface's RPC describes");
        return Interface::RPC.template GetNameOf<Member>();
    }

    // Asked before anything is done with the arguments, so that the compiler says this and nothing else.
    template <auto Member, class... Args>
    static constexpr bool ACCEPTS = internal_interface::SCallCheck<
        typename SFunction<Member>::Signature>::template Accepts<std::decay_t<Args>...>();

    template <auto Member, class Handled, class... Given>
    static constexpr bool ACCEPTS_LED =
        internal_interface::acceptsLed<typename SFunction<Member>::Signature, Handled, std::decay_t<Given>...>();

    template <auto Member>
    using ResultOf = typename CProxyFunction<typename SFunction<Member>::Signature>::Result;
};

} // namespace nelo_rpc
